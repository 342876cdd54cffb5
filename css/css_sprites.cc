#include "css/css_sprites.h"

#include <charconv>
#include <string_view>
#include <vector>

#include "image/image_header.h"
#include "zelvarpack/zelvar_image_server.h"

namespace zelvarpack::css {

namespace {

bool IsZeroOrEmpty(CZelvarBuffer* value) {
  const unsigned char* p = value->GetValue();
  for (std::int32_t i = 0; i < value->GetValueLength(); ++i) {
    if (p[i] >= '1' && p[i] <= '9') return false;
  }
  return true;
}

std::string Text(CZelvarBuffer* value) {
  return {reinterpret_cast<const char*>(value->GetValue()),
          static_cast<std::size_t>(value->GetValueLength())};
}

// "%.15g%%", whatever the process locale.
std::string Percent(double value) {
  char text[64];
  const auto written =
      std::to_chars(text, text + sizeof text - 1, value, std::chars_format::general, 15);
  if (written.ec != std::errc()) return "0%";
  *written.ptr = '%';
  return std::string(text, written.ptr + 1);
}

}  // namespace

bool CanSprite(CStyleFinder& finder) {
  if (!(finder.hasBackground || finder.hasBackgroundImage) || !finder.noRepeat || finder.repeats ||
      finder.positionOffOrigin || finder.hasBackgroundSize || finder.isPercentage ||
      finder.sizeNotInPixels) {
    return false;
  }
  CZelvarBuffer* width = finder.Value(CStyleFinder::kWidth);
  CZelvarBuffer* height = finder.Value(CStyleFinder::kHeight);
  if (IsZeroOrEmpty(width) || IsZeroOrEmpty(height)) return false;
  // Whole pixels only: the sheet's cells are.
  for (CZelvarBuffer* size : {width, height}) {
    for (std::int32_t i = 0; i < size->GetValueLength(); ++i) {
      const unsigned char c = size->GetValue()[i];
      if (c < '0' || c > '9') return false;
    }
  }
  for (auto slot : {CStyleFinder::kPaddingBottom, CStyleFinder::kPaddingLeft,
                    CStyleFinder::kPaddingRight, CStyleFinder::kPaddingTop}) {
    if (!IsZeroOrEmpty(finder.Value(slot))) return false;
  }
  return true;
}

void PlaceInSprites(CssServerState& state, const std::string& cacheDirectory) {
  struct Placed {
    CssOutputEntry* entry;
    std::int32_t handle;
  };
  std::vector<Placed> placed;
  std::string cache = cacheDirectory;
  CZelvarImageServer images(cache.data());
  for (const auto& shared : state.entries) {
    CssOutputEntry& entry = *shared;
    if (entry.kind != CssOutputEntry::kUrl || !entry.done.load() || !entry.spriteable ||
        !entry.downloaded || entry.downloaded->GetValueLength() == 0) {
      continue;
    }
    CStyleFinder finder;
    std::string declarations = entry.declarations;
    finder.Find(reinterpret_cast<unsigned char*>(declarations.data()),
                static_cast<std::int32_t>(declarations.size()));
    if (!CanSprite(finder)) continue;
    const std::string width = Text(finder.Value(CStyleFinder::kWidth));
    const std::string height = Text(finder.Value(CStyleFinder::kHeight));
    // A background is drawn at the picture's own size, while a sprite cell
    // is scaled to the rule's box: only a picture exactly the box's size
    // looks the same. A transparent PNG bound for an opaque (JPEG) sheet
    // would turn white.
    const std::string_view bytes(reinterpret_cast<const char*>(entry.downloaded->GetValue()),
                                 static_cast<std::size_t>(entry.downloaded->GetValueLength()));
    int naturalWidth = 0, naturalHeight = 0;
    if (!zelvarpack::image::ReadImageSize(bytes, naturalWidth, naturalHeight) ||
        std::to_string(naturalWidth) != width || std::to_string(naturalHeight) != height ||
        zelvarpack::image::PngWouldLoseTransparency(bytes)) {
      continue;
    }
    const std::int32_t handle =
        images.AddImage(entry.downloaded->GetValue(), entry.downloaded->GetValueLength(),
                        width.c_str(), height.c_str(), "", "", "", "");
    placed.push_back({&entry, handle});
  }
  if (placed.empty()) return;
  std::vector<std::int32_t> kinds;
  for (const Placed& p : placed) kinds.push_back(images.RouteImage(p.handle));
  std::string ids[4];
  for (int kind = 0; kind < 4; ++kind) {
    ids[kind] = images.BuildSheet(static_cast<CZelvarImageServer::SheetKind>(kind));
  }
  const std::string prefix = state.hasServerUrl ? state.serverUrl + "/IS.zp?" : "./IS.zp?";
  for (std::size_t i = 0; i < placed.size(); ++i) {
    CZelvarImageEntry geometry{};
    if (kinds[i] < 0 || kinds[i] > 3 || ids[kinds[i]].empty() ||
        !images.GetImageEntry(placed[i].handle, geometry)) {
      continue;
    }
    placed[i].entry->spriteAddress = prefix + ids[kinds[i]];
    placed[i].entry->spriteGeometry = "background-position:" + Percent(geometry.positionX) + " " +
                                      Percent(geometry.positionY) +
                                      ";background-size:" + Percent(geometry.sizeX) + " " +
                                      Percent(geometry.sizeY) + ";background-repeat:no-repeat";
  }
}

}  // namespace zelvarpack::css
