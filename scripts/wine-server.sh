#!/usr/bin/env bash
# Starts or stops the persistent wineserver of a Wine prefix: the CTest
# fixture around the Windows build's tests. With the server kept running,
# each test process starts in a fraction of a second instead of seconds.
# Usage: scripts/wine-server.sh start|stop PREFIX
set -euo pipefail
action=${1:?usage: wine-server.sh start|stop PREFIX}
export WINEPREFIX
WINEPREFIX=$(realpath -m "${2:?usage: wine-server.sh start|stop PREFIX}")
export WINEDEBUG=-all
unset DISPLAY WAYLAND_DISPLAY
here=$(dirname "$0")
case "$action" in
  start)
    "$here/setup-wine.sh" "$WINEPREFIX"
    # -p: stay up with no client attached, until "stop". A server still up
    # (from listing the tests, or a run that was interrupted) refuses a
    # second one: end it first.
    if ! wineserver -p </dev/null >/dev/null 2>&1; then
      wineserver -k 2>/dev/null || true
      wineserver -w 2>/dev/null || true
      wineserver -p </dev/null >/dev/null 2>&1
    fi
    # The first program of a fresh server starts Wine's own services, which
    # keep the standard streams they inherit open: let a throw-away program
    # start them with /dev/null, not the first test with CTest's pipe.
    wine cmd /c exit </dev/null >/dev/null 2>&1 || true
    ;;
  stop)
    # -k ends the server and every Wine process left in the prefix; -w waits
    # until it has.
    wineserver -k 2>/dev/null || true
    wineserver -w 2>/dev/null || true
    ;;
  *)
    echo "usage: wine-server.sh start|stop PREFIX" >&2
    exit 2
    ;;
esac
