// The look-ahead's guess at the composite search, and what it hands on.
// The store's own tests (file_store_test.cc) compare the committed rows
// with and without it on real databases.
#include "store/look_ahead.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "store/chunk_fingerprint.h"
#include "store/stored_form.h"

namespace {

using zelvarpack::store::BackgroundCompressor;
using zelvarpack::store::BucketOf;
using zelvarpack::store::Bytes;
using zelvarpack::store::ChunkFingerprint;
using zelvarpack::store::GzipPrefix;
using zelvarpack::store::kChunkBytes;
using zelvarpack::store::LookAhead;
using zelvarpack::store::StoredForm;

const unsigned char* Data(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

Bytes BytesOf(const std::string& s) { return Bytes(s.begin(), s.end()); }

// A composite's bytes as written, with the stream kept over them.
LookAhead::Written WrittenOf(const std::string& text) {
  auto plain = std::make_shared<const Bytes>(BytesOf(text));
  StoredForm form;
  EXPECT_TRUE(form.Make(*plain, nullptr, true));
  return {plain, std::shared_ptr<const GzipPrefix>(form.TakePrefix())};
}

// Guesses for `next` after a file that left `states` (written as
// `written`) committed; the work done ahead, its results drained.
struct Guessed {
  std::unique_ptr<LookAhead::Ahead> ahead;
  std::map<std::int32_t, BackgroundCompressor::Result> results;
};
Guessed Guess(LookAhead& lookAhead, const std::string& next,
              const std::map<std::int32_t, LookAhead::State>& states = {},
              std::unordered_map<std::int32_t, LookAhead::Written> written = {}) {
  lookAhead.Prepare(states, written, nullptr, Data(next), next.size());
  lookAhead.Settle(true);
  Guessed guessed;
  guessed.ahead = lookAhead.Take(Data(next), next.size());
  if (guessed.ahead != nullptr) guessed.results = guessed.ahead->compressor->Drain();
  return guessed;
}

// Checks the result under `key` is the stored form of `expected`.
void ExpectComputed(const Guessed& guessed, std::int32_t key, const std::string& expected) {
  SCOPED_TRACE(key);
  ASSERT_EQ(guessed.ahead->predicted.count(key), 1u);
  EXPECT_EQ(*guessed.ahead->predicted.at(key), BytesOf(expected));
  const auto result = guessed.results.find(key);
  ASSERT_NE(result, guessed.results.end());
  ASSERT_TRUE(result->second.ok);
  const Bytes plain = BytesOf(expected);  // an uncompressed form points into it
  StoredForm whole;
  ASSERT_TRUE(whole.Make(plain));
  EXPECT_EQ(
      Bytes(result->second.form.bytes(), result->second.form.bytes() + result->second.form.count()),
      Bytes(whole.bytes(), whole.bytes() + whole.count()));
}

const std::string kZ(kChunkBytes, 'z');
const double kZPrint = ChunkFingerprint(Data(kZ), kZ.size());

std::string Times(const std::string& s, int n) {
  std::string out;
  for (int i = 0; i < n; ++i) out += s;
  return out;
}

TEST(LookAhead, FillsNewCompositesTwentyFiveChunksAtATime) {
  LookAhead lookAhead;
  const std::string next = Times(kZ, 30) + "tail";  // 31 chunks, the last short
  const Guessed guessed = Guess(lookAhead, next);
  ASSERT_NE(guessed.ahead, nullptr);
  EXPECT_EQ(guessed.ahead->fingerprints.size(), 31u);
  // The short chunk's fingerprint differs: it opens a third composite.
  EXPECT_EQ(guessed.ahead->predicted.size(), 3u);
  ExpectComputed(guessed, 24, Times(kZ, 25));
  ExpectComputed(guessed, 29, Times(kZ, 5));
  ExpectComputed(guessed, 30, "tail");
}

TEST(LookAhead, AppendsToTheNearestKnownCompositeAndTakesItsStream) {
  // Two composites in the chunk's bucket at the same distance: the lower
  // id wins, as in the database's search; its kept stream is taken over.
  const double d = std::ldexp(1.0, -20);  // f + d and f - d exact: a true tie
  ASSERT_EQ(BucketOf(kZPrint - d), BucketOf(kZPrint));
  ASSERT_EQ(BucketOf(kZPrint + d), BucketOf(kZPrint));
  LookAhead lookAhead;
  const std::string a = Times(std::string(kChunkBytes, 'a'), 3);
  const std::string b = Times(std::string(kChunkBytes, 'b'), 3);
  std::unordered_map<std::int32_t, LookAhead::Written> written = {{9, WrittenOf(b)},
                                                                  {5, WrittenOf(a)}};
  const std::map<std::int32_t, LookAhead::State> states = {
      {9, {3, kZPrint - d, 3 * (kZPrint - d)}}, {5, {3, kZPrint + d, 3 * (kZPrint + d)}}};
  const std::string next = Times(kZ, 2);
  lookAhead.Prepare(states, written, nullptr, Data(next), next.size());
  EXPECT_EQ(written.at(5).prefix, nullptr);  // taken
  EXPECT_NE(written.at(9).prefix, nullptr);  // untouched
  lookAhead.Settle(true);
  Guessed guessed;
  guessed.ahead = lookAhead.Take(Data(next), next.size());
  ASSERT_NE(guessed.ahead, nullptr);
  guessed.results = guessed.ahead->compressor->Drain();
  EXPECT_EQ(guessed.ahead->predicted.size(), 1u);
  ExpectComputed(guessed, 1, a + next);
  // What committed is known for the next guesses.
  ASSERT_NE(lookAhead.Find(5), nullptr);
  EXPECT_EQ(lookAhead.Find(5)->chunks, 3);
}

TEST(LookAhead, GivesNothingForAnotherFileChangedBytesOrAFailedFile) {
  LookAhead lookAhead;
  std::string next = Times(kZ, 2);
  std::unordered_map<std::int32_t, LookAhead::Written> none;
  lookAhead.Prepare({}, none, nullptr, Data(next), next.size());
  lookAhead.Settle(true);
  const std::string other = next;
  EXPECT_EQ(lookAhead.Take(Data(other), other.size()), nullptr);  // elsewhere
  EXPECT_EQ(lookAhead.Take(Data(next), next.size()), nullptr);    // already given up

  lookAhead.Prepare({}, none, nullptr, Data(next), next.size());
  lookAhead.Settle(true);
  next[5] = 'y';  // same place, same length, other bytes
  EXPECT_EQ(lookAhead.Take(Data(next), next.size()), nullptr);

  lookAhead.Prepare({{4, {1, kZPrint, kZPrint}}}, none, nullptr, Data(next), next.size());
  lookAhead.Settle(false);
  EXPECT_EQ(lookAhead.Take(Data(next), next.size()), nullptr);
  EXPECT_EQ(lookAhead.Find(4), nullptr);  // a rolled-back file's states are not known
}

TEST(LookAhead, ForgetsFullCompositesAndCountsWhatWasUsed) {
  LookAhead lookAhead;
  std::unordered_map<std::int32_t, LookAhead::Written> none;
  lookAhead.Prepare({{1, {25, kZPrint, 25 * kZPrint}}, {2, {24, kZPrint, 24 * kZPrint}}}, none,
                    nullptr, nullptr, 0);
  lookAhead.Settle(true);
  EXPECT_EQ(lookAhead.Find(1), nullptr);  // full: never searched again
  ASSERT_NE(lookAhead.Find(2), nullptr);
  EXPECT_EQ(lookAhead.known(), 1u);
  lookAhead.Count(true);
  lookAhead.Count(false);
  lookAhead.Count(true);
  EXPECT_EQ(lookAhead.used(), 2u);
  EXPECT_EQ(lookAhead.missed(), 1u);
}

}  // namespace
