#!/bin/sh
# Installs the build into a scratch prefix and uses it the way a user does:
# a C11 program through pkg-config, and a C++ project through find_package.
set -eu
build=$1 here=$2 cc=$3 cxx=$4
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

for f in lib/libqor.so lib/libqor.a include/qor/qor.h lib/pkgconfig/qor.pc \
         lib/cmake/qor/qorConfig.cmake; do
    [ -e "$prefix/$f" ] || { echo "missing after install: $f"; exit 1; }
done
soname=$(readelf -d "$prefix/lib/libqor.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libqor.so.1" ] || { echo "SONAME is '$soname'"; exit 1; }

# The pkg-config file was written for the configured prefix; point it at
# the scratch one.
mkdir -p "$tmp/pc"
sed "s|^prefix=.*|prefix=$prefix|; s|^libdir=.*|libdir=$prefix/lib|; s|^includedir=.*|includedir=$prefix/include|" \
    "$prefix/lib/pkgconfig/qor.pc" > "$tmp/pc/qor.pc"
export PKG_CONFIG_PATH=$tmp/pc

cd "$tmp"
"$cc" -std=c11 -Wall -Wextra -Werror -pedantic "$here/fatal_handler.c" \
    $(pkg-config --cflags --libs qor) -o prog
out=$(LD_LIBRARY_PATH=$prefix/lib ./prog 2>err.txt) || {
    echo "C program failed: $out"; cat err.txt; exit 1; }
expected="caught 1
state 2
joined abc"
[ "$out" = "$expected" ] || { echo "C program printed: $out"; exit 1; }

mkdir consumer
cp "$here/consumer/CMakeLists.txt" "$here/consumer/main.cpp" consumer/
cmake -S consumer -B consumer/build -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build consumer/build >/dev/null
out=$(LD_LIBRARY_PATH=$prefix/lib ./consumer/build/consumer)
[ "$out" = "status 2052" ] || { echo "consumer printed: $out"; exit 1; }
echo "install, pkg-config and find_package all work"
