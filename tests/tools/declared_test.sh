#!/bin/bash
# Fails when a public header declares a function that no library exports. GCC
# writes down every function that a translation unit declares, and where.
# usage: declared_test.sh GCC SOURCE_DIR PROGRAM_WITH_ALL_HEADERS LIST...
set -euo pipefail
export LC_ALL=C

compiler=$1 source_dir=$2 program=$3
shift 3
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

"$compiler" -I"$source_dir" -I"$source_dir/src" -fsyntax-only \
    -aux-info "$scratch/declared" -x c "$program"
sed -n "s,^/\* $source_dir/[^ ]* \*/ extern .*[ *]\([A-Za-z_0-9]*\) (.*,\1,p" "$scratch/declared" |
    sort -u >"$scratch/ours"
if [[ $(wc -l <"$scratch/ours") -lt 50 ]]; then
    echo "only $(wc -l <"$scratch/ours") declarations were found, that cannot be all"
    exit 1
fi
undefined=$(comm -23 "$scratch/ours" <(sort -u "$@"))
if [[ -n $undefined ]]; then
    printf 'declared in a public header, but not exported:\n%s\n' "$undefined"
    exit 1
fi
echo "$(wc -l <"$scratch/ours") functions, all exported"
