// The shared library exports the host-facing surface and hides the rest.
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

TEST(SharedLibrary, ExportsHostSurfaceOnly) {
  const std::string symbols = ExportedSymbols();
  ASSERT_FALSE(symbols.empty()) << "nm found no symbols";
  for (const char* wanted :
       {"CZelvarBuffer::AddValue(unsigned char*, int)", "CZelvarBuffer::AddValue(char const*, int)",
        "CZelvarBuffer::CZelvarBuffer()", "CZelvarBuffer::~CZelvarBuffer()",
        "CZelvarUtils::OpenFileForReading(std::__cxx11::basic_string",
        "CZelvarUtils::OpenFileForWriting(std::__cxx11::basic_string", "CMetaFinder::Create()",
        "CMetaFinder::AddWork(void*, unsigned char*, int)", "CMetaFinder::DoWork(void*)",
        "CMetaFinder::Destroy(void*, int&)"}) {
    EXPECT_NE(symbols.find(wanted), std::string::npos) << wanted;
  }
  for (const char* hidden :
       {"HtmlTokenizer::Tokenize", "CHtmlConstructor::OnToken", "IdFromNumber", "TryOpenLocked"}) {
    EXPECT_EQ(symbols.find(hidden), std::string::npos) << hidden;
  }
}

}  // namespace
