#!/usr/bin/env python3
"""Makes the sample site's pictures (run once; the results are committed):
icons from apache2-data's icon set, and pictures drawn on a canvas in
headless Chromium from a seeded generator, so the same run gives the same
bytes on the same browser.

Usage: testdata/site/make-images.py   (needs apache2-data and chromium)
"""

import base64
import os
import shutil
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests", "browser"))
import chromium  # noqa: E402

ICONS = "/usr/share/apache2/icons"
COPIED = ["folder.gif", "text.gif", "image2.gif", "back.gif", "up.gif", "folder.png",
          "ball.red.png", "ball.gray.png", "apache_pb.png", "comp.blue.png"]

# A landscape: sky gradient, hills, sun, and per-pixel noise from a seeded
# linear congruential generator (photo-like: JPEG-friendly, PNG-hostile).
DRAW = r"""
function draw(w, h, seed, type, quality) {
  var c = document.createElement('canvas'); c.width = w; c.height = h;
  var g = c.getContext('2d'), s = seed;
  function rnd() { s = (s * 1103515245 + 12345) % 2147483648; return s / 2147483648; }
  var sky = g.createLinearGradient(0, 0, 0, h);
  sky.addColorStop(0, '#3a6fb0'); sky.addColorStop(0.6, '#b9d4ee'); sky.addColorStop(1, '#e8d9b0');
  g.fillStyle = sky; g.fillRect(0, 0, w, h);
  g.fillStyle = '#f6d36b'; g.beginPath(); g.arc(w * 0.75, h * 0.25, h * 0.12, 0, 7); g.fill();
  for (var layer = 0; layer < 3; layer++) {
    g.fillStyle = ['#5f8a4a', '#3f6b35', '#2b4d25'][layer];
    g.beginPath(); g.moveTo(0, h);
    for (var x = 0; x <= w; x += 4) {
      g.lineTo(x, h * (0.55 + 0.15 * layer) + Math.sin(x / (30 + 20 * layer) + layer) * h * 0.06
               + rnd() * 3);
    }
    g.lineTo(w, h); g.fill();
  }
  var img = g.getImageData(0, 0, w, h), d = img.data;
  for (var i = 0; i < d.length; i += 4) {
    var n = (rnd() - 0.5) * 24;
    d[i] += n; d[i + 1] += n; d[i + 2] += n;
  }
  g.putImageData(img, 0, 0);
  return c.toDataURL(type, quality);
}
"""

PICTURES = [  # name, width, height, seed, type
    ("landscape.jpg", 420, 260, 7, "image/jpeg"),
    ("thumb-hills.jpg", 48, 48, 11, "image/jpeg"),
    ("thumb-lake.jpg", 48, 48, 23, "image/jpeg"),
    ("panorama.png", 240, 120, 5, "image/png"),
]


def main():
    img = os.path.join(HERE, "img")
    os.makedirs(img, exist_ok=True)
    for name in COPIED:
        shutil.copyfile(os.path.join(ICONS, name), os.path.join(img, name))
    with chromium.Browser() as browser:
        page = browser.load("data:text/html,<title>draw</title>", width=200, height=200)
        page.evaluate(DRAW)
        for name, width, height, seed, kind in PICTURES:
            url = page.evaluate("draw(%d, %d, %d, '%s', 0.82)" % (width, height, seed, kind))
            with open(os.path.join(img, name), "wb") as f:
                f.write(base64.b64decode(url.split(",", 1)[1]))
        page.close()


if __name__ == "__main__":
    main()
