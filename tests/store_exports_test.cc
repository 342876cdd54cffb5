// The file server is part of the shared library's host-facing surface; the
// store's internals and the ODBC seam are not.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

TEST(SharedLibrary, ExportsTheFileServerAndHidesTheStore) {
  const std::string command =
      std::string("nm -D -C --defined-only ") + ZP_LIBRARY_PATH + " 2>/dev/null";
  FILE* pipe = ::popen(command.c_str(), "r");
  std::string symbols;
  char chunk[4096];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) symbols.append(chunk, got);
  ::pclose(pipe);
  ASSERT_FALSE(symbols.empty()) << "nm found no symbols";
  for (const char* wanted :
       {"CZelvarFileServer::Create(unsigned char*, int)",
        "CZelvarFileServer::AddFile(void*, unsigned char*, int)",
        "CZelvarFileServer::Destroy(void*)",
        "CZelvarFileServer::UpdateFile(int, unsigned char*, int)",
        "CZelvarFileServer::DeleteFileW(int)", "CZelvarFileServer::RetrieveFileData(int)",
        "CZelvarFileServer::RetrieveFileLength()"}) {
    EXPECT_NE(symbols.find(wanted), std::string::npos) << wanted;
  }
  for (const char* hidden :
       {"StoreFile", "ChunkFingerprint", "OdbcConnection", "SQLDriverConnect"}) {
    EXPECT_EQ(symbols.find(hidden), std::string::npos) << hidden;
  }
}

}  // namespace
