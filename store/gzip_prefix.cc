#include "store/gzip_prefix.h"

#include <zlib.h>

#if defined(__linux__)
#include <sys/mman.h>
#endif

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <unordered_map>

namespace zelvarpack::store {

namespace {

// The engine's gzip helper (net::Compress) feeds its input in 16384-byte
// pieces; a stream here consumes 4096-byte pieces, so that it can be kept
// at every chunk boundary of a composite. The output is the same: with no
// flush, deflate decides nothing until it holds a full lookahead, however
// the input arrives, and it slides its window only when the window is
// full, at multiples of 32768 input bytes, which both piece sizes reach at
// the end of a call. (Slide points decide whether a block may be stored,
// so piece sizes that do not divide 32768 could give other bytes.) Each
// deflate call gets an output area of kOutputArea bytes, which does not
// change the output either.
constexpr std::size_t kPiece = 4096;
constexpr std::size_t kOutputArea = 16384;
constexpr int kLevel = 9;
constexpr int kMemoryLevel = 9;
constexpr int kGzipWindowBits = 31;

// Deflate's working memory, about 390 KB per stream at these settings, is
// allocated anew for every stream copy, and blocks that large come from
// fresh mappings whose every page faults on first touch. Freed blocks are
// kept for the next stream instead, up to a bound. On Linux new blocks are
// cut from 2 MB-aligned slabs that the kernel may back with huge pages: a
// store's cache holds hundreds of streams, and first touching their memory
// page by page was a tenth of the tool's processor time (one fault per
// 4 KB instead of per 2 MB). Slab blocks are kept whatever the bound (a
// slab is never returned), so up to 256 MB of slabs stay mapped; past
// that, blocks come from the heap.
class BlockPool {
 public:
  static BlockPool& Instance() {
    // Never destroyed: streams may outlive static destruction.
    static BlockPool* const pool = new BlockPool;
    return *pool;
  }

  void* Allocate(std::size_t size) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      std::vector<Header*>& list = free_[size];
      if (!list.empty()) {
        Header* block = list.back();
        list.pop_back();
        kept_ -= size;
        return block + 1;
      }
    }
    Header* block = FromSlab(size);
    if (block == nullptr) {
      block = static_cast<Header*>(std::malloc(sizeof(Header) + size));
      if (block == nullptr) return nullptr;
      block->fromSlab = false;
    }
    block->size = size;
    return block + 1;
  }

  void Release(void* address) {
    Header* block = static_cast<Header*>(address) - 1;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (block->fromSlab || kept_ + block->size <= kMaxKept) {
        free_[block->size].push_back(block);
        kept_ += block->size;
        return;
      }
    }
    std::free(block);
  }

 private:
  struct alignas(16) Header {
    std::size_t size;
    bool fromSlab;
  };
  static constexpr std::size_t kMaxKept = std::size_t{64} << 20;
  static constexpr std::size_t kHugePage = std::size_t{2} << 20;
  static constexpr std::size_t kSlab = std::size_t{32} << 20;

  // A new block from the current slab (a new slab when it is used up), or
  // null where there are no slabs.
  Header* FromSlab(std::size_t size) {
#if defined(__linux__)
    const std::size_t bytes = (sizeof(Header) + size + 63) / 64 * 64;
    if (bytes > kSlab) return nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    if (slab_ == nullptr || slabUsed_ + bytes > kSlab) {
      if (slabs_ == kMaxSlabs) return nullptr;  // past the bound: the heap's
      void* mapped = ::mmap(nullptr, kSlab + kHugePage, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (mapped == MAP_FAILED) return nullptr;
      // The aligned part is used; the rest is given back.
      const auto start = reinterpret_cast<std::uintptr_t>(mapped);
      const std::uintptr_t aligned = (start + kHugePage - 1) / kHugePage * kHugePage;
      if (aligned > start) ::munmap(mapped, aligned - start);
      if (aligned + kSlab < start + kSlab + kHugePage) {
        ::munmap(reinterpret_cast<void*>(aligned + kSlab), start + kHugePage - aligned);
      }
      slab_ = reinterpret_cast<unsigned char*>(aligned);
      ::madvise(slab_, kSlab, MADV_HUGEPAGE);
      slabUsed_ = 0;
      ++slabs_;
    }
    auto* block = reinterpret_cast<Header*>(slab_ + slabUsed_);
    slabUsed_ += bytes;
    block->fromSlab = true;
    return block;
#else
    (void)size;
    return nullptr;
#endif
  }
  static constexpr int kMaxSlabs = 8;  // 256 MB
  unsigned char* slab_ = nullptr;      // guarded by mutex_
  int slabs_ = 0;                      // guarded by mutex_
  std::size_t slabUsed_ = 0;           // guarded by mutex_
  std::mutex mutex_;
  std::unordered_map<std::size_t, std::vector<Header*>> free_;  // guarded by mutex_
  std::size_t kept_ = 0;                                        // guarded by mutex_
};

voidpf PoolAlloc(voidpf, uInt items, uInt size) {
  return BlockPool::Instance().Allocate(std::size_t{items} * size);
}
void PoolFree(voidpf, voidpf address) { BlockPool::Instance().Release(address); }

// One piece of input; false on an error.
bool Feed(z_stream& stream, const unsigned char* bytes, std::size_t count, int flush,
          std::vector<unsigned char>& out) {
  unsigned char area[kOutputArea];
  stream.next_in = const_cast<unsigned char*>(bytes);
  stream.avail_in = static_cast<uInt>(count);
  do {
    stream.next_out = area;
    stream.avail_out = kOutputArea;
    const int status = deflate(&stream, flush);
    if (status != Z_OK && status != Z_STREAM_END && status != Z_BUF_ERROR) return false;
    out.insert(out.end(), area, area + (kOutputArea - stream.avail_out));
  } while (stream.avail_out == 0);
  return stream.avail_in == 0;
}

}  // namespace

