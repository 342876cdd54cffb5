#include "html/html_constructor.h"

#include <cstddef>
#include <cstring>
#include <iterator>

#include "html/ascii.h"

using zelvarpack::html::EqualsIgnoringAsciiCase;

namespace {

// Public-identifier prefixes that put a page in quirks mode, as the HTML
// standard lists them.
constexpr const char* kQuirksPublicIdPrefixes[] = {
    "+//Silmaril//dtd html Pro v0r11 19970101//",
    "-//AdvaSoft Ltd//DTD HTML 3.0 asWedit + extensions//",
    "-//AS//DTD HTML 3.0 asWedit + extensions//",
    "-//IETF//DTD HTML 2.0 Level 1//",
    "-//IETF//DTD HTML 2.0 Level 2//",
    "-//IETF//DTD HTML 2.0 Strict Level 1//",
    "-//IETF//DTD HTML 2.0 Strict Level 2//",
    "-//IETF//DTD HTML 2.0 Strict//",
    "-//IETF//DTD HTML 2.0//",
    "-//IETF//DTD HTML 2.1E//",
    "-//IETF//DTD HTML 3.0//",
    "-//IETF//DTD HTML 3.2 Final//",
    "-//IETF//DTD HTML 3.2//",
    "-//IETF//DTD HTML 3//",
    "-//IETF//DTD HTML Level 0//",
    "-//IETF//DTD HTML Level 1//",
    "-//IETF//DTD HTML Level 2//",
    "-//IETF//DTD HTML Level 3//",
    "-//IETF//DTD HTML Strict Level 0//",
    "-//IETF//DTD HTML Strict Level 1//",
    "-//IETF//DTD HTML Strict Level 2//",
    "-//IETF//DTD HTML Strict Level 3//",
    "-//IETF//DTD HTML Strict//",
    "-//IETF//DTD HTML//",
    "-//Metrius//DTD Metrius Presentational//",
    "-//Microsoft//DTD Internet Explorer 2.0 HTML Strict//",
    "-//Microsoft//DTD Internet Explorer 2.0 HTML//",
    "-//Microsoft//DTD Internet Explorer 2.0 Tables//",
    "-//Microsoft//DTD Internet Explorer 3.0 HTML Strict//",
    "-//Microsoft//DTD Internet Explorer 3.0 HTML//",
    "-//Microsoft//DTD Internet Explorer 3.0 Tables//",
    "-//Netscape Comm. Corp.//DTD HTML//",
    "-//Netscape Comm. Corp.//DTD Strict HTML//",
    "-//O'Reilly and Associates//DTD HTML 2.0//",
    "-//O'Reilly and Associates//DTD HTML Extended 1.0//",
    "-//O'Reilly and Associates//DTD HTML Extended Relaxed 1.0//",
    "-//SoftQuad Software//DTD HoTMetaL PRO 6.0::19990601::extensions to HTML 4.0//",
    "-//SoftQuad//DTD HoTMetaL PRO 4.0::19971010::extensions to HTML 4.0//",
    "-//Spyglass//DTD HTML 2.0 Extended//",
    "-//SQ//DTD HTML 2.0 HoTMetaL + extensions//",
    "-//Sun Microsystems Corp.//DTD HotJava HTML//",
    "-//Sun Microsystems Corp.//DTD HotJava Strict HTML//",
    "-//W3C//DTD HTML 3 1995-03-24//",
    "-//W3C//DTD HTML 3.2 Draft//",
    "-//W3C//DTD HTML 3.2 Final//",
    "-//W3C//DTD HTML 3.2//",
    "-//W3C//DTD HTML 3.2S Draft//",
    "-//W3C//DTD HTML 4.0 Frameset//",
    "-//W3C//DTD HTML 4.0 Transitional//",
    "-//W3C//DTD HTML Experimental 19960712//",
    "-//W3C//DTD HTML Experimental 970421//",
    "-//W3C//DTD W3 HTML//",
    "-//W3O//DTD W3 HTML 3.0//",
    "-//WebTechs//DTD Mozilla HTML 2.0//",
    "-//WebTechs//DTD Mozilla HTML//",
};
static_assert(std::size(kQuirksPublicIdPrefixes) == 55);

// Whole public identifiers that put a page in quirks mode.
constexpr const char* kQuirksPublicIds[] = {
    "-//W3O//DTD W3 HTML Strict 3.0//EN//",
    "-/W3C/DTD HTML 4.0 Transitional/EN",
    "HTML",
};

// The one system identifier that puts a page in quirks mode.
constexpr const char kQuirksSystemId[] =
    "http://www.ibm.com/data/dtd/v11/ibmxhtml1-transitional.dtd";

// Quirks only when the DOCTYPE has no system identifier at all.
constexpr const char* kQuirksWithoutSystemIdPrefixes[] = {
    "-//W3C//DTD HTML 4.01 Frameset//",
    "-//W3C//DTD HTML 4.01 Transitional//",
};

bool StartsWithIgnoringCase(const HtmlString& text, const char* prefix) {
  const std::size_t n = std::strlen(prefix);
  return static_cast<std::size_t>(text.length) >= n &&
         EqualsIgnoringAsciiCase(text.data, prefix, n);
}

template <std::size_t N>
bool StartsWithAnyIgnoringCase(const HtmlString& text, const char* const (&prefixes)[N]) {
  for (const char* prefix : prefixes) {
    if (StartsWithIgnoringCase(text, prefix)) return true;
  }
  return false;
}

// `name` (of the length the caller has checked) equals `lower` ASCII
// case-insensitively; a mismatch is usually found at the first byte.
template <std::size_t N>
bool NameIs(const HtmlString& name, const char (&lower)[N]) {
  return EqualsIgnoringAsciiCase(name.data, lower, N - 1);
}

// The text state a start tag's content is tokenized in; 0 when the tag's
// content is markup.
std::uint32_t ContentStateFor(const HtmlString& name) {
  switch (name.length) {
    case 3:
      if (NameIs(name, "xmp")) return HtmlTokenizer::kRawtextState;
      break;
    case 5:
      if (NameIs(name, "style")) return HtmlTokenizer::kRawtextState;
      if (NameIs(name, "title")) return HtmlTokenizer::kRcdataState;
      break;
    case 6:
      if (NameIs(name, "iframe")) return HtmlTokenizer::kRawtextState;
      if (NameIs(name, "script")) return HtmlTokenizer::kScriptDataState;
      break;
    case 7:
      if (NameIs(name, "noembed")) return HtmlTokenizer::kRawtextState;
      break;
    case 8:
      // noscript is raw text, as for a page with scripting enabled.
      if (NameIs(name, "noframes") || NameIs(name, "noscript")) {
        return HtmlTokenizer::kRawtextState;
      }
      if (NameIs(name, "textarea")) return HtmlTokenizer::kRcdataState;
      break;
    case 9:
      if (NameIs(name, "plaintext")) return HtmlTokenizer::kPlaintextState;
      break;
    default:
      break;
  }
  return 0;
}

}  // namespace

