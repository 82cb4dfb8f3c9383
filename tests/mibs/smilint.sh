#!/bin/bash
# Checks our MIB modules with smilint, at the level that reports all but style.
# usage: smilint.sh SOURCE_DIR BUILD_DIR
#
# The base modules of SMIv2 are those that tools/setup fetched.
set -euo pipefail

if [[ $# -ne 2 ]]; then
    echo "usage: ${0##*/} SOURCE_DIR BUILD_DIR" >&2
    exit 2
fi
source_dir=$(realpath -- "$1")
mkdir -p -- "$2"
build_dir=$(realpath -- "$2")

command -v smilint >/dev/null || {
    echo "smilint was not found: install smitools" >&2
    exit 1
}
base=$source_dir/build/fetched/base-modules
if [[ ! -e $base/installed-lock.json ]]; then
    echo "the base modules of SMIv2 are not in $base: run tools/setup test" >&2
    exit 1
fi

# smilint takes a module from wherever it finds one of that name, so it gets one
# directory that has each of them once.
modules=$build_dir/smilint-modules
rm -rf -- "$modules"
mkdir -p -- "$modules"
cp -- "$base"/node_modules/net-snmp/lib/mibs/SNMPv2-{SMI,TC,CONF}.mib "$modules/"
cp -- "$source_dir"/mibs/KAV-PLATFORM-{,NOTIFICATIONS-}MIB.txt \
    "$source_dir"/mibs/compact/ENTITY-{,SENSOR-,STATE-,STATE-TC-}MIB.txt \
    "$source_dir"/mibs/compact/SNMP-FRAMEWORK-MIB.txt "$modules/"
: >"$modules/smi.conf"

# Prints what smilint, given these options too, has to say of a module; its exit status
# tells nothing of warnings.
# A date in the future is one by this machine's clock, which proves nothing.
lint() {
    SMIPATH=$modules smilint -c "$modules/smi.conf" -l 6 -s -m -i date-in-future "${@:2}" "$1" 2>&1
}

failed=0
for module in KAV-PLATFORM-MIB KAV-PLATFORM-NOTIFICATIONS-MIB ENTITY-MIB ENTITY-SENSOR-MIB \
    ENTITY-STATE-TC-MIB ENTITY-STATE-MIB; do
    # A module of types is there for others to use them.
    options=()
    [[ $module != *-TC-MIB ]] || options=(-i type-unref)
    findings=$(lint "$modules/$module.txt" "${options[@]}") || failed=1
    if [[ -n $findings ]]; then
        printf '%s\n' "$findings"
        failed=1
    else
        echo "$module: nothing to report"
    fi
done

# Silence proves something only if smilint would have spoken: an object that is
# in no group is the least that it must find.
broken=$modules/broken
mkdir -p -- "$broken"
sed 's/OBJECTS     { kavPlatBatteryKind }/OBJECTS     { kavPlatFanKind }/' \
    "$modules/KAV-PLATFORM-MIB.txt" >"$broken/KAV-PLATFORM-MIB.txt"
if [[ $(lint "$broken/KAV-PLATFORM-MIB.txt") != *kavPlatBatteryKind* ]]; then
    echo "smilint did not find the object that was taken out of its group" >&2
    failed=1
fi
exit "$failed"
