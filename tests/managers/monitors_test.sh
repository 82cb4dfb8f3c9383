#!/bin/bash
# The files for monitors against the programs that read them, with a real agent: collectd
# writes every reading in its unit, Icinga finds the server as bad as it is described and
# tells a good component from a bad one. Nagios, where it is installed, takes its file.
# usage: monitors_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

source_dir=$1 build_dir=$2
files=$source_dir/managers
scratch=$(mktemp -d)
agent='' collectd='' icinga=''
# shellcheck disable=SC2317 # called by the trap
clean_up() {
    local pid
    for pid in $collectd $icinga $agent; do
        kill -TERM "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf -- "$scratch"
}
trap clean_up EXIT
fail() {
    printf '%s\n' "$@" >&2
    exit 1
}
PATH=$PATH:/usr/sbin:/sbin
port=$(perl -MSocket -e 'socket(my $s, PF_INET, SOCK_DGRAM, 0); bind($s, sockaddr_in(0, INADDR_LOOPBACK));
    print((sockaddr_in(getsockname($s)))[0])')
KAVPLAT_PORT=$port KAVPLAT_RUN=$scratch/run "$source_dir/tools/run-agent" "$build_dir" >"$scratch/agent.log" 2>&1 &
agent=$!
deadline=$((SECONDS + 60))
: >>"$scratch/agent.log"
until grep -q 'Ctrl-C ends it' "$scratch/agent.log"; do
    kill -0 "$agent" 2>/dev/null || fail "the agent ended:" "$(cat -- "$scratch/agent.log")"
    [[ $SECONDS -lt $deadline ]] || fail "no agent within 60 seconds:" "$(cat -- "$scratch/agent.log")"
    sleep 0.1
done

# ---- collectd ----

sed -e "s/Address \"127\.0\.0\.1\"/Address \"127.0.0.1:$port\"/; s/Interval 30/Interval 1/" \
    "$files/collectd/kavplat.conf" >"$scratch/kavplat.conf"
cat >"$scratch/collectd.conf" <<END
BaseDir "$scratch"
PIDFile "$scratch/collectd.pid"
Hostname "collector"
LoadPlugin csv
<Plugin csv>
  DataDir "$scratch/csv"
</Plugin>
Include "$scratch/kavplat.conf"
END
collectd -f -C "$scratch/collectd.conf" >"$scratch/collectd.log" 2>&1 &
collectd=$!

python3 - "$source_dir/servers/rack-2u.json" "$scratch/csv/server/snmp" <<'END' ||
import json, os, re, sys, time

def what_was_written(directory):
    found = {}
    for file in os.listdir(directory) if os.path.isdir(directory) else []:
        kind, name = re.fullmatch(r"(\w+-(?:status-|severity-)?)(.*)-\d{4}-\d\d-\d\d", file).groups()
        lines = open(os.path.join(directory, file)).read().split()
        if len(lines) > 1:
            found[kind, name] = float(lines[-1].split(",")[1])
    return found

# By the unit of the description: collectd's type, how it is converted, the last digit.
kinds = {"degrees-c": ("temperature-", lambda c: c, 0.1), "rpm": ("fanspeed-", lambda r: r, 1),
         "degrees-f": ("temperature-", lambda f: (f - 32) / 1.8, 0.1),
         "kelvin": ("temperature-", lambda k: k - 273.15, 0.1),
         "volts": ("voltage-", lambda v: v, 0.001), "amps": ("current-", lambda a: a, 0.001),
         "watts": ("power-", lambda w: w, 0.1)}
expected, unread = {}, []
for component in json.load(open(sys.argv[1]))["components"]:
    sensor = component.get("sensor", {})
    name = component["name"].replace("/", "_")
    if component["type"] == "slot-identity" or not sensor:
        continue
    if not sensor.get("valid", True) or isinstance(sensor["reading"], dict):
        unread.append(("gauge-status-", name))
    elif sensor["class"] == "threshold" and sensor.get("units") in kinds:
        kind, convert, digit = kinds[sensor["units"]]
        expected[kind, name] = (convert(sensor["reading"]), digit)
assert len(expected) >= 90 and {kind for kind, _ in expected} >= {k[0] for k in kinds.values()}, len(expected)
severities = {("gauge-severity-", "_SYS_T_AMB"): 7, ("gauge-severity-", "_SYS_HDD5_DISK_T"): 1}

def problems():
    found = what_was_written(sys.argv[2])
    result = [f"{key} is {found.get(key)}, but described as {value}"
              for key, (value, digit) in expected.items()
              if key not in found or abs(found[key] - value) > 0.5001 * digit]
    result += [f"{key} is {found.get(key)}, which is ok" for key in unread if found.get(key) not in (2, 3)]
    return result + [f"{key} is {found.get(key)}, not {value}" for key, value in severities.items()
                     if found.get(key) != value]

deadline = time.monotonic() + 90
while (wrong := problems()) and time.monotonic() < deadline:
    time.sleep(0.5)
print("\n".join(wrong) or f"collectd: {len(expected)} readings in their units")
sys.exit(bool(wrong))
END
    fail "what collectd says:" "$(cat -- "$scratch/collectd.log")"
kill -TERM "$collectd"
wait "$collectd" || true
collectd=''

# ---- Icinga ----

index_of() {
    MIBS='' snmpbulkwalk -v2c -c public -Onq "127.0.0.1:$port" 1.3.6.1.2.1.47.1.1.1.1.7 |
        sed -n "s,^.*\.\([0-9]*\) \"$1\"\$,\1,p"
}
good=$(index_of /SYS/T_AMB) bad=$(index_of /SYS/HDD5/DISK/T)
mkdir -- "$scratch/"{data,cache,spool,init,results}
# The command is the package's; here it is this build's.
sed "s,/usr/bin/kavplat,$build_dir/tools/kavplat/kavplat," "$files/icinga/kavplat.conf" >"$scratch/commands.conf"
cat >"$scratch/icinga2.conf" <<END
const PluginDir = "/usr/lib/nagios/plugins"
include <itl>
include <plugins>
include "$scratch/commands.conf"
object CheckerComponent "checker" {}
object PerfdataWriter "results" {
  service_perfdata_path = "$scratch/results/services"
  service_temp_path = "$scratch/services.tmp"
  host_perfdata_path = "$scratch/results/hosts"
  host_temp_path = "$scratch/hosts.tmp"
  service_format_template = "RESULT \$service.name\$ \$service.state_id\$ \$service.output\$ | \$service.perfdata\$"
  rotation_interval = 1s
}
object Host "server" {
  address = "127.0.0.1:$port"
  check_command = "dummy"
}
template Service "often" {
  host_name = "server"
  check_interval = 1s
  retry_interval = 1s
}
object Service "health" {
  import "often"
  check_command = "kavplat"
  vars.kavplat_require = [ "/SYS/FM0", "/SYS/NOT_THERE" ]
}
object Service "good" {
  import "often"
  check_command = "kavplat-severity"
  vars.snmp_address = "127.0.0.1"
  vars.snmp_port = $port
  vars.kavplat_index = $good
}
object Service "bad" {
  import "often"
  check_command = "kavplat-severity"
  vars.snmp_address = "127.0.0.1"
  vars.snmp_port = $port
  vars.kavplat_index = $bad
}
END
ICINGA2_USER=$(id -un) ICINGA2_GROUP=$(id -gn)
export ICINGA2_USER ICINGA2_GROUP
of_its_own=("-DDataDir=$scratch/data" "-DLogDir=$scratch" "-DCacheDir=$scratch/cache"
    "-DSpoolDir=$scratch/spool" "-DInitRunDir=$scratch/init")
icinga2 daemon -C -c "$scratch/icinga2.conf" "${of_its_own[@]}" >"$scratch/icinga.log" 2>&1 ||
    fail "Icinga does not take its file:" "$(cat -- "$scratch/icinga.log")"
icinga2 daemon -c "$scratch/icinga2.conf" "${of_its_own[@]}" >"$scratch/icinga.log" 2>&1 &
icinga=$!
result_is() { # SERVICE PATTERN
    grep -rhsE "^RESULT $1 $2" "$scratch/results" >/dev/null
}
deadline=$((SECONDS + 90))
until result_is health '2 HARDWARE CRITICAL .*/SYS/HDD5/DISK/T: 71\.5' && result_is good '0 ' && result_is bad '2 ' &&
    grep -rqs -- '/SYS/NOT_THERE' "$scratch/results"; do
    kill -0 "$icinga" 2>/dev/null || fail "Icinga ended:" "$(cat -- "$scratch/icinga.log")"
    [[ $SECONDS -lt $deadline ]] || fail "not what is described:" \
        "$(grep -rhs '^RESULT' "$scratch/results" | cut -c1-200 | sort | uniq -c)" "$(cat -- "$scratch/icinga.log")"
    sleep 0.5
done
kill -TERM "$icinga"
wait "$icinga" || true
icinga=''
echo "Icinga: the server is critical, a good component is good"

# ---- Nagios ----

if ! command -v nagios4 >/dev/null; then
    echo "Nagios: not installed, its file was not looked at"
    exit 0
fi
mkdir -- "$scratch/nagios"
cat >"$scratch/nagios/nagios.cfg" <<END
log_file=$scratch/nagios/log
cfg_file=$files/icinga/nagios.cfg
cfg_file=$scratch/nagios/objects.cfg
resource_file=$scratch/nagios/resource.cfg
check_result_path=$scratch/nagios
command_file=$scratch/nagios/command
lock_file=$scratch/nagios/lock
temp_file=$scratch/nagios/temp
temp_path=$scratch/nagios
status_file=$scratch/nagios/status
object_cache_file=$scratch/nagios/cache
state_retention_file=$scratch/nagios/retention
nagios_user=$(id -un)
nagios_group=$(id -gn)
END
printf '%s=/usr/lib/nagios/plugins\n' "\$USER1\$" >"$scratch/nagios/resource.cfg"
service() { # NAME COMMAND
    printf 'define service {\n host_name server\n service_description %s\n check_command %s\n' "$1" "$2"
    printf ' max_check_attempts 1\n check_period always\n contacts nobody\n notification_period always\n}\n'
}
{
    cat <<'END'
define timeperiod {
    timeperiod_name always
    alias always
    sunday 00:00-24:00
}
define command {
    command_name none
    command_line /bin/true
}
define contact {
    contact_name nobody
    host_notification_period always
    service_notification_period always
    host_notification_commands none
    service_notification_commands none
}
define host {
    host_name server
    address 127.0.0.1
    check_command none
    max_check_attempts 1
    check_period always
    contacts nobody
    notification_period always
}
END
    service health 'kavplat!public!--require /SYS/FM0'
    service severity "kavplat_severity!public!$good"
    service reading "kavplat_reading!public!$good!300!400"
} >"$scratch/nagios/objects.cfg"
nagios4 -v "$scratch/nagios/nagios.cfg" >"$scratch/nagios/verified" 2>&1 ||
    fail "Nagios does not take its file:" "$(cat -- "$scratch/nagios/verified")"
echo "Nagios: its file is taken"
