#!/bin/sh
# Starts or stops the Wine environment that the test programs run in: a Wine prefix owned by the
# build (never the user's own), a persistent wineserver for the whole run, and an Xvfb display for
# the tests that show windows.
#   wine-env.sh start <prefix>    wine-env.sh stop <prefix>
set -eu
action=$1
prefix=$2
tools="$(cd "$(dirname "$0")/../tools" && pwd)"
export WINEPREFIX="$prefix" WINEDEBUG=-all
unset DISPLAY
mkdir -p "$prefix"

# Start time (in clock ticks since boot) of a process.
started_at() {
    sed 's/.*) //' 2>/dev/null <"/proc/$1/stat" | cut -d' ' -f20
}

# Wine processes of this prefix (wineserver and Windows programs, nothing else that merely carries
# WINEPREFIX) whose command line matches the pattern, one pid a line.
prefix_processes() {
    for environ in /proc/[0-9]*/environ; do
        pid=${environ#/proc/}
        pid=${pid%/environ}
        case "$(readlink "/proc/$pid/exe" 2>/dev/null)" in
        *wine*) ;;
        *) continue ;;
        esac
        case "$(tr '\0' ' ' 2>/dev/null <"/proc/$pid/cmdline")" in
        $1)
            if tr '\0' '\n' 2>/dev/null <"$environ" | grep -qx "WINEPREFIX=$prefix"; then
                echo "$pid"
            fi
            ;;
        esac
    done
}

# True while a process of this prefix whose command line matches the pattern runs under the current
# wineserver on the run's display (processes of an earlier server that was killed may linger and
# do not count).
running_on_display() {
    server=$(prefix_processes '*wineserver*' | head -n 1)
    [ -n "$server" ] || return 1
    since=$(started_at "$server")
    for pid in $(prefix_processes "$1"); do
        started=$(started_at "$pid")
        if [ -n "$started" ] && [ "$started" -ge "$since" ] && on_run_display "$pid"; then
            return 0
        fi
    done
    return 1
}

desktop_running() {
    running_on_display '*explorer.exe /desktop*'
}

# True when the process was started on the run's display.
on_run_display() {
    tr '\0' '\n' 2>/dev/null <"/proc/$1/environ" | grep -qx "DISPLAY=$(cat "$prefix/xvfb.display")"
}

# The desktop keeper (tests/desktop_keeper.c), built into the prefix with the project's own
# cross-compiler the first time and whenever its source changes.
keeper_program() {
    keeper="$prefix/desktop-keeper.exe"
    source="$(cd "$(dirname "$0")" && pwd)/desktop_keeper.c"
    if [ ! -f "$keeper" ] || [ "$source" -nt "$keeper" ]; then
        x86_64-w64-mingw32-gcc-posix -O2 -mwindows -o "$keeper" "$source" || {
            echo "wine-env: FAILED: cannot build $keeper" >&2
            exit 1
        }
    fi
    echo "$keeper"
}

# Wine's desktop process (explorer.exe /desktop) is started by the first program of a session that
# touches a window, keeps that program's display and standard error, and ends about a second after
# its last other user. Left to the tests, a headless test would start it without a display now and
# then, leaving the dialog tests beside it without one, and a test under CTest would leave CTest's
# output pipe in it. So the desktop keeper starts it here, on the run's Xvfb display, with no handle
# of ours, and holds it until the wineserver stops: every program of the run meets that desktop.
start_desktop() {
    if [ ! -f "$prefix/xvfb.display" ]; then
        return 0
    fi
    if running_on_display '*desktop-keeper.exe*' && desktop_running; then
        return 0
    fi
    # A desktop without the run's display (one that outlived an earlier headless start) would keep
    # every window of the run off the display: it gives way to one on the display.
    for pid in $(prefix_processes '*explorer.exe /desktop*'); do
        on_run_display "$pid" || kill -9 "$pid" 2>/dev/null || true
    done
    keeper=$(keeper_program)
    if ! running_on_display '*desktop-keeper.exe*'; then
        DISPLAY=$(cat "$prefix/xvfb.display") setsid wine "$keeper" </dev/null >/dev/null 2>&1 &
    fi
    for _ in $(seq 1 300); do
        if running_on_display '*desktop-keeper.exe*' && desktop_running; then
            return 0
        fi
        sleep 0.1
    done
    # Without it every DISPLAY test would wait out its timeout for windows that never appear.
    echo "wine-env: FAILED: Wine's desktop process did not start on display $(cat "$prefix/xvfb.display") within 30 s" >&2
    exit 1
}

