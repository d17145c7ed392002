#!/usr/bin/env bash
# Builds the native fuzz targets (fuzz/: clang, libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer)
# and runs each on a copy of its seed corpus.
#
#   tools/fuzz.sh [seconds]          every target for that many seconds (default 60)
#   tools/fuzz.sh --runs N           every target for N executions
#   tools/fuzz.sh --target NAME ...  only that target (fuzz_der, fuzz_cng_blobs, ...)
#
# Prints the executions of each target and exits non-zero on any crash, sanitizer report or leak;
# the input that found it is kept in the build folder (crash-*, leak-*, timeout-*) and replays with
# `<build>/<target> <file>`. Without clang it says so and exits 77 (a skip for ctest).
# CALYTH_FUZZ_BUILD names the build folder (default build/fuzz-native).
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${CALYTH_FUZZ_BUILD:-$root/build/fuzz-native}"

limit=(-max_total_time=60)
only=""
while [ $# -gt 0 ]; do
    case "$1" in
        --runs) limit=(-runs="$2"); shift 2 ;;
        --target) only="$2"; shift 2 ;;
        [0-9]*) limit=(-max_total_time="$1"); shift ;;
        *) echo "fuzz.sh: unknown argument $1" >&2; exit 2 ;;
    esac
done

if ! command -v clang++ >/dev/null 2>&1; then
    echo "fuzz.sh: SKIPPED: clang++ is not installed (tools/install-deps.sh installs clang and libfuzzer-14-dev)"
    exit 77
fi

launcher=()
command -v ccache >/dev/null 2>&1 && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
mkdir -p "$build"
cmake -S "$root/fuzz" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ "${launcher[@]}" >"$build/configure.log" 2>&1 ||
    { cat "$build/configure.log"; exit 1; }
cmake --build "$build" -j"${CALYTH_BUILD_JOBS:-2}" >"$build/build.log" 2>&1 || { cat "$build/build.log"; exit 1; }

failed=0
for source in "$root"/fuzz/targets/fuzz_*.cpp; do
    target="$(basename "$source" .cpp)"
    [ -n "$only" ] && [ "$only" != "$target" ] && continue
    corpus="$build/corpus/$target"
    mkdir -p "$corpus" "$build/artifacts/$target"
    cp -n "$root/fuzz/corpus/$target"/* "$corpus"/ 2>/dev/null
    log="$build/$target.log"
    # One process; -rss_limit_mb keeps memory that grows with the input count from passing unseen.
    "$build/$target" "${limit[@]}" -rss_limit_mb=1024 -max_len=4096 -timeout=10 -print_final_stats=1 \
        -artifact_prefix="$build/artifacts/$target/" "$corpus" >"$log" 2>&1
    status=$?
    runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)"
    if [ $status -ne 0 ]; then
        failed=1
        echo "fuzz.sh: $target FAILED after ${runs:-?} executions (exit $status); log $log"
        grep -E "ERROR: |runtime error|SUMMARY|Test unit written" "$log" | head -20
    else
        echo "fuzz.sh: $target ${runs:-?} executions, no finding"
    fi
done
exit $failed
