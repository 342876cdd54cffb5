// CZelvarVideoServer cuts 1920 x 1080 video frames, read from JPEG or PNG
// files, into 225 tiles of 128 x 72 pixels, sorts the tiles by a
// two-dimensional spectral fingerprint into 256 tesserae, so that tiles
// that look alike are kept together, and keeps each tessera as 1920 x 1080
// JPEG mosaics of 15 x 15 tiles. It writes two files: an index file that
// says for every tile of every frame which mosaic and which place in it
// holds the tile, and a data file of the mosaics. Hosts use the static
// handle interface, as for CZelvarAudioServer:
//
//   void* h = CZelvarVideoServer::Create(work, workLength, index, indexLength,
//                                        data, dataLength, setting);
//   CZelvarVideoServer::Write(h, framePath, 0);   // once per frame, in order
//   CZelvarVideoServer::Flush(h);                 // publishes both files
//   CZelvarVideoServer::Destroy(h);
//
// and to read back:
//
//   void* r = CZelvarVideoServer::Create(index, indexLength, data, dataLength);
//   CZelvarVideoServer::Read(r, a, b, c);         // opens and checks the files
//   CZelvarBuffer* pixels = CZelvarVideoServer::ReadFrame(r, n);
//   CZelvarVideoServer::Destroy(r);
//
// Failures are thrown as std::runtime_error with one of the texts "Could
// not open file.", "Invalid file.", "Video tesserae is read-only." (a write
// to a read-form handle) and "Video tesserae is write-only." (a read from a
// write-form handle); the handle stays usable for Destroy.
//
// A frame that is not exactly 1920 x 1080 is refused with "Invalid file.",
// not scaled: the index keeps no frame size, so a scaled frame could never
// be given back as it came, and a caller that wants scaling knows better
// than the engine which filter and which crop suit its pictures.
//
// The index and data files are written under temporary names beside their
// final paths and renamed into place by the first Flush; frames written
// after a Flush reach the files only at the next one. A handle destroyed
// without Flush leaves no index, data or work file behind.
//
// Thread safety: a handle is used by one thread at a time; separate handles
// are independent.
#ifndef ZELVARPACK_ZELVAR_VIDEO_SERVER_H_
#define ZELVARPACK_ZELVAR_VIDEO_SERVER_H_

#include <cstdint>

#include "zelvarpack/export.h"
#include "zelvarpack/zelvar_buffer.h"

class CZelvarVideoServer {
 public:
  static constexpr std::int32_t kFrameWidth = 1920;
  static constexpr std::int32_t kFrameHeight = 1080;

  // The read form: keeps copies of the two paths (the first `length` bytes of
  // each); no work directory. A negative length counts as 0.
  ZP_EXPORT static void* Create(unsigned char* indexPath, std::int32_t indexPathLength,
                                unsigned char* dataPath, std::int32_t dataPathLength);
  // The write form. Mosaic files are kept in `workDirectory` until Flush.
  // `setting` is kept and has no effect.
  ZP_EXPORT static void* Create(unsigned char* workDirectory, std::int32_t workDirectoryLength,
                                unsigned char* indexPath, std::int32_t indexPathLength,
                                unsigned char* dataPath, std::int32_t dataPathLength,
                                std::int32_t setting);

  // Adds the frame in the JPEG or PNG file at the NUL-terminated
  // `framePath`; `length` is not used. "Could not open file." when the file
  // cannot be read, "Invalid file." when it is not a whole JPEG or PNG of
  // 1920 x 1080 (nothing of such a frame is kept). On a read-form handle,
  // "Video tesserae is read-only.".
  ZP_EXPORT static void Write(void* handle, unsigned char* framePath, std::int32_t length);

  // Finishes every mosaic, appends the mosaics to the data file and the
  // frames' entries to the index, and publishes both files. Without an
  // earlier Write the files are created empty. On a read-form handle,
  // "Video tesserae is read-only.".
  ZP_EXPORT static void Flush(void* handle);

  // Opens both files and checks them ("Could not open file.", "Invalid
  // file."), once; the reference parameters are left untouched. On a
  // write-form handle, "Video tesserae is write-only.".
  ZP_EXPORT static void Read(void* handle, void*& a, void*& b, void*& c);

  // Does nothing.
  ZP_EXPORT static void Discard(void* handle, void*& a, void*& b);

  // Closes and frees everything. A null handle is ignored.
  ZP_EXPORT static void Destroy(void* handle);

  // Reading back, this engine's own addition. The number of frames in the
  // index (Read first if it has not been called).
  static std::int32_t FrameCount(void* handle);
  // Frame `frame` (from 0, in the order written) rebuilt from its tiles'
  // places in the mosaics: a new buffer of 1920 x 1080 pixels, row by row,
  // four bytes each (R, G, B, 255), which the caller deletes. Null for a
  // frame number outside the index; "Invalid file." when a mosaic it needs
  // is not a 1920 x 1080 JPEG.
  static CZelvarBuffer* ReadFrame(void* handle, std::int32_t frame);

  CZelvarVideoServer() = delete;
};

#endif  // ZELVARPACK_ZELVAR_VIDEO_SERVER_H_
