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
exec wine "$@"
