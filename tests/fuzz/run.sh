#!/bin/sh
# Runs the path fuzz target for a bounded time: run.sh [SECONDS] [BUILD_DIR]
# Builds it first (clang, ASan and UBSan) unless BUILD_DIR already has it.
# New inputs go to a scratch corpus; the seeds in corpus/ are only read.
set -eu
seconds=${1:-60}
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
build=${2:-$src/build-fuzz}
target=$build/tests/fuzz/fuzz_paths
if [ ! -x "$target" ]; then
    CC=clang CXX=clang++ cmake -S "$src" -B "$build" -G Ninja \
        -DQOR_FUZZ=ON -DQOR_SANITIZE=address,undefined \
        -DQOR_BUILD_TESTS=OFF -DQOR_BUILD_TOOLS=OFF >/dev/null
    cmake --build "$build" --target fuzz_paths
fi
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT INT TERM
cd "$scratch"
"$target" -max_total_time="$seconds" -max_len=6000 -timeout=10 \
    -rss_limit_mb=2048 -print_final_stats=1 "$scratch" "$here/corpus"
