#include "store/file_store.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "net/zlib_codec.h"
#include "store/chunk_fingerprint.h"
#include "store/odbc_connection.h"
#include "store/session_pool.h"
#include "store/sql_dialect.h"

namespace zelvarpack::store {

namespace {

constexpr int kMaxChunksPerComposite = 25;
constexpr std::size_t kMaxCompositeBytes = kMaxChunksPerComposite * kChunkBytes;

using Bytes = std::vector<unsigned char>;

// A composite's stored form: its gzip form when strictly shorter than the
// bytes themselves, else the bytes.
class StoredForm {
 public:
  // False when compression fails. With `prefix` (a stream that consumed a
  // prefix of `plain`) the gzip form continues it; with `keepPrefix` the
  // form also keeps a stream over `plain` for a later append.
  bool Make(const Bytes& plain, const GzipPrefix* prefix = nullptr, bool keepPrefix = false) {
    std::unique_ptr<GzipPrefix>* keep = keepPrefix ? &next_ : nullptr;
    if (prefix == nullptr || !prefix->Finish(plain.data(), plain.size(), gzip_, keep)) {
      next_.reset();
      if (!GzipPrefix::Compress(plain.data(), plain.size(), gzip_, keep)) return false;
    }
    if (gzip_.empty()) return false;  // a gzip member is never empty
    compressed_ = gzip_.size() < plain.size();
    bytes_ = compressed_ ? gzip_.data() : plain.data();
    count_ = compressed_ ? gzip_.size() : plain.size();
    return true;
  }
  const unsigned char* bytes() const { return bytes_; }
  std::size_t count() const { return count_; }
  bool compressed() const { return compressed_; }
  // The stream kept by Make, if any.
  std::unique_ptr<GzipPrefix> TakePrefix() { return std::move(next_); }

 private:
  Bytes gzip_;
  std::unique_ptr<GzipPrefix> next_;
  const unsigned char* bytes_ = nullptr;
  std::size_t count_ = 0;
  bool compressed_ = false;
};

// The stored forms of several composites at once: compression is where a
// store spends its time, and the composites are independent, so they are
// spread over the processor's cores (threads that live only for this call).
// False when any compression fails.
bool MakeStoredForms(const std::vector<const Bytes*>& plains,
                     const std::vector<const GzipPrefix*>& prefixes, bool keepPrefixes,
                     std::vector<StoredForm>& forms) {
  constexpr unsigned kMaxThreads = 8;
  std::atomic<std::size_t> next{0};
  std::atomic<bool> failed{false};
  const auto work = [&] {
    try {
      for (std::size_t i; (i = next++) < plains.size();) {
        if (!forms[i].Make(*plains[i], prefixes[i], keepPrefixes)) failed = true;
      }
    } catch (...) {
      failed = true;
    }
  };
  const std::size_t wanted = std::min<std::size_t>(
      {plains.size(), std::max(1u, std::thread::hardware_concurrency()), kMaxThreads});
  std::vector<std::thread> helpers;
  for (std::size_t t = 1; t < wanted; ++t) {
    try {
      helpers.emplace_back(work);
    } catch (const std::system_error&) {
      break;  // fewer helpers; this thread still does the rest
    }
  }
  work();
  for (std::thread& helper : helpers) helper.join();
  return !failed;
}

// The uncompressed bytes of a composite as stored: gunzipped when flagged.
bool Unpack(const Bytes& data, bool compressed, Bytes& plain) {
  if (!compressed) {
    plain = data;
  } else {
    std::unique_ptr<CZelvarBuffer> out =
        net::Decompress(data.data(), data.size(), net::ZlibFormat::kGzip, kMaxCompositeBytes);
    plain.assign(out->GetValue(), out->GetValue() + out->GetValueLength());
  }
  // Every composite holds at least one byte; none means corrupt data.
  return !plain.empty();
}

bool ReadOneInt32(OdbcStatement* statement, std::int32_t& value) {
  const bool ok = statement->Fetch() == OdbcStatement::Row::kRow && statement->GetInt32(1, value);
  statement->CloseCursor();
  return ok;
}

// Reads a composite's flag and data by id.
bool ReadCompositeData(Session& statements, const Dialect& d, std::int32_t id, Bytes& data,
                       bool& compressed) {
  OdbcStatement* read = statements.Prepared(d.compositeData);
  if (read == nullptr) return false;
  read->SetInt32(1, id);
  const bool ok = read->Execute() && read->Fetch() == OdbcStatement::Row::kRow &&
                  read->GetBit(1, compressed) && read->GetBinary(2, data);
  read->CloseCursor();
  return ok;
}

// Reads a composite's uncompressed bytes by id.
bool ReadComposite(Session& statements, const Dialect& d, std::int32_t id, Bytes& plain) {
  bool compressed = false;
  Bytes data;
  return ReadCompositeData(statements, d, id, data, compressed) && Unpack(data, compressed, plain);
}

// Creates the tables when any is missing, and ends the transaction either
// way, so that the file's own transaction starts afresh (SQLite would
// otherwise hold a read lock it could not upgrade while another writer
// waits).
bool EnsureTables(OdbcConnection& db, const Dialect& d) {
  const auto tablesPresent = [&](std::int32_t& count) {
    std::unique_ptr<OdbcStatement> probe = db.NewStatement();
    return probe != nullptr && probe->Prepare(d.tablesPresent) && probe->Execute() &&
           ReadOneInt32(probe.get(), count);
  };
  std::int32_t present = 0;
  if (!tablesPresent(present)) return false;
  if (present < d.schemaObjects && d.schemaLock != nullptr) {
    if (!db.ExecuteDirect(d.schemaLock) || !tablesPresent(present)) return false;
  }
  if (present < d.schemaObjects) {
    for (const std::string& statement : d.schema) {
      if (!db.ExecuteDirect(statement)) return false;
    }
  }
  return db.Commit();
}

// Compresses composites on helper threads while the caller goes on
// matching chunks; lives for one file's transaction. Jobs carry the
// composite's generation, so a result for bytes that were appended to since
// is recognised as stale.
class BackgroundCompressor {
 public:
  struct Result {
    std::uint64_t generation = 0;
    std::shared_ptr<const Bytes> plain;  // what the form may point into
    StoredForm form;
    bool ok = false;
  };

