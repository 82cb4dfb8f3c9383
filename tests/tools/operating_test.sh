#!/bin/bash
# docs/operating.md's steps of "I see nothing, why?" by the commands that it tells, with an
# agent that logs as Debian's service has it log: of a server that is well each shows what
# it is told to show, and of one that is not, the log says what it is told to say.
# systemctl and journalctl are played by two commands that know this agent's process and log.
# usage: operating_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
# shellcheck source=tests/harness/inside.sh
source "${BASH_SOURCE[0]%/*}/../harness/inside.sh"

source_dir=$1 build_dir=$2
document=$source_dir/docs/operating.md
fail() {
    printf '%s\n' "$@" >&2
    cat -- "$scratch/log" >&2
    exit 1
}
port=$(free_port)
export MIBS='' SNMPCONFPATH=$scratch/nothing SNMP_PERSISTENT_DIR=$scratch/state

mkdir -- "$scratch/bin" "$scratch/kavplat"
cp -- "$build_dir/src/libPlatformMIB.so" "$scratch/kavplat/"
ln -s -- "$build_dir/tools/kavplat/kavplat" "$scratch/bin/kavplat"
printf '#!/bin/sh\necho "$@" | grep -q "MainPID snmpd" && cat %s/process\n' "$scratch" >"$scratch/bin/systemctl"
# The rights of another user are not to be had everywhere; whose they would be is dropped.
printf '#!/bin/sh\nshift 3\nexec "$@"\n' >"$scratch/bin/runuser"
chmod +x "$scratch/bin/systemctl" "$scratch/bin/runuser"
PATH=$scratch/bin:$PATH

modules=(entityMIB kavPlatMIB entitySensorMIB entityStateMIB entityMappingMIB)
agent=''
start() { # DESCRIPTION LIBRARY_OF_THE_LAST_MODULE
    [[ -z $agent ]] || { kill -KILL "$agent" && wait "$agent"; } 2>/dev/null || true
    {
        echo 'rocommunity public 127.0.0.1'
        printf "dlmod %s $scratch/kavplat/libPlatformMIB.so\n" "${modules[@]::4}"
        echo "dlmod ${modules[4]} $2"
    } >"$scratch/snmpd.conf"
    KAVPLAT_DESCRIPTION=$1 snmpd -f -LOw -I -smux -C -c "$scratch/snmpd.conf" "udp:127.0.0.1:$port" >"$scratch/log" 2>&1 &
    agent=$!
    echo "$agent" >"$scratch/process"
}
says() { [[ $(bash -c "$2" 2>&1) =~ $1 ]]; } # PATTERN COMMAND, however that ends
logs() { grep -q -e "$1" -- "$scratch/log"; }
# The first command of a step that begins so prints this.
tells() { # STEP WHAT_IT_BEGINS_WITH PATTERN
    local command
    # shellcheck disable=SC2016 # literal backquotes
    command=$(sed -n '/^## I see nothing/,/^## The log/p' "$document" | tr '\n' ' ' |
        sed "s/ \([0-9]\)\. \*\*/\n\1. **/g" | sed -n "s/^$1\. [^\`]*//p" | grep -o '`[^`]*`' | tr -d '`' |
        awk -v begin="$2" 'index($0, begin) == 1 && !n++' | grep .) || fail "step $1 has no command '$2...'"
    command=${command/COMMUNITY/public} command=${command/HOST/127.0.0.1:$port}
    until_so "step $1: '$command' says $3" says "$3" "${command//\/etc\/kavplat/$scratch}"
}
# What the log is told to say is told in that step, and said.
log_tells() { # STEP TEXT PATTERN
    sed -n '/^## I see nothing/,/^## The log/p' "$document" | tr '\n' ' ' | grep -o " $1\. \*\*.*" |
        sed "s/ $(($1 + 1))\. \*\*.*//" | grep -F -e "$2" >/dev/null || fail "step $1 does not tell of '$2'"
    until_so "step $1: the log says $3" logs "$3"
}

cp -- "$source_dir/servers/minimal.json" "$scratch/server.json"
start "$scratch/server.json" "$scratch/kavplat/libPlatformMIB.so"
tells 1 snmpget ' = Timeticks'
tells 2 snmpget ' = Timeticks'
tells 3 grep 'kavplat/libPlatformMIB\.so'
tells 4 runuser ': good'
tells 5 snmpget '"/SYS"'

echo '{' >"$scratch/server.json"
start "$scratch/server.json" "$scratch/nowhere.so"
log_tells 3 dlopen 'dlopen(.*nowhere\.so'
log_tells 4 refused 'server\.json: refused'
log_tells 5 'waited for' 'no inventory from the platform yet, waiting for it'
tells 4 runuser ': bad'
tells 5 snmpget 'No Such'
