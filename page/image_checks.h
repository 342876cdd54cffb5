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

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_IMAGE_CHECKS_H_
