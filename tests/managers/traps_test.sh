#!/bin/bash
# The files for receivers of traps against the programs that read them: of each
# notification that our modules define, and of what snmpd's own monitor fires by our
# lines, snmptrapd prints a line with names, and snmptt makes an event with a severity.
# usage: traps_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
# shellcheck source=tests/harness/inside.sh
source "${BASH_SOURCE[0]%/*}/../harness/inside.sh"

source_dir=$1 build_dir=$2
files=$source_dir/managers module=$build_dir/src/libPlatformMIB.so
fail() {
    printf '%s\n' "$@" >&2
    tail -n 40 -- "$scratch"/*.log >&2
    exit 1
}
says() { grep -qsE -e "$2" -- "$scratch/$1"; } # LOG PATTERN
export MIBDIRS=$source_dir/mibs:$source_dir/mibs/compact SNMPCONFPATH=$scratch/nothing SNMP_PERSISTENT_DIR=$scratch/state

# snmptt as Debian configures it, but for where it writes and that it is not to tell syslog.
sed -e "s,^log_file = .*,log_file = $scratch/snmptt.log," \
    -e "s,^unknown_trap_log_file = .*,unknown_trap_log_file = $scratch/unknown.log," \
    -e 's,^unknown_trap_log_enable = .*,unknown_trap_log_enable = 1,; s,^\(syslog\(_system\)\?_enable\) = .*,\1 = 0,' \
    -e "s,^/etc/snmp\(tt\)\?/snmptt.conf\$,$files/snmptt/snmptt.conf.kavplat," /etc/snmp/snmptt.ini >"$scratch/snmptt.ini"
grep -q "^$files/snmptt" "$scratch/snmptt.ini" || fail "snmptt.ini names no file of events"

# snmptrapd as the first lines of each file have it: once to print, once to hand over.
trapd() { # NAME FILE CONFIGURATION
    local options
    read -ra options < <(sed -n 's/^# *snmptrapd \(.* -m \S*\)$/\1/p' "$2")
    [[ ${#options[@]} -ge 2 ]] || fail "$2 does not tell how to start snmptrapd"
    MIBS='' snmptrapd -f -C -c "$3" -p "$scratch/$1.pid" "${options[@]}" -Lf "$scratch/$1.log" \
        "udp:127.0.0.1:${!1}" >"$scratch/$1.output.log" 2>&1 &
    until_so 'snmptrapd listens' says "$1.log" 'NET-SNMP version'
}
printer=$(free_port) handler=$(free_port)
trapd printer "$files/snmptrapd/snmptrapd.conf" "$files/snmptrapd/snmptrapd.conf"
printf 'authCommunity execute public\ntraphandle default %s\n' "/usr/sbin/snmptt --ini=$scratch/snmptt.ini" >"$scratch/handler.conf"
trapd handler "$files/snmptt/snmptt.conf.kavplat" "$scratch/handler.conf"

agent() { # CONFIGURATION_LINES...
    port=$(free_port)
    printf '%s\n' 'rocommunity public 127.0.0.1' "dlmod entityMIB $module" "dlmod kavPlatMIB $module" \
        "dlmod entitySensorMIB $module" "dlmod entityStateMIB $module" "$@" >"$scratch/snmpd.conf"
    KAVPLAT_DESCRIPTION=$scratch/server.json MIBS='' snmpd -f -Lf "$scratch/snmpd.log" -I -smux -C -c "$scratch/snmpd.conf" \
        "udp:127.0.0.1:$port" >>"$scratch/agent.log" 2>&1 &
    agent=$!
    until_so 'the agent has read its description' says snmpd.log 'local cache ready'
}
change() { # SED_COMMAND: renamed into place
    sed "$1" "$scratch/server.json" >"$scratch/server.new"
    ! cmp -s "$scratch/server.json" "$scratch/server.new" || fail "nothing is changed by $1"
    mv -- "$scratch/server.new" "$scratch/server.json"
}
# A line of snmptrapd, by names and with its variables, and an event of snmptt.
told() { # LINE_PATTERN EVENT_PATTERN
    until_so "snmptrapd prints $1" says printer.log "^[0-9-]{10} [0-9:]{8} localhost: [^	]*	\S+ = OID: $1"
    until_so "snmptt says $2" says snmptt.log "$2"
}

cp -- "$source_dir/servers/minimal.json" "$scratch/server.json"
agent 'kavplatWatchInterval 1' "trap2sink 127.0.0.1:$printer public" "trap2sink 127.0.0.1:$handler public"
notifications=KAV-PLATFORM-NOTIFICATIONS-MIB::
change 's/24\.5/36/'
told "${notifications}kavPlatSeverityRaised.*/SYS/MB/T_AMB.*SeverityAfter.0 = INTEGER: warning.*entPhySensorValue.3 = INTEGER: 360" \
    ' Warning "Hardware" .* /SYS/MB/T_AMB of localhost is warning, it was cleared: .* warning 360 1 degrees C 350$'
change 's/: 36/: 41/'
told "${notifications}kavPlatSeverityRaised.*SeverityAfter.0 = INTEGER: major" \
    ' Major "Hardware" .* /SYS/MB/T_AMB of localhost is major, it was warning'
change 's/: 41/: 24.5/'
told "${notifications}kavPlatSeverityCleared.*SeverityBefore.0 = INTEGER: major" \
    ' Normal "Hardware" .* of /SYS/MB/T_AMB of localhost, it was major'
change 's/"reading": 24\.5/"valid": false, "reading": 24.5/'
told 'ENTITY-STATE-MIB::entStateOperDisabled.*entStateAdmin.3 = INTEGER: unlocked' ' Critical "Hardware" .* stopped working: .*131.1.1.1.2.3:unlocked'
change 's/"valid": false, //'
told 'ENTITY-STATE-MIB::entStateOperEnabled.*entStateAdmin.3 = INTEGER: unlocked' ' Normal "Hardware" .* works again: .*131.1.1.1.2.3:unlocked'
change '/"\/SYS\/MB\/LOCATE"/d; s/^    },$/    }/'
told 'ENTITY-MIB::entConfigChange' ' Normal "Inventory" .* The inventory of localhost changed'
kill -KILL "$agent"
wait "$agent" 2>/dev/null || true

# snmpd's own monitor, in a hurry.
cp -- "$source_dir/servers/minimal.json" "$scratch/server.json"
: >"$scratch/snmpd.log"
mapfile -t lines < <(sed "s/^trap2sink .*/trap2sink 127.0.0.1:$printer public\ntrap2sink 127.0.0.1:$handler public/; s/^\(monitor .*\)-r 30 /\1-r 1 /" \
    "$files/snmpd/monitor.conf")
agent 'kavplatWatchInterval 0' "${lines[@]}"
change 's/24\.5/41/'
fired='SNMPv2-SMI::mib-2.88.2.0.1\b'
told "$fired.*\"kavplat severity\".*kavPlatEquipmentSeverity\.3\b.* INTEGER: 2\b.*entPhysicalName\.3 = STRING: /SYS/MB/T_AMB" \
    ' Critical "Hardware" .* monitor fired: .*kavplat severity.*/SYS/MB/T_AMB'
change '/"\/SYS\/MB\/LOCATE"/d; s/^    },$/    }/'
told "$fired.*\"kavplat changed\".*entLastChangeTime\.0" ' Critical "Hardware" .* monitor fired: .*kavplat changed'

# Each that is defined was asked for above.
defined=$(sed -n 's/^\(\w*\) NOTIFICATION-TYPE$/\1/p' "$source_dir"/mibs/*.txt "$source_dir"/mibs/compact/*.txt | sort)
[[ $(wc -l <<<"$defined") -ge 5 ]] || fail "only these notifications are defined: $defined"
for each in $defined; do
    grep -q "::$each\b" "$scratch/printer.log" || fail "$each was not made to be sent"
done
unknown=$(grep -E '^[A-Z].*Unknown trap \(\.1\.3\.6\.1\.(2\.1|4\.1\.58213)\.' "$scratch/unknown.log" || true)
[[ -z $unknown ]] || fail "snmptt does not know:" "$unknown"
echo "$(wc -l <<<"$defined") notifications and the monitor's: each printed, and an event"
