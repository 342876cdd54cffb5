#!/usr/bin/env bash
# Rewrites the page optimiser's golden page and counters
# (testdata/page/sample.optimised.html, sample.counters) with the current
# build (build/default); review the change with git diff.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --build build/default --target zelvarpack_tests >/dev/null
ZP_REGENERATE_GOLDEN=1 build/default/zelvarpack_tests \
  --gtest_filter='SampleSite.SamplePageMatchesTheGoldenPage' >/dev/null
git --no-pager diff --stat -- testdata/page/
