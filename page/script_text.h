// The script text of the combined script download: each script the page
// optimiser combines is kept in a global variable as a single-quoted string
// literal, and the page runs it in its first place with eval().
#ifndef ZELVARPACK_PAGE_SCRIPT_TEXT_H_
#define ZELVARPACK_PAGE_SCRIPT_TEXT_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace zelvarpack::page {

// The global that holds the N-th combined script.
std::string ScriptVariableName(std::int32_t number);
// "var <name> = '" that opens the N-th script's literal.
std::string ScriptVariableOpening(std::int32_t number);
// "eval(<name>);" that runs it.
std::string ScriptEvalCall(std::int32_t number);
// "';" that closes a literal.
inline constexpr std::string_view kScriptVariableClosing = "';";

// Appends `text` escaped for a single-quoted string literal: ' \ and / get a
// backslash (the slash so that no "</script>" appears), a line feed becomes
// \n and a carriage return \r, with nothing around them, so that template
// literals and line continuations keep their exact text when eval reads the
// string back. Every other byte is copied.
void AppendEscapedScript(std::string& out, std::string_view text);

// The script that makes a sprite placeholder behave as its real image for
// the page's scripts (src reads and writes), run on DOMContentLoaded.
extern const std::string_view kLazyImageScript;

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_SCRIPT_TEXT_H_
