#!/usr/bin/env bash
# Creates the Wine prefix the Windows build's tests run in, headless (no
# display, no Mono or Gecko dialogs) and quiet. 64-bit Wine only.
# Usage: scripts/setup-wine.sh PREFIX
# Installs wine and wine64 when they are missing (as scripts/install-deps.sh
# does for the Linux build). Does nothing when PREFIX is already set up.
set -euo pipefail
prefix=$(realpath -m "${1:?usage: setup-wine.sh PREFIX}")

missing=()
for package in wine wine64 g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix libz-mingw-w64-dev; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
    missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

[ -f "$prefix/system.reg" ] && [ -d "$prefix/drive_c/windows/system32" ] && exit 0
mkdir -p "$prefix"
export WINEPREFIX=$prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY
wineboot -i >"$prefix.log" 2>&1 || { cat "$prefix.log"; exit 1; }
# wineboot returns before the prefix is written out; the server's exit is
# the moment it is complete.
wineserver -w
echo "Wine prefix ready: $prefix"
