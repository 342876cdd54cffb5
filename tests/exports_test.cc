// The shared library's dynamic symbol table is the host surface and nothing
// else: every entry a native host relies on is there, with the argument
// types it is called with, and no internal symbol (nor the standard
// library's template code instantiated for the library) leaks beside it.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Demangled names of the defined dynamic symbols, with the spelling of
// std::string shortened and the ABI tags dropped.
std::vector<std::string> ExportedSymbols() {
  const std::string command = std::string("nm -D -C --defined-only --format=just-symbols ") +
                              ZP_LIBRARY_PATH + " 2>/dev/null";
  FILE* pipe = ::popen(command.c_str(), "r");
  std::string out;
  char chunk[4096];
  std::size_t got;
  while (pipe != nullptr && (got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) {
    out.append(chunk, got);
  }
  if (pipe != nullptr) ::pclose(pipe);
  auto replaceAll = [](std::string& text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
      text.replace(at, from.size(), to);
    }
  };
  std::vector<std::string> symbols;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) continue;
    replaceAll(line,
               "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >",
               "std::string");
    replaceAll(line, "[abi:cxx11]", "");
    symbols.push_back(line);
  }
  return symbols;
}

// The native surface, one entry per operation ("long" is 32 bits: int).
// Getters that do not change their object are const members, which callers
// call the same way; the const qualifier is accepted where listed here with
// a trailing "?const".
const char* const kNativeSurface[] = {
    // The byte buffer.
    "CZelvarBuffer::CZelvarBuffer()",
    "CZelvarBuffer::~CZelvarBuffer()",
    "CZelvarBuffer::AddValue(unsigned char*, int)",
    "CZelvarBuffer::AddValue(char const*, int)",
    "CZelvarBuffer::GetValue()",
    "CZelvarBuffer::GetValueLength()?const",
    // Files and downloads.
    "CZelvarUtils::CZelvarUtils()",
    "CZelvarUtils::~CZelvarUtils()",
    "CZelvarUtils::OpenFileForReading(std::string)",
    "CZelvarUtils::OpenFileForWriting(std::string)",
    "CZelvarUtils::DownloadUrl(char*, char const*, char const*, char const*, char const*, "
    "char const*, char const*, char const*, unsigned char*, unsigned char*, int&, int&, int&, "
    "bool&, int)",
    // The page consumers with a handle.
    "CMetaFinder::Create()",
    "CMetaFinder::AddWork(void*, unsigned char*, int)",
    "CMetaFinder::DoWork(void*)",
    "CMetaFinder::Destroy(void*, int&)",
    "CSavingsCalculator::Create(unsigned char*, int, unsigned char*, int, unsigned char*, int, "
    "char const*, char const*, char const*)",
    "CSavingsCalculator::AddWork(void*, unsigned char*, int)",
    "CSavingsCalculator::DoWork(void*)",
    "CSavingsCalculator::Destroy(void*, int&, int&, int&, int&)",
    "CProxy::Create(unsigned char*, int, unsigned char*, int, unsigned char*, int)",
    "CProxy::AddWork(void*, unsigned char*, int)",
    "CProxy::DoWork(void*)",
    "CProxy::Destroy(void*)",
    // The page optimiser.
    "CZelvarHtmlServer::CZelvarHtmlServer(char*, int, bool, bool, bool, int, char*, void*, "
    "unsigned char*, int, unsigned char*, int, unsigned char*, int, char const*, char const*, "
    "char const*, char const*, char const*)",
    "CZelvarHtmlServer::AddWork(unsigned char*, int)",
    "CZelvarHtmlServer::DoWork()",
    "CZelvarHtmlServer::GetBytesBefore(bool)?const",
    "CZelvarHtmlServer::GetBytesAfter(int, bool)",
    "CZelvarHtmlServer::GetRequestsBefore()?const",
    "CZelvarHtmlServer::GetRequestsAfter()?const",
    "CZelvarHtmlServer::GetId()",
    "CZelvarHtmlServer::GetRawZelvarBuffer(bool&)",
    "CZelvarHtmlServer::GetRawZelvarBufferWasGzip()?const",
    "CZelvarHtmlServer::GetSendStats()?const",
    "CResource::GetZelvarHtmlServer()",
    // Stylesheets, scripts, images.
    "CZelvarCssServer::CZelvarCssServer(char*)",
    "CZelvarCssServer::AddWork(char*, unsigned char*, int)",
    "CZelvarCssServer::DoWork()",
    "CZelvarCssServer::GetMinifiedId()",
    "CZelvarCssServer::GetMinifiedId(std::string, bool&)",
    "CZelvarCssServer::SetIsFilter(int, char*)",
    "CZelvarJSServer::CZelvarJSServer(char*)",
    "CZelvarJSServer::~CZelvarJSServer()",
    "CZelvarJSServer::GetRawId(std::string, bool&)",
    "CZelvarImageServer::CZelvarImageServer(char*)",
    "CZelvarImageServer::~CZelvarImageServer()",
    "CZelvarImageServer::GetGifId(std::string)",
    "CZelvarImageServer::GetJpgId(std::string)",
    "CZelvarImageServer::GetPng24Id(std::string)",
    "CZelvarImageServer::GetPng32Id(std::string)",
    "CZelvarImages::~CZelvarImages()",
    "CZelvarImages::GetRawImageZelvarBuffer(bool&)",
    // The file store.
    "CZelvarFileServer::Create(unsigned char*, int)",
    "CZelvarFileServer::AddFile(void*, unsigned char*, int)",
    "CZelvarFileServer::Destroy(void*)",
    "CZelvarFileServer::UpdateFile(int, unsigned char*, int)",
    "CZelvarFileServer::DeleteFileW(int)",
    "CZelvarFileServer::RetrieveFileData(int)",
    "CZelvarFileServer::RetrieveFileLength()",
    // The media servers: the same static set each.
    "CZelvarAudioServer::Create(unsigned char*, int, unsigned char*, int)",
    "CZelvarAudioServer::Create(unsigned char*, int, unsigned char*, int, unsigned char*, int, "
    "int)",
    "CZelvarAudioServer::Write(void*, unsigned char*, int)",
    "CZelvarAudioServer::Flush(void*)",
    "CZelvarAudioServer::Read(void*, void*&, void*&, void*&)",
    "CZelvarAudioServer::Discard(void*, void*&, void*&)",
    "CZelvarAudioServer::Destroy(void*)",
    "CZelvarVideoServer::Create(unsigned char*, int, unsigned char*, int)",
    "CZelvarVideoServer::Create(unsigned char*, int, unsigned char*, int, unsigned char*, int, "
    "int)",
    "CZelvarVideoServer::Write(void*, unsigned char*, int)",
    "CZelvarVideoServer::Flush(void*)",
    "CZelvarVideoServer::Read(void*, void*&, void*&, void*&)",
    "CZelvarVideoServer::Discard(void*, void*&, void*&)",
    "CZelvarVideoServer::Destroy(void*)",
};

