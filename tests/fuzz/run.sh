#!/bin/sh
# Runs every fuzz target for a bounded time: run.sh [SECONDS] [BUILD_DIR]
# SECONDS (default 60) is the whole budget, shared out equally between the
# targets (tests/fuzz/fuzz_*.cpp). Builds them first (clang, ASan and
# UBSan), or brings BUILD_DIR up to date. Each target reads the seeds of its
# corpus (corpus/ for fuzz_paths, corpus_X/ for fuzz_X) and writes new
# inputs to a scratch corpus only. Any crash, leak, violated check or hang
# (-timeout) fails the run. Quiet when all is well (a line per target);
# a failing target's whole output when not.
set -eu
seconds=${1:-60}
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
build=${2:-$src/build-fuzz}
mkdir -p "$build"
build=$(cd "$build" && pwd)  # the targets run from a scratch directory
targets=$(cd "$here" && ls fuzz_*.cpp | sed 's/\.cpp$//')
count=$(echo "$targets" | wc -w)
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
# shellcheck disable=SC2086
if ! cmake --build "$build" --target $targets >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    echo "run.sh: building the fuzz targets failed" >&2
    exit 1
fi
rm -f "$log"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT INT TERM
cd "$scratch"
for t in $targets; do
    case $t in
        fuzz_paths) seeds=$here/corpus ;;
        *) seeds=$here/corpus_${t#fuzz_} ;;
    esac
    mkdir -p "$scratch/$t"
    out=$scratch/$t.log
    if ! "$build/tests/fuzz/$t" -max_total_time="$each" -max_len=6000 \
            -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
            "$scratch/$t" "$seeds" >"$out" 2>&1; then
        cat "$out" >&2
        echo "run.sh: $t failed" >&2
        exit 1
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$out")
    echo "run.sh: $t: ${runs:-?} inputs in ${each}s, no failure"
done
