#!/bin/sh
# Runs the path fuzz target for a bounded time: run.sh [SECONDS] [BUILD_DIR]
# Builds it first (clang, ASan and UBSan), or brings BUILD_DIR up to date.
# New inputs go to a scratch corpus; the seeds in corpus/ are only read.
set -eu
seconds=${1:-60}
# The font alias target takes a quarter of the time; the total stays.
font_seconds=$((seconds / 4)); seconds=$((seconds - font_seconds))
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
# The font alias line grammar against its independent reading.
cmake --build "$build" --target fuzz_font_alias >/dev/null
mkdir "$scratch/font_alias"
"$build/tests/fuzz/fuzz_font_alias" -max_total_time="$font_seconds" \
    -max_len=4096 -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    "$scratch/font_alias" "$here/corpus_font_alias"
