#include "zelvarpack/savings_calculator.h"

#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "core/cache_files.h"
#include "core/identifiers.h"
#include "html/ascii.h"
#include "html/html_constructor.h"
#include "html/markup_writer.h"
#include "html/tag_record.h"
#include "page/page_address.h"
#include "page/page_copy.h"
#include "page/proxy_rewriter.h"
#include "zelvarpack/zelvar_buffer.h"
#include "zelvarpack/zelvar_css_server.h"
#include "zelvarpack/zelvar_utils.h"

using zelvarpack::html::AttributeRecord;
using zelvarpack::html::NameIsOneOf;
using zelvarpack::html::TagRecord;
using zelvarpack::html::TrimHtmlSpace;

namespace {

// Each download may take this long.
constexpr std::int32_t kDownloadSeconds = 60;

enum class Kind { kImage, kStylesheet, kScript };

bool StartsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && NameIsOneOf(text.substr(0, prefix.size()), {prefix});
}

std::string_view ValueOf(const AttributeRecord* attribute) {
  return attribute != nullptr ? std::string_view(attribute->value) : std::string_view();
}

// The stylesheet rules of the page optimiser: a plain screen stylesheet
// with no id.
bool IsTakenStylesheet(const TagRecord& tag) {
  const AttributeRecord* id = tag.Find("id");
  if (id != nullptr && !id->value.empty()) return false;
  if (TrimHtmlSpace(ValueOf(tag.Find("href"))).empty()) return false;
  const AttributeRecord* media = tag.Find("media");
  if (media != nullptr && !NameIsOneOf(TrimHtmlSpace(media->value), {"all", "screen"})) {
    return false;
  }
  if (!NameIsOneOf(TrimHtmlSpace(ValueOf(tag.Find("rel"))), {"stylesheet"})) return false;
  const AttributeRecord* type = tag.Find("type");
  return type == nullptr || NameIsOneOf(TrimHtmlSpace(type->value), {"text/css"});
}

bool IsTakenScript(const TagRecord& tag) {
  if (TrimHtmlSpace(ValueOf(tag.Find("src"))).empty()) return false;
  const AttributeRecord* type = tag.Find("type");
  return type == nullptr || NameIsOneOf(TrimHtmlSpace(type->value), {"text/javascript"});
}

bool IsTakenImage(const TagRecord& tag) {
  const std::string_view src = TrimHtmlSpace(ValueOf(tag.Find("src")));
  return !src.empty() && !StartsWithIgnoringCase(src, "data:");
}

// A saved stylesheet is read from the folder, not from its site: its
// relative url() and @import addresses are made absolute against the
// address it came from, through the stylesheet server's filter mode (no
// sprites, nothing cached).
std::string WithAbsoluteAddresses(const std::string& sheetUrl, CZelvarBuffer& body) {
  CZelvarCssServer server(nullptr);
  server.SetIsFilter(0, nullptr);
  std::string name = sheetUrl;
  server.AddWork(name.data(), body.GetValue(), body.GetValueLength());
  server.DoWork();
  CZelvarBuffer* output = server.GetOutput();
  return std::string(reinterpret_cast<const char*>(output->GetValue()),
                     static_cast<std::size_t>(output->GetValueLength()));
}

}  // namespace

struct CSavingsCalculator::State {
  explicit State(CSavingsCalculator* owner) : constructor(owner) {}

  std::string directory;
  std::string pageUrl;
  std::optional<zelvarpack::page::PageAddress> pageAddress;
  std::string serverUrl;
  const char* forwardA = nullptr;
  const char* forwardB = nullptr;
  const char* userAgent = nullptr;

  CHtmlConstructor constructor;
  CZelvarBuffer input;
  std::string output;
  bool worked = false;
  std::int32_t totals[4] = {0, 0, 0, 0};

