// Table-driven tokenizer tests (compiled into the test binary only): one line
// per case, the input and the token stream expected in the tokenizer's own
// compact text form, checked with the input in the trace.
#ifndef ZELVARPACK_TESTS_TOKEN_CASES_H_
#define ZELVARPACK_TESTS_TOKEN_CASES_H_

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace zelvarpack::testing {

struct TokenCase {
  std::string input;
  std::string expected;
};

// Checks `tokens(input)` against each case's expected stream; `escaped`
// writes the input readably for the trace.
template <typename TokensFn, typename EscapedFn>
void ExpectTokenCases(const std::vector<TokenCase>& cases, TokensFn tokens, EscapedFn escaped) {
  for (const TokenCase& c : cases) {
    SCOPED_TRACE("input: " + escaped(c.input));
    EXPECT_EQ(tokens(c.input), c.expected);
  }
}

// A literal with its embedded NUL bytes.
template <std::size_t N>
std::string B(const char (&bytes)[N]) {
  return std::string(bytes, N - 1);
}

}  // namespace zelvarpack::testing

#endif  // ZELVARPACK_TESTS_TOKEN_CASES_H_
