#!/usr/bin/env bash
# Release build and installer, both bitnesses, tested under Wine (longer than tools/run-tests.sh):
#   1. the 32-bit build (preset i686): its CryptoAPI system tests and the registration-script
#      test under Wine's 32-bit side, then its stripped DLLs (stage);
#   2. the 64-bit release build (preset release): stripped binaries with .debug files, the
#      installer CalythSetup-<version>-x64.msi and the previous version's package;
#   3. tests/system/package/msi_test.sh: install, sign, upgrade, sign, uninstall in a fresh prefix.
# Without Debian's wine32 the 32-bit programs cannot run: step 1 then only builds, and says so.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=${CALYTH_BUILD_JOBS:-$(nproc)}

CALYTH_WITH_WINE32=1 tools/install-deps.sh
wine32=yes
dpkg-query -W -f='${Status}' wine32:i386 2>/dev/null | grep -q "install ok installed" || wine32=no

cmake --preset i686 >/dev/null
cmake --build --preset i686 --parallel "$jobs" --target stage calyth-sign \
    $([ "$wine32" = yes ] && echo all)
if [ "$wine32" = yes ]; then
    ctest --preset i686 -R 'cryptoapi_'
else
    echo "package-tests: wine32 is not installed: the 32-bit tests are not run" >&2
fi

cmake --preset release >/dev/null
cmake --build --preset release --parallel "$jobs" --target msi msi-previous calyth-sign
version=$(sed -n 's/^project(CalythCSP VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
ls -l build-release/stage build-i686/stage
signer32=()
[ "$wine32" = yes ] && signer32=("$root/build-i686/bin/calyth-sign.exe")
tests/system/package/msi_test.sh "build-release/CalythSetup-$version-x64.msi" \
    "build-release/package-test/CalythSetup-0.9.0-x64.msi" "$version" build-release/bin/calyth-sign.exe \
    build-release/package-test/run "${signer32[@]}"
