#!/usr/bin/env bash
# Installs the Debian packages that the build and the tests need, and only those that are missing:
# nothing is downloaded (not even the package lists) when everything is there already.
# Works as root without sudo, or through sudo for another user; never asks a question.
set -euo pipefail

packages=(
    cmake ninja-build                                    # build
    g++-mingw-w64-x86-64-posix mingw-w64-tools           # cross compiler, windres, dlltool
    libgcrypt-mingw-w64-dev                              # the soft token's cryptography
    wine wine64                                          # Windows under test ("wine" holds the wine command)
    xvfb xauth                                           # a display for the dialog tests
    googletest                                           # test framework sources
    openssl                                              # independent checks of keys and signatures
    g++-mingw-w64-i686-posix                             # the 32-bit build (preset i686)
    wixl msitools osslsigncode                           # the installer, its contents, signatures
    ccache clang-format                                  # faster rebuilds, formatting
    clang libfuzzer-14-dev llvm libgcrypt20-dev          # native fuzz targets (tools/fuzz.sh)
    clang-tidy                                           # static analysis (tools/analyse.sh); clang: tools/ci-checks.sh
)

installed() {
    [ "$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null)" = "install ok installed" ]
}

missing=()
for package in "${packages[@]}"; do
    installed "$package" || missing+=("$package")
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "install-deps: all ${#packages[@]} packages present"
else
    sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        sudo=(sudo)
    fi
    echo "install-deps: installing ${missing[*]}"
    # A list the mirror cannot give (its i386 security index, say) fails the update but not the rest.
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq ||
        echo "install-deps: warning: apt-get update reported errors" >&2
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
        -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold "${missing[@]}" </dev/null
fi

# Debian's wine32 for the 32-bit programs, last, since it may have to move amd64 libraries that the
# packages above brought (tools/install-wine32.sh). CALYTH_WITH_WINE32=0 leaves it out. Without it
# the 32-bit tests are reported as not run: a warning here, not a failure.
if [ "${CALYTH_WITH_WINE32:-1}" = 1 ] && ! installed wine32:i386; then
    "$(dirname "$0")/install-wine32.sh" ||
        echo "install-deps: warning: wine32 is not installed; the 32-bit tests will be reported as not run" >&2
fi
