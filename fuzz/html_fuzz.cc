// libFuzzer target: arbitrary bytes through the HTML tokenizer, the
// constructor and the meta finder. Besides the sanitizers' checks it asserts
// the tokens' own invariants: strings are terminated and never longer than
// the input they came from.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "html/html_constructor.h"
#include "html/html_tokenizer.h"
#include "zelvarpack/meta_finder.h"

namespace {

class CheckingConsumer : public CHtmlConstructorEvents {
 public:
  explicit CheckingConsumer(std::size_t inputSize) : limit_(static_cast<std::int32_t>(inputSize)) {}
  void OnTag(HtmlTagToken* tag) override {
    Check(tag->name);
    for (HtmlAttribute* a = tag->FirstAttribute(); a != nullptr; a = a->next) {
      Check(a->name);
      Check(a->value);
      if (a->next != nullptr && a->next->previous != a) std::abort();
    }
  }
  void OnDoctype(HtmlDoctypeToken* doctype) override {
    Check(doctype->name);
    Check(doctype->publicId);
    Check(doctype->systemId);
  }
  void OnText(HtmlTextToken* text) override { Check(text->text); }

 private:
  void Check(const HtmlString& s) const {
    if (s.length < 0 || s.length > limit_ + 8 || s.data[s.length] != 0) std::abort();
  }
  std::int32_t limit_;
};

constexpr std::uint32_t kStates[] = {HtmlTokenizer::kDataState, HtmlTokenizer::kRcdataState,
                                     HtmlTokenizer::kRawtextState, HtmlTokenizer::kScriptDataState,
                                     HtmlTokenizer::kPlaintextState};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > (1u << 20)) return 0;
  std::vector<unsigned char> page(data, data + size);

  void* finder = CMetaFinder::Create();
  CMetaFinder::AddWork(finder, page.data(), static_cast<std::int32_t>(page.size()));
  CMetaFinder::DoWork(finder);
  std::int32_t found = -1;
  CMetaFinder::Destroy(finder, found);
  if (found != 0 && found != 1) std::abort();

  // The first byte picks the text state the tokenizer starts in.
  if (size == 0) return 0;
  page.assign(data + 1, data + size);
  CheckingConsumer consumer(page.size());
  CHtmlConstructor constructor(&consumer);
  constructor.Tokenizer()->state = kStates[data[0] % 5];
  constructor.Tokenizer()->SetLastStartTagName(reinterpret_cast<const unsigned char*>("script"), 6);
  constructor.Tokenizer()->Tokenize(page.data(), static_cast<int>(page.size()));
  for (unsigned char c : page) {
    if (c == '\r') std::abort();  // every CR became LF
  }
  return 0;
}
