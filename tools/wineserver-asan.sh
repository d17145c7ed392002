#!/bin/sh
# Builds Wine's server from Debian's source of the installed Wine (same version, same patches) with
# AddressSanitizer, and prints a folder to put first on PATH: tests/wine-env.sh then starts that
# server for the run, and any memory error of the server is reported with its stack in
# <out>/asan-report.<pid> instead of a crash now and then.
#   tools/wineserver-asan.sh [out-folder]          (default: build/wineserver-asan)
#   PATH=$(tools/wineserver-asan.sh):$PATH ctest --preset default
# Needs a deb-src entry for Debian's main archive; installs dpkg-dev, autoconf, bison and flex.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$root/build/wineserver-asan}
mkdir -p "$out"
out=$(cd "$out" && pwd)
if [ -x "$out/bin/wineserver" ] && [ -x "$out/wineserver64" ]; then
    echo "$out/bin"
    exit 0
fi
version=$(dpkg-query -W -f '${Version}' wine64)
log=$out/build.log
: >"$log"
missing=""
for tool in dpkg-source:dpkg-dev autoreconf:autoconf bison:bison flex:flex; do
    command -v "${tool%%:*}" >/dev/null 2>&1 || missing="$missing ${tool#*:}"
done
if [ -n "$missing" ]; then
    apt-get install -y $missing >>"$log" 2>&1
fi
source_dir=$out/source
if [ ! -d "$source_dir/server" ]; then
    (cd "$out" && apt-get source --download-only "wine=$version") >>"$log" 2>&1 || {
        echo "wineserver-asan: cannot fetch the source of wine $version (is there a deb-src entry?)" >&2
        exit 1
    }
    dpkg-source -x "$out"/wine_*.dsc "$source_dir" >>"$log" 2>&1
fi
cd "$source_dir"
if [ ! -f include/config.h ]; then
    # Debian generates the request tables before configure; only config.h is needed afterwards
    # (configure stops later at the makefiles of parts removed from the repacked source).
    ./debian/scripts/generate server/trace.generated make_requests >>"$log" 2>&1
    ./debian/scripts/generate server/request.generated make_requests >>"$log" 2>&1
    ./tools/make_requests >>"$log" 2>&1
    ln -sf /usr/share/misc/config.sub tools
    ln -sf /usr/share/misc/config.guess tools
    autoreconf -f >>"$log" 2>&1
    ./configure --enable-win64 --without-x --without-freetype --without-mingw --disable-tests \
        --without-gnutls --without-vulkan --without-opengl >>"$log" 2>&1 || true
    [ -f include/config.h ] || {
        echo "wineserver-asan: configure made no include/config.h; see $log" >&2
        exit 1
    }
fi
sources=$(sed -n '/^C_SRCS/,/^$/p' server/Makefile.in | grep '\.c' | tr -d '\\\t ' | sed 's|^|server/|')
# shellcheck disable=SC2086
gcc -g -O1 -fsanitize=address -fno-omit-frame-pointer -Iserver -Iinclude -D__WINESRC__ -D_GNU_SOURCE \
    -DNLSDIR='"/usr/share/wine/nls"' -DBIN_TO_NLSDIR='"../../share/wine/nls"' -DBINDIR='"/usr/lib/wine"' \
    -Wno-format $sources -o "$out/wineserver64" -lrt -lm >>"$log" 2>&1
mkdir -p "$out/bin"
cat >"$out/bin/wineserver" <<EOF
#!/bin/sh
# Wine's server built with AddressSanitizer by tools/wineserver-asan.sh.
export ASAN_OPTIONS=detect_leaks=0:log_path=$out/asan-report
exec $out/wineserver64 -p0 "\$@"
EOF
chmod +x "$out/bin/wineserver"
echo "$out/bin"
