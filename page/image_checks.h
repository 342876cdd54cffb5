// Checks on a fetched image before it may become part of a sprite sheet.
#ifndef ZELVARPACK_PAGE_IMAGE_CHECKS_H_
#define ZELVARPACK_PAGE_IMAGE_CHECKS_H_

#include <string_view>

namespace zelvarpack::page {

// True for a PNG that has transparency (an alpha channel, or a tRNS chunk)
// but would be packed into an opaque sheet: PNGs without a bKGD chunk are
// re-encoded as JPEG with the 24-bit sheets, where their transparent pixels
// would turn white. Such an image is better left as it is.
bool PngWouldLoseTransparency(std::string_view bytes);

// The width and height a GIF, PNG or JPEG file declares in its header, read
// without decoding; false for anything else or a header cut short.
bool ReadImageSize(std::string_view bytes, int& width, int& height);

// Images larger than this on either side are left as they are: a page's
// stylesheets often size large pictures themselves (responsive widths,
// object-fit), which a sprite background cannot follow, and next to their
// bytes the request a sprite saves is small.
inline constexpr int kMaxSpriteSide = 256;

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_IMAGE_CHECKS_H_
