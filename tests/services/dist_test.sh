#!/bin/bash
# The archive of the sources: named by the version that the change log says, with every
# file of the commit, and the same octets from another clone at another time.
# usage: dist_test.sh SOURCE_DIR
set -euo pipefail
source_dir=$1
git -C "$source_dir" rev-parse --verify --quiet HEAD >/dev/null || {
    echo "this is no clone"
    exit 77
}
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

# A clone without what is not committed here.
git clone --quiet --shared "$source_dir" "$scratch/clone"
first=$(umask 077 && TZ=Asia/Tokyo "$scratch/clone/tools/dist" "$scratch/first")
version=$(sed -n 's/^## \([0-9.]*\) - .*/\1/p' "$scratch/clone/CHANGELOG.md" | head -n 1)
[[ $first == "$scratch/first/kavplat-$version.tar.gz" ]] || { echo "it is named $first"; exit 1; }
touch "$scratch/clone/README.md"
second=$(umask 000 && "$scratch/clone/tools/dist" "$scratch/second")
cmp "$first" "$second"

tar -xzf "$first" -C "$scratch"
(cd -- "$scratch/clone" && git ls-files | sort) >"$scratch/committed"
(cd -- "$scratch/kavplat-$version" && find . ! -type d -printf '%P\n' | sort) >"$scratch/packed"
diff "$scratch/committed" "$scratch/packed"

status=0
"$scratch/kavplat-$version/tools/dist" "$scratch/third" 2>"$scratch/said" || status=$?
if [[ $status -ne 1 ]] || ! grep -q 'is no clone' "$scratch/said"; then
    echo "outside of a clone it ends with $status:"
    cat "$scratch/said"
    exit 1
fi
echo "$(wc -l <"$scratch/packed") files"
