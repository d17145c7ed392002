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
    ccache clang-format                                  # faster rebuilds, formatting
    clang libfuzzer-14-dev llvm libgcrypt20-dev          # native fuzz targets (tools/fuzz.sh)
    clang-tidy                                           # static analysis (tools/analyse.sh); clang: tools/ci-checks.sh
)

installed() {
    [ "$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null)" = "install ok installed" ]
}

# CALYTH_WITH_WINE32=1 (tools/package-tests.sh): also Debian's wine32 for 32-bit programs, through
# i386 multiarch. Its failure (an i386 index the mirror cannot give) is only a warning, and then
# the i386 architecture is taken away again so that later apt-get updates are not broken by it.
install_wine32() {
    installed wine32:i386 && return 0
    local added=no
    if ! dpkg --print-foreign-architectures | grep -qx i386; then
        "${sudo[@]}" dpkg --add-architecture i386
        added=yes
    fi
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq || true
    if ! "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq wine32:i386 </dev/null; then
        echo "install-deps: warning: wine32 could not be installed; 32-bit programs will not run" >&2
        [ "$added" = no ] || "${sudo[@]}" dpkg --remove-architecture i386 || true
    fi
}
if [ "${CALYTH_WITH_WINE32:-0}" = 1 ]; then
    [ "$(id -u)" -eq 0 ] && sudo=() || sudo=(sudo)
    install_wine32
fi

missing=()
for package in "${packages[@]}"; do
    installed "$package" || missing+=("$package")
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "install-deps: all ${#packages[@]} packages present"
    exit 0
fi

sudo=()
if [ "$(id -u)" -ne 0 ]; then
    sudo=(sudo)
fi
echo "install-deps: installing ${missing[*]}"
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
    -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold "${missing[@]}" </dev/null
