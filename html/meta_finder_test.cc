#include "zelvarpack/meta_finder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

// Feeds `page` in pieces of `piece` bytes (0: in one piece).
int Find(std::string page, std::size_t piece = 0) {
  void* finder = CMetaFinder::Create();
  if (piece == 0) piece = page.size() + 1;
  for (std::size_t at = 0; at < page.size(); at += piece) {
    const std::size_t n = std::min(piece, page.size() - at);
    CMetaFinder::AddWork(finder, reinterpret_cast<unsigned char*>(page.data() + at),
                         static_cast<std::int32_t>(n));
  }
  CMetaFinder::DoWork(finder);
  std::int32_t result = -1;
  CMetaFinder::Destroy(finder, result);
  return result;
}

TEST(MetaFinder, FindsHtmlContentTypeDeclarations) {
  struct Case {
    std::string page;
    int found;
  };
  const std::vector<Case> cases = {
      {"", 0},
      {"<html><head></head></html>", 0},
      {"<meta http-equiv=\"Content-Type\" content=\"text/html; charset=utf-8\">", 1},
      {"<meta content='text/html' http-equiv='content-type'>", 1},  // either order
      {"<META HTTP-EQUIV=CONTENT-TYPE CONTENT=text/html>", 1},
      {"<meta http-equiv=content-type content=TEXT/HTML>", 0},    // value is case-sensitive
      {"<meta http-equiv=content-type content=xtext/htmlx>", 1},  // substring
      {"<meta http-equiv=content-type>", 0},
      {"<meta content=text/html>", 0},
      {"<meta>", 0},
      {"<meta http-equiv=content-type><meta content=text/html>", 0},  // one element decides
      {"</meta http-equiv=content-type content=text/html>", 1},       // end tags count too
      {"<meta http-equiv=content-type content=text/html><meta http-equiv=refresh>", 1},
      {"<meta http-equiv=refresh><meta http-equiv=content-type content=text/html>", 1},
      {"<meta http-equiv=content-type http-equiv=refresh content=text/html>", 1},
      {"<meta http-equiv=' content-type' content=text/html>", 0},
      {"<meta name=content-type content=text/html>", 0},
      {"<meta charset=text/html http-equiv=content-type>", 0},
      {"<metas http-equiv=content-type content=text/html>", 0},
      {"<p http-equiv=content-type content=text/html>", 0},
      {"<!--<meta http-equiv=content-type content=text/html>-->", 0},
      {"<title><meta http-equiv=content-type content=text/html></title>", 0},
      {"<script><meta http-equiv=content-type content=text/html></script>", 0},
      {"<meta http-equiv=content-type content=text/html", 0},  // cut off: no tag
      {"<meta\r\nhttp-equiv=content-type\r\ncontent=text/html>", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.page);
    EXPECT_EQ(Find(c.page), c.found);
    EXPECT_EQ(Find(c.page, 3), c.found);  // pieces are gathered before the run
  }
}

TEST(MetaFinder, ToleratesMissingHandleAndEmptyPieces) {
  std::int32_t result = -1;
  CMetaFinder::Destroy(nullptr, result);
  EXPECT_EQ(result, 0);
  CMetaFinder::AddWork(nullptr, nullptr, 5);
  CMetaFinder::DoWork(nullptr);

  void* finder = CMetaFinder::Create();
  ASSERT_NE(finder, nullptr);
  CMetaFinder::AddWork(finder, nullptr, 0);
  CMetaFinder::DoWork(finder);
  EXPECT_FALSE(static_cast<CMetaFinder*>(finder)->Found());
  CMetaFinder::Destroy(finder, result);
  EXPECT_EQ(result, 0);
}

}  // namespace
