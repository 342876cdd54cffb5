#include "page/script_text.h"

#include <gtest/gtest.h>

namespace {

using zelvarpack::page::AppendEscapedScript;

std::string Escaped(const std::string& text) {
  std::string out;
  AppendEscapedScript(out, text);
  return out;
}

TEST(ScriptText, EscapesForASingleQuotedLiteral) {
  EXPECT_EQ(Escaped("a'b"), "a\\'b");
  EXPECT_EQ(Escaped("a\\b"), "a\\\\b");
  EXPECT_EQ(Escaped("</script>"), "<\\/script>");
  EXPECT_EQ(Escaped("x\ny\rz"), "x\\ny\\rz");
  EXPECT_EQ(Escaped("say \"hi\""), "say \"hi\"");
  EXPECT_EQ(Escaped(std::string("\0a", 2)), std::string("\0a", 2));
}

// A template literal and a line continuation keep their exact text once eval
// reads the string back: a line feed must not grow blanks around it.
TEST(ScriptText, LineBreaksGainNoBlanks) {
  EXPECT_EQ(Escaped("`a\nb`"), "`a\\nb`");
  EXPECT_EQ(Escaped("'a\\\nb'"), "\\'a\\\\\\nb\\'");
}

TEST(ScriptText, NamesTheVariablesAndCalls) {
  EXPECT_EQ(zelvarpack::page::ScriptVariableOpening(3),
            "var zp_C115BF0C_4E62_4D27_8890_9F0B5AF5D14F_3 = '");
  EXPECT_EQ(zelvarpack::page::ScriptEvalCall(12),
            "eval(zp_C115BF0C_4E62_4D27_8890_9F0B5AF5D14F_12);");
}

}  // namespace
