#!/bin/sh
# Makes sure that the Wine prefix named by WINEPREFIX exists and suits the installed Wine.
#   WINEPREFIX=<prefix> tests/wine-prefix.sh
# With Debian's wine32 installed, "wine" starts every program, 64-bit ones included, through the
# 32-bit loader, which needs the prefix's 32-bit system folder (syswow64). A prefix made before
# wine32 was installed has none, and every program in it fails ("could not load kernel32.dll"):
# such a prefix is made anew. Test and benchmark prefixes belong to the build; nothing in them is
# kept but the display files of tests/wine-env.sh.
set -eu
prefix=$WINEPREFIX
if [ -f "$prefix/system.reg" ] && [ -x /usr/lib/wine/wine ] && [ ! -f "$prefix/drive_c/windows/syswow64/kernel32.dll" ]; then
    echo "Wine prefix $prefix predates Debian's wine32: making it anew" >&2
    wineserver -k >/dev/null 2>&1 || true
    find "$prefix" -mindepth 1 -maxdepth 1 ! -name 'xvfb.*' -exec rm -rf {} +
fi
if [ ! -f "$prefix/system.reg" ]; then
    echo "creating Wine prefix $prefix" >&2
    mkdir -p "$prefix"
    wineboot -i >/dev/null 2>&1 || true
    wineserver -w
fi
