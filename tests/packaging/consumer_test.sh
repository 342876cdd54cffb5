#!/bin/sh
# Installs the build into a fresh prefix and builds a small host program
# against it twice, through pkg-config and through find_package; every
# installed header must also compile on its own. Then makes the Debian
# package and checks its contents and dependencies.
# Usage: consumer_test.sh BUILD_DIR SOURCE_DIR CMAKE CPACK
set -eu
build=$1
source=$2
cmake=$3
cpack=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cxx=${CXX:-c++}

"$cmake" --install "$build" --prefix "$prefix" >"$work/install.log"
libdir=$(dirname "$(find "$prefix" -name zelvarpack.pc)")/..

echo "== headers compile on their own"
for header in "$prefix"/include/zelvarpack/*.h; do
  printf '#include <zelvarpack/%s>\n' "$(basename "$header")" >"$work/one.cc"
  "$cxx" -std=c++17 -Wall -Wextra -Werror -fsyntax-only -I"$prefix/include" "$work/one.cc"
done

echo "== pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
flags=$(pkg-config --cflags --libs zelvarpack)
"$cxx" -std=c++17 -Wall -Werror "$source/tests/packaging/consumer/consumer.cc" $flags \
  -Wl,-rpath,"$libdir" -o "$work/consumer-pc"
mkdir "$work/out-pc"
"$work/consumer-pc" "$work/out-pc"

echo "== find_package"
"$cmake" -S "$source/tests/packaging/consumer" -B "$work/consumer-build" \
  -DCMAKE_PREFIX_PATH="$prefix" >"$work/configure.log"
"$cmake" --build "$work/consumer-build" >"$work/build.log"
mkdir "$work/out-cmake"
"$work/consumer-build/consumer" "$work/out-cmake"

echo "== Debian package"
if ! command -v dpkg-deb >/dev/null; then
  echo "dpkg-deb missing: Debian package not checked"
  exit 0
fi
(cd "$build" && "$cpack" -G DEB -B "$work/deb" >"$work/cpack.log") || { cat "$work/cpack.log"; exit 1; }
deb=$(ls "$work"/deb/*.deb)
dpkg-deb -I "$deb" >"$work/info"
dpkg-deb -c "$deb" >"$work/contents"
grep '^ Depends:' "$work/info"
for package in libcurl zlib1g libpng libjpeg libgif libdeflate libodbc libc6 libstdc++; do
  grep -q "^ Depends:.*$package" "$work/info" || { echo "Depends lacks $package"; exit 1; }
done
for file in ./usr/bin/zelvarpack libZelvarPackCore.so include/zelvarpack/zelvar_html_server.h \
  pkgconfig/zelvarpack.pc cmake/ZelvarPack/ZelvarPackConfig.cmake; do
  grep -q "$file" "$work/contents" || { echo "package lacks $file"; exit 1; }
done
echo "packaging ok"