struct GzipPrefix::Stream {
  z_stream z{};
  bool live = false;
  ~Stream() {
    if (live) deflateEnd(&z);
  }
};

GzipPrefix::GzipPrefix() : stream_(std::make_unique<Stream>()) {}
GzipPrefix::~GzipPrefix() = default;

std::unique_ptr<GzipPrefix> GzipPrefix::Start() {
  std::unique_ptr<GzipPrefix> prefix(new GzipPrefix);
  // Copies made by deflateCopy inherit these.
  prefix->stream_->z.zalloc = PoolAlloc;
  prefix->stream_->z.zfree = PoolFree;
  if (deflateInit2(&prefix->stream_->z, kLevel, Z_DEFLATED, kGzipWindowBits, kMemoryLevel,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    return nullptr;
  }
  // Unix as the header's system on every platform, as the gzip helper
  // writes it, so that stored data is the same bytes wherever it was made.
  // deflate keeps only a pointer to the header (copies share it), hence one
  // unchanging header for the process.
  static gz_header unixHeader = [] {
    gz_header header{};
    header.os = 3;
    return header;
  }();
  if (deflateSetHeader(&prefix->stream_->z, &unixHeader) != Z_OK) {
    deflateEnd(&prefix->stream_->z);
    return nullptr;
  }
  prefix->stream_->live = true;
  return prefix;
}

std::size_t GzipPrefix::Footprint() const {
  // Window, hash chains and heads, pending buffer (level 9, memory level 9).
  return (std::size_t{1} << 16) * 2 + (std::size_t{1} << 17) + (std::size_t{1} << 17) +
         output_.capacity() + sizeof(*this);
}

bool GzipPrefix::Finish(const unsigned char* bytes, std::size_t count,
                        std::vector<unsigned char>& gzip, std::unique_ptr<GzipPrefix>* next) const {
  if (count <= consumed_) return false;
  std::unique_ptr<GzipPrefix> work(new GzipPrefix);
  if (deflateCopy(&work->stream_->z, &stream_->z) != Z_OK) return false;
  work->stream_->live = true;
  work->output_ = output_;
  work->consumed_ = consumed_;
  return Continue(*work, bytes, count, gzip, next);
}

bool GzipPrefix::Finish(std::shared_ptr<const GzipPrefix> prefix, const unsigned char* bytes,
                        std::size_t count, std::vector<unsigned char>& gzip,
                        std::unique_ptr<GzipPrefix>* next) {
  if (prefix == nullptr) return false;
#if defined(__SANITIZE_THREAD__)
  // ThreadSanitizer does not model fences (and GCC refuses them under it):
  // there the stream is always copied, which gives the same output.
  return prefix->Finish(bytes, count, gzip, next);
#else
  if (prefix.use_count() != 1) return prefix->Finish(bytes, count, gzip, next);
  // The only owner: no other thread holds the stream or can obtain it. The
  // fence pairs with the release of the owners' count by the last of the
  // others, so that their reads of the stream happen before it changes.
  std::atomic_thread_fence(std::memory_order_acquire);
  if (count <= prefix->consumed_) return false;
  // Streams are never made const (Start and the copies create them
  // mutable); const only kept shared owners from changing them.
  auto& work = const_cast<GzipPrefix&>(*prefix);
  return Continue(work, bytes, count, gzip, next);
#endif
}

bool GzipPrefix::Compress(const unsigned char* bytes, std::size_t count,
                          std::vector<unsigned char>& gzip, std::unique_ptr<GzipPrefix>* next) {
  std::unique_ptr<GzipPrefix> work = Start();
  return count > 0 && work != nullptr && Continue(*work, bytes, count, gzip, next);
}

bool GzipPrefix::Continue(GzipPrefix& work, const unsigned char* bytes, std::size_t count,
                          std::vector<unsigned char>& gzip, std::unique_ptr<GzipPrefix>* next) {
  // Whole pieces go in without a flush: all of them when a stream is to be
  // kept (a string that ends on a piece boundary is then finished with no
  // further input, which gives the same output), else all but the last.
  const std::size_t flushFrom =
      next != nullptr ? count / kPiece * kPiece : (count - 1) / kPiece * kPiece;
  for (; work.consumed_ < flushFrom; work.consumed_ += kPiece) {
    if (!Feed(work.stream_->z, bytes + work.consumed_, kPiece, Z_NO_FLUSH, work.output_)) {
      return false;
    }
  }
  if (next != nullptr) {
    std::unique_ptr<GzipPrefix> kept(new GzipPrefix);
    if (deflateCopy(&kept->stream_->z, &work.stream_->z) != Z_OK) return false;
    kept->stream_->live = true;
    kept->output_ = work.output_;
    kept->consumed_ = work.consumed_;
    *next = std::move(kept);
  }
  gzip = std::move(work.output_);
  unsigned char area[kOutputArea];
  z_stream& z = work.stream_->z;
  z.next_in = const_cast<unsigned char*>(bytes + flushFrom);
  z.avail_in = static_cast<uInt>(count - flushFrom);
  int status;
  do {
    z.next_out = area;
    z.avail_out = kOutputArea;
    status = deflate(&z, Z_FINISH);
    if (status != Z_OK && status != Z_STREAM_END && status != Z_BUF_ERROR) return false;
    gzip.insert(gzip.end(), area, area + (kOutputArea - z.avail_out));
  } while (z.avail_out == 0);
  return status == Z_STREAM_END;
}

}  // namespace zelvarpack::store
