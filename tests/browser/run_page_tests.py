#!/usr/bin/env python3
"""End to end in a real browser: each sample page is run through
`zelvarpack optimize --url` with a fresh cache and compared by compare_pages
(rendering, probe state, console errors, requests) with the page as it was.

The site is served on port 80 of this process's first loopback address,
first as it is (a plain static server: the optimiser downloads the page and
its resources from there, and the browser loads the original), then by
`zelvarpack serve` from a copy of the site holding the optimised page and
answering the handlers from the cache (the browser loads the optimised
page at the same URL). Port 80, because the engine's downloads always use
the scheme's default port; this needs root, as the download tests do. Both
roots hold the sample site (testdata/site) and, as /javascript, the packaged
libraries under /usr/share/javascript, as a Debian web server publishes
them.

Usage: run_page_tests.py --tool PATH/zelvarpack [--page NAME]... [--keep DIR]
Prints one line per page (and what differed, indented); with --keep, the
screenshots, a picture of the differing pixels and the verdicts as JSON go
to DIR. Ends with "N passed, N failed". Exit status 0 when every page
passes, 1 when one fails, 77 when the browser or the privileges to run are
missing (CTest reports that as skipped).
"""

import argparse
import functools
import http.server
import json
import os
import shutil
import subprocess
import sys
import tempfile
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.normpath(os.path.join(HERE, "..", ".."))
sys.path.insert(0, HERE)
import chromium  # noqa: E402
import compare_pages  # noqa: E402

SKIP = 77
PAGES = ["index.html", "jquery.html", "bootstrap.html"]
PACKAGED = {"javascript": "/usr/share/javascript"}


class QuietHandler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        pass


