#!/bin/sh
# Compares the interface a build offers (abi_dump.sh) with the recorded
# baseline abi/qor.abi. A function, exported object or public record that
# disappeared, or an object or record whose size changed, fails; what is new
# is only counted (record it with scripts/abi-baseline).
# Usage: check_abi.sh BASELINE INCLUDE_DIR C_COMPILER LIBRARY...
set -eu
baseline=$1
shift
here=$(dirname "$0")
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
"$here/abi_dump.sh" "$@" >"$tmp/now"
if [ "$(head -n1 "$baseline")" != "$(head -n1 "$tmp/now")" ]; then
    echo "baseline is for $(head -n1 "$baseline"), this is $(head -n1 "$tmp/now"): skipped"
    exit 77
fi
# Lines of the baseline that are no longer there, with what is there now
# under the same name.
LC_ALL=C comm -23 "$baseline" "$tmp/now" | grep -v '^#' >"$tmp/gone" || true
status=0
while read -r kind a b c; do
    case $kind in
        function) echo "removed: function $b ($a)"; status=1 ;;
        object)
            now=$(awk -v n="$b" -v l="$a" '$1 == "object" && $2 == l && $3 == n {print $4}' "$tmp/now")
            if [ -n "$now" ]; then echo "changed: object $b ($a) was $c bytes, is $now"
            else echo "removed: object $b ($a)"; fi
            status=1 ;;
        record)
            now=$(awk -v n="$a" '$1 == "record" && $2 == n {print $3}' "$tmp/now")
            if [ -n "$now" ]; then echo "changed: struct $a was $b bytes, is $now"
            else echo "removed: struct $a"; fi
            status=1 ;;
    esac
done <"$tmp/gone"
added=$(LC_ALL=C comm -13 "$baseline" "$tmp/now" | grep -v '^#' \
        | grep -c -v -e '^object' -e '^record' || true)
new_sized=$(LC_ALL=C comm -13 "$baseline" "$tmp/now" | grep -e '^object' -e '^record' \
        | while read -r kind a b c; do
              if [ "$kind" = record ]; then key="record $a "; else key="object $a $b "; fi
              grep -q "^$key" "$baseline" || echo new
          done | wc -l)
if [ "$status" -ne 0 ]; then
    echo "The interface lost or changed the items above. Users built against"
    echo "the baseline would break: keep them, or make a new major version."
    exit 1
fi
echo "interface matches the baseline ($((added + new_sized)) new items; record them with scripts/abi-baseline)"
