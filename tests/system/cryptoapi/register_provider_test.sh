#!/bin/sh
# tools/register-provider.sh against the build's Wine prefix: the registration an installer writes
# (image path and type), its removal, a second removal, bad arguments. Leaves the provider registered.
#   register_provider_test.sh <source dir> <wine prefix> <bin dir>
set -u
script=$1/tools/register-provider.sh
wine64=$1/tools/wine64.sh  # the 64-bit reg: the view the 64-bit provider reads
export WINEPREFIX=$2 WINEDEBUG=-all
bin=$3
view=$("$1/tools/pe-bits.sh" "$bin/CalythCSP.dll")  # the view that the script writes for this DLL
key='HKLM\Software\Microsoft\Cryptography\Defaults\Provider\Calyth Cryptographic Provider CSP'
. "$1/tests/script_checks.sh"

value() {
    "$wine64" reg query "$key" /v "$1" /reg:$view 2>/dev/null | tr -d '\r' | sed -n "s/^ *$1 *REG_[A-Z_]* *//p"
}

"$script" --prefix "$WINEPREFIX" --dll "$bin/CalythCSP.dll"
check $? 0 "register exits 0"
check "$(value 'Image Path')" "$("$wine64" winepath -w "$bin/CalythCSP.dll" 2>/dev/null | tr -d '\r')" "Image Path is the DLL's Windows path"
check "$(value Type)" 0x1 "Type is 1 (PROV_RSA_FULL)"

"$script" --prefix "$WINEPREFIX" --dll "$bin/CalythCSP.dll"
check $? 0 "registering again exits 0"

"$script" --prefix "$WINEPREFIX" --dll "$bin/CalythCSP.dll" --unregister
check $? 0 "unregister exits 0"
"$wine64" reg query "$key" /reg:$view >/dev/null 2>&1
check $? 1 "the provider key is gone"
check "$("$script" --prefix "$WINEPREFIX" --dll "$bin/CalythCSP.dll" --unregister)" \
    "\"Calyth Cryptographic Provider CSP\" was not registered in $WINEPREFIX" "a second unregister says so"

"$script" --prefix "$WINEPREFIX" --dll "$bin/NoSuch.dll" >/dev/null 2>&1
check $? 1 "a missing DLL exits 1"
"$wine64" reg query "$key" /reg:$view >/dev/null 2>&1
check $? 1 "a missing DLL registers nothing"
"$script" --prefix "$WINEPREFIX" --frobnicate >/dev/null 2>&1
check $? 2 "an unknown argument exits 2"

"$script" --prefix "$WINEPREFIX" --dll "$bin/CalythCSP.dll" >/dev/null
check $? 0 "registered again at the end"
checks_passed
