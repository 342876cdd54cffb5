"""Several nginx nodes on one shared cache folder: pages optimised by one
node are answered by the other, and nodes starting cold at the same moment
write the same content files without harm.

Usage: nodes_test.py MODULE_SO   (exit 77: cannot run here)
"""

import os
import shutil
import sys
import tempfile
import threading
import unittest

import nginx_nodes as nodes

MODULE = None
SITE = os.path.join(nodes.SOURCE_DIR, "testdata", "site")
PAGES = ("/index.html", "/bootstrap.html", "/jquery.html")


class NodesTest(unittest.TestCase):

    def setUp(self):
        self.scratch = tempfile.mkdtemp(prefix="zp-nginx-nodes-")
        self.addCleanup(shutil.rmtree, self.scratch, ignore_errors=True)
        self.origin = nodes.Origin(SITE, nodes.address(0))
        self.addCleanup(self.origin.remove)
        cache = os.path.join(self.scratch, "shared-cache")
        self.fronts = []
        for kind in (1, 2):
            front = nodes.Front(MODULE, cache, nodes.address(kind),
                                upstream=self.origin.address, workers=2)
            self.addCleanup(front.remove)
            self.fronts.append(front)
        self.cache = cache

    def tearDown(self):
        for front in self.fronts:
            front.stop()
            self.assertFalse(front.crashes())

    def test_requests_alternate_between_two_nodes(self):
        # Both nodes cold at once, every page, several times: the same
        # content files are written concurrently from four workers.
        results, errors = {}, []

        def load(front, path, round_):
            try:
                status, headers, body = nodes.get(front.url(path), {"Accept-Encoding": "gzip"})
                results[(front.address, path, round_)] = (status, nodes.page_of(headers, body))
            except Exception as error:
                errors.append(repr(error))

        threads = [threading.Thread(target=load, args=(front, path, round_))
                   for round_ in range(3) for path in PAGES for front in self.fronts]
        for t in threads:
            t.start()
        for t in threads:
            t.join(120)
        self.assertFalse(errors)

        answered = 0
        for (addr, path, round_), (status, page) in sorted(results.items()):
            self.assertEqual(status, 200, (addr, path))
            other = self.fronts[1] if addr == self.fronts[0].address else self.fronts[0]
            mine = self.fronts[0] if other is self.fronts[1] else self.fronts[1]
            for url in nodes.handler_urls(page):
                with self.subTest(node=addr, url=url):
                    path_ = "/" + url.decode()
                    a = nodes.get(mine.url(path_))
                    b = nodes.get(other.url(path_))
                    self.assertEqual(a[0], 200)
                    self.assertEqual(b[0], 200)
                    self.assertEqual(a[2], b[2])
                    self.assertGreater(len(b[2]), 0)
                    answered += 1
        self.assertGreater(answered, 10)
        # Content files are published whole: nothing half-written is left.
        leftovers = [name for _, _, names in os.walk(self.cache) for name in names
                     if ".tmp." in name]
        self.assertFalse(leftovers)


def main():
    return nodes.run_suite(globals())


if __name__ == "__main__":
    sys.exit(main())
