#!/usr/bin/env bash
# The main job, end to end: install what is missing, build the provider, the soft token and the
# tools, make a soft token with an RSA key and a certificate for it, register the provider in the
# build's Wine prefix as an installer would, sign a document through CryptoAPI with
# "Calyth Cryptographic Provider CSP" and through its CNG key storage provider, and verify the
# signatures with OpenSSL; then put the token's certificate into the user's store with calyth-agent
# and sign the way applications do, knowing only the certificate's subject.
# Every step must succeed: the job stops with a non-zero exit code at the first failure.
#   tools/main-job.sh                  the 64-bit build (preset default, build/)
#   tools/main-job.sh --preset i686    the 32-bit build (build-i686/), run by Wine's 32-bit side
#                                      (Debian's wine32: CALYTH_WITH_WINE32=1 tools/install-deps.sh)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
preset=default
if [ $# -gt 0 ]; then
    [ $# -eq 2 ] && [ "$1" = --preset ] && { [ "$2" = default ] || [ "$2" = i686 ]; } || {
        echo "usage: tools/main-job.sh [--preset default|i686]" >&2
        exit 2
    }
    preset=$2
fi
build=$root/build
[ "$preset" = i686 ] && build=$root/build-i686
bin=$build/bin
work=$build/main-job
prefix=$build/wineprefix
serial=MAINJOB-0001
pin=20481024

step() { printf '\n== %s\n' "$*"; }

fail() {
    echo "main-job: $*" >&2
    exit 1
}

# Runs a Windows program of the build in the build's Wine prefix; its CR LF line ends become LF.
win() {
    WINEPREFIX=$prefix WINEDEBUG=-all wine "$@" | tr -d '\r'
}

winpath() {
    WINEPREFIX=$prefix WINEDEBUG=-all "$root/tools/wine64.sh" winepath -w "$1" 2>/dev/null | tr -d '\r'
}

install_dependencies() {
    step "Dependencies"
    if [ "$preset" = i686 ]; then
        CALYTH_WITH_WINE32=1 tools/install-deps.sh
        dpkg-query -W -f='${Status}' wine32:i386 2>/dev/null | grep -q "install ok installed" ||
            fail "the 32-bit build needs Debian's wine32, which could not be installed"
    else
        tools/install-deps.sh
    fi
}

build_programs() {
    step "Build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" --target CalythCSP CalythDSCLibrary calyth-token calyth-sign calyth-agent
}

show_dlls() {
    step "DLLs"
    local dll
    for dll in "$bin"/CalythCSP.dll "$bin"/CalythDSCLibrary.dll; do
        echo "$(basename "$dll"): $(stat -c %s "$dll") bytes"
        x86_64-w64-mingw32-objdump -p "$dll" | awk '
            /^\[Ordinal\/Name Pointer\] Table/ { table = 1; next }
            table && /^[ \t]*\[/ { sub(/^[ \t]*\[ *[0-9]+\] /, ""); exports = exports " " $0; next }
            table { table = 0 }
            /DLL Name:/ { imports = imports " " $3 }
            END { print "  exports:" (exports == "" ? " (none)" : exports); print "  imports:" imports }'
    done
}

start_wine() {
    step "Wine prefix"
    tests/wine-env.sh start "$prefix"
    trap 'tests/wine-env.sh stop "$prefix"' EXIT
    echo "prefix $prefix"
}

create_soft_token() {
    step "Soft token"
    rm -rf "$work"
    mkdir -p "$work/store"
    # The device library and calyth-token both read the store folder from CALYTH_TOKEN_STORE.
    CALYTH_TOKEN_STORE=$(winpath "$work/store")
    export CALYTH_TOKEN_STORE
    win "$bin/calyth-token.exe" init --serial "$serial" --pin "$pin" --label "Main job token"
    key_id=$(win "$bin/calyth-token.exe" genkey --serial "$serial" --type rsa2048 --usage both --label MainJobKey)
    [[ $key_id =~ ^[0-9A-F]{32}$ ]] || fail "genkey printed '$key_id', not a key id"
    echo "RSA-2048 key $key_id (the provider's container name)"
    win "$bin/calyth-token.exe" export-pubkey --serial "$serial" --key "$key_id" --out "$(winpath "$work")\\key.pub.pem"
    openssl rsa -pubin -in "$work/key.pub.pem" -noout -text | head -1
}

make_certificate() {
    step "Certificate for the token key (OpenSSL test CA)"
    openssl req -x509 -newkey rsa:2048 -nodes -sha256 -days 30 -subj "/O=Calyth Main Job/CN=Main Job CA" \
        -keyout "$work/ca.key" -out "$work/ca.pem" 2>/dev/null
    # The private key stays on the token: the certificate carries the exported public key.
    openssl x509 -new -force_pubkey "$work/key.pub.pem" -subj "/O=Calyth Main Job/CN=Main Job Signer" \
        -CA "$work/ca.pem" -CAkey "$work/ca.key" -days 30 -set_serial 1 -sha256 -out "$work/signer.pem"
    openssl x509 -in "$work/signer.pem" -noout -subject -issuer
    win "$bin/calyth-token.exe" import-cert --serial "$serial" --in "$(winpath "$work/signer.pem")"
    win "$bin/calyth-token.exe" list --serial "$serial"
}

register_provider() {
    step "Provider registration"
    tools/register-provider.sh --prefix "$prefix" --dll "$bin/CalythCSP.dll"
}

sign_through_cryptoapi() {
    step "Signature through CryptoAPI"
    printf 'Main job document, signed on %s through CryptoAPI.\n' "$(date -u +%Y-%m-%dT%H:%M:%SZ)" >"$work/document.txt"
    local document signature message
    document=$(winpath "$work/document.txt")
    signature=$(winpath "$work")\\document.sig
    message=$(winpath "$work")\\document.p7s
    win "$bin/calyth-sign.exe" --container "$key_id" --pin "$pin" --hash sha256 --in "$document" --out "$signature"
    win "$bin/calyth-sign.exe" --container "$key_id" --pin "$pin" --hash sha256 --cms --in "$document" --out "$message"
    local log
    log=$(find "$prefix/drive_c/users" -path "*/Temp/Quorvik Labs/calyth-sign/*.LOG" -not -path "*/calyth-tests/*" 2>/dev/null | sort | tail -1)
    if [ -n "$log" ]; then
        echo "provider log: $log"
    fi
}

sign_through_cng() {
    step "Signature through CNG"
    # calyth-sign --cng drives the provider's key storage function table as the NCrypt router does
    # (Wine's ncrypt does not load third-party key storage providers).
    local document signature
    document=$(winpath "$work/document.txt")
    signature=$(winpath "$work")\\document.cng.sig
    win "$bin/calyth-sign.exe" --cng --container "$key_id" --pin "$pin" --hash sha256 --in "$document" --out "$signature"
}

propagate_certificates() {
    step "Certificates where applications look (calyth-agent --once)"
    # The agent puts the token key's certificate into the user's "MY" store with key provider
    # information that names the provider and the key's container.
    win "$bin/calyth-agent.exe" --once
}

sign_as_application() {
    step "Signature by an application that knows only the certificate's subject"
    # calyth-sign --subject finds the certificate in "MY", lets crypt32 acquire its key through the
    # key provider information and signs with CryptSignMessage: no provider or container named.
    local document message
    document=$(winpath "$work/document.txt")
    message=$(winpath "$work")\\document.app.p7s
    win "$bin/calyth-sign.exe" --subject "Main Job Signer" --pin "$pin" --hash sha256 --in "$document" --out "$message"
}

verify_with_openssl() {
    step "Verification with OpenSSL"
    local result
    result=$(openssl dgst -sha256 -verify "$work/key.pub.pem" -signature "$work/document.sig" "$work/document.txt")
    echo "openssl dgst -sha256 -verify: $result"
    [ "$result" = "Verified OK" ] || fail "the signature does not verify"
    result=$(openssl cms -verify -binary -inform DER -in "$work/document.p7s" -content "$work/document.txt" \
        -CAfile "$work/ca.pem" -purpose any -out /dev/null 2>&1)
    echo "openssl cms -verify: $result"
    [[ $result == *"Verification successful"* ]] || fail "the CMS signature does not verify"
    result=$(openssl dgst -sha256 -verify "$work/key.pub.pem" -signature "$work/document.cng.sig" "$work/document.txt")
    echo "openssl dgst -sha256 -verify (CNG signature): $result"
    [ "$result" = "Verified OK" ] || fail "the CNG signature does not verify"
    result=$(openssl cms -verify -binary -inform DER -in "$work/document.app.p7s" -content "$work/document.txt" \
        -CAfile "$work/ca.pem" -purpose any -out /dev/null 2>&1)
    echo "openssl cms -verify (application's signature through the user's store): $result"
    [[ $result == *"Verification successful"* ]] || fail "the application's CMS signature does not verify"
}

install_dependencies
build_programs
show_dlls
start_wine
create_soft_token
make_certificate
register_provider
sign_through_cryptoapi
sign_through_cng
propagate_certificates
sign_as_application
verify_with_openssl
step "Done: signed through CryptoAPI, CNG and the user's certificate store on the soft token, verified by OpenSSL"
