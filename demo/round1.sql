-- A working day: an old month is dropped, more mail comes in than went, the recent mail is read, and
-- somebody looks through old messages.
PRAGMA cache_size = -65536;
.testctrl prng_seed 1
BEGIN;
DELETE FROM message WHERE id BETWEEN 3000 AND 3375;
INSERT INTO message (mailbox, body)
  SELECT abs(random() % 200), randomblob(500 + abs(random() % 5500)) FROM generate_series(1, 625);
COMMIT;
BEGIN;
UPDATE message SET seen = 1 WHERE id BETWEEN 15750 AND 16375;
UPDATE message SET seen = 1 WHERE id IN (SELECT abs(random() % 15000) FROM generate_series(1, 15));
COMMIT;
