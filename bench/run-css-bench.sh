#!/usr/bin/env bash
# Stylesheet minifier benchmark: our minifier against esbuild (--minify),
# lightningcss (minify) and csso, in one run, on the same bytes: a corpus of
# real stylesheets installed here with npm into build/css-bench (never
# committed). Prints MB/s, output bytes, gzip -9 output bytes and the ratios,
# then the time of a 20 MB sheet against a 1 MB one.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh libbenchmark-dev libgumbo-dev pkg-config gzip
# Node.js may come from elsewhere than Debian (its own npm included).
command -v node >/dev/null && command -v npm >/dev/null || scripts/install-deps.sh nodejs npm
cmake --preset bench >/dev/null
cmake --build build/bench -j2 --target css_bench

work=build/css-bench
mkdir -p "$work"
if [ ! -d "$work/node_modules/lightningcss" ] || [ ! -d "$work/node_modules/bulma" ]; then
  [ -f "$work/package.json" ] || echo '{"private": true}' > "$work/package.json"
  (cd "$work" && npm install --no-audit --no-fund --loglevel=error \
    bootstrap@5 @fortawesome/fontawesome-free bulma normalize.css animate.css \
    esbuild lightningcss csso)
fi
modules=$work/node_modules
corpus=(
  "$modules/bootstrap/dist/css/bootstrap.css"
  "$modules/@fortawesome/fontawesome-free/css/all.css"
  "$modules/bulma/css/bulma.css"
  "$modules/normalize.css/normalize.css"
  "$modules/animate.css/animate.css"
)
input=$(cat "${corpus[@]}" | wc -c)
echo "corpus: ${#corpus[@]} stylesheets, $input bytes"

results=$work/results
mkdir -p "$results"
build/bench/bench/css_bench "$results/zelvar.css" "${corpus[@]}" > "$results/zelvar.json"
for tool in esbuild lightningcss csso; do
  NODE_PATH=$modules node bench/css_compare.js "$tool" "$results/$tool.css" "${corpus[@]}" \
    > "$results/$tool.json"
done
for tool in zelvar esbuild lightningcss csso; do
  gzip -9 -c "$results/$tool.css" | wc -c > "$results/$tool.gz-bytes"
done
build/bench/bench/css_bench --scaling "${corpus[@]}" > "$results/scaling.json"

python3 - "$results" "$input" <<'PY'
import json, sys
folder, source = sys.argv[1], int(sys.argv[2])
tools = ["zelvar", "esbuild", "lightningcss", "csso"]
r = {t: json.load(open(f"{folder}/{t}.json")) for t in tools}
gz = {t: int(open(f"{folder}/{t}.gz-bytes").read()) for t in tools}
ref = "lightningcss"
print(f"{'minifier':14s} {'MB/s':>8s} {'x ' + ref:>16s} {'output':>9s} {'of input':>9s} "
      f"{'vs ' + ref:>16s} {'gzip -9':>9s} {'vs ' + ref:>16s}")
for t in tools:
    print(f"{t:14s} {r[t]['mbps']:8.1f} {r[t]['mbps'] / r[ref]['mbps']:16.2f} "
          f"{r[t]['bytes']:9d} {r[t]['bytes'] / source:9.3f} {r[t]['bytes'] / r[ref]['bytes']:16.3f} "
          f"{gz[t]:9d} {gz[t] / gz[ref]:16.3f}")
s = json.load(open(f"{folder}/scaling.json"))
print(f"20 MB sheet / 1 MB sheet time: {s['ratio']:.2f} (goal <= 21; "
      f"{s['seconds1MB'] * 1000:.1f} ms and {s['seconds20MB'] * 1000:.1f} ms)")
PY