  explicit BackgroundCompressor(bool keepPrefixes) : keepPrefixes_(keepPrefixes) {}

  BackgroundCompressor(const BackgroundCompressor&) = delete;
  BackgroundCompressor& operator=(const BackgroundCompressor&) = delete;
  ~BackgroundCompressor() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
      jobs_.clear();  // after a failure nobody wants them
    }
    work_.notify_all();
    for (std::thread& thread : threads_) thread.join();
  }

  // False when no helper thread can run here (one core, or none started);
  // the caller then compresses at the end.
  bool Submit(std::int32_t id, std::uint64_t generation, std::shared_ptr<const Bytes> plain,
              std::shared_ptr<const GzipPrefix> prefix) {
    if (!started_) Start();
    if (threads_.empty()) return false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      jobs_.push_back({id, generation, std::move(plain), std::move(prefix)});
    }
    work_.notify_one();
    return true;
  }

  // Finishes every submitted job, taking part in the work, and hands over
  // the newest result of each composite.
  std::map<std::int32_t, Result> Drain() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (RunOne(lock)) {
    }
    idle_.wait(lock, [this] { return jobs_.empty() && busy_ == 0; });
    return std::move(results_);
  }

 private:
  struct Job {
    std::int32_t id;
    std::uint64_t generation;
    std::shared_ptr<const Bytes> plain;
    std::shared_ptr<const GzipPrefix> prefix;
  };

  void Start() {
    started_ = true;
    const unsigned helpers = std::min(std::thread::hardware_concurrency(), 8u);
    for (unsigned i = 1; i < helpers; ++i) {
      try {
        threads_.emplace_back([this] { Work(); });
      } catch (const std::system_error&) {
        break;
      }
    }
  }

  void Work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      work_.wait(lock, [this] { return stop_ || !jobs_.empty(); });
      if (!RunOne(lock)) return;  // stopping
    }
  }

  // Runs the oldest job, unlocking while it compresses; false when there
  // was none. REQUIRES: `lock` holds mutex_.
  bool RunOne(std::unique_lock<std::mutex>& lock) {
    if (jobs_.empty()) return false;
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    ++busy_;
    lock.unlock();
    Result result;
    result.generation = job.generation;
    result.plain = std::move(job.plain);
    try {
      result.ok = result.form.Make(*result.plain, job.prefix.get(), keepPrefixes_);
    } catch (...) {
      result.ok = false;
    }
    lock.lock();
    Result& slot = results_[job.id];
    if (slot.plain == nullptr || slot.generation < result.generation) slot = std::move(result);
    --busy_;
    idle_.notify_all();
    return true;
  }

  const bool keepPrefixes_;
  bool started_ = false;
  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::condition_variable work_;            // a job or the stop request arrived
  std::condition_variable idle_;            // a job finished
  std::deque<Job> jobs_;                    // guarded by mutex_
  std::map<std::int32_t, Result> results_;  // guarded by mutex_
  int busy_ = 0;                            // guarded by mutex_
  bool stop_ = false;                       // guarded by mutex_
};

// A fingerprint's bucket as the composite search compares it (x 100,
// truncated toward zero).
int BucketOf(double fingerprint) { return static_cast<int>(fingerprint * 100.0); }

// One file's transaction.
//
// With deferred compression, a composite's bytes are written once, when the
// file can no longer touch it: either at the end, or as soon as no chunk
// still to come falls into its bucket or a neighbouring one (the margin
// covers the last-digit differences between this code's arithmetic and the
// database's); such composites are compressed on helper threads while the
// remaining chunks are matched. A guess that proves wrong costs a second
// compression, never a wrong byte: a composite touched again is compressed
// again.
class FileWriter {
 public:
  FileWriter(Session& session, const Dialect& d, const StoreOptions& options)
      : db_(session.db()),
        d_(d),
        options_(options),
        session_(session),
        cache_(options.deferCompression ? options.cache : nullptr),
        compressor_(cache_ != nullptr) {}
  FileWriter(const FileWriter&) = delete;
  FileWriter& operator=(const FileWriter&) = delete;
  ~FileWriter() {
    if (!published_) Publish(false);
  }

