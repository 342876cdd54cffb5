// What an image file's header tells without decoding it: its declared size,
// and whether a PNG would lose its transparency in an opaque sheet. Used to
// decide, before any decoding, whether an image may join a sprite sheet.
#ifndef ZELVARPACK_IMAGE_IMAGE_HEADER_H_
#define ZELVARPACK_IMAGE_IMAGE_HEADER_H_

#include <string_view>

namespace zelvarpack::image {

// True for a PNG that has transparency (an alpha channel, or a tRNS chunk)
// but would be packed into an opaque sheet: PNGs without a bKGD chunk are
// re-encoded as JPEG with the 24-bit sheets, where their transparent pixels
// would turn white. Such an image is better left as it is.
bool PngWouldLoseTransparency(std::string_view bytes);

// The width and height a GIF, PNG or JPEG file declares in its header, read
// without decoding; false for anything else or a header cut short.
bool ReadImageSize(std::string_view bytes, int& width, int& height);

}  // namespace zelvarpack::image

#endif  // ZELVARPACK_IMAGE_IMAGE_HEADER_H_
