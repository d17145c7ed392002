#!/usr/bin/env bash
# Builds the provider, the device library substitute and every test program, runs the checks of
# tools/ci-checks.sh (clang build, static analysis), then runs all tests under Wine. Arguments go
# to ctest (for example -R log_test). The exit code is ctest's, or the checks' when only they fail;
# ctest's summary ("100% tests passed, 0 tests failed out of N") is the last thing printed.
set -euo pipefail
cd "$(dirname "$0")/.."

tools/install-deps.sh
# Warnings are errors here, as in the clang build of tools/ci-checks.sh.
cmake --preset default -DCALYTH_WERROR=ON
cmake --build --preset default --parallel "${CALYTH_BUILD_JOBS:-$(nproc)}"

# The second compiler and the static analysis; CALYTH_SKIP_CHECKS=1 leaves them out (a developer
# running one test: tools/run-tests.sh -R <name>).
# A failed check fails the run too, but the tests still run, so that their results are not lost.
checks=0
if [ "${CALYTH_SKIP_CHECKS:-0}" != 1 ]; then
    tools/ci-checks.sh || checks=$?
    [ "$checks" -eq 0 ] || echo "run-tests: tools/ci-checks.sh FAILED (exit code $checks); the run fails"
fi

# Nothing is repeated: a test that fails or times out fails the run.
status=0
ctest --preset default "$@" || status=$?
[ "$status" -ne 0 ] || status=$checks
exit "$status"
