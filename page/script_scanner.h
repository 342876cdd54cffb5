// Decides whether a classic script can be run through a direct eval() with
// the same meaning, which is how the page optimiser runs scripts combined
// into one download. Global code and direct-eval code differ in four ways
// that matter to real pages:
//   - a "use strict" directive gives eval code its own variable scope, so
//     the script's `var` and function declarations would no longer be
//     globals;
//   - top-level let, const and class declarations are scoped to the eval
//     call instead of being shared with later scripts;
//   - import and export are only valid in modules.
// The scanner reads the top level of the script only, and understands
// comments, string literals, template literals (with nested substitutions)
// and regular-expression literals well enough to know where the top level
// is. Anything it cannot follow (an unterminated literal or comment,
// unbalanced brackets) counts as unsafe. Pure function; any thread.
#ifndef ZELVARPACK_PAGE_SCRIPT_SCANNER_H_
#define ZELVARPACK_PAGE_SCRIPT_SCANNER_H_

#include <string_view>

namespace zelvarpack::page {

bool IsSafeForEval(std::string_view script);

// True for an absent-equivalent or JavaScript type attribute value: "" and
// the JavaScript MIME type essences of the HTML standard (ASCII
// case-insensitive, surrounding blanks ignored). "module" and everything
// else (JSON, templates) is not.
bool IsJavaScriptType(std::string_view type);

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_SCRIPT_SCANNER_H_