  // After the transaction ended: a commit hands the composites this file
  // wrote to the cache, anything else makes the cache forget them.
  void Publish(bool committed) {
    published_ = true;
    if (cache_ == nullptr) return;
    for (const auto& [id, entry] : written_) {
      if (committed && entry != nullptr) {
        cache_->Put(id, entry);
      } else {
        cache_->Forget(id);
      }
    }
    for (const auto& [id, entry] : pending_) cache_->Forget(id);
  }

  bool Run(const unsigned char* bytes, std::int32_t count, std::int32_t& fileId) {
    const bool batched = options_.deferCompression && d_.appendChunks != nullptr;
    // The appendChunks call takes the lock itself, before it reads anything.
    if (!batched && d_.lockForWrite != nullptr && !db_.ExecuteDirect(d_.lockForWrite)) {
      return false;
    }
    OdbcStatement* insert = session_.Prepared(d_.insertFile);
    if (insert == nullptr) return false;
    insert->SetInt32(1, count);
    if (!insert->Execute() || !ReadIdentity(insert, fileId)) return false;
    const auto total = static_cast<std::size_t>(count);
    std::vector<double> fingerprints;
    for (std::size_t offset = 0; offset < total; offset += kChunkBytes) {
      fingerprints.push_back(
          ChunkFingerprint(bytes + offset, std::min(kChunkBytes, total - offset)));
      ++remaining_[BucketOf(fingerprints.back())];
    }
    for (std::size_t i = 0; i < fingerprints.size(); ++i) {
      if (batched) {
        const std::size_t run = std::min(fingerprints.size() - i, ChunksPerCall());
        if (!AppendChunks(fileId, bytes, total, fingerprints, i, run)) return false;
        i += run - 1;
        continue;
      }
      const std::size_t offset = i * kChunkBytes;
      std::int32_t touched = 0;
      if (!AddChunk(fileId, bytes + offset, std::min(kChunkBytes, total - offset), fingerprints[i],
                    touched)) {
        return false;
      }
      if (options_.deferCompression) CompressWhatIsFinished(BucketOf(fingerprints[i]), touched);
    }
    return WritePending();
  }

 private:
  // A composite touched by this transaction whose bytes are not written yet.
  struct Pending {
    std::shared_ptr<Bytes> plain;  // shared with a background job, if any
    std::uint64_t generation = 0;  // appends so far
    int bucket = 0;                // of its fingerprint now
    bool submitted = false;        // this generation went to the compressor
    std::int32_t chunks = 0;       // its chunks count after the last append
    // A stream that consumed a prefix of the bytes before this file's
    // appends, when known; compression continues it.
    std::shared_ptr<const GzipPrefix> prefix;
  };

  // What is known of composite `id` as last written: by this transaction,
  // else as committed earlier.
  std::shared_ptr<const CompositeCache::Entry> Known(std::int32_t id) {
    if (auto found = written_.find(id); found != written_.end()) return found->second;
    return cache_->Find(id);
  }

  // The uncompressed bytes of a composite this transaction has not touched
  // yet, from its stored data; reuses what the cache knows when that data
  // is exactly what it remembers.
  // `haveData`: `data` and `compressed` came with the search's row.
  // `vouched`: the entry whose row version the database found unchanged.
  bool Fetch(std::int32_t id, std::int32_t chunks, Bytes& data, bool compressed, bool haveData,
             Bytes& plain, std::shared_ptr<const GzipPrefix>& prefix,
             const CompositeCache::Entry* vouched = nullptr) {
    // An entry that can stand for the composite's row as the search saw it.
    const auto take = [&](const CompositeCache::Entry* entry) {
      if (entry == nullptr || entry->plain == nullptr || entry->prefix == nullptr ||
          entry->chunks != chunks || entry->compressed != compressed) {
        return false;
      }
      plain = *entry->plain;
      prefix = entry->prefix;
      return true;
    };
    if (take(vouched)) return true;
    if (cache_ == nullptr) {
      return haveData ? Unpack(data, compressed, plain) : ReadComposite(session_, d_, id, plain);
    }
    if (!haveData && !ReadCompositeData(session_, d_, id, data, compressed)) {
      return false;
    }
    std::shared_ptr<const CompositeCache::Entry> known = Known(id);
    if (known != nullptr && known->stored == data && take(known.get())) return true;
    return Unpack(data, compressed, plain);
  }

  bool ReadIdentity(OdbcStatement* insert, std::int32_t& id) {
    switch (d_.identityFrom) {
      case IdentityFrom::kNextResult:
        return insert->NextResult() && ReadOneInt32(insert, id);
      case IdentityFrom::kSameResult:
        return ReadOneInt32(insert, id);
      case IdentityFrom::kSeparateQuery: {
        insert->CloseCursor();
        OdbcStatement* last = session_.Prepared(d_.lastIdentity);
        return last != nullptr && last->Execute() && ReadOneInt32(last, id);
      }
    }
    return false;
  }

