#!/usr/bin/env python3
"""The two page copiers in a real browser. Each sample page of testdata/site
is served as it is on port 80 of this process's first loopback address, then

- saved with `zelvarpack savings --url`: the saved index.html, opened from
  its folder (a file: URL), must render like the original;
- rewritten with `zelvarpack proxy --url`: the copy, served from a second
  loopback address (another origin), must render like the original while
  it loads the resources from the original site.

Port 80, because the engine's downloads always use the scheme's default
port. Rendering and the probe state are compared by compare_pages; console
errors must not be new. Exit status 0 when every check passes, 1 when one
fails, 77 when the browser or the privileges to run are missing.

Usage: run_savings_proxy_tests.py --tool PATH/zelvarpack [--page NAME]... [--keep DIR]
"""

import argparse
import copy
import functools
import json
import os
import shutil
import subprocess
import sys
import tempfile
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import chromium  # noqa: E402
import compare_pages  # noqa: E402
import run_page_tests  # noqa: E402

SKIP = 77


class SharingHandler(run_page_tests.QuietHandler):
    """The site's files, readable from any origin. Web fonts and other
    resources read in CORS mode load on a page of another origin (the proxy's
    copy, the saved copy's file: origin) only when their site allows it, as
    sites that publish them for other origins do."""

    def end_headers(self):
        self.send_header("Access-Control-Allow-Origin", "*")
        super().end_headers()


class SharingSite(run_page_tests.OriginalSite):
    def __init__(self, address, root):
        handler = functools.partial(SharingHandler, directory=root)
        self.httpd = run_page_tests.QuietServer((address, 80), handler)
        threading.Thread(target=self.httpd.serve_forever, daemon=True).start()


def run_tool(tool, *args):
    run = subprocess.run([tool, *args], capture_output=True, timeout=300)
    if run.returncode != 0:
        raise RuntimeError("zelvarpack %s failed (%d): %s" % (
            args[0], run.returncode, run.stderr.decode(errors="replace").strip()))
    return json.loads(run.stdout.decode(errors="replace").strip().splitlines()[-1])


def without_image_addresses(snapshot):
    """The probe's snapshot without the images' src attributes, which the
    copies change on purpose."""
    snapshot = copy.deepcopy(snapshot)
    if isinstance(snapshot, dict):
        for image in snapshot.get("images") or []:
            image.pop("src", None)
    return snapshot


def verdict_of(original, copied, options):
    """Renders alike, same probe state, no new console errors. The copy may
    make more or fewer requests than the original: that is not its job."""
    verdict = compare_pages.judge(original, copied, options)
    state_a = without_image_addresses(compare_pages.without_optimiser_globals(
        original["snapshot"]))
    state_b = without_image_addresses(compare_pages.without_optimiser_globals(
        copied["snapshot"]))
    verdict["state"] = {"same": state_a == state_b, "probe": state_a is not None,
                        "differences": compare_pages.differences(state_a, state_b)}
    verdict["pass"] = (verdict["render"]["same"] and verdict["state"]["same"]
                       and verdict["errors"]["same"])
    return verdict


def check_page(tool, browser, page, work, addresses, options, keep):
    url = "http://%s/%s" % (addresses[0], page)
    verdicts = {}
    site = SharingSite(addresses[0], os.path.join(work, "original"))
    try:
        original = compare_pages.load(browser, url, options)

        saved = os.path.join(work, "saved-" + page)
        totals = run_tool(tool, "savings", "--url", url, "--dir", saved, "--server-url",
                          "http://%s/" % addresses[0], "--user-agent",
                          browser.version.get("userAgent", "Mozilla/5.0"))
        options.save = os.path.join(keep, page, "savings") if keep else None
        copied = compare_pages.load(browser, "file://" + os.path.join(saved, "index.html"),
                                    options)
        verdicts["savings"] = verdict_of(original, copied, options)
        verdicts["savings"]["totals"] = totals

        proxied = os.path.join(work, "proxied-" + page)
        run_tool(tool, "proxy", "--url", url, "--dir", proxied, "--server-url",
                 "http://%s/" % addresses[1])
        os.rename(os.path.join(proxied, "index.html"), os.path.join(proxied, page))
        other = run_page_tests.OriginalSite(addresses[1], proxied)
        try:
            options.save = os.path.join(keep, page, "proxy") if keep else None
            copied = compare_pages.load(browser, "http://%s/%s" % (addresses[1], page), options)
        finally:
            other.stop()
        verdict = verdict_of(original, copied, options)
        # Every resource of the proxied page comes from the original site.
        strays = [r for r in verdict["requests"]["optimisedUrls"]
                  if r.startswith("http://%s/" % addresses[1]) and not r.endswith("/" + page)]
        verdict["strays"] = strays
        verdict["pass"] = verdict["pass"] and not strays
        verdicts["proxy"] = verdict
    finally:
        site.stop()
    return verdicts


def summary(page, kind, verdict):
    if "error" in verdict:
        return "FAIL %s %s: %s" % (kind, page, verdict["error"])
    line = "%s %s %s: %.4f%% of pixels differ, state %s, new console errors %d" % (
        "PASS" if verdict["pass"] else "FAIL", kind, page, 100 * verdict["render"]["fraction"],
        "same" if verdict["state"]["same"] else "differs", len(verdict["errors"]["new"]))
    if not verdict["state"]["same"]:
        line += "\n  state: " + "; ".join(verdict["state"]["differences"][:5])
    for error in verdict["errors"]["new"][:5]:
        line += "\n  console: " + error
    for stray in verdict.get("strays", [])[:5]:
        line += "\n  loaded from the proxy's origin: " + stray
    return line


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--tool", required=True, help="the zelvarpack executable")
    parser.add_argument("--page", action="append", help="a page of testdata/site (repeatable)")
    parser.add_argument("--keep", metavar="DIR", help="keep screenshots and verdicts in DIR")
    args = parser.parse_args(argv)

    reason = chromium.why_sites_cannot_run()
    if reason:
        print("SKIPPED: " + reason)
        return SKIP

    work = tempfile.mkdtemp(prefix="zp-copies-")
    run_page_tests.make_root(os.path.join(work, "original"))
    addresses = [chromium.loopback_address(0), chromium.loopback_address(1)]
    options = argparse.Namespace(width=1280, height=800, timeout=30.0,
                                 channel_threshold=compare_pages.DEFAULT_CHANNEL_THRESHOLD,
                                 max_fraction=compare_pages.DEFAULT_MAX_FRACTION, save=None)
    passed = failed = 0
    try:
        # Pages opened from a folder may load the site's resources.
        with chromium.Browser(extra_flags=["--allow-file-access-from-files"]) as browser:
            for page in args.page or run_page_tests.PAGES:
                try:
                    verdicts = check_page(args.tool, browser, page, work, addresses, options,
                                          args.keep)
                except (RuntimeError, OSError, ValueError, chromium.BrowserError) as error:
                    verdicts = {"page": {"pass": False, "error": str(error)}}
                if args.keep:
                    os.makedirs(args.keep, exist_ok=True)
                    with open(os.path.join(args.keep, page + ".json"), "w") as f:
                        json.dump(verdicts, f, indent=1)
                for kind, verdict in verdicts.items():
                    print(summary(page, kind, verdict))
                    passed, failed = passed + verdict["pass"], failed + (not verdict["pass"])
                sys.stdout.flush()
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print("%d passed, %d failed" % (passed, failed))
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
