#!/bin/sh
# Starts or stops the Wine environment that the test programs run in: a Wine prefix owned by the
# build (never the user's own), a persistent wineserver for the whole run, and an Xvfb display for
# the tests that show windows.
#   wine-env.sh start <prefix>    wine-env.sh stop <prefix>
set -eu
action=$1
prefix=$2
export WINEPREFIX="$prefix" WINEDEBUG=-all
unset DISPLAY
mkdir -p "$prefix"

# True while Wine's desktop process of this prefix runs.
desktop_running() {
    for environ in /proc/[0-9]*/environ; do
        pid=${environ#/proc/}
        pid=${pid%/environ}
        case "$(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null)" in
        *explorer.exe\ /desktop*)
            if tr '\0' '\n' <"$environ" 2>/dev/null | grep -qx "WINEPREFIX=$prefix"; then
                return 0
            fi
            ;;
        esac
    done
    return 1
}

# Wine's desktop process (explorer.exe /desktop) is started by the first program of a session that
# touches a window, and keeps that program's display and standard error: started by a headless test
# it leaves the later dialog tests without a display (their windows are never found), started by a
# test under CTest it holds CTest's output pipe open, so that CTest waits for the finished test
# until its timeout. It is started here instead, on the run's Xvfb display, with no handle of ours.
start_desktop() {
    if [ ! -f "$prefix/xvfb.display" ] || desktop_running; then
        return 0
    fi
    DISPLAY=$(cat "$prefix/xvfb.display") wine explorer.exe /desktop </dev/null >/dev/null 2>&1 &
    for _ in $(seq 1 100); do
        desktop_running && return 0
        sleep 0.1
    done
    echo "wine-env: Wine's desktop process did not start" >&2
}

case "$action" in
start)
    if [ ! -f "$prefix/system.reg" ]; then
        echo "creating Wine prefix $prefix"
        wineboot -i >/dev/null 2>&1 || true
        wineserver -w
    fi
    wineserver -p >/dev/null 2>&1 || true
    # Debug lines by default, so that tests can read every log line of the provider.
    wine reg add 'HKLM\Software\Quorvik Labs\Calyth' /v logLevel /t REG_DWORD /d 3 /f >/dev/null 2>&1
    # Xvfb runs no window manager: unmanaged windows spare every closing dialog or message box
    # Wine's two-second wait for a window manager that never answers.
    wine reg add 'HKCU\Software\Wine\X11 Driver' /v Managed /t REG_SZ /d N /f >/dev/null 2>&1
    if [ -f "$prefix/xvfb.pid" ] && kill -0 "$(cat "$prefix/xvfb.pid")" 2>/dev/null; then
        start_desktop
        exit 0
    fi
    if command -v Xvfb >/dev/null 2>&1; then
        for n in $(seq 90 140); do
            if [ ! -e "/tmp/.X$n-lock" ] && [ ! -e "/tmp/.X11-unix/X$n" ]; then
                Xvfb ":$n" -screen 0 1280x1024x24 -nolisten tcp >/dev/null 2>&1 &
                echo $! >"$prefix/xvfb.pid"
                echo ":$n" >"$prefix/xvfb.display"
                sleep 1
                # The first program that needs a desktop starts Wine's desktop process, which then
                # serves every program of the run through its display driver. Start it here on the
                # display: were a program without a display first, no window could open in the
                # run's DISPLAY programs, and mixed runs hung or failed.
                DISPLAY=":$n" wine explorer.exe /desktop </dev/null >/dev/null 2>&1 &
                sleep 1
                break
            fi
        done
    fi
    start_desktop
    ;;
stop)
    # Wine first, so that its desktop does not complain about a display going away under it.
    wineserver -k >/dev/null 2>&1 || true
    if [ -f "$prefix/xvfb.pid" ]; then
        kill "$(cat "$prefix/xvfb.pid")" 2>/dev/null || true
        rm -f "$prefix/xvfb.pid" "$prefix/xvfb.display"
    fi
    ;;
esac