  bool AddChunk(std::int32_t fileId, const unsigned char* chunk, std::size_t length,
                double fingerprint, std::int32_t& id) {
    OdbcStatement* find = session_.Prepared(d_.findComposite);
    if (find == nullptr) return false;
    find->SetDouble(1, fingerprint);
    find->SetDouble(2, fingerprint);
    if (!find->Execute()) return false;
    const OdbcStatement::Row row = find->Fetch();
    if (row == OdbcStatement::Row::kError) return false;
    if (row == OdbcStatement::Row::kEnd) {
      find->CloseCursor();
      return NewComposite(fileId, chunk, length, fingerprint, id);
    }

    // Columns in increasing order, as drivers require.
    const MatchColumns& m = d_.match;
    std::int32_t chunks = 0;
    std::int32_t maxOrdinal = 0;
    bool compressed = false;
    double sum = 0;
    Bytes data;
    if (!find->GetInt32(m.compositeId, id) || !find->GetInt32(m.chunks, chunks)) return false;
    auto pending = pending_.find(id);
    const bool known = pending != pending_.end();
    if (m.data != 0 && !known && !find->GetBinary(m.data, data)) return false;
    if (!find->GetBit(m.isCompressed, compressed) || !find->GetInt32(m.maxOrdinal, maxOrdinal) ||
        !find->GetDouble(m.sumFftRms, sum)) {
      return false;
    }
    find->CloseCursor();

    Bytes fetched;
    std::shared_ptr<const GzipPrefix> prefix;
    if (known && pending->second.plain.use_count() > 1) {
      // A background job still reads these bytes: append to a copy.
      pending->second.plain = std::make_shared<Bytes>(*pending->second.plain);
    }
    Bytes& plain = known ? *pending->second.plain : fetched;
    if (!known && !Fetch(id, chunks, data, compressed, m.data != 0, plain, prefix)) return false;
    const std::size_t before = plain.size();
    if (before + length > kMaxCompositeBytes) return false;
    plain.insert(plain.end(), chunk, chunk + length);
    const double composite = (sum + fingerprint) / (chunks + 1);

    if (options_.deferCompression) {
      OdbcStatement* update = session_.Prepared(d_.updateCompositeCounts);
      if (update == nullptr) return false;
      update->SetDouble(1, composite);
      update->SetInt32(2, id);
      if (!update->Execute()) return false;
      pendingBytes_ += length;
      if (!known) {
        pendingBytes_ += before;
        pending = pending_.emplace(id, Pending{}).first;
        pending->second.plain = std::make_shared<Bytes>(std::move(fetched));
        pending->second.prefix = std::move(prefix);
      }
      Pending& entry = pending->second;
      ++entry.generation;
      entry.chunks = chunks + 1;
      entry.bucket = BucketOf(composite);
      entry.submitted = false;
    } else {
      StoredForm form;
      OdbcStatement* update = session_.Prepared(d_.updateComposite);
      if (update == nullptr || !form.Make(plain)) return false;
      update->SetBinary(1, form.bytes(), form.count(), d_.longBinary);
      update->SetDouble(2, composite);
      update->SetBit(3, form.compressed());
      update->SetInt32(4, id);
      if (!update->Execute()) return false;
    }
    return InsertChunk(fileId, maxOrdinal + 1, id, static_cast<std::int32_t>(before) + 1, length,
                       fingerprint) &&
           WritePendingIfLarge();
  }

  // Chunks per appendChunks call: enough to make round trips rare, few
  // enough that the bytes held between calls stay near the deferral limit.
  std::size_t ChunksPerCall() const {
    return std::clamp<std::size_t>(options_.deferredBytesLimit / kChunkBytes / 2, 1, 1024);
  }

