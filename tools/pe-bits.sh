#!/bin/sh
# Prints 32 or 64: the bitness of a Windows DLL or program (its PE header's machine field).
#   tools/pe-bits.sh <file>
set -eu
header=$(od -An -tu4 -j60 -N4 "$1" | tr -d ' ')
machine=$(od -An -tx2 -j$((header + 4)) -N2 "$1" | tr -d ' ')
case "$machine" in
014c) echo 32 ;;
8664) echo 64 ;;
*)
    echo "pe-bits: $1: unknown machine $machine" >&2
    exit 1
    ;;
esac
