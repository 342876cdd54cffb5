#!/usr/bin/env bash
# Sprite-sheet benchmark: 100 small real icons (apache2-data) and 20 small
# photos (the JPEG pictures of imagemagick-6-doc), built into sheets by the
# image server and, in the same run, by spritesmith (its default pixelsmith
# engine, installed with npm into build/spritesmith). Prints images per
# second for each, the ratio, and our sheet bytes against the source bytes.
# Usage: bench/run-image-bench.sh [ITERATIONS]  (default 20)
set -euo pipefail
cd "$(dirname "$0")/.."

iterations=${1:-20}
scripts/install-deps.sh libbenchmark-dev libgumbo-dev pkg-config apache2-data imagemagick-6-doc \
  nodejs
command -v npm >/dev/null || scripts/install-deps.sh npm
cmake --preset bench >/dev/null
cmake --build build/bench -j2 --target image_bench

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
icons=/usr/share/apache2/icons
photos=/usr/share/doc/imagemagick-6-common/html
# sed rather than head: head may leave before sort has written everything,
# and with pipefail that SIGPIPE would end the script.
{
  find "$icons" -maxdepth 1 -name '*.gif' | sort | sed -n '1,50p'
  find "$icons" -maxdepth 1 -name '*.png' | sort | sed -n '1,50p'
  find "$photos" -name '*.jpg' -size -40k -printf '%s %p\n' | sort -n | sed -n '1,20p' | cut -d' ' -f2-
} >"$work/list"
echo "images: $(grep -c . "$work/list") ($(grep -c '\.jpg$' "$work/list") photos)"

modules=build/spritesmith/node_modules
if [ ! -d "$modules/spritesmith" ]; then
  mkdir -p build/spritesmith
  [ -f build/spritesmith/package.json ] ||
    echo '{"name": "spritesmith-baseline", "private": true}' >build/spritesmith/package.json
  (cd build/spritesmith && npm install --no-audit --no-fund spritesmith >/dev/null)
fi

build/bench/bench/image_bench "$work/list" "$iterations" "$work/groups" | tee "$work/ours"
node bench/spritesmith_bench.js "$work/groups" "$(((iterations + 4) / 5))" "$PWD/$modules" |
  tee "$work/theirs"
ours=$(awk '/^RATE/ {print $2}' "$work/ours")
theirs=$(awk '/^RATE/ {print $2}' "$work/theirs")
awk -v a="$ours" -v b="$theirs" \
  'BEGIN {printf "images per second: zelvarpack %.1f, spritesmith %.1f, ratio %.1f\n", a, b, a / b}'
