// Page analysis: what the page optimiser does with each token of the page
// while it is tokenized. Markup that stays is copied into the current text
// segment; the stylesheets, images and scripts it will optimise become
// segments of their own with their downloads started at once; inline style
// blocks and inline scripts go to their groups; marker comments and
// per-element switches turn the optimisations on and off.
#ifndef ZELVARPACK_PAGE_PAGE_ANALYSIS_H_
#define ZELVARPACK_PAGE_PAGE_ANALYSIS_H_

#include "page/page_state.h"
#include "zelvarpack/html_events.h"

namespace zelvarpack::page {

void AnalyseTag(PageState& page, const HtmlTagToken& tag);
void AnalyseDoctype(PageState& page, const HtmlDoctypeToken& doctype);
void AnalyseText(PageState& page, const HtmlTextToken& text);
// Closes what the page left open when its bytes ran out (a style block or
// an inline script without its end tag).
void FinishAnalysis(PageState& page);

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_PAGE_ANALYSIS_H_
