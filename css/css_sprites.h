// The sprite pass of the CSS server's filter mode: which background images
// may be placed in a sprite sheet, and the references and geometry written
// for those that were.
#ifndef ZELVARPACK_CSS_CSS_SPRITES_H_
#define ZELVARPACK_CSS_CSS_SPRITES_H_

#include <string>

#include "css/css_server_state.h"
#include "css/style_finder.h"

namespace zelvarpack::css {

// Whether a rule whose declarations the finder has read shows its one
// background image so that a sheet of images can stand in for it: a
// background is declared; it does not repeat ("no-repeat" given, no other
// repeat); it sits at the origin (no position other than 0 / left / top);
// no background-size; width and height given in pixels (not percentages,
// not other units); no padding other than 0, so the image fills the
// padding box exactly.
bool CanSprite(CStyleFinder& finder);

// For every downloaded url entry whose rule allows it, places the image in
// one of the four sprite sheets (stored under `cacheDirectory` by the image
// server) and sets the entry's spriteAddress ("<server>/IS.zp?<id>", or
// "./IS.zp?<id>" when `serverUrl` is empty) and spriteGeometry (the
// declarations that show the image out of the sheet).
void PlaceInSprites(CssServerState& state, const std::string& cacheDirectory);

}  // namespace zelvarpack::css

#endif  // ZELVARPACK_CSS_CSS_SPRITES_H_
