#!/usr/bin/env bash
# Tokenizer benchmark: our tokenizer through the constructor against gumbo,
# in one run, over Debian's python3-doc HTML pages (installed here, never
# committed). Prints MB/s for both, the ratio, the size scaling and the
# instructions per input byte under callgrind.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh libbenchmark-dev libgumbo-dev pkg-config python3-doc valgrind
cmake --preset bench >/dev/null
cmake --build build/bench -j"$(nproc)" --target html_bench html_once

corpus=build/bench/html-corpus
if [ -z "$(ls -A "$corpus" 2>/dev/null)" ]; then
  mkdir -p "$corpus"
  find -L /usr/share/doc/python3-doc/html -name '*.html' -size +2k | sort | head -400 |
    while read -r page; do cp "$page" "$corpus/$(echo "${page#/usr/share/doc/python3-doc/html/}" | tr / _)"; done
fi
echo "corpus: $(ls "$corpus" | wc -l) pages, $(du -sb "$corpus" | cut -f1) bytes"

ZP_HTML_CORPUS=$corpus build/bench/bench/html_bench --benchmark_min_time=1 \
  --benchmark_format=json --benchmark_out=build/bench/html.json --benchmark_out_format=json \
  >/dev/null
python3 - build/bench/html.json <<'PY'
import json, sys
runs = {b["name"]: b for b in json.load(open(sys.argv[1]))["benchmarks"]}
mbs = lambda name: runs[name]["bytes_per_second"] / 1e6
ours, gumbo = mbs("BM_CorpusZelvar"), mbs("BM_CorpusGumbo")
print(f"corpus, zelvar tokenizer+constructor: {ours:8.1f} MB/s")
print(f"corpus, gumbo_parse:                  {gumbo:8.1f} MB/s")
print(f"ratio:                                {ours / gumbo:8.1f} x")
t1, t10 = runs["BM_PageOfSize/1"]["real_time"], runs["BM_PageOfSize/10"]["real_time"]
print(f"10 MB page / 1 MB page time:          {t10 / t1:8.2f} (goal <= 11)")
for kind, label in enumerate(["attribute value", "comment", "script text", "attributes"]):
    a = runs[f"BM_HugeConstruct/kind:{kind}/MB:1"]["real_time"]
    b = runs[f"BM_HugeConstruct/kind:{kind}/MB:5"]["real_time"]
    print(f"5 MB / 1 MB {label:16s} time:    {b / a:8.2f} (linear: about 5)")
PY

count() {  # instructions of one pass of `html_once $1` over the corpus
  valgrind --tool=callgrind --callgrind-out-file=/dev/null build/bench/bench/html_once "$1" "$corpus" 2>&1 |
    sed -n 's/.*Collected : *\([0-9]*\).*/\1/p'
}
bytes=$(build/bench/bench/html_once load "$corpus")
base=$(count load)
for parser in zelvar gumbo; do
  total=$(count $parser)
  python3 -c "print(f'callgrind, $parser: {($total - $base) / $bytes:.1f} instructions per input byte')"
done
