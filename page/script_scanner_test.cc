#include "page/script_scanner.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using zelvarpack::page::IsJavaScriptType;
using zelvarpack::page::IsSafeForEval;

struct Case {
  const char* script;
  bool safe;
};

TEST(ScriptScanner, JudgesTheTopLevelOnly) {
  const Case cases[] = {
      {"var a = 1; function f() { return a; }", true},
      {"", true},
      {"\"use strict\"; var a = 1;", false},
      {"// header\n/* more */\n'use strict'\nvar a;", false},
      {"'use\\x20strict'; var a;", true},  // not the exact directive
      {"'a'; \"use strict\";", false},     // later in the prologue
      {"var x = 'use strict';", true},
      {"'use strict' + x;", true},  // an expression, not a directive
      {"function f() { 'use strict'; return 1; }", true},
      {"let a = 1;", false},
      {"const a = 1;", false},
      {"class A {}", false},
      {"let\n[a] = [1];", false},
      {"var let = 1; let = 2;", true},
      {"function f() { let a = 1; const b = 2; class C {} }", true},
      {"if (x) { let y = 1; }", true},
      {"import x from 'y';", false},
      {"export var a = 1;", false},
      {"import('./a.js').then(f);", true},
      {"var o = { class: 1, let: 2 }; o.class = o.const;", true},
      {"var s = \"const x\"; var t = 'let y';", true},
      {"var t = `a ${ { b: 1 }.b } const ${`nested ${1}`}`;", true},
      {"var r = /const [}]/g; var d = a / b / c;", true},
      {"var r = x.replace(/[/]let {/, '');", true},
      {"<!-- old hiding\nvar a = 1;\n--> end", true},
      {"var a = 'unterminated;", false},
      {"var a = { b: 1;", false},
      {"/* open comment", false},
      {"var t = `open template", false},
      {"a?.b; x ? y : z;", true},
      {"return\n/const/.test(s)", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script);
    EXPECT_EQ(IsSafeForEval(c.script), c.safe);
  }
}

TEST(ScriptScanner, KnowsTheJavaScriptTypes) {
  EXPECT_TRUE(IsJavaScriptType(""));
  EXPECT_TRUE(IsJavaScriptType("text/javascript"));
  EXPECT_TRUE(IsJavaScriptType(" Application/JavaScript "));
  EXPECT_TRUE(IsJavaScriptType("text/ecmascript"));
  EXPECT_FALSE(IsJavaScriptType("module"));
  EXPECT_FALSE(IsJavaScriptType("application/json"));
  EXPECT_FALSE(IsJavaScriptType("text/template"));
  EXPECT_FALSE(IsJavaScriptType("text/javascript; charset=utf-8"));
}

}  // namespace
