#!/usr/bin/env bash
# Static analysis of the project's own sources (src/, softtoken/, tools/): clang-tidy with the checks
# of .clang-tidy, every finding an error, over the compile database of the clang build (configured
# here when missing; nothing needs to be built). Exits non-zero on any finding.
#   tools/analyse.sh [build folder, default build-clang]
# CALYTH_BUILD_JOBS sets the number of parallel clang-tidy processes (default: all cores).
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build-clang}
if [ ! -f "$build/compile_commands.json" ]; then
    cmake --preset clang >/dev/null
fi
jobs=${CALYTH_BUILD_JOBS:-$(nproc)}
started=$(date +%s)
# run-clang-tidy exits non-zero when any file has a finding (WarningsAsErrors in .clang-tidy).
status=0
run-clang-tidy -quiet -p "$build" -j "$jobs" "$PWD/(src|softtoken|tools)/.*\.cpp\$" || status=$?
echo "analyse: clang-tidy $( [ $status -eq 0 ] && echo "found nothing" || echo "FOUND PROBLEMS" )" \
     "in $(( $(date +%s) - started )) s"
exit $status
