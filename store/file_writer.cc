#include "store/file_writer.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <thread>

#include "store/chunk_fingerprint.h"
#include "store/read_back.h"

namespace zelvarpack::store {

FileWriter::FileWriter(Session& session, const Dialect& d, const StoreOptions& options)
    : db_(session.db()),
      d_(d),
      options_(options),
      session_(session),
      cache_(options.deferCompression ? options.cache : nullptr),
      lookAhead_(cache_ != nullptr ? options.lookAhead : nullptr) {}

FileWriter::~FileWriter() {
  if (!published_) Publish(false);
}

void FileWriter::Publish(bool committed) {
  published_ = true;
  if (lookAhead_ != nullptr) lookAhead_->Settle(committed && prepared_);
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

bool FileWriter::Run(const unsigned char* bytes, std::int32_t count, std::int32_t& fileId) {
  const bool batched = options_.deferCompression && d_.appendChunks != nullptr;
  // The appendChunks call takes the lock itself, before it reads anything.
  if (!batched && d_.lockForWrite != nullptr && !db_.ExecuteDirect(d_.lockForWrite)) {
    return false;
  }
  // A batched file with chunks gets its row from the first appendChunks
  // call, in the same round trip.
  fileId = 0;
  if (!batched || count == 0) {
    OdbcStatement* insert = session_.Prepared(d_.insertFile);
    if (insert == nullptr) return false;
    insert->SetInt32(1, count);
    if (!insert->Execute() || !ReadIdentity(session_, d_, insert, fileId)) return false;
  }
  const auto total = static_cast<std::size_t>(count);
  std::vector<double> fingerprints;
  if (lookAhead_ != nullptr) {
    ahead_ = lookAhead_->Take(bytes, total);
    if (ahead_ != nullptr) fingerprints = std::move(ahead_->fingerprints);
    lookAhead_->Expect(options_.nextBytes,
                       static_cast<std::size_t>(std::max(options_.nextCount, 0)));
  }
  if (fingerprints.empty()) {
    for (std::size_t offset = 0; offset < total; offset += kChunkBytes) {
      fingerprints.push_back(
          ChunkFingerprint(bytes + offset, std::min(kChunkBytes, total - offset)));
    }
  }
  for (const double fingerprint : fingerprints) ++remaining_[BucketOf(fingerprint)];
  for (std::size_t i = 0; i < fingerprints.size(); ++i) {
    if (batched) {
      const std::size_t run = std::min(fingerprints.size() - i, ChunksPerCall());
      if (!AppendChunks(fileId, bytes, total, fingerprints, i, run)) return false;
      i += run - 1;
      continue;
    }
    const std::size_t offset = i * kChunkBytes;
    chunk_ = static_cast<std::int32_t>(i);
    std::int32_t touched = 0;
    if (!AddChunk(fileId, bytes + offset, std::min(kChunkBytes, total - offset), fingerprints[i],
                  touched)) {
      return false;
    }
    if (options_.deferCompression) CompressWhatIsFinished(BucketOf(fingerprints[i]), touched);
  }
  return WritePending(true);
}

bool FileWriter::KeepsPrefix(std::int32_t chunks) const {
  return cache_ != nullptr && chunks < kMaxChunksPerComposite;
}

void FileWriter::Retire(std::int32_t id) {
  if (cache_ == nullptr) return;
  offered_.erase(id);
  if (auto found = written_.find(id); found != written_.end()) {
    found->second = nullptr;  // rewritten by this transaction before it commits
  } else {
    // Whatever this transaction does next, the entry goes: at the commit
    // the new data replaces it, a rollback forgets it.
    cache_->Forget(id);
  }
}

std::shared_ptr<const CompositeCache::Entry> FileWriter::Known(std::int32_t id) {
  if (auto found = written_.find(id); found != written_.end()) return found->second;
  return cache_->Find(id);
}

bool FileWriter::Fetch(std::int32_t id, std::int32_t chunks, Bytes& data, bool compressed,
                       bool haveData, Bytes& plain, std::shared_ptr<const GzipPrefix>& prefix,
                       const CompositeCache::Entry* vouched) {
  // An entry that can stand for the composite's row as the search saw it.
  const auto take = [&](const CompositeCache::Entry* entry) {
    // (An entry without a stream gave it to work done ahead; its bytes
    // still stand.)
    if (entry == nullptr || entry->plain == nullptr || entry->chunks != chunks ||
        entry->compressed != compressed) {
      return false;
    }
    plain = *entry->plain;
    prefix = entry->prefix;
    Retire(id);
    return true;
  };
  if (take(vouched)) return true;
  if (cache_ == nullptr) {
    return haveData ? Unpack(data, compressed, plain) : ReadComposite(session_, d_, id, plain);
  }
  std::shared_ptr<const CompositeCache::Entry> known = Known(id);
  if (!haveData && known != nullptr && !known->stored.empty() && d_.compositeDataIs != nullptr) {
    // The database compares what it holds with what the entry remembers.
    bool same = false;
    if (!CompositeDataIs(session_, d_, id, known->stored, same)) return false;
    if (same && take(known.get())) return true;
  }
  if (!haveData && !ReadCompositeData(session_, d_, id, data, compressed)) {
    return false;
  }
  if (known != nullptr && known->stored == data && take(known.get())) return true;
  return Unpack(data, compressed, plain);
}

bool FileWriter::AddChunk(std::int32_t fileId, const unsigned char* chunk, std::size_t length,
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
    entry.fftRms = composite;
    entry.sum = sum + fingerprint;
    entry.lastChunk = chunk_;
    entry.bucket = BucketOf(composite);
    entry.submitted = false;
    entry.ahead = false;
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

std::size_t FileWriter::ChunksPerCall() const {
  return std::clamp<std::size_t>(options_.deferredBytesLimit / kChunkBytes / 2, 1, 1024);
}

bool FileWriter::AppendChunks(std::int32_t& fileId, const unsigned char* bytes, std::size_t total,
                              const std::vector<double>& fingerprints, std::size_t first,
                              std::size_t run) {
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
  append->SetInt32(2, static_cast<std::int32_t>(total));
  append->SetText(3, fingerprintList_);
  append->SetText(4, lengthList_);
  append->SetText(5, heldIds_);
  append->SetText(6, knownIds_);
  append->SetText(7, knownVersions_);
  append->SetBit(8, first + run == fingerprints.size());
  if (!append->Execute()) return false;
  using C = AppendColumns;
  bool ok = true;
  for (std::size_t i = first; ok && i < first + run; ++i) {
    chunk_ = static_cast<std::int32_t>(i);
    std::int32_t file = 0;
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
         append->GetBit(C::kCurrent, current) && append->GetInt32(C::kFileId, file) && file > 0 &&
         (fileId == 0 || file == fileId) &&
         TakeChunk(bytes + i * kChunkBytes, std::min(kChunkBytes, total - i * kChunkBytes),
                   fingerprints[i], id, chunksBefore, compressed, start, composite, data_, current);
    if (ok) {
      fileId = file;
      CompressWhatIsFinished(BucketOf(fingerprints[i]), id);
    }
  }
  ok = ok && append->Fetch() == OdbcStatement::Row::kEnd;
  append->CloseCursor();
  offered_.clear();
  return ok && WritePendingIfLarge();
}

void FileWriter::OfferKnownVersions() {
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
    if (entry.version < 0 || entry.plain == nullptr) {
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

double FileWriter::SumAfter(std::int32_t id, std::int32_t chunksBefore, double fingerprint,
                            double mean) const {
  if (chunksBefore == 0) return fingerprint;
  const LookAhead::State* before = nullptr;
  if (auto found = states_.find(id); found != states_.end()) {
    before = &found->second;
  } else if (lookAhead_ != nullptr) {
    before = lookAhead_->Find(id);
  }
  if (before != nullptr && before->chunks == chunksBefore) return before->sum + fingerprint;
  return mean * (chunksBefore + 1);  // near: enough for a guess
}

bool FileWriter::TakeChunk(const unsigned char* chunk, std::size_t length, double fingerprint,
                           std::int32_t id, std::int32_t chunksBefore, bool compressed,
                           std::int32_t start, double composite, Bytes& data, bool current) {
  auto pending = pending_.find(id);
  double sum = 0;
  if (pending == pending_.end()) {
    sum = SumAfter(id, chunksBefore, fingerprint, composite);
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
  } else {
    sum = pending->second.sum + fingerprint;
    if (pending->second.plain.use_count() > 1) {
      // A background job still reads these bytes: append to a copy.
      pending->second.plain = std::make_shared<Bytes>(*pending->second.plain);
    }
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
  entry.fftRms = composite;
  entry.sum = sum;
  entry.lastChunk = chunk_;
  entry.bucket = BucketOf(composite);
  entry.submitted = false;
  entry.ahead = false;
  return true;
}

bool FileWriter::NewComposite(std::int32_t fileId, const unsigned char* chunk, std::size_t length,
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
  if (!insert->Execute() || !ReadIdentity(session_, d_, insert, id)) return false;
  if (options_.deferCompression) {
    pendingBytes_ += length;
    Pending& entry = pending_[id];
    entry.plain = std::move(plain);
    entry.generation = 1;
    entry.chunks = 1;
    entry.fftRms = fingerprint;
    entry.sum = fingerprint;
    entry.lastChunk = chunk_;
    entry.bucket = BucketOf(fingerprint);
  }
  return InsertChunk(fileId, 1, id, 1, length, fingerprint) && WritePendingIfLarge();
}

bool FileWriter::InsertChunk(std::int32_t fileId, std::int32_t ordinal, std::int32_t compositeId,
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

void FileWriter::CompressWhatIsFinished(int bucket, std::int32_t touched) {
  const bool bucketDone = --remaining_[bucket] == 0;
  const auto reachable = [this](int b) {
    for (int near = b - 1; near <= b + 1; ++near) {
      auto found = remaining_.find(near);
      if (found != remaining_.end() && found->second > 0) return true;
    }
    return false;
  };
  const auto consider = [&](std::int32_t id, Pending& entry) {
    if (entry.submitted || entry.ahead || reachable(entry.bucket)) return;
    if (ComputedAhead(entry)) {
      entry.ahead = true;  // its result is (being) computed already
      return;
    }
    entry.submitted = compressor_.Submit(id, entry.generation, entry.plain, entry.prefix,
                                         KeepsPrefix(entry.chunks), entry.streamWithJob);
    entry.streamWithJob = entry.streamWithJob || entry.submitted;
  };
  if (bucketDone) {
    for (auto& [id, entry] : pending_) consider(id, entry);
  } else if (auto found = pending_.find(touched); found != pending_.end()) {
    consider(touched, found->second);
  }
}

bool FileWriter::WritePendingIfLarge() {
  return pendingBytes_ <= options_.deferredBytesLimit || WritePending();
}

bool FileWriter::ComputedAhead(const Pending& entry) const {
  if (ahead_ == nullptr) return false;
  auto found = ahead_->predicted.find(entry.lastChunk);
  return found != ahead_->predicted.end() && *found->second == *entry.plain;
}

void FileWriter::StartNext(std::unordered_map<std::int32_t, LookAhead::Written>& written) {
  // Composites written earlier in this file (their entries go to the cache
  // at the commit) are offered too.
  std::vector<std::int32_t> earlier;
  for (const auto& [id, entry] : written_) {
    if (entry != nullptr && written.count(id) == 0) {
      written.emplace(id, LookAhead::Written{entry->plain, entry->prefix});
      earlier.push_back(id);
    }
  }
  lookAhead_->Prepare(states_, written, cache_, options_.nextBytes,
                      static_cast<std::size_t>(std::max(options_.nextCount, 0)));
  prepared_ = true;
  for (const std::int32_t id : earlier) {
    std::shared_ptr<const CompositeCache::Entry>& entry = written_[id];
    if (written[id].prefix == nullptr && entry->prefix != nullptr) {
      auto stripped = std::make_shared<CompositeCache::Entry>(*entry);
      stripped->prefix = nullptr;  // the look-ahead took the stream
      entry = std::move(stripped);
    }
  }
}

bool FileWriter::WritePending(bool last) {
  // Without composites to write, the next file is still looked at.
  if (pending_.empty()) {
    if (last && lookAhead_ != nullptr) {
      std::unordered_map<std::int32_t, LookAhead::Written> none;
      StartNext(none);
    }
    return true;
  }
  if (ahead_ != nullptr && !aheadDone_) {
    // Takes part in what is left of it.
    aheadResults_ = ahead_->compressor->Drain();
    aheadDone_ = true;
  }
  std::map<std::int32_t, BackgroundCompressor::Result> done = compressor_.Drain();
  std::vector<const Bytes*> plains;
  std::vector<std::shared_ptr<const GzipPrefix>> prefixes;
  std::vector<bool> keep;
  std::vector<StoredForm*> chosen(pending_.size(), nullptr);
  std::size_t i = 0;
  for (auto& [id, entry] : pending_) {
    auto result = done.find(id);
    auto ahead = aheadResults_.find(entry.lastChunk);
    const bool computedAhead =
        ahead != aheadResults_.end() && ahead->second.ok && *ahead->second.plain == *entry.plain;
    if (ahead_ != nullptr) lookAhead_->Count(computedAhead);
    if (computedAhead) {
      chosen[i] = &ahead->second.form;
    } else if (result != done.end() && result->second.ok &&
               result->second.generation == entry.generation) {
      chosen[i] = &result->second.form;
    } else {
      plains.push_back(entry.plain.get());
      // The stream not yet taken by a job, else the one a stale job kept.
      std::shared_ptr<const GzipPrefix> prefix = std::move(entry.prefix);
      if (prefix == nullptr && result != done.end()) prefix = result->second.form.TakePrefix();
      prefixes.push_back(std::move(prefix));
      keep.push_back(KeepsPrefix(entry.chunks));
    }
    ++i;
  }
  std::vector<StoredForm> forms(plains.size());
  if (!MakeStoredForms(plains, prefixes, keep, forms)) return false;
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
    states_[id] = {entry.chunks, entry.fftRms, entry.sum};
  }
  // The streams kept for later appends.
  std::vector<std::shared_ptr<const GzipPrefix>> kept(writes.size());
  if (cache_ != nullptr) {
    for (std::size_t w = 0; w < writes.size(); ++w) kept[w] = writes[w].form->TakePrefix();
  }
  // Composites that can still grow: remembered after the commit, with their
  // stream unless the look-ahead took it.
  std::vector<bool> keptAny(writes.size());
  for (std::size_t w = 0; w < writes.size(); ++w) keptAny[w] = kept[w] != nullptr;
  // The next file's guess, which starts its compression, runs beside this
  // file's writes on a thread of its own when they wait for a database
  // server (SQLite's writes are this thread's own work: there the guess
  // would only compete for the processor). It touches written_, states_
  // and the look-ahead, which nothing here touches before it is joined.
  std::unordered_map<std::int32_t, LookAhead::Written> written;
  std::thread guessing;
  const bool guess = last && lookAhead_ != nullptr;
  if (guess) {
    for (std::size_t w = 0; w < writes.size(); ++w) {
      written[writes[w].id] = {writes[w].entry->plain, std::move(kept[w])};
    }
    if (d_.engine != Engine::kSqlite) {
      try {
        guessing = std::thread([this, &written] { StartNext(written); });
      } catch (const std::system_error&) {
      }
    }
    if (!guessing.joinable()) StartNext(written);
  }
  struct Joiner {
    std::thread& thread;
    ~Joiner() {
      if (thread.joinable()) thread.join();
    }
  } joiner{guessing};
  // With the counts, fingerprints as text (the parameters point into it).
  std::vector<std::string> fftTexts;
  if (d_.dataWritesSetCounts) {
    fftTexts.reserve(writes.size() + 1);
    for (const Write& w : writes) {
      char text[32];
      const std::to_chars_result written = std::to_chars(text, text + sizeof text, w.entry->fftRms);
      if (written.ec != std::errc()) return false;
      fftTexts.emplace_back(text, written.ptr);
    }
    fftTexts.emplace_back("0");  // for spare rows
  }
  const int perRow = d_.dataWritesSetCounts ? 5 : 3;
  std::size_t next = 0;
  // In batches, each the smallest that holds the writes left (or the
  // largest), its spare rows naming composite 0, which no row has (ids
  // start at 1): one round trip per 16 composites. A last single write goes
  // by itself.
  static const unsigned char kNothing[1] = {0};
  while (writes.size() - next > 1) {
    const std::size_t left = writes.size() - next;
    int size = -1;
    for (int s = 0; s < kDataBatchSizes; ++s) {
      if (d_.updateCompositeDataBatch[s] == nullptr) continue;
      size = s;
      if (static_cast<std::size_t>(DataBatchRows(s)) >= left) break;
    }
    if (size < 0) break;  // no batches in this dialect
    const auto rows = static_cast<std::size_t>(DataBatchRows(size));
    OdbcStatement* batch = session_.Prepared(d_.updateCompositeDataBatch[size]);
    if (batch == nullptr) return false;
    for (std::size_t row = 0; row < rows; ++row) {
      const int column = perRow * static_cast<int>(row);
      if (row < left) {
        const Write& w = writes[next + row];
        batch->SetInt32(column + 1, w.id);
        batch->SetBinary(column + 2, w.form->bytes(), w.form->count(), d_.longBinary);
        batch->SetBit(column + 3, w.form->compressed());
        if (d_.dataWritesSetCounts) {
          batch->SetInt32(column + 4, w.entry->chunks);
          batch->SetText(column + 5, fftTexts[next + row]);
        }
      } else {
        batch->SetInt32(column + 1, 0);
        batch->SetBinary(column + 2, kNothing, 0, d_.longBinary);
        batch->SetBit(column + 3, false);
        if (d_.dataWritesSetCounts) {
          batch->SetInt32(column + 4, 0);
          batch->SetText(column + 5, fftTexts.back());
        }
      }
    }
    if (!batch->Execute() || !ReadVersions(d_, batch, versions_)) return false;
    next += std::min(rows, left);
  }
  if (next < writes.size()) {
    OdbcStatement* update = session_.Prepared(d_.updateCompositeData);
    if (update == nullptr) return false;
    for (; next < writes.size(); ++next) {
      const Write& w = writes[next];
      update->SetBinary(1, w.form->bytes(), w.form->count(), d_.longBinary);
      update->SetBit(2, w.form->compressed());
      if (d_.dataWritesSetCounts) {
        update->SetInt32(3, w.entry->chunks);
        update->SetText(4, fftTexts[next]);
        update->SetInt32(5, w.id);
      } else {
        update->SetInt32(3, w.id);
      }
      if (!update->Execute() || !ReadVersions(d_, update, versions_)) return false;
    }
  }
  if (guess) {
    if (guessing.joinable()) guessing.join();
    // What the guess left of the streams (a taken one: null).
    for (std::size_t w = 0; w < writes.size(); ++w) {
      kept[w] = std::move(written[writes[w].id].prefix);
    }
  }
  if (cache_ != nullptr) {
    for (std::size_t k = 0; k < writes.size(); ++k) {
      const Write& w = writes[k];
      if (!keptAny[k]) continue;
      auto known = std::make_shared<CompositeCache::Entry>();
      known->plain = w.entry->plain;
      known->stored.assign(w.form->bytes(), w.form->bytes() + w.form->count());
      known->compressed = w.form->compressed();
      known->chunks = w.entry->chunks;
      known->prefix = std::move(kept[k]);
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

}  // namespace zelvarpack::store