// Exported beyond that list on purpose: hosts end the library's background
// downloads before they unload it.
const char* const kAdditions[] = {"CZelvarUtils::StopBackgroundWork(int)"};

// The Java entry points are plain C symbols under one prefix.
constexpr char kJavaPrefix[] = "Java_com_zelvarpack_";

// The forms an entry may take in the symbol table.
std::vector<std::string> Spellings(const std::string& entry) {
  const std::string optionalConst = "?const";
  if (entry.size() > optionalConst.size() &&
      entry.compare(entry.size() - optionalConst.size(), optionalConst.size(), optionalConst) ==
          0) {
    const std::string plain = entry.substr(0, entry.size() - optionalConst.size());
    return {plain, plain + " const"};
  }
  return {entry};
}

TEST(SharedLibrary, ExportsEveryEntryOfTheNativeSurface) {
  const std::vector<std::string> symbols = ExportedSymbols();
  ASSERT_FALSE(symbols.empty()) << "nm found no symbols";
  const std::set<std::string> present(symbols.begin(), symbols.end());
  for (const char* entry : kNativeSurface) {
    bool found = false;
    for (const std::string& spelling : Spellings(entry)) found = found || present.count(spelling);
    EXPECT_TRUE(found) << "not exported: " << entry;
  }
  for (const char* entry : kAdditions) EXPECT_TRUE(present.count(entry)) << entry;
}

TEST(SharedLibrary, ExportsNothingBeyondTheSurface) {
  std::set<std::string> allowed(std::begin(kAdditions), std::end(kAdditions));
  for (const char* entry : kNativeSurface) {
    for (const std::string& spelling : Spellings(entry)) allowed.insert(spelling);
  }
  std::vector<std::string> extra;
  for (const std::string& symbol : ExportedSymbols()) {
    if (allowed.count(symbol) || symbol.rfind(kJavaPrefix, 0) == 0) continue;
    extra.push_back(symbol);
  }
  EXPECT_TRUE(extra.empty()) << extra.size() << " symbols beyond the surface, first: "
                             << (extra.empty() ? "" : extra.front());
}

}  // namespace
