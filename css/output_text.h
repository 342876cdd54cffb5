// OutputText is the growable byte string that minified stylesheet text is
// written into: inline appends of a few bytes, removal of the last byte (the
// minifier takes back a space it wrote), geometric growth, and a block that
// can be handed to a CZelvarBuffer without a copy. Not thread-safe.
#ifndef ZELVARPACK_CSS_OUTPUT_TEXT_H_
#define ZELVARPACK_CSS_OUTPUT_TEXT_H_

#include <cstddef>
#include <cstring>

namespace zelvarpack::css {

class OutputText {
 public:
  OutputText() = default;
  ~OutputText();
  OutputText(const OutputText&) = delete;
  OutputText& operator=(const OutputText&) = delete;

  void Append(const unsigned char* bytes, std::size_t count) {
    if (count > capacity_ - size_) Grow(count);
    unsigned char* to = data_ + size_;
    if (count <= 16) {
      // Most pieces are a few bytes: a loop beats a call to memcpy.
      for (std::size_t i = 0; i < count; ++i) to[i] = bytes[i];
    } else {
      std::memcpy(to, bytes, count);
    }
    size_ += count;
  }
  void Append(const char* text, std::size_t count) {
    Append(reinterpret_cast<const unsigned char*>(text), count);
  }
  void Append(unsigned char c) {
    if (size_ == capacity_) Grow(1);
    data_[size_++] = c;
  }
  // Removes the last byte, if any.
  void PopBack() {
    if (size_ > 0) --size_;
  }
  void Clear() { size_ = 0; }
  // Makes room for `count` more bytes without further growth; when that
  // takes a new block, it is exactly that large (a large one made of huge
  // pages, see core/buffer_blocks.h).
  void Reserve(std::size_t count) {
    if (count > capacity_ - size_) Reallocate(size_ + count);
  }
  // Gives up the block, which the caller frees with std::free; `*capacity`
  // receives its size. The text is empty afterwards.
  unsigned char* Release(std::size_t* capacity) {
    unsigned char* block = data_;
    *capacity = capacity_;
    data_ = nullptr;
    size_ = 0;
    capacity_ = 0;
    return block;
  }

  const unsigned char* data() const { return data_; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

 private:
  void Grow(std::size_t extra);
  void Reallocate(std::size_t capacity);

  unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace zelvarpack::css

#endif  // ZELVARPACK_CSS_OUTPUT_TEXT_H_
