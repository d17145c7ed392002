#!/usr/bin/env bash
# One installer from the stripped binaries of both builds: every .exe and .dll of the 64-bit stage
# is copied to <msi name>-files/x64 and every .dll of the 32-bit stage to <msi name>-files/x86, the
# copies are signed (tools/sign.sh, when CALYTH_SIGN_PKCS12 is set), wixl packs them, and the
# package itself is signed last. The stages stay unsigned, as the linker left them.
# usage: make-msi.sh <msi> <version> <64-bit stage> <32-bit stage> <wxs> [wixl options...]
set -euo pipefail
[ $# -ge 5 ] || { sed -n 's/^# usage: //p' "$0" >&2; exit 2; }
msi=$(realpath -m "$1") version=$2 stage64=$3 stage32=$4 wxs=$(realpath "$5")
shift 5
sign=$(cd "$(dirname "$0")/../tools" && pwd)/sign.sh
files=${msi%.msi}-files

rm -rf "$files" "$msi"
mkdir -p "$files/x64" "$files/x86"
find "$stage64" -maxdepth 1 -type f \( -iname '*.exe' -o -iname '*.dll' \) -exec cp {} "$files/x64/" \;
find "$stage32" -maxdepth 1 -type f -iname '*.dll' -exec cp {} "$files/x86/" \;
"$sign" "$files/x64" "$files/x86"
# wixl finds a File's Source only relative to its working folder.
(cd "$files" && wixl -a x64 -D Version="$version" -D Bin64=x64 -D Bin32=x86 "$@" -o "$msi" "$wxs")
"$sign" "$msi"
