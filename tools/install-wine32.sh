#!/usr/bin/env bash
# Debian's wine32 (Wine's 32-bit side, through i386 multiarch), which the 32-bit test programs and
# the installer test need. Called by tools/install-deps.sh; never asks a question.
#   1. dpkg --add-architecture i386, apt-get update, apt-get install wine32:i386;
#   2. when that fails: the mirror's security suite can lack its i386 index (or give one of the
#      wrong size), and an amd64 library installed from the security suite then has no i386 twin
#      at its version, which a Multi-Arch: same library needs. wine32 then comes from the release
#      itself (-t <codename>), with each such amd64 library, and the installed packages built
#      with it at its version, moved to the newest version that both architectures have;
#   3. when that fails too: a warning, and the i386 architecture is taken away again (with any
#      i386 package a broken attempt left) when this script added it. Exit status 1.
# CALYTH_APT_SIMULATE=1: apt-get -s only; nothing is changed (with APT_CONFIG naming another
# dpkg status file, this is how the recipe is checked on a machine that has wine32 already).
set -euo pipefail

simulate=${CALYTH_APT_SIMULATE:-0}
sudo=()
[ "$(id -u)" -eq 0 ] || [ "$simulate" = 1 ] || sudo=(sudo)
apt_get=("${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -y -q -o Dpkg::Options::=--force-confdef
    -o Dpkg::Options::=--force-confold)
[ "$simulate" = 1 ] && apt_get+=(-s)

say() { echo "install-wine32: $*" >&2; }

# apt-cache answers slowly on a busy machine: each question below covers many packages at once.
installed_versions() { # installed_versions <package>...: "name version" of each installed one
    apt-cache policy "$@" 2>/dev/null | awk '/^[^ ]/ { name = $1; sub(/:$/, "", name); sub(/:amd64$/, "", name) }
        $1 == "Installed:" && $2 != "(none)" { print name, $2 }'
}

offered_versions() { # offered_versions <package>...: "name arch version" of every version the archive offers
    apt-cache madison "$@" 2>/dev/null | awk -F'|' '{ gsub(/ /, "", $1); gsub(/ /, "", $2)
        arch = $1 ~ /:i386$/ ? "i386" : "amd64"; sub(/:[a-z0-9]+$/, "", $1); print $1, arch, $2 }'
}

change() { # change <command...>: runs it, or only says it in simulation
    if [ "$simulate" = 1 ]; then say "would run: $*"; else "${sudo[@]}" "$@"; fi
}

# The amd64 packages that wine32's i386 packages need at a version of both architectures, as
# "name=version" arguments for apt-get, one a line.
matching_amd64_versions() {
    local closure installed offered name version target reverse pending=() reverses seen=" "
    mapfile -t closure < <(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts \
        --no-breaks --no-replaces --no-enhances wine32:i386 2>/dev/null | sed -n 's/^\([^ <][^ ]*\):i386$/\1/p' | sort -u)
    [ ${#closure[@]} -gt 0 ] || return 1
    installed=$(installed_versions "${closure[@]/%/:amd64}")
    offered=$(offered_versions "${closure[@]/%/:i386}" "${closure[@]/%/:amd64}")
    # Only a Multi-Arch: same package must be at one version on both architectures.
    local mismatched same=""
    mismatched=$(while read -r name version; do
        [ -z "$name" ] || grep -qxF "$name i386 $version" <<<"$offered" || echo "$name:amd64=$version"
    done <<<"$installed")
    if [ -n "$mismatched" ]; then
        # shellcheck disable=SC2086 # one "name:amd64=version" word per line
        same=$(apt-cache show $mismatched 2>/dev/null |
            awk '$1 == "Package:" { name = $2 } $1 == "Multi-Arch:" && $2 == "same" { print name }' | sort -u)
    fi
    while read -r name version; do
        [ -n "$name" ] && grep -qxF "$name" <<<"$same" || continue
        # The newest i386 version that amd64 also has (madison lists the newest first).
        target=$(awk -v name="$name" '$1 == name && $2 == "amd64" { amd64[$3] = 1 }
            $1 == name && $2 == "i386" { i386[++n] = $3 }
            END { for (i = 1; i <= n; i++) if (i386[i] in amd64) { print i386[i]; exit } }' <<<"$offered")
        if [ -z "$target" ]; then
            say "$name: no version is offered for both amd64 and i386"
            return 1
        fi
        pending+=("$name $version $target")
    done <<<"$installed"
    # Installed packages of the same build (same version) that depend on a moved one move with it.
    while [ ${#pending[@]} -gt 0 ]; do
        read -r name version target <<<"${pending[0]}"
        pending=("${pending[@]:1}")
        case $seen in *" $name "*) continue ;; esac
        seen+="$name "
        echo "$name=$target"
        mapfile -t reverses < <(apt-cache rdepends --installed "$name:amd64" 2>/dev/null |
            sed -n 's/^  *\([^ :]*\)\(:amd64\)\{0,1\}$/\1/p' | sort -u)
        [ ${#reverses[@]} -gt 0 ] || continue
        local reverse_installed reverse_offered
        reverse_installed=$(installed_versions "${reverses[@]/%/:amd64}")
        reverse_offered=$(offered_versions "${reverses[@]/%/:amd64}")
        for reverse in "${reverses[@]}"; do
            grep -qxF "$reverse $version" <<<"$reverse_installed" || continue
            grep -qxF "$reverse amd64 $target" <<<"$reverse_offered" && pending+=("$reverse $version $target")
        done
    done
}

wine32_installed() { [ -n "$(installed_versions wine32:i386)" ]; }

wine32_installed && exit 0

added=no
if ! dpkg --print-foreign-architectures | grep -qx i386; then
    change dpkg --add-architecture i386
    added=yes
fi
if [ "$simulate" != 1 ]; then
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq || say "apt-get update reported errors"
fi

say "installing wine32:i386"
if "${apt_get[@]}" install wine32:i386 </dev/null; then
    exit 0
fi

release=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
if [ -n "$release" ] && pins=$(matching_amd64_versions); then
    # shellcheck disable=SC2086 # one "name=version" word per line
    say "again from $release, with the amd64 packages it needs at i386's version: $(echo $pins)"
    # shellcheck disable=SC2086
    if "${apt_get[@]}" --allow-downgrades -t "$release" install wine32:i386 $pins </dev/null; then
        exit 0
    fi
fi

say "warning: wine32 could not be installed; 32-bit programs will not run"
if [ "$added" = yes ]; then
    leftovers=$(dpkg-query -W -f='${binary:Package} ${Status}\n' 2>/dev/null | awk '$1 ~ /:i386$/ && $NF != "not-installed" { print $1 }')
    # shellcheck disable=SC2086
    [ -z "$leftovers" ] || change env DEBIAN_FRONTEND=noninteractive apt-get purge -y -q $leftovers </dev/null || true
    change dpkg --remove-architecture i386 || true
fi
exit 1
