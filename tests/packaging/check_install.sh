#!/bin/sh
# Installs the build the ways a user does and uses each install as it is,
# with no file rewritten and no run path added (LD_LIBRARY_PATH only to run):
#  - into two prefixes, one with a space in it, the second over a fake older
#    version whose links must end up pointing at the new library;
#  - with DESTDIR, used from the staging folder;
# and against each builds the README's C example through pkg-config and
# through CMake's find_package, checking that its message comes out of the
# installed catalogue, plus a C++ program through find_package and a C
# program linked with libqor.a through pkg-config --static.
set -eu
build=$1 here=$2 cc=$3 cxx=$4
readme=$here/../../README.md
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "$*"; exit 1; }
# Only what an install holds decides where messages come from.
unset QOR_CATALOG NLSPATH

# The README's first C block, as a user copies it.
sed -n '/^```c$/,/^```$/{/^```/d;p}' "$readme" | sed -n '1,/^}$/p' >"$tmp/readme.c"
grep -q 'QOR_catalog_install' "$tmp/readme.c" || fail "no C example in README"
expected_err='qor: error 2052: cannot open a file or contents "/nowhere": it does not exist'

# Runs the README program and checks its output and its one message.
check_readme_program() { # program libdir what
    out=$(LD_LIBRARY_PATH=$2 "$1" 2>"$tmp/err") || fail "$3: exit status $?"
    [ "$out" = "ab" ] || fail "$3 printed: $out"
    case $(cat "$tmp/err") in
        "$expected_err"*) ;;
        *) fail "$3: message not translated: $(cat "$tmp/err")" ;;
    esac
    [ "$(wc -l <"$tmp/err")" -eq 1 ] || fail "$3: more than one line: $(cat "$tmp/err")"
}

check_prefix() { # prefix (as installed) name
    prefix=$1 name=$2 lib=$1/lib
    for f in lib/libqor.so lib/libqor.so.1 lib/libqor.a lib/libqor_msg.so \
             include/qor/qor.h include/qor/catalog.h lib/pkgconfig/qor.pc \
             lib/pkgconfig/qor_msg.pc lib/cmake/qor/qorConfig.cmake \
             share/qor/qor.cat bin/qor; do
        [ -e "$prefix/$f" ] || fail "$name: missing after install: $f"
    done
    for l in libqor libqor_msg; do
        soname=$(readelf -d "$lib/$l.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
        [ "$soname" = "$l.so.1" ] || fail "$name: SONAME of $l is '$soname'"
        [ "$(readlink "$lib/$l.so")" = "$l.so.1" ] || fail "$name: $l.so -> $(readlink "$lib/$l.so")"
        [ "$(readlink "$lib/$l.so.1")" = "$l.so.1.0.0" ] || fail "$name: $l.so.1 -> $(readlink "$lib/$l.so.1")"
        if readelf -d "$lib/$l.so" | grep -q -e RUNPATH -e RPATH; then
            fail "$name: $l.so has a run path"
        fi
    done

    # The command finds its libraries relative to itself (no LD_LIBRARY_PATH).
    env -u LD_LIBRARY_PATH "$prefix/bin/qor" status 2052 >/dev/null \
        || fail "$name: the installed qor does not run"

    # pkg-config: eval, because pkg-config escapes the spaces of a prefix
    # with backslashes, which only the shell's own parsing takes out.
    cd "$tmp/work"
    export PKG_CONFIG_PATH="$lib/pkgconfig"
    eval "\"\$cc\" -std=c11 -Wall -Wextra -Werror -pedantic \"\$tmp/readme.c\" \
        -o readme_pc $(pkg-config --cflags --libs qor_msg)"
    check_readme_program ./readme_pc "$lib" "$name: pkg-config"

    # pkg-config --static: linked with libqor.a, needs no libqor.so.
    eval "\"\$cc\" -std=c11 -Wall -Wextra -Werror -pedantic \
        \"\$here/fatal_handler.c\" -o static_pc \
        $(pkg-config --cflags qor) -Wl,-Bstatic \
        $(pkg-config --static --libs qor) -Wl,-Bdynamic"
    if readelf -d static_pc | grep -q 'libqor\.so'; then
        fail "$name: the --static link used libqor.so"
    fi
    [ "$(./static_pc 2>/dev/null | tr '\n' ' ')" = "caught 1 state 2 joined abc " ] \
        || fail "$name: static program printed: $(./static_pc)"
    unset PKG_CONFIG_PATH

    # CMake: the README example and a C++ program, through find_package.
    rm -rf readme_cmake consumer
    mkdir readme_cmake consumer
    cp "$tmp/readme.c" readme_cmake/main.c
    cat >readme_cmake/CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.22)
project(app C)
find_package(qor 1 REQUIRED)
add_executable(app main.c)
target_link_libraries(app PRIVATE qor::qor_msg)
END
    cmake -S readme_cmake -B readme_cmake/build -DCMAKE_PREFIX_PATH="$prefix" \
          -DCMAKE_C_COMPILER="$cc" -DCMAKE_SKIP_RPATH=ON >/dev/null
    cmake --build readme_cmake/build >/dev/null
    check_readme_program ./readme_cmake/build/app "$lib" "$name: find_package"
    cp "$here/consumer/CMakeLists.txt" "$here/consumer/main.cpp" consumer/
    cmake -S consumer -B consumer/build -DCMAKE_PREFIX_PATH="$prefix" \
          -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_SKIP_RPATH=ON >/dev/null
    cmake --build consumer/build >/dev/null
    out=$(LD_LIBRARY_PATH=$lib ./consumer/build/consumer 2>/dev/null)
    [ "$out" = "status 2052" ] || fail "$name: consumer printed: $out"
    cd "$tmp"
}
mkdir "$tmp/work"

# 1. A plain prefix.
cmake --install "$build" --prefix "$tmp/one" >/dev/null
check_prefix "$tmp/one" "prefix"

# 2. A prefix with a space, holding a fake older 1.x install whose file
#    names clash with the new ones: the new install must leave the SONAME
#    links on the new library (a stale libqor.so.1 would win at run time).
two="$tmp/with space/two"
mkdir -p "$two/lib"
printf 'int QOR_old_release_marker;\n' >"$tmp/old.c"
for l in libqor libqor_msg; do
    "$cc" -shared -fPIC -Wl,-soname,$l.so.1 -o "$two/lib/$l.so.1.0.0" "$tmp/old.c"
    ln -s $l.so.1.0.0 "$two/lib/$l.so.1"
    cp "$two/lib/$l.so.1.0.0" "$two/lib/$l.so"   # a plain copy, no link
done
cmake --install "$build" --prefix "$two" >/dev/null
for l in libqor libqor_msg; do
    if nm -D "$two/lib/$l.so.1" | grep -q QOR_old_release_marker; then
        fail "$l.so.1 still reaches the older library after the install"
    fi
done
check_prefix "$two" "prefix with a space"

# 3. DESTDIR: staged for /opt/qor and used from the staging folder.
DESTDIR="$tmp/stage" cmake --install "$build" --prefix /opt/qor >/dev/null
check_prefix "$tmp/stage/opt/qor" "DESTDIR"
echo "installs to two prefixes and DESTDIR work through pkg-config and find_package"
