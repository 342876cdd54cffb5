// The arithmetic of sprite sheets, apart from pixels and files: the PNG
// depth rule that routes PNG sources, the packing of cells into a sheet, the
// percentages of the index, the index file format, and the JPEG quality
// search. Pure functions; safe from any thread.
#ifndef ZELVARPACK_IMAGE_SPRITE_SHEET_H_
#define ZELVARPACK_IMAGE_SPRITE_SHEET_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "zelvarpack/zelvar_image_server.h"

namespace zelvarpack::image {

// 32 when the bytes lack the PNG signature or are too short for the first
// chunk, or when a bKGD chunk of non-zero length comes before IEND; else the
// bit-depth byte of the header chunk (file offset 24). PNGs of 32 go to the
// sheet that keeps alpha; all others become JPEG sheets.
std::uint8_t PngDepth(const std::uint8_t* bytes, std::size_t count);

// One image's cell: the image and its margins. Packing sets x and y.
struct Cell {
  std::int32_t paddedWidth = 0;
  std::int32_t paddedHeight = 0;
  std::int32_t x = 0;
  std::int32_t y = 0;
};

struct SheetSize {
  std::int64_t width = 0;
  std::int64_t height = 0;
};

// Places every cell and returns the sheet's size. Cells are taken widest
// first, equal widths tallest first, otherwise in their given order. The
// widest cell fixes the sheet width W. Shelf by shelf: the first unplaced
// cell goes to the left edge at the current height, which grows by its
// height; the space to its right starts a free list; every later unplaced
// cell takes the first free rectangle it fits, and that rectangle is cut
// into the part to the right of the cell (as tall as the cell) and the part
// below it (both reaching to W). Stops early, returning a height above
// `maxHeight`, once the sheet would be taller than that.
SheetSize PackCells(std::vector<Cell>& cells, std::int64_t maxHeight);

// The index entry of an image of `width` x `height` pixels placed with its
// cell at (x, y) in a sheet of size `sheet`. positionX = 100 x / (W - width +
// marginLeft), and 0 when x is 0 or the divisor is 0; likewise positionY
// with y, H and marginTop. sizeX = 100 W / width, sizeY =
// 100 H / height. REQUIRES: width, height > 0.
CZelvarImageEntry IndexEntry(std::int32_t key, SheetSize sheet, const Cell& cell,
                             std::int32_t width, std::int32_t height, std::int32_t marginLeft,
                             std::int32_t marginTop);

// Index file ("<sheet>.c"): one line per image, in routing order:
//   line  = key SP positionX SP positionY SP sizeX SP sizeY LF
//   key   = signed 32-bit decimal
//   other = decimal with exactly four digits after the point ("%.04f")
// Written without regard to the process locale.
std::string FormatIndexLine(const CZelvarImageEntry& entry);

// Reads whitespace-separated values five at a time until one fails to
// parse or the text ends; an incomplete last record is dropped.
std::vector<CZelvarImageEntry> ParseIndex(std::string_view text);

// Encodes at quality 85, then 80, 75, ... 0 until the result is at most
// `limit` bytes, and keeps that result (at quality 0 whatever its size).
// Returns the quality kept, or -1 when `encode` fails.
int SearchJpegQuality(const std::function<bool(int quality, std::string& out)>& encode,
                      std::size_t limit, std::string& out);

}  // namespace zelvarpack::image

#endif  // ZELVARPACK_IMAGE_SPRITE_SHEET_H_
