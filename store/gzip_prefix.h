// Gzip of a growing byte string without starting over: a deflate stream
// that has consumed a prefix of the bytes (never finished) is copied and
// continued with the rest. Its output is net::Compress's for the whole
// string, byte for byte (see the piece sizes in gzip_prefix.cc).
#ifndef ZELVARPACK_STORE_GZIP_PREFIX_H_
#define ZELVARPACK_STORE_GZIP_PREFIX_H_

#include <cstddef>
#include <memory>
#include <vector>

namespace zelvarpack::store {

class GzipPrefix {
 public:
  GzipPrefix(const GzipPrefix&) = delete;
  GzipPrefix& operator=(const GzipPrefix&) = delete;
  ~GzipPrefix();

  // The stream before any input; null when zlib cannot start one.
  static std::unique_ptr<GzipPrefix> Start();

  // How many leading bytes the stream has consumed (a multiple of 4096).
  std::size_t consumed() const { return consumed_; }

  // The gzip form of `bytes` (which must begin with the bytes this stream
  // consumed and be longer than them) into `gzip`, and in `next` a stream
  // that has consumed as many leading bytes of `bytes` as can be consumed
  // for any longer string. This stream is left unchanged, so several
  // threads may continue it at once. False when zlib fails.
  bool Finish(const unsigned char* bytes, std::size_t count, std::vector<unsigned char>& gzip,
              std::unique_ptr<GzipPrefix>* next) const;

  // Finish for a stream that has consumed nothing, without copying one:
  // the gzip form of `count` (at least one) bytes, and in `next` a stream
  // as Finish leaves it. False when zlib fails.
  static bool Compress(const unsigned char* bytes, std::size_t count,
                       std::vector<unsigned char>& gzip, std::unique_ptr<GzipPrefix>* next);

  // Finish for a stream reached through `prefix`, which is released. When
  // `prefix` is the stream's only owner nothing else can see the stream
  // change, so it is continued in place instead of copied: one copy of
  // deflate's state (for `next`) instead of two, none without `next`.
  // Otherwise exactly Finish. The output is the same either way.
  static bool Finish(std::shared_ptr<const GzipPrefix> prefix, const unsigned char* bytes,
                     std::size_t count, std::vector<unsigned char>& gzip,
                     std::unique_ptr<GzipPrefix>* next);

  // An estimate of the memory one stream holds.
  std::size_t Footprint() const;

 private:
  GzipPrefix();
  // Finish with `work`, a stream nothing else uses, which is spent after.
  static bool Continue(GzipPrefix& work, const unsigned char* bytes, std::size_t count,
                       std::vector<unsigned char>& gzip, std::unique_ptr<GzipPrefix>* next);
  struct Stream;
  std::unique_ptr<Stream> stream_;
  std::vector<unsigned char> output_;  // what the stream emitted so far
  std::size_t consumed_ = 0;
};

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_GZIP_PREFIX_H_
