// CZelvarImageServer packs the small images of a page or stylesheet into
// sprite sheets, one per kind of source, and serves stored sheets back.
//
// Calling pattern: AddImage for each image (it is decoded at once on a
// bounded pool of worker threads); RouteImage for each decoded image that is
// wanted, which files it into one of four sets by format (GIF, JPEG, PNG
// below 32 bits, PNG of 32 bits); BuildSheet per set, which packs, renders
// and encodes the sheet and, when the sheet is smaller than its sources,
// stores it under cache/gif, cache/jpg or cache/png with its ".c" index and
// returns its identifier. GetGifId and the three like getters read a stored
// sheet and its index back into a new CZelvarImages.
//
// Limits: an image whose decoded or declared size exceeds 4096 pixels on a
// side or 16 megapixels is rejected, and so is a margin outside 0..4096; a
// sheet over 16384 pixels on a side or 64 megapixels is not built. The
// decoded images of one server may hold at most 64 megapixels in all.
//
// Thread safety: one server is used by one thread at a time; its decoding
// jobs touch only their own records. Any number of servers, in any number of
// threads or processes, may share a cache folder: files appear whole under
// their final names and are never rewritten.
#ifndef ZELVARPACK_ZELVAR_IMAGE_SERVER_H_
#define ZELVARPACK_ZELVAR_IMAGE_SERVER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zelvarpack/export.h"
#include "zelvarpack/zelvar_buffer.h"

// Where one source image sits in its sheet, as the percentages a stylesheet
// needs (background-position and background-size), under the image's key.
struct CZelvarImageEntry {
  std::int32_t key;
  double positionX;
  double positionY;
  double sizeX;
  double sizeY;
};

// Where a routed image landed once its set's sheet is stored: the sheet's
// kind (CZelvarImageServer::SheetKind), the size the image is drawn at (its
// declared size when one was given, else its decoded size), and its index
// entry.
struct CZelvarImagePlacement {
  std::int32_t sheetKind;
  std::int32_t width;
  std::int32_t height;
  CZelvarImageEntry entry;
};

// One stored sheet: its encoded bytes and one entry per source image, in the
// order of its index file.
class CZelvarImages {
 public:
  CZelvarImages();
  ZP_EXPORT ~CZelvarImages();
  CZelvarImages(const CZelvarImages&) = delete;
  CZelvarImages& operator=(const CZelvarImages&) = delete;

  // The sheet's bytes, owned by this object. Sheets are served as they are
  // stored, so `wasGzip` is always cleared.
  ZP_EXPORT CZelvarBuffer* GetRawImageZelvarBuffer(bool& wasGzip);

  std::int32_t GetEntryCount() const;
  // REQUIRES: 0 <= index < GetEntryCount().
  const CZelvarImageEntry& GetEntry(std::int32_t index) const;

  void AddEntry(const CZelvarImageEntry& entry);

 private:
  CZelvarBuffer sheet_;
  std::vector<CZelvarImageEntry> entries_;
};

class CZelvarImageServer {
 public:
  enum SheetKind : std::int32_t { kGifSheet = 0, kJpgSheet = 1, kPng24Sheet = 2, kPng32Sheet = 3 };

  // Copies `cachePath` (null counts as "").
  ZP_EXPORT explicit CZelvarImageServer(char* cachePath);
  // Waits for the decoding jobs still running.
  ZP_EXPORT ~CZelvarImageServer();
  CZelvarImageServer(const CZelvarImageServer&) = delete;
  CZelvarImageServer& operator=(const CZelvarImageServer&) = delete;

  // Copies the image and its texts (null counts as empty) and starts its
  // decoding. A non-empty declared width or height replaces the decoded one
  // (the image is then scaled into its cell); margins are extra space in the
  // cell. Texts are read like atoi. Returns the image's handle: 0, 1, 2, ...
  // in the order of adding.
  std::int32_t AddImage(const unsigned char* bytes, std::int32_t length, const char* declaredWidth,
                        const char* declaredHeight, const char* marginBottom,
                        const char* marginLeft, const char* marginRight, const char* marginTop);

  // True once the image's decoding has ended, accepted or not. Never waits.
  bool IsDecoded(std::int32_t handle) const;
  // Waits until every image added so far is decoded.
  void WaitForDecoding();

  // Waits for the image's decoding, then files an accepted image into the
  // set for its format and returns that set; -1 for a rejected image, an
  // unknown handle, an image already routed and a set already built.
  std::int32_t RouteImage(std::int32_t handle);

  // Builds the set's sheet once. Returns its identifier, or "" when the set
  // is empty, the sheet would be too large, or the encoded sheet is larger
  // than its sources together. Asking again returns the first answer.
  std::string BuildSheet(SheetKind kind);

  // The key and percentages of a routed image once its set's sheet is built
  // and stored; false when the sheet was not made (too large, not encoded,
  // or not smaller than its sources).
  bool GetImageEntry(std::int32_t handle, CZelvarImageEntry& entry) const;
  // The same, with the sheet kind and drawn size a placeholder needs.
  bool GetImagePlacement(std::int32_t handle, CZelvarImagePlacement& placement) const;

  // A new CZelvarImages with the sheet stored under `id` in cache/gif
  // (GetGifId), cache/jpg (GetJpgId, GetPng24Id) or cache/png (GetPng32Id),
  // owned by the caller; null when none is stored and for any `id` that is
  // not a braced upper-case GUID.
  ZP_EXPORT CZelvarImages* GetGifId(std::string id);
  ZP_EXPORT CZelvarImages* GetJpgId(std::string id);
  ZP_EXPORT CZelvarImages* GetPng24Id(std::string id);
  ZP_EXPORT CZelvarImages* GetPng32Id(std::string id);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

#endif  // ZELVARPACK_ZELVAR_IMAGE_SERVER_H_
