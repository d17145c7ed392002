#!/usr/bin/env bash
# What ships, built and tested under Wine (CI runs it after tools/run-tests.sh, through .ci/run):
#   1. i686: the 32-bit build (preset i686) and its test suite, run by Wine's 32-bit side: every
#      test of the 64-bit suite but the two that run no Windows program (fuzz_native_smoke,
#      wine_run_script_test) and doctor_test (calyth-doctor ships only 64-bit; the package test
#      runs it against both registrations). Without Debian's wine32 the build is still made and
#      every one of those tests is listed by name as not run;
#   2. release: the 64-bit release build (preset release), the stripped binaries of both builds
#      signed when a certificate is given (tools/sign.sh; CALYTH_SIGN_PKCS12, CALYTH_SIGN_PASSWORD,
#      CALYTH_SIGN_TIMESTAMP_URL), the installer CalythSetup-<version>-x64.msi and the previous
#      version's package, both signed too;
#   3. signatures: every signed .exe, .dll and .msi checked with osslsigncode against the
#      certificate in CALYTH_SIGN_CA (default: the system's CA bundle); an unsigned build says so;
#   4. package: tests/system/package/msi_test.sh, install, sign, upgrade, sign, uninstall in a fresh
#      prefix under Wine's msiexec, with the signed packages.
# The closing summary gives each stage's counts and time, the tests that did not run by name, and
# ends with the line "N passed, N failed, N skipped". Exit status 1 when anything failed.
# CALYTH_TEST_RESULTS=<file>: the results go (appended) to that file, which .ci/run sums up.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=${CALYTH_BUILD_JOBS:-$(nproc)}
# shellcheck source=tools/test-results.sh
source tools/test-results.sh
results=${CALYTH_TEST_RESULTS:-}
if [ -z "$results" ]; then
    mkdir -p build-release
    results=$root/build-release/package-tests-results.txt
    rm -f "$results"
fi

# step <stage> <name> <command...>: a build step; its failure counts as a failed test of the stage.
step() {
    "${@:3}" && return 0
    results_add "$results" failed "$1" "$2"
    return 1
}

step deps install-deps tools/install-deps.sh
wine32=yes
dpkg-query -W -f='${Status}' wine32:i386 2>/dev/null | grep -q "install ok installed" || wine32=no
version=$(sed -n 's/^project(CalythCSP VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)

echo "== i686: the 32-bit build and its tests"
started=$SECONDS
not_32_bit='^(fuzz_native_smoke|wine_run_script_test|doctor_test)$'
if step i686 build cmake --preset i686 >/dev/null &&
    step i686 build cmake --build --preset i686 --parallel "$jobs" --target all stage; then
    if [ "$wine32" = yes ]; then
        rm -f build-i686/ctest-junit.xml
        ctest --preset i686 -E "$not_32_bit" --output-junit "$root/build-i686/ctest-junit.xml"
        results_from_junit "$results" i686 build-i686/ctest-junit.xml
    else
        echo "package-tests: wine32 is not installed: the 32-bit tests are not run" >&2
        ctest --preset i686 -N -E "$not_32_bit" | sed -n 's/^ *Test *#[0-9]*: //p' | while read -r name; do
            results_add "$results" skipped i686 "$name" "(wine32 is not installed)"
        done
    fi
fi
results_time "$results" i686 $((SECONDS - started))

echo "== release: the 64-bit release build and the installers"
started=$SECONDS
release_ok=no
step release build cmake --preset release >/dev/null &&
    step release build cmake --build --preset release --parallel "$jobs" --target msi msi-previous calyth-sign &&
    release_ok=yes
msi=build-release/CalythSetup-$version-x64.msi
previous=build-release/package-test/CalythSetup-0.9.0-x64.msi
results_time "$results" release $((SECONDS - started))

echo "== signatures"
started=$SECONDS
if [ "$release_ok" = no ]; then
    :
elif [ -z "${CALYTH_SIGN_PKCS12:-}" ]; then
    echo "package-tests: unsigned build: CALYTH_SIGN_PKCS12 is not set"
    results_add "$results" skipped signatures "all" "(unsigned build: CALYTH_SIGN_PKCS12 is not set)"
else
    # Every file of both packages: the MSIs and the copies that went into them.
    while read -r outcome _ file; do
        results_add "$results" "$([ "$outcome" = ok ] && echo passed || echo failed)" signatures "$file"
    done < <(tools/sign.sh --verify "${CALYTH_SIGN_CA:-/etc/ssl/certs/ca-certificates.crt}" \
        "$msi" "${msi%.msi}-files/x64" "${msi%.msi}-files/x86" \
        "$previous" "${previous%.msi}-files/x64" "${previous%.msi}-files/x86" | tee /dev/stderr)
    # What the package carries, as msiexec will install it.
    payload=build-release/msi-payload
    rm -rf "$payload" && mkdir -p "$payload"
    if step signatures "msiextract $msi" msiextract -C "$payload" "$msi" >/dev/null; then
        mapfile -t carried < <(find "$payload" -type f \( -iname '*.exe' -o -iname '*.dll' \) | sort)
        while read -r outcome _ file; do
            results_add "$results" "$([ "$outcome" = ok ] && echo passed || echo failed)" signatures "$file"
        done < <(tools/sign.sh --verify "${CALYTH_SIGN_CA:-/etc/ssl/certs/ca-certificates.crt}" "${carried[@]}" |
            tee /dev/stderr)
    fi
fi
results_time "$results" signatures $((SECONDS - started))

echo "== package: install, upgrade and uninstall under Wine's msiexec"
started=$SECONDS
if [ "$release_ok" = yes ]; then
    signer32=()
    [ "$wine32" = yes ] && signer32=("$root/build-i686/bin/calyth-sign.exe")
    if tests/system/package/msi_test.sh "$msi" "$previous" "$version" build-release/bin/calyth-sign.exe \
        build-release/package-test/run "${signer32[@]}"; then
        results_add "$results" passed package msi_test
    else
        results_add "$results" failed package msi_test
    fi
    [ "$wine32" = yes ] || results_add "$results" skipped package "msi_test-32-bit-signature" "(wine32 is not installed)"
else
    results_add "$results" skipped package msi_test "(no installer: the release build failed)"
fi
results_time "$results" package $((SECONDS - started))

if [ -z "${CALYTH_TEST_RESULTS:-}" ]; then
    echo
    results_summary "$results"
fi
! results_failed "$results"
