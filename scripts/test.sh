#!/usr/bin/env bash
# Builds everything and runs every test: the optimised build's suite, then
# the AddressSanitizer + UndefinedBehaviorSanitizer build's suite with the
# short fuzz runs. The output ends with CTest's summary.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
jobs=$(nproc)

cmake --preset default >/dev/null
cmake --build build/default -j"$jobs"
ctest --test-dir build/default -j"$jobs" --output-on-failure

cmake --preset asan >/dev/null
cmake --build build/asan -j"$jobs"
ctest --test-dir build/asan -j"$jobs" --output-on-failure
