#include "core/zelvar_stream.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>

#include "tests/temp_dir.h"

namespace {

LARGE_INTEGER Offset(std::int64_t n) {
  LARGE_INTEGER value{};
  value.QuadPart = n;
  return value;
}

ULARGE_INTEGER Size(std::uint64_t n) {
  ULARGE_INTEGER value{};
  value.QuadPart = n;
  return value;
}

class ZelvarStreamTest : public ::testing::Test {
 protected:
  FILE* Open(const std::string& content) {
    const std::string path = dir_.File("stream.bin");
    WriteWholeFile(path, content);
    file_ = std::fopen(path.c_str(), "rb");
    return file_;
  }
  void TearDown() override {
    if (file_ != nullptr) std::fclose(file_);
  }

  TempDir dir_;
  FILE* file_ = nullptr;
};

TEST_F(ZelvarStreamTest, ReadsSeeksAndReportsSize) {
  auto* stream = new CZelvarStream(Open("0123456789"));
  char bytes[8] = {};
  ULONG got = 0;
  ASSERT_EQ(stream->Read(bytes, 4, &got), S_OK);
  EXPECT_EQ(got, 4u);
  EXPECT_EQ(std::string(bytes, 4), "0123");

  ULARGE_INTEGER position{};
  ASSERT_EQ(stream->Seek(Offset(-3), 2, &position), S_OK);
  EXPECT_EQ(position.QuadPart, 7u);
  ASSERT_EQ(stream->Read(bytes, 8, &got), S_OK) << "a short read at the end is still S_OK";
  EXPECT_EQ(std::string(bytes, got), "789");
  ASSERT_EQ(stream->Seek(Offset(-5), 1, &position), S_OK);
  EXPECT_EQ(position.QuadPart, 5u);
  ASSERT_EQ(stream->Seek(Offset(2), 0, nullptr), S_OK);
  ASSERT_EQ(stream->Read(bytes, 1, &got), S_OK);
  EXPECT_EQ(bytes[0], '2');

  STATSTG stat{};
  stat.type = 77;
  ASSERT_EQ(stream->Stat(&stat, 0), S_OK);
  EXPECT_EQ(stat.cbSize.QuadPart, 10u);
  EXPECT_EQ(stat.type, 77u) << "only the size is filled";
  EXPECT_EQ(stream->Release(), 0u);
}

TEST_F(ZelvarStreamTest, ErrorsAndUnsupportedOperations) {
  auto* stream = new CZelvarStream(Open(""));
  STATSTG stat{};
  stat.cbSize.QuadPart = 99;
  ASSERT_EQ(stream->Stat(&stat, 0), S_OK);
  EXPECT_EQ(stat.cbSize.QuadPart, 0u);
  EXPECT_EQ(stream->Seek(Offset(0), 3, nullptr), STG_E_INVALIDFUNCTION);
  EXPECT_EQ(static_cast<std::uint32_t>(STG_E_INVALIDFUNCTION), 0x80030001u);
  EXPECT_EQ(stream->Write("x", 1, nullptr), E_NOTIMPL);
  EXPECT_EQ(static_cast<std::uint32_t>(E_NOTIMPL), 0x80004001u);
  EXPECT_EQ(stream->SetSize(Size(1)), E_NOTIMPL);
  EXPECT_EQ(stream->Clone(nullptr), E_NOTIMPL);
  // Seeking before the start is the system's error, mapped to an HRESULT.
#ifdef _WIN32
  constexpr std::uint32_t kNegativeSeek = ERROR_NEGATIVE_SEEK;
#else
  constexpr std::uint32_t kNegativeSeek = EINVAL;
#endif
  EXPECT_EQ(static_cast<std::uint32_t>(stream->Seek(Offset(-1), 0, nullptr)),
            0x80070000u | kNegativeSeek);
  stream->Release();
}

TEST_F(ZelvarStreamTest, QueryInterfaceCountsReferences) {
  auto* stream = new CZelvarStream(Open("abc"));
  void* out = nullptr;
  EXPECT_EQ(stream->QueryInterface(IID_IStream, &out), S_OK);
  EXPECT_EQ(out, static_cast<IStream*>(stream));
  EXPECT_EQ(stream->QueryInterface(IID_ISequentialStream, &out), S_OK);
  EXPECT_EQ(stream->QueryInterface(IID_IUnknown, &out), S_OK);
  const IID other = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
  out = &out;
  EXPECT_EQ(stream->QueryInterface(other, &out), E_NOINTERFACE);
  EXPECT_EQ(stream->AddRef(), 5u);
  for (ULONG expected = 4; expected > 0; --expected) EXPECT_EQ(stream->Release(), expected);
  EXPECT_EQ(stream->Release(), 0u);
}

TEST_F(ZelvarStreamTest, ReleasingLastReferenceLeavesFileOpen) {
  FILE* file = Open("payload");
  (new CZelvarStream(file))->Release();
  char bytes[8] = {};
  EXPECT_EQ(std::fread(bytes, 1, 7, file), 7u);
  EXPECT_EQ(std::string(bytes, 7), "payload");
}

TEST(HresultMapping, PositiveErrorsGetSystemFacility) {
  EXPECT_EQ(static_cast<std::uint32_t>(HresultFromSystemError(2)), 0x80070002u);
  EXPECT_EQ(static_cast<std::uint32_t>(HresultFromSystemError(0x12345)), 0x80072345u);
  EXPECT_EQ(HresultFromSystemError(0), 0);
  EXPECT_EQ(HresultFromSystemError(-5), -5);
}

}  // namespace
