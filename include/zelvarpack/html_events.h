// Token records of the HTML tokenizer and the three-event interface that every
// page consumer implements.
//
// The records are owned by the tokenizer and reused from token to token: a
// receiver borrows one for the duration of a single event call and copies what
// it keeps. None of these types is safe to share between threads; one page is
// parsed on one thread.
#ifndef ZELVARPACK_HTML_EVENTS_H_
#define ZELVARPACK_HTML_EVENTS_H_

#include <cstddef>
#include <cstdint>

#include "zelvarpack/export.h"

// A byte string that is always NUL-terminated. `reset` tells a string that was
// set to empty on purpose (1) from one that was never set (0): a DOCTYPE
// identifier written as "" is present but empty.
//
// Growth is amortised (capacity doubles); clearing keeps the block, so a
// reused token allocates only while it grows past its largest earlier size.
class HtmlString {
 public:
  HtmlString();
  ~HtmlString();
  HtmlString(const HtmlString&) = delete;
  HtmlString& operator=(const HtmlString&) = delete;

  void Append(unsigned char c) {
    if (length + 1 >= capacity) Grow(1);
    data[length++] = c;
    data[length] = 0;
    reset = 0;
  }
  void Append(const unsigned char* bytes, std::size_t count);
  // Empty on purpose: length 0, reset 1.
  void Clear() {
    length = 0;
    data[0] = 0;
    reset = 1;
  }
  // Back to the never-set state: length 0, reset 0.
  void Forget() {
    length = 0;
    data[0] = 0;
    reset = 0;
  }
  // Replaces the content with one byte (the per-byte text token's fast path).
  void SetByte(unsigned char c) {
    data[0] = c;
    data[1] = 0;
    length = 1;
    reset = 0;
  }
  void Assign(const unsigned char* bytes, std::size_t count) {
    Forget();
    Append(bytes, count);
  }
  bool Empty() const { return length == 0; }
  // ASCII case-insensitive comparison with a NUL-terminated literal.
  bool EqualsIgnoringCase(const char* literal) const;
  bool Equals(const char* literal) const;

  std::uint32_t reset = 0;
  unsigned char* data;
  std::int32_t length = 0;
  std::int32_t capacity;

 private:
  static constexpr std::int32_t kInlineCapacity = 50;

  void Grow(std::size_t extra);

  // Short strings (most names and values) live here; longer ones move to the
  // heap and keep their block when cleared.
  unsigned char inline_[kInlineCapacity];
};

// One unit of character data (normally one byte) or one whole comment.
struct HtmlTextToken {
  enum Kind : std::uint32_t { kCharacter = 0, kComment = 1 };
  std::uint32_t kind = kCharacter;
  // True when the token was made in the CDATA section state.
  bool cdata = false;
  HtmlString text;
};

// One attribute of a tag, in a doubly linked list in source order. Repeated
// names are all kept.
struct HtmlAttribute {
  // How the value was written, so that a tag can be written back as it was.
  enum Quoting : std::uint32_t {
    kNoValue = 0,  // a bare name (`disabled`), or a name and "=" with no value
    kDoubleQuoted = 1,
    kSingleQuoted = 2,
    kUnquoted = 3,
  };
  HtmlString name;
  HtmlString value;
  std::uint32_t flag = 0;  // Always 0; kept for layout compatibility.
  Quoting quoting = kNoValue;
  HtmlAttribute* previous = nullptr;
  HtmlAttribute* next = nullptr;
};

// A start tag (kind 0) or an end tag (kind 1). Names keep the case they were
// written in; consumers compare them case-insensitively.
class HtmlTagToken {
 public:
  enum Kind : std::uint32_t { kStartTag = 0, kEndTag = 1 };
  HtmlTagToken() = default;
  ~HtmlTagToken();
  HtmlTagToken(const HtmlTagToken&) = delete;
  HtmlTagToken& operator=(const HtmlTagToken&) = delete;

  // Empties the tag for reuse; attribute records go to a free list.
  void Reset(Kind new_kind);
  // Appends a new, empty attribute at the end of the list and returns it.
  HtmlAttribute* AddAttribute();
  HtmlAttribute* FirstAttribute() const { return first_attribute_; }
  HtmlAttribute* LastAttribute() const { return last_attribute_; }
  // The first attribute whose name equals `name` ASCII case-insensitively.
  HtmlAttribute* FindAttribute(const char* name) const;
  // The last such attribute (where a later repetition is the one that counts).
  HtmlAttribute* FindLastAttribute(const char* name) const;

  std::uint32_t kind = kStartTag;
  HtmlString name;
  std::uint32_t selfClosing = 0;

 private:
  HtmlAttribute* first_attribute_ = nullptr;
  HtmlAttribute* last_attribute_ = nullptr;
  HtmlAttribute* free_attributes_ = nullptr;
};

// A DOCTYPE. An identifier that was never written has length 0 and reset 0;
// one written as two quotes has length 0 and reset 1.
struct HtmlDoctypeToken {
  HtmlString name;
  HtmlString publicId;
  HtmlString systemId;
  std::uint32_t forceQuirks = 0;
};

// The consumer side of the HTML constructor. The base operations do nothing,
// so a consumer overrides only the events it needs.
class CHtmlConstructorEvents {
 public:
  virtual ~CHtmlConstructorEvents();
  virtual void OnTag(HtmlTagToken* tag);
  virtual void OnDoctype(HtmlDoctypeToken* doctype);
  // Character data (kind 0, normally one byte) or a whole comment (kind 1).
  virtual void OnText(HtmlTextToken* text);
  // A run of `count` (>= 1) bytes of character data, as most of a page's text
  // arrives. It means exactly one OnText per byte with `character` (a
  // one-byte character token) holding that byte, and that is what the base
  // operation does; a consumer that overrides it takes the whole run at once.
  virtual void OnTextRun(HtmlTextToken* character, const unsigned char* bytes, std::size_t count);
};

#endif  // ZELVARPACK_HTML_EVENTS_H_
