#!/usr/bin/env bash
# Builds ngx_http_zelvarpack_module.so against the installed nginx, the way
# Debian builds its own module packages: a copy of nginx-dev's sources,
# configured with the installed nginx's own flags (--with-compat keeps the
# module binary-compatible with it) plus this folder as a dynamic module.
#
# Usage: build-module.sh WORK_DIR SHIM_LIBRARY CORE_LIBRARY_DIR OUTPUT
# WORK_DIR keeps the configured sources, so a rebuild only recompiles.
set -euo pipefail
work=$1
export ZP_NGINX_SHIM=$2
export ZP_NGINX_CORE_DIR=$3
output=$4
module_dir=$(cd "$(dirname "$0")" && pwd)
sources=/usr/share/nginx/src

# shellcheck disable=SC1091
. "$sources/conf_flags"
stamp="$work/configured.stamp"
want="$(cat "$module_dir/config") ${NGX_CONF_FLAGS[*]} $ZP_NGINX_SHIM $ZP_NGINX_CORE_DIR"
if [ ! -f "$stamp" ] || [ "$(cat "$stamp")" != "$want" ]; then
  rm -rf "$work"
  mkdir -p "$work"
  cp -r "$sources"/. "$work/"
  (cd "$work" && ./configure "${NGX_CONF_FLAGS[@]}" --add-dynamic-module="$module_dir" \
    --with-cc-opt="-g -O2 -fPIC -fstack-protector-strong -Wformat -Werror=format-security" \
    --with-ld-opt="-Wl,-z,relro -Wl,-z,now -fPIC") >"$work/configure.log" 2>&1 || {
    cat "$work/configure.log" >&2
    exit 1
  }
  printf '%s' "$want" >"$stamp"
fi
# The shim library changes without the sources knowing: relink every time.
rm -f "$work/objs/ngx_http_zelvarpack_module.so"
make -C "$work" -f objs/Makefile modules >"$work/make.log" 2>&1 || {
  cat "$work/make.log" >&2
  exit 1
}
cp "$work/objs/ngx_http_zelvarpack_module.so" "$output.tmp"
mv "$output.tmp" "$output"
