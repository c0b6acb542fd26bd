#!/bin/sh
# Builds the API reference with doxygen and fails on any warning, above all
# on an exported function, variable or type without a comment.
#   check_api_docs.sh DOXYGEN DOXYFILE            the headers as they are
#   check_api_docs.sh DOXYGEN DOXYFILE --canary   proves the check bites: a
#       copy of the headers gains one undocumented function, and doxygen
#       must then fail naming it.
# Exit status 77 (a skipped test) when doxygen is not installed.
set -eu
doxygen=$1 doxyfile=$2 mode=${3:-}
if [ ! -x "$doxygen" ]; then
    echo "doxygen is not installed (scripts/setup --tests installs it):" \
         "API reference not checked"
    exit 77
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

if [ -z "$mode" ]; then
    if ! "$doxygen" "$doxyfile" >"$tmp/out" 2>"$tmp/err"; then
        echo "doxygen failed:"; cat "$tmp/err"; exit 1
    fi
    if [ -s "$tmp/err" ]; then
        echo "doxygen warned:"; cat "$tmp/err"; exit 1
    fi
    echo "API reference built without warnings"
    exit 0
fi

# Canary: the same configuration over a copy of the headers, with output in
# the scratch directory.
input=$(sed -n 's/^INPUT *= *//p' "$doxyfile")
mkdir "$tmp/qor" "$tmp/out"
cp "$input"/*.h "$tmp/qor/"
cat >>"$tmp/qor/memory.h" <<'H'
QOR_API int QOR_canary_without_comment(int x);
H
sed -e "s#^INPUT .*#INPUT = $tmp/qor#" \
    -e "s#^OUTPUT_DIRECTORY .*#OUTPUT_DIRECTORY = $tmp/out#" \
    -e "s#$input/#$tmp/qor/#g" "$doxyfile" >"$tmp/Doxyfile"
if "$doxygen" "$tmp/Doxyfile" >/dev/null 2>"$tmp/err"; then
    echo "doxygen accepted an undocumented function"; exit 1
fi
grep -q 'QOR_canary_without_comment.*not documented' "$tmp/err" || {
    echo "doxygen failed, but not on the undocumented function:"
    cat "$tmp/err"; exit 1; }
echo "an undocumented function fails the API reference"
