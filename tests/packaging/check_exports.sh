#!/bin/sh
# Every symbol a shared library of ours defines for others starts with QOR_,
# and the library needs nothing but libc (and the dynamic loader).
status=0
for lib in "$@"; do
    bad=$(nm -D --defined-only "$lib" | awk '{print $NF}' | sed 's/@.*//' \
          | grep -v '^QOR_' || true)
    if [ -n "$bad" ]; then
        echo "$lib exports names without the QOR_ prefix:"; echo "$bad"
        status=1
    fi
    count=$(nm -D --defined-only "$lib" | grep -c ' QOR_' || true)
    if [ "$count" -lt 1 ]; then
        echo "$lib exports nothing"; status=1
    fi
    needed=$(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' \
             | grep -v -e '^libc\.so' -e '^ld-linux' -e '^libqor\.so' || true)
    if [ -n "$needed" ]; then
        echo "$lib needs more than libc: $needed"; status=1
    fi
    echo "$lib: $count QOR_ symbols"
done
# The message library entry stays a weak reference, so libqor loads without
# the suite's message library.
if ! nm -D "$1" | grep -q ' w MI_set_display_outlet'; then
    echo "$1: MI_set_display_outlet is not a weak reference"; status=1
fi
exit $status
