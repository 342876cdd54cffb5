#include "html/markup_writer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "html/html_tokenizer.h"

namespace {

using zelvarpack::html::AppendTag;
using zelvarpack::html::TagRecord;

// Collects every tag and doctype of a page written back by the shared writer.
class Rewriter : public CHtmlTokenizerEvents {
 public:
  void OnToken(HtmlTextToken* text, HtmlDoctypeToken* doctype, HtmlTagToken* tag) override {
    if (tag != nullptr) {
      std::string written;
      AppendTag(written, *tag);
      tags.push_back(written);
      records.push_back(TagRecord::CopyOf(*tag));
    }
    if (doctype != nullptr) {
      std::string written;
      zelvarpack::html::AppendDoctype(written, *doctype);
      tags.push_back(written);
    }
  }
  std::vector<std::string> tags;
  std::vector<TagRecord> records;
};

Rewriter Rewrite(std::string page) {
  Rewriter rewriter;
  HtmlTokenizer tokenizer;
  tokenizer.events = &rewriter;
  tokenizer.Tokenize(reinterpret_cast<unsigned char*>(page.data()), static_cast<int>(page.size()));
  return rewriter;
}

TEST(MarkupWriter, WritesEachAttributeWithItsOwnQuoting) {
  const char* tags[] = {
      "<input disabled type=checkbox>",
      "<a href=\"x.html\" title='it is \"so\"' data-x=1>",
      "<img src=a.png />",
      "<br/>",
      "</p>",
      "<p class=\"\" id=''>",
      "<a href=a&amp;b>",
  };
  for (const char* tag : tags) {
    SCOPED_TRACE(tag);
    const Rewriter r = Rewrite(tag);
    ASSERT_EQ(r.tags.size(), 1u);
    EXPECT_EQ(r.tags[0], tag);
  }
}

TEST(MarkupWriter, RecordsHowEachValueWasWritten) {
  const Rewriter r = Rewrite("<x a b=1 c='2' d=\"3\" e= f=&x>");
  ASSERT_EQ(r.records.size(), 1u);
  const auto& a = r.records[0].attributes;
  ASSERT_EQ(a.size(), 5u);
  EXPECT_EQ(a[0].quoting, HtmlAttribute::kNoValue);
  EXPECT_EQ(a[1].quoting, HtmlAttribute::kUnquoted);
  EXPECT_EQ(a[2].quoting, HtmlAttribute::kSingleQuoted);
  EXPECT_EQ(a[3].quoting, HtmlAttribute::kDoubleQuoted);
  EXPECT_EQ(a[4].name, "e");  // "e= f=&x": e takes "f=&x" unquoted
  EXPECT_EQ(a[4].value, "f=&x");
  EXPECT_EQ(a[4].quoting, HtmlAttribute::kUnquoted);
}

TEST(MarkupWriter, NormalisesOnlyWhatTheTokenizerDoesNotKeep) {
  EXPECT_EQ(Rewrite("<a   href = 'x'\n class=y  >").tags[0], "<a href='x' class=y>");
  EXPECT_EQ(Rewrite("<a href=>").tags[0], "<a href>");
}

TEST(MarkupWriter, FindsFirstAndLastOfRepeatedAttributes) {
  const Rewriter r = Rewrite("<link href=a.css rel=stylesheet HREF=b.css>");
  const TagRecord& tag = r.records[0];
  EXPECT_EQ(tag.Find("href")->value, "a.css");
  EXPECT_EQ(tag.FindLast("href")->value, "b.css");
  EXPECT_EQ(tag.Find("media"), nullptr);
  std::string without;
  AppendTag(without, tag, {"rel"});
  EXPECT_EQ(without, "<link href=a.css HREF=b.css>");
}

TEST(MarkupWriter, WritesDoctypes) {
  EXPECT_EQ(Rewrite("<!doctype html>").tags[0], "<!DOCTYPE html>");
  EXPECT_EQ(Rewrite("<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Strict//EN\" "
                    "\"http://www.w3.org/TR/xhtml1/DTD/xhtml1-strict.dtd\">")
                .tags[0],
            "<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Strict//EN\" "
            "\"http://www.w3.org/TR/xhtml1/DTD/xhtml1-strict.dtd\">");
  EXPECT_EQ(Rewrite("<!DOCTYPE html PUBLIC \"\">").tags[0], "<!DOCTYPE html PUBLIC \"\">");
}

}  // namespace
