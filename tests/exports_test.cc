// The shared library exports the host-facing surface of each subsystem and
// hides everything else (internals, and the platform libraries behind the
// seams).
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

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

struct Surface {
  const char* subsystem;
  std::vector<const char*> exported;
  std::vector<const char*> hidden;
};

const Surface kSurfaces[] = {
    {"foundation and HTML",
     {"CZelvarBuffer::AddValue(unsigned char*, int)", "CZelvarBuffer::AddValue(char const*, int)",
      "CZelvarBuffer::CZelvarBuffer()", "CZelvarBuffer::~CZelvarBuffer()",
      "CZelvarUtils::OpenFileForReading(std::__cxx11::basic_string",
      "CZelvarUtils::OpenFileForWriting(std::__cxx11::basic_string",
      "CZelvarUtils::StopBackgroundWork(int)", "CMetaFinder::Create()",
      "CMetaFinder::AddWork(void*, unsigned char*, int)", "CMetaFinder::DoWork(void*)",
      "CMetaFinder::Destroy(void*, int&)"},
     {"HtmlTokenizer::Tokenize", "CHtmlConstructor::OnToken", "IdFromNumber", "TryOpenLocked"}},
    {"download and script server",
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
      "CZelvarJSServer::GetRawId(std::__cxx11::basic_string"},
     {"HttpGet", "DecodeUrlEntities", "CrackUrl", "PublishFile", "ParseHttpDate",
      "curl_easy_init"}},
    {"images",
     {"CZelvarImageServer::CZelvarImageServer(char*)", "CZelvarImageServer::~CZelvarImageServer()",
      "CZelvarImageServer::GetGifId(std::__cxx11::basic_string",
      "CZelvarImageServer::GetJpgId(std::__cxx11::basic_string",
      "CZelvarImageServer::GetPng24Id(std::__cxx11::basic_string",
      "CZelvarImageServer::GetPng32Id(std::__cxx11::basic_string",
      "CZelvarImages::~CZelvarImages()", "CZelvarImages::GetRawImageZelvarBuffer(bool&)"},
     {"DecodeImage", "EncodePng", "EncodeJpeg", "PackCells", "PngDepth", "DecodePool", "png_",
      "jpeg_", "DGif", "libdeflate_"}},
    {"stylesheets",
     {"CZelvarCssServer::CZelvarCssServer(char*)", "CZelvarCssServer::~CZelvarCssServer()",
      "CZelvarCssServer::AddWork(char*, unsigned char*, int)",
      "CZelvarCssServer::BeginInlineWork()", "CZelvarCssServer::AddInlineWork(unsigned char*, int)",
      "CZelvarCssServer::EndInlineWork()", "CZelvarCssServer::SetIsFilter(int, char*)",
      "CZelvarCssServer::DoWork()", "CZelvarCssServer::GetMinifiedId[abi:cxx11]()",
      "CZelvarCssServer::GetMinifiedId(std::__cxx11::basic_string",
      "CZelvarCssServer::GetWasGzip() const", "CZelvarCssServer::GetOutput()",
      "CZelvarCssServer::GetSheetCount() const"},
     {"CssMinifier", "CssServerCore", "CssDownloads", "CCssTokenizer::Tokenize", "PlaceInSprites",
      "CZelvarCssServer::On"}},
    {"file store",
     {"CZelvarFileServer::Create(unsigned char*, int)",
      "CZelvarFileServer::AddFile(void*, unsigned char*, int)", "CZelvarFileServer::Destroy(void*)",
      "CZelvarFileServer::UpdateFile(int, unsigned char*, int)",
      "CZelvarFileServer::DeleteFileW(int)", "CZelvarFileServer::RetrieveFileData(int)",
      "CZelvarFileServer::RetrieveFileLength()"},
     {"StoreFile", "ChunkFingerprint", "OdbcConnection", "SQLDriverConnect"}},
    {"audio",
     {
         "CZelvarAudioServer::Create(unsigned char*, int, unsigned char*, int)",
         "CZelvarAudioServer::Create(unsigned char*, int, unsigned char*, int, unsigned char*, "
         "int, int)",
         "CZelvarAudioServer::Write(void*, unsigned char*, int)",
         "CZelvarAudioServer::Flush(void*)",
         "CZelvarAudioServer::Read(void*, void*&, void*&, void*&)",
         "CZelvarAudioServer::Discard(void*, void*&, void*&)",
         "CZelvarAudioServer::Destroy(void*)",
     },
     {"AudioFingerprint", "TesseraEngine", "WalkWavFile"}},
    {"video",
     {
         "CZelvarVideoServer::Create(unsigned char*, int, unsigned char*, int)",
         "CZelvarVideoServer::Create(unsigned char*, int, unsigned char*, int, unsigned char*, "
         "int, int)",
         "CZelvarVideoServer::Write(void*, unsigned char*, int)",
         "CZelvarVideoServer::Flush(void*)",
         "CZelvarVideoServer::Read(void*, void*&, void*&, void*&)",
         "CZelvarVideoServer::Discard(void*, void*&, void*&)",
         "CZelvarVideoServer::Destroy(void*)",
         "CZelvarVideoServer::FrameCount(void*)",
         "CZelvarVideoServer::ReadFrame(void*, int)",
     },
     {"VideoFingerprint", "VideoEngine", "Radix2Fft", "TesseraFiles", "JpegRowEncoder"}},
};

TEST(SharedLibrary, ExportsHostSurfaceOnly) {
  const std::string symbols = ExportedSymbols();
  ASSERT_FALSE(symbols.empty()) << "nm found no symbols";
  for (const Surface& surface : kSurfaces) {
    SCOPED_TRACE(surface.subsystem);
    for (const char* wanted : surface.exported) {
      EXPECT_NE(symbols.find(wanted), std::string::npos) << wanted;
    }
    for (const char* hidden : surface.hidden) {
      EXPECT_EQ(symbols.find(hidden), std::string::npos) << hidden;
    }
  }
}

}  // namespace
