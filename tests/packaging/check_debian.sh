#!/bin/sh
# Makes the Debian packages from the build, installs them with dpkg into a
# scratch root (its own dpkg database, nothing of the host touched), builds
# the README's C example against what libqor-dev installed, through
# pkg-config, runs it with the libraries of libqor1 and checks that its
# message comes out of the packaged catalogue; then removes the packages
# and checks that nothing of them is left.
set -eu
build=$1 here=$2 cc=$3
readme=$here/../../README.md
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "$*"; exit 1; }
unset QOR_CATALOG NLSPATH

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$tmp/out" \
      -D CPACK_PACKAGING_INSTALL_PREFIX=/usr >"$tmp/cpack.log" 2>&1 \
    || { cat "$tmp/cpack.log"; fail "cpack failed"; }
for p in libqor1 libqor-dev qor-tools; do
    ls "$tmp/out/${p}_"*.deb >/dev/null 2>&1 || fail "no package $p"
done
# Where each piece went.
for p in libqor1 libqor-dev qor-tools; do
    dpkg-deb -c "$tmp/out/${p}_"*.deb >"$tmp/$p.list"
done
grep -q '/libqor\.so\.1\.0\.0$' "$tmp/libqor1.list" || fail "libqor1 lacks libqor.so.1.0.0"
grep -q '/share/qor/qor\.cat$' "$tmp/libqor1.list" || fail "libqor1 lacks the catalogue"
grep -q -e '\.h$' -e 'libqor\.so -> ' -e '\.a$' "$tmp/libqor1.list" && fail "libqor1 holds development files"
grep -q 'libqor\.so -> libqor\.so\.1$' "$tmp/libqor-dev.list" || fail "libqor-dev lacks the .so link"
grep -q '/libqor\.a$' "$tmp/libqor-dev.list" || fail "libqor-dev lacks libqor.a"
grep -q '/pkgconfig/qor_msg\.pc$' "$tmp/libqor-dev.list" || fail "libqor-dev lacks qor_msg.pc"
grep -q '/bin/qor$' "$tmp/qor-tools.list" || fail "qor-tools lacks qor"
dpkg-deb -f "$tmp/out"/libqor-dev_*.deb Depends | grep -q 'libqor1 (= ' || fail "libqor-dev does not depend on libqor1"

# A scratch root with an empty dpkg database. Dependencies on the host's
# packages (libc6) are not in it, hence --force-depends.
root=$tmp/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
: >"$root/var/lib/dpkg/status"
: >"$root/var/lib/dpkg/available"
dpkg="dpkg --root=$root --force-not-root --force-depends --force-script-chrootless --log=/dev/null"
$dpkg -i "$tmp/out"/*.deb >"$tmp/dpkg.log" 2>&1 || { cat "$tmp/dpkg.log"; fail "dpkg -i failed"; }
for p in libqor1 libqor-dev qor-tools; do
    $dpkg -s "$p" 2>/dev/null | grep -q '^Status: install ok installed' || fail "$p is not installed"
done

pc=$(dirname "$(find "$root/usr" -name qor_msg.pc)")
libdir=$(dirname "$pc")
sed -n '/^```c$/,/^```$/{/^```/d;p}' "$readme" | sed -n '1,/^}$/p' >"$tmp/readme.c"
PKG_CONFIG_PATH=$pc "$cc" -std=c11 -Wall -Wextra -Werror "$tmp/readme.c" \
    -o "$tmp/readme" $(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs qor_msg)
out=$(LD_LIBRARY_PATH=$libdir "$tmp/readme" 2>"$tmp/err") || fail "README example failed: $(cat "$tmp/err")"
[ "$out" = "ab" ] || fail "README example printed: $out"
grep -q '^qor: error 2052: cannot open a file or contents "/nowhere": it does not exist' "$tmp/err" \
    || fail "message not from the catalogue: $(cat "$tmp/err")"

$dpkg --purge qor-tools libqor-dev libqor1 >"$tmp/dpkg.log" 2>&1 || { cat "$tmp/dpkg.log"; fail "dpkg --purge failed"; }
left=$(find "$root" -path "$root/var" -prune -o \( -type f -o -type l \) -print)
[ -z "$left" ] || fail "left after removal: $left"
echo "libqor1, libqor-dev and qor-tools install, serve the README example and remove cleanly"
