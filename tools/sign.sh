#!/usr/bin/env bash
# Authenticode signatures for what ships, with osslsigncode (Debian package osslsigncode).
#   tools/sign.sh <file or folder>...                  signs, in place, every .exe, .dll and .msi named
#                                                      or lying directly in a named folder
#   tools/sign.sh --verify <CA.pem> <file or folder>... checks each such file's signature against
#                                                      that certificate; prints "ok"/"FAIL" per file
#   tools/sign.sh --identity                           one line naming the certificate that would sign
#                                                      (its file and digest), or "unsigned"
# The certificate comes from the environment:
#   CALYTH_SIGN_PKCS12         the PKCS #12 file with the code-signing certificate and its key
#   CALYTH_SIGN_PASSWORD       its password (may be empty)
#   CALYTH_SIGN_TIMESTAMP_URL  optional: an RFC 3161 timestamp server, so that signatures outlive
#                              the certificate
# Without CALYTH_SIGN_PKCS12 nothing is signed and the script says so: an unsigned build for
# development. A file signed before gets its signature replaced.
set -euo pipefail

usage() { sed -n 's/^#   tools\/sign.sh/usage: tools\/sign.sh/p' "$0" >&2; exit 2; }

files_of() { # files_of <file or folder>...: the signable files, one a line
    local item
    for item in "$@"; do
        if [ -d "$item" ]; then
            find "$item" -maxdepth 1 -type f \( -iname '*.exe' -o -iname '*.dll' -o -iname '*.msi' \) | sort
        elif [ -f "$item" ]; then
            echo "$item"
        else
            echo "sign: no such file or folder: $item" >&2
            return 1
        fi
    done
}

need_osslsigncode() {
    command -v osslsigncode >/dev/null || {
        echo "sign: osslsigncode is not installed (Debian package osslsigncode; tools/install-deps.sh installs it)" >&2
        exit 1
    }
}

verify() { # verify <CA.pem> <file or folder>...
    local ca=$1 file failures=0 count=0
    shift
    need_osslsigncode
    while read -r file; do
        count=$((count + 1))
        if osslsigncode verify -CAfile "$ca" -in "$file" >/dev/null 2>&1; then
            echo "ok    signed: $file"
        else
            echo "FAIL  signed: $file"
            failures=$((failures + 1))
        fi
    done < <(files_of "$@")
    [ "$count" -gt 0 ] || { echo "sign: nothing to verify in $*" >&2; return 1; }
    [ "$failures" -eq 0 ]
}

sign() { # sign <file or folder>...
    local file files temporary
    mapfile -t files < <(files_of "$@")
    if [ -z "${CALYTH_SIGN_PKCS12:-}" ]; then
        echo "sign: unsigned build: CALYTH_SIGN_PKCS12 is not set; ${#files[@]} files left unsigned"
        return 0
    fi
    need_osslsigncode
    [ -r "$CALYTH_SIGN_PKCS12" ] || { echo "sign: cannot read CALYTH_SIGN_PKCS12=$CALYTH_SIGN_PKCS12" >&2; exit 1; }
    local options=(-pkcs12 "$CALYTH_SIGN_PKCS12" -h sha256 -n "Calyth Cryptographic Provider")
    # A password goes through standard input, not the command line that ps shows.
    if [ -n "${CALYTH_SIGN_PASSWORD:-}" ]; then options+=(-readpass -); else options+=(-pass ""); fi
    [ -z "${CALYTH_SIGN_TIMESTAMP_URL:-}" ] || options+=(-ts "$CALYTH_SIGN_TIMESTAMP_URL")
    for file in "${files[@]}"; do
        # osslsigncode writes a new file; a file it signed before gets a fresh signature.
        temporary=$file.signing
        rm -f "$temporary"
        if ! printf '%s' "${CALYTH_SIGN_PASSWORD:-}" |
            osslsigncode sign "${options[@]}" -in "$file" -out "$temporary" >/dev/null 2>"$temporary.log"; then
            echo "sign: signing $file failed:" >&2
            cat "$temporary.log" >&2
            rm -f "$temporary" "$temporary.log"
            exit 1
        fi
        rm -f "$temporary.log"
        mv -f "$temporary" "$file"
    done
    echo "sign: signed ${#files[@]} files with $(basename "$CALYTH_SIGN_PKCS12")"
}

identity() {
    if [ -z "${CALYTH_SIGN_PKCS12:-}" ]; then
        echo unsigned
    else
        echo "pkcs12 $(realpath "$CALYTH_SIGN_PKCS12") $(sha256sum <"$CALYTH_SIGN_PKCS12" | cut -d' ' -f1)" \
            "timestamp ${CALYTH_SIGN_TIMESTAMP_URL:-none}"
    fi
}

[ $# -gt 0 ] || usage
if [ "$1" = --identity ]; then
    identity
elif [ "$1" = --verify ]; then
    [ $# -ge 3 ] || usage
    shift
    verify "$@"
else
    sign "$@"
fi
