#!/usr/bin/env bash
# Rewrites the minifier's golden output from testdata/css/sample.css with the
# current build (build/default); review the change with git diff.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --build build/default --target zelvarpack >/dev/null
build/default/zelvarpack minify-css --name https://example.test/css/sample.css \
  testdata/css/sample.css > testdata/css/sample.min.css
git --no-pager diff --stat -- testdata/css/sample.min.css
