#!/usr/bin/env bash
# The long run of the in-Wine fuzz harness (tests/system/fuzz_wine): mutated inputs through the
# provider's real exports, each entry point in a process of its own, in a Wine prefix of its own.
#
#   tools/fuzz-wine.sh [inputs per entry point] [seed] [gtest filter]    (defaults 200000, 1, all)
#
# A crash prints the entry point, the iteration and the environment that replays it alone
# (CALYTH_FUZZ_WINE_SEED, _START, _ITERATIONS=1). Exits non-zero when any entry point fails.
# CALYTH_BUILD names the build folder (default build), CALYTH_FUZZ_WINE_PREFIX the prefix (default
# <build>/fuzz-wine-prefix); the harness must be built there
# (cmake --build build --target fuzz_wine_test).
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${CALYTH_BUILD:-$root/build}"
inputs="${1:-200000}"
seed="${2:-1}"
filter="${3:-*}"
program="$build/bin/fuzz_wine_test.exe"
[ -f "$program" ] || { echo "fuzz-wine.sh: $program is missing; build the target fuzz_wine_test" >&2; exit 2; }

prefix="${CALYTH_FUZZ_WINE_PREFIX:-$build/fuzz-wine-prefix}"
"$root/tests/wine-env.sh" start "$prefix" >/dev/null || exit 1
trap '"$root/tests/wine-env.sh" stop "$prefix" >/dev/null 2>&1' EXIT

tests=$(CALYTH_FUZZ_WINE_ITERATIONS=0 "$root/tests/wine-run.sh" "$prefix" "$program" --gtest_list_tests \
        --gtest_filter="$filter" | tr -d '\r' | awk '/^[^ ]/{suite=$1} /^  /{print suite $1}')
failed=0
for test in $tests; do
    log="$build/fuzz-wine-${test#*.}.log"
    start=$(date +%s)
    CALYTH_FUZZ_WINE_SEED="$seed" CALYTH_FUZZ_WINE_ITERATIONS="$inputs" \
        "$root/tests/wine-run.sh" "$prefix" "$program" --gtest_filter="$test" >"$log" 2>&1
    status=$?
    summary=$(grep -a "inputs (seed" "$log" | tail -1)
    echo "fuzz-wine.sh: $test exit $status in $(( $(date +%s) - start )) s: ${summary:-no summary, see $log}"
    [ $status -eq 0 ] || { failed=1; grep -a -E "exception 0x|Failure|Expected" "$log" | head -5; }
done
exit $failed