  // Chunks [first, first + run) of the file through one appendChunks call:
  // the database searches, counts and inserts, and sends a composite's data
  // only when this transaction does not hold its bytes.
  bool AppendChunks(std::int32_t fileId, const unsigned char* bytes, std::size_t total,
                    const std::vector<double>& fingerprints, std::size_t first, std::size_t run) {
    OdbcStatement* append = session_.Prepared(d_.appendChunks);
    if (append == nullptr) return false;
    fingerprintList_.assign(1, '{');
    lengthList_.assign(1, '{');
    for (std::size_t i = first; i < first + run; ++i) {
      if (i > first) {
        fingerprintList_ += ',';
        lengthList_ += ',';
      }
      // The shortest form that reads back as the same double, in any locale.
      char text[32];
      const std::to_chars_result written = std::to_chars(text, text + sizeof text, fingerprints[i]);
      if (written.ec != std::errc()) return false;
      fingerprintList_.append(text, written.ptr);
      lengthList_ += std::to_string(std::min(kChunkBytes, total - i * kChunkBytes));
    }
    fingerprintList_ += '}';
    lengthList_ += '}';
    heldIds_.assign(1, '{');
    for (const auto& [held, entry] : pending_) {
      if (heldIds_.size() > 1) heldIds_ += ',';
      heldIds_ += std::to_string(held);
    }
    heldIds_ += '}';
    OfferKnownVersions();
    append->SetInt32(1, fileId);
    append->SetText(2, fingerprintList_);
    append->SetText(3, lengthList_);
    append->SetText(4, heldIds_);
    append->SetText(5, knownIds_);
    append->SetText(6, knownVersions_);
    if (!append->Execute()) return false;
    using C = AppendColumns;
    bool ok = true;
    for (std::size_t i = first; ok && i < first + run; ++i) {
      std::int32_t id = 0;
      std::int32_t chunksBefore = 0;
      std::int32_t start = 0;
      bool compressed = false;
      bool current = false;
      double composite = 0;
      ok = append->Fetch() == OdbcStatement::Row::kRow && append->GetInt32(C::kCompositeId, id) &&
           append->GetInt32(C::kChunksBefore, chunksBefore) &&
           append->GetBit(C::kIsCompressed, compressed) && append->GetInt32(C::kStart, start) &&
           append->GetDouble(C::kFftRms, composite) && append->GetBinary(C::kData, data_) &&
           append->GetBit(C::kCurrent, current) &&
           TakeChunk(bytes + i * kChunkBytes, std::min(kChunkBytes, total - i * kChunkBytes), id,
                     chunksBefore, compressed, start, composite, data_, current);
      if (ok) CompressWhatIsFinished(BucketOf(fingerprints[i]), id);
    }
    ok = ok && append->Fetch() == OdbcStatement::Row::kEnd;
    append->CloseCursor();
    offered_.clear();
    return ok && WritePendingIfLarge();
  }

  // Fills knownIds_ and knownVersions_ (array literals) with the composites
  // whose bytes this process knows as last written, with their row
  // versions, and remembers in offered_ the entries it offered: the ones a
  // row marked current stands for.
  void OfferKnownVersions() {
    offered_.clear();
    if (cache_ != nullptr) {
      for (auto& [id, entry] : cache_->Snapshot()) {
        if (written_.count(id) == 0) offered_.emplace(id, std::move(entry));
      }
      for (const auto& [id, entry] : written_) {
        if (entry != nullptr) offered_.emplace(id, entry);
      }
    }
    knownIds_.assign(1, '{');
    knownVersions_.assign(1, '{');
    for (auto it = offered_.begin(); it != offered_.end();) {
      const CompositeCache::Entry& entry = *it->second;
      if (entry.version < 0 || entry.plain == nullptr || entry.prefix == nullptr) {
        it = offered_.erase(it);
        continue;
      }
      if (knownIds_.size() > 1) {
        knownIds_ += ',';
        knownVersions_ += ',';
      }
      knownIds_ += std::to_string(it->first);
      knownVersions_ += std::to_string(entry.version);
      ++it;
    }
    knownIds_ += '}';
    knownVersions_ += '}';
  }

  // Adds a chunk the database gave to composite `id` (which had
  // `chunksBefore` chunks, 0 when new, and now has mean `composite`) to the
  // composite's bytes held here; `data` is its stored data when the
  // database sent it; `current`: the database found the composite's row
  // at the version offered for it, and sent no data.
  bool TakeChunk(const unsigned char* chunk, std::size_t length, std::int32_t id,
                 std::int32_t chunksBefore, bool compressed, std::int32_t start, double composite,
                 Bytes& data, bool current) {
    auto pending = pending_.find(id);
    if (pending == pending_.end()) {
      auto plain = std::make_shared<Bytes>();
      std::shared_ptr<const GzipPrefix> prefix;
      const CompositeCache::Entry* vouched = nullptr;
      if (current) {
        auto offered = offered_.find(id);
        if (offered != offered_.end()) vouched = offered->second.get();
      }
      // A new composite (no chunks before) starts empty. Without the data
      // and without an entry that stands for it, Fetch reads the data.
      if (chunksBefore > 0 &&
          !Fetch(id, chunksBefore, data, compressed, !current, *plain, prefix, vouched)) {
        return false;
      }
      pendingBytes_ += plain->size();
      pending = pending_.emplace(id, Pending{}).first;
      pending->second.plain = std::move(plain);
      pending->second.prefix = std::move(prefix);
    } else if (pending->second.plain.use_count() > 1) {
      // A background job still reads these bytes: append to a copy.
      pending->second.plain = std::make_shared<Bytes>(*pending->second.plain);
    }
    Bytes& plain = *pending->second.plain;
    // The database counted the composite's bytes from its chunk rows; they
    // must be the bytes this transaction holds.
    if (static_cast<std::size_t>(start) != plain.size() + 1 ||
        plain.size() + length > kMaxCompositeBytes) {
      return false;
    }
    plain.insert(plain.end(), chunk, chunk + length);
    pendingBytes_ += length;
    Pending& entry = pending->second;
    ++entry.generation;
    entry.chunks = chunksBefore + 1;
    entry.bucket = BucketOf(composite);
    entry.submitted = false;
    return true;
  }

