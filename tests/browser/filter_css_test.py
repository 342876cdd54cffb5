#!/usr/bin/env python3
"""The stylesheet server's filter mode in a real browser: a sheet whose rules
draw icons as backgrounds is run through `zelvarpack filter-css`, and a page
styled by the filtered sheet must render as the page styled by the original
(compare_pages: pixels, console errors) while loading one sprite sheet
instead of one picture per icon. With a time-out of 0 nothing is sprited.

The site is served by `zelvarpack serve` on port 80 of this process's second
loopback address (the engine's downloads always use the scheme's default
port; this needs root, as the download tests do).

Usage: filter_css_test.py --tool PATH/zelvarpack
Exit status 0 on success, 1 on a failure, 77 when the browser or the
privileges to run are missing (CTest reports that as skipped).
"""

import argparse
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.normpath(os.path.join(HERE, "..", ".."))
sys.path.insert(0, HERE)
import chromium  # noqa: E402
import compare_pages  # noqa: E402

SKIP = 77
ICONS = ["folder.gif", "text.gif", "image2.gif", "up.gif", "back.gif", "ball.red.png",
         "ball.gray.png", "comp.blue.png"]
# Rules whose box is smaller than their 20 x 22 picture: the browser draws
# the picture's top left corner at its own size, which a sprite cell scaled
# to the box would not; these must stay as they are.
CROPPED = {"ball.red.png", "ball.gray.png"}


def icon_class(name):
    return name.replace(".", "-")


def write_site(root):
    os.makedirs(os.path.join(root, "icons"))
    rules = [".row { margin: 8px; font: 14px sans-serif }",
             ".icon { display: inline-block; margin: 3px; vertical-align: middle }"]
    spans = []
    for name in ICONS:
        shutil.copy(os.path.join(SOURCE, "testdata", "site", "img", name),
                    os.path.join(root, "icons", name))
        size = (14, 14) if name in CROPPED else (20, 22)
        rules.append(".%s { background: url(icons/%s) no-repeat; width: %dpx; height: %dpx }"
                     % (icon_class(name), name, size[0], size[1]))
        spans.append('<span class="icon %s"></span>' % icon_class(name))
    with open(os.path.join(root, "style.css"), "w") as f:
        f.write("\n".join(rules) + "\n")
    body = ('<div class="row">%s</div><div class="row">%s</div>'
            % ("".join(spans), "".join(reversed(spans))))
    for page, sheet in (("original.html", "style.css"), ("filtered.html", "filtered.css")):
        with open(os.path.join(root, page), "w") as f:
            f.write('<!DOCTYPE html><html><head><link rel="stylesheet" href="%s"></head>'
                    '<body>%s</body></html>\n' % (sheet, body))


def wait_for_port(address, port, seconds=10):
    deadline = time.time() + seconds
    while time.time() < deadline:
        try:
            with socket.create_connection((address, port), timeout=0.5):
                return True
        except OSError:
            time.sleep(0.05)
    return False


def filter_sheet(tool, root, cache, address, timeout):
    result = subprocess.run(
        [tool, "filter-css", "--cache", cache, "--server-url", "http://" + address,
         "--timeout", str(timeout), "--name", "http://%s/style.css" % address,
         os.path.join(root, "style.css")],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=True)
    return result.stdout.decode("latin-1")


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--tool", required=True, help="the zelvarpack executable")
    parser.add_argument("--save", metavar="DIR", help="keep the screenshots and the sheets in DIR")
    args = parser.parse_args(argv)
    reason = chromium.why_sites_cannot_run()
    if reason:
        print("SKIPPED: " + reason)
        return SKIP

    work = tempfile.mkdtemp(prefix="zp-filter-")
    root, cache = os.path.join(work, "site"), os.path.join(work, "cache")
    os.makedirs(cache)
    write_site(root)
    address = chromium.loopback_address(1)
    server = subprocess.Popen([args.tool, "serve", "--listen", address + ":80", "--root", root,
                               "--cache", cache], stdout=subprocess.DEVNULL)
    failures = []
    try:
        if not wait_for_port(address, 80):
            print("FAIL: zelvarpack serve did not start on %s:80" % address)
            return 1
        unsprited = filter_sheet(args.tool, root, cache, address, 0)
        if "IS.zp?" in unsprited:
            failures.append("time-out 0 sprited an image: " + unsprited)
        filtered = filter_sheet(args.tool, root, cache, address, 10)
        with open(os.path.join(root, "filtered.css"), "w", encoding="latin-1") as f:
            f.write(filtered)
        sprited = filtered.count("IS.zp?")
        if sprited != len(ICONS) - len(CROPPED):
            failures.append("%d of %d icons sprited: %s"
                            % (sprited, len(ICONS) - len(CROPPED), filtered))
        options = argparse.Namespace(width=400, height=120, timeout=30.0,
                                     channel_threshold=compare_pages.DEFAULT_CHANNEL_THRESHOLD,
                                     max_fraction=compare_pages.DEFAULT_MAX_FRACTION,
                                     save=args.save)
        if args.save:
            os.makedirs(args.save, exist_ok=True)
            shutil.copy(os.path.join(root, "filtered.css"), args.save)
        base = "http://%s/" % address
        verdict = compare_pages.compare(base + "original.html", base + "filtered.html", options)
        render, requests = verdict["render"], verdict["requests"]
        print("rendering: %d pixels differ (%.4f%%); requests %d -> %d"
              % (render["differentPixels"], 100 * render["fraction"], requests["original"],
                 requests["optimised"]))
        if not render["same"]:
            failures.append("the filtered sheet renders differently: %s" % render)
        if not verdict["errors"]["same"]:
            failures.append("new console errors: %s" % verdict["errors"]["new"])
        # The page, its sheet, and the sprite sheets instead of each icon.
        if requests["optimised"] > requests["original"] - len(ICONS) + len(CROPPED) + 2:
            failures.append("requests %d -> %d" % (requests["original"], requests["optimised"]))
    finally:
        server.terminate()
        server.wait()
        shutil.rmtree(work, ignore_errors=True)
    for failure in failures:
        print("FAIL: " + failure)
    print("filter mode: %s" % ("passed" if not failures else "failed"))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
