#!/usr/bin/env python3
"""Browser check of the stylesheet minifier.

For every stylesheet of a corpus, headless Chromium loads two pages that apply
to the same DOM the original sheet and the sheet as `zelvarpack minify-css`
writes it, and compares:

  - rule by rule, the CSSOM serialisation of every rule the browser kept
    (selectors, declarations, at-rule preludes, nested rules): a rule the
    minifier changed or broke shows here even when no element matches it;
  - getComputedStyle of every element and of its ::before, ::after,
    ::marker, ::first-line and ::first-letter pseudo-elements;
  - the @font-face rules the browser accepted (family, style, weight,
    stretch, unicode-range, display).

The DOM is built from the sheet's own selectors: an element for every class,
id and type it names (escapes undone), nested in one another so that
descendant combinators and pseudo-classes of structure find something.

The browser is the test harness's headless Chromium (chromium.py beside this
file). Usage: css_compare.py --tool PATH [--chromium PATH] [SHEET ...]
Without sheets, the corpus below. Exits 0 when every sheet computes the same
(sheets of the corpus that are not installed are skipped and named), 1 on a
difference, 2 when the browser cannot run.
"""

import argparse
import json
import os
import re
import subprocess
import sys
import tempfile

from chromium import Browser, BrowserError

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(os.path.dirname(HERE))

# Real stylesheets from Debian packages (scripts/install-deps.sh installs
# them for the tests), and a sheet of our own that holds each construct the
# minifier once got wrong.
CORPUS = [
    # an icon font: every glyph is a "\f0xx" escape in ::before content
    "/usr/share/fonts-font-awesome/css/font-awesome.css",
    # a framework: media queries, calc(), attribute selectors, :not()
    "/usr/share/javascript/bootstrap4/css/bootstrap.css",
    "/usr/share/javascript/bootstrap4/css/bootstrap-reboot.css",
    # a documentation theme
    "/usr/share/doxygen-awesome-css/doxygen-awesome.css",
    os.path.join(SOURCE, "testdata/css/browser/departures.css"),
]

PSEUDOS = ["", "::before", "::after", "::marker"]

COLLECT = r"""
(async () => {
  await document.fonts.ready;
  // Running animations (spinners) would differ by the moment of reading.
  for (const a of document.getAnimations()) { a.pause(); a.currentTime = 0; }
  const out = {rules: [], fonts: [], styles: []};
  const walk = (rules, depth) => {
    for (const rule of rules) {
      out.rules.push(rule.cssText);
      if (rule.cssRules && depth < 8) walk(rule.cssRules, depth + 1);
    }
  };
  for (const sheet of document.styleSheets) walk(sheet.cssRules, 0);
  for (const face of document.fonts) {
    out.fonts.push([face.family, face.style, face.weight, face.stretch, face.unicodeRange,
                    face.display].join("|"));
  }
  out.fonts.sort();
  // One line per element and pseudo-element: its name and, in full only
  // when DETAIL asks for it, its computed values; else a 32-bit digest of
  // them, so that a page of thousands of elements crosses the pipe cheaply.
  const detail = new Set(DETAIL);
  let index = 0;
  for (const el of document.body.querySelectorAll("*")) {
    for (const p of PSEUDOS) {
      const cs = getComputedStyle(el, p || null);
      // Sorted: the order in which custom properties are listed may differ.
      const values = [];
      for (let i = 0; i < cs.length; i++) values.push(cs[i] + ":" + cs.getPropertyValue(cs[i]));
      const text = values.sort().join(";");
      let h = 0x811c9dc5;
      for (let i = 0; i < text.length; i++) h = Math.imul(h ^ text.charCodeAt(i), 16777619);
      const name = el.tagName + "." + el.className + "#" + el.id + p;
      out.styles.push(detail.has(index) ? name + " " + text : name + " " + (h >>> 0));
      index++;
    }
  }
  return JSON.stringify(out);
})()
""".replace("PSEUDOS", json.dumps(PSEUDOS))


def collect(browser, url, detail=()):
    """Loads `url` in a fresh browser context and gathers what COLLECT does."""
    page = browser.load(url, width=1280, height=800, timeout=120.0, idle_seconds=0.2)
    try:
        return json.loads(page.evaluate(COLLECT.replace("DETAIL", json.dumps(list(detail))),
                                        timeout=600.0))
    finally:
        page.close()


def unescape(name):
    """A CSS identifier with its escapes undone (CSS Syntax)."""
    def hex_or_char(match):
        text = match.group(1)
        if re.fullmatch(r"[0-9a-fA-F]{1,6}\s?", text):
            code = int(text.strip(), 16)
            return chr(code) if 0 < code <= 0x10FFFF and not 0xD800 <= code <= 0xDFFF else "\ufffd"
        return text
    return re.sub(r"\\([0-9a-fA-F]{1,6}\s?|.)", hex_or_char, name, flags=re.S)


NAME = r"(?:[-_a-zA-Z0-9\u0080-\uffff]|\\[0-9a-fA-F]{1,6}\s?|\\[^\n0-9a-fA-F])+"