class QuietServer(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        # A browser that drops a connection it no longer needs is normal.
        if not isinstance(sys.exc_info()[1], (BrokenPipeError, ConnectionResetError)):
            super().handle_error(request, client_address)


def make_root(path):
    shutil.copytree(os.path.join(SOURCE, "testdata", "site"), path)
    for name, target in PACKAGED.items():
        if os.path.isdir(target):
            os.symlink(target, os.path.join(path, name))


class ServeProcess:
    """`zelvarpack serve` on LISTEN (ADDRESS:PORT), stopped by stop()."""

    def __init__(self, tool, listen, root, cache):
        self.process = subprocess.Popen(
            [tool, "serve", "--listen", listen, "--root", root, "--cache", cache],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.url = self.process.stdout.readline().decode().strip()
        if not self.url.startswith("http://"):
            raise RuntimeError("zelvarpack serve did not start: %s" %
                               self.process.stderr.read().decode(errors="replace"))

    def stop(self):
        self.process.terminate()
        self.process.wait()


def optimise(tool, url, cache, out, user_agent):
    run = subprocess.run([tool, "optimize", "--url", url, "--cache", cache, "--user-agent",
                          user_agent, "-o", out], capture_output=True, timeout=120)
    text = run.stdout.decode(errors="replace").strip()
    if run.returncode != 0:
        raise RuntimeError("optimize %s failed (%d): %s" % (
            url, run.returncode, run.stderr.decode(errors="replace").strip()))
    return json.loads(text.splitlines()[-1]) if text else {}


class OriginalSite:
    """The site as it is, on ADDRESS:80, until stop()."""

    def __init__(self, address, root):
        handler = functools.partial(QuietHandler, directory=root)
        self.httpd = QuietServer((address, 80), handler)
        threading.Thread(target=self.httpd.serve_forever, daemon=True).start()

    def stop(self):
        self.httpd.shutdown()
        self.httpd.server_close()


def check_page(tool, browser, page, work, address, options):
    """Optimises one page and compares it with the original in the browser.
    Both are loaded from the same address, one after the other, as a
    visitor would see the site before and after the optimiser was put in
    front of it: same origin, so web fonts and every other same-origin rule
    hold alike, and the same URL, so texts that hold it compare equal."""
    url = "http://%s/%s" % (address, page)
    cache = os.path.join(work, "cache-" + page)  # fresh for every page
    os.makedirs(cache)
    original_root = os.path.join(work, "original")
    optimised_root = os.path.join(work, "optimised")

    site = OriginalSite(address, original_root)
    try:
        counters = optimise(tool, url, cache, os.path.join(optimised_root, page),
                            browser.version.get("userAgent", "Mozilla/5.0"))
        original = compare_pages.load(browser, url, options)
    finally:
        site.stop()
    serve = ServeProcess(tool, address + ":80", optimised_root, cache)
    try:
        optimised = compare_pages.load(browser, url, options)
    finally:
        serve.stop()
    verdict = compare_pages.judge(original, optimised, options)
    verdict["counters"] = counters
    return verdict


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--tool", required=True, help="the zelvarpack executable")
    parser.add_argument("--page", action="append", help="a page of testdata/site (repeatable)")
    parser.add_argument("--keep", metavar="DIR", help="keep screenshots and verdicts in DIR")
    parser.add_argument("--known-failure", action="append", default=[], metavar="PAGE",
                        help="a page known to differ: run and reported, but not a failure")
    parser.add_argument("--width", type=int, default=1280)
    parser.add_argument("--height", type=int, default=800)
    args = parser.parse_args(argv)

    reason = chromium.why_sites_cannot_run()
    if reason:
        print("SKIPPED: " + reason)
        return SKIP

    work = tempfile.mkdtemp(prefix="zp-browser-")
    make_root(os.path.join(work, "original"))
    make_root(os.path.join(work, "optimised"))
    address = chromium.loopback_address(0)
    options = argparse.Namespace(width=args.width, height=args.height, timeout=30.0,
                                 channel_threshold=compare_pages.DEFAULT_CHANNEL_THRESHOLD,
                                 max_fraction=compare_pages.DEFAULT_MAX_FRACTION, save=None)
    passed = failed = known = 0
    try:
        with chromium.Browser() as browser:
            for page in args.page or PAGES:
                if args.keep:
                    options.save = os.path.join(args.keep, page)
                    os.makedirs(options.save, exist_ok=True)
                try:
                    verdict = check_page(args.tool, browser, page, work, address, options)
                except (RuntimeError, OSError, ValueError, chromium.BrowserError) as error:
                    verdict = {"pass": False, "error": str(error)}
                if args.keep:
                    with open(os.path.join(args.keep, page + ".json"), "w") as f:
                        json.dump(verdict, f, indent=1)
                line = summary(page, verdict)
                if page in args.known_failure:
                    if verdict["pass"]:
                        line += "\n  (listed as a known failure, and now passes: take it off)"
                    else:
                        line = "KNOWN " + line
                        known += 1
                        verdict["pass"] = True
                print(line)
                sys.stdout.flush()
                passed, failed = passed + verdict["pass"], failed + (not verdict["pass"])
    finally:
        shutil.rmtree(work, ignore_errors=True)
    if known:
        print("%d of the passes are known failures that still differ" % known)
    print("%d passed, %d failed" % (passed, failed))
    return 0 if failed == 0 else 1


def summary(page, verdict):
    """One line for a page, then what differed, indented."""
    if "error" in verdict:
        return "FAIL %s: %s" % (page, verdict["error"])
    render, state = verdict["render"], verdict["state"]
    errors, requests = verdict["errors"], verdict["requests"]
    lines = ["%s %s: %.4f%% of pixels differ (largest channel difference %d), requests %d -> %d, "
             "state %s, new console errors %d" % (
                 "PASS" if verdict["pass"] else "FAIL", page, 100 * render["fraction"],
                 render["maxChannelDelta"], requests["original"], requests["optimised"],
                 "same" if state["same"] else "different", len(errors["new"]))]
    if not render["same"]:
        lines.append("  rendering: size %s vs %s, %d pixels beyond %d in box %s" % (
            render["size"], render["optimisedSize"], render["differentPixels"],
            render["channelThreshold"], render["box"]))
    for line in state["differences"]:
        lines.append("  state: " + line)
    for error in errors["new"]:
        lines.append("  new error: " + error)
    for request in requests["optimisedFailed"]:
        lines.append("  failed request: %s (%s)" % (request["url"],
                                                    request["failed"] or request["status"]))
    if not requests["fewer"]:
        lines.append("  requests: not fewer")
    return "\n".join(lines)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
