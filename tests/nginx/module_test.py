"""The nginx module in a real nginx: which pages it optimises and how they
go out, the handler URLs, the security-policy switches, the counters.

Usage: module_test.py MODULE_SO   (exit 77: cannot run here)
"""

import gzip
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import nginx_nodes as nodes

MODULE = None
SITE = os.path.join(nodes.SOURCE_DIR, "testdata", "site")

# Locations of the origin that send the sample page with the headers a test
# needs (try_files serves the file inside the location, headers and all).
ORIGIN_LOCATIONS = r"""
    location = /no-transform.html {
      add_header Cache-Control "public, no-transform";
      try_files /index.html =404;
    }
    location = /csp-eval.html {
      add_header Content-Security-Policy "default-src 'self'; style-src 'self' 'unsafe-inline'";
      try_files /index.html =404;
    }
    location = /csp-style.html {
      add_header Content-Security-Policy "script-src 'self' 'unsafe-eval' 'unsafe-inline'; style-src 'self'";
      try_files /index.html =404;
    }
    location = /gzipped.html {
      gzip on;
      gzip_http_version 1.0;
      gzip_min_length 0;
      try_files /index.html =404;
    }
    location = /chunked.html {
      chunked_transfer_encoding on;
      ssi on;
      try_files /index.html =404;
    }
"""


class ModuleTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.mkdtemp(prefix="zp-nginx-module-")
        cls.addClassCleanup(shutil.rmtree, cls.scratch, ignore_errors=True)
        cls.origin = nodes.Origin(SITE, nodes.address(0), ORIGIN_LOCATIONS)
        cls.addClassCleanup(cls.origin.remove)
        www = os.path.join(cls.origin.dir, "www")
        with open(os.path.join(www, "index.html"), "rb") as f:
            page = f.read()
        cls.page = page
        with open(os.path.join(www, "stats.html"), "wb") as f:
            f.write(page.replace(b"<head>", b"<head><!--zp_send_stats-->", 1))
        cls.cache = os.path.join(cls.scratch, "cache", "site")  # created by the module
        cls.front = nodes.Front(MODULE, cls.cache, nodes.address(1),
                                upstream=cls.origin.address)
        cls.addClassCleanup(cls.front.remove)
        # A second front serving the same files from its own root.
        cls.static = nodes.Front(MODULE, os.path.join(cls.scratch, "static-cache"),
                                 nodes.address(2), root=www,
                                 settings="zelvarpack_server_address %s;" % cls.origin.address)
        cls.addClassCleanup(cls.static.remove)

    @classmethod
    def tearDownClass(cls):
        for server in (cls.front, cls.static, cls.origin):
            server.stop()
            assert not server.crashes(), server.crashes()

    def fetch(self, path, headers=None, method="GET", front=None):
        return nodes.get((front or self.front).url(path), headers, method)

    def optimised(self, path, front=None, headers=None):
        status, headers, body = self.fetch(path, headers, front=front)
        self.assertEqual(status, 200)
        return headers, nodes.page_of(headers, body)

    def test_page_is_rewritten_with_its_own_length_and_no_old_validators(self):
        for front in (self.front, self.static):
            with self.subTest(front=front.address):
                status, headers, body = self.fetch("/index.html", front=front)
                self.assertEqual(status, 200)
                self.assertNotIn("content-encoding", headers)
                self.assertEqual(int(headers["content-length"]), len(body))
                self.assertNotIn("etag", headers)
                self.assertNotIn("last-modified", headers)
                self.assertEqual(headers.get("vary"), "Accept-Encoding")
                self.assertTrue(nodes.handler_urls(body), body[:400])
                self.assertNotEqual(body, self.page)

    def test_gzip_only_when_accepted(self):
        for accept, gzipped in (("gzip", True), ("deflate, gzip;q=0.5", True),
                                ("gzip;q=0", False), ("br", False), ("*", True)):
            with self.subTest(accept=accept):
                status, headers, body = self.fetch("/index.html", {"Accept-Encoding": accept})
                self.assertEqual(status, 200)
                self.assertEqual(headers.get("content-encoding") == "gzip", gzipped)
                self.assertEqual(int(headers["content-length"]), len(body))
                page = gzip.decompress(body) if gzipped else body
                self.assertTrue(nodes.handler_urls(page))

    def test_pages_that_pass_untouched(self):
        cases = [
            ("HEAD", "/index.html", {}),
            ("GET", "/index.html", {"Range": "bytes=0-99"}),
            ("GET", "/no-transform.html", {}),
            ("GET", "/css/base.css", {}),
        ]
        for method, path, headers in cases:
            with self.subTest(method=method, path=path, headers=headers):
                status, got, body = self.fetch(path, headers, method)
                self.assertIn(status, (200, 206))
                self.assertFalse(nodes.handler_urls(body))
                direct = nodes.get("http://%s%s" % (self.origin.address, path), headers, method)
                self.assertEqual(body, direct[2])
        # An upstream that compressed the page itself: the bytes go as they came.
        status, headers, body = self.fetch("/gzipped.html", {"Accept-Encoding": "gzip"})
        self.assertEqual(headers.get("content-encoding"), "gzip")
        self.assertEqual(gzip.decompress(body), self.page)

    def test_handlers_answer_every_id_of_the_page(self):
        _, page = self.optimised("/index.html")
        urls = nodes.handler_urls(page)
        kinds = {u[:5] for u in urls}
        self.assertEqual(kinds, {b"CS.zp", b"JS.zp", b"IS.zp"})
        types = {b"CS.zp": "text/css", b"JS.zp": "application/javascript"}
        for url in urls:
            with self.subTest(url=url):
                path = "/" + url.decode()
                status, plain_headers, plain = self.fetch(path)
                self.assertEqual(status, 200)
                self.assertEqual(plain_headers["cache-control"],
                                 "public, max-age=31536000, immutable")
                ident = url.decode().split("?", 1)[1]
                self.assertEqual(plain_headers["etag"], '"%s"' % ident)
                self.assertEqual(int(plain_headers["content-length"]), len(plain))
                if url[:5] in types:
                    self.assertEqual(plain_headers["content-type"], types[url[:5]])
                    status, headers, body = self.fetch(path, {"Accept-Encoding": "gzip"})
                    self.assertEqual(headers.get("vary"), "Accept-Encoding")
                    self.assertEqual(nodes.page_of(headers, body), plain)
                else:
                    self.assertRegex(plain_headers["content-type"], r"^image/(gif|png|jpeg)$")
                    signature = {"image/gif": b"GIF8", "image/png": b"\x89PNG",
                                 "image/jpeg": b"\xff\xd8\xff"}
                    self.assertTrue(plain.startswith(signature[plain_headers["content-type"]]))
                # Braces percent-encoded, as some clients send them.
                encoded = path.replace("{", "%7B").replace("}", "%7d")
                self.assertEqual(self.fetch(encoded)[2], plain)
                status, headers, body = self.fetch(path, {"If-None-Match": '"%s"' % ident})
                self.assertEqual(status, 304)
                self.assertEqual(body, b"")

    def test_placeholder_and_bad_ids(self):
        status, headers, body = self.fetch("/IS.zp?{2F50498C-8605-468F-991E-AEABAA95E643}")
        self.assertEqual(status, 200)
        self.assertEqual(headers["content-type"], "image/gif")
        self.assertTrue(body.startswith(b"GIF89a\x01\x00\x01\x00"))
        for path in ("/CS.zp?{00000000-0000-0000-0000-000000000000}", "/CS.zp?",
                     "/JS.zp?nothing", "/IS.zp?{2F50498C-8605-468F-991E-AEABAA95E64}",
                     "/CS.zp?%7B%ZZ", "/JS.zp?{../../../../etc/passwd-0000-000000000000}",
                     "/CS.zp?{2F50498C-8605-468F-991E-AEABAA95E643}%00"):
            with self.subTest(path=path):
                self.assertEqual(self.fetch(path)[0], 404)
        self.assertEqual(self.fetch("/CS.zp?x", method="POST")[0], 405)

    def test_security_policy_switches(self):
        _, plain = self.optimised("/index.html")
        _, no_eval = self.optimised("/csp-eval.html")
        _, no_inline_style = self.optimised("/csp-style.html")
        self.assertIn(b"eval(", plain)
        self.assertIn(b"IS.zp?", plain)
        # Scripts stay apart where eval is forbidden; sprites still come.
        self.assertNotIn(b"eval(", no_eval)
        self.assertIn(b'src="js/app.js"', no_eval)
        self.assertIn(b"IS.zp?", no_eval)
        # No placeholders (with their style attribute) where inline styles
        # are forbidden; scripts are still combined.
        self.assertNotIn(b"IS.zp?", no_inline_style)
        self.assertIn(b"JS.zp?", no_inline_style)
        for page in (no_eval, no_inline_style):
            self.assertNotIn(b"zp_js_off", page)
            self.assertNotIn(b"zp_image_off", page)
            self.assertTrue(page.lstrip().lower().startswith(b"<!doctype"))

    def test_configuration_errors_are_refused_at_test_time(self):
        cases = [
            ("zelvarpack on;", "zelvarpack needs a cache folder"),
            ("zelvarpack_cache %s/c; zelvarpack_max_page 2100m; zelvarpack on;" % self.scratch,
             "larger than 2047m"),
            ("zelvarpack_cache %s/c; zelvarpack maybe;" % self.scratch, "invalid value"),
            ("zelvarpack_cache %s/c; zelvarpack_timeout soon;" % self.scratch, "invalid value"),
        ]
        for directives, message in cases:
            with self.subTest(directives=directives):
                conf = os.path.join(self.scratch, "bad.conf")
                with open(conf, "w") as f:
                    f.write("load_module %s;\nerror_log %s/bad.log;\npid %s/bad.pid;\n"
                            "events {}\nhttp { %s server { listen %s:8081; } }\n"
                            % (MODULE, self.scratch, self.scratch, directives,
                               nodes.address(3)))
                run = subprocess.run(["nginx", "-t", "-p", self.scratch, "-c", conf,
                                      "-e", os.path.join(self.scratch, "bad.log")],
                                     capture_output=True, text=True)
                self.assertNotEqual(run.returncode, 0)
                self.assertIn(message, run.stderr)

    def test_page_memo_answers_repeated_pages_without_the_optimiser(self):
        memo = nodes.Front(MODULE, os.path.join(self.scratch, "memo-cache"), nodes.address(3),
                           upstream=self.origin.address,
                           settings="zelvarpack_page_memo 60s;")
        self.addCleanup(memo.remove)

        def origin_requests():
            subprocess.run(["sleep", "0.3"])
            return len(self.origin.access_lines())

        first = nodes.get(memo.url("/index.html"))
        count = origin_requests()
        again = nodes.get(memo.url("/index.html"))
        # Only the page itself was asked of the origin, no resources.
        self.assertEqual(origin_requests(), count + 1)
        self.assertEqual(again[2], first[2])
        self.assertTrue(nodes.handler_urls(again[2]))
        # Another browser, or another policy, is optimised afresh.
        other = nodes.get(memo.url("/index.html"), {"User-Agent": "Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.1)"})
        self.assertGreater(origin_requests(), count + 2)
        self.assertNotIn(b"IS.zp?", other[2])
        no_eval = nodes.get(memo.url("/csp-eval.html"))[2]
        self.assertNotIn(b"eval(", no_eval)
        memo.stop()
        self.assertFalse(memo.crashes())

    def test_statistics_header_and_log_variables(self):
        headers, _ = self.optimised("/stats.html")
        stats = headers.get("x-zelvarpack-stats", "")
        match = re.fullmatch(r"bytes-before=(\d+); bytes-after=(\d+); "
                             r"requests-before=(\d+); requests-after=(\d+)", stats)
        self.assertTrue(match, stats)
        headers, _ = self.optimised("/index.html")
        self.assertNotIn("x-zelvarpack-stats", headers)
        # The access log line comes after the response.
        for _ in range(50):
            lines = [line for line in self.front.access_lines() if "/stats.html" in line]
            if lines:
                break
            subprocess.run(["sleep", "0.1"])
        fields = lines[-1].split()
        self.assertEqual(fields[2], "optimised")
        self.assertEqual(fields[3:7], list(match.groups()))
        handler = [line for line in self.front.access_lines() if ".zp?" in line]
        self.assertTrue(all(line.split()[2] == "-" for line in handler))


def main():
    return nodes.run_suite(globals())


if __name__ == "__main__":
    sys.exit(main())
