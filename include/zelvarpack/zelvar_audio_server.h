// CZelvarAudioServer cuts the PCM of WAV files into short pieces, sorts the
// pieces by a spectral fingerprint into 65536 tesserae, so that pieces that
// sound alike are compressed together, and writes two files: an index file
// with one byte per piece and a data file with one raw-deflate record per
// tessera. Hosts use the static handle interface:
//
//   void* h = CZelvarAudioServer::Create(work, workLength, index, indexLength,
//                                        data, dataLength, setting);
//   CZelvarAudioServer::Write(h, wavPath, 0);   // once per WAV file
//   CZelvarAudioServer::Flush(h);               // once
//   CZelvarAudioServer::Destroy(h);
//
// Failures are thrown as std::runtime_error with one of the texts
// "Could not open file.", "Invalid file." and "Video tesserae is read-only.";
// the handle stays usable for Destroy. A WAV file rejected halfway keeps the
// pieces of the blocks read before the fault.
//
// The index and data files are written under temporary names beside their
// final paths and renamed into place by Flush (or by Destroy when Flush was
// never called), so a reader never sees them half-written.
//
// Thread safety: a handle is used by one thread at a time; separate handles
// are independent.
#ifndef ZELVARPACK_ZELVAR_AUDIO_SERVER_H_
#define ZELVARPACK_ZELVAR_AUDIO_SERVER_H_

#include <cstdint>

#include "zelvarpack/export.h"

class CZelvarAudioServer {
 public:
  // The read form: keeps copies of the two paths (the first `length` bytes of
  // each, NUL-terminated); no work directory. A negative length counts as 0.
  ZP_EXPORT static void* Create(unsigned char* indexPath, std::int32_t indexPathLength,
                                unsigned char* dataPath, std::int32_t dataPathLength);
  // The write form. Tessera files are kept in `workDirectory` until Flush.
  // `setting` is kept and has no effect.
  ZP_EXPORT static void* Create(unsigned char* workDirectory, std::int32_t workDirectoryLength,
                                unsigned char* indexPath, std::int32_t indexPathLength,
                                unsigned char* dataPath, std::int32_t dataPathLength,
                                std::int32_t setting);

  // Adds the WAV file at the NUL-terminated `wavPath`; `length` is not used.
  // The first call creates the index and data files. On a read-form handle
  // the engine is the reading one, and the first piece throws "Video
  // tesserae is read-only." (the files are only ever opened for reading).
  ZP_EXPORT static void Write(void* handle, unsigned char* wavPath, std::int32_t length);

  // Writes every started tessera into the data file, in start order, and
  // publishes both files. Without an earlier Write the files are created
  // empty. Pieces written after a Flush go into new records that a further
  // Flush appends.
  ZP_EXPORT static void Flush(void* handle);

  // Opens both files for reading and builds the reading engine, once; the
  // reference parameters are left untouched.
  ZP_EXPORT static void Read(void* handle, void*& a, void*& b, void*& c);

  // Does nothing.
  ZP_EXPORT static void Discard(void* handle, void*& a, void*& b);

  // Closes and frees everything. Pieces not flushed are dropped. A null
  // handle is ignored.
  ZP_EXPORT static void Destroy(void* handle);

  CZelvarAudioServer() = delete;
};

#endif  // ZELVARPACK_ZELVAR_AUDIO_SERVER_H_
