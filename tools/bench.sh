#!/bin/sh
# Builds the benchmark and runs it under Wine; prints one table of ratios, each measured side by
# side in one process, as the median of several rounds with their spread (lowest .. highest), and
# the provider's log calls per operation against the count the design prescribes (docs/performance.md).
# Exits non-zero when a mode cannot run or a log-call count is not the design's.
#   tools/bench.sh [--quick] [--no-build] [--build-dir DIR]
#   --quick      fewer rounds, cycles and a shorter idle (CI: it keeps the benchmark running)
#   --no-build   use what DIR already holds
# The benchmark runs in a Wine prefix of its own, DIR/bench/wineprefix, at the provider's
# production log level 2, on soft-token stores it makes once under DIR/bench/stores.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=$root/build
mode=full
build=yes
while [ $# -gt 0 ]; do
    case "$1" in
    --quick) mode=quick ;;
    --no-build) build=no ;;
    --build-dir)
        build_dir=$2
        shift
        ;;
    *)
        echo "usage: tools/bench.sh [--quick] [--no-build] [--build-dir DIR]" >&2
        exit 2
        ;;
    esac
    shift
done
mkdir -p "$build_dir"
build_dir=$(cd "$build_dir" && pwd)

if [ "$build" = yes ]; then
    if [ ! -f "$build_dir/CMakeCache.txt" ]; then
        cmake -S "$root" -B "$build_dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
            -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    fi
    cmake --build "$build_dir" --target calyth-bench-null >/dev/null
fi

bin=$build_dir/bin
for file in "$bin/calyth-bench.exe" "$bin/CalythDSCLibrary.dll" "$bin/bench-null/calyth-bench.exe" \
    "$bin/bench-null/CalythDSCLibrary.dll"; do
    [ -f "$file" ] || {
        echo "bench: $file is missing (build the calyth-bench-null target)" >&2
        exit 1
    }
done

export WINEPREFIX="$build_dir/bench/wineprefix" WINEDEBUG=-all
unset DISPLAY
mkdir -p "$WINEPREFIX" "$build_dir/bench/stores"
"$root/tests/wine-prefix.sh"
wineserver -p >/dev/null 2>&1 || true
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
"$root/tools/wine64.sh" reg add 'HKLM\Software\Quorvik Labs\Calyth' /v logLevel /t REG_DWORD /d 2 /f /reg:64 >/dev/null 2>&1

# Wine maps the Unix root to drive Z:.
stores="Z:$(printf '%s' "$build_dir/bench/stores" | tr / '\\')"
if [ "$mode" = quick ]; then idle_window=2 idle_windows=3; else idle_window=20 idle_windows=3; fi

printf '# tools/bench.sh --%s, %s, %s cores\n' "$mode" "$(date -u '+%Y-%m-%d %H:%M UTC')" "$(nproc)"
printf '| %-58s | %10s | %22s | %-10s | %-6s |\n' figure median "spread (rounds)" goal result
printf '|%s|%s|%s|%s|%s|\n' "$(printf -- '-%.0s' $(seq 60))" "$(printf -- '-%.0s' $(seq 12))" \
    "$(printf -- '-%.0s' $(seq 24))" "$(printf -- '-%.0s' $(seq 12))" "$(printf -- '-%.0s' $(seq 8))"
status=0
# One mode of the benchmark, its rows printed without carriage returns; fails when the mode failed
# (piped straight into tr, its exit status would be lost). A mode fails when it cannot run, and when
# a count of log calls per operation is not the design's: timed figures never fail it.
bench_mode() {
    mode_status=0
    wine "$@" >"$build_dir/bench/mode.out" || mode_status=$?
    tr -d '\r' <"$build_dir/bench/mode.out"
    return $mode_status
}
bench_mode "$bin/bench-null/calyth-bench.exe" null "$mode" || status=1
bench_mode "$bin/calyth-bench.exe" soft "$stores" "$mode" || status=1

# The device monitor at rest: two processes idle side by side, one with the monitor running.
idle_out=$build_dir/bench/idle
wine "$bin/calyth-bench.exe" idle "$stores" monitor $idle_window $idle_windows >"$idle_out.monitor" &
monitor_pid=$!
# The certificate agent at rest, beside them: its process's CPU against the idle process's.
wine "$bin/calyth-bench.exe" idle "$stores" agent $idle_window $idle_windows >"$idle_out.agent" &
agent_pid=$!
wine "$bin/calyth-bench.exe" idle "$stores" plain $idle_window $idle_windows >"$idle_out.plain" || status=1
wait $monitor_pid || status=1
wait $agent_pid || status=1
for side in monitor agent; do
    tr -d '\r' <"$idle_out.$side" | sed "s/^$side /measured /" | cat - "$idle_out.plain" | tr -d '\r' |
        awk -v window=$idle_window -v side="$([ $side = monitor ] && echo monitor || echo "certificate agent")" \
        -v seconds=$((idle_window * idle_windows)) '
        $1 == "measured" { for (i = 2; i <= NF; ++i) with[i - 1] = $i; n = NF - 1 }
        $1 == "plain"   { for (i = 2; i <= NF; ++i) without[i - 1] = $i }
        END {
            if (n == 0) { printf "| %-58s | %10s | %22s | %-10s | %-6s |\n", "5 " side " at rest, CPU of a core", "failed", "-", "< 0.1 %", "FAILED"; exit 1 }
            for (i = 1; i <= n; ++i) share[i] = (with[i] - without[i]) / window
            for (i = 1; i <= n; ++i) for (j = i + 1; j <= n; ++j) if (share[j] < share[i]) { t = share[i]; share[i] = share[j]; share[j] = t }
            median = n % 2 ? share[(n + 1) / 2] : (share[n / 2] + share[n / 2 + 1]) / 2
            figure = "5 " side " at rest, CPU of a core (" seconds " s idle)"
            printf "| %-58s | %8.3f %% | %8.3f %% .. %8.3f %% | %-10s | %-6s |\n", figure, median * 100, share[1] * 100, share[n] * 100, "< 0.1 %", median < 0.001 ? "met" : "MISSED"
        }' || status=1
done
exit $status
