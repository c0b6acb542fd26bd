#!/bin/sh
# Runs the fuzz targets for a bounded time: run.sh [SECONDS] [BUILD_DIR]
# SECONDS (60 by default) is the budget of the whole run, shared evenly by
# the targets. Builds them first (clang, ASan and UBSan), or brings
# BUILD_DIR up to date. New inputs go to a scratch corpus; the seeds in the
# repository are only read.
set -eu
seconds=${1:-60}
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
build=${2:-$src/build-fuzz}
# Each target and its seed corpus.
targets="fuzz_paths:corpus fuzz_locate:corpus_locate"
count=$(echo $targets | wc -w)
each=$((seconds / count))
[ "$each" -ge 1 ] || each=1
if [ ! -f "$build/CMakeCache.txt" ]; then
    CC=clang CXX=clang++ cmake -S "$src" -B "$build" -G Ninja \
        -DQOR_FUZZ=ON -DQOR_SANITIZE=address,undefined \
        -DQOR_BUILD_TESTS=OFF -DQOR_BUILD_TOOLS=OFF >/dev/null
fi
# Always brought up to date, so a stale target never fuzzes old code.
# The build's own output is kept for a failure: ninja prints compiler errors
# on standard output.
log=$(mktemp)
names=""
for t in $targets; do names="$names ${t%%:*}"; done
# shellcheck disable=SC2086
if ! cmake --build "$build" --target $names >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    echo "run.sh: building the fuzz targets failed" >&2
    exit 1
fi
rm -f "$log"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT INT TERM
for t in $targets; do
    name=${t%%:*}
    mkdir "$scratch/$name"
    cd "$scratch/$name"
    echo "run.sh: $name for $each seconds"
    "$build/tests/fuzz/$name" -max_total_time="$each" -max_len=6000 \
        -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        "$scratch/$name" "$here/${t#*:}"
done
