#!/bin/bash
# The files for Prometheus against the programs that read them: the exporter's module
# is what the generator makes of our MIB modules, the rules pass their test, and a
# scrape of a real agent has every reading of the description in its unit.
# usage: prometheus_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

source_dir=$1 build_dir=$2
files=$source_dir/managers/prometheus
scratch=$(mktemp -d)
agent='' exporter=''
# shellcheck disable=SC2317 # called by the trap
clean_up() {
    local pid
    for pid in $exporter $agent; do
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

cp -- "$files/generator.yml" "$scratch/"
(cd -- "$scratch" && MIBDIRS=$source_dir/mibs:$source_dir/mibs/compact MIBS=ALL \
    prometheus-snmp-generator generate -o snmp.yml 2>generator.log) ||
    fail "the generator failed:" "$(cat -- "$scratch/generator.log")"
diff -u -- "$files/snmp.yml" "$scratch/snmp.yml" ||
    fail "snmp.yml is not what the generator makes of generator.yml and our modules"

promtool test rules "$files/rules_test.yml" >"$scratch/rules.log" 2>&1 ||
    fail "the rules fail their test:" "$(cat -- "$scratch/rules.log")"

free_port() {
    perl -MSocket -e 'socket(my $s, PF_INET, $ARGV[0] eq "udp" ? SOCK_DGRAM : SOCK_STREAM, 0);
        bind($s, sockaddr_in(0, INADDR_LOOPBACK)); print((sockaddr_in(getsockname($s)))[0])' "$1"
}
until_it_says() { # PROCESS LOG TEXT
    local deadline=$((SECONDS + 60))
    until grep -q -- "$3" "$2"; do
        kill -0 "$1" 2>/dev/null || fail "it ended by itself:" "$(cat -- "$2")"
        [[ $SECONDS -lt $deadline ]] || fail "no word of '$3' within 60 seconds:" "$(cat -- "$2")"
        sleep 0.1
    done
}

port=$(free_port udp)
: >"$scratch/agent.log"
KAVPLAT_PORT=$port KAVPLAT_RUN=$scratch/run "$source_dir/tools/run-agent" "$build_dir" \
    >"$scratch/agent.log" 2>&1 &
agent=$!
until_it_says "$agent" "$scratch/agent.log" 'Ctrl-C ends it'

web=$(free_port tcp)
: >"$scratch/exporter.log"
prometheus-snmp-exporter --config.file="$files/snmp.yml" --web.listen-address="127.0.0.1:$web" \
    >"$scratch/exporter.log" 2>&1 &
exporter=$!
until_it_says "$exporter" "$scratch/exporter.log" 'Listening on'

python3 - "$source_dir/servers/rack-2u.json" \
    "http://127.0.0.1:$web/snmp?target=127.0.0.1:$port&module=kavplat" <<'END'
import json, re, sys, urllib.request

with open(sys.argv[1]) as description:
    components = json.load(description)["components"]
text = urllib.request.urlopen(sys.argv[2], timeout=60).read().decode("utf-8")
metrics = {}
for name, labels, value in re.findall(r"^(\w+)\{(.*)\} (\S+)$", text, re.M):
    component = re.search(r'entPhysicalName="([^"]*)"', labels)
    if component:
        metrics.setdefault(name, {})[component[1]] = float(value)

problems = []
numbers = 0
in_celsius = {"degrees-f": lambda f: (f - 32) / 1.8, "kelvin": lambda k: k - 273.15}
for component in components:
    name = component["name"]
    if name not in metrics["entPhysicalClass"]:
        problems.append(f"{name} is not there")
    sensor = component.get("sensor")
    if sensor is None or component["type"] == "slot-identity":
        if name in metrics["entPhySensorValue"]:
            problems.append(f"{name} is no sensor, and was scraped as one")
        continue
    reading = sensor["reading"]
    if not sensor.get("valid", True) or isinstance(reading, dict):
        if metrics["entPhySensorOperStatus"][name] == 1:
            problems.append(f"{name} has no reading, and is told to have one")
    elif sensor["class"] == "threshold":
        numbers += 1
        expected = in_celsius.get(sensor.get("units"), lambda same: same)(reading)
        factor = 10 ** metrics["entPhySensorPrecision"][name]
        found = metrics["entPhySensorValue"][name] / factor
        if abs(found - expected) > 0.5001 / factor:
            problems.append(f"{name} reads {found}, but is described to read {expected}")
if numbers < 100:
    problems.append(f"only {numbers} readings were compared")
print("\n".join(problems) or f"{len(components)} components, {numbers} readings in their units")
sys.exit(bool(problems))
END
