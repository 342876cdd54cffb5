"""Tests of the headless-Chromium harness: the PNG decoder against pictures
made here with every row filter, and one real page load on loopback."""

import http.server
import os
import struct
import sys
import tempfile
import threading
import unittest
import zlib

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import chromium  # noqa: E402


def encode_png(width, height, color, channels, rows, filters, palette=b""):
    """A PNG of raw `rows` (bytes each), row y filtered with filters[y]."""
    def chunk(kind, body):
        return struct.pack(">I", len(body)) + kind + body + struct.pack(
            ">I", zlib.crc32(kind + body) & 0xFFFFFFFF)

    data = bytearray()
    prev = bytes(width * channels)
    for y, row in enumerate(rows):
        kind = filters[y % len(filters)]
        out = bytearray(row)
        for i in range(len(row)):
            left = row[i - channels] if i >= channels else 0
            upleft = prev[i - channels] if i >= channels else 0
            predictor = [0, left, prev[i], (left + prev[i]) >> 1,
                         chromium._paeth(left, prev[i], upleft)][kind]
            out[i] = (row[i] - predictor) & 0xFF
        data += bytes([kind]) + out
        prev = row
    png = b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, color,
                                                            0, 0, 0))
    if palette:
        png += chunk(b"PLTE", palette)
    return png + chunk(b"IDAT", zlib.compress(bytes(data))) + chunk(b"IEND", b"")


class DecodePng(unittest.TestCase):
    def test_every_filter_gives_back_the_pixels(self):
        width, height = 7, 10
        rows = [bytes((x * 37 + y * 91 + c * 13) & 0xFF for x in range(width) for c in range(4))
                for y in range(height)]
        png = encode_png(width, height, 6, 4, rows, [0, 1, 2, 3, 4])
        image = chromium.decode_png(png)
        self.assertEqual((image.width, image.height), (width, height))
        self.assertEqual(image.rgba, b"".join(rows))
        self.assertEqual(image.pixel(1, 2), tuple(rows[2][4:8]))

    def test_rgb_grey_and_palette_become_opaque_rgba(self):
        rgb = chromium.decode_png(encode_png(2, 1, 2, 3, [bytes([1, 2, 3, 4, 5, 6])], [4]))
        self.assertEqual(rgb.rgba, bytes([1, 2, 3, 255, 4, 5, 6, 255]))
        grey = chromium.decode_png(encode_png(2, 1, 0, 1, [bytes([9, 200])], [1]))
        self.assertEqual(grey.rgba, bytes([9, 9, 9, 255, 200, 200, 200, 255]))
        indexed = chromium.decode_png(encode_png(2, 1, 3, 1, [bytes([1, 0])], [0],
                                                 palette=bytes([10, 20, 30, 40, 50, 60])))
        self.assertEqual(indexed.rgba, bytes([40, 50, 60, 255, 10, 20, 30, 255]))

    def test_bad_input_is_refused(self):
        for bad in (b"", b"GIF89a", b"\x89PNG\r\n\x1a\n", encode_png(1, 1, 2, 3, [b"abc"], [0])[:-30]):
            with self.assertRaises((ValueError, zlib.error, struct.error)):
                chromium.decode_png(bad)
        with self.assertRaises(ValueError):  # 16-bit depth
            chromium.decode_png(b"\x89PNG\r\n\x1a\n" + struct.pack(">I", 13) + b"IHDR" +
                                struct.pack(">IIBBBBB", 1, 1, 16, 2, 0, 0, 0) + b"\0" * 4)


PAGE = b"""<!doctype html><html><head><link rel="icon" href="data:,">
<style>body{margin:0;background:#fff}#red{width:100px;height:50px;background:#f00}</style>
</head><body><div id="red"></div><img src="missing.png">
<script>console.error("boom"); window.answer = 6 * 7;</script>
<div style="height:2000px;background:#00f"></div></body></html>"""


@unittest.skipUnless(chromium.find_chromium(), "chromium is not installed")
class LoadPage(unittest.TestCase):
    def test_load_counts_requests_errors_and_screenshots_the_whole_page(self):
        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                if self.path == "/":
                    self.send_response(200)
                    self.send_header("Content-Type", "text/html")
                    self.send_header("Content-Length", str(len(PAGE)))
                    self.end_headers()
                    self.wfile.write(PAGE)
                else:
                    self.send_error(404)

            def log_message(self, *args):
                pass

        server = http.server.ThreadingHTTPServer((chromium.loopback_address(0), 0), Handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        url = "http://%s:%d/" % server.server_address
        try:
            with chromium.Browser() as browser:
                page = browser.load(url, width=640, height=480)
                self.assertEqual([(r.url, r.status) for r in page.requests],
                                 [(url, 200), (url + "missing.png", 404)])
                self.assertIn("console.error: boom", page.console_errors)
                self.assertTrue(any("404" in e and "missing.png" in e
                                    for e in page.console_errors), page.console_errors)
                self.assertEqual(page.evaluate("window.answer"), 42)
                self.assertEqual(page.evaluate("Promise.resolve({a: [1]})"), {"a": [1]})
                with self.assertRaises(chromium.JavaScriptError):
                    page.evaluate("undefinedName.x")
                image = page.screenshot()
                self.assertEqual(image.width, 640)
                self.assertGreaterEqual(image.height, 2050)
                self.assertEqual(image.pixel(5, 5), (255, 0, 0, 255))
                self.assertEqual(image.pixel(5, image.height - 5), (0, 0, 255, 255))
                page.close()
                # A second context starts empty: nothing comes from a cache.
                again = browser.load(url, width=640, height=480)
                self.assertFalse(any(r.from_cache for r in again.requests))
                again.close()
        finally:
            server.shutdown()
            server.server_close()


if __name__ == "__main__":
    unittest.main()
