#!/usr/bin/env bash
# The installer under Wine's real msiexec, in a fresh prefix: silent install of the previous version
# with the soft token, the layout the README documents, a signature through CryptoAPI by an
# application in its own folder (verified by OpenSSL), the upgrade to this version, a signature
# again, then a silent uninstall that leaves nothing of what the installer made and keeps the token
# store and the log files.
#
# usage: msi_test.sh <msi> <previous msi> <version> <calyth-sign.exe> <work folder> [32-bit calyth-sign.exe]
set -euo pipefail
[ $# -ge 5 ] || { sed -n 's/^# usage: //p' "$0" >&2; exit 2; }
msi=$(realpath "$1") previous=$(realpath "$2") version=$3 signer=$(realpath "$4") work=$5 signer32=${6:-}
serial=MSI-0001 pin=11223344
provider_key='HKLM\Software\Microsoft\Cryptography\Defaults\Provider\Calyth Cryptographic Provider CSP'

rm -rf "$work" && mkdir -p "$work/app" "$work/app32" "$work/store"
work=$(realpath "$work")
export WINEPREFIX=$work/prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
failures=0
check() { # check <description> <command...>
    if "${@:2}"; then echo "ok    $1"; else echo "FAIL  $1"; failures=$((failures + 1)); fi
}
win() { wine "$@" 2>/dev/null | tr -d '\r'; }
# Wine's own programs through the 64-bit loader (tools/wine64.sh says why).
wine64=$(cd "$(dirname "$0")/../../../tools" && pwd)/wine64.sh
winpath() { "$wine64" winepath -w "$1" 2>/dev/null | tr -d '\r'; }
cleanup() { wineserver -k 2>/dev/null || true; }
trap cleanup EXIT

wineboot -i >/dev/null 2>&1
wineserver -p 60 2>/dev/null || true  # already running after wineboot: it stays
drive=$WINEPREFIX/drive_c
install_root="$drive/Program Files/Quorvik Labs/Calyth"
temp=$(find "$drive/users" -maxdepth 2 -iname temp -type d | head -1)
# The provider's log keeps a line only once its folders exist; DEBUG lines show the registration.
mkdir -p "$temp/Quorvik Labs/calyth-register" "$temp/Quorvik Labs/calyth-sign"
for view in 64 32; do
    "$wine64" reg add 'HKLM\Software\Quorvik Labs\Calyth' /v logLevel /t REG_DWORD /d 3 /f /reg:$view >/dev/null 2>&1
done

msiexec_quiet() { # msiexec_quiet <log name> <arguments...>
    "$wine64" msiexec "${@:2}" /qn /l*v "$(winpath "$work")\\$1.log" >/dev/null 2>&1
}
reg_value() { # reg_value <32|64> <value>: the data of a provider value, "" when missing
    "$wine64" reg query "$provider_key" /v "$2" /reg:"$1" 2>/dev/null | tr -d '\r' |
        awk -v name="$2" '{ line = $0; sub(/^ +/, "", line) } index(line, name " ") == 1 {
            sub(/^[^ ]+( [^ ]+)* +REG_[A-Z_]+ +/, "", line); print line }'
}
uninstall_entries() {
    "$wine64" reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall' /s 2>/dev/null | tr -d '\r' |
        grep -c 'DisplayName.*Calyth Cryptographic Provider' || true
}
installed_version() {
    "$wine64" reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall' /s 2>/dev/null | tr -d '\r' |
        awk '/^HKEY/ { key = $0 } /DisplayName.*Calyth Cryptographic Provider/ { found = key }
             /DisplayVersion/ { version[key] = $NF } END { print version[found] }'
}
made_paths=("$drive/windows/system32/CalythCSP.dll" "$drive/windows/syswow64/CalythCSP.dll"
    "$drive/windows/system32/CalythDSCLibrary.dll" "$drive/windows/syswow64/CalythDSCLibrary.dll"
    "$install_root/calyth-register.exe" "$install_root/calyth-token.exe" "$install_root/calyth-agent.exe"
    "$install_root/CalythDSC/Certificates")
