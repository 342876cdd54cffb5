#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "media/video_index.h"
#include "media/video_test_frames.h"
#include "tests/temp_dir.h"
#include "zelvarpack/zelvar_video_server.h"

namespace zelvarpack {
namespace {

using testing::AsJpeg;
using testing::AsPng;

// The rebuilt frames' floor: JPEG at quality 85 in 4:2:2 over frames that
// were JPEGs at 95 or PNGs. (Measured: 38.5 to 49.9 dB on these pictures.)
constexpr double kPsnrFloor = 35.0;

unsigned char* Bytes(std::string& s) { return reinterpret_cast<unsigned char*>(s.data()); }
std::int32_t Length(const std::string& s) { return static_cast<std::int32_t>(s.size()); }

// Runs `call` and returns the text it threw ("" when it did not throw).
template <typename F>
std::string Thrown(F call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

std::vector<std::pair<std::uint32_t, int>> Entries(const std::string& index) {
  std::vector<std::pair<std::uint32_t, int>> out;
  for (std::size_t at = 0; at + 5 <= index.size(); at += 5) {
    const auto* b = reinterpret_cast<const unsigned char*>(index.data() + at);
    out.emplace_back(
        std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 | b[3],
        b[4]);
  }
  return out;
}

class VideoServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(dir_.path() / "work");
    work_ = dir_.File("work");
    index_ = dir_.File("frames.idx");
    data_ = dir_.File("frames.dat");
  }

  void* Writer() {
    return CZelvarVideoServer::Create(Bytes(work_), Length(work_), Bytes(index_), Length(index_),
                                      Bytes(data_), Length(data_), 7);
  }
  void* Reader() {
    return CZelvarVideoServer::Create(Bytes(index_), Length(index_), Bytes(data_), Length(data_));
  }
  std::string Save(const std::string& name, const std::string& bytes) {
    const std::string path = dir_.File(name);
    WriteWholeFile(path, bytes);
    return path;
  }
  void Write(void* h, std::string path) { CZelvarVideoServer::Write(h, Bytes(path), 0); }
  bool WorkFolderEmpty() const { return std::filesystem::is_empty(dir_.path() / "work"); }

  TempDir dir_;
  std::string work_, index_, data_;
};

TEST_F(VideoServerTest, RebuildsPhotoAndIconFramesAbovePsnrFloor) {
  if (!testing::HavePhotos()) GTEST_SKIP() << "lomiri-wallpapers-20.04 / apache2-data missing";
  std::vector<image::RgbaImage> sources;
  std::vector<std::string> paths;
  const auto add = [&](image::RgbaImage frame, bool png) {
    const std::string name = "frame" + std::to_string(paths.size()) + (png ? ".png" : ".jpg");
    const std::string bytes = png ? AsPng(frame) : AsJpeg(frame);
    paths.push_back(Save(name, bytes));
    // The source as the server sees it: the file decoded.
    sources.push_back(testing::Decode(bytes));
  };
  add(testing::PhotoFrame(0), false);
  add(testing::PhotoFrame(0, 8), false);  // a pan: most tiles like the last frame's
  add(testing::PhotoFrame(1), false);
  add(testing::PhotoFrame(2, 4), false);
  add(testing::IconFrame(), true);
  add(testing::IconFrame(3), true);

  void* h = Writer();
  for (const std::string& path : paths) Write(h, path);
  CZelvarVideoServer::Flush(h);
  CZelvarVideoServer::Destroy(h);
  EXPECT_TRUE(WorkFolderEmpty());

  // Every place of every mosaic is used at most once; records are mosaics.
  const auto entries = Entries(ReadWholeFile(index_));
  ASSERT_EQ(entries.size(), paths.size() * 225);
  std::set<std::pair<std::uint32_t, int>> seen(entries.begin(), entries.end());
  EXPECT_EQ(seen.size(), entries.size());
  std::uint32_t mosaics = 0;
  for (const auto& e : entries) mosaics = std::max(mosaics, e.first + 1);
  EXPECT_LT(mosaics, 256u + paths.size()) << "tiles alike meet in few mosaics";

  void* r = Reader();
  void *a = nullptr, *b = nullptr, *c = nullptr;
  CZelvarVideoServer::Read(r, a, b, c);
  EXPECT_EQ(a, nullptr);
  ASSERT_EQ(CZelvarVideoServer::FrameCount(r), static_cast<std::int32_t>(paths.size()));
  for (std::size_t n = 0; n < paths.size(); ++n) {
    SCOPED_TRACE(paths[n]);
    std::unique_ptr<CZelvarBuffer> frame(
        CZelvarVideoServer::ReadFrame(r, static_cast<std::int32_t>(n)));
    ASSERT_NE(frame, nullptr);
    ASSERT_EQ(frame->GetValueLength(), 1920 * 1080 * 4);
    const double psnr = testing::Psnr(frame->GetValue(), sources[n].pixels.data(), 1920 * 1080);
    std::printf("frame %zu: PSNR %.2f dB\n", n, psnr);
    EXPECT_GE(psnr, kPsnrFloor);
  }
  EXPECT_EQ(CZelvarVideoServer::ReadFrame(r, static_cast<std::int32_t>(paths.size())), nullptr);
  EXPECT_EQ(CZelvarVideoServer::ReadFrame(r, -1), nullptr);
  CZelvarVideoServer::Destroy(r);
}

// Two flat frames: all 225 tiles of each fall into one tessera, whose first
// mosaic the first frame fills exactly; the second frame continues in a new
// mosaic of the same tessera, place by place.
TEST_F(VideoServerTest, TesseraPast225TilesContinuesInNewMosaic) {
  const std::string grey = Save("grey.png", AsPng(image::NewCanvas(1920, 1080, 90, 90, 90, 255)));
  void* h = Writer();
  Write(h, grey);
  Write(h, grey);
  Write(h, grey);
  CZelvarVideoServer::Flush(h);
  CZelvarVideoServer::Destroy(h);
  const auto entries = Entries(ReadWholeFile(index_));
  ASSERT_EQ(entries.size(), 3u * 225);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    ASSERT_EQ(entries[i].first, i / 225) << i;
    ASSERT_EQ(entries[i].second, static_cast<int>(i % 225)) << i;
  }
  void* r = Reader();
  std::unique_ptr<CZelvarBuffer> frame(CZelvarVideoServer::ReadFrame(r, 2));
  ASSERT_NE(frame, nullptr);
  for (std::int32_t i = 0; i < frame->GetValueLength(); i += 4) {
    ASSERT_NEAR(frame->GetValue()[i], 90, 1) << i;
  }
  CZelvarVideoServer::Destroy(r);
}

