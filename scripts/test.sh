#!/usr/bin/env bash
# Builds everything and runs every test: the optimised build's suite with
# the headless-Chromium browser tests, the Windows build's suite and parity
# check under Wine (scripts/test-windows.sh), then the AddressSanitizer +
# UndefinedBehaviorSanitizer build's suite with the short fuzz runs. The
# output ends with CTest's summary.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
jobs=$(nproc)
# A compiler cache makes a second run, or a fresh checkout of a tree built
# before, rebuild only what changed (CMake reads these on first configure).
if command -v ccache >/dev/null; then
  export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

# The download tests bind port 80 and 443 of their own loopback addresses
# (as root), which a server listening on every address would block.
if ss -Hltn '( sport = :80 or sport = :443 )' 2>/dev/null | awk '{print $4}' |
  grep -qE '^(0\.0\.0\.0|\*|\[::\]):'; then
  echo "a server listens on port 80 or 443 of every address; stop it first (for the" >&2
  echo "packaged nginx: systemctl stop nginx)" >&2
  exit 1
fi

cmake --preset default >/dev/null
cmake --build build/default -j"$jobs"
ctest --test-dir build/default -j"$jobs" --output-on-failure

# Under Wine a test process now and then fails to start at all (it ends at
# once, with no output); such a test is run once more. A test that fails
# twice fails the stage.
scripts/test-windows.sh --repeat until-pass:2

cmake --preset asan >/dev/null
cmake --build build/asan -j"$jobs"
# The browser tests judge what the engine writes, which the sanitizer build
# writes alike; they run once, in the optimised build above. The packaging
# test builds a plain consumer program, which cannot link a sanitized
# library; the Java tests and the nginx module are not built there at all
# (a JVM or nginx cannot load a sanitized library without its runtime).
ctest --test-dir build/asan -j"$jobs" --output-on-failure -LE 'browser|packaging'
