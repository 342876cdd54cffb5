#include "css/style_finder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "css/css_sprites.h"

namespace {

// The finder's fields in one line: flags b (background), i (background-image),
// % (percentage), u (url), then the slots that hold a value.
std::string Find(std::string css) {
  CStyleFinder finder;
  finder.Find(reinterpret_cast<unsigned char*>(css.data()), static_cast<std::int32_t>(css.size()));
  std::string out;
  if (finder.hasBackground) out += "b";
  if (finder.hasBackgroundImage) out += "i";
  if (finder.isPercentage) out += "%";
  if (finder.hasUrl) out += "u";
  static const char* const kNames[] = {"height",        "padding-bottom", "padding-left",
                                       "padding-right", "padding-top",    "width"};
  for (int slot = 0; slot < CStyleFinder::kSlotCount; ++slot) {
    CZelvarBuffer* value = finder.Value(static_cast<CStyleFinder::Slot>(slot));
    if (value->GetValueLength() == 0) continue;
    out += std::string(" ") + kNames[slot] + "=" +
           std::string(reinterpret_cast<const char*>(value->GetValue()),
                       static_cast<std::size_t>(value->GetValueLength()));
  }
  return out;
}

struct Case {
  std::string css;
  std::string expected;
};

TEST(StyleFinder, RecordsBackgroundsUrlsAndLastValues) {
  const std::vector<Case> cases = {
      {"", ""},
      {"width:50%;height:20px", "% height=20 width=50"},
      {"padding:1px 2px 3px 4px", " padding-bottom=4"},  // every value lands in padding-bottom
      {"background:url(a.png) no-repeat", "bu"},
      {"background-image:url(\"a b.png\")", "iu"},
      {"background:url(a b)", "bu"},  // a bad url counts as an address
      {"WIDTH: 10px", " width=10"},
      {"Padding-Left : 3.5em ; padding-top:-2", " padding-left=3.5 padding-top=-2"},
      {"padding-right:7;padding-bottom:8", " padding-bottom=8 padding-right=7"},
      {"width: calc(10px)", ""},           // the function ends the property
      {"width: 1px 2px 3px", " width=3"},  // the last value stays
      {"height:1px;color:2px", " height=1"},
      {"height:50%", "% height=50"},
      {"padding:50%", " padding-bottom=50"},  // a padding percentage is not flagged
      {"width:/**/5px", ""},
      {"width:'x' 5px", ""},
      {"width:#fff 5px", ""},
      {"width:U+1 5px", ""},
      {"width:-5 ;{} ()[] 6", " width=6"},  // punctuation keeps it pending
      {"width:1e3px", " width=1e3"},        // the number part of the dimension
      {"x:width 4", " width=4"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.css);
    EXPECT_EQ(Find(c.css), c.expected);
  }
}

// The background's repeat, position and size, and units of the box, as the
// sprite logic reads them: R no-repeat, r another repeat, P a position off
// the origin, S a size, E a box size not in pixels; then whether CanSprite.
std::string Background(std::string css) {
  CStyleFinder finder;
  finder.Find(reinterpret_cast<unsigned char*>(css.data()), static_cast<std::int32_t>(css.size()));
  std::string out;
  if (finder.noRepeat) out += "R";
  if (finder.repeats) out += "r";
  if (finder.positionOffOrigin) out += "P";
  if (finder.hasBackgroundSize) out += "S";
  if (finder.sizeNotInPixels) out += "E";
  return out + (zelvarpack::css::CanSprite(finder) ? " sprite" : "");
}

TEST(StyleFinder, ReadsTheBackgroundsRepeatPositionAndSize) {
  const std::string box = ";width:16px;height:16px";
  const std::vector<Case> cases = {
      {"background:url(a) no-repeat" + box, "R sprite"},
      {"background:url(a)" + box, ""},
      {"background-image:url(a);background-repeat:no-repeat" + box, "R sprite"},
      {"background:url(a) no-repeat 0 0" + box, "R sprite"},
      {"background:url(a) no-repeat left top" + box, "R sprite"},
      {"background:rgba(0,0,0,.5) url(a) no-repeat 0% 0px" + box, "R sprite"},
      {"background:url(a) no-repeat 1px 0" + box, "RP"},
      {"background:url(a) no-repeat center" + box, "RP"},
      {"background:url(a) no-repeat;background-position:right" + box, "RP"},
      {"background:url(a) repeat-x" + box, "r"},
      {"background:url(a) no-repeat;background-repeat:round" + box, "Rr"},
      {"background:url(a) no-repeat 0 0/16px" + box, "RPS"},  // the size reads as a position too
      {"background:url(a) no-repeat;background-size:16px" + box, "RS"},
      {"background:url(a) no-repeat;width:1em;height:16px", "RE"},
      {"background:url(a) no-repeat;width:50%;height:16px", "R"},
      {"background:url(a) no-repeat;width:16px", "R"},
      {"background:url(a) no-repeat;padding:0" + box, "R sprite"},
      {"background:url(a) no-repeat;padding-left:2px" + box, "R"},
      {"background:url(a) no-repeat;width:15.5px;height:16px", "R"},
      {"border-image:url(a) round;margin:1px" + box, ""},  // not a background
      {"color:red" + box, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.css);
    EXPECT_EQ(Background(c.css), c.expected);
  }
}

}  // namespace
