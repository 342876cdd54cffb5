#include "core/gzip_twin.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "core/identifiers.h"
#include "net/zlib_codec.h"
#include "tests/temp_dir.h"

namespace {

using zelvarpack::ChooseServedBody;
using zelvarpack::PlainAndGzip;

std::unique_ptr<CZelvarBuffer> BufferOf(const std::string& text) {
  auto buffer = std::make_unique<CZelvarBuffer>();
  buffer->Append(reinterpret_cast<const unsigned char*>(text.data()),
                 static_cast<std::int32_t>(text.size()));
  return buffer;
}

std::string TextOf(CZelvarBuffer& buffer) {
  return {reinterpret_cast<const char*>(buffer.GetValue()),
          static_cast<std::size_t>(buffer.GetValueLength())};
}

std::string Gunzip(const std::string& bytes) {
  auto plain =
      zelvarpack::net::Decompress(reinterpret_cast<const unsigned char*>(bytes.data()),
                                  bytes.size(), zelvarpack::net::ZlibFormat::kGzip, 1 << 20);
  return TextOf(*plain);
}

void Store(const std::string& folder, const std::string& text) {
  zelvarpack::StoreWithGzipTwin(folder, "id", reinterpret_cast<const unsigned char*>(text.data()),
                                text.size());
}

TEST(GzipTwin, StoresThePlainFileAndItsTwinOnce) {
  TempDir dir;
  const std::string folder = dir.File("js");  // created on demand
  const std::string text(300, 'a');
  Store(folder, text);
  EXPECT_EQ(ReadWholeFile(folder + "/id"), text);
  EXPECT_EQ(Gunzip(ReadWholeFile(folder + "/id.g")), text);
  // Write once: a second store under the same name leaves the pair alone.
  Store(folder, "other");
  EXPECT_EQ(ReadWholeFile(folder + "/id"), text);
  EXPECT_EQ(Gunzip(ReadWholeFile(folder + "/id.g")), text);
}

TEST(GzipTwin, ReadsBackBothHalvesOrNull) {
  TempDir dir;
  Store(dir.File("css"), "body{}");
  PlainAndGzip pair = zelvarpack::ReadWithGzipTwin(dir.File("css/id"));
  ASSERT_TRUE(pair.plain && pair.gzip);
  EXPECT_EQ(TextOf(*pair.plain), "body{}");
  PlainAndGzip missing = zelvarpack::ReadWithGzipTwin(dir.File("css/absent"));
  EXPECT_FALSE(missing.plain || missing.gzip);
}

struct ChoiceCase {
  const char* name;
  const char* plain;  // null: no plain body
  const char* gzip;   // null: no twin
  bool accepts;
  const char* expectBody;  // null: no body
  bool expectAccepts;
  bool expectServedGzip;
};

TEST(GzipTwin, ChoosesWhatToServe) {
  const std::string longText(100, 'x');
  const ChoiceCase cases[] = {
      {"twin smaller and taken", longText.c_str(), "zz", true, "zz", true, true},
      {"caller takes no gzip", longText.c_str(), "zz", false, longText.c_str(), false, false},
      {"no twin keeps the flag", "plain", nullptr, true, "plain", true, false},
      {"twin not smaller", "ab", "abc", true, "ab", false, false},
      {"twin as large", "ab", "cd", true, "ab", false, false},
      {"empty twin", "ab", "", true, "ab", false, false},
      {"no plain body", nullptr, "zz", true, nullptr, false, false},
      {"nothing at all", nullptr, nullptr, true, nullptr, true, false},
  };
  for (const ChoiceCase& c : cases) {
    SCOPED_TRACE(c.name);
    PlainAndGzip pair;
    if (c.plain != nullptr) pair.plain = BufferOf(c.plain);
    if (c.gzip != nullptr) pair.gzip = BufferOf(c.gzip);
    bool accepts = c.accepts;
    bool served = false;
    std::unique_ptr<CZelvarBuffer> body(ChooseServedBody(std::move(pair), accepts, served));
    if (c.expectBody == nullptr) {
      EXPECT_EQ(body, nullptr);
    } else {
      ASSERT_NE(body, nullptr);
      EXPECT_EQ(TextOf(*body), c.expectBody);
    }
    EXPECT_EQ(accepts, c.expectAccepts);
    EXPECT_EQ(served, c.expectServedGzip);
  }
}

}  // namespace

namespace {

std::string StoreContent(const std::string& folder, const std::string& text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  return zelvarpack::StoreContentWithGzipTwin(folder, CollateHash(bytes, text.size()), bytes,
                                              text.size());
}

// The content hash adds each byte after an 8-bit rotation, so two 4-byte
// aligned pieces in swapped order hash alike: each must still get its own
// file, and asking again gives each its own identifier.
TEST(ContentIds, CollidingContentGetsTheNextCandidate) {
  TempDir dir;
  const std::string folder = dir.File("js");
  const std::string first = "var a=1;var b=2;";
  const std::string swapped = "var b=2;var a=1;";
  ASSERT_EQ(CollateHash(reinterpret_cast<const unsigned char*>(first.data()), first.size()),
            CollateHash(reinterpret_cast<const unsigned char*>(swapped.data()), swapped.size()));
  const std::string idFirst = StoreContent(folder, first);
  const std::string idSwapped = StoreContent(folder, swapped);
  EXPECT_NE(idFirst, idSwapped);
  EXPECT_EQ(ReadWholeFile(folder + "/" + idFirst), first);
  EXPECT_EQ(ReadWholeFile(folder + "/" + idSwapped), swapped);
  EXPECT_EQ(Gunzip(ReadWholeFile(folder + "/" + idSwapped + ".g")), swapped);
  EXPECT_EQ(StoreContent(folder, swapped), idSwapped);
  EXPECT_EQ(StoreContent(folder, first), idFirst);
  EXPECT_EQ(
      idSwapped,
      zelvarpack::ContentIdCandidate(
          CollateHash(reinterpret_cast<const unsigned char*>(first.data()), first.size()), 1));
}

TEST(ContentIds, AMissingTwinIsWrittenAgain) {
  TempDir dir;
  const std::string folder = dir.File("css");
  const std::string id = StoreContent(folder, "p{color:red}");
  std::filesystem::remove(folder + "/" + id + ".g");
  EXPECT_EQ(StoreContent(folder, "p{color:red}"), id);
  EXPECT_EQ(Gunzip(ReadWholeFile(folder + "/" + id + ".g")), "p{color:red}");
}

TEST(ContentIds, GivesUpWhenEveryCandidateHoldsOtherBytes) {
  TempDir dir;
  const std::string folder = dir.File("js");
  const std::string text = "x";
  const std::int32_t hash = CollateHash(reinterpret_cast<const unsigned char*>(text.data()), 1);
  std::filesystem::create_directories(folder);
  for (int attempt = 0; attempt < zelvarpack::kContentIdCandidates; ++attempt) {
    WriteWholeFile(folder + "/" + zelvarpack::ContentIdCandidate(hash, attempt), "other");
  }
  EXPECT_EQ(StoreContent(folder, text), "");
}

}  // namespace