  // Downloads the resource `reference` points at, adds its sizes to the
  // totals and saves it in the folder; the saved file's name, or nothing
  // when there is no body to save.
  std::optional<std::string> Save(std::string_view reference, Kind kind);
  // `reference` made absolute against the page, when it is a relative http
  // or https address; nothing otherwise (absolute, data:, no page address).
  std::optional<std::string> Absolute(std::string_view reference) const;
};

std::optional<std::string> CSavingsCalculator::State::Absolute(std::string_view reference) const {
  const std::string_view trimmed = TrimHtmlSpace(reference);
  if (!pageAddress || trimmed.empty() || zelvarpack::page::HasScheme(trimmed)) return std::nullopt;
  const std::optional<zelvarpack::page::PageAddress> address =
      zelvarpack::page::Resolve(*pageAddress, reference);
  if (!address) return std::nullopt;
  std::string text = zelvarpack::page::ToString(*address);
  // The address goes back into an attribute: keep its quotes from closing it.
  if (text.find_first_of("\"'") != std::string::npos) return std::nullopt;
  return text;
}

std::optional<std::string> CSavingsCalculator::State::Save(std::string_view reference, Kind kind) {
  // Addresses are resolved the way the browser resolves them, so the saved
  // copy holds what the page really loads.
  std::optional<zelvarpack::page::PageAddress> address;
  if (pageAddress) {
    address = zelvarpack::page::Resolve(*pageAddress, reference);
  } else {
    address = zelvarpack::page::ParsePageAddress(zelvarpack::page::CleanReference(reference));
  }
  if (!address) return std::nullopt;
  std::string url = zelvarpack::page::ToString(*address);

  CZelvarUtils utils;
  std::int32_t sent = 0;
  std::int32_t travelled = 0;
  std::int32_t decoded = 0;
  bool cacheable = false;
  std::unique_ptr<CZelvarBuffer> body(utils.DownloadUrl(
      nullptr, forwardA, forwardB, pageUrl.c_str(), nullptr, nullptr, nullptr, userAgent,
      reinterpret_cast<unsigned char*>(url.data()), reinterpret_cast<unsigned char*>(url.data()),
      sent, travelled, decoded, cacheable, kDownloadSeconds));
  totals[0] += travelled;
  totals[2] += decoded;
  if (!cacheable) {
    totals[1] += travelled;
    totals[3] += decoded;
  }
  if (body == nullptr || body->GetValueLength() == 0) return std::nullopt;

  // Stylesheets and scripts keep an extension the browser knows them by
  // when it opens the folder: a stylesheet served from a file under an
  // unknown type is refused. Images are recognised by their bytes.
  std::string name = NewGuidString();
  bool saved = false;
  if (kind == Kind::kStylesheet) {
    name += ".css";
    saved =
        zelvarpack::PublishFile(zelvarpack::page::InFolder(directory, name),
                                {WithAbsoluteAddresses(url, *body)}, zelvarpack::Publish::kReplace);
  } else {
    name += kind == Kind::kScript ? ".js" : ".bin";
    saved = zelvarpack::PublishFile(
        zelvarpack::page::InFolder(directory, name),
        {std::string_view(reinterpret_cast<const char*>(body->GetValue()),
                          static_cast<std::size_t>(body->GetValueLength()))},
        zelvarpack::Publish::kReplace);
  }
  if (!saved) return std::nullopt;
  return name;
}

CSavingsCalculator::CSavingsCalculator() : state_(std::make_unique<State>(this)) {}

CSavingsCalculator::~CSavingsCalculator() = default;