  bool NewComposite(std::int32_t fileId, const unsigned char* chunk, std::size_t length,
                    double fingerprint, std::int32_t& id) {
    OdbcStatement* insert = session_.Prepared(d_.insertComposite);
    if (insert == nullptr) return false;
    auto plain = std::make_shared<Bytes>(chunk, chunk + length);
    StoredForm form;
    if (options_.deferCompression) {
      // The chunk as it is for now; its stored form is written later.
      insert->SetBinary(1, plain->data(), plain->size(), d_.longBinary);
      insert->SetBit(3, false);
    } else {
      if (!form.Make(*plain)) return false;
      insert->SetBinary(1, form.bytes(), form.count(), d_.longBinary);
      insert->SetBit(3, form.compressed());
    }
    insert->SetDouble(2, fingerprint);
    if (!insert->Execute() || !ReadIdentity(insert, id)) return false;
    if (options_.deferCompression) {
      pendingBytes_ += length;
      Pending& entry = pending_[id];
      entry.plain = std::move(plain);
      entry.generation = 1;
      entry.chunks = 1;
      entry.bucket = BucketOf(fingerprint);
    }
    return InsertChunk(fileId, 1, id, 1, length, fingerprint) && WritePendingIfLarge();
  }

  bool InsertChunk(std::int32_t fileId, std::int32_t ordinal, std::int32_t compositeId,
                   std::int32_t start, std::size_t length, double fingerprint) {
    OdbcStatement* insert = session_.Prepared(d_.insertChunk);
    if (insert == nullptr) return false;
    insert->SetInt32(1, fileId);
    insert->SetInt32(2, ordinal);
    insert->SetInt32(3, compositeId);
    insert->SetInt32(4, start);
    insert->SetInt32(5, static_cast<std::int32_t>(length));
    insert->SetDouble(6, fingerprint);
    return insert->Execute();
  }

  // Called after each chunk: the chunk of `bucket` is done, and composite
  // `touched` took it. Hands composites that no chunk still to come can
  // reach to the background compressor.
  void CompressWhatIsFinished(int bucket, std::int32_t touched) {
    const bool bucketDone = --remaining_[bucket] == 0;
    const auto reachable = [this](int b) {
      for (int near = b - 1; near <= b + 1; ++near) {
        auto found = remaining_.find(near);
        if (found != remaining_.end() && found->second > 0) return true;
      }
      return false;
    };
    const auto consider = [&](std::int32_t id, Pending& entry) {
      if (entry.submitted || reachable(entry.bucket)) return;
      entry.submitted = compressor_.Submit(id, entry.generation, entry.plain, entry.prefix);
    };
    if (bucketDone) {
      for (auto& [id, entry] : pending_) consider(id, entry);
    } else if (auto found = pending_.find(touched); found != pending_.end()) {
      consider(touched, found->second);
    }
  }

  bool WritePendingIfLarge() {
    return pendingBytes_ <= options_.deferredBytesLimit || WritePending();
  }

  // Writes the stored form of every pending composite: the background
  // result when it is for the composite's last bytes, else compressed now.
  bool WritePending() {
    if (pending_.empty()) return true;
    std::map<std::int32_t, BackgroundCompressor::Result> done = compressor_.Drain();
    std::vector<const Bytes*> plains;
    std::vector<const GzipPrefix*> prefixes;
    std::vector<StoredForm*> chosen(pending_.size(), nullptr);
    std::size_t i = 0;
    for (const auto& [id, entry] : pending_) {
      auto result = done.find(id);
      if (result != done.end() && result->second.ok &&
          result->second.generation == entry.generation) {
        chosen[i] = &result->second.form;
      } else {
        plains.push_back(entry.plain.get());
        prefixes.push_back(entry.prefix.get());
      }
      ++i;
    }
    std::vector<StoredForm> forms(plains.size());
    if (!MakeStoredForms(plains, prefixes, cache_ != nullptr, forms)) return false;
    struct Write {
      std::int32_t id;
      StoredForm* form;
      const Pending* entry;
    };
    std::vector<Write> writes;
    std::size_t fresh = 0;
    i = 0;
    for (const auto& [id, entry] : pending_) {
      writes.push_back({id, chosen[i] != nullptr ? chosen[i] : &forms[fresh++], &entry});
      ++i;
      if (cache_ != nullptr) written_[id] = nullptr;  // touched, whatever happens next
    }
    std::size_t next = 0;
    // The largest batches first, the rest one by one.
    for (int size = kDataBatchSizes - 1; size >= 0; --size) {
      if (d_.updateCompositeDataBatch[size] == nullptr) continue;
      const auto rows = static_cast<std::size_t>(DataBatchRows(size));
      if (writes.size() - next < rows) continue;
      OdbcStatement* batch = session_.Prepared(d_.updateCompositeDataBatch[size]);
      if (batch == nullptr) return false;
      for (; writes.size() - next >= rows; next += rows) {
        for (std::size_t row = 0; row < rows; ++row) {
          const Write& w = writes[next + row];
          const int column = 3 * static_cast<int>(row);
          batch->SetInt32(column + 1, w.id);
          batch->SetBinary(column + 2, w.form->bytes(), w.form->count(), d_.longBinary);
          batch->SetBit(column + 3, w.form->compressed());
        }
        if (!batch->Execute() || !ReadVersions(batch)) return false;
      }
    }
    if (next < writes.size()) {
      OdbcStatement* update = session_.Prepared(d_.updateCompositeData);
      if (update == nullptr) return false;
      for (; next < writes.size(); ++next) {
        const Write& w = writes[next];
        update->SetBinary(1, w.form->bytes(), w.form->count(), d_.longBinary);
        update->SetBit(2, w.form->compressed());
        update->SetInt32(3, w.id);
        if (!update->Execute() || !ReadVersions(update)) return false;
      }
    }
    if (cache_ != nullptr) {
      for (const Write& w : writes) {
        std::unique_ptr<GzipPrefix> kept = w.form->TakePrefix();
        if (kept == nullptr) continue;
        auto known = std::make_shared<CompositeCache::Entry>();
        known->plain = w.entry->plain;
        known->stored.assign(w.form->bytes(), w.form->bytes() + w.form->count());
        known->compressed = w.form->compressed();
        known->chunks = w.entry->chunks;
        known->prefix = std::move(kept);
        if (auto version = versions_.find(w.id); version != versions_.end()) {
          known->version = version->second;
        }
        written_[w.id] = std::move(known);
      }
    }
    pending_.clear();
    pendingBytes_ = 0;
    versions_.clear();
    return true;
  }