run_key='HKLM\Software\Microsoft\Windows\CurrentVersion\Run'
agent_start() { # the command the Run key starts at logon, "" when none
    "$wine64" reg query "$run_key" /v 'Calyth Certificate Agent' /reg:64 2>/dev/null | tr -d '\r' |
        sed -n 's/^ *Calyth Certificate Agent *REG_SZ *//p'
}
# True when the user's personal store holds the token certificate (the registry key is its SHA-1).
in_my_store() {
    "$wine64" reg query "HKCU\\Software\\Microsoft\\SystemCertificates\\MY\\Certificates\\$thumbprint" >/dev/null 2>&1
}
not_in_my_store() { ! in_my_store; }

layout() { # layout <version>
    local path
    for path in "${made_paths[@]}"; do check "installed: ${path#"$drive"/}" test -e "$path"; done
    check "64-bit view: Image Path" test "$(reg_value 64 'Image Path')" = 'C:\windows\system32\CalythCSP.dll'
    check "64-bit view: Type 1" test "$(reg_value 64 Type)" = 0x1
    check "32-bit view: Image Path" test "$(reg_value 32 'Image Path')" = 'C:\windows\syswow64\CalythCSP.dll'
    check "32-bit view: Type 1" test "$(reg_value 32 Type)" = 0x1
    check "one product entry" test "$(uninstall_entries)" = 1
    check "product version $1" test "$(installed_version)" = "$1"
    check "certificate agent starts at logon" test "$(agent_start)" = '"C:\Program Files\Quorvik Labs\Calyth\calyth-agent.exe"'
}

sign() { # sign <calyth-sign.exe copy> <name>: a signature in a new process, judged by OpenSSL
    printf 'Signed after %s.\n' "$2" >"$work/$2.txt"
    win "$1" --container "$key_id" --pin "$pin" --hash sha256 --in "$(winpath "$work/$2.txt")" \
        --out "$(winpath "$work")\\$2.sig" >/dev/null
    check "signature ($2) verified by OpenSSL" bash -c "openssl dgst -sha256 -verify '$work/key.pem' \
        -signature '$work/$2.sig' '$work/$2.txt' | grep -qx 'Verified OK'"
}

echo "== install $(basename "$previous") (soft token feature)"
check "silent install" msiexec_quiet install /i "$(winpath "$previous")" ADDLOCAL=ALL
layout "$(sed -n 's/.*-\([0-9.]*\)-x64\.msi$/\1/p' <<<"$previous")"
check "KSP registered (DllRegisterServer)" grep -q "DllRegisterServer: KSP registered successfully" \
    "$temp/Quorvik Labs/calyth-register/"*.LOG
# The provider registers without a device library beside it (it is delay-loaded) and the registrar
# warns; registering the installed one again says nothing more.
registrar="C:\\Program Files\\Quorvik Labs\\Calyth\\calyth-register.exe"
mkdir -p "$work/alone" && cp "$drive/windows/system32/CalythCSP.dll" "$work/alone/"
alone_output=$(wine "$registrar" register "$(winpath "$work/alone")\\CalythCSP.dll" 2>&1 | tr -d '\r')
check "registrar: registers a provider without its device library and warns" grep -q \
    "^calyth-register: warning: CalythDSCLibrary.dll, the token's device library, is not beside" <<<"$alone_output"
installed_output=$(wine "$registrar" register 'C:\windows\system32\CalythCSP.dll' 2>&1 | tr -d '\r')
check "registrar: the installed provider registers again without a warning" \
    bash -c '! grep -q warning <<<"$1" && grep -q "^calyth-register: registered" <<<"$1"' _ "$installed_output"

