-- The chunked file store on SQLite. Run when the tables are missing; each
-- statement ends with a semicolon at the end of its line.
--
-- chunk_id only orders a file's chunks for reading back; the store never
-- names it when inserting. The partial index serves the composite search
-- (same truncated fingerprint x 100, fewer than 25 chunks) and must keep
-- the search's expression exactly.
CREATE TABLE IF NOT EXISTS file (
  file_id INTEGER PRIMARY KEY AUTOINCREMENT,
  original_size INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS composite (
  composite_id INTEGER PRIMARY KEY AUTOINCREMENT,
  chunks INTEGER NOT NULL,
  fft_rms REAL NOT NULL,
  is_compressed INTEGER NOT NULL CHECK (is_compressed IN (0, 1)),
  data BLOB NOT NULL
);
CREATE TABLE IF NOT EXISTS chunk (
  chunk_id INTEGER PRIMARY KEY AUTOINCREMENT,
  file_id INTEGER NOT NULL REFERENCES file (file_id),
  ordinal INTEGER NOT NULL,
  composite_id INTEGER NOT NULL REFERENCES composite (composite_id),
  start INTEGER NOT NULL,
  length INTEGER NOT NULL,
  fft_rms REAL NOT NULL,
  UNIQUE (composite_id, ordinal)
);
CREATE INDEX IF NOT EXISTS chunk_file ON chunk (file_id, chunk_id);
CREATE INDEX IF NOT EXISTS composite_open_bucket
  ON composite (CAST(fft_rms * 100.0 AS INTEGER)) WHERE chunks < 25;
