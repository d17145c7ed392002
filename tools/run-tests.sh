#!/usr/bin/env bash
# Builds the provider, the device library substitute and every test program, then runs all tests
# under Wine. Arguments go to ctest (for example -R log_test). The exit code is ctest's; ctest's
# summary ("100% tests passed, 0 tests failed out of N") is the last thing printed.
set -euo pipefail
cd "$(dirname "$0")/.."

tools/install-deps.sh
cmake --preset default
cmake --build --preset default --parallel "${CALYTH_BUILD_JOBS:-$(nproc)}"

# Nothing is repeated: a test that fails or times out fails the run.
exec ctest --preset default "$@"
