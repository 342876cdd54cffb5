#include "store/stored_form.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>

#include "net/zlib_codec.h"

namespace zelvarpack::store {

bool StoredForm::Make(const Bytes& plain, std::shared_ptr<const GzipPrefix> prefix,
                      bool keepPrefix) {
  std::unique_ptr<GzipPrefix>* keep = keepPrefix ? &next_ : nullptr;
  if (prefix == nullptr ||
      !GzipPrefix::Finish(std::move(prefix), plain.data(), plain.size(), gzip_, keep)) {
    next_.reset();
    if (!GzipPrefix::Compress(plain.data(), plain.size(), gzip_, keep)) return false;
  }
  if (gzip_.empty()) return false;  // a gzip member is never empty
  compressed_ = gzip_.size() < plain.size();
  bytes_ = compressed_ ? gzip_.data() : plain.data();
  count_ = compressed_ ? gzip_.size() : plain.size();
  return true;
}

bool MakeStoredForms(const std::vector<const Bytes*>& plains,
                     std::vector<std::shared_ptr<const GzipPrefix>>& prefixes,
                     const std::vector<bool>& keepPrefixes, std::vector<StoredForm>& forms) {
  constexpr unsigned kMaxThreads = 8;
  std::atomic<std::size_t> next{0};
  std::atomic<bool> failed{false};
  const auto work = [&] {
    try {
      for (std::size_t i; (i = next++) < plains.size();) {
        if (!forms[i].Make(*plains[i], std::move(prefixes[i]), keepPrefixes[i])) failed = true;
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

}  // namespace zelvarpack::store
