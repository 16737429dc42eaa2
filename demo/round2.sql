-- A year's mail is thrown away. The pages that it leaves are free; the file keeps its size.
PRAGMA cache_size = -65536;
DELETE FROM message WHERE id BETWEEN 7500 AND 8375;
