#include "core/sha256.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using zelvarpack::Sha256;
using zelvarpack::Sha256Hex;

TEST(Sha256, MatchesTheStandardVectors) {
  EXPECT_EQ(Sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(Sha256Hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(Sha256Hex(std::string(1000000, 'a')),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, PiecesFedAnyWayGiveOneDigest) {
  const std::string text(1000, 'x');
  Sha256 split;
  for (std::size_t at = 0; at < text.size(); at += 37) split.Update(text.substr(at, 37));
  EXPECT_EQ(split.FinishHex(), Sha256Hex(text));
  Sha256 a, b;
  a.UpdatePiece("ab");
  a.UpdatePiece("c");
  b.UpdatePiece("a");
  b.UpdatePiece("bc");
  EXPECT_NE(a.FinishHex(), b.FinishHex());
}

}  // namespace
