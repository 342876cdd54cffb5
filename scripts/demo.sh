#!/usr/bin/env bash
# The engine's main job on the bundled sample site: serves testdata/page/site
# with a throw-away nginx on a loopback address, runs the page optimiser on
# its page twice (cold, then warm from the cache), and prints what it saved.
#
# Usage: scripts/demo.sh [SITE_DIR [PAGE]]   (default: testdata/page/site sample.html)
# The optimised page, the cache and the server's files stay in build/demo/.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build build/default -j"$(nproc)" --target zelvarpack >/dev/null
tool=$PWD/build/default/zelvarpack
site=${1:-testdata/page/site}
page=${2:-sample.html}

work=$PWD/build/demo
rm -rf "$work"
mkdir -p "$work/www" "$work/cache"
cp -r "$site"/. "$work/www/"
[ -f "$work/www/$page" ] || cp "testdata/page/$page" "$work/www/$page"

address=127.0.$((RANDOM % 200 + 20)).$((RANDOM % 200 + 20))
scripts/loopback-nginx.sh "$work" "$address" >"$work/nginx.out" 2>&1 &
nginx_pid=$!
trap 'kill $nginx_pid 2>/dev/null || true' EXIT
for _ in $(seq 50); do
  curl -fsS -o /dev/null "http://$address/$page" 2>/dev/null && break
  sleep 0.1
done

url="http://$address/$page"
echo "== optimising $url (cold cache)"
"$tool" optimize --url "$url" --cache "$work/cache" --timeout 5 -o "$work/optimised.html"
echo "== again, warm"
"$tool" optimize --url "$url" --cache "$work/cache" --timeout 5 -o "$work/optimised.html" |
  python3 -c '
import json, sys
r = json.load(sys.stdin)
print(json.dumps(r))
print("requests: %d before, %d after" % (r["requestsBefore"], r["requestsAfter"]))
print("bytes:    %d before, %d after (%d after gzip)" % (r["bytesBefore"], r["bytesAfter"], r["bytesAfterGzip"]))'
echo "== the optimised page: $work/optimised.html; combined files under $work/cache"