void* CSavingsCalculator::Create(unsigned char* directory, std::int32_t directoryLength,
                                 unsigned char* pageUrl, std::int32_t pageUrlLength,
                                 unsigned char* serverUrl, std::int32_t serverUrlLength,
                                 const char* forwardA, const char* forwardB,
                                 const char* userAgent) {
  auto* calculator = new (std::nothrow) CSavingsCalculator;
  if (calculator == nullptr) return nullptr;
  State& state = *calculator->state_;
  state.directory = zelvarpack::page::CopyOfText(directory, directoryLength);
  state.pageUrl = zelvarpack::page::CopyOfText(pageUrl, pageUrlLength);
  state.pageAddress = zelvarpack::page::ParsePageAddress(state.pageUrl);
  state.serverUrl = zelvarpack::page::CopyOfText(serverUrl, serverUrlLength);
  state.forwardA = forwardA;
  state.forwardB = forwardB;
  state.userAgent = userAgent;
  state.output = "<!--zp_no_cache--><!--zp_server_url " + state.serverUrl + "-->";
  return calculator;
}

void CSavingsCalculator::AddWork(void* handle, unsigned char* data, std::int32_t length) {
  if (handle == nullptr || data == nullptr || length <= 0) return;
  static_cast<CSavingsCalculator*>(handle)->state_->input.AddValue(data, length);
}

void CSavingsCalculator::DoWork(void* handle) {
  if (handle == nullptr) return;
  State& state = *static_cast<CSavingsCalculator*>(handle)->state_;
  if (state.worked) return;
  state.worked = true;
  state.constructor.Tokenizer()->Tokenize(state.input.GetValue(), state.input.GetValueLength());
  zelvarpack::page::WriteIndexPage(state.directory, state.output);
}

void CSavingsCalculator::Destroy(void* handle, std::int32_t& total1, std::int32_t& total2,
                                 std::int32_t& total3, std::int32_t& total4) {
  auto* calculator = static_cast<CSavingsCalculator*>(handle);
  const std::int32_t none[4] = {0, 0, 0, 0};
  const std::int32_t* totals = calculator != nullptr ? calculator->state_->totals : none;
  total1 = totals[0];
  total2 = totals[1];
  total3 = totals[2];
  total4 = totals[3];
  delete calculator;
}

void CSavingsCalculator::OnTag(HtmlTagToken* tag) {
  std::string& out = state_->output;
  if (tag->kind != HtmlTagToken::kStartTag ||
      (!tag->name.EqualsIgnoringCase("img") && !tag->name.EqualsIgnoringCase("link") &&
       !tag->name.EqualsIgnoringCase("script"))) {
    zelvarpack::html::AppendTag(out, *tag);
    return;
  }
  TagRecord record = TagRecord::CopyOf(*tag);
  const char* attribute = "src";
  Kind kind = Kind::kImage;
  bool taken = false;
  if (tag->name.EqualsIgnoringCase("img")) {
    taken = IsTakenImage(record);
  } else if (tag->name.EqualsIgnoringCase("link")) {
    attribute = "href";
    kind = Kind::kStylesheet;
    taken = IsTakenStylesheet(record);
  } else {
    kind = Kind::kScript;
    taken = IsTakenScript(record);
  }
  // The first of repeated attributes is the one browsers load.
  auto* value = const_cast<AttributeRecord*>(record.Find(attribute));
  if (value == nullptr) {
    zelvarpack::html::AppendTag(out, *tag);
    return;
  }
  std::optional<std::string> replacement;
  if (taken) replacement = state_->Save(value->value, kind);
  // What is not saved is still loaded from its site: the copy is opened
  // from the folder, where a relative address finds nothing.
  if (!replacement) replacement = state_->Absolute(value->value);
  if (replacement) {
    value->value = std::move(*replacement);
    if (value->quoting != HtmlAttribute::kSingleQuoted)
      value->quoting = HtmlAttribute::kDoubleQuoted;
  }
  zelvarpack::html::AppendTag(out, record);
}

void CSavingsCalculator::OnDoctype(HtmlDoctypeToken* doctype) {
  zelvarpack::html::AppendDoctype(state_->output, *doctype);
}

void CSavingsCalculator::OnText(HtmlTextToken* text) {
  zelvarpack::page::AppendText(state_->output, *text);
}
