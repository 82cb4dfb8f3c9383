#!/bin/bash
# Two of Debian's programs that read agents, against one that serves the rack server:
# what SNMP::Info's Entity class, by which Netdisco asks for modules, makes of it and what check_snmp says, by the commands of
# our file for Nagios, are what the description says.
# usage: plugins_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

source_dir=$1 build_dir=$2
scratch=$(mktemp -d)
agent=''
# shellcheck disable=SC2317 # called by the trap
clean_up() {
    [[ -z $agent ]] || { kill -TERM "$agent" && wait "$agent"; } 2>/dev/null || true
    rm -rf -- "$scratch"
}
trap clean_up EXIT
fail() {
    printf '%s\n' "$@" >&2
    exit 1
}

# One of its ports is told to be an interface that every host has.
sed 's/"interface": "eth1"/"interface": "lo"/' "$source_dir/servers/rack-2u.json" >"$scratch/server.json"
grep -q '"interface": "lo"' "$scratch/server.json" || fail "rack-2u.json has no port eth1"

port=$(perl -MSocket -e 'socket(my $s, PF_INET, SOCK_DGRAM, 0); bind($s, sockaddr_in(0, INADDR_LOOPBACK));
    print((sockaddr_in(getsockname($s)))[0])')
: >"$scratch/agent.log"
DESCRIPTION=$scratch/server.json KAVPLAT_PORT=$port KAVPLAT_RUN=$scratch/run \
    "$source_dir/tools/run-agent" "$build_dir" >"$scratch/agent.log" 2>&1 &
agent=$!
deadline=$((SECONDS + 60))
until grep -q 'Ctrl-C ends it' "$scratch/agent.log"; do
    kill -0 "$agent" 2>/dev/null || fail "the agent ended:" "$(cat -- "$scratch/agent.log")"
    [[ $SECONDS -lt $deadline ]] || fail "no agent within 60 seconds:" "$(cat -- "$scratch/agent.log")"
    sleep 0.1
done

# All that the class has methods for, by index.
SNMP_PERSISTENT_DIR=$scratch MIBS='' perl - "$port" "$source_dir/mibs" "$source_dir/mibs/compact" \
    >"$scratch/info.json" 2>"$scratch/info.log" <<'END' || fail "SNMP::Info fails:" "$(cat -- "$scratch/info.log")"
use strict;
use warnings;
use JSON::PP;
use SNMP::Info::Entity;
my ($port, @mibs) = @ARGV;
my $entity = SNMP::Info::Entity->new(
    AutoSpecify => 0, DestHost => '127.0.0.1', RemotePort => $port, Community => 'public',
    Version => 2, MibDirs => \@mibs, IgnoreNetSNMPConf => 1
) or die "no answer\n";
my %seen = map { $_ => $entity->$_ // die "nothing by $_\n" }
    qw(e_index e_name e_class e_parent e_pos e_descr e_serial e_model e_vendor e_alias e_swver e_fru e_port
       e_type e_hwver e_fwver);

# As which class it takes our agent, and one with a maker's sysObjectID, by sysServices.
package Device;
our @ISA = ('SNMP::Info');
sub description { $_[0]{description} }
sub id { $_[0]{id} }
sub layers { $_[0]{layers} }
sub debug { 0 }
package main;
my ($description, $id) = map { $entity->session->get(".1.3.6.1.2.1.1.$_.0") } 1, 2;
my @known;
for my $device ([$id], [$id, 72], ['.1.3.6.1.4.1.58213.1'], ['.1.3.6.1.4.1.58213.1', 72], ['.1.3.6.1.4.1.58213.1', 76]) {
    my $layers = defined $device->[1] ? unpack('B8', chr($device->[1])) : undef;
    my $class = bless({description => $description, id => $device->[0], layers => $layers}, 'Device')->device_type;
    eval "require $class" or die $@;
    push @known, [$class, $class->isa('SNMP::Info::Entity') ? 1 : 0];
}
print encode_json({%seen, serial => $entity->entity_derived_serial, known => \@known});
END

python3 - "$scratch/server.json" "$scratch/info.json" <<'END'
import json, socket, sys

description, seen = (json.load(open(path)) for path in sys.argv[1:])
names = seen["e_name"]
components = {c["name"]: c for c in description["components"]}
assert set(names.values()) == set(components) and len(names) == len(components), "other names"
assert seen["e_index"] == {i: i for i in names}
assert seen["serial"] == description["product"]["serial"], seen["serial"]

known = seen["known"]
assert [reads for _, reads in known] == [1, 1, 0, 0, 1] and known[0][0] == "SNMP::Info::Layer3::NetSNMP", known
assert seen["e_hwver"] == dict.fromkeys(names, "") and set(seen["e_type"].values()) == {".0.0"}
assert {index for index, text in seen["e_fwver"].items() if text} == \
    {index for index, what in seen["e_class"].items() if what == "chassis"} != set()
assert all(seen["e_descr"][index] for index in names)

replaceable = {"field-replaceable", "fru-info", "hot-pluggable"}
of_class = {}
with_identity = 0
for index, name in names.items():
    component = components[name]
    container = name.rpartition("/")[0]
    assert names.get(seen["e_parent"][index], "") == container, name
    number = name[len(name.rstrip("0123456789")):]
    assert int(seen["e_pos"][index]) == (int(number) + 1 if number else -1), name
    is_fru = bool(replaceable & set(component.get("capabilities", [])))
    assert (seen["e_fru"][index] == "true") == is_fru, name
    of_class.setdefault(seen["e_class"][index], set()).add(component["type"])
    assert (seen["e_class"][index] == "sensor") == ("sensor" in component), name
    if component["type"] in ("system", "chassis", "midplane"):
        continue
    fru = component.get("fru", {}) if "fru-info" in component.get("capabilities", []) else {}
    with_identity += bool(fru)
    for method, key, longest in (("e_model", "model", 79), ("e_vendor", "manufacturer", 79), ("e_serial", "serial", 31),
                                 ("e_alias", "alias", 31), ("e_swver", "software_revision", 79)):
        assert seen[method].get(index, "") == fru.get(key, "")[:longest], (name, method)
assert of_class["fan"] >= {"fan", "fan-module"} and "powerSupply" in of_class and "module" in of_class, of_class
assert with_identity >= 20, with_identity

interfaces = {c["name"]: c["interface"] for c in components.values() if "interface" in c}
ports = {names[index]: int(number) for index, number in seen["e_port"].items()}
assert ports == {name: number for name, interface in interfaces.items()
                 for number, known in socket.if_nameindex() if known == interface}, ports
assert "lo" in interfaces.values() and ports
print(f"SNMP::Info: {len(names)} entities, {with_identity} with an identity, {len(ports)} ports with an interface")
END

python3 - "$scratch/server.json" "$port" "$source_dir/managers/icinga/nagios.cfg" <<'END'
import json, math, re, shlex, subprocess, sys

description, port, file = json.load(open(sys.argv[1])), sys.argv[2], open(sys.argv[3]).read()
commands = dict(re.findall(r"command_name\s+(\S+)\s+command_line\s+(.+)", file))

def run(name, *arguments):
    """Exit status and value of a command of the file."""
    line = commands[name]
    for macro, value in [("$USER1$", "/usr/lib/nagios/plugins"), ("$HOSTADDRESS$", "127.0.0.1")] + \
            [(f"$ARG{i + 1}$", value) for i, value in enumerate(arguments)]:
        line = line.replace(macro, value)
    done = subprocess.run(shlex.split(line) + ["-p", port], capture_output=True, text=True)
    value = re.search(r"\| \S+=([-0-9.]+)", done.stdout)
    return done.returncode, float(value[1]) if value else None, done.stdout.strip()

def column(oid):
    out = subprocess.run(["snmpbulkwalk", "-v2c", "-cpublic", "-Onqe", f"127.0.0.1:{port}", oid], check=True,
                         capture_output=True, text=True, env={"MIBS": "", "PATH": "/usr/bin:/bin"}).stdout
    return {line.split(None, 1)[0].rpartition(".")[2]: line.split(None, 1)[1].strip('"') for line in out.splitlines()}

indexes = {name: index for index, name in column(".1.3.6.1.2.1.47.1.1.1.1.7").items()}
precisions = column(".1.3.6.1.2.1.99.1.1.1.3")
in_celsius = {"degrees-f": lambda f: (f - 32) / 1.8, "kelvin": lambda k: k - 273.15}
ok, warning, critical = 0, 1, 2
readings = crossed = 0
for component in description["components"]:
    name, sensor = component["name"], component.get("sensor")
    if sensor is None or sensor["class"] != "threshold" or component["type"] == "slot-identity" \
            or not sensor.get("valid", True) or isinstance(sensor["reading"], dict):
        continue
    index = indexes[name]
    reading = in_celsius.get(sensor.get("units"), lambda same: same)(sensor["reading"])
    value = reading * 10 ** int(precisions[index])
    # Between the whole numbers about it all is well, below them it is critical.
    low, high = math.floor(value - 0.5), math.ceil(value + 0.5)
    status, found, told = run("kavplat_reading", "public", index, f"{low}:{high}", f"{low}:{high}")
    assert status == ok and found is not None and abs(found - value) <= 0.5001, (name, value, told)
    status, _, told = run("kavplat_reading", "public", index, f"{low}:{high}", f"{high + 1}:{high + 9}")
    assert status == critical, (name, value, told)
    readings += 1
    limits = sensor.get("thresholds", {})
    reached = {key for key, limit in limits.items()
               if (sensor["reading"] >= limit if key.startswith("upper") else sensor["reading"] <= limit)}
    expected = ok if not reached else warning if all(key.endswith("non_critical") for key in reached) else critical
    status, _, told = run("kavplat_severity", "public", index)
    assert status == expected, (name, reached, told)
    crossed += bool(reached)
assert readings >= 100 and crossed >= 3, (readings, crossed)
print(f"check_snmp: {readings} readings, {crossed} of them beyond their limits")
END
