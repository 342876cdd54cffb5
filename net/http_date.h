// HTTP dates (Expires, Last-Modified) as seconds since 1970 UTC.
#ifndef ZELVARPACK_NET_HTTP_DATE_H_
#define ZELVARPACK_NET_HTTP_DATE_H_

#include <cstdint>
#include <optional>
#include <string_view>

namespace zelvarpack::net {

// Reads the three forms HTTP allows: "Sun, 06 Nov 1994 08:49:37 GMT",
// "Sunday, 06-Nov-94 08:49:37 GMT" (years 70-99 are 19xx, 00-69 are 20xx)
// and "Sun Nov  6 08:49:37 1994". The weekday is not checked; a zone other
// than GMT or UTC, a missing part or a value out of range gives nothing.
std::optional<std::int64_t> ParseHttpDate(std::string_view text);

}  // namespace zelvarpack::net

#endif  // ZELVARPACK_NET_HTTP_DATE_H_
