#!/usr/bin/env python3
"""Loads an original page and its optimised copy in headless Chromium and
says whether the optimised one is the same page for a visitor:

  render    the whole-page screenshots have the same size and at most
            --max-fraction of their pixels differ by more than
            --channel-threshold in any of R, G, B, A;
  state     the pages' probe snapshots (window.__probe.snapshot(), see
            testdata/site/js/probe.js) are equal once the optimiser's own
            globals, whose names start with "zp_", are left out;
  errors    the optimised page logs no console error, uncaught exception or
            failed load that the original does not (compared with the two
            pages' scheme://host:port taken out, since they are served from
            different addresses);
  requests  the optimised page makes fewer network requests (data: URLs are
            not requests).

Why a tolerance at all: the optimiser packs small images into sprite sheets
and draws each as a CSS background (background-position and -size in
percent, which the browser scales with filtering at the cell's edges), and
JPEG sheets are encoded again, which moves photo pixels a little. Text,
layout and everything else must match exactly; a moved element or a missing
image differs by far more than the threshold on far more pixels.

Usage: compare_pages.py ORIGINAL_URL OPTIMISED_URL [--width W] [--height H]
           [--channel-threshold N] [--max-fraction F] [--save DIR]
Prints one JSON verdict on standard output; exit status 0 when every check
passes, 1 when one fails, 2 for bad usage or a page that cannot be loaded.
"""

import argparse
import json
import os
import re
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import chromium  # noqa: E402

DEFAULT_CHANNEL_THRESHOLD = 48
DEFAULT_MAX_FRACTION = 0.002

SNAPSHOT = "window.__probe && window.__probe.snapshot ? window.__probe.snapshot() : null"


def compare_images(original, optimised, channel_threshold):
    """Counts the pixels of two Images whose largest channel difference is
    above `channel_threshold`; also the largest difference and the box that
    holds the differing pixels."""
    result = {"size": [original.width, original.height],
              "optimisedSize": [optimised.width, optimised.height]}
    if (original.width, original.height) != (optimised.width, optimised.height):
        result.update(differentPixels=original.width * original.height, fraction=1.0,
                      maxChannelDelta=255, box=None)
        return result
    stride = original.width * 4
    a, b = original.rgba, optimised.rgba
    different = 0
    largest = 0
    box = None
    for y in range(original.height):
        start = y * stride
        row_a, row_b = a[start:start + stride], b[start:start + stride]
        if row_a == row_b:
            continue
        for x in range(original.width):
            i = x * 4
            delta = max(abs(row_a[i] - row_b[i]), abs(row_a[i + 1] - row_b[i + 1]),
                        abs(row_a[i + 2] - row_b[i + 2]), abs(row_a[i + 3] - row_b[i + 3]))
            if delta > largest:
                largest = delta
            if delta > channel_threshold:
                different += 1
                if box is None:
                    box = [x, y, x, y]
                else:
                    box = [min(box[0], x), min(box[1], y), max(box[2], x), max(box[3], y)]
    result.update(differentPixels=different,
                  fraction=different / float(original.width * original.height),
                  maxChannelDelta=largest, box=box)
    return result


def without_optimiser_globals(snapshot):
    if isinstance(snapshot, dict) and isinstance(snapshot.get("globals"), dict):
        snapshot = dict(snapshot)
        snapshot["globals"] = {k: v for k, v in snapshot["globals"].items()
                               if not k.startswith("zp_")}
    return snapshot


def differences(a, b, path="$", out=None, limit=40):
    """Where two JSON values differ, as readable lines (at most `limit`)."""
    out = [] if out is None else out
    if len(out) >= limit:
        return out
    if isinstance(a, dict) and isinstance(b, dict):
        for key in sorted(set(a) | set(b)):
            if key not in a:
                out.append("%s.%s only in the optimised page: %s" % (path, key,
                                                                      json.dumps(b[key])[:200]))
            elif key not in b:
                out.append("%s.%s only in the original page: %s" % (path, key,
                                                                     json.dumps(a[key])[:200]))
            else:
                differences(a[key], b[key], "%s.%s" % (path, key), out, limit)
    elif isinstance(a, list) and isinstance(b, list) and len(a) == len(b):
        for i, (x, y) in enumerate(zip(a, b)):
            differences(x, y, "%s[%d]" % (path, i), out, limit)
    elif a != b:
        out.append("%s: original %s, optimised %s" % (path, json.dumps(a)[:300],
                                                       json.dumps(b)[:300]))
    return out[:limit]


