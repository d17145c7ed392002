#!/usr/bin/env bash
# The main job, end to end: install what is missing, build the DLLs, and show them.
# The steps marked "later" complete the job as the provider grows: create a soft token, sign a
# file through CryptoAPI with "Calyth Cryptographic Provider CSP", verify the signature with
# OpenSSL. Each step is one function below; a step whose tools are not built yet says so and the
# job goes on.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=$root/build
work=$build/main-job

step() { printf '\n== %s\n' "$*"; }

has_target() {
    cmake --build "$build" --target help 2>/dev/null | grep -q "^$1:"
}

install_dependencies() {
    step "Dependencies"
    tools/install-deps.sh
}

build_dlls() {
    step "Build"
    cmake --preset default >/dev/null
    local targets=(CalythCSP)
    if has_target CalythDSCLibrary; then
        targets+=(CalythDSCLibrary)
    fi
    cmake --build --preset default --target "${targets[@]}"
}

show_dlls() {
    step "DLLs"
    local dll
    for dll in "$build"/bin/*.dll; do
        echo "$(basename "$dll"): $(stat -c %s "$dll") bytes"
        x86_64-w64-mingw32-objdump -p "$dll" | awk '
            /^\[Ordinal\/Name Pointer\] Table/ { table = 1; next }
            table && /^[ \t]*\[/ { sub(/^[ \t]*\[ *[0-9]+\] /, ""); exports = exports " " $0; next }
            table { table = 0 }
            /DLL Name:/ { imports = imports " " $3 }
            END { print "  exports:" (exports == "" ? " (none yet)" : exports); print "  imports:" imports }'
    done
}

create_soft_token() {
    step "Soft token (later)"
    echo "not available yet: needs the soft token's set-up tool"
}

sign_through_cryptoapi() {
    step "Signature through CryptoAPI (later)"
    echo "not available yet: needs the provider's CryptoAPI entry points and a signing tool"
}

verify_with_openssl() {
    step "Verification with OpenSSL (later)"
    echo "not available yet: needs a signature from the previous step"
}

mkdir -p "$work"
install_dependencies
build_dlls
show_dlls
create_soft_token
sign_through_cryptoapi
verify_with_openssl
step "Done"
