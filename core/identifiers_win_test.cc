// New GUIDs on Windows come from COM; their text is COM's own form, which
// COM reads back to the same GUID.
#include <gtest/gtest.h>
#include <objbase.h>
#include <windows.h>

#include <set>
#include <string>

#include "core/identifiers.h"

namespace {

TEST(IdentifiersWindows, NewGuidIsComsOwnText) {
  std::set<std::string> seen;
  for (int i = 0; i < 50; ++i) {
    const std::string text = NewGuidString();
    ASSERT_TRUE(IsGuidShaped(text)) << text;
    const std::wstring wide(text.begin(), text.end());
    GUID guid{};
    ASSERT_EQ(::CLSIDFromString(wide.c_str(), &guid), S_OK) << text;
    wchar_t back[39] = {};
    ASSERT_EQ(::StringFromGUID2(guid, back, 39), 39);
    EXPECT_EQ(std::wstring(back), wide);
    EXPECT_EQ(guid.Data3 >> 12, 4) << "a random (version 4) GUID: " << text;
    seen.insert(text);
  }
  EXPECT_EQ(seen.size(), 50u);
}

}  // namespace
