#include "image/sprite_sheet.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <numeric>

namespace zelvarpack::image {

namespace {

std::uint32_t BigEndian32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
         static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}

struct FreeRect {
  std::int64_t x, y, width, height;
};

}  // namespace

std::uint8_t PngDepth(const std::uint8_t* bytes, std::size_t count) {
  static constexpr std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (count < 16 || std::memcmp(bytes, kSignature, 8) != 0) return 32;
  const std::uint64_t firstEnd = std::uint64_t{BigEndian32(bytes + 8)} + 20;
  if (firstEnd > count || count <= 24) return 32;
  std::uint8_t depth = bytes[24];
  // The walk: 4-byte length, 4-byte type, data, 4-byte check.
  for (std::uint64_t at = firstEnd; at + 8 <= count;) {
    const auto length = static_cast<std::int32_t>(BigEndian32(bytes + at));
    if (length < 0) break;
    const std::uint8_t* type = bytes + at + 4;
    if (std::memcmp(type, "IEND", 4) == 0) break;
    if (std::memcmp(type, "bKGD", 4) == 0 && length != 0) {
      depth = 32;
      break;
    }
    at += 12 + static_cast<std::uint64_t>(length);
  }
  return depth;
}

SheetSize PackCells(std::vector<Cell>& cells, std::int64_t maxHeight) {
  SheetSize sheet;
  if (cells.empty()) return sheet;
  std::vector<std::size_t> order(cells.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    if (cells[a].paddedWidth != cells[b].paddedWidth) {
      return cells[a].paddedWidth > cells[b].paddedWidth;
    }
    return cells[a].paddedHeight > cells[b].paddedHeight;
  });
  const std::int64_t width = cells[order[0]].paddedWidth;
  sheet.width = width;
  std::vector<bool> placed(cells.size(), false);
  std::vector<FreeRect> free;
  std::size_t firstUnplaced = 0;
  while (true) {
    while (firstUnplaced < order.size() && placed[order[firstUnplaced]]) ++firstUnplaced;
    if (firstUnplaced == order.size()) break;
    Cell& shelf = cells[order[firstUnplaced]];
    placed[order[firstUnplaced]] = true;
    shelf.x = 0;
    shelf.y = static_cast<std::int32_t>(sheet.height);
    sheet.height += shelf.paddedHeight;
    if (sheet.height > maxHeight) return sheet;
    free.assign(1, {shelf.paddedWidth, shelf.y, width - shelf.paddedWidth, shelf.paddedHeight});
    for (std::size_t i = firstUnplaced + 1; i < order.size(); ++i) {
      if (placed[order[i]]) continue;
      Cell& cell = cells[order[i]];
      const auto fits = std::find_if(free.begin(), free.end(), [&](const FreeRect& r) {
        return r.width >= cell.paddedWidth && r.height >= cell.paddedHeight;
      });
      if (fits == free.end()) continue;  // waits for a later shelf
      const FreeRect used = *fits;
      free.erase(fits);
      cell.x = static_cast<std::int32_t>(used.x);
      cell.y = static_cast<std::int32_t>(used.y);
      placed[order[i]] = true;
      free.push_back({used.x + cell.paddedWidth, used.y, width - used.x - cell.paddedWidth,
                      cell.paddedHeight});
      free.push_back(
          {used.x, used.y + cell.paddedHeight, width - used.x, used.height - cell.paddedHeight});
    }
  }
  return sheet;
}

CZelvarImageEntry IndexEntry(std::int32_t key, SheetSize sheet, const Cell& cell,
                             std::int32_t width, std::int32_t height, std::int32_t marginLeft,
                             std::int32_t marginTop) {
  auto position = [](std::int32_t at, double divisor) {
    // A cell at the sheet's edge is shown with position 0; 100 / divisor
    // would shift the sheet by a pixel and show a strip of its neighbour.
    if (divisor == 0 || at == 0) return 0.0;
    return 100.0 * at / divisor;
  };
  const auto w = static_cast<double>(sheet.width);
  const auto h = static_cast<double>(sheet.height);
  return {key, position(cell.x, w - width + marginLeft), position(cell.y, h - height + marginTop),
          w / width * 100, h / height * 100};
}

std::string FormatIndexLine(const CZelvarImageEntry& entry) {
  char line[5 * 32];
  char* at = line;
  char* const end = line + sizeof line;
  at = std::to_chars(at, end, entry.key).ptr;
  for (const double value : {entry.positionX, entry.positionY, entry.sizeX, entry.sizeY}) {
    *at++ = ' ';
    const std::to_chars_result written =
        std::to_chars(at, end - 1, value, std::chars_format::fixed, 4);
    if (written.ec != std::errc()) return {};  // not reached: values stay below 10^8
    at = written.ptr;
  }
  *at++ = '\n';
  return std::string(line, at);
}

std::vector<CZelvarImageEntry> ParseIndex(std::string_view text) {
  std::vector<CZelvarImageEntry> entries;
  std::size_t at = 0;
  auto nextToken = [&]() -> std::string_view {
    while (at < text.size() && (text[at] == ' ' || (text[at] >= '\t' && text[at] <= '\r'))) ++at;
    const std::size_t start = at;
    while (at < text.size() && !(text[at] == ' ' || (text[at] >= '\t' && text[at] <= '\r'))) ++at;
    return text.substr(start, at - start);
  };
  auto whole = [](std::string_view token, auto& value) {
    const char* first = token.data();
    if (!token.empty() && token[0] == '+') ++first;  // stream extraction takes a plus sign
    const auto [end, ec] = std::from_chars(first, token.data() + token.size(), value);
    return !token.empty() && ec == std::errc() && end == token.data() + token.size();
  };
  while (true) {
    CZelvarImageEntry entry{};
    if (!whole(nextToken(), entry.key) || !whole(nextToken(), entry.positionX) ||
        !whole(nextToken(), entry.positionY) || !whole(nextToken(), entry.sizeX) ||
        !whole(nextToken(), entry.sizeY)) {
      return entries;
    }
    entries.push_back(entry);
  }
}

int SearchJpegQuality(const std::function<bool(int quality, std::string& out)>& encode,
                      std::size_t limit, std::string& out) {
  for (int quality = 85;; quality -= 5) {
    if (!encode(quality, out)) return -1;
    if (out.size() <= limit || quality == 0) return quality;
  }
}

}  // namespace zelvarpack::image
