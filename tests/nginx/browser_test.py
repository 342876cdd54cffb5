"""Headless Chromium loads realistic pages straight from the origin and
through nginx with the module: the same rendering (within the page
comparison's tolerance), no new console errors, fewer requests and fewer
bytes (as the two servers' access logs count them).

Usage: browser_test.py MODULE_SO   (exit 77: cannot run here)
"""

import argparse
import os
import shutil
import sys
import tempfile
import time
import unittest

import nginx_nodes as nodes
import chromium
import compare_pages

MODULE = None
SITE = os.path.join(nodes.SOURCE_DIR, "testdata", "site")
PAGES = ("/index.html", "/bootstrap.html", "/jquery.html")


def cost(browser, server, url):
    """(requests, bytes) the server sent for one plain load of `url`."""
    open(server.access_log, "w").close()
    browser.load(url).close()
    time.sleep(0.3)  # the log line follows the response
    lines = [line.split() for line in server.access_lines()]
    return len(lines), sum(int(f[1]) for f in lines)


class BrowserTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.mkdtemp(prefix="zp-nginx-browser-")
        cls.addClassCleanup(shutil.rmtree, cls.scratch, ignore_errors=True)
        # The packaged libraries the jQuery and Bootstrap pages load, where a
        # Debian web server publishes them.
        cls.origin = nodes.Origin(SITE, nodes.address(0),
                                  "location /javascript/ { alias /usr/share/javascript/; }")
        cls.addClassCleanup(cls.origin.remove)
        cls.front = nodes.Front(MODULE, os.path.join(cls.scratch, "cache"), nodes.address(1),
                                upstream=cls.origin.address, workers=2)
        cls.addClassCleanup(cls.front.remove)
        cls.browser = chromium.Browser()
        cls.addClassCleanup(cls.browser.close)
        cls.args = argparse.Namespace(
            width=1280, height=800, timeout=30.0, save=None,
            channel_threshold=compare_pages.DEFAULT_CHANNEL_THRESHOLD,
            max_fraction=compare_pages.DEFAULT_MAX_FRACTION)

    @classmethod
    def tearDownClass(cls):
        cls.front.stop()
        assert not cls.front.crashes(), cls.front.crashes()

    def test_pages_look_the_same_and_cost_less(self):
        for path in PAGES:
            with self.subTest(page=path):
                direct_url = "http://%s%s" % (self.origin.address, path)
                through_url = self.front.url(path)
                before = cost(self.browser, self.origin, direct_url)
                # Cold, then warm from the cache, as a second visitor sees it.
                cost(self.browser, self.front, through_url)
                after = cost(self.browser, self.front, through_url)
                original = compare_pages.load(self.browser, direct_url, self.args)
                optimised = compare_pages.load(self.browser, through_url, self.args)
                verdict = compare_pages.judge(original, optimised, self.args)
                print("%s: requests %d -> %d, bytes %d -> %d, pixels differing %.4f"
                      % (path, before[0], after[0], before[1], after[1],
                         verdict["render"]["fraction"]))
                self.assertTrue(verdict["render"]["same"], verdict["render"])
                self.assertTrue(verdict["state"]["same"], verdict["state"])
                self.assertTrue(verdict["errors"]["same"], verdict["errors"])
                self.assertFalse(verdict["requests"]["optimisedFailed"])
                self.assertLess(after[0], before[0])
                self.assertLess(after[1], before[1])


def main():
    return nodes.run_suite(globals(), chromium.why_sites_cannot_run)


if __name__ == "__main__":
    sys.exit(main())
