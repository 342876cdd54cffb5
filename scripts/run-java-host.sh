#!/usr/bin/env bash
# Serves a folder of pages through the Java host: Jetty with the page
# filter in front and the handler servlet answering CS.zp, JS.zp and IS.zp.
#
# Usage: scripts/run-java-host.sh SITE_DIR [--listen ADDRESS:PORT] [--cache DIR]
#          [--timeout SECONDS] [--handler-path PATH] [--server-address HOST]
#          [--fetch-foreign on|off] [--keep-comments on|off] [--max-page-bytes N]
#
# Listens on 127.0.0.1:80 unless told otherwise: the optimiser fetches a
# page's stylesheets, scripts and images over HTTP on the scheme's port, so
# the pages' own host must answer on port 80 (binding it needs root). The
# cache is a new temporary folder unless --cache names one; it is removed
# on exit. Builds the library and the jars first (build/default, or
# ZP_BUILD_DIR). Prints the address to open, then serves until Ctrl-C.
set -euo pipefail

source_dir="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${ZP_BUILD_DIR:-$source_dir/build/default}"
if [ $# -lt 1 ] || [ ! -d "$1" ]; then
  sed -n '2,/^set -e/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//' >&2
  exit 2
fi
site="$(cd "$1" && pwd)"
shift

cmake --build "$build" --target ZelvarPackCore zelvarpack_servlet_jar >/dev/null
classpath_file="$build/java-host.classpath"
if [ ! -f "$classpath_file" ]; then
  echo "run-java-host: $classpath_file is missing: install the JDK, libjetty9-java and" \
    "libservlet-api-java (scripts/install-deps.sh) and configure again" >&2
  exit 1
fi

cache=""
for arg in "$@"; do
  [ "$arg" = "--cache" ] && cache="given"
done
extra=()
if [ -z "$cache" ]; then
  cache="$(mktemp -d -t zp-java-cache-XXXXXX)"
  trap 'rm -rf "$cache"' EXIT
  extra=(--cache "$cache")
fi

"${JAVA:-java}" -Djava.library.path="$build" -cp "$(cat "$classpath_file")" \
  com.zelvarpack.servlet.ZelvarPackHost --root "$site" --listen 127.0.0.1:80 "${extra[@]}" "$@"
