-- Mail that comes in before the crash.
PRAGMA cache_size = -65536;
.testctrl prng_seed 3
INSERT INTO message (mailbox, body)
  SELECT abs(random() % 200), randomblob(500 + abs(random() % 5500)) FROM generate_series(1, 75);