  // The (composite_id, version) rows of a data write, when the dialect's
  // data writes return them.
  bool ReadVersions(OdbcStatement* write) {
    if (!d_.dataWritesReturnVersions) return true;
    for (;;) {
      const OdbcStatement::Row row = write->Fetch();
      if (row == OdbcStatement::Row::kEnd) break;
      std::int32_t id = 0;
      std::int64_t version = 0;
      if (row != OdbcStatement::Row::kRow || !write->GetInt32(1, id) ||
          !write->GetInt64(2, version)) {
        return false;
      }
      versions_[id] = version;
    }
    write->CloseCursor();
    return true;
  }

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
  // Declared last: its threads stop before the composites they read go.
  BackgroundCompressor compressor_;
};

void Report(std::string* error, const std::string& what) {
  if (error != nullptr) *error = what;
}

}  // namespace

std::size_t CompositeCache::Entry::Footprint() const {
  return sizeof(Entry) + stored.capacity() + (plain != nullptr ? plain->capacity() : 0) +
         (prefix != nullptr ? prefix->Footprint() : 0);
}

std::shared_ptr<const CompositeCache::Entry> CompositeCache::Find(std::int32_t compositeId) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = slots_.find(compositeId);
  if (found == slots_.end()) return nullptr;
  uses_.splice(uses_.begin(), uses_, found->second.use);
  return found->second.entry;
}

void CompositeCache::Put(std::int32_t compositeId, std::shared_ptr<const Entry> entry) {
  std::lock_guard<std::mutex> lock(mutex_);
  ForgetLocked(compositeId);
  if (entry == nullptr || entry->Footprint() > maxBytes_) return;
  bytes_ += entry->Footprint();
  uses_.push_front(compositeId);
  slots_[compositeId] = Slot{std::move(entry), uses_.begin()};
  while (bytes_ > maxBytes_) ForgetLocked(uses_.back());
}

void CompositeCache::Forget(std::int32_t compositeId) {
  std::lock_guard<std::mutex> lock(mutex_);
  ForgetLocked(compositeId);
}

std::vector<std::pair<std::int32_t, std::shared_ptr<const CompositeCache::Entry>>>
CompositeCache::Snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::pair<std::int32_t, std::shared_ptr<const Entry>>> entries;
  entries.reserve(slots_.size());
  for (const auto& [id, slot] : slots_) entries.emplace_back(id, slot.entry);
  return entries;
}

std::size_t CompositeCache::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return slots_.size();
}

void CompositeCache::ForgetLocked(std::int32_t compositeId) {
  auto found = slots_.find(compositeId);
  if (found == slots_.end()) return;
  bytes_ -= found->second.entry->Footprint();
  uses_.erase(found->second.use);
  slots_.erase(found);
}

namespace {

// One attempt at storing the file on `session`; -1 on failure.
std::int32_t StoreOnSession(Session& session, const unsigned char* bytes, std::int32_t count,
                            const StoreOptions& options, std::string* error) {
  OdbcConnection& db = session.db();
  try {
    const Dialect& d = DialectFor(db.DbmsName());
    std::int32_t fileId = -1;
    bool stored = false;
    {
      FileWriter writer(session, d, options);
      session.tablesKnown = session.tablesKnown || EnsureTables(db, d);
      stored = session.tablesKnown && writer.Run(bytes, count, fileId) && db.Commit();
      writer.Publish(stored);
    }
    if (stored) return fileId;
    Report(error, db.LastError().empty() ? "the composite data is corrupt" : db.LastError());
  } catch (const std::exception& e) {
    Report(error, e.what());
  }
  return -1;
}

}  // namespace

