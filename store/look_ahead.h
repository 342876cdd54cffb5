// Compression of the file a caller stores next, started while the current
// file's data writes and commit are still with the database.
//
// Storing a file takes turns: the database searches the composites for the
// file's chunks, then this process compresses the composites they joined,
// then the database writes them and commits. The database idles while this
// process compresses and the other way round. A LookAhead held across
// storing calls (for example by `zelvarpack store add`, which knows every
// file it will store) breaks the turns: once a file's composites are
// compressed, and before they are written, it fingerprints the next file,
// predicts the composite search for its chunks from what this process has
// seen committed (the same arithmetic and tie-break as the database's
// search), and hands each composite the prediction touches, with the next
// file's chunks appended, to a helper thread. When the next file's search
// comes back, each of its composites whose bytes are exactly the bytes a
// helper compressed takes that result; any other (a wrong guess: another
// writer, a composite this process never saw, a rolled-back file) is
// compressed then, as without a LookAhead. The committed rows and bytes
// are the same either way: a stored form is a function of the composite's
// bytes alone, and the bytes are compared whole.
//
// What it knows of the store: chunk count, mean fingerprint and running
// sum of fingerprints of each open composite (fewer than 25 chunks) that a
// committed file of this process touched. The bytes and deflate streams
// come from the CompositeCache the files share.
//
// Thread safety: one storing call at a time (the calls of one caller); the
// helper threads it starts only compress.
#ifndef ZELVARPACK_STORE_LOOK_AHEAD_H_
#define ZELVARPACK_STORE_LOOK_AHEAD_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <thread>
#include <unordered_map>
#include <vector>

#include "store/background_compressor.h"
#include "store/composite_cache.h"
#include "store/stored_form.h"

namespace zelvarpack::store {

class LookAhead {
 public:
  // A composite as a file left it.
  struct State {
    std::int32_t chunks = 0;
    double fftRms = 0;  // mean of its chunks' fingerprints
    double sum = 0;     // their sum, added in ordinal order
  };
  // A touched composite's bytes and the stream kept over them, as written.
  struct Written {
    std::shared_ptr<const Bytes> plain;
    std::shared_ptr<const GzipPrefix> prefix;
  };

  // The work done ahead for one file.
  struct Ahead {
    const unsigned char* bytes = nullptr;  // the file it was done for
    std::size_t count = 0;
    std::uint64_t hash = 0;            // of its bytes, with HashOf
    std::vector<double> fingerprints;  // of its chunks
    // The bytes handed to the compressor, by the file's index of the last
    // chunk the prediction appends to the composite (one per composite).
    std::unordered_map<std::int32_t, std::shared_ptr<const Bytes>> predicted;
    // Has the results under the same keys (the look-ahead's own, whose
    // helper threads live as long as it does: a thread started and joined
    // per file costs a wait for a processor each time on a busy machine).
    BackgroundCompressor* compressor = nullptr;
  };

  LookAhead() = default;
  LookAhead(const LookAhead&) = delete;
  LookAhead& operator=(const LookAhead&) = delete;
  ~LookAhead() { Expect(nullptr, 0); }

  // The work done ahead for the file `bytes`, `count`, if it was named as
  // the next file by the previous call (which committed) and its bytes are
  // the same (by hash); else null.
  std::unique_ptr<Ahead> Take(const unsigned char* bytes, std::size_t count);

  // Starts fingerprinting the next file, `next`, `nextCount`, on a thread
  // of its own while the current file's chunks are matched; none for null.
  // Ends the previous one first. REQUIRES: the bytes stay valid until
  // Prepare or Settle.
  void Expect(const unsigned char* next, std::size_t nextCount);

  // Called once per file, after its composites' stored forms are made and
  // before they are written: `states` is every composite the file touched
  // as it leaves it, `written` what the file has written of them (the
  // others, untouched, come from `cache`). Predicts the search for the file
  // `next`, `nextCount` (none when null) and starts compressing what it
  // predicts. The streams it continues are taken over: their prefix in
  // `written`, or their cache entry's, becomes null. Settle says whether
  // the file committed.
  void Prepare(const std::map<std::int32_t, State>& states,
               std::unordered_map<std::int32_t, Written>& written, CompositeCache* cache,
               const unsigned char* next, std::size_t nextCount);

  // The file that called Prepare committed (its states become what is
  // known) or did not (the work done ahead is dropped). Ends Expect's
  // thread.
  void Settle(bool committed);

  // What is known of open composite `id` as committed, or null.
  const State* Find(std::int32_t id) const {
    auto found = known_.find(id);
    return found == known_.end() ? nullptr : &found->second;
  }
  std::size_t known() const { return known_.size(); }

  // Composites written by files that had work done ahead, with a result
  // from it or without (a wrong guess).
  void Count(bool used) { ++(used ? used_ : missed_); }
  std::size_t used() const { return used_; }
  std::size_t missed() const { return missed_; }

 private:
  void Remember(std::int32_t id, const State& state);
  static std::uint64_t HashOf(const unsigned char* bytes, std::size_t count);

  // The file Expect was given, its hash and fingerprints (by fingerprinter_).
  const unsigned char* expected_ = nullptr;
  std::size_t expectedCount_ = 0;
  std::uint64_t expectedHash_ = 0;
  std::vector<double> expectedFingerprints_;
  std::thread fingerprinter_;

  std::unordered_map<std::int32_t, State> known_;
  std::unordered_map<int, std::vector<std::int32_t>> byBucket_;  // open composites
  std::int32_t highestId_ = 0;
  // From Prepare until Settle.
  std::map<std::int32_t, State> settling_;
  std::unique_ptr<Ahead> preparing_;
  // After a commit, for the next call.
  std::unique_ptr<Ahead> ready_;
  std::size_t used_ = 0;
  std::size_t missed_ = 0;
  // Declared last: its threads stop first.
  BackgroundCompressor compressor_;
};

// A fingerprint's bucket as the composite search compares it (x 100,
// truncated toward zero).
inline int BucketOf(double fingerprint) { return static_cast<int>(fingerprint * 100.0); }

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_LOOK_AHEAD_H_
