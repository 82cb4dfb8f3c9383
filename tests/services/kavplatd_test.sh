#!/bin/bash
# kavplatd beside a real master agent: what the master then serves is what an agent with
# the modules in it serves, octet by octet; a master that is killed under load is found
# again, with every row; the end of kavplatd is the end of no snmpd.
# usage: kavplatd_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
# shellcheck source=tests/harness/inside.sh
source "${BASH_SOURCE[0]%/*}/../harness/inside.sh"

source_dir=$1 build_dir=$2
module=$build_dir/src/libPlatformMIB.so
fail() {
    printf '%s\n' "$@" >&2
    tail -n 20 -- "$scratch"/*.log >&2
    exit 1
}
export MIBS='' SNMPCONFPATH=$scratch/nothing KAVPLAT_DESCRIPTION=$source_dir/servers/rack-2u.json

loaded_port=$(free_port)
{
    echo 'rocommunity public 127.0.0.1'
    sed -n "s,^\(dlmod [A-Za-z]* \).*,\1$module,p" "$source_dir/examples/snmpd.conf.in"
} >"$scratch/loaded.conf"
SNMP_PERSISTENT_DIR=$scratch/loaded-state snmpd -f -Le -I -smux -C -c "$scratch/loaded.conf" \
    "udp:127.0.0.1:$loaded_port" >"$scratch/loaded.log" 2>&1 &

master_port=$(free_port)
# The second agent stands for one that is none of kavplatd's business.
printf 'rocommunity public 127.0.0.1\nmaster agentx\nagentXSocket %s\n' "$scratch/master" >"$scratch/master.conf"
start_master() {
    SNMP_PERSISTENT_DIR=$scratch/master-state snmpd -f -Le -I -smux -C -c "$scratch/master.conf" \
        "udp:127.0.0.1:$master_port" >>"$scratch/master.log" 2>&1 &
    master=$!
}
start_master
"$build_dir/tools/kavplatd/kavplatd" -x "$scratch/master" >"$scratch/kavplatd.log" 2>&1 &
kavplatd=$!

# Everything but what tells when the agent began: times, and when states last changed.
subtrees=(1.3.6.1.2.1.47 1.3.6.1.2.1.99 1.3.6.1.4.1.58213.2.70.101.1.1)
[[ $(grep -c '^dlmod entityStateMIB' "$source_dir/examples/snmpd.conf.in") -eq 0 ]] ||
    subtrees+=(1.3.6.1.2.1.131)
walk() { # PORT
    local subtree
    for subtree in "${subtrees[@]}"; do
        snmpbulkwalk -v2c -c public -t 5 -r 1 -Onx "127.0.0.1:$1" "$subtree" 2>/dev/null || return 1
    done | grep -v -e ' = Timeticks: ' -e '^\.1\.3\.6\.1\.2\.1\.131\.1\.1\.1\.1\.' -e '^\.1\.3\.6\.1\.4\.1\.58213\.2\.70\.101\.1\.1\.1\.1\.0 '
}
rows() { # PORT: how many names there are
    snmpbulkwalk -v2c -c public -t 1 -r 0 -Cr50 -On "127.0.0.1:$1" 1.3.6.1.2.1.47.1.1.1.1.7 2>/dev/null |
        grep -c '^\.1\.3\.6\.1\.2\.1\.47\.1\.1\.1\.1\.7\..*STRING' || true
}
is_whole() { # PORT
    [[ $(rows "$1") -eq 412 ]]
}
until_so 'the agent with the modules in it serves 412 rows' is_whole "$loaded_port"
until_so 'the master serves 412 rows' is_whole "$master_port"
same() {
    walk "$master_port" >"$scratch/master.walk" && walk "$loaded_port" >"$scratch/loaded.walk" &&
        cmp -s "$scratch/master.walk" "$scratch/loaded.walk"
}
until_so 'both serve the same' same ||
    fail "the walks differ:" "$(diff "$scratch/loaded.walk" "$scratch/master.walk" | head -n 10)"
lines=$(wc -l <"$scratch/master.walk")
[[ $lines -gt 9000 ]] || fail "the walk has only $lines lines"

# The master dies while it is asked, twice.
# shellcheck disable=SC2317 # runs in the background
ask_for_ever() {
    while :; do
        snmpbulkwalk -v2c -c public -t 1 -r 0 -On "127.0.0.1:$master_port" 1.3.6.1.2.1.47 >/dev/null 2>&1 || true
    done
}
ask_for_ever &
asking=$!
for round in 1 2; do
    kill -KILL "$master"
    wait "$master" 2>/dev/null || true
    kill -0 "$kavplatd" 2>/dev/null || fail "kavplatd ended with its master in round $round"
    start_master
    began=$EPOCHREALTIME
    until_so "round $round: 412 rows again" is_whole "$master_port"
    echo "round $round: found again after $(perl -e "printf '%.1f', $EPOCHREALTIME - $began") s"
done
kill "$asking"
wait "$asking" 2>/dev/null || true
until_so 'both serve the same after the master was lost' same

# It is told to end. Nobody else is.
kill -TERM "$kavplatd"
status=0
wait "$kavplatd" || status=$?
[[ $status -eq 0 ]] || fail "kavplatd ended with $status"
has_none() { [[ $(rows "$master_port") -eq 0 ]]; }
until_so 'the rows are gone from the master' has_none
kill -0 "$master" || fail "the master ended with kavplatd"
is_whole "$loaded_port" || fail "the other agent ended with kavplatd"

# What it says of itself, and how it refuses.
"$build_dir/tools/kavplatd/kavplatd" --help | grep -q '^Example: ' || fail "--help shows no example"
for wrong in -Z stray; do
    status=0
    "$build_dir/tools/kavplatd/kavplatd" $wrong >/dev/null 2>&1 || status=$?
    [[ $status -eq 2 ]] || fail "kavplatd $wrong ended with $status"
done

# As a service manager sees it: ready, alive, ending.
cat >"$scratch/manager.py" <<'PYTHON'
import os, signal, socket, subprocess, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind("\0kavplat-test-%d" % os.getpid())
s.settimeout(30)
child = subprocess.Popen(sys.argv[1:], stderr=subprocess.DEVNULL, env=dict(
    os.environ, NOTIFY_SOCKET="@kavplat-test-%d" % os.getpid(), WATCHDOG_USEC="1000000"))
said = [s.recv(99).decode() for _ in range(3)]
child.send_signal(signal.SIGTERM)
while said[-1] != "STOPPING=1":
    said.append(s.recv(99).decode())
sys.exit(said[0] != "READY=1" or said[1:3] != ["WATCHDOG=1"] * 2 or child.wait(30) != 0)
PYTHON
python3 "$scratch/manager.py" "$build_dir/tools/kavplatd/kavplatd" -x "$scratch/master" ||
    fail "the service manager was not told READY, WATCHDOG, STOPPING in this order"
echo "$lines variables, the same by both ways"
