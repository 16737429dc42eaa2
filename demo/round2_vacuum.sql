-- The free pages are given back: pages from the end move into them and the file is cut.
PRAGMA cache_size = -65536;
PRAGMA incremental_vacuum;
