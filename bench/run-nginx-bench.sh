#!/usr/bin/env bash
# nginx module benchmark: one nginx serves the sample page plain (with its
# own gzip) and through the module, and a combined stylesheet both as a
# handler URL and as a static file; wrk measures each pair side by side in
# one run (bench/nginx_bench.py). Needs root (the module's downloads use
# port 80 of a loopback address).
# Usage: bench/run-nginx-bench.sh [SECONDS_PER_MEASURE]   (default 10)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build build/default -j"$(nproc)" --target ngx_http_zelvarpack_module >/dev/null
echo "commit $(git rev-parse --short HEAD), $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg)"
python3 bench/nginx_bench.py "$PWD/build/default/ngx_http_zelvarpack_module.so" "${1:-10}"
echo "load average at the end $(cut -d' ' -f1-3 /proc/loadavg)"
