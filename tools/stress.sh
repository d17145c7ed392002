#!/usr/bin/env bash
# tools/stress.sh [seconds] [--build-dir DIR]: builds calyth-stress and runs it under Wine for the
# given time (60 s unless told): 8 threads on both front-ends and two soft tokens, one unplugged
# and replugged every second, device faults injected. Exit code: 0 held, 1 a check failed, 3 the
# watchdog saw no progress for 30 s.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=60
build=build
while [ $# -gt 0 ]; do
    case "$1" in
        --build-dir) build=$2; shift 2 ;;
        *) seconds=$1; shift ;;
    esac
done
[ -d "$build" ] || cmake --preset default
cmake --build "$build" --target calyth-stress
prefix=$(cd "$build" && pwd)/wineprefix
tests/wine-env.sh start "$prefix"
trap 'tests/wine-env.sh stop "$prefix"' EXIT
# No display: the CNG login dialog fails at once, as on a server, instead of waiting for a user.
tests/wine-run.sh "$prefix" "$build/bin/calyth-stress.exe" "$seconds"
