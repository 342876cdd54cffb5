#!/usr/bin/env bash
# Builds the tool and runs what the engine can do today over the bundled
# sample page: the meta finder's answer, the page's content identifier and its
# token stream as the page consumers see it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build build/default -j"$(nproc)" --target zelvarpack
tool=build/default/zelvarpack
page=${1:-testdata/sample.html}

echo "== meta finder (1: the page declares itself text/html)"
"$tool" meta "$page"
echo "== content identifier"
"$tool" id --content "$page"
echo "== token stream through the constructor"
"$tool" html-tokens --constructor "$page"
