-- A working day: an old month is dropped, more mail comes in than went, the recent mail is read, and
-- somebody looks through old messages.
PRAGMA cache_size = -65536;
.testctrl prng_seed 1
BEGIN;
DELETE FROM message WHERE id BETWEEN 12000 AND 13500;
INSERT INTO message (mailbox, body)
  SELECT abs(random() % 200), randomblob(500 + abs(random() % 5500)) FROM generate_series(1, 2500);
COMMIT;
BEGIN;
UPDATE message SET seen = 1 WHERE id BETWEEN 63000 AND 65500;
UPDATE message SET seen = 1 WHERE id IN (SELECT abs(random() % 60000) FROM generate_series(1, 60));
COMMIT;
