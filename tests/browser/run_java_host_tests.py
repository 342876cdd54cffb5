#!/usr/bin/env python3
"""The Java host in a real browser: each sample page is loaded as a plain
static server sends it, then through the Java host (Jetty with the page
filter and the handler servlet, from a fresh cache), at the same URL, and
compare_pages judges the two (rendering, probe state, console errors, and
fewer requests through the filter).

Both servers take port 80 of this process's own loopback address, one
after the other: the optimiser inside the host fetches the page's
resources from the page's own host on the scheme's port, so this needs
root, as the page tests do. The roots are the sample site with the
packaged libraries linked in as /javascript (run_page_tests.make_root).

Usage: run_java_host_tests.py --java JAVA --classpath CLASSPATH
                              --library-dir DIR [--page NAME]... [--keep DIR]
Exit status 0 when every page passes, 1 when one fails, 77 when the browser
or the privileges to run are missing (CTest reports that as skipped).
"""

import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import chromium  # noqa: E402
import compare_pages  # noqa: E402
import run_page_tests  # noqa: E402

SKIP = 77


class JavaHost:
    """ZelvarPackHost on LISTEN (ADDRESS:PORT), stopped by stop()."""

    def __init__(self, args, listen, root, cache):
        self.process = subprocess.Popen(
            [args.java, "-Djava.library.path=" + args.library_dir, "-cp", args.classpath,
             "com.zelvarpack.servlet.ZelvarPackHost", "--root", root, "--cache", cache,
             "--listen", listen, "--timeout", "5"],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.url = self.process.stdout.readline().decode().strip()
        if not self.url.startswith("http://"):
            self.process.wait()
            raise RuntimeError("the Java host did not start: %s" %
                               self.process.stderr.read().decode(errors="replace")[-2000:])

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(timeout=60)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stderr.close()
        self.process.stdout.close()


def check_page(args, browser, page, work, address, options):
    url = "http://%s/%s" % (address, page)
    root = os.path.join(work, "site")
    site = run_page_tests.OriginalSite(address, root)
    try:
        original = compare_pages.load(browser, url, options)
    finally:
        site.stop()
    cache = os.path.join(work, "cache-" + page)  # fresh for every page
    os.makedirs(cache)
    host = JavaHost(args, address + ":80", root, cache)
    try:
        optimised = compare_pages.load(browser, url, options)
    finally:
        host.stop()
    return compare_pages.judge(original, optimised, options)


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--java", required=True, help="the java executable")
    parser.add_argument("--classpath", required=True,
                        help="zelvarpack.jar, zelvarpack-servlet.jar, the servlet API and Jetty")
    parser.add_argument("--library-dir", required=True, help="the folder of libZelvarPackCore.so")
    parser.add_argument("--page", action="append", help="a page of testdata/site (repeatable)")
    parser.add_argument("--keep", metavar="DIR", help="keep screenshots and verdicts in DIR")
    parser.add_argument("--width", type=int, default=1280)
    parser.add_argument("--height", type=int, default=800)
    args = parser.parse_args(argv)

    reason = chromium.why_sites_cannot_run()
    if reason:
        print("SKIPPED: " + reason)
        return SKIP

    work = tempfile.mkdtemp(prefix="zp-java-browser-")
    run_page_tests.make_root(os.path.join(work, "site"))
    address = chromium.loopback_address(1)
    options = argparse.Namespace(width=args.width, height=args.height, timeout=30.0,
                                 channel_threshold=compare_pages.DEFAULT_CHANNEL_THRESHOLD,
                                 max_fraction=compare_pages.DEFAULT_MAX_FRACTION, save=None)
    passed = failed = 0
    try:
        with chromium.Browser() as browser:
            for page in args.page or run_page_tests.PAGES:
                if args.keep:
                    options.save = os.path.join(args.keep, page)
                    os.makedirs(options.save, exist_ok=True)
                try:
                    verdict = check_page(args, browser, page, work, address, options)
                except (RuntimeError, OSError, ValueError, chromium.BrowserError) as error:
                    verdict = {"pass": False, "error": str(error)}
                if args.keep:
                    with open(os.path.join(args.keep, page + ".json"), "w") as f:
                        json.dump(verdict, f, indent=1)
                print(run_page_tests.summary(page, verdict))
                sys.stdout.flush()
                passed, failed = passed + verdict["pass"], failed + (not verdict["pass"])
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print("%d passed, %d failed" % (passed, failed))
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
