#include "store/look_ahead.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <system_error>

#include "store/chunk_fingerprint.h"

namespace zelvarpack::store {

namespace {

// Past this many known composites the knowledge is dropped and gathered
// again: guesses only get worse, never wrong.
constexpr std::size_t kMaxKnown = std::size_t{1} << 20;

// The composite's state after one more chunk of fingerprint `fingerprint`,
// with the search's arithmetic.
void Append(LookAhead::State& state, double fingerprint) {
  if (state.chunks == 0) {
    state.fftRms = fingerprint;
    state.sum = fingerprint;
  } else {
    state.fftRms = (state.sum + fingerprint) / (state.chunks + 1);
    state.sum = state.sum + fingerprint;
  }
  ++state.chunks;
}

}  // namespace

std::uint64_t LookAhead::HashOf(const unsigned char* bytes, std::size_t count) {
  return std::hash<std::string_view>{}(
      std::string_view(reinterpret_cast<const char*>(bytes), count));
}

std::unique_ptr<LookAhead::Ahead> LookAhead::Take(const unsigned char* bytes, std::size_t count) {
  std::unique_ptr<Ahead> ahead = std::move(ready_);
  if (ahead == nullptr || ahead->bytes != bytes || ahead->count != count ||
      ahead->hash != HashOf(bytes, count)) {
    return nullptr;
  }
  return ahead;
}

void LookAhead::Expect(const unsigned char* next, std::size_t nextCount) {
  if (fingerprinter_.joinable()) fingerprinter_.join();
  expected_ = next;
  expectedCount_ = next != nullptr ? nextCount : 0;
  expectedFingerprints_.clear();
  const auto work = [this] {
    for (std::size_t offset = 0; offset < expectedCount_; offset += kChunkBytes) {
      expectedFingerprints_.push_back(
          ChunkFingerprint(expected_ + offset, std::min(kChunkBytes, expectedCount_ - offset)));
    }
    expectedHash_ = HashOf(expected_, expectedCount_);
  };
  if (expectedCount_ == 0) return;
  try {
    fingerprinter_ = std::thread(work);
  } catch (const std::system_error&) {
    work();  // no thread to be had: now, then
  }
}

void LookAhead::Prepare(const std::map<std::int32_t, State>& states,
                        std::unordered_map<std::int32_t, Written>& written, CompositeCache* cache,
                        const unsigned char* next, std::size_t nextCount) {
  settling_ = states;
  preparing_.reset();
  ready_.reset();
  // Results nobody took (a failed file's) go.
  compressor_.Drain();
  if (next == nullptr || nextCount == 0) return;
  auto ahead = std::make_unique<Ahead>();
  ahead->compressor = &compressor_;
  ahead->bytes = next;
  ahead->count = nextCount;
  if (next != expected_ || nextCount != expectedCount_) Expect(next, nextCount);
  if (fingerprinter_.joinable()) fingerprinter_.join();
  ahead->fingerprints = std::move(expectedFingerprints_);
  ahead->hash = expectedHash_;
  expected_ = nullptr;
  expectedCount_ = 0;

  // The search for each chunk in order: the nearest open composite in the
  // chunk's bucket, the lower id on a tie, else a new one (ids from the
  // sequence, in order). Three layers of state: what committed files left,
  // what the current file leaves, what the guess so far has appended.
  struct Guess {
    State state;
    State before;
    bool fresh = false;
    std::vector<std::size_t> chunks;
  };
  std::map<std::int32_t, Guess> guesses;
  std::int32_t nextId = highestId_;
  for (const auto& [id, state] : settling_) nextId = std::max(nextId, id);
  ++nextId;
  for (std::size_t i = 0; i < ahead->fingerprints.size(); ++i) {
    const double fingerprint = ahead->fingerprints[i];
    const int bucket = BucketOf(fingerprint);
    std::int32_t best = 0;
    double bestDistance = 0;
    const auto consider = [&](std::int32_t id, const State& state) {
      if (state.chunks >= kMaxChunksPerComposite || BucketOf(state.fftRms) != bucket) return;
      const double distance = std::abs(state.fftRms - fingerprint);
      if (best == 0 || distance < bestDistance || (distance == bestDistance && id < best)) {
        best = id;
        bestDistance = distance;
      }
    };
    if (auto found = byBucket_.find(bucket); found != byBucket_.end()) {
      for (const std::int32_t id : found->second) {
        if (guesses.count(id) == 0 && settling_.count(id) == 0) consider(id, known_.at(id));
      }
    }
    for (const auto& [id, state] : settling_) {
      if (guesses.count(id) == 0) consider(id, state);
    }
    for (const auto& [id, guess] : guesses) consider(id, guess.state);
    auto guess = guesses.end();
    if (best != 0) {
      guess = guesses.find(best);
      if (guess == guesses.end()) {
        auto settled = settling_.find(best);
        const State& state = settled != settling_.end() ? settled->second : known_.at(best);
        guess = guesses.emplace(best, Guess{state, state, false, {}}).first;
      }
    } else {
      guess = guesses.emplace(nextId++, Guess{{}, {}, true, {}}).first;
    }
    Append(guess->second.state, fingerprint);
    guess->second.chunks.push_back(i);
  }

  // Each composite's bytes with the guessed chunks appended, continuing the
  // stream kept over its bytes as last written. The stream is taken over,
  // from `written` or from the cache's entry, so that the job continues it
  // in place instead of copying it; a wrong guess leaves that composite
  // without a stream (compressed from the start if touched).
  struct Job {
    std::int32_t key;
    std::shared_ptr<const Bytes> plain;
    std::shared_ptr<const GzipPrefix> prefix;
    bool keepPrefix;
    std::size_t work;  // bytes to deflate
  };
  std::vector<Job> jobs;
  for (const auto& [id, guess] : guesses) {
    std::shared_ptr<const Bytes> base;
    std::shared_ptr<const GzipPrefix> prefix;
    if (!guess.fresh) {
      if (auto found = written.find(id); found != written.end()) {
        if (found->second.plain == nullptr || found->second.prefix == nullptr) continue;
        base = found->second.plain;
        prefix = std::move(found->second.prefix);
      } else if (cache != nullptr) {
        std::shared_ptr<const CompositeCache::Entry> entry = cache->Find(id);
        if (entry == nullptr || entry->chunks != guess.before.chunks || entry->plain == nullptr ||
            entry->prefix == nullptr) {
          continue;
        }
        base = entry->plain;
        prefix = entry->prefix;
        auto stripped = std::make_shared<CompositeCache::Entry>(*entry);
        stripped->prefix = nullptr;
        cache->Put(id, std::move(stripped));
      } else {
        continue;  // its bytes are not here
      }
    }
    auto plain = std::make_shared<Bytes>();
    std::size_t size = base != nullptr ? base->size() : 0;
    for (const std::size_t i : guess.chunks) {
      size += std::min(kChunkBytes, nextCount - i * kChunkBytes);
    }
    if (size > kMaxCompositeBytes) continue;
    plain->reserve(size);
    if (base != nullptr) plain->assign(base->begin(), base->end());
    for (const std::size_t i : guess.chunks) {
      const std::size_t offset = i * kChunkBytes;
      plain->insert(plain->end(), next + offset, next + std::min(nextCount, offset + kChunkBytes));
    }
    const std::size_t work = plain->size() - (prefix != nullptr ? prefix->consumed() : 0);
    jobs.push_back({static_cast<std::int32_t>(guess.chunks.back()), std::move(plain),
                    std::move(prefix),
                    cache != nullptr && guess.state.chunks < kMaxChunksPerComposite, work});
  }
  // The longest first, so that the storing thread, which takes part in the
  // jobs left when the next file needs them, does not wait for a long one
  // started last.
  std::stable_sort(jobs.begin(), jobs.end(),
                   [](const Job& a, const Job& b) { return a.work > b.work; });
  for (Job& job : jobs) {
    if (!compressor_.Submit(job.key, 1, job.plain, job.prefix, job.keepPrefix, false)) {
      break;  // no helper thread here: nothing is gained
    }
    ahead->predicted.emplace(job.key, std::move(job.plain));
  }
  preparing_ = std::move(ahead);
}

void LookAhead::Settle(bool committed) {
  Expect(nullptr, 0);
  if (committed) {
    if (known_.size() + settling_.size() > kMaxKnown) {
      known_.clear();
      byBucket_.clear();
    }
    for (const auto& [id, state] : settling_) Remember(id, state);
    ready_ = std::move(preparing_);
  }
  preparing_.reset();
  settling_.clear();
}

void LookAhead::Remember(std::int32_t id, const State& state) {
  highestId_ = std::max(highestId_, id);
  if (auto old = known_.find(id); old != known_.end()) {
    std::vector<std::int32_t>& ids = byBucket_[BucketOf(old->second.fftRms)];
    ids.erase(std::remove(ids.begin(), ids.end(), id), ids.end());
    if (ids.empty()) byBucket_.erase(BucketOf(old->second.fftRms));
    known_.erase(old);
  }
  if (state.chunks < kMaxChunksPerComposite) {
    known_.emplace(id, state);
    byBucket_[BucketOf(state.fftRms)].push_back(id);
  }
}

}  // namespace zelvarpack::store
