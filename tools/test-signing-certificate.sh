#!/usr/bin/env bash
# A throw-away code-signing certificate for CI and for trying the signing path by hand: a
# self-signed RSA-3072 certificate with extendedKeyUsage=codeSigning, valid for 2 days, its key in
# a PKCS #12 file under a random password. Prints the environment that tools/sign.sh and
# tools/package-tests.sh read, for eval:
#   eval "$(tools/test-signing-certificate.sh build-ci/signing)"
# Never a release certificate: nothing trusts it but a check that is given it as its CA.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: tools/test-signing-certificate.sh <folder>" >&2; exit 2; }
mkdir -p "$1"
folder=$(realpath "$1")
umask 077
cat >"$folder/codesign.cnf" <<'CONF'
[req]
distinguished_name = subject
x509_extensions = codesign
prompt = no
[subject]
CN = Calyth CI throw-away code signing
O = Quorvik Labs (test only)
[codesign]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = codeSigning
subjectKeyIdentifier = hash
CONF
openssl rand -hex 16 >"$folder/password"
openssl req -x509 -newkey rsa:3072 -nodes -days 2 -config "$folder/codesign.cnf" \
    -keyout "$folder/codesign.key" -out "$folder/codesign.pem" 2>/dev/null
openssl pkcs12 -export -name "Calyth CI" -inkey "$folder/codesign.key" -in "$folder/codesign.pem" \
    -out "$folder/codesign.p12" -passout "file:$folder/password"
rm -f "$folder/codesign.key"
printf 'export CALYTH_SIGN_PKCS12=%q CALYTH_SIGN_PASSWORD=%q CALYTH_SIGN_CA=%q\n' \
    "$folder/codesign.p12" "$(cat "$folder/password")" "$folder/codesign.pem"
