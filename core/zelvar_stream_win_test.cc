// CZelvarStream as the system's own components see it: through the COM
// interface only, from shlwapi's stream helpers and from GDI+, which reads
// an image from it as the video server's decoding does.
#include <windows.h>
// GDI+'s headers build on the COM types.
#include <objidl.h>
// clang-format off
#include <gdiplus.h>
// clang-format on
#include <gtest/gtest.h>
#include <shlwapi.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "core/zelvar_stream.h"
#include "tests/temp_dir.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

namespace gdi = Gdiplus::DllExports;

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 7) & 0xFF);
  return bytes;
}

// The reference count as seen from outside: one AddRef and one Release.
ULONG References(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

TEST(ZelvarStreamCom, SystemStreamHelpersReadAndSizeThroughTheInterface) {
  TempDir dir;
  const std::string content = Pattern(300000);
  WriteWholeFile(dir.File("data"), content);
  FILE* file = CZelvarUtils::OpenFileForReading(dir.File("data"));
  ASSERT_NE(file, nullptr);
  IStream* stream = new CZelvarStream(file);

  IStream* asStream = nullptr;
  ASSERT_EQ(stream->QueryInterface(IID_IStream, reinterpret_cast<void**>(&asStream)), S_OK);
  IUnknown* asUnknown = nullptr;
  ASSERT_EQ(stream->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&asUnknown)), S_OK);
  EXPECT_EQ(References(stream), 3u);
  IUnknown* other = reinterpret_cast<IUnknown*>(&other);
  EXPECT_EQ(stream->QueryInterface(IID_IPersistStream, reinterpret_cast<void**>(&other)),
            E_NOINTERFACE);
  EXPECT_EQ(other, nullptr) << "a refused interface leaves a null pointer";
  asUnknown->Release();
  asStream->Release();

  ULARGE_INTEGER size{};
  ASSERT_EQ(::IStream_Size(stream, &size), S_OK);
  EXPECT_EQ(size.QuadPart, content.size());

  char head[1000];
  ASSERT_EQ(::IStream_Read(stream, head, sizeof head), S_OK);
  EXPECT_EQ(std::string(head, sizeof head), content.substr(0, sizeof head));

  // After a rewind the whole content, in one request that the helper may
  // split into several reads.
  ASSERT_EQ(::IStream_Reset(stream), S_OK);
  std::string whole(content.size(), '\0');
  ASSERT_EQ(::IStream_Read(stream, whole.data(), static_cast<ULONG>(whole.size())), S_OK);
  EXPECT_TRUE(whole == content);

  // Reading at the end: S_OK with nothing read; the helper that insists on
  // whole reads reports the short read as a failure.
  ULONG got = 7;
  ASSERT_EQ(stream->Read(head, sizeof head, &got), S_OK);
  EXPECT_EQ(got, 0u);
  EXPECT_TRUE(FAILED(::IStream_Read(stream, head, 1)));

  EXPECT_EQ(stream->Release(), 0u);
  EXPECT_EQ(std::fseek(file, 5, SEEK_SET), 0) << "the file stays open for its owner";
  EXPECT_EQ(std::fgetc(file), static_cast<unsigned char>(content[5]));
  std::fclose(file);
}

class GdiplusSession {
 public:
  GdiplusSession() {
    Gdiplus::GdiplusStartupInput input;
    ok_ = Gdiplus::GdiplusStartup(&token_, &input, nullptr) == Gdiplus::Ok;
  }
  ~GdiplusSession() {
    if (ok_) Gdiplus::GdiplusShutdown(token_);
  }
  bool ok() const { return ok_; }

 private:
  ULONG_PTR token_ = 0;
  bool ok_ = false;
};

// GDI+ decodes a PNG from the stream over a cache file opened for reading:
// every read, seek and size it needs goes through the interface, and it
// gives back every reference it took.
TEST(ZelvarStreamCom, GdiplusDecodesAnImageFromTheStream) {
  GdiplusSession session;
  ASSERT_TRUE(session.ok());
  TempDir dir;
  const std::wstring pngPath = dir.path().wstring() + L"\\sheet.png";
  {
    // A 5 x 3 picture with a distinct colour in every pixel, saved as PNG.
    Gdiplus::GpBitmap* bitmap = nullptr;
    ASSERT_EQ(gdi::GdipCreateBitmapFromScan0(5, 3, 0, PixelFormat32bppARGB, nullptr, &bitmap),
              Gdiplus::Ok);
    for (INT y = 0; y < 3; ++y) {
      for (INT x = 0; x < 5; ++x) {
        gdi::GdipBitmapSetPixel(bitmap, x, y,
                                0xFF000000u | static_cast<Gdiplus::ARGB>(x * 50) << 16 |
                                    static_cast<Gdiplus::ARGB>(y * 100) << 8 | 0x33u);
      }
    }
    // The PNG encoder's class id.
    const CLSID png = {
        0x557CF406, 0x1A04, 0x11D3, {0x9A, 0x73, 0x00, 0x00, 0xF8, 0x1E, 0xF3, 0x2E}};
    ASSERT_EQ(gdi::GdipSaveImageToFile(bitmap, pngPath.c_str(), &png, nullptr), Gdiplus::Ok);
    gdi::GdipDisposeImage(bitmap);
  }

  FILE* file = CZelvarUtils::OpenFileForReading((dir.path() / "sheet.png").string());
  ASSERT_NE(file, nullptr);
  auto* stream = new CZelvarStream(file);
  Gdiplus::GpBitmap* decoded = nullptr;
  ASSERT_EQ(gdi::GdipCreateBitmapFromStream(stream, &decoded), Gdiplus::Ok);
  UINT width = 0;
  UINT height = 0;
  gdi::GdipGetImageWidth(decoded, &width);
  gdi::GdipGetImageHeight(decoded, &height);
  EXPECT_EQ(width, 5u);
  EXPECT_EQ(height, 3u);
  for (INT y = 0; y < 3; ++y) {
    for (INT x = 0; x < 5; ++x) {
      Gdiplus::ARGB pixel = 0;
      ASSERT_EQ(gdi::GdipBitmapGetPixel(decoded, x, y, &pixel), Gdiplus::Ok);
      EXPECT_EQ(pixel, 0xFF000000u | static_cast<Gdiplus::ARGB>(x * 50) << 16 |
                           static_cast<Gdiplus::ARGB>(y * 100) << 8 | 0x33u)
          << x << "," << y;
    }
  }
  gdi::GdipDisposeImage(decoded);
  EXPECT_EQ(References(stream), 1u) << "GDI+ released what it took";
  EXPECT_EQ(stream->Release(), 0u);
  std::fclose(file);
}

}  // namespace
