-- The free pages are given back: pages from the end move into them and the file is cut.
PRAGMA incremental_vacuum;
