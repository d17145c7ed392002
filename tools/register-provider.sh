#!/usr/bin/env bash
# Registers CalythCSP.dll as the CryptoAPI provider "Calyth Cryptographic Provider CSP" in a Wine
# prefix, as the installer does on Windows (the DLL writes no CryptoAPI registry keys itself):
#
#   HKLM\Software\Microsoft\Cryptography\Defaults\Provider\Calyth Cryptographic Provider CSP
#       "Image Path"  REG_SZ     full Windows path of CalythCSP.dll
#       "Type"        REG_DWORD  1 (PROV_RSA_FULL)
#
# usage: tools/register-provider.sh [--prefix WINEPREFIX] [--dll PATH] [--unregister]
#   --prefix      the Wine prefix (default: build/wineprefix of this checkout)
#   --dll         the provider DLL (default: build/bin/CalythCSP.dll); its device library
#                 CalythDSCLibrary.dll must be beside it or beside the application. A 32-bit DLL
#                 is registered in the 32-bit view of the registry, which 32-bit applications
#                 read (give it with --unregister too, to remove that registration)
#   --unregister  removes the registration instead
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
wine64=$root/tools/wine64.sh  # the 64-bit reg, told which view of the registry to write
prefix=$root/build/wineprefix
dll=$root/build/bin/CalythCSP.dll
action=register
provider='Calyth Cryptographic Provider CSP'
key="HKLM\\Software\\Microsoft\\Cryptography\\Defaults\\Provider\\$provider"

usage() {
    sed -n '/^# usage:/,/^[^#]/{/^#/s/^# \{0,1\}//p}' "$0" >&2
    exit 2
}

while [ $# -gt 0 ]; do
    case "$1" in
    --prefix) [ $# -ge 2 ] || usage; prefix=$2; shift 2 ;;
    --dll) [ $# -ge 2 ] || usage; dll=$2; shift 2 ;;
    --unregister) action=unregister; shift ;;
    -h | --help) usage ;;
    *) echo "register-provider: unknown argument '$1'" >&2; usage ;;
    esac
done

export WINEPREFIX=$prefix WINEDEBUG=-all
if [ ! -f "$prefix/system.reg" ]; then
    echo "register-provider: $prefix is not a Wine prefix (create it with tests/wine-env.sh start $prefix)" >&2
    exit 1
fi

# A 32-bit DLL serves 32-bit applications, which read the 32-bit view of HKLM\Software.
view=64
if [ -f "$dll" ]; then
    view=$("$root/tools/pe-bits.sh" "$dll")
fi

if [ "$action" = unregister ]; then
    if "$wine64" reg query "$key" /reg:$view >/dev/null 2>&1; then
        if ! output=$("$wine64" reg delete "$key" /f /reg:$view 2>&1); then
            echo "register-provider: cannot remove the key in $prefix: $output" >&2
            exit 1
        fi
        echo "unregistered \"$provider\" from $prefix"
    else
        echo "\"$provider\" was not registered in $prefix"
    fi
    exit 0
fi

if [ ! -f "$dll" ]; then
    echo "register-provider: $dll not found (build it with cmake --build build --target CalythCSP)" >&2
    exit 1
fi
dll=$(cd "$(dirname "$dll")" && pwd)/$(basename "$dll")
image=$("$wine64" winepath -w "$dll" 2>/dev/null | tr -d '\r')
if [ -z "$image" ]; then
    echo "register-provider: winepath cannot name $dll" >&2
    exit 1
fi
# reg add writes a value, creating the key when it is missing.
write_value() {
    local output
    if ! output=$("$wine64" reg add "$key" /v "$1" /t "$2" /d "$3" /f /reg:$view 2>&1); then
        echo "register-provider: cannot write \"$1\" in $prefix: $output" >&2
        exit 1
    fi
}
write_value "Image Path" REG_SZ "$image"
write_value Type REG_DWORD 1
echo "registered \"$provider\" (type 1) in $prefix: $image"
