#include "page/page_writer.h"

#include <charconv>
#include <cmath>

#include "html/markup_writer.h"
#include "page/script_text.h"

namespace zelvarpack::page {

namespace {

constexpr std::string_view kPlaceholderId = "{2F50498C-8605-468F-991E-AEABAA95E643}";
constexpr std::string_view kRealSourceAttribute = "zp_2F50498C_8605_468F_991E_AEABAA95E643";

std::string Decimal(std::int32_t number) {
  char text[16];
  const auto result = std::to_chars(text, text + sizeof text, number);
  return std::string(text, result.ptr);
}

// An attribute value written between double quotes.
void AppendDoubleQuotable(std::string& out, std::string_view value) {
  for (char c : value) {
    if (c == '"') {
      out += "&quot;";
    } else {
      out += c;
    }
  }
}

void WriteScriptReference(const PageState& page, const std::string& id, std::string& out) {
  out += "<script type=\"text/javascript\" src=\"";
  out += HandlerPrefix(page, "JS");
  out += id;
  out += "\"></script>";
}

void WriteStylesheetReference(const PageState& page, const std::string& id, std::string& out) {
  out += "<link href=\"";
  out += HandlerPrefix(page, "CS");
  out += id;
  out += "\" type=\"text/css\" rel=\"stylesheet\"/>";
}

void WritePlaceholder(PageState& page, const PageSegment& segment, std::string& out) {
  const CZelvarImagePlacement& placement = segment.placement;
  out += "<img style=\"background:url(";
  out += HandlerPrefix(page, "IS");
  out += page.sheetIds[static_cast<std::size_t>(placement.sheetKind)];
  out += ") ";
  out += FormatPercent(placement.entry.positionX);
  out += "% ";
  out += FormatPercent(placement.entry.positionY);
  out += "% no-repeat;background-size:";
  out += FormatPercent(placement.entry.sizeX);
  out += "% ";
  out += FormatPercent(placement.entry.sizeY);
  out += "%;";
  if (const html::AttributeRecord* style = segment.element.Find("style")) {
    AppendDoubleQuotable(out, style->value);
  }
  out += '"';
  for (const html::AttributeRecord& attribute : segment.element.attributes) {
    if (html::NameIsOneOf(attribute.name, {"src", "style", "zp_image_on", "zp_image_off"})) {
      continue;
    }
    html::AppendAttribute(out, attribute.name, attribute.value, attribute.quoting);
  }
  out += " src=\"";
  out += HandlerPrefix(page, "IS");
  out += kPlaceholderId;
  out += "\" width=\"";
  out += Decimal(placement.width);
  out += "\" height=\"";
  out += Decimal(placement.height);
  out += "\" ";
  out += kRealSourceAttribute;
  out += "=\"";
  if (const html::AttributeRecord* src = segment.element.Find("src")) {
    AppendDoubleQuotable(out, src->value);
  }
  out += "\" />";
}

}  // namespace

std::string HandlerPrefix(const PageState& page, std::string_view handler) {
  std::string prefix;
  if (page.serverUrl) prefix += *page.serverUrl;
  if (page.handlerPath) {
    prefix += *page.handlerPath;
    prefix += '/';
  } else {
    prefix += "./";
  }
  prefix += handler;
  prefix += ".zp?";
  return prefix;
}

std::string FormatPercent(double value) {
  if (!std::isfinite(value)) value = 0;
  char text[64];
  const auto result =
      std::to_chars(text, text + sizeof text, value, std::chars_format::general, 15);
  return std::string(text, result.ptr);
}

void WritePage(PageState& page, CZelvarBuffer& buffer) {
  // Generated markup collects in `out` and goes to the buffer in pieces; the
  // page's own text goes straight from the markup block, so a large page is
  // copied once.
  std::string out;
  auto flush = [&out, &buffer] {
    buffer.Append(reinterpret_cast<const unsigned char*>(out.data()),
                  static_cast<std::int32_t>(out.size()));
    out.clear();
  };
  for (const PageSegment& segment : page.segments) {
    if (out.size() >= 65536) flush();
    switch (segment.kind) {
      case SegmentKind::kText:
        flush();
        buffer.Append(
            reinterpret_cast<const unsigned char*>(page.markup.data()) + segment.textBegin,
            static_cast<std::int32_t>(segment.textEnd - segment.textBegin));
        break;
      case SegmentKind::kHeadStart:
        html::AppendTag(out, segment.element);
        for (const std::string* id : {&page.fetchedScriptsId, &page.inlineScriptsId}) {
          if (id->empty()) continue;
          WriteScriptReference(page, *id, out);
          ++page.requestsAfter;
        }
        break;
      case SegmentKind::kHeadEnd:
        for (const std::string* id : {&page.linkedStylesId, &page.inlineStylesId}) {
          if (id->empty()) continue;
          WriteStylesheetReference(page, *id, out);
          ++page.requestsAfter;
        }
        html::AppendTag(out, segment.element);
        break;
      case SegmentKind::kStylesheet:
        if (!segment.combined || page.linkedStylesId.empty()) {
          html::AppendTag(out, segment.element, {"zp_css_on", "zp_css_off"});
        }
        break;
      case SegmentKind::kInlineStyle:
        if (page.inlineStylesId.empty()) {
          html::AppendTag(out, segment.element, {"zp_css_on", "zp_css_off"});
          out += segment.inlineText;
          out += segment.closing;
        }
        break;
      case SegmentKind::kInlineScript:
        html::AppendTag(out, segment.element, {"zp_js_on", "zp_js_off"});
        if (page.inlineScriptsId.empty()) {
          out += segment.inlineText;
        } else {
          out += ScriptEvalCall(segment.scriptNumber);
        }
        break;
      case SegmentKind::kScript:
        if (segment.combined && !page.fetchedScriptsId.empty()) {
          html::AppendTagOpening(out, segment.element, {"src", "zp_js_on", "zp_js_off"});
          out += '>';
          out += ScriptEvalCall(segment.scriptNumber);
        } else {
          html::AppendTag(out, segment.element, {"zp_js_on", "zp_js_off"});
        }
        break;
      case SegmentKind::kImage:
        if (segment.placed) {
          WritePlaceholder(page, segment, out);
        } else {
          html::AppendTag(out, segment.element, {"zp_image_on", "zp_image_off"});
          if (segment.done) {
            page.bytesAfterExtraGzip += segment.fetch->bytesReceived;
            page.bytesAfterExtraRaw += segment.fetch->bytesUncompressed;
          }
          ++page.requestsAfter;
        }
        break;
    }
  }
  flush();
}

}  // namespace zelvarpack::page
