// One file's transaction in the chunked file store: fingerprints the file's
// chunks, finds or makes the composite for each, appends the chunk's bytes
// to it and writes the chunk rows; StoreFile (store/file_store.h) wraps it in
// a connection and a commit. One FileWriter per transaction, used by one
// thread (its BackgroundCompressor's helpers aside).
#ifndef ZELVARPACK_STORE_FILE_WRITER_H_
#define ZELVARPACK_STORE_FILE_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "store/background_compressor.h"
#include "store/composite_cache.h"
#include "store/file_store.h"
#include "store/look_ahead.h"
#include "store/odbc_connection.h"
#include "store/session_pool.h"
#include "store/sql_dialect.h"
#include "store/stored_form.h"

namespace zelvarpack::store {

// With deferred compression, a composite's bytes are written once, when the
// file can no longer touch it: either at the end, or as soon as no chunk
// still to come falls into its bucket or a neighbouring one (the margin
// covers the last-digit differences between this code's arithmetic and the
// database's); such composites are compressed on helper threads while the
// remaining chunks are matched. A guess that proves wrong costs a second
// compression, never a wrong byte: a composite touched again is compressed
// again.
//
// With a LookAhead (store/look_ahead.h), a file's composites may have been
// compressed while the previous file was being written and committed; the
// file's final writes in turn start the next file's.
class FileWriter {
 public:
  FileWriter(Session& session, const Dialect& d, const StoreOptions& options);
  FileWriter(const FileWriter&) = delete;
  FileWriter& operator=(const FileWriter&) = delete;
  // Without a Publish call, publishes as not committed.
  ~FileWriter();

  // After the transaction ended: a commit hands the composites this file
  // wrote to the cache, anything else makes the cache forget them.
  void Publish(bool committed);

  // Stores the file's rows in the session's open transaction (the caller
  // commits or rolls back) and sets `fileId`. False at the first failure.
  bool Run(const unsigned char* bytes, std::int32_t count, std::int32_t& fileId);

 private:
  // A composite touched by this transaction whose bytes are not written yet.
  struct Pending {
    std::shared_ptr<Bytes> plain;  // shared with a background job, if any
    std::uint64_t generation = 0;  // appends so far
    int bucket = 0;                // of its fingerprint now
    bool submitted = false;        // this generation went to the compressor
    std::int32_t chunks = 0;       // its chunks count after the last append
    double fftRms = 0;             // its fingerprint after the last append
    // A stream that consumed a prefix of the bytes before this file's
    // appends, when known; compression continues it. The composite's
    // first background job takes it over.
    std::shared_ptr<const GzipPrefix> prefix;
    // A background job was given this composite: the stream to continue
    // is the one its latest job keeps.
    bool streamWithJob = false;
    // The file's last chunk appended to it (the look-ahead's key).
    std::int32_t lastChunk = -1;
    // The sum of its chunks' fingerprints (exact when the whole sequence of
    // additions is known here, else near).
    double sum = 0;
    // The bytes now are the bytes compressed ahead for this file.
    bool ahead = false;
  };

  // Whether the work done ahead has compressed exactly `entry`'s bytes.
  bool ComputedAhead(const Pending& entry) const;

  // A composite's sum of fingerprints once chunk `fingerprint` joined it,
  // when it had `chunksBefore` chunks before and its mean is now `mean`.
  double SumAfter(std::int32_t id, std::int32_t chunksBefore, double fingerprint,
                  double mean) const;

  // Whether a stream over a composite of `chunks` chunks is worth keeping
  // for a later append: only with a cache, and only while it can grow.
  bool KeepsPrefix(std::int32_t chunks) const;

  // Composite `id`'s remembered entry now stands for a pending composite:
  // no longer offered or kept, so that its stream has one owner.
  void Retire(std::int32_t id);

  // What is known of composite `id` as last written: by this transaction,
  // else as committed earlier.
  std::shared_ptr<const CompositeCache::Entry> Known(std::int32_t id);

  // The uncompressed bytes of a composite this transaction has not touched
  // yet, from its stored data; reuses what the cache knows when that data
  // is exactly what it remembers.
  // `haveData`: `data` and `compressed` came with the search's row.
  // `vouched`: the entry whose row version the database found unchanged.
  bool Fetch(std::int32_t id, std::int32_t chunks, Bytes& data, bool compressed, bool haveData,
             Bytes& plain, std::shared_ptr<const GzipPrefix>& prefix,
             const CompositeCache::Entry* vouched = nullptr);

