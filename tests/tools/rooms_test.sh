#!/bin/bash
# Fails when a room includes what it is not to know: a room that is not below it, or
# what another room keeps to itself (X_internal.h); and when source files of one room
# need each other in a circle.
# usage: rooms_test.sh SOURCE_DIR NM OBJECT...
set -euo pipefail
export LC_ALL=C

source_dir=$1 nm=$2
shift 2
failed=0

# What a room may include, beside itself, the tracing and the contract.
below() {
    case $1 in
    trace | hashtable) ;;
    kavdata) echo hashtable ;;
    table | monitor) echo kavdata ;;
    entityMIB) echo table monitor kavdata ;;
    kavPlatMIB) echo table kavdata ;;
    entitySensorMIB | entityStateMIB | entityMappingMIB) echo table watch kavdata ;;
    watch) echo kavdata ;;
    *) return 1 ;;
    esac
}

cd "$source_dir/src"
includes=$(grep -rno '^#include "[^"]*"' --include='*.cpp' --include='*.h' .)
if [[ $(wc -l <<<"$includes") -lt 50 ]]; then
    echo "only $(wc -l <<<"$includes") includes were found, that cannot be all"
    exit 1
fi
while IFS=: read -r file line include; do
    room=${file#./} room=${room%%/*}
    header=${include#*\"} header=${header%\"}
    allowed=" $room trace platform $(below "$room") " || {
        echo "$room: a room that this test does not know"
        exit 1
    }
    if [[ $allowed != *" ${header%%/*} "* ]]; then
        echo "src/${file#./}:$line: $room stands below ${header%%/*}, or beside it"
        failed=1
    elif [[ $header == *_internal.h && ${header%%/*} != "$room" ]]; then
        echo "src/${file#./}:$line: $header is for ${header%%/*} alone"
        failed=1
    fi
done <<<"$includes"

# Each object that needs a name and the object of its room that has it.
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
for object; do
    room=${object##*/room_} room=${room%%.dir*}
    "$nm" -P "$object" | awk -v object="$room/${object##*/}" \
        '$2 ~ /^[TDBR]$/ { print $1, object }' >>"$scratch/has"
    "$nm" -P "$object" | awk -v object="$room/${object##*/}" \
        '$2 == "U" { print $1, object }' >>"$scratch/needs"
done
sort -o "$scratch/has" "$scratch/has"
sort -o "$scratch/needs" "$scratch/needs"
join "$scratch/needs" "$scratch/has" |
    awk '{ split($2, a, "/"); split($3, b, "/"); if (a[1] == b[1] && $2 != $3) print $2, $3 }' |
    sort -u >"$scratch/edges"
if [[ $(wc -l <"$scratch/edges") -lt 10 ]]; then
    echo "only $(wc -l <"$scratch/edges") needs were found, that cannot be all"
    exit 1
fi
if ! tsort "$scratch/edges" >"$scratch/order" 2>"$scratch/circles" || [[ -s $scratch/circles ]]; then
    echo "source files that need each other:"
    sed "s,^tsort: ,,; s,^$scratch/edges: ,," "$scratch/circles"
    failed=1
fi
[[ $failed == 0 ]] && echo "$(wc -l <<<"$includes") includes, no circle"
exit $failed
