#!/bin/bash
# What systemd's own judge says of the units, which needs no systemd that runs: nothing.
# usage: units_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

source_dir=$1 build_dir=$2
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

# What they start stands where it was built, and is installed nowhere yet.
units=()
for unit in "$build_dir"/services/*.service; do
    name=${unit##*/}
    program=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")
    built=$(find "$build_dir/tools" -type f -name "${program##*/}" -perm -u+x)
    [[ -x $built ]] || { echo "$name starts $program, which is not built"; exit 1; }
    sed "s,^ExecStart=$program,ExecStart=$built," "$unit" >"$scratch/$name"
    units+=("$name")
done
[[ ${#units[@]} -gt 0 ]] || { echo "there are no units in $build_dir/services"; exit 1; }
# The agent's unit as Debian has it, with what is laid over it.
cp -- /lib/systemd/system/snmpd.service "$scratch/"
mkdir "$scratch/snmpd.service.d"
cp -- "$source_dir/services/snmpd.service.d.conf" "$scratch/snmpd.service.d/kavplat.conf"
units+=(snmpd.service)
# What lets the description ask a service processor over the network, as the unit and the
# documents have it.
mkdir "$scratch/kavplat-describe.service.d"
dropin=$scratch/kavplat-describe.service.d/bmc.conf
sed -n 's/^#   //p' "$scratch/kavplat-describe.service" >"$dropin"
grep -q '^IPAddressAllow=[0-9]' "$dropin" || { echo "the unit tells of no drop-in"; exit 1; }
while read -r line; do
    grep -qxF "    $line" "$source_dir/docs/this-machine.md" || { echo "the documents lack $line"; exit 1; }
done <"$dropin"

said_of() { # UNIT: pages of the manual are not installed either
    SYSTEMD_UNIT_PATH=$scratch: systemd-analyze verify --man=no --recursive-errors=no "$scratch/$1" 2>&1
}
for unit in "${units[@]}"; do
    status=0
    said=$(said_of "$unit") || status=$?
    if [[ $status -ne 0 || -n $said ]]; then
        printf '%s: status %s, %s\n' "$unit" "$status" "$said"
        exit 1
    fi
done

# It would tell: in what is laid over, and in a unit.
echo 'KillSignal=SIGKIL' >>"$scratch/snmpd.service.d/kavplat.conf"
sed -i 's/^\[Service\]/&\nNoSuchKey=1/' "$scratch/${units[0]}"
for unit in snmpd.service "${units[0]}"; do
    [[ -n $(said_of "$unit") ]] || { echo "a fault in $unit goes unseen"; exit 1; }
done

# They may do no more than they need, by systemd's own measure of 0 to 100.
exposed() { # UNIT MOST
    systemd-analyze --no-pager security --offline=yes --threshold="$2" "$scratch/$1" >"$scratch/said" 2>&1 || {
        grep '✗' "$scratch/said"
        exit 1
    }
}
exposed kavplatd.service 10
# Root, but without any of root's powers; changes are told in the host's own network.
exposed kavplat-describe.service 20
echo "${#units[@]} units"