TEST_F(VideoServerTest, RefusesWrongSizeCorruptAndMissingFramesLeavingNoTrace) {
  const image::RgbaImage good = image::NewCanvas(1920, 1080, 10, 200, 30, 255);
  const std::string jpeg = AsJpeg(good);
  const std::string png = AsPng(good);
  const struct {
    const char* name;
    std::string bytes;
    const char* error;
  } kCases[] = {
      {"wide.png", AsPng(image::NewCanvas(1921, 1080, 0, 0, 0, 255)), "Invalid file."},
      {"small.jpg", AsJpeg(image::NewCanvas(1280, 720, 0, 0, 0, 255)), "Invalid file."},
      {"huge.jpg", AsJpeg(image::NewCanvas(3840, 2160, 0, 0, 0, 255)), "Invalid file."},
      {"truncated.jpg", jpeg.substr(0, jpeg.size() / 2), "Invalid file."},
      {"corrupt.png", png.substr(0, 40) + std::string(200, 'x') + png.substr(240), "Invalid file."},
      {"text.png", "not a picture", "Invalid file."},
      {"empty.jpg", "", "Invalid file."},
  };
  void* h = Writer();
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const std::string path = Save(c.name, c.bytes);
    EXPECT_EQ(Thrown([&] { Write(h, path); }), c.error);
  }
  EXPECT_EQ(Thrown([&] { Write(h, dir_.File("absent.png")); }), "Could not open file.");
  EXPECT_EQ(Thrown([&] { CZelvarVideoServer::Write(h, nullptr, 0); }), "Could not open file.");
  // The handle goes on: one good frame is all the files hold.
  Write(h, Save("good.jpg", jpeg));
  CZelvarVideoServer::Flush(h);
  CZelvarVideoServer::Destroy(h);
  EXPECT_EQ(ReadWholeFile(index_).size(), 1125u);
}

TEST_F(VideoServerTest, DirectionOfHandleIsEnforced) {
  const std::string frame = Save("f.png", AsPng(image::NewCanvas(1920, 1080, 1, 2, 3, 255)));
  void* w = Writer();
  void *a = nullptr, *b = nullptr, *c = nullptr;
  EXPECT_EQ(Thrown([&] { CZelvarVideoServer::Read(w, a, b, c); }), "Video tesserae is write-only.");
  EXPECT_EQ(Thrown([&] { CZelvarVideoServer::FrameCount(w); }), "Video tesserae is write-only.");
  EXPECT_EQ(Thrown([&] { CZelvarVideoServer::ReadFrame(w, 0); }), "Video tesserae is write-only.");
  Write(w, frame);  // still usable after the refusals
  CZelvarVideoServer::Discard(w, a, b);
  CZelvarVideoServer::Flush(w);
  CZelvarVideoServer::Destroy(w);

  void* r = Reader();
  EXPECT_EQ(Thrown([&] { Write(r, frame); }), "Video tesserae is read-only.");
  EXPECT_EQ(Thrown([&] { CZelvarVideoServer::Flush(r); }), "Video tesserae is read-only.");
  EXPECT_EQ(CZelvarVideoServer::FrameCount(r), 1);
  CZelvarVideoServer::Destroy(r);
  CZelvarVideoServer::Destroy(nullptr);
}

