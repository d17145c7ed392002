#!/bin/sh
# Runs one of Wine's own programs (reg, msiexec, ...) with Wine's 64-bit loader.
#   tools/wine64.sh reg add 'HKLM\Software\...' ... /reg:64
# With Debian's wine32 installed, "wine reg" starts the 32-bit reg.exe: a prefix made before wine32
# cannot run it at all ("could not load kernel32.dll"), and in any prefix it would write the 32-bit
# view of HKLM\Software. Test programs themselves are started with "wine", which picks the loader
# from the program's own bitness.
if [ -x /usr/lib/wine/wine64 ]; then
    exec /usr/lib/wine/wine64 "$@"
fi
exec wine "$@"
