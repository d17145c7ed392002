#!/usr/bin/env bash
# Points the Delay Import entry of a PE file's data directory at the delay-import descriptors that
# dlltool's delay-import libraries put into the image: GNU ld links them but leaves the entry empty,
# so without this the delay-loaded DLLs are invisible to every tool that reads the headers.
#   set-delay-import-directory.sh <image> <nm> <objdump>
set -euo pipefail
image=$1 nm=$2 objdump=$3

base=$("$objdump" -p "$image" | awk '$1 == "ImageBase" { print $2 }')
# One 32-byte descriptor per delay-loaded DLL, each its own symbol; they sit side by side only when
# there is one, which is all this project needs.
descriptors=$("$nm" "$image" | awk '$3 ~ /^_*__DELAY_IMPORT_DESCRIPTOR_/ { print $1 }' | sort -u)
count=$(printf '%s\n' "$descriptors" | grep -c . || true)
if [ "$count" -ne 1 ]; then
    echo "set-delay-import-directory: $image has $count delay-import descriptors, expected 1" >&2
    exit 1
fi
rva=$(( 0x$descriptors - 0x$base ))
size=32

le32() { printf "\\\\x%02x\\\\x%02x\\\\x%02x\\\\x%02x" $(( $1 & 255 )) $(( ($1 >> 8) & 255 )) \
    $(( ($1 >> 16) & 255 )) $(( ($1 >> 24) & 255 )); }
number() { od -An -t "$1" -j "$2" -N "$3" "$image" | tr -d ' '; }

pe=$(number u4 60 4)
magic=$(number x2 $(( pe + 24 )) 2)
case $magic in
    020b) directories=$(( pe + 24 + 112 )) ;;  # PE32+
    010b) directories=$(( pe + 24 + 96 )) ;;   # PE32
    *) echo "set-delay-import-directory: $image is not a PE image" >&2; exit 1 ;;
esac
entry=$(( directories + 13 * 8 ))  # IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT
printf "$(le32 $rva)$(le32 $size)" | dd of="$image" bs=1 seek="$entry" conv=notrunc status=none