TEST_F(VideoServerTest, DestroyWithoutFlushLeavesNoFiles) {
  const std::string frame = Save("f.jpg", AsJpeg(image::NewCanvas(1920, 1080, 1, 2, 3, 255)));
  void* h = Writer();
  Write(h, frame);
  EXPECT_FALSE(WorkFolderEmpty()) << "the open mosaic is being written";
  CZelvarVideoServer::Destroy(h);
  EXPECT_TRUE(WorkFolderEmpty());
  EXPECT_FALSE(std::filesystem::exists(index_));
  EXPECT_FALSE(std::filesystem::exists(data_));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()),
                          std::filesystem::directory_iterator()),
            2)
      << "only the work folder and the frame";
}

// Frames after a Flush reach the files at the next Flush only; mosaic
// numbers go on from the first Flush's records.
TEST_F(VideoServerTest, FlushAgainAppendsFramesAndMosaics) {
  const std::string dark = Save("d.png", AsPng(image::NewCanvas(1920, 1080, 20, 20, 20, 255)));
  const std::string light = Save("l.png", AsPng(image::NewCanvas(1920, 1080, 240, 240, 240, 255)));
  void* h = Writer();
  Write(h, dark);
  CZelvarVideoServer::Flush(h);
  Write(h, light);
  EXPECT_EQ(ReadWholeFile(index_).size(), 1125u);
  CZelvarVideoServer::Flush(h);
  CZelvarVideoServer::Destroy(h);
  const auto entries = Entries(ReadWholeFile(index_));
  ASSERT_EQ(entries.size(), 450u);
  EXPECT_EQ(entries[0].first, 0u);
  EXPECT_EQ(entries[225].first, 1u);
  void* r = Reader();
  std::unique_ptr<CZelvarBuffer> second(CZelvarVideoServer::ReadFrame(r, 1));
  ASSERT_NE(second, nullptr);
  EXPECT_NEAR(second->GetValue()[4 * (540 * 1920 + 960)], 240, 1);
  CZelvarVideoServer::Destroy(r);
}

TEST_F(VideoServerTest, ReaderRefusesBrokenFiles) {
  const std::string frame = Save("f.png", AsPng(image::NewCanvas(1920, 1080, 50, 60, 70, 255)));
  void* h = Writer();
  Write(h, frame);
  CZelvarVideoServer::Flush(h);
  CZelvarVideoServer::Destroy(h);
  const std::string index = ReadWholeFile(index_), data = ReadWholeFile(data_);

  const auto readError = [&]() {
    void* r = Reader();
    const std::string error = Thrown([&] { CZelvarVideoServer::FrameCount(r); });
    CZelvarVideoServer::Destroy(r);
    return error;
  };
  EXPECT_EQ(readError(), "");
  WriteWholeFile(index_, index.substr(0, 1124));
  EXPECT_EQ(readError(), "Invalid file.") << "not whole frames";
  std::string pastRecords = index;
  pastRecords[3] = 1;  // mosaic 1 of 1
  WriteWholeFile(index_, pastRecords);
  EXPECT_EQ(readError(), "Invalid file.");
  std::string badPlace = index;
  badPlace[4] = static_cast<char>(225);
  WriteWholeFile(index_, badPlace);
  EXPECT_EQ(readError(), "Invalid file.");
  WriteWholeFile(index_, index);
  WriteWholeFile(data_, data.substr(0, data.size() - 1));
  EXPECT_EQ(readError(), "Invalid file.") << "record cut short";
  // A record that is not a JPEG passes the scan, and fails when needed.
  std::string notJpeg = data;
  notJpeg[4] = 'X';
  WriteWholeFile(data_, notJpeg);
  void* r = Reader();
  EXPECT_EQ(Thrown([&] { CZelvarVideoServer::ReadFrame(r, 0); }), "Invalid file.");
  CZelvarVideoServer::Destroy(r);
  std::filesystem::remove(data_);
  EXPECT_EQ(readError(), "Could not open file.");
}

TEST(VideoIndex, ParsesWholeFramesOnly) {
  std::vector<std::uint8_t> bytes;
  for (int t = 0; t < 225; ++t) {
    AppendTileEntry({static_cast<std::uint32_t>(t % 3) << 24 | 2u, static_cast<std::uint8_t>(t)},
                    bytes);
  }
  std::vector<TileEntry> tiles;
  EXPECT_FALSE(ParseVideoIndex(bytes.data(), bytes.size(), 0x02000002u, tiles));
  ASSERT_TRUE(ParseVideoIndex(bytes.data(), bytes.size(), 0x02000003u, tiles));
  ASSERT_EQ(tiles.size(), 225u);
  EXPECT_EQ(tiles[2].mosaic, 0x02000002u);
  EXPECT_EQ(tiles[224].place, 224);
  EXPECT_TRUE(ParseVideoIndex(bytes.data(), 0, 0, tiles));
  EXPECT_TRUE(tiles.empty());
  EXPECT_FALSE(ParseVideoIndex(bytes.data(), 5, 0x03000000u, tiles));
}

}  // namespace
}  // namespace zelvarpack
