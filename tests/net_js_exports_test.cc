// The download, zlib and URL helpers and the script server are part of the
// shared library's host-facing surface; their internals are not.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

std::string ExportedSymbols() {
  const std::string command =
      std::string("nm -D -C --defined-only ") + ZP_LIBRARY_PATH + " 2>/dev/null";
  FILE* pipe = ::popen(command.c_str(), "r");
  std::string out;
  char chunk[4096];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) out.append(chunk, got);
  ::pclose(pipe);
  return out;
}

TEST(SharedLibrary, ExportsDownloadAndScriptServer) {
  const std::string symbols = ExportedSymbols();
  ASSERT_FALSE(symbols.empty()) << "nm found no symbols";
  for (const char* wanted :
       {"CZelvarUtils::DownloadUrl(char*, char const*, char const*, char const*, char const*, "
        "char const*, char const*, char const*, unsigned char*, unsigned char*, int&, int&, "
        "int&, bool&, int)",
        "CZelvarUtils::CompressBuffer(unsigned char*, int, bool, bool)",
        "CZelvarUtils::DecompressBuffer(unsigned char*, int, bool)",
        "CZelvarUtils::SplitUrl[abi:cxx11](char const*, int)",
        "CZelvarUtils::ResolveUrl(char const*, int, char const*, int, char const*, int, bool)",
        "CZelvarUtils::IsCapableBrowser(char const*, bool)",
        "CZelvarUtils::UrlHash(unsigned char const*, int)",
        "CZelvarUtils::MakeCacheName[abi:cxx11](int)", "CZelvarJSServer::CZelvarJSServer(char*)",
        "CZelvarJSServer::~CZelvarJSServer()", "CZelvarJSServer::Store[abi:cxx11]()",
        "CZelvarJSServer::GetRawId(std::__cxx11::basic_string"}) {
    EXPECT_NE(symbols.find(wanted), std::string::npos) << wanted;
  }
  for (const char* hidden : {"HttpGet", "DecodeUrlEntities", "CrackUrl", "PublishFile",
                             "ParseHttpDate", "curl_easy_init"}) {
    EXPECT_EQ(symbols.find(hidden), std::string::npos) << hidden;
  }
}

}  // namespace