CHtmlConstructor::CHtmlConstructor(CHtmlConstructorEvents* events)
    : events(events), tokenizer(new HtmlTokenizer) {
  tokenizer->events = this;
}

CHtmlConstructor::~CHtmlConstructor() {
  tokenizer->events = nullptr;
  delete tokenizer;
}

void CHtmlConstructor::OnToken(HtmlTextToken* text, HtmlDoctypeToken* doctype, HtmlTagToken* tag) {
  if (text != nullptr && events != nullptr) events->OnText(text);
  if (doctype != nullptr) {
    if (events != nullptr) events->OnDoctype(doctype);
    DecideQuirksMode(*doctype);
  }
  if (tag != nullptr) {
    if (events != nullptr) events->OnTag(tag);
    // After the consumer has seen the tag; the self-closing flag is not
    // consulted.
    if (tag->kind == HtmlTagToken::kStartTag) {
      const std::uint32_t content_state = ContentStateFor(tag->name);
      if (content_state != 0) tokenizer->state = content_state;
    }
  }
}

// The HTML standard's quirks-mode test, without limited-quirks mode. Each
// DOCTYPE decides afresh; a force-quirks DOCTYPE keeps the earlier decision
// unless one of the later rules applies.
void CHtmlConstructor::DecideQuirksMode(const HtmlDoctypeToken& doctype) {
  if (doctype.forceQuirks == 0) quirksMode = 0;
  if (!doctype.name.Equals("html")) quirksMode = 1;
  if (StartsWithAnyIgnoringCase(doctype.publicId, kQuirksPublicIdPrefixes)) quirksMode = 1;
  for (const char* id : kQuirksPublicIds) {
    if (doctype.publicId.EqualsIgnoringCase(id)) quirksMode = 1;
  }
  if (doctype.systemId.EqualsIgnoringCase(kQuirksSystemId)) quirksMode = 1;
  const bool system_id_missing = doctype.systemId.length == 0 && doctype.systemId.reset == 0;
  if (system_id_missing &&
      StartsWithAnyIgnoringCase(doctype.publicId, kQuirksWithoutSystemIdPrefixes)) {
    quirksMode = 1;
  }
}
