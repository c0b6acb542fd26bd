#!/bin/sh
# Runs the path fuzz target for a bounded time: run.sh [SECONDS] [BUILD_DIR]
# Builds it first (clang, ASan and UBSan), or brings BUILD_DIR up to date.
# New inputs go to a scratch corpus; the seeds in corpus/ are only read.
set -eu
seconds=${1:-60}
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
build=${2:-$src/build-fuzz}
target=$build/tests/fuzz/fuzz_paths
if [ ! -f "$build/CMakeCache.txt" ]; then
    CC=clang CXX=clang++ cmake -S "$src" -B "$build" -G Ninja \
        -DQOR_FUZZ=ON -DQOR_SANITIZE=address,undefined \
        -DQOR_BUILD_TESTS=OFF -DQOR_BUILD_TOOLS=OFF >/dev/null
fi
# Always brought up to date, so a stale target never fuzzes old code.
# The build's own output is kept for a failure: ninja prints compiler errors
# on standard output.
log=$(mktemp)
if ! cmake --build "$build" --target fuzz_paths >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    echo "run.sh: building the fuzz target failed" >&2
    exit 1
fi
rm -f "$log"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT INT TERM
cd "$scratch"
"$target" -max_total_time="$seconds" -max_len=6000 -timeout=10 \
    -rss_limit_mb=2048 -print_final_stats=1 "$scratch" "$here/corpus"
