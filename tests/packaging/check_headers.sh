#!/bin/sh
# Each public header compiles on its own, as C11 and as C++, without a
# warning.
set -e
inc=$1 cc=$2 cxx=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
for h in "$inc"/qor/*.h; do
    name=qor/$(basename "$h")
    printf '#include <%s>\nint qor_header_check;\n' "$name" > "$tmp/t.c"
    cp "$tmp/t.c" "$tmp/t.cpp"
    "$cc" -std=c11 -Wall -Wextra -Werror -pedantic -I"$inc" -c "$tmp/t.c" -o "$tmp/t.o"
    "$cxx" -std=c++17 -Wall -Wextra -Werror -pedantic -I"$inc" -c "$tmp/t.cpp" -o "$tmp/t.o"
    echo "ok $name"
done
