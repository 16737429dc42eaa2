-- A mail archive of nearly 64 MiB. The seed makes every run write the same bytes.
.testctrl prng_seed 2026
PRAGMA page_size = 4096;
PRAGMA auto_vacuum = INCREMENTAL;
PRAGMA synchronous = OFF;

CREATE TABLE message (
  id INTEGER PRIMARY KEY,
  mailbox INTEGER NOT NULL,
  seen INTEGER NOT NULL DEFAULT 0,
  body BLOB NOT NULL
);
CREATE INDEX message_by_mailbox ON message (mailbox);
INSERT INTO message (mailbox, body)
  SELECT abs(random() % 200), randomblob(500 + abs(random() % 5500)) FROM generate_series(1, 17250);
