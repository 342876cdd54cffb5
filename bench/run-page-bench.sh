#!/usr/bin/env bash
# Page optimiser benchmark: writes a 40 KB page with 20 resources and a 1 MB
# page over the sample site's resources, serves them from a loopback nginx
# started here (stopped afterwards) and runs bench/page_bench.cc: the added
# latency and the 1 MB page, then the processor time per DoWork and per warm
# revalidation (client and origin).
# Usage: bench/run-page-bench.sh [ROUNDS]
set -euo pipefail
cd "$(dirname "$0")/.."
rounds=${1:-200}

scripts/install-deps.sh libbenchmark-dev libgumbo-dev pkg-config
cmake --preset bench >/dev/null
cmake --build build/bench -j"$(nproc)" --target page_bench

address=127.0.78.$((RANDOM % 200 + 20))
dir=$(mktemp -d)
cp -r testdata/page/site "$dir/www"
python3 - "$dir/www" <<'PY'
import sys, os
www = sys.argv[1]
os.makedirs(www + "/extra", exist_ok=True)
head = ['<link rel="stylesheet" href="css/layout.css">', '<link rel="stylesheet" href="css/theme.css">']
for i in range(4):
    open(f"{www}/extra/s{i}.css", "w").write("".join(
        f".c{i}-{j} {{ margin: {j}px; color: #{(i * 97 + j * 13) % 4096:03x} }}\n" for j in range(60)))
    head.append(f'<link rel="stylesheet" href="extra/s{i}.css">')
head.append('<script src="js/app.js"></script>')
for i in range(5):
    open(f"{www}/extra/j{i}.js", "w").write("".join(
        f"var v{i}_{j} = {j} * 2; function f{i}_{j}(x) {{ return x + v{i}_{j}; }}\n" for j in range(40)))
    head.append(f'<script src="extra/j{i}.js"></script>')
images = ["img/folder.gif", "img/text.gif", "img/image2.gif", "img/a.png", "img/alert.red.png",
          "img/icon.jpg", "img/folder.gif", "img/text.gif"]
def body(target):
    parts, n = [], 0
    while sum(map(len, parts)) < target:
        parts.append(f'<div class="c{n % 4}-{n % 60}"><h2>Section {n}</h2><p>Lorem ipsum dolor sit '
                     f'amet, consectetur adipiscing elit, sed do eiusmod tempor incididunt ut labore '
                     f'et dolore magna aliqua. <a href="/item/{n}">Item {n}</a></p></div>\n')
        n += 1
    return "".join(parts)
def page(target):
    imgs = "".join(f'<img src="{src}" alt="i{k}">' for k, src in enumerate(images))
    return ("<!DOCTYPE html><html><head><title>Bench</title>" + "".join(head) +
            "<style>.x { color: red }</style></head><body>" + imgs + body(target) + "</body></html>")
open(www + "/page40k.html", "w").write(page(40000 - 2000))
open(www + "/page1m.html", "w").write(page(1000000 - 2000))
PY
scripts/loopback-nginx.sh "$dir" "$address" >/dev/null 2>&1 &
nginx_pid=$!
trap 'kill $nginx_pid 2>/dev/null; wait $nginx_pid 2>/dev/null; rm -rf "$dir"' EXIT
for _ in $(seq 1 200); do
  (exec 3<>"/dev/tcp/$address/80") 2>/dev/null && break
  sleep 0.05
done
build/bench/bench/page_bench "$address" "$rounds"
# The processor time behind the 1 MB figure: per DoWork (process, page
# thread, origin) and per warm revalidation (client C, origin S).
build/bench/bench/page_bench "$address" "$rounds" big "$nginx_pid"
build/bench/bench/page_bench "$address" "$rounds" revalidate "$nginx_pid"
