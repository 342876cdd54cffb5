#include "zelvarpack/zelvar_image_server.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <memory>

#include "image/codec.h"
#include "image/sprite_sheet.h"
#include "tests/codec_samples.h"
#include "tests/temp_dir.h"
#include "zelvarpack/zelvar_utils.h"

namespace zelvarpack::image {
namespace {

using namespace samples;

struct Margins {
  const char* bottom = "";
  const char* left = "";
  const char* right = "";
  const char* top = "";
};

class ImageServer : public ::testing::Test {
 protected:
  std::unique_ptr<CZelvarImageServer> NewServer() {
    return std::make_unique<CZelvarImageServer>(cache_.data());
  }
  static std::int32_t Add(CZelvarImageServer& server, const std::string& bytes,
                          const char* width = "", const char* height = "", Margins m = {}) {
    return server.AddImage(reinterpret_cast<const unsigned char*>(bytes.data()),
                           static_cast<std::int32_t>(bytes.size()), width, height, m.bottom, m.left,
                           m.right, m.top);
  }
  static RgbaImage DecodeOrDie(const std::string& bytes) {
    RgbaImage image;
    ImageFormat format;
    EXPECT_TRUE(DecodeImage(Bytes(bytes), bytes.size(), {}, format, image));
    return image;
  }
  static std::string SheetBytes(CZelvarImages& images) {
    bool wasGzip = true;
    CZelvarBuffer* sheet = images.GetRawImageZelvarBuffer(wasGzip);
    EXPECT_FALSE(wasGzip);
    return std::string(reinterpret_cast<char*>(sheet->GetValue()),
                       static_cast<std::size_t>(sheet->GetValueLength()));
  }
  static std::string IdOf(const std::string& sources) {
    return CZelvarUtils::MakeCacheName(
        CZelvarUtils::UrlHash(reinterpret_cast<const unsigned char*>(sources.data()),
                              static_cast<std::int32_t>(sources.size())));
  }
  TempDir dir_;
  std::string cache_ = dir_.path().string();
};

std::uint32_t Pixel(const RgbaImage& image, std::int32_t x, std::int32_t y) {
  const std::uint8_t* p = image.At(x, y);
  return static_cast<std::uint32_t>(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3];
}

TEST_F(ImageServer, RoutesEachFormatToItsSetAndRejectsTheRest) {
  const RgbaImage picture = Solid(6, 4, 0x336699FF);
  const std::string png = MakePng(picture);  // 8-bit
  std::string jpeg;
  ASSERT_TRUE(EncodeJpeg(picture, 80, jpeg));
  auto server = NewServer();
  struct Case {
    std::int32_t handle;
    std::int32_t set;
  };
  const Case cases[] = {
      {Add(*server, MakeGif(picture)), CZelvarImageServer::kGifSheet},
      {Add(*server, jpeg), CZelvarImageServer::kJpgSheet},
      {Add(*server, png), CZelvarImageServer::kPng24Sheet},
      {Add(*server, InsertChunk(png, "bKGD", std::string(6, '\0'))),
       CZelvarImageServer::kPng32Sheet},
      {Add(*server, ReadIcon("a.png")), CZelvarImageServer::kPng32Sheet},
      {Add(*server, MakeGif(picture, 3)), -1},             // animated
      {Add(*server, png.substr(0, png.size() - 20)), -1},  // truncated
      {Add(*server, "BM not an image"), -1},
      {Add(*server, png, "5000", ""), -1},  // declared too wide
      {Add(*server, png, "", "auto"), -1},  // declared height 0
      {Add(*server, png, "", "", {"-1"}), -1},
      {Add(*server, png, "", "", {"", "", "4097"}), -1},
      {Add(*server, png, "64", "48px", {"4096", " 2", "+3", "0"}), CZelvarImageServer::kPng24Sheet},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.handle);
    EXPECT_EQ(server->RouteImage(c.handle), c.set);
    EXPECT_TRUE(server->IsDecoded(c.handle));
  }
  EXPECT_EQ(server->RouteImage(0), -1);  // already routed
  EXPECT_EQ(server->RouteImage(99), -1);
}

// The GIF set of Debian's icons: one PNG sheet that holds every icon pixel
// for pixel at its packed place, margins transparent white, under the id of
// its sources, with one index line per icon.
TEST_F(ImageServer, SheetOfRealIconsHoldsEachIconAtItsPlace) {
  const std::vector<std::string> names = {"a.gif",     "back.gif",  "ball.red.gif", "left.gif",
                                          "right.gif", "pie3.gif",  "folder.gif",   "up.gif",
                                          "down.gif",  "image2.gif"};
  auto server = NewServer();
  std::string sources;
  std::vector<std::string> files;
  for (std::size_t i = 0; i < names.size(); ++i) {
    files.push_back(ReadIcon(names[i]));
    sources += files.back();
    // The second icon has margins of 1, 2, 3 and 4 (bottom, left, right, top).
    Add(*server, files.back(), "", "", i == 1 ? Margins{"1", "2", "3", "4"} : Margins{});
  }
  server->WaitForDecoding();
  for (std::int32_t i = 0; i < static_cast<std::int32_t>(names.size()); ++i) {
    ASSERT_EQ(server->RouteImage(i), CZelvarImageServer::kGifSheet);
  }
  const std::string id = server->BuildSheet(CZelvarImageServer::kGifSheet);
  ASSERT_EQ(id, IdOf(sources));
  EXPECT_EQ(server->BuildSheet(CZelvarImageServer::kGifSheet), id);    // built once
  EXPECT_EQ(server->BuildSheet(CZelvarImageServer::kPng32Sheet), "");  // empty set

  std::unique_ptr<CZelvarImages> stored(NewServer()->GetGifId(id));
  ASSERT_NE(stored, nullptr);
  const std::string sheetBytes = SheetBytes(*stored);
  EXPECT_EQ(sheetBytes, ReadWholeFile(dir_.File("gif/" + id)));
  EXPECT_LE(sheetBytes.size(), sources.size());
  const RgbaImage sheet = DecodeOrDie(sheetBytes);

  std::vector<Cell> cells;
  std::vector<RgbaImage> icons;
  for (std::size_t i = 0; i < files.size(); ++i) {
    icons.push_back(DecodeOrDie(files[i]));
    cells.push_back({icons[i].width + (i == 1 ? 5 : 0), icons[i].height + (i == 1 ? 5 : 0)});
  }
  const SheetSize size = PackCells(cells, 100000);
  ASSERT_EQ(sheet.width, size.width);
  ASSERT_EQ(sheet.height, size.height);
  std::string index;
  ASSERT_EQ(stored->GetEntryCount(), static_cast<std::int32_t>(files.size()));
  for (std::size_t i = 0; i < files.size(); ++i) {
    SCOPED_TRACE(names[i]);
    const RgbaImage& icon = icons[i];
    const int left = i == 1 ? 2 : 0, top = i == 1 ? 4 : 0;
    for (std::int32_t y = 0; y < cells[i].paddedHeight; ++y) {
      for (std::int32_t x = 0; x < cells[i].paddedWidth; ++x) {
        const bool inImage =
            x >= left && x < left + icon.width && y >= top && y < top + icon.height;
        ASSERT_EQ(Pixel(sheet, cells[i].x + x, cells[i].y + y),
                  inImage ? Pixel(icon, x - left, y - top) : 0xFFFFFF00u)
            << x << "," << y;
      }
    }
    CZelvarImageEntry entry;
    ASSERT_TRUE(server->GetImageEntry(static_cast<std::int32_t>(i), entry));
    const std::string keyed =
        files[i] + std::to_string(icon.width) + "x" + std::to_string(icon.height);
    EXPECT_EQ(entry.key, CZelvarUtils::UrlHash(reinterpret_cast<const unsigned char*>(keyed.data()),
                                               static_cast<std::int32_t>(keyed.size())));
    const CZelvarImageEntry expected =
        IndexEntry(entry.key, size, cells[i], icon.width, icon.height, left, top);
    EXPECT_DOUBLE_EQ(entry.positionX, expected.positionX);
    EXPECT_DOUBLE_EQ(entry.positionY, expected.positionY);
    EXPECT_NEAR(stored->GetEntry(static_cast<std::int32_t>(i)).sizeX, entry.sizeX, 5e-5);
    index += FormatIndexLine(entry);
  }
  EXPECT_EQ(ReadWholeFile(dir_.File("gif/" + id + ".c")), index);
}

TEST_F(ImageServer, ScaledNeighboursDoNotBleedIntoEachOther) {
  auto server = NewServer();
  RgbaImage framed = Solid(4, 4, 0xFF0000FF);  // red with a green top-left pixel
  std::memcpy(framed.At(0, 0), "\x00\xFF\x00\xFF", 4);
  // 32-bit PNGs, with a long comment so that the sheet is worth making.
  auto png32 = [](const RgbaImage& image) {
    return InsertChunk(InsertChunk(MakePng(image), "bKGD", std::string(6, '\0')), "tEXt",
                       "Comment" + std::string(1, '\0') + std::string(2000, 'c'));
  };
  Add(*server, png32(framed), "10", "9");
  Add(*server, png32(Solid(2, 2, 0x0000FFFF)), "10", "7", {"", "", "", "1"});
  ASSERT_EQ(server->RouteImage(0), CZelvarImageServer::kPng32Sheet);
  ASSERT_EQ(server->RouteImage(1), CZelvarImageServer::kPng32Sheet);
  const std::string id = server->BuildSheet(CZelvarImageServer::kPng32Sheet);
  ASSERT_FALSE(id.empty());
  const RgbaImage sheet = DecodeOrDie(ReadWholeFile(dir_.File("png/" + id)));
  ASSERT_EQ(sheet.width, 10);
  ASSERT_EQ(sheet.height, 17);  // 9, then a margin of 1 and 7
  for (std::int32_t y = 0; y < 17; ++y) {
    for (std::int32_t x = 0; x < 10; ++x) {
      const std::uint32_t p = Pixel(sheet, x, y);
      if (y < 9) {
        // Red, or blends of red and the green corner: never any blue.
        EXPECT_EQ(p & 0x0000FFFF, 0xFFu) << x << "," << y;
      } else if (y == 9) {
        EXPECT_EQ(p, 0xFFFFFF00u) << x;
      } else {
        EXPECT_EQ(p, 0x0000FFFFu) << x << "," << y;
      }
    }
  }
  EXPECT_EQ(Pixel(sheet, 0, 0), 0x00FF00FFu);
  EXPECT_EQ(Pixel(sheet, 9, 8), 0xFF0000FFu);
}

TEST_F(ImageServer, JpegSheetsTakeTheFirstQualityThatBeatsTheirSources) {
  // Sources at quality 20: at 85 the sheet is larger than both together.
  std::string sources;
  std::vector<RgbaImage> decoded;
  auto server = NewServer();
  for (std::uint32_t seed : {5u, 6u}) {
    std::string jpeg;
    ASSERT_TRUE(EncodeJpeg(Photo(160, 120, seed), 20, jpeg));
    sources += jpeg;
    decoded.push_back(DecodeOrDie(jpeg));
    server->RouteImage(Add(*server, jpeg));
  }
  const std::string id = server->BuildSheet(CZelvarImageServer::kJpgSheet);
  ASSERT_EQ(id, IdOf(sources));
  const std::string stored = ReadWholeFile(dir_.File("jpg/" + id));
  RgbaImage render = NewCanvas(160, 240, 255, 255, 255, 0);
  DrawScaled(render, decoded[0], 0, 0, 160, 120);
  DrawScaled(render, decoded[1], 0, 120, 160, 120);
  int quality = 85;
  std::string at;
  while (EncodeJpeg(render, quality, at) && at != stored && quality > 0) quality -= 5;
  ASSERT_EQ(at, stored);
  EXPECT_LT(quality, 85);
  EXPECT_LE(stored.size(), sources.size());
  ASSERT_TRUE(EncodeJpeg(render, quality + 5, at));
  EXPECT_GT(at.size(), sources.size());  // the quality before did not fit
  // The 24-bit PNG set is stored with the JPEG sheets.
  std::unique_ptr<CZelvarImages> back(NewServer()->GetPng24Id(id));
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(SheetBytes(*back), stored);
}

// Each set's sheet is the same whether the sets are built side by side (the
// later sets composed on the pool while the first is built), one set per
// server, or with images routed to a set after its sheet was started ahead.
TEST_F(ImageServer, SheetsBuiltSideBySideEqualSheetsBuiltOneByOne) {
  std::string jpeg1, jpeg2, jpeg3;
  ASSERT_TRUE(EncodeJpeg(Photo(90, 70, 11), 95, jpeg1));
  ASSERT_TRUE(EncodeJpeg(Photo(60, 80, 12), 95, jpeg2));
  ASSERT_TRUE(EncodeJpeg(Photo(40, 30, 13), 95, jpeg3));
  // In routing order; the last image of each set comes last.
  const std::vector<std::string> images = {
      ReadIcon("pie1.gif"), jpeg1, MakePng(Photo(50, 40, 14)), ReadIcon("a.png"),
      ReadIcon("pie2.gif"), jpeg2, MakePng(Photo(30, 60, 15)), ReadIcon("alert.red.png"),
      ReadIcon("pie3.gif"), jpeg3, MakePng(Photo(20, 20, 16)), ReadIcon("alert.black.png"),
  };
  struct Outcome {
    std::string ids[4];
    std::string sheets[4];
    std::string indexes[4];
    std::vector<std::vector<double>> entries;  // per image, in adding order
  };
  const char* folders[] = {"gif", "jpg", "jpg", "png"};
  // `split`: the images of one set per server; `late`: the last four images
  // are routed after the first sheet is built.
  auto run = [&](const std::string& name, bool split, bool late) {
    Outcome outcome;
    const std::string cache = dir_.File(name);
    std::filesystem::create_directories(cache);
    std::vector<std::unique_ptr<CZelvarImageServer>> servers;
    std::vector<std::pair<CZelvarImageServer*, std::int32_t>> handles;
    for (int server = 0; server < (split ? 4 : 1); ++server) {
      servers.push_back(std::make_unique<CZelvarImageServer>(const_cast<char*>(cache.c_str())));
    }
    for (std::size_t i = 0; i < images.size(); ++i) {
      CZelvarImageServer* server = servers[split ? i % 4 : 0].get();
      handles.emplace_back(server, Add(*server, images[i]));
    }
    auto route = [&](std::size_t from, std::size_t to) {
      for (std::size_t i = from; i < to; ++i) {
        EXPECT_EQ(handles[i].first->RouteImage(handles[i].second),
                  static_cast<std::int32_t>(i % 4));
      }
    };
    route(0, late ? images.size() - 4 : images.size());
    for (int set = 0; set < 4; ++set) {
      CZelvarImageServer* server = servers[split ? set : 0].get();
      outcome.ids[set] = server->BuildSheet(static_cast<CZelvarImageServer::SheetKind>(set));
      if (late && set == 0) {
        // The GIF set is built; its last image is refused, the others join
        // the sets started ahead.
        EXPECT_EQ(server->RouteImage(handles[images.size() - 4].second), -1);
        route(images.size() - 3, images.size());
      }
    }
    for (int set = 0; set < 4; ++set) {
      if (outcome.ids[set].empty()) continue;
      const std::string path = cache + "/" + folders[set] + "/" + outcome.ids[set];
      outcome.sheets[set] = ReadWholeFile(path);
      outcome.indexes[set] = ReadWholeFile(path + ".c");
    }
    for (const auto& [server, handle] : handles) {
      CZelvarImageEntry entry{};
      if (!server->GetImageEntry(handle, entry)) {
        outcome.entries.push_back({});
        continue;
      }
      outcome.entries.push_back(
          {double(entry.key), entry.positionX, entry.positionY, entry.sizeX, entry.sizeY});
    }
    return outcome;
  };
  const Outcome together = run("together", false, false);
  const Outcome apart = run("apart", true, false);
  for (int set = 0; set < 4; ++set) {
    SCOPED_TRACE(set);
    ASSERT_FALSE(together.ids[set].empty());
    EXPECT_EQ(together.ids[set], apart.ids[set]);
    EXPECT_EQ(together.sheets[set], apart.sheets[set]);
    EXPECT_EQ(together.indexes[set], apart.indexes[set]);
  }
  EXPECT_EQ(together.entries, apart.entries);

  // Without the last GIF, and the other sets grown after they were started.
  const Outcome late = run("late", false, true);
  const Outcome lateApart = run("late-apart", true, true);
  for (int set = 0; set < 4; ++set) {
    SCOPED_TRACE(set);
    EXPECT_EQ(late.ids[set], lateApart.ids[set]);
    EXPECT_EQ(late.sheets[set], lateApart.sheets[set]);
    EXPECT_EQ(late.indexes[set], lateApart.indexes[set]);
    if (set > 0) {
      EXPECT_EQ(late.sheets[set], together.sheets[set]);
    }
  }
  EXPECT_NE(late.ids[0], together.ids[0]);
  EXPECT_EQ(late.entries, lateApart.entries);
}

TEST_F(ImageServer, SheetsNoSmallerThanTheirSourcesAreNotStored) {
  // A tiny one-colour PNG: even at quality 0 its JPEG sheet is larger.
  auto server = NewServer();
  ASSERT_EQ(server->RouteImage(Add(*server, MakePng(Solid(64, 64, 0x808080FF)))),
            CZelvarImageServer::kPng24Sheet);
  const std::string tinyGif = MakeGif(Solid(1, 1, 0xFF));
  ASSERT_EQ(server->RouteImage(Add(*server, tinyGif)), CZelvarImageServer::kGifSheet);
  EXPECT_EQ(server->BuildSheet(CZelvarImageServer::kPng24Sheet), "");
  EXPECT_EQ(server->BuildSheet(CZelvarImageServer::kGifSheet), "");
  EXPECT_FALSE(std::filesystem::exists(dir_.File("jpg")));
  EXPECT_FALSE(std::filesystem::exists(dir_.File("gif")));
  EXPECT_EQ(server->RouteImage(Add(*server, tinyGif)), -1);  // the set is built
}

TEST_F(ImageServer, SameImagesGiveTheSameIdAndStoredFilesAreKept) {
  const std::string a = ReadIcon("pie1.gif"), b = ReadIcon("pie2.gif"), c = ReadIcon("pie3.gif");
  auto build = [&] {
    auto server = NewServer();
    for (const std::string* icon : {&a, &b, &c}) server->RouteImage(Add(*server, *icon));
    return server->BuildSheet(CZelvarImageServer::kGifSheet);
  };
  const std::string id = build();
  ASSERT_EQ(id, IdOf(a + b + c));
  WriteWholeFile(dir_.File("gif/" + id), "tampered");
  EXPECT_EQ(build(), id);
  EXPECT_EQ(ReadWholeFile(dir_.File("gif/" + id)), "tampered");
  for (const auto& file : std::filesystem::directory_iterator(dir_.File("gif"))) {
    EXPECT_EQ(file.path().string().find(".tmp."), std::string::npos) << file.path();
  }

  auto server = NewServer();
  std::unique_ptr<CZelvarImages> read(server->GetGifId(id));
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->GetEntryCount(), 3);
  EXPECT_EQ(server->GetPng32Id(id), nullptr);  // another folder
  WriteWholeFile(dir_.File("secret"), "secret");
  std::string lower = id;
  for (char& ch : lower) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  for (const std::string& bad : {std::string("../secret"), std::string(""), id + ".c", lower,
                                 CZelvarUtils::MakeCacheName(42)}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(server->GetGifId(bad), nullptr);
  }
}

}  // namespace
}  // namespace zelvarpack::image
