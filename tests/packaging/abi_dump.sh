#!/bin/sh
# Prints the interface a build offers its users, one line per item, sorted:
#   function LIBRARY NAME@VERSION
#   object LIBRARY NAME@VERSION SIZE     (exported data, size in bytes)
#   record NAME SIZE                      (every public struct, sizeof)
# Usage: abi_dump.sh INCLUDE_DIR C_COMPILER LIBRARY...
set -eu
include=$1 cc=$2
shift 2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
echo "# arch $(uname -m)"
{
    for lib in "$@"; do
        soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
        nm -D --defined-only -S --format=posix "$lib" | awk -v lib="$soname" '
            $2 == "A" { next }
            { sub(/@@/, "@", $1) }
            $2 == "T" || $2 == "W" || $2 == "i" { print "function", lib, $1; next }
            { print "object", lib, $1, $4 }' |
        while read -r kind soname name size; do
            if [ "$kind" = object ]; then
                echo "object $soname $name $(printf %d "0x$size")"
            else
                echo "$kind $soname $name"
            fi
        done
    done
    # sizeof of every struct the headers define, measured by the compiler.
    sed -n 's/^\(typedef \)\{0,1\}\(struct\|union\) \(QOR_[A-Za-z0-9_]*\) {.*/\2 \3/p' \
        "$include"/qor/*.h | sort -u >"$tmp/records"
    {
        echo '#include <qor/qor.h>'
        echo '#include <stdio.h>'
        echo 'int main(void) {'
        while read -r kind name; do
            printf '    printf("record %s %%zu\\n", sizeof(%s %s));\n' \
                "$name" "$kind" "$name"
        done <"$tmp/records"
        echo '    return 0;'
        echo '}'
    } >"$tmp/sizes.c"
    "$cc" -std=c11 -I"$include" "$tmp/sizes.c" -o "$tmp/sizes"
    "$tmp/sizes"
} | LC_ALL=C sort
