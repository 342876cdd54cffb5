// A composite's bytes as the store keeps them in its data column, both ways:
// the stored form (gzip when strictly shorter, else the bytes themselves),
// made one at a time or several at once over the processor's cores, and the
// bytes unpacked again from a stored row. StoredForm objects belong to one
// thread at a time; the functions are safe from any thread.
#ifndef ZELVARPACK_STORE_STORED_FORM_H_
#define ZELVARPACK_STORE_STORED_FORM_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "store/chunk_fingerprint.h"
#include "store/gzip_prefix.h"

namespace zelvarpack::store {

inline constexpr int kMaxChunksPerComposite = 25;
inline constexpr std::size_t kMaxCompositeBytes = kMaxChunksPerComposite * kChunkBytes;

using Bytes = std::vector<unsigned char>;

// A composite's stored form: its gzip form when strictly shorter than the
// bytes themselves, else the bytes.
class StoredForm {
 public:
  // False when compression fails. With `prefix` (a stream that consumed a
  // prefix of `plain`) the gzip form continues it, in place when this was
  // its last owner (GzipPrefix::Finish); with `keepPrefix` the form also
  // keeps a stream over `plain` for a later append.
  bool Make(const Bytes& plain, std::shared_ptr<const GzipPrefix> prefix = nullptr,
            bool keepPrefix = false);
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
// `prefixes` are handed to Make (and released); `keepPrefixes` says for
// which composites a stream is kept. False when any compression fails.
bool MakeStoredForms(const std::vector<const Bytes*>& plains,
                     std::vector<std::shared_ptr<const GzipPrefix>>& prefixes,
                     const std::vector<bool>& keepPrefixes, std::vector<StoredForm>& forms);

// The uncompressed bytes of a composite as stored: gunzipped when flagged.
bool Unpack(const Bytes& data, bool compressed, Bytes& plain);

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_STORED_FORM_H_
