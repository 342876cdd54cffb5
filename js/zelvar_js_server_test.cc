#include "zelvarpack/zelvar_js_server.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>

#include "core/identifiers.h"
#include "tests/temp_dir.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

std::string Text(CZelvarBuffer& buffer) {
  return std::string(reinterpret_cast<char*>(buffer.GetValue()),
                     static_cast<std::size_t>(buffer.GetValueLength()));
}

std::string Gunzip(const std::string& bytes) {
  std::unique_ptr<CZelvarBuffer> out(CZelvarUtils::DecompressBuffer(
      reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data())),
      static_cast<std::int32_t>(bytes.size()), false));
  return Text(*out);
}

std::string Script(int lines) {
  std::string text;
  for (int i = 0; i < lines; ++i)
    text += "window.counter" + std::to_string(i) + " = " + std::to_string(i) + ";\n";
  return text;
}

class JsServer : public ::testing::Test {
 protected:
  std::string Store(const std::string& content) {
    CZelvarJSServer server(cachePath_.data());
    server.GetContent()->AddValue(content.data(), static_cast<std::int32_t>(content.size()));
    return server.Store();
  }
  std::string File(const std::string& name) const { return dir_.File("js/" + name); }
  TempDir dir_;
  std::string cachePath_ = dir_.path().string();
};

TEST_F(JsServer, StoresOnceUnderTheContentIdWithAGzipTwin) {
  const std::string script = Script(50);
  const std::string id = Store(script);
  EXPECT_EQ(id, ContentId(reinterpret_cast<const unsigned char*>(script.data()), script.size()));
  EXPECT_EQ(ReadWholeFile(File(id)), script);
  EXPECT_EQ(Gunzip(ReadWholeFile(File(id + ".g"))), script);

  // Stored files are never rewritten; a file under the id that holds other
  // bytes is never served for this script: the next candidate id is used.
  WriteWholeFile(File(id), "tampered");
  WriteWholeFile(File(id + ".g"), "tampered too");
  const std::string next = Store(script);
  EXPECT_NE(next, id);
  EXPECT_EQ(ReadWholeFile(File(next)), script);
  EXPECT_EQ(ReadWholeFile(File(id)), "tampered");
  EXPECT_EQ(ReadWholeFile(File(id + ".g")), "tampered too");
  for (const auto& file : std::filesystem::directory_iterator(dir_.File("js"))) {
    EXPECT_EQ(file.path().string().find(".tmp."), std::string::npos) << file.path();
  }
}

TEST_F(JsServer, EmptyContentIsNamedByZero) {
  const std::string id = Store("");
  EXPECT_EQ(id, IdFromNumber(0));
  EXPECT_EQ(ReadWholeFile(File(id)), "");
}

// A known script's identifier, from an independent implementation of the
// hash: the same in every process and on every run.
TEST_F(JsServer, IdentifierIsFixedForTheContent) {
  EXPECT_EQ(Store("alert(1);"), "{94969C10-98A4-9A9C-9FA0-9BA9999FA1A6}");
}

struct Got {
  bool found;
  std::string bytes;
  bool wasGzip;
  bool flag;
};

TEST_F(JsServer, GetRawIdChoosesTheGzipFormOnlyWhenAcceptedAndSmaller) {
  const std::string big = Script(200);
  const std::string tiny = "x();";
  const std::string bigId = Store(big);
  const std::string tinyId = Store(tiny);
  const std::string noTwinId = Store(big + "// no twin");
  const std::string emptyTwinId = Store(big + "// empty twin");
  std::filesystem::remove(File(noTwinId + ".g"));
  WriteWholeFile(File(emptyTwinId + ".g"), "");
  const std::string gzipOnlyId = IdFromNumber(12345);
  WriteWholeFile(File(gzipOnlyId + ".g"), ReadWholeFile(File(bigId + ".g")));

  auto get = [&](const std::string& id, bool accept) {
    CZelvarJSServer server(cachePath_.data());
    bool wasGzip = accept;
    std::unique_ptr<CZelvarBuffer> bytes(server.GetRawId(id, wasGzip));
    return Got{bytes != nullptr, bytes ? Text(*bytes) : "", wasGzip, server.GetWasGzip()};
  };
  struct Case {
    const char* name;
    std::string id;
    bool accept;
    bool found;
    bool gzipBytes;
    bool wasGzip;
    bool flag;
  };
  const Case cases[] = {
      {"gzip smaller", bigId, true, true, true, true, true},
      {"not accepted", bigId, false, true, false, false, false},
      {"gzip larger", tinyId, true, true, false, false, false},
      {"twin missing", noTwinId, true, true, false, true, false},  // wasGzip stays
      {"twin empty", emptyTwinId, true, true, false, false, false},
      {"only the twin", gzipOnlyId, true, false, false, false, false},
      {"nothing stored", IdFromNumber(99), true, false, false, true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Got got = get(c.id, c.accept);
    EXPECT_EQ(got.found, c.found);
    EXPECT_EQ(got.wasGzip, c.wasGzip);
    EXPECT_EQ(got.flag, c.flag);
    if (c.found) {
      EXPECT_EQ(got.bytes,
                c.gzipBytes ? ReadWholeFile(File(c.id + ".g")) : ReadWholeFile(File(c.id)));
    }
  }
}

TEST_F(JsServer, WasGzipFlagStaysSetOnceAGzipFormWasReturned) {
  const std::string bigId = Store(Script(200));
  const std::string tinyId = Store("y();");
  CZelvarJSServer server(cachePath_.data());
  bool accept = true;
  delete server.GetRawId(bigId, accept);
  ASSERT_TRUE(server.GetWasGzip());
  accept = false;
  std::unique_ptr<CZelvarBuffer> plain(server.GetRawId(tinyId, accept));
  EXPECT_EQ(Text(*plain), "y();");
  EXPECT_TRUE(server.GetWasGzip());
}

TEST_F(JsServer, IdentifiersNotShapedLikeAGuidNeverReachTheDisk) {
  const std::string id = Store("z();");
  // A file a path trick could reach, beside the cache.
  WriteWholeFile(dir_.File("secret"), "secret");
  std::string lower = id;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const std::string& bad : {std::string("../secret"), std::string("/etc/passwd"), lower,
                                 id.substr(1, 36), id + ".g", id + "/", std::string("")}) {
    SCOPED_TRACE(bad);
    CZelvarJSServer server(cachePath_.data());
    bool wasGzip = true;
    EXPECT_EQ(server.GetRawId(bad, wasGzip), nullptr);
    EXPECT_TRUE(wasGzip);
  }
}

}  // namespace
