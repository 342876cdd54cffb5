// CZelvarFileServer stores files in a relational database reached through
// ODBC: each file is cut into 4096-byte chunks, and each chunk is appended
// to a composite of up to 25 chunks whose spectral fingerprint (fft_rms)
// agrees with the chunk's when both are taken x 100 and truncated; among
// those the nearest is chosen. A composite is kept gzip-compressed whenever
// that form is strictly shorter. Tables (created when missing):
//   file (file_id, original_size)
//   chunk (file_id, ordinal, composite_id, start, length, fft_rms)
//   composite (composite_id, chunks, data, fft_rms, is_compressed)
// SQLite, PostgreSQL and SQL Server are told apart by the engine name the
// driver reports.
//
//   void* h = CZelvarFileServer::Create(connectionString, length);
//   std::int32_t id = CZelvarFileServer::AddFile(h, bytes, count);  // or -1
//   CZelvarFileServer::Destroy(h);
//
// Each AddFile connects, stores the file in one transaction (all of it or,
// after any failure, nothing) and disconnects; the handle keeps only the
// connection string. Handles may be used from several threads at once, and
// any number of processes may add to one database.
//
// Only storing is implemented. The member operations answer fixed values so
// that no caller comes to rely on reading back, updating or deleting
// through this class.
#ifndef ZELVARPACK_ZELVAR_FILE_SERVER_H_
#define ZELVARPACK_ZELVAR_FILE_SERVER_H_

#include <cstdint>

#include "zelvarpack/export.h"

class CZelvarFileServer {
 public:
  // Copies `length` bytes of the ODBC connection string (null or a
  // negative length count as empty).
  ZP_EXPORT static void* Create(unsigned char* connectionString, std::int32_t length);
  // The new file_id, or -1 on any failure (nothing is stored then).
  ZP_EXPORT static std::int32_t AddFile(void* handle, unsigned char* bytes, std::int32_t length);
  // Frees the handle; null is ignored.
  ZP_EXPORT static void Destroy(void* handle);

  // Always true.
  ZP_EXPORT bool UpdateFile(std::int32_t fileId, unsigned char* bytes, std::int32_t length);
  // Always true.
  ZP_EXPORT bool DeleteFileW(std::int32_t fileId);
  // Always null.
  ZP_EXPORT unsigned char* RetrieveFileData(std::int32_t fileId);
  // Always 0.
  ZP_EXPORT std::int32_t RetrieveFileLength();
};

#endif  // ZELVARPACK_ZELVAR_FILE_SERVER_H_
