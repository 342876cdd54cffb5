// Writing the optimised page from its segments: the combined stylesheet
// links before </head>, the combined scripts after <head>, eval() calls
// where fetched scripts stood, sprite placeholders for images, and every
// other piece as it was.
#ifndef ZELVARPACK_PAGE_PAGE_WRITER_H_
#define ZELVARPACK_PAGE_PAGE_WRITER_H_

#include <string>
#include <string_view>

#include "page/page_state.h"

namespace zelvarpack::page {

// The handler URL prefix for `handler` ("CS", "JS" or "IS"): the page's
// server URL, then the handler path and "/", or "./" without a handler
// path, then the handler name and "?".
std::string HandlerPrefix(const PageState& page, std::string_view handler);

// A number as printf's "%.15g" writes it in the C locale, whatever the
// process locale is.
std::string FormatPercent(double value);

// The whole new page, counting the requests and kept-image bytes it costs.
void WritePage(PageState& page, CZelvarBuffer& buffer);

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_PAGE_WRITER_H_
