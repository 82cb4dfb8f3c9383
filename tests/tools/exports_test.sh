#!/bin/bash
# Fails when a library exports anything but the names listed in a file.
# usage: exports_test.sh NM LIBRARY LIST
set -euo pipefail
export LC_ALL=C

# What instrumented builds add is none of the library.
exported=$("$1" -D --defined-only "$2" | awk '$NF !~ /^(__odr_asan\.|__gcov_|mangle_path$)/ { print $NF }' | sort)
if ! difference=$(diff <(printf '%s\n' "$exported") "$3"); then
    echo "< is exported by ${2##*/} and not listed, > is listed and not exported:"
    printf '%s\n' "$difference"
    exit 1
fi
echo "$(wc -l <"$3") names, all as listed"