def without_origin(text):
    return re.sub(r"\b(https?|wss?)://[^/\s)\"']+", "ORIGIN", text)


def load(browser, url, args):
    page = browser.load(url, width=args.width, height=args.height, timeout=args.timeout)
    try:
        requests = [{"url": r.url, "status": r.status, "failed": r.failed,
                     "type": r.resource_type} for r in page.requests]
        png = page.screenshot_png()
        # The snapshot comes last: reading an image's src through the
        # optimised page's lazy-image script starts the real image's load,
        # which must not count as a request of the page itself.
        snapshot = page.evaluate(SNAPSHOT)
        errors = list(page.console_errors)
        return {"requests": requests, "png": png, "snapshot": snapshot, "errors": errors}
    finally:
        page.close()


def compare(original_url, optimised_url, args):
    with chromium.Browser() as browser:
        original = load(browser, original_url, args)
        optimised = load(browser, optimised_url, args)
    if args.save:
        os.makedirs(args.save, exist_ok=True)
        for name, result in (("original", original), ("optimised", optimised)):
            with open(os.path.join(args.save, name + ".png"), "wb") as f:
                f.write(result["png"])
            with open(os.path.join(args.save, name + ".json"), "w") as f:
                json.dump({k: v for k, v in result.items() if k != "png"}, f, indent=1)

    render = compare_images(chromium.decode_png(original["png"]),
                            chromium.decode_png(optimised["png"]), args.channel_threshold)
    render["channelThreshold"] = args.channel_threshold
    render["maxFraction"] = args.max_fraction
    render["same"] = (render["size"] == render["optimisedSize"]
                      and render["fraction"] <= args.max_fraction)

    state_a = without_optimiser_globals(original["snapshot"])
    state_b = without_optimiser_globals(optimised["snapshot"])
    state = {"same": state_a == state_b, "probe": state_a is not None,
             "differences": differences(state_a, state_b)}

    before = [without_origin(e) for e in original["errors"]]
    new_errors = []
    for error in optimised["errors"]:
        plain = without_origin(error)
        if plain in before:
            before.remove(plain)
        else:
            new_errors.append(error)
    errors = {"same": not new_errors, "new": new_errors, "original": original["errors"],
              "optimised": optimised["errors"]}

    requests = {"original": len(original["requests"]), "optimised": len(optimised["requests"])}
    requests["fewer"] = requests["optimised"] < requests["original"]
    requests["optimisedUrls"] = [r["url"] for r in optimised["requests"]]
    failed = [r for r in optimised["requests"] if r["failed"] or r["status"] >= 400]
    requests["optimisedFailed"] = failed

    verdict = {"pass": render["same"] and state["same"] and errors["same"] and requests["fewer"],
               "original": original_url, "optimised": optimised_url, "render": render,
               "state": state, "errors": errors, "requests": requests}
    return verdict


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("original")
    parser.add_argument("optimised")
    parser.add_argument("--width", type=int, default=1280)
    parser.add_argument("--height", type=int, default=800)
    parser.add_argument("--timeout", type=float, default=30.0)
    parser.add_argument("--channel-threshold", type=int, default=DEFAULT_CHANNEL_THRESHOLD)
    parser.add_argument("--max-fraction", type=float, default=DEFAULT_MAX_FRACTION)
    parser.add_argument("--save", metavar="DIR",
                        help="keep both screenshots and what each page did in DIR")
    args = parser.parse_args(argv)
    try:
        verdict = compare(args.original, args.optimised, args)
    except chromium.BrowserError as error:
        print(json.dumps({"pass": False, "error": str(error)}))
        return 2
    print(json.dumps(verdict, indent=1))
    return 0 if verdict["pass"] else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
