// The nginx module's C shim over the engine, on real pages and a real cache
// folder: what a page becomes, which switches the module's security-policy
// reading turns, and how handler ids are answered. Inline styles and scripts
// only, so nothing here needs the network.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>

#include "hosts/nginx/zelvarpack_shim.h"
#include "tests/temp_dir.h"

namespace {

constexpr char kPage[] =
    "<!DOCTYPE html><html><head><title>t</title>"
    "<style>body { color: #123456; }</style>"
    "<script>var shimValue = 41 + 1;</script>"
    "</head><body><p>text</p></body></html>";

struct PageResult {
  bool ok = false;
  std::string page;
  bool gzip = false;
  bool sendStats = false;
};

PageResult Optimise(const std::string& cache, const std::string& page, bool scriptsOff = false,
                    bool imagesOff = false, bool gzip = false) {
  zp_page_job_t job{};
  job.cache = cache.c_str();
  job.handler_path = "";
  job.timeout_seconds = 1;
  job.scripts_off = scriptsOff;
  job.images_off = imagesOff;
  job.accepts_gzip = gzip;
  job.page_url = "http://127.0.0.1/index.html";
  job.client_address = "127.0.0.1";
  job.user_agent = "Mozilla/5.0 (X11; Linux x86_64) Chrome/120.0";
  job.in = reinterpret_cast<const unsigned char*>(page.data());
  job.in_len = page.size();
  PageResult result;
  result.ok = zp_optimise_page(&job) == 1;
  if (result.ok) {
    result.page.assign(reinterpret_cast<char*>(job.out), job.out_len);
    result.gzip = job.out_gzip != 0;
    result.sendStats = job.send_stats != 0;
    zp_free(job.out);
  } else {
    EXPECT_EQ(job.out, nullptr);
  }
  return result;
}

std::string FirstId(const std::string& page, const char* handler) {
  std::smatch match;
  const std::regex pattern(std::string(handler) + "\\?(\\{[0-9A-F-]{36}\\})");
  return std::regex_search(page, match, pattern) ? match[1].str() : "";
}

TEST(NginxShim, IdentifierShape) {
  EXPECT_TRUE(zp_is_identifier("{2F50498C-8605-468F-991E-AEABAA95E643}", 38));
  EXPECT_TRUE(zp_is_identifier("{2f50498c-8605-468f-991e-aeabaa95e643}", 38));
  for (const char* bad :
       {"", "{}", "2F50498C-8605-468F-991E-AEABAA95E643", "{2F50498C-8605-468F-991E-AEABAA95E64}",
        "{2F50498C-8605-468F-991E-AEABAA95E6433}", "{2F50498C+8605-468F-991E-AEABAA95E643}",
        "{2F50498C-8605-468F-991E-AEABAA95E64G}", "(2F50498C-8605-468F-991E-AEABAA95E643)",
        "{../../../../etc/passwd-0000-00000000}"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(zp_is_identifier(bad, std::strlen(bad)));
  }
}

TEST(NginxShim, PageIsCombinedAndItsResourcesAreAnswered) {
  TempDir dir;
  const PageResult result = Optimise(dir.path().string(), kPage);
  ASSERT_TRUE(result.ok);
  EXPECT_FALSE(result.gzip);
  const std::string css = FirstId(result.page, "CS\\.zp");
  const std::string js = FirstId(result.page, "JS\\.zp");
  ASSERT_FALSE(css.empty()) << result.page;
  ASSERT_FALSE(js.empty()) << result.page;
  EXPECT_NE(result.page.find("eval("), std::string::npos);

  zp_handler_answer_t answer;
  ASSERT_EQ(zp_handler_answer(dir.path().c_str(), ZP_HANDLER_CSS, css.c_str(), 0, &answer), 1);
  EXPECT_STREQ(answer.type, "text/css");
  EXPECT_EQ(answer.gzip, 0);
  EXPECT_EQ(answer.vary, 1);
  const std::string sheet(reinterpret_cast<char*>(answer.data), answer.len);
  EXPECT_NE(sheet.find("#123456"), std::string::npos) << sheet;
  zp_free(answer.data);

  ASSERT_EQ(zp_handler_answer(dir.path().c_str(), ZP_HANDLER_JS, js.c_str(), 0, &answer), 1);
  EXPECT_STREQ(answer.type, "application/javascript");
  const std::string script(reinterpret_cast<char*>(answer.data), answer.len);
  EXPECT_NE(script.find("41 + 1"), std::string::npos) << script;
  zp_free(answer.data);

  // An id of one kind is not found as another.
  EXPECT_EQ(zp_handler_answer(dir.path().c_str(), ZP_HANDLER_JS, css.c_str(), 0, &answer), 0);
  EXPECT_EQ(zp_handler_answer(dir.path().c_str(), ZP_HANDLER_IMAGE, css.c_str(), 0, &answer), 0);
}

TEST(NginxShim, GzipOnlyWhenAskedAndSmaller) {
  TempDir dir;
  std::string page = kPage;
  page.insert(page.find("<p>"), std::string(4000, 'x'));
  const PageResult gzipped = Optimise(dir.path().string(), page, false, false, true);
  ASSERT_TRUE(gzipped.ok);
  EXPECT_TRUE(gzipped.gzip);
  ASSERT_GE(gzipped.page.size(), 2u);
  EXPECT_EQ(static_cast<unsigned char>(gzipped.page[0]), 0x1F);
  EXPECT_EQ(static_cast<unsigned char>(gzipped.page[1]), 0x8B);
  EXPECT_LT(gzipped.page.size(), 1000u);
}

TEST(NginxShim, PolicySwitchesHoldAgainstThePagesOwnMarkers) {
  TempDir dir;
  // The page tries to switch scripts back on; a policy without eval wins.
  std::string page = kPage;
  page.insert(page.find("<script>"), "<!--zp_js_on-->");
  const PageResult noEval = Optimise(dir.path().string(), page, /*scriptsOff=*/true);
  ASSERT_TRUE(noEval.ok);
  EXPECT_EQ(noEval.page.find("eval("), std::string::npos) << noEval.page;
  EXPECT_NE(noEval.page.find("var shimValue = 41 + 1;"), std::string::npos);
  EXPECT_EQ(noEval.page.find("zp_js_"), std::string::npos);
  EXPECT_EQ(noEval.page.rfind("<!DOCTYPE html>", 0), 0u) << noEval.page;
  // Stylesheets are still combined.
  EXPECT_FALSE(FirstId(noEval.page, "CS\\.zp").empty());
}

TEST(NginxShim, StatisticsMarkerIsReported) {
  TempDir dir;
  std::string page = kPage;
  page.insert(page.find("<title>"), "<!--zp_send_stats-->");
  EXPECT_TRUE(Optimise(dir.path().string(), page).sendStats);
  EXPECT_FALSE(Optimise(dir.path().string(), kPage).sendStats);
}

TEST(NginxShim, NothingToOptimiseIsAFailureOrTheSamePage) {
  TempDir dir;
  EXPECT_FALSE(Optimise(dir.path().string(), "").ok);
  const std::string noHead = "<html><body><p>no head here</p></body></html>";
  const PageResult same = Optimise(dir.path().string(), noHead);
  ASSERT_TRUE(same.ok);
  EXPECT_EQ(same.page, noHead);
  std::string binary;
  for (int i = 0; i < 5000; ++i) binary += static_cast<char>((i * 7919) & 0xFF);
  const PageResult bytes = Optimise(dir.path().string(), binary);
  if (bytes.ok) {
    EXPECT_EQ(bytes.page, binary);
  }
}

TEST(NginxShim, HandlerAnswersForBadAndPlaceholderIds) {
  TempDir dir;
  zp_handler_answer_t answer;
  ASSERT_EQ(zp_handler_answer(dir.path().c_str(), ZP_HANDLER_IMAGE,
                              "{2F50498C-8605-468F-991E-AEABAA95E643}", 1, &answer),
            1);
  EXPECT_EQ(answer.data, nullptr);
  ASSERT_NE(answer.fixed, nullptr);
  EXPECT_STREQ(answer.type, "image/gif");
  EXPECT_EQ(std::memcmp(answer.fixed, "GIF89a\x01\x00\x01\x00", 10), 0);
  for (int kind : {int{ZP_HANDLER_CSS}, int{ZP_HANDLER_JS}, int{ZP_HANDLER_IMAGE}, 0, 7}) {
    SCOPED_TRACE(kind);
    EXPECT_EQ(zp_handler_answer(dir.path().c_str(), kind, "{00000000-0000-0000-0000-000000000000}",
                                1, &answer),
              0);
    EXPECT_EQ(zp_handler_answer(dir.path().c_str(), kind, "nonsense", 1, &answer), 0);
    EXPECT_EQ(zp_handler_answer(dir.path().c_str(), kind, nullptr, 1, &answer), 0);
  }
}

}  // namespace