# True once the X server at display $1 accepts connections.
display_ready() {
    if command -v xdpyinfo >/dev/null 2>&1; then
        DISPLAY=$1 xdpyinfo >/dev/null 2>&1
    else
        [ -S "/tmp/.X11-unix/X${1#:}" ]
    fi
}

# Starts Xvfb on display :$1 and waits until it accepts connections; false when it ended or did not
# answer within 30 s (it is then stopped).
# -noreset: the probe's disconnect would otherwise reset the server just as the desktop connects.
start_xvfb() {
    Xvfb ":$1" -screen 0 1280x1024x24 -nolisten tcp -noreset >/dev/null 2>&1 &
    xvfb=$!
    for _ in $(seq 1 300); do
        if display_ready ":$1"; then
            echo "$xvfb" >"$prefix/xvfb.pid"
            echo ":$1" >"$prefix/xvfb.display"
            return 0
        fi
        kill -0 "$xvfb" 2>/dev/null || return 1
        sleep 0.1
    done
    kill "$xvfb" 2>/dev/null || true
    return 1
}

case "$action" in
start)
    # The display comes first and every Wine command below runs under it: the desktop process is
    # started by whichever Wine program first needs it (wineboot on a new prefix, say), and one
    # started without the display leaves every dialog of the run without one.
    if ! { [ -f "$prefix/xvfb.pid" ] && kill -0 "$(cat "$prefix/xvfb.pid")" 2>/dev/null; }; then
        rm -f "$prefix/xvfb.pid" "$prefix/xvfb.display"
        if command -v Xvfb >/dev/null 2>&1; then
            # A display taken by another run between the test and the start makes Xvfb end at once:
            # the next number is tried.
            for n in $(seq 90 140); do
                if [ ! -e "/tmp/.X$n-lock" ] && [ ! -e "/tmp/.X11-unix/X$n" ] && start_xvfb "$n"; then
                    break
                fi
            done
            if [ ! -f "$prefix/xvfb.display" ]; then
                echo "wine-env: FAILED: no Xvfb display accepted connections" >&2
                exit 1
            fi
        fi
    fi
    if [ -f "$prefix/xvfb.display" ]; then
        DISPLAY=$(cat "$prefix/xvfb.display")
        export DISPLAY
    fi
    "$(dirname "$0")/wine-prefix.sh"
    # The run's wineserver stays for the whole run; what it says (a crash among it) goes to
    # wineserver.log, and wineserver.pid lets tests/wine-run.sh tell that it is still there.
    wineserver -p >/dev/null 2>>"$prefix/wineserver.log" || true
    server=$(prefix_processes '*wineserver*' | head -n 1)
    if [ -z "$server" ]; then
        echo "wine-env: FAILED: no wineserver runs for $prefix" >&2
        exit 1
    fi
    echo "$server" >"$prefix/wineserver.pid"
    # Debug lines by default, so that tests can read every log line of the provider, in both views
    # of the registry (a 32-bit test program reads the 32-bit one).
    for view in 64 32; do
        "$tools/wine64.sh" reg add 'HKLM\Software\Quorvik Labs\Calyth' /v logLevel /t REG_DWORD /d 3 /f \
            /reg:$view >/dev/null 2>&1
    done
    # Xvfb runs no window manager: unmanaged windows spare every closing dialog or message box
    # Wine's two-second wait for a window manager that never answers.
    "$tools/wine64.sh" reg add 'HKCU\Software\Wine\X11 Driver' /v Managed /t REG_SZ /d N /f >/dev/null 2>&1
    start_desktop
    ;;
stop)
    # Wine first, so that its desktop does not complain about a display going away under it.
    wineserver -k >/dev/null 2>&1 || true
    # Processes of the prefix that wait on a pipe do not notice that their server is gone and would
    # stay for ever (a desktop process among them): end what is left after a moment.
    for _ in $(seq 1 20); do
        [ -z "$(prefix_processes '*')" ] && break
        sleep 0.1
    done
    for pid in $(prefix_processes '*'); do
        kill -9 "$pid" 2>/dev/null || true
    done
    if [ -f "$prefix/xvfb.pid" ]; then
        kill "$(cat "$prefix/xvfb.pid")" 2>/dev/null || true
        rm -f "$prefix/xvfb.pid" "$prefix/xvfb.display"
    fi
    rm -f "$prefix/wineserver.pid"
    ;;
esac
