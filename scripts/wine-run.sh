#!/bin/sh
# Runs a Windows program under Wine, headless and quiet: the emulator CTest
# starts the Windows build's executables through (cmake/mingw-w64.cmake).
# Usage: scripts/wine-run.sh [--prefix WINEPREFIX] program.exe [args...]
# Without --prefix the prefix is $WINEPREFIX, else build/windows/wine beside
# the program.
set -e
if [ "$1" = "--prefix" ]; then
  WINEPREFIX=$2
  shift 2
fi
if [ -z "${WINEPREFIX:-}" ]; then
  WINEPREFIX=$(cd "$(dirname "$1")" && pwd)/wine
fi
export WINEPREFIX
unset DISPLAY WAYLAND_DISPLAY
export WINEDEBUG="${WINEDEBUG:--all}"
# No Mono or Gecko installation dialogs in a fresh prefix.
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
exec wine "$@"
