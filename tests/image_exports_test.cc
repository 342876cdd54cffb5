// The image server and its results are part of the shared library's
// host-facing surface; the codec seam and the sheet arithmetic are not.
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

TEST(SharedLibrary, ExportsTheImageServerAndHidesItsCodecs) {
  const std::string symbols = ExportedSymbols();
  ASSERT_FALSE(symbols.empty()) << "nm found no symbols";
  for (const char* wanted :
       {"CZelvarImageServer::CZelvarImageServer(char*)",
        "CZelvarImageServer::~CZelvarImageServer()",
        "CZelvarImageServer::GetGifId(std::__cxx11::basic_string",
        "CZelvarImageServer::GetJpgId(std::__cxx11::basic_string",
        "CZelvarImageServer::GetPng24Id(std::__cxx11::basic_string",
        "CZelvarImageServer::GetPng32Id(std::__cxx11::basic_string",
        "CZelvarImages::~CZelvarImages()", "CZelvarImages::GetRawImageZelvarBuffer(bool&)"}) {
    EXPECT_NE(symbols.find(wanted), std::string::npos) << wanted;
  }
  for (const char* hidden : {"DecodeImage", "EncodePng", "EncodeJpeg", "PackCells", "PngDepth",
                             "DecodePool", "png_", "jpeg_", "DGif"}) {
    EXPECT_EQ(symbols.find(hidden), std::string::npos) << hidden;
  }
}

}  // namespace
