#include "page/page_analysis.h"

#include <cstring>
#include <string_view>
#include <utility>

#include "css/style_finder.h"
#include "html/ascii.h"
#include "html/markup_writer.h"
#include "page/script_scanner.h"
#include "page/script_text.h"

namespace zelvarpack::page {

namespace {

using html::AttributeRecord;
using html::NameIsOneOf;
using html::TagRecord;
using html::View;

// Called several times for every tag: the length is compared first, inline.
bool Is(std::string_view name, std::string_view wanted) {
  return name.size() == wanted.size() &&
         html::EqualsIgnoringAsciiCase(reinterpret_cast<const unsigned char*>(name.data()),
                                       wanted.data(), wanted.size());
}

std::string_view ValueOf(const AttributeRecord* attribute) {
  return attribute != nullptr ? std::string_view(attribute->value) : std::string_view();
}

bool StartsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && Is(text.substr(0, prefix.size()), prefix);
}

// The per-element switch: "on" forces the element in, "off" keeps it out
// while the page-wide switch is on.
bool SwitchAllows(bool on, const TagRecord& tag, std::string_view onName,
                  std::string_view offName) {
  if (tag.Find(onName) != nullptr) return true;
  return on && tag.Find(offName) == nullptr;
}

bool MediaAllows(const AttributeRecord* media) {
  return media == nullptr || Is(media->value, "all") || Is(media->value, "screen");
}

bool HasNoId(const TagRecord& tag) {
  const AttributeRecord* id = tag.Find("id");
  return id == nullptr || id->value.empty();
}

// A size text an image placeholder can use as it stands: digits only (a
// percentage or a unit would be read as a pixel count).
bool IsPixelCount(std::string_view text) {
  if (text.empty() || text.size() > 6) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

void WriteTag(PageState& page, const HtmlTagToken& tag) {
  html::AppendTag(*page.text, tag);
  page.lastTextWasBlank = false;
}

void WriteRecord(PageState& page, const TagRecord& tag,
                 std::initializer_list<std::string_view> omit) {
  html::AppendTag(*page.text, tag, omit);
  page.lastTextWasBlank = false;
}

// Starts the download of a segment's resource, when the address may be
// fetched at all. Returns false when it may not.
bool StartFetch(PageState& page, PageSegment& segment, std::string_view reference) {
  if (!page.pageAddress) return false;
  const std::optional<PageAddress> resolved = Resolve(*page.pageAddress, reference);
  if (!resolved) return false;
  const std::string publicUrl = ToString(*resolved);
  std::string fetchUrl = publicUrl;
  if (!SameOrigin(*resolved, *page.pageAddress)) {
    if (!page.fetchForeignHosts) return false;
  } else if (!page.useOwnHost && page.serverAddress && !page.serverAddress->empty()) {
    fetchUrl = OnServer(*resolved, *page.serverAddress);
  }
  segment.fetch = page.fetches->Start(publicUrl, std::move(fetchUrl));
  return true;
}

// Adds a segment for a resource, starts its download, and opens the text
// segment behind it. Nothing is added when the address cannot be fetched.
bool AddFetchedSegment(PageState& page, SegmentKind kind, const TagRecord& tag,
                       std::string_view reference) {
  PageSegment candidate;
  candidate.kind = kind;
  if (!StartFetch(page, candidate, reference)) return false;
  candidate.element = tag;
  PageSegment& segment = page.AddSegment(kind);
  segment = std::move(candidate);
  page.AddSegment(SegmentKind::kText);
  page.lastTextWasBlank = false;
  return true;
}

// Whether the client can show images as sprite backgrounds: anything but
// old Internet Explorer; version 9 only in standards mode.
bool ClientTakesSprites(const PageState& page) {
  const char* agent = page.userAgent;
  if (agent == nullptr) return false;
  if (std::strstr(agent, "MSIE ") == nullptr) return true;
  if (std::strstr(agent, "MSIE 10.") != nullptr || std::strstr(agent, "MSIE 11.") != nullptr) {
    return true;
  }
  return std::strstr(agent, "MSIE 9.") != nullptr && page.constructor->quirksMode == 0;
}

bool TakeImage(PageState& page, const TagRecord& tag) {
  if (!ClientTakesSprites(page)) return false;
  if (!SwitchAllows(page.imagesOn, tag, "zp_image_on", "zp_image_off")) return false;
  const std::string_view src = ValueOf(tag.FindLast("src"));
  if (html::TrimHtmlSpace(src).empty() || StartsWithIgnoringCase(html::TrimHtmlSpace(src), "data:"))
    return false;
  // A srcset makes the browser load its own choice over the placeholder.
  if (tag.Find("srcset") != nullptr) return false;

  std::string width(html::TrimHtmlSpace(ValueOf(tag.Find("width"))));
  std::string height(html::TrimHtmlSpace(ValueOf(tag.Find("height"))));
  if (const AttributeRecord* style = tag.Find("style")) {
    CStyleFinder finder;
    std::string copy = style->value;
    finder.Find(reinterpret_cast<unsigned char*>(copy.data()),
                static_cast<std::int32_t>(copy.size()));
    // The placeholder draws the image as a background sized to the
    // element's box: a background of its own, a percentage size or padding
    // would show something else.
    if (finder.hasBackground || finder.hasBackgroundImage || finder.hasUrl || finder.isPercentage) {
      return false;
    }
    for (CStyleFinder::Slot slot : {CStyleFinder::kPaddingBottom, CStyleFinder::kPaddingLeft,
                                    CStyleFinder::kPaddingRight, CStyleFinder::kPaddingTop}) {
      if (finder.Value(slot)->GetValueLength() > 0) return false;
    }
    auto take = [&finder](CStyleFinder::Slot slot, std::string& size) {
      CZelvarBuffer* value = finder.Value(slot);
      if (value->GetValueLength() > 0) {
        size.assign(reinterpret_cast<const char*>(value->GetValue()),
                    static_cast<std::size_t>(value->GetValueLength()));
      }
    };
    take(CStyleFinder::kWidth, width);
    take(CStyleFinder::kHeight, height);
  }
  if ((!width.empty() && !IsPixelCount(width)) || (!height.empty() && !IsPixelCount(height))) {
    return false;
  }
  if (!AddFetchedSegment(page, SegmentKind::kImage, tag, src)) return false;
  PageSegment& segment = page.segments[page.segments.size() - 2];
  segment.declaredWidth = std::move(width);
  segment.declaredHeight = std::move(height);
  return true;
}

bool TakeLink(PageState& page, const TagRecord& tag) {
  if (!SwitchAllows(page.cssOn, tag, "zp_css_on", "zp_css_off")) return false;
  if (!HasNoId(tag)) return false;
  const std::string_view href = ValueOf(tag.FindLast("href"));
  if (html::TrimHtmlSpace(href).empty()) return false;
  if (!MediaAllows(tag.Find("media"))) return false;
  const AttributeRecord* rel = tag.Find("rel");
  if (rel == nullptr || !Is(html::TrimHtmlSpace(rel->value), "stylesheet")) return false;
  const AttributeRecord* type = tag.Find("type");
  if (type != nullptr && !Is(html::TrimHtmlSpace(type->value), "text/css")) return false;
  return AddFetchedSegment(page, SegmentKind::kStylesheet, tag, href);
}

bool TakeStyle(PageState& page, const TagRecord& tag) {
  if (!SwitchAllows(page.cssOn, tag, "zp_css_on", "zp_css_off")) return false;
  if (!HasNoId(tag) || !MediaAllows(tag.Find("media"))) return false;
  const AttributeRecord* type = tag.Find("type");
  if (type != nullptr && !Is(html::TrimHtmlSpace(type->value), "text/css")) return false;
  page.inlineStyles->BeginInlineWork();
  page.inlineStylesDigest.UpdatePiece("<style>");
  page.inlineStylesUsed = true;
  page.insideOptimisedStyle = true;
  PageSegment& segment = page.AddSegment(SegmentKind::kInlineStyle);
  segment.element = tag;
  page.inlineStyle = &segment;
  page.AddSegment(SegmentKind::kText);
  page.lastTextWasBlank = false;
  return true;
}

// Scripts: a script runs combined only where eval() gives it the same
// meaning, and only after <head>, where the combined download is loaded.
bool TakeScript(PageState& page, const TagRecord& tag) {
  if (!SwitchAllows(page.scriptsOn, tag, "zp_js_on", "zp_js_off")) return false;
  for (const AttributeRecord& attribute : tag.attributes) {
    if (!NameIsOneOf(attribute.name, {"type", "src", "charset", "xml:space", "zp_js_on",
                                      "zp_js_off", "async", "defer"})) {
      return false;
    }
  }
  // Asynchronous and deferred scripts run at another time than in place.
  if (tag.Find("async") != nullptr || tag.Find("defer") != nullptr) return false;
  if (!page.headSeen) return false;
  const AttributeRecord* type = tag.Find("type");
  if (type != nullptr && !IsJavaScriptType(type->value)) return false;
  const std::string_view src = ValueOf(tag.FindLast("src"));
  if (tag.FindLast("src") != nullptr) {
    if (html::TrimHtmlSpace(src).empty()) return false;
    if (!AddFetchedSegment(page, SegmentKind::kScript, tag, src)) return false;
    page.insideFetchedScript = true;
    return true;
  }
  page.insideInlineScript = true;
  page.inlineScriptTag = tag;
  page.inlineScriptText.clear();
  return true;
}

// The end of an inline script that might be combined: combined when its
// whole text is safe for eval, else written back as it was.
void EndInlineScript(PageState& page) {
  page.insideInlineScript = false;
  if (IsSafeForEval(page.inlineScriptText)) {
    const std::int32_t number = ++page.scriptNumber;
    PageSegment& segment = page.AddSegment(SegmentKind::kInlineScript);
    segment.element = page.inlineScriptTag;
    segment.scriptNumber = number;
    segment.inlineText = page.inlineScriptText;
    page.AddSegment(SegmentKind::kText);
    page.lastTextWasBlank = false;
    CZelvarBuffer* content = page.inlineScripts->GetContent();
    std::string literal = ScriptVariableOpening(number);
    AppendEscapedScript(literal, page.inlineScriptText);
    literal += kScriptVariableClosing;
    content->Append(reinterpret_cast<const unsigned char*>(literal.data()),
                    static_cast<std::int32_t>(literal.size()));
  } else {
    WriteRecord(page, page.inlineScriptTag, {"zp_js_on", "zp_js_off"});
    *page.text += page.inlineScriptText;
  }
  page.inlineScriptText.clear();
  page.inlineScriptText.shrink_to_fit();
}

void UpdatePosition(PageState& page, const HtmlTagToken& tag) {
  const std::string_view name = View(tag.name);
  const int step = tag.kind == HtmlTagToken::kStartTag ? 1 : -1;
  auto update = [step](int& count) { count = step > 0 ? 1 : 0; };
  if (Is(name, "code")) update(page.insideCode);
  if (Is(name, "pre")) update(page.insidePre);
  if (Is(name, "script")) update(page.insideScript);
  if (Is(name, "textarea")) update(page.insideTextarea);
}

void HandleMarker(PageState& page, std::string_view body, bool& consumed) {
  consumed = true;
  if (Is(body, "zp_css_on")) {
    page.cssOn = true;
  } else if (Is(body, "zp_css_off")) {
    page.cssOn = false;
  } else if (Is(body, "zp_image_on")) {
    page.imagesOn = true;
  } else if (Is(body, "zp_image_off")) {
    page.imagesOn = false;
  } else if (Is(body, "zp_js_on")) {
    page.scriptsOn = true;
  } else if (Is(body, "zp_js_off")) {
    page.scriptsOn = false;
  } else if (body.size() >= 14 && Is(body.substr(0, 14), "zp_server_url ")) {
    page.serverUrl = std::string(body.substr(14));
  } else {
    consumed = false;
    if (Is(body, "zp_no_cache")) page.noCache = true;
    if (Is(body, "zp_send_stats")) page.sendStats = true;
  }
}

}  // namespace

PageSegment& PageState::AddSegment(SegmentKind kind) {
  if (!segments.empty() && segments.back().kind == SegmentKind::kText) {
    segments.back().textEnd = markup.size();
  }
  PageSegment& segment = segments.emplace_back();
  segment.kind = kind;
  segment.textBegin = segment.textEnd = markup.size();
  return segment;
}

void AnalyseTag(PageState& page, const HtmlTagToken& tag) {
  AnalyseTagEvent(page, tag);
  page.plainText = !page.insideOptimisedStyle && !page.insideInlineScript &&
                   !page.insideFetchedScript && !page.insideCode && !page.insidePre &&
                   !page.insideScript && !page.insideTextarea;
}

void AnalyseTagEvent(PageState& page, const HtmlTagToken& tag) {
  UpdatePosition(page, tag);
  const std::string_view name = View(tag.name);
  const bool start = tag.kind == HtmlTagToken::kStartTag;

  if (start && Is(name, "head") && !page.hasHeadStart) {
    page.hasHeadStart = true;
    page.headSeen = true;
    page.AddSegment(SegmentKind::kHeadStart).element = TagRecord::CopyOf(tag);
    page.AddSegment(SegmentKind::kText);
    page.lastTextWasBlank = false;
    return;
  }
  if (!start && Is(name, "head") && page.hasHeadStart && !page.hasHeadEnd) {
    page.hasHeadEnd = true;
    page.AddSegment(SegmentKind::kHeadEnd).element = TagRecord::CopyOf(tag);
    page.AddSegment(SegmentKind::kText);
    page.lastTextWasBlank = false;
    return;
  }
  if (start && Is(name, "img")) {
    const TagRecord record = TagRecord::CopyOf(tag);
    if (!TakeImage(page, record)) WriteRecord(page, record, {"zp_image_on", "zp_image_off"});
    return;
  }
  if (start && Is(name, "link")) {
    const TagRecord record = TagRecord::CopyOf(tag);
    if (!TakeLink(page, record)) WriteRecord(page, record, {"zp_css_on", "zp_css_off"});
    return;
  }
  if (Is(name, "style")) {
    if (start) {
      const TagRecord record = TagRecord::CopyOf(tag);
      if (!TakeStyle(page, record)) WriteRecord(page, record, {"zp_css_on", "zp_css_off"});
      return;
    }
    if (page.insideOptimisedStyle) {
      page.inlineStyles->EndInlineWork();
      page.inlineStylesDigest.UpdatePiece("</style>");
      page.insideOptimisedStyle = false;
      html::AppendTag(page.inlineStyle->closing, tag);
      page.inlineStyle = nullptr;
      return;
    }
    WriteTag(page, tag);
    return;
  }
  if (Is(name, "script")) {
    if (start) {
      const TagRecord record = TagRecord::CopyOf(tag);
      if (!TakeScript(page, record)) WriteRecord(page, record, {"zp_js_on", "zp_js_off"});
      return;
    }
    if (page.insideInlineScript) EndInlineScript(page);
    page.insideFetchedScript = false;
    WriteTag(page, tag);
    return;
  }
  WriteTag(page, tag);
}

void AnalyseDoctype(PageState& page, const HtmlDoctypeToken& doctype) {
  html::AppendDoctype(*page.text, doctype);
  page.lastTextWasBlank = false;
}

void AnalyseText(PageState& page, const HtmlTextToken& token) {
  const std::string_view text = View(token.text);
  if (token.kind == HtmlTextToken::kComment) {
    bool consumed = false;
    HandleMarker(page, text, consumed);
    if (consumed || !page.keepComments) return;
    html::AppendComment(*page.text, text);
    page.lastTextWasBlank = false;
    return;
  }
  if (page.insideOptimisedStyle) {
    page.inlineStylesDigest.Update(text);
    page.inlineStyle->inlineText += text;
    page.inlineStyles->AddInlineWork(token.text.data, token.text.length);
    return;
  }
  if (page.insideInlineScript) {
    page.inlineScriptText += text;
    return;
  }
  if (page.insideFetchedScript) return;
  if (token.cdata) {
    *page.text += "<![CDATA[";
    *page.text += text;
    *page.text += "]]>";
    page.lastTextWasBlank = false;
    return;
  }
  if (page.insideCode || page.insidePre || page.insideScript || page.insideTextarea ||
      text.size() != 1) {
    *page.text += text;
    page.lastTextWasBlank = false;
    return;
  }
  // Runs of blanks, tabs and line feeds outside preformatted text become
  // one blank.
  char c = text[0];
  if (c == '\t' || c == '\n') c = ' ';
  if (c == ' ') {
    if (page.lastTextWasBlank) return;
    page.lastTextWasBlank = true;
  } else {
    page.lastTextWasBlank = false;
  }
  *page.text += c;
}

void FinishAnalysis(PageState& page) {
  // Whatever happens below, the last text segment ends with the markup.
  struct CloseLastText {
    PageState& page;
    ~CloseLastText() { page.segments.back().textEnd = page.markup.size(); }
  } close{page};
  if (page.insideOptimisedStyle) {
    page.inlineStyles->EndInlineWork();
    page.inlineStylesDigest.UpdatePiece("</style>");
    page.insideOptimisedStyle = false;
    page.inlineStyle = nullptr;
  }
  if (page.insideInlineScript) {
    // Without its end tag the script is not complete: it stays as it was.
    page.insideInlineScript = false;
    WriteRecord(page, page.inlineScriptTag, {"zp_js_on", "zp_js_off"});
    *page.text += page.inlineScriptText;
  }
}

}  // namespace zelvarpack::page