echo "== soft token with the installed calyth-token"
CALYTH_TOKEN_STORE=$(winpath "$work/store")
export CALYTH_TOKEN_STORE
token="C:\\Program Files\\Quorvik Labs\\Calyth\\calyth-token.exe"
win "$token" init --serial "$serial" --pin "$pin" --label "MSI test" >/dev/null
key_id=$(win "$token" genkey --serial "$serial" --type rsa2048 --usage sign --label MsiKey)
check "key id from the installed calyth-token" test ${#key_id} = 32
win "$token" export-pubkey --serial "$serial" --key "$key_id" --out "$(winpath "$work")\\key.pem" >/dev/null
# The application sits alone in its folder: the provider and the device library come from the
# system folders through the registration.
cp "$signer" "$work/app/"
sign "$work/app/$(basename "$signer")" install
if [ -n "$signer32" ]; then
    cp "$signer32" "$work/app32/"
    sign "$work/app32/$(basename "$signer32")" install-32bit
fi
# A certificate for the key on the token, put into the user's store by the installed agent.
openssl req -x509 -newkey rsa:2048 -nodes -keyout "$work/ca.key" -subj /CN=MSI-Test-CA -days 30 \
    -out "$work/ca.pem" 2>/dev/null
openssl x509 -new -subj /CN=MSI-Test-Signer -force_pubkey "$work/key.pem" -CA "$work/ca.pem" \
    -CAkey "$work/ca.key" -days 30 -out "$work/signer.pem" 2>/dev/null
thumbprint=$(openssl x509 -in "$work/signer.pem" -noout -fingerprint -sha1 | sed 's/.*=//; s/://g')
win "$token" import-cert --serial "$serial" --in "$(winpath "$work/signer.pem")" >/dev/null
agent_output=$(win "C:\\Program Files\\Quorvik Labs\\Calyth\\calyth-agent.exe" --once || true)
check "installed calyth-agent --once adds the token certificate" grep -q "^added to MY: CN=MSI-Test-Signer" <<<"$agent_output"
check "token certificate in the user's store" in_my_store
# The installed calyth-doctor sees both registrations and both DLLs as an administrator would.
report=$(win "C:\\Program Files\\Quorvik Labs\\Calyth\\calyth-doctor.exe" || true)
for bits in 64 32; do
    check "calyth-doctor: CryptoAPI registration ($bits-bit) ok" \
        grep -q "^\[ ok \] CryptoAPI registration ($bits-bit)" <<<"$report"
done

echo "== upgrade to $(basename "$msi")"
check "silent upgrade" msiexec_quiet upgrade /i "$(winpath "$msi")" ADDLOCAL=ALL
layout "$version"
sign "$work/app/$(basename "$signer")" upgrade
check "token certificate in the user's store after the upgrade (calyth-agent --once of the new package)" in_my_store

echo "== uninstall"
kept_before=$(cd "$work/store" && find . | sort; find "$temp/Quorvik Labs" | sort)
check "silent uninstall" msiexec_quiet uninstall /x "$(winpath "$msi")"
for path in "${made_paths[@]}"; do check "removed: ${path#"$drive"/}" test ! -e "$path"; done
check "removed: Program Files/Quorvik Labs" test ! -e "$drive/Program Files/Quorvik Labs"
check "removed: 64-bit provider key" bash -c "! '$wine64' reg query '$provider_key' /reg:64 >/dev/null 2>&1"
check "removed: 32-bit provider key" bash -c "! '$wine64' reg query '$provider_key' /reg:32 >/dev/null 2>&1"
check "removed: product entry" test "$(uninstall_entries)" = 0
check "removed: the agent's logon start" test -z "$(agent_start)"
check "removed: the agent's certificate from the user's store (--remove-all)" not_in_my_store
check "KSP unregistered (DllUnregisterServer)" grep -q "DllUnregisterServer: KSP unregistered successfully" \
    "$temp/Quorvik Labs/calyth-register/"*.LOG
check "token store and log files kept" test "$kept_before" = "$(cd "$work/store" && find . | sort; find "$temp/Quorvik Labs" | sort)"

echo "$((failures == 0 ? 1 : 0)) passed, $((failures > 0 ? 1 : 0)) failed: msi_test ($failures failed checks)"
[ "$failures" -eq 0 ]
