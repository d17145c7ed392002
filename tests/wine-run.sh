#!/bin/sh
# Runs one Windows test program under Wine in the build's prefix.
#   wine-run.sh <prefix> [--display] program.exe [arguments]
# Without --display the program gets no display, as on a headless server: dialogs and message
# boxes fail at once instead of waiting for a user. With --display it gets the run's Xvfb.
set -eu
export WINEPREFIX="$1"
shift
export WINEDEBUG=-all
unset DISPLAY
# The wineserver that tests/wine-env.sh started must still be there: a program started without it
# would start a server of its own, and a desktop of its own without the run's display.
fail_without_server() {
    if [ -f "$WINEPREFIX/wineserver.pid" ] && ! kill -0 "$(cat "$WINEPREFIX/wineserver.pid")" 2>/dev/null; then
        echo "wine-run: FAILED: the run's wineserver (pid $(cat "$WINEPREFIX/wineserver.pid")) has ended$1;" \
            "see $WINEPREFIX/wineserver.log" >&2
        exit 1
    fi
}
fail_without_server ""
if [ "${1:-}" = "--display" ]; then
    shift
    if [ -f "$WINEPREFIX/xvfb.display" ]; then
        DISPLAY=$(cat "$WINEPREFIX/xvfb.display")
        export DISPLAY
    else
        echo "no Xvfb display for this run" >&2
        exit 1
    fi
fi
# Now and then Wine fails a process while its libraries initialise, before any of the program's
# code runs (STATUS_DLL_INIT_FAILED, 0xC0000142, which the shell sees as its low byte 66). The
# program never ran, so it is started once more; test programs themselves end with 0 or 1.
dll_init_failed=66
status=0
wine "$@" || status=$?
if [ "$status" -eq "$dll_init_failed" ]; then
    echo "wine-run: Wine failed $1 before it ran (status $status, STATUS_DLL_INIT_FAILED); starting it once more" >&2
    status=0
    wine "$@" || status=$?
fi
if [ "$status" -ne 0 ]; then
    echo "wine-run: $1 ended with status $status" >&2
fi
# A Wine program whose server goes away ends at once, now and then with status 0 (tests "passed" in
# a few hundredths of a second that way): without this check such a test would count as passed.
fail_without_server " while the program ran"
exit $status