def build_dom(css):
    """Elements for the classes, ids and types that the sheet names."""
    text = re.sub(r"/\*.*?\*/", "", css, flags=re.S)
    # Only selectors: the text before each "{" back to the last "}" or ";".
    selectors = " ".join(re.findall(r"([^{};]*)\{", text))
    selectors = re.sub(r"\"[^\"]*\"|'[^']*'", "", selectors)
    classes = sorted({unescape(m) for m in re.findall(r"\.(" + NAME + ")", selectors)})
    ids = sorted({unescape(m) for m in re.findall(r"#(" + NAME + ")", selectors)})
    types = ["div", "span", "a", "p", "ul", "li", "i", "button", "input", "h1", "table", "td",
             "label", "code", "pre", "blockquote", "img", "nav", "small", "select", "textarea"]
    from html import escape
    parts = []
    # Each class on a div holding a span and an i of the next classes, so
    # descendant and child combinators between them find elements.
    for index, name in enumerate(classes):
        inner = classes[(index + 1) % len(classes)]
        third = classes[(index + 2) % len(classes)]
        parts.append('<div class="%s"><span class="%s"><i class="%s"></i></span>'
                     '<a class="%s" href="#x">a</a></div>'
                     % (escape(name), escape(inner), escape(third), escape(name)))
    for name in ids:
        parts.append('<div id="%s"><p>t</p></div>' % escape(name))
    for tag in types:
        if tag in ("input", "img"):
            parts.append("<%s>" % tag)
        else:
            parts.append("<%s>t<span>u</span></%s>" % (tag, tag))
    parts.append("<ul><li>1</li><li>2</li></ul><table><tr><td>c</td></tr></table>")
    return "\n".join(parts)


def page(sheet_name, dom):
    return ('<!DOCTYPE html><html><head><meta charset="utf-8">'
            '<link rel="stylesheet" href="%s"></head><body>\n%s\n</body></html>'
            % (sheet_name, dom))


def compare(browser, tool, path, work):
    with open(path, "rb") as f:
        original = f.read()
    minified = subprocess.run([tool, "minify-css", path], check=True,
                              stdout=subprocess.PIPE).stdout
    # Both sheets and pages beside each other in one folder, so relative
    # references (fonts) resolve alike.
    base = re.sub(r"[^A-Za-z0-9_.-]", "_", os.path.basename(path))
    for name, data in (("orig-" + base, original), ("min-" + base, minified)):
        with open(os.path.join(work, name), "wb") as f:
            f.write(data)
    dom = build_dom(original.decode("utf-8", "replace"))
    pages = []
    for name in ("orig-" + base, "min-" + base):
        html = os.path.join(work, name + ".html")
        with open(html, "w", encoding="utf-8") as f:
            f.write(page(name, dom))
        pages.append("file://" + html)
    before, after = (collect(browser, url) for url in pages)
    differing = [i for i, (a, b) in enumerate(zip(before["styles"], after["styles"])) if a != b]
    if differing:
        # The values themselves, for the first few that differ.
        before["styles"], after["styles"] = (collect(browser, url, differing[:3])["styles"]
                                             for url in pages)
    problems = []
    # Chromium keeps an @supports condition, and a value that holds var(),
    # as written, spaces and all: those are compared without spaces (the
    # computed styles below compare the values after substitution).
    for rules in (before["rules"], after["rules"]):
        for i, rule in enumerate(rules):
            if rule.startswith("@supports"):
                head, _, rest = rule.partition("{")
                rules[i] = re.sub(r"\s+", "", head) + "{" + rest
            if "var(" in rules[i]:
                rules[i] = re.sub(r"\s+", "", rules[i])
    if before["rules"] != after["rules"]:
        kept = len(before["rules"])
        problems.append("rules: %d in the original, %d minified" % (kept, len(after["rules"])))
        for a, b in zip(before["rules"], after["rules"]):
            if a != b:
                problems.append("  first differing rule:\n    %s\n    %s" % (a[:300], b[:300]))
                break
    if before["fonts"] != after["fonts"]:
        problems.append("@font-face accepted: %s\n  minified: %s"
                        % (before["fonts"][:5], after["fonts"][:5]))
    differing = [(before["styles"][i], after["styles"][i]) for i in differing]
    if differing or len(before["styles"]) != len(after["styles"]):
        problems.append("computed styles differ for %d of %d elements and pseudo-elements"
                        % (len(differing), len(before["styles"])))
        for a, b in differing[:3]:
            sa, sb = a.split(" ", 1)[-1].split(";"), b.split(" ", 1)[-1].split(";")
            first = next((x, y) for x, y in zip(sa, sb) if x != y) if len(sa) == len(sb) \
                else (a[:200], b[:200])
            problems.append("  %s: %s / %s" % (a.split(" ")[0][:80], first[0][:150],
                                                first[1][:150]))
    summary = ("%s: %d rules, %d @font-face, %d elements and pseudo-elements, %d -> %d bytes"
               % (path, len(before["rules"]), len(before["fonts"]), len(before["styles"]),
                  len(original), len(minified)))
    return summary, problems


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--chromium", default=None)
    parser.add_argument("sheets", nargs="*")
    args = parser.parse_args()
    sheets = args.sheets or [p for p in CORPUS if os.path.exists(p)]
    missing = [p for p in CORPUS if not args.sheets and not os.path.exists(p)]
    with tempfile.TemporaryDirectory() as work:
        try:
            # Pages and sheets are files: let the pages read their sheets.
            browser = Browser(args.chromium, extra_flags=["--allow-file-access-from-files"])
        except (OSError, BrowserError) as error:
            print("cannot start the browser: %s" % error)
            return 2
        failed = 0
        try:
            for path in sheets:
                summary, problems = compare(browser, args.tool, path, work)
                print(("FAIL " if problems else "same ") + summary)
                for line in problems:
                    print("  " + line)
                failed += bool(problems)
        finally:
            browser.close()
    for path in missing:
        print("skipped (not installed): " + path)
    print("%d passed, %d failed" % (len(sheets) - failed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
