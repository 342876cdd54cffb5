#include "image/sprite_sheet.h"

#include <gtest/gtest.h>

#include "tests/codec_samples.h"

namespace zelvarpack::image {
namespace {

using namespace samples;

std::uint8_t Depth(const std::string& bytes) { return PngDepth(Bytes(bytes), bytes.size()); }

TEST(SpriteSheet, PngDepthIsTheHeaderDepthUnlessABackgroundChunkSaysKeepAlpha) {
  const std::string png = MakePng(Solid(3, 2, 0x11223380));  // depth 8
  const std::string head = png.substr(0, 33);                // signature and header chunk
  const std::string background = InsertChunk(png, "bKGD", std::string(6, '\0'));
  EXPECT_EQ(Depth(png), 8);
  EXPECT_EQ(Depth(background), 32);
  EXPECT_EQ(Depth(InsertChunk(png, "bKGD", "")), 8);     // empty: ignored
  EXPECT_EQ(Depth(png + background.substr(33, 18)), 8);  // after IEND
  EXPECT_EQ(Depth(head + std::string("\x80\0\0\0tEXt", 8) + background.substr(33)), 8);
  EXPECT_EQ(Depth(background.substr(0, 33 + 8)), 32);  // the chunk's header is enough
  EXPECT_EQ(Depth(png.substr(0, 32)), 32);             // too short for the header chunk
  EXPECT_EQ(Depth("GIF89a not a png"), 32);
  // Debian's icons: most carry bKGD; the feather logo does not.
  EXPECT_EQ(Depth(ReadIcon("a.png")), 32);
  EXPECT_EQ(Depth(ReadIcon("blank.png")), 32);
  EXPECT_EQ(Depth(ReadIcon("apache_pb.png")), 8);
}

TEST(SpriteSheet, PacksWidestFirstIntoShelvesWithGuillotineCuts) {
  std::vector<Cell> cells = {{10, 4}, {6, 6}, {10, 8}, {3, 3}, {3, 3}, {3, 10}, {1, 2}};
  const SheetSize size = PackCells(cells, 1000);
  EXPECT_EQ(size.width, 10);
  EXPECT_EQ(size.height, 28);
  const std::pair<int, int> expected[] = {{0, 8},  {0, 12}, {0, 0}, {6, 12},
                                          {6, 15}, {0, 18}, {9, 12}};
  for (std::size_t i = 0; i < cells.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(cells[i].x, expected[i].first);
    EXPECT_EQ(cells[i].y, expected[i].second);
  }
  // One cell alone: the sheet is the cell.
  std::vector<Cell> one = {{7, 5}};
  const SheetSize alone = PackCells(one, 1000);
  EXPECT_EQ(alone.width, 7);
  EXPECT_EQ(alone.height, 5);
  // Taller than allowed: packing stops and says so.
  std::vector<Cell> tall = {{2, 600}, {2, 600}};
  EXPECT_GT(PackCells(tall, 1000).height, 1000);
}

TEST(SpriteSheet, PercentagesPutAnImageAtTheOriginAtZero) {
  const SheetSize sheet{10, 28};
  const CZelvarImageEntry inside = IndexEntry(7, sheet, {3, 3, 6, 12}, 3, 3, 0, 0);
  EXPECT_EQ(inside.key, 7);
  EXPECT_DOUBLE_EQ(inside.positionX, 600.0 / 7);
  EXPECT_DOUBLE_EQ(inside.positionY, 48);
  EXPECT_DOUBLE_EQ(inside.sizeX, 1000.0 / 3);
  EXPECT_DOUBLE_EQ(inside.sizeY, 2800.0 / 3);
  // At x = 0 or y = 0 the position is 0: anything else shifts the sheet by
  // a pixel and shows a strip of the neighbouring image. A zero divisor
  // gives 0 too.
  const CZelvarImageEntry origin = IndexEntry(1, sheet, {10, 8, 0, 0}, 10, 8, 0, 0);
  EXPECT_DOUBLE_EQ(origin.positionX, 0);
  EXPECT_DOUBLE_EQ(origin.positionY, 0);
  const CZelvarImageEntry margins = IndexEntry(1, sheet, {10, 8, 0, 0}, 8, 6, 1, 2);
  EXPECT_DOUBLE_EQ(margins.positionX, 0);
  EXPECT_DOUBLE_EQ(margins.positionY, 0);
  EXPECT_DOUBLE_EQ(margins.sizeX, 125);
}

TEST(SpriteSheet, IndexLinesAreKeyAndFourFixedPointValues) {
  EXPECT_EQ(FormatIndexLine({-5, 600.0 / 7, 48, 1000.0 / 3, 0}),
            "-5 85.7143 48.0000 333.3333 0.0000\n");
  EXPECT_EQ(FormatIndexLine({2147483647, 0.00005, 100, 12.34565, 1e6}),
            "2147483647 0.0001 100.0000 12.3456 1000000.0000\n");
  const std::vector<CZelvarImageEntry> read = ParseIndex("1 2 3 4 5\n-7 0.5 1e2 +3 4.25\n9 1 2");
  ASSERT_EQ(read.size(), 2u);  // the third record is incomplete
  EXPECT_EQ(read[1].key, -7);
  EXPECT_DOUBLE_EQ(read[1].positionY, 100);
  EXPECT_DOUBLE_EQ(read[1].sizeY, 4.25);
  EXPECT_TRUE(ParseIndex("1 2 x 4 5 6 7 8 9 10").empty());
}

TEST(SpriteSheet, QualitySearchKeepsTheFirstSizeThatFits) {
  std::vector<int> tried;
  auto encoder = [&](int quality, std::string& out) {
    tried.push_back(quality);
    out.assign(static_cast<std::size_t>(100 + quality * 10), 'j');
    return true;
  };
  std::string out;
  // 85 -> 950 bytes, 80 -> 900, 75 -> 850, 70 -> 800.
  EXPECT_EQ(SearchJpegQuality(encoder, 850, out), 75);
  EXPECT_EQ(tried, (std::vector<int>{85, 80, 75}));
  EXPECT_EQ(out.size(), 850u);

  tried.clear();
  EXPECT_EQ(SearchJpegQuality(encoder, 50, out), 0);  // never fits: ends at 0
  EXPECT_EQ(tried.size(), 18u);
  EXPECT_EQ(tried.back(), 0);
  EXPECT_EQ(out.size(), 100u);

  EXPECT_EQ(SearchJpegQuality([](int, std::string&) { return false; }, 10, out), -1);
}

}  // namespace
}  // namespace zelvarpack::image
