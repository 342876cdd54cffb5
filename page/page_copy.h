// What the page consumers that copy a page (the savings calculator and the
// proxy) share: copying the text and DOCTYPE events through, taking the
// caller's (pointer, length) strings, and writing the copy as index.html.
// Pure functions; any thread.
#ifndef ZELVARPACK_PAGE_PAGE_COPY_H_
#define ZELVARPACK_PAGE_PAGE_COPY_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "zelvarpack/html_events.h"

namespace zelvarpack::page {

// The first `length` bytes at `bytes`; "" for null or a negative length.
std::string CopyOfText(const unsigned char* bytes, std::int32_t length);

// Character data as it stands; a comment as "<!--" + body + "-->".
void AppendText(std::string& out, const HtmlTextToken& text);

// Writes `page` as directory/index.html, replacing an older copy whole.
// False when the file could not be written.
bool WriteIndexPage(const std::string& directory, std::string_view page);

// `directory` + "/" + `name` (no separator doubled; "" stands for the
// current folder).
std::string InFolder(const std::string& directory, std::string_view name);

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_PAGE_COPY_H_
