#!/bin/sh
# Builds and runs the example programs the way a user of an installed
# libqor does: compiled with cc and the flags of the installed qor.pc.
#   run_example.sh install BUILD PREFIX      install BUILD into PREFIX
#   run_example.sh run PREFIX SOURCE CC NAME compile examples/NAME.c against
#       PREFIX and run the checks of examples/NAME.checks
set -eu
mode=$1
shift

if [ "$mode" = install ]; then
    build=$1 prefix=$2
    rm -rf "$prefix"
    cmake --install "$build" --prefix "$prefix" >/dev/null
    exit 0
fi

prefix=$1 here=$2 cc=$3 name=$4
pc=$(find "$prefix" -name qor.pc -path '*/pkgconfig/*' | head -n 1)
[ -n "$pc" ] || { echo "no qor.pc under $prefix"; exit 1; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# The installed qor.pc is relocatable: its paths follow where it lies, so
# it must point into PREFIX whatever prefix the build was configured for.
export PKG_CONFIG_PATH=${pc%/*}
libdir=$(pkg-config --variable=libdir qor)
case "$libdir" in
    "$prefix"/*) ;;
    *) echo "qor.pc points at $libdir, outside $prefix"; exit 1 ;;
esac

"$cc" -std=c11 -Wall -Wextra -Werror -pedantic "$here/$name.c" \
    $(pkg-config --cflags --libs qor) -o "$tmp/$name"
export LD_LIBRARY_PATH=$libdir
prog=$tmp/$name
work=$tmp/work
mkdir "$work"
cd "$work"

failures=0
# expect STATUS EXPECTED-STDOUT [ARGUMENT...]: runs the example and compares
# its exit status and standard output (line numbers of the library's own
# source, "Line N", are not compared).
expect() {
    want_status=$1 want_out=$2
    shift 2
    got_status=0
    "$prog" "$@" >"$tmp/out" 2>"$tmp/err" || got_status=$?
    got_out=$(sed 's/Line [0-9][0-9]*/Line N/' "$tmp/out")
    if [ "$got_status" != "$want_status" ] || [ "$got_out" != "$want_out" ]; then
        echo "FAILED: $name $*"
        echo "  exit status $got_status, expected $want_status"
        echo "  standard output:"; sed 's/^/    /' "$tmp/out"
        echo "  expected:"; printf '%s\n' "$want_out" | sed 's/^/    /'
        echo "  standard error:"; sed 's/^/    /' "$tmp/err"
        failures=$((failures + 1))
    fi
}
# expect_stderr TEXT: standard error of the last run was exactly TEXT.
expect_stderr() {
    if [ "$(cat "$tmp/err")" != "$1" ]; then
        echo "FAILED: $name: standard error was:"; sed 's/^/    /' "$tmp/err"
        echo "  expected: $1"
        failures=$((failures + 1))
    fi
}
. "$here/$name.checks"
[ "$failures" = 0 ] || exit 1
echo "$name: every check passed"
