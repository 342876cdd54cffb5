#!/usr/bin/env bash
# The Windows stage: cross-builds ZelvarPackCore.dll, zelvarpack.exe and the
# test program with mingw-w64 (preset "windows", build/windows) and runs the
# suite under Wine through CTest: one persistent wineserver for the run
# (fixture "wine"), the tests' nginx and PostgreSQL on the build machine's
# loopback addresses. Beside the suite, objdump checks the DLL's imports and
# exports, and tests/windows/parity.sh compares what the Windows tool writes
# with what the Linux tool writes. Installs what it needs when missing;
# stops the wineserver at the end, whatever the outcome. The output ends
# with CTest's summary.
# Usage: scripts/test-windows.sh [extra ctest arguments]
set -euo pipefail
cd "$(dirname "$0")/.."

# The Linux build's packages (nginx, openssl, PostgreSQL and its ODBC
# drivers that Wine's ODBC32 reaches, libgtest-dev's sources), then Wine
# and the cross compiler with the mingw zlib.
scripts/install-deps.sh
prefix=$PWD/build/windows/wine
scripts/setup-wine.sh "$prefix"
trap 'scripts/wine-server.sh stop "$prefix"' EXIT

jobs=$(nproc)
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
# The parity test compares the Windows tool with the Linux one of the
# default build (built here when missing).
cmake --preset default "${launcher[@]}" >/dev/null
cmake --build build/default -j"$jobs" --target zelvarpack
cmake --preset windows "${launcher[@]}" -DZP_LINUX_TOOL="$PWD/build/default/zelvarpack" >/dev/null
cmake --build build/windows -j"$jobs"
ctest --test-dir build/windows -j"$jobs" --output-on-failure -L windows "$@"
