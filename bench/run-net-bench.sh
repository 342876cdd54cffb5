#!/usr/bin/env bash
# Download benchmark: DownloadUrl (no cache, cold cache, warm cache answered
# by 304) against plain libcurl GETs with a fresh connection each, 200 small
# resources from a loopback nginx started here and stopped afterwards.
# Prints requests per second for each and the two ratios.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh libbenchmark-dev libgumbo-dev pkg-config
cmake --preset bench >/dev/null
cmake --build build/bench -j"$(nproc)" --target net_bench

address=127.0.77.$((RANDOM % 200 + 20))
dir=$(mktemp -d)
scripts/loopback-nginx.sh "$dir" "$address" &
nginx_pid=$!
trap 'kill $nginx_pid 2>/dev/null; wait $nginx_pid 2>/dev/null; rm -rf "$dir"' EXIT

mkdir -p "$dir/www/r"
for i in $(seq 0 199); do
  printf '.rule%d { color: #%06x; margin: %dpx }\n' $(seq 1 40) >"$dir/www/r/$i.css"
done
for _ in $(seq 1 200); do
  (exec 3<>"/dev/tcp/$address/80") 2>/dev/null && break
  sleep 0.05
done
build/bench/bench/net_bench "$address" 200 15
