"""The nginx module when things go wrong: resources that fail or never
answer, pages too large or not HTML at all, clients that leave, a reload
under load. Every page that would have worked still arrives whole, and no
worker dies.

Usage: faults_test.py MODULE_SO   (exit 77: cannot run here)
"""

import hashlib
import http.server
import random
import shutil
import socket
import sys
import tempfile
import threading
import time
import unittest

import nginx_nodes as nodes

MODULE = None
TIMEOUT_SECONDS = 1
BIG = 50 * 1024 * 1024


def page_with(head, body="<p>text</p>"):
    return ("<!DOCTYPE html><html><head><title>t</title>%s</head><body>%s</body></html>"
            % (head, body)).encode()


class ScriptedOrigin(http.server.ThreadingHTTPServer):
    """The site's server, answering each path with one behaviour."""

    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, addr, down_addr):
        self.release = threading.Event()
        rng = random.Random(20261124)
        self.binary = bytes(rng.getrandbits(8) for _ in range(200000))
        self.big = (b"<!DOCTYPE html><html><head><title>big</title></head><body>"
                    + b"<p>filler line of a very large page</p>\n" * (BIG // 39) + b"</body></html>")
        self.pages = {
            "/page.html": page_with(
                '<link rel="stylesheet" href="/ok.css"><link rel="stylesheet" href="/missing.css">'
                '<link rel="stylesheet" href="/error.css">'
                '<link rel="stylesheet" href="http://%s/down.css">'
                '<script src="/ok.js"></script><script src="/missing.js"></script>' % down_addr),
            "/hang.html": page_with('<link rel="stylesheet" href="/ok.css">'
                                    '<link rel="stylesheet" href="/hang.css">'),
        }
        super().__init__((addr, 80), self.Handler)

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def log_message(self, *args):
            pass

        def send(self, status, kind, body, chunked=False):
            self.send_response(status)
            self.send_header("Content-Type", kind)
            if chunked:
                self.send_header("Transfer-Encoding", "chunked")
            else:
                self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            if self.command == "HEAD":
                return
            if not chunked:
                self.wfile.write(body)
                return
            for at in range(0, len(body), 1 << 20):
                piece = body[at:at + (1 << 20)]
                self.wfile.write(b"%x\r\n%s\r\n" % (len(piece), piece))
            self.wfile.write(b"0\r\n\r\n")

        def do_GET(self):
            server = self.server
            path = self.path.split("?")[0]
            try:
                if path in server.pages:
                    self.send(200, "text/html", server.pages[path])
                elif path == "/ok.css":
                    self.send(200, "text/css", b"body { color: #123456; }\n")
                elif path == "/ok.js":
                    self.send(200, "application/javascript", b"var ok = 1;\n")
                elif path == "/error.css":
                    self.send(500, "text/plain", b"broken\n")
                elif path == "/hang.css":
                    server.release.wait(60)  # never answers while the test runs
                    self.close_connection = True
                elif path == "/big.html":
                    self.send(200, "text/html", server.big)
                elif path == "/big-chunked.html":
                    self.send(200, "text/html", server.big, chunked=True)
                elif path == "/binary.html":
                    self.send(200, "text/html; charset=utf-8", server.binary)
                else:
                    self.send(404, "text/plain", b"no\n")
            except (BrokenPipeError, ConnectionResetError):
                pass

        do_HEAD = do_GET


def digest(data):
    return hashlib.sha256(data).hexdigest()


class FaultsTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.mkdtemp(prefix="zp-nginx-faults-")
        cls.addClassCleanup(shutil.rmtree, cls.scratch, ignore_errors=True)
        cls.origin = ScriptedOrigin(nodes.address(0), nodes.address(3))
        threading.Thread(target=cls.origin.serve_forever, daemon=True).start()
        cls.addClassCleanup(cls.origin.server_close)
        cls.addClassCleanup(cls.origin.shutdown)
        cls.addClassCleanup(cls.origin.release.set)
        cls.front = nodes.Front(MODULE, cls.scratch + "/cache", nodes.address(1),
                                upstream=cls.origin.server_address[0], workers=2,
                                settings="zelvarpack_timeout %ds; zelvarpack_fetch_foreign on;"
                                % TIMEOUT_SECONDS,
                                location_extra="proxy_read_timeout 30s;")
        cls.addClassCleanup(cls.front.remove)

    @classmethod
    def tearDownClass(cls):
        cls.front.stop()
        assert not cls.front.crashes(), cls.front.crashes()

    def fetch(self, path, headers=None):
        return nodes.get(self.front.url(path), headers, timeout=60)

    def test_failed_and_unreachable_resources_leave_a_working_page(self):
        status, headers, body = self.fetch("/page.html")
        self.assertEqual(status, 200)
        self.assertEqual(int(headers["content-length"]), len(body))
        self.assertTrue(body.rstrip().endswith(b"</html>"), body[-200:])
        self.assertIn(b"<p>text</p>", body)
        self.assertIn(b"CS.zp?", body)  # what did arrive was still combined

    def test_a_resource_that_never_answers_costs_at_most_the_timeout(self):
        start = time.monotonic()
        status, headers, body = self.fetch("/hang.html")
        elapsed = time.monotonic() - start
        self.assertEqual(status, 200)
        self.assertTrue(body.rstrip().endswith(b"</html>"))
        self.assertIn(b"CS.zp?", body)
        # The optimiser's wait, the deadline's margin of one second, and
        # slack for a machine busy with other work.
        self.assertLess(elapsed, TIMEOUT_SECONDS + 1 + 3.0)

    def test_pages_too_large_pass_through_whole(self):
        for path in ("/big.html", "/big-chunked.html"):
            with self.subTest(path=path):
                status, headers, body = self.fetch(path)
                self.assertEqual(status, 200)
                self.assertEqual(len(body), len(self.origin.big))
                self.assertEqual(digest(body), digest(self.origin.big))
                self.assertNotIn("content-encoding", headers)

    def test_binary_served_as_html_arrives_unchanged(self):
        for accept in ("", "gzip"):
            with self.subTest(accept=accept):
                status, headers, body = self.fetch("/binary.html", {"Accept-Encoding": accept})
                self.assertEqual(status, 200)
                self.assertEqual(nodes.page_of(headers, body), self.origin.binary)

    def test_clients_that_leave_while_their_page_is_optimised(self):
        host, port = self.front.address, 8080
        for _ in range(6):
            with socket.create_connection((host, port)) as s:
                s.sendall(b"GET /hang.html HTTP/1.1\r\nHost: x\r\nUser-Agent: %s\r\n\r\n"
                          % nodes.BROWSER.encode())
                time.sleep(0.1)
        time.sleep(TIMEOUT_SECONDS + 1.5)  # the abandoned jobs end
        status, _, body = self.fetch("/page.html")
        self.assertEqual(status, 200)
        self.assertFalse(self.front.crashes())

    def test_reload_under_load_loses_no_page(self):
        failures, done = [], []
        stop = threading.Event()

        def client():
            while not stop.is_set():
                try:
                    status, headers, body = self.fetch("/page.html", {"Accept-Encoding": "gzip"})
                    page = nodes.page_of(headers, body)
                    if status != 200 or not page.rstrip().endswith(b"</html>"):
                        failures.append((status, page[-100:]))
                    done.append(1)
                except Exception as error:  # a cut connection is a lost page
                    failures.append(repr(error))

        threads = [threading.Thread(target=client) for _ in range(8)]
        for t in threads:
            t.start()
        try:
            for _ in range(3):
                time.sleep(1.0)
                self.front.reload()
            time.sleep(1.5)
        finally:
            stop.set()
            for t in threads:
                t.join(60)
        self.assertFalse(failures, failures[:5])
        self.assertGreater(len(done), 8)
        self.assertFalse(self.front.crashes())
        self.assertIn("reconfiguring", self.front.errors())


def main():
    return nodes.run_suite(globals())


if __name__ == "__main__":
    sys.exit(main())
