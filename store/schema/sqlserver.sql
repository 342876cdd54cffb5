-- The chunked file store on SQL Server. Run when the tables are missing;
-- each statement ends with a semicolon at the end of its line.
--
-- chunk_id only orders a file's chunks for reading back; the store never
-- names it when inserting.
IF OBJECT_ID(N'[file]', N'U') IS NULL CREATE TABLE [file] ( [file_id] int IDENTITY(1, 1) PRIMARY KEY, [original_size] int NOT NULL );
IF OBJECT_ID(N'[composite]', N'U') IS NULL CREATE TABLE [composite] ( [composite_id] int IDENTITY(1, 1) PRIMARY KEY, [chunks] int NOT NULL, [data] varbinary(max) NOT NULL, [fft_rms] float NOT NULL, [is_compressed] bit NOT NULL );
IF OBJECT_ID(N'[chunk]', N'U') IS NULL CREATE TABLE [chunk] ( [chunk_id] bigint IDENTITY(1, 1) PRIMARY KEY, [file_id] int NOT NULL REFERENCES [file] ([file_id]), [ordinal] int NOT NULL, [composite_id] int NOT NULL REFERENCES [composite] ([composite_id]), [start] int NOT NULL, [length] int NOT NULL, [fft_rms] float NOT NULL, CONSTRAINT [chunk_composite_ordinal] UNIQUE ([composite_id], [ordinal]) );
IF INDEXPROPERTY(OBJECT_ID(N'[chunk]'), N'chunk_file', N'IndexID') IS NULL CREATE INDEX [chunk_file] ON [chunk] ([file_id], [chunk_id]);
