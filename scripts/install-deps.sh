#!/usr/bin/env bash
# Installs the Debian packages the build and tests need, when missing.
# Usage: scripts/install-deps.sh [extra-package ...]
set -euo pipefail

# libcurl4-openssl-dev: the HTTP client; nginx, openssl: the download tests'
# loopback server and its throw-away certificate authority. alsa-utils and
# espeak-ng: real recordings and speech for the audio tests. unixodbc-dev,
# libsqliteodbc, odbc-postgresql, postgresql: the file store's driver manager,
# its two drivers and the server its tests start on loopback. libpng-dev,
# libjpeg62-turbo-dev, libgif-dev, libdeflate-dev: the image codecs (the
# last compresses PNG sheets); apache2-data: real GIF
# and PNG icons for the image and video tests; lomiri-wallpapers-20.04: real
# photographs for the video tests. chromium: the headless browser that
# renders original and optimised pages side by side (tests/browser);
# libjs-jquery, libjs-bootstrap4, fonts-font-awesome: the libraries the
# sample site's jQuery and Bootstrap pages load, and with doxygen-awesome-css
# the corpus of the minifier's browser check (tests/browser/css_compare.py).
# openjdk-17-jdk-headless: javac, jar and jni.h for the Java bridge and
# zelvarpack.jar; junit4: the Java tests; libjetty9-java and
# libservlet-api-java: the servlet host (hosts/java) and its tests.
# dpkg-dev: dpkg-shlibdeps, which names the Debian package's dependencies.
# nginx-dev: the installed nginx's own sources and configure flags, which the
# nginx module (hosts/nginx) is built against; wrk: the module's load test.
# ccache: later runs of the test command recompile only what changed.
packages=(cmake ninja-build pkg-config g++ dpkg-dev clang libclang-rt-14-dev libgtest-dev zlib1g-dev python3
  libcurl4-openssl-dev ca-certificates nginx openssl alsa-utils espeak-ng
  unixodbc-dev libsqliteodbc odbc-postgresql postgresql
  libpng-dev libjpeg62-turbo-dev libgif-dev libdeflate-dev apache2-data lomiri-wallpapers-20.04
  chromium libjs-jquery libjs-bootstrap4 fonts-font-awesome doxygen-awesome-css
  openjdk-17-jdk-headless junit4 libjetty9-java libservlet-api-java nginx-dev wrk ccache "$@")
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
# Tests start their own nginx and PostgreSQL on loopback addresses; the
# packaged services would take port 80 on every address and 5432, so they
# are not started on install.
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | $sudo tee "$policy" >/dev/null
  $sudo chmod +x "$policy"
  trap '$sudo rm -f "$policy"' EXIT
fi
$sudo apt-get install -y -qq "${missing[@]}" >/dev/null
