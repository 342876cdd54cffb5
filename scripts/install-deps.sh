#!/usr/bin/env bash
# Installs the Debian packages the build and tests need, when missing.
# Usage: scripts/install-deps.sh [extra-package ...]
set -euo pipefail

# alsa-utils and espeak-ng give the audio tests real recordings and speech.
packages=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev zlib1g-dev python3
  alsa-utils espeak-ng "$@")
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
    missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq "${missing[@]}" >/dev/null
