#!/usr/bin/env bash
# The checks beside the tests: the layering of src/ (tools/check-includes.sh: no include points
# up), everything built a second time with clang for the same mingw-w64 target (preset clang,
# warnings are errors), then the static analysis (tools/analyse.sh). Exits non-zero on an upward
# include, any compiler warning or analyser finding. tools/run-tests.sh runs it before the tests
# unless CALYTH_SKIP_CHECKS=1.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=${CALYTH_BUILD_JOBS:-$(nproc)}
started=$(date +%s)
if ! tools/check-includes.sh; then
    echo "ci-checks: an include points up (layers: util < log < token < cert < csp, ksp < register)"
    exit 1
fi
cmake --preset clang >/dev/null
if ! cmake --build --preset clang --parallel "$jobs"; then
    echo "ci-checks: the clang build FAILED (a warning is an error there)"
    exit 1
fi
built=$(date +%s)
echo "ci-checks: clang build without warnings in $(( built - started )) s"
tools/analyse.sh build-clang
echo "ci-checks: all checks passed in $(( $(date +%s) - started )) s"
