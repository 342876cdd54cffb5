#include "core/identifiers.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

// Expected values were computed with an independent script from the hash's
// definition, not with this code.
TEST(Identifiers, IdFromNumberMatchesIndependentValues) {
  EXPECT_EQ(IdFromNumber(0), "{00000000-0030-3438-69A2-A5A7A6A39DA2}");
  EXPECT_EQ(IdFromNumber(1), "{00000001-0031-3439-6AA3-A6A89DA0A0A2}");
  EXPECT_EQ(IdFromNumber(-1), "{FFFFFFFF-2D31-366A-A19D-A29DA39EA29C}");
  EXPECT_EQ(IdFromNumber(123456789), "{075BCD15-6C9F-A19E-A1A3-9EA19C9A9FA1}");
  EXPECT_EQ(IdFromNumber(INT32_MIN), "{80000000-9AA1-99A6-9F9B-A19A9EA2A3A3}");
  EXPECT_EQ(IdFromNumber(INT32_MAX), "{7FFFFFFF-9AA0-98A0-A0A0-A5A39EA69C9E}");
}

TEST(Identifiers, CollateHashTakesBytesAsSigned) {
  auto hash = [](const std::string& s) {
    return CollateHash(reinterpret_cast<const unsigned char*>(s.data()), s.size());
  };
  EXPECT_EQ(hash(""), 0);
  EXPECT_EQ(hash("a"), 97);
  EXPECT_EQ(hash("hello"), 1701604567);
  EXPECT_EQ(hash("\xff\x80"
                 "abc"),
            -2141101470);
  EXPECT_EQ(hash("<html></html>"), 454953295);
}

TEST(Identifiers, ContentIdIsIdOfTheHash) {
  const std::string page = "<html></html>";
  EXPECT_EQ(ContentId(reinterpret_cast<const unsigned char*>(page.data()), page.size()),
            "{1B1E094F-729E-9DA3-9EA1-9AA49DA9A3A9}");
}

TEST(Identifiers, NewGuidIsRandomVersionFour) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const std::string guid = NewGuidString();
    ASSERT_EQ(guid.size(), 38u);
    EXPECT_TRUE(IsGuidShaped(guid)) << guid;
    EXPECT_EQ(guid[15], '4') << guid;
    EXPECT_NE(std::string("89AB").find(guid[20]), std::string::npos) << guid;
    seen.insert(guid);
  }
  EXPECT_EQ(seen.size(), 100u);
}

TEST(Identifiers, GuidShapeRejectsAnythingElse) {
  EXPECT_TRUE(IsGuidShaped("{6B29FC40-CA47-1067-B31D-00DD010662DA}"));
  for (const char* bad :
       {"", "{6b29fc40-ca47-1067-b31d-00dd010662da}", "{6B29FC40-CA47-1067-B31D-00DD010662DA",
        "6B29FC40-CA47-1067-B31D-00DD010662DA", "{6B29FC40-CA47-1067-B31D-00DD010662D/}",
        "{../../../../etc/passwd/xxxxxxxxxxxx}", "{6B29FC40-CA47-1067-B31D-00DD010662DA}x",
        "{6B29FC40+CA47-1067-B31D-00DD010662DA}"}) {
    EXPECT_FALSE(IsGuidShaped(bad)) << bad;
  }
}

}  // namespace
