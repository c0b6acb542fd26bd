#!/bin/sh
# Every symbol a shared library of ours defines for others starts with QOR_,
# and the library needs nothing but libc (and the dynamic loader).
# A static library (*.a) is held to the same rule for the names it defines.
status=0
for lib in "$@"; do
    case "$lib" in *.a)
        bad=$(nm -g --defined-only "$lib" | awk 'NF == 3 {print $3}' \
              | grep -v '^QOR_' || true)
        if [ -n "$bad" ]; then
            echo "$lib defines names without the QOR_ prefix:"; echo "$bad"
            status=1
        fi
        echo "$lib: $(nm -g --defined-only "$lib" | grep -c ' QOR_') QOR_ symbols"
        continue ;;
    esac
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
# No dynamic initialisation at load time: the only start-up entry is the
# toolchain's own frame_dummy (8 bytes); every global of ours is constant
# data that sets itself up on first use.
init=$(readelf -d "$1" | sed -n 's/.*(INIT_ARRAYSZ) *\([0-9]*\) .*/\1/p')
if [ "${init:-0}" -gt 8 ]; then
    echo "$1 runs initialisers at load time (INIT_ARRAYSZ $init)"; status=1
fi
exit $status