  bool AddChunk(std::int32_t fileId, const unsigned char* chunk, std::size_t length,
                double fingerprint, std::int32_t& id);

  // Chunks per appendChunks call: enough to make round trips rare, few
  // enough that the bytes held between calls stay near the deferral limit.
  std::size_t ChunksPerCall() const;

  // Chunks [first, first + run) of the file through one appendChunks call:
  // the database searches, counts and inserts, and sends a composite's data
  // only when this transaction does not hold its bytes. A `fileId` of 0:
  // the call inserts the file's row too, and sets `fileId`.
  bool AppendChunks(std::int32_t& fileId, const unsigned char* bytes, std::size_t total,
                    const std::vector<double>& fingerprints, std::size_t first, std::size_t run);

  // Fills knownIds_ and knownVersions_ (array literals) with the composites
  // whose bytes this process knows as last written, with their row
  // versions, and remembers in offered_ the entries it offered: the ones a
  // row marked current stands for.
  void OfferKnownVersions();

  // Adds a chunk the database gave to composite `id` (which had
  // `chunksBefore` chunks, 0 when new, and now has mean `composite`) to the
  // composite's bytes held here; `data` is its stored data when the
  // database sent it; `current`: the database found the composite's row
  // at the version offered for it, and sent no data.
  bool TakeChunk(const unsigned char* chunk, std::size_t length, double fingerprint,
                 std::int32_t id, std::int32_t chunksBefore, bool compressed, std::int32_t start,
                 double composite, Bytes& data, bool current);

  bool NewComposite(std::int32_t fileId, const unsigned char* chunk, std::size_t length,
                    double fingerprint, std::int32_t& id);

  bool InsertChunk(std::int32_t fileId, std::int32_t ordinal, std::int32_t compositeId,
                   std::int32_t start, std::size_t length, double fingerprint);

  // Called after each chunk: the chunk of `bucket` is done, and composite
  // `touched` took it. Hands composites that no chunk still to come can
  // reach to the background compressor.
  void CompressWhatIsFinished(int bucket, std::int32_t touched);

  bool WritePendingIfLarge();

  // Writes the stored form of every pending composite: the result computed
  // ahead or the background result when it is for the composite's last
  // bytes, else compressed now. `last`: the file's final writes, before
  // which the look-ahead starts on the next file.
  bool WritePending(bool last = false);

  // Hands the look-ahead this file's composites as it leaves them (those in
  // `written` as written now, the others as written earlier) and the next
  // file; the streams it takes over are null in `written` after.
  void StartNext(std::unordered_map<std::int32_t, LookAhead::Written>& written);

  OdbcConnection& db_;
  const Dialect& d_;
  const StoreOptions& options_;
  Session& session_;
  std::map<std::int32_t, Pending> pending_;
  std::size_t pendingBytes_ = 0;
  // appendChunks's parameters and data column, reused.
  std::string fingerprintList_;
  std::string lengthList_;
  std::string heldIds_;
  std::string knownIds_;
  std::string knownVersions_;
  Bytes data_;
  // The entries offered to the current appendChunks call, by composite.
  std::unordered_map<std::int32_t, std::shared_ptr<const CompositeCache::Entry>> offered_;
  // Row versions returned by the data writes of the current WritePending.
  std::unordered_map<std::int32_t, std::int64_t> versions_;
  // Chunks of the file not yet stored, by bucket.
  std::unordered_map<int, int> remaining_;
  CompositeCache* const cache_;  // null unless deferring with a cache
  // Composites whose data this transaction wrote, with what the cache may
  // keep of them after the commit (null: nothing).
  std::map<std::int32_t, std::shared_ptr<const CompositeCache::Entry>> written_;
  bool published_ = false;
  // The look-ahead across files (null unless deferring with a cache), the
  // work it did ahead for this file, and that work's results once waited
  // for; whether this file handed it the next one.
  LookAhead* const lookAhead_;
  std::unique_ptr<LookAhead::Ahead> ahead_;
  std::map<std::int32_t, BackgroundCompressor::Result> aheadResults_;
  bool aheadDone_ = false;
  bool prepared_ = false;
  // Every composite this file touched, as it leaves it.
  std::map<std::int32_t, LookAhead::State> states_;
  // The index in the file of the chunk being stored.
  std::int32_t chunk_ = 0;
  // Declared last: its threads stop before the composites they read go.
  BackgroundCompressor compressor_;
};

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_FILE_WRITER_H_
