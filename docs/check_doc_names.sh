#!/bin/sh
# Every function a documentation page shows being called, "QOR_name(", must
# be declared by a public header, so that the pages cannot go on naming a
# function that was renamed or never existed.
#   check_doc_names.sh DOCS_DIR INCLUDE_DIR
set -eu
docs=$1 include=$2

# Prints "page: name(" for each call on the pages given that no header
# declares.
unknown() {
    for page in "$@"; do
        grep -o 'QOR_[A-Za-z0-9_]*(' "$page" | sort -u | while read -r call; do
            grep -qF "$call" "$include"/qor/*.h || echo "${page##*/}: $call"
        done
    done
}

# The check must bite: a page calling a function that does not exist.
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
printf 'Call `QOR_no_such_function(x)` and `QOR_malloc(8)`.\n' >"$tmp/canary.md"
[ "$(unknown "$tmp/canary.md")" = "canary.md: QOR_no_such_function(" ] || {
    echo "the check does not find an undeclared function"; exit 1; }

bad=$(unknown "$docs"/*.md)
if [ -n "$bad" ]; then
    echo "documentation calls functions no header declares:"
    echo "$bad"
    exit 1
fi
echo "every function the pages call is declared"