std::int32_t StoreFile(const std::string& connection, const unsigned char* bytes,
                       std::int32_t count, const StoreOptions& options, std::string* error) {
  if (count < 0 || (bytes == nullptr && count > 0)) {
    Report(error, "no file bytes");
    return -1;
  }
  for (;;) {
    std::unique_ptr<Session> session =
        options.sessions != nullptr ? options.sessions->Take(connection) : nullptr;
    if (session == nullptr) {
      session = std::make_unique<Session>();
      if (!session->db().Connect(connection, false)) {
        Report(error, session->db().LastError());
        return -1;
      }
    }
    const std::int32_t fileId = StoreOnSession(*session, bytes, count, options, error);
    const bool ended = fileId >= 0 || session->db().Rollback();
    // A kept session the server has closed since: the file goes to a new
    // one (nothing of this attempt was committed).
    if (fileId < 0 && session->reused && session->db().IsDead()) continue;
    if (ended && options.sessions != nullptr && !session->db().IsDead()) {
      options.sessions->Give(connection, std::move(session));
    }
    return fileId;
  }
}

bool ReadStoredFile(const std::string& connection, std::int32_t fileId, Bytes& bytes,
                    std::string* error) {
  bytes.clear();
  Session statements;
  OdbcConnection& db = statements.db();
  if (!db.Connect(connection, true)) {
    Report(error, db.LastError());
    return false;
  }
  const Dialect& d = DialectFor(db.DbmsName());
  std::int32_t size = 0;
  OdbcStatement* sizeOf = statements.Prepared(d.fileSize);
  if (sizeOf == nullptr) {
    Report(error, db.LastError());
    return false;
  }
  sizeOf->SetInt32(1, fileId);
  if (!sizeOf->Execute()) {
    Report(error, db.LastError());
    return false;
  }
  if (!ReadOneInt32(sizeOf, size)) {
    Report(error, db.LastError().empty() ? "no such file" : db.LastError());
    return false;
  }

  struct Piece {
    std::int32_t composite, start, length;
  };
  std::vector<Piece> pieces;
  OdbcStatement* list = statements.Prepared(d.fileChunks);
  if (list == nullptr) {
    Report(error, db.LastError());
    return false;
  }
  list->SetInt32(1, fileId);
  bool ok = list->Execute();
  for (OdbcStatement::Row row; ok && (row = list->Fetch()) != OdbcStatement::Row::kEnd;) {
    Piece piece{};
    ok = row == OdbcStatement::Row::kRow && list->GetInt32(1, piece.composite) &&
         list->GetInt32(2, piece.start) && list->GetInt32(3, piece.length);
    pieces.push_back(piece);
  }
  list->CloseCursor();

  std::map<std::int32_t, Bytes> composites;
  bytes.reserve(static_cast<std::size_t>(std::max(size, 0)));
  for (std::size_t i = 0; ok && i < pieces.size(); ++i) {
    const Piece& piece = pieces[i];
    auto found = composites.find(piece.composite);
    if (found == composites.end()) {
      Bytes plain;
      if (!ReadComposite(statements, d, piece.composite, plain)) {
        ok = false;
        break;
      }
      found = composites.emplace(piece.composite, std::move(plain)).first;
    }
    const Bytes& plain = found->second;
    if (piece.start < 1 || piece.length < 0 ||
        static_cast<std::size_t>(piece.start - 1) + static_cast<std::size_t>(piece.length) >
            plain.size()) {
      ok = false;
      break;
    }
    bytes.insert(bytes.end(), plain.begin() + (piece.start - 1),
                 plain.begin() + (piece.start - 1 + piece.length));
  }
  if (ok && bytes.size() == static_cast<std::size_t>(size)) return true;
  Report(error,
         db.LastError().empty() ? "the stored chunks do not make up the file" : db.LastError());
  bytes.clear();
  return false;
}

bool ReadStoreTotals(const std::string& connection, StoreTotals& totals, std::string* error) {
  OdbcConnection db;
  if (!db.Connect(connection, true)) {
    Report(error, db.LastError());
    return false;
  }
  const Dialect& d = DialectFor(db.DbmsName());
  std::unique_ptr<OdbcStatement> query = db.NewStatement();
  const bool ok = query != nullptr && query->Prepare(d.totals) && query->Execute() &&
                  query->Fetch() == OdbcStatement::Row::kRow && query->GetInt64(1, totals.files) &&
                  query->GetInt64(2, totals.chunks) && query->GetInt64(3, totals.composites) &&
                  query->GetInt64(4, totals.originalBytes) &&
                  query->GetInt64(5, totals.storedBytes);
  if (!ok) Report(error, db.LastError().empty() ? "no totals" : db.LastError());
  return ok;
}

std::string SqliteDriverPath() {
  for (const char* path :
       {"/usr/lib/x86_64-linux-gnu/odbc/libsqlite3odbc.so",
        "/usr/lib/aarch64-linux-gnu/odbc/libsqlite3odbc.so", "/usr/lib64/libsqlite3odbc.so",
        "/usr/lib/odbc/libsqlite3odbc.so", "/usr/local/lib/libsqlite3odbc.so"}) {
    if (::access(path, R_OK) == 0) return path;
  }
  return "";
}

std::string SqliteConnectionString(const std::string& path) {
  return "DRIVER=" + SqliteDriverPath() + ";Database=" + path + ";";
}

}  // namespace zelvarpack::store
