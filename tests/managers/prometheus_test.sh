#!/bin/bash
# The files for Prometheus against the programs that read them: the exporter's module
# is what the generator makes of our MIB modules, the rules pass their test, and a
# scrape of a real agent has every reading of the description in its unit.
# usage: [KAVPLAT_PICTURE=FILE.png] prometheus_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

source_dir=$1 build_dir=$2
files=$source_dir/managers/prometheus
scratch=$(mktemp -d)
agent='' exporter='' prometheus=''
# shellcheck disable=SC2317 # called by the trap
clean_up() {
    local pid
    for pid in $prometheus $exporter $agent; do
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

python3 - "$files" <<'END' || fail "snmp-auths.yml asks for something else than snmp.yml"
import sys, yaml
old, new = (yaml.safe_load(open(f"{sys.argv[1]}/{name}.yml")) for name in ("snmp", "snmp-auths"))
sys.exit(old != new["modules"] or new["auths"]["public_v2"] != {"community": "public", "version": 2})
END
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

# The real Prometheus, with the example's configuration in a hurry: a reading in its unit,
# then one that is raised beyond its limit and one that is lost.
web_prometheus=$(free_port tcp)
sed -e "s/192\.0\.2\.10/127.0.0.1:$port/; s/127\.0\.0\.1:9116/127.0.0.1:$web/; s/scrape_interval: 1m/scrape_interval: 1s/" \
    -e "s,rules\.yml,$files/rules.yml," "$files/prometheus.yml" >"$scratch/prometheus.yml"
printf 'global:\n  evaluation_interval: 1s\n' >>"$scratch/prometheus.yml"
promtool check config "$scratch/prometheus.yml" >"$scratch/check.log" 2>&1 ||
    fail "Prometheus does not take its configuration:" "$(cat -- "$scratch/check.log")"
: >"$scratch/prometheus.log"
prometheus --config.file="$scratch/prometheus.yml" --storage.tsdb.path="$scratch/tsdb" \
    --web.listen-address="127.0.0.1:$web_prometheus" >"$scratch/prometheus.log" 2>&1 &
prometheus=$!
until_it_says "$prometheus" "$scratch/prometheus.log" 'ready to receive'

python3 - "http://127.0.0.1:$web_prometheus/api/v1/query?query=" "$scratch/run/server.json" \
    "$source_dir/managers/grafana/kavplat.json" <<'END'
import json, sys, time, urllib.parse, urllib.request

def query(expression):
    url = sys.argv[1] + urllib.parse.quote(expression)
    return json.load(urllib.request.urlopen(url, timeout=30))["data"]["result"]

def until(what, expression, good):
    deadline = time.monotonic() + 60
    while True:
        result = query(expression)
        if good(result):
            return result
        if time.monotonic() > deadline:
            sys.exit(f"not so within 60 seconds: {what}; {expression} is {result}")
        time.sleep(0.2)

reading = 'kavplat_sensor_reading{entPhysicalName="/SYS/T_AMB"}'
ambient = lambda low, high: lambda r: len(r) == 1 and low <= float(r[0]["value"][1]) <= high
until("the ambient temperature in degrees", reading, ambient(23.7, 23.8))
with open(sys.argv[2]) as description:
    server = json.load(description)

# The dashboard's panels, of the server that it lets one choose: as many readings in each as
# are described, as many sensors without one, and something wherever this server is not well.
with open(sys.argv[3]) as file:
    dashboard = json.load(file)
chosen = dashboard["templating"]["list"][1]["query"]["query"]
servers = until("a server to choose", chosen[len("label_values("):chosen.index(",")], lambda r: r)
instance = {series["metric"][chosen[chosen.index(",") + 1:-1].strip()] for series in servers}.pop()
sensors = [c["sensor"] for c in server["components"] if "sensor" in c and c["type"] != "slot-identity"]
has_reading = lambda sensor: sensor.get("valid", True) and not isinstance(sensor["reading"], dict)
of_units = lambda *units: sum(has_reading(s) and s.get("units") in units for s in sensors)
series = {"Temperatures": of_units("degrees-c", "degrees-f", "kelvin"), "Fans": of_units("rpm"),
          "Voltages": of_units("volts"), "Power": of_units("watts")}
number = {"Components": len(server["components"]), "Without a reading": sum(not has_reading(s) for s in sensors)}
for panel in dashboard["panels"]:
    for target in panel["targets"]:
        title, expression = panel["title"], target["expr"].replace("$instance", instance)
        if title in series:
            good = lambda r: len(r) == series[title] > 1
        elif title in number:
            good = lambda r: len(r) == 1 and float(r[0]["value"][1]) == number[title] > 0
        else:
            good = lambda r: r and all(float(s["value"][1]) > 0 for s in r)
        until(f"the panel {title}", expression, good)
if not (series.keys() | number.keys()) <= {panel["title"] for panel in dashboard["panels"]}:
    sys.exit("the dashboard has other panels")

before = len(query("kavplat_sensor_reading"))
alarm = 'ALERTS{alertname="KavplatSensorCritical",entPhysicalName="/SYS/T_AMB"}'
if query(alarm):
    sys.exit("the alert is there before its cause")

sensor = next(c for c in server["components"] if c["name"] == "/SYS/T_AMB")["sensor"]
sensor["reading"] = 99
lost = next(c for c in server["components"] if c.get("sensor", {}).get("class") == "threshold"
            and c["type"] != "slot-identity" and c["name"] != "/SYS/T_AMB" and c["sensor"].get("valid", True)
            and not isinstance(c["sensor"]["reading"], dict))
lost["sensor"]["valid"] = False
with open(sys.argv[2], "w") as description:
    json.dump(server, description)
until("the temperature that was raised", reading, ambient(98.9, 99.1))
until("the alert of a temperature beyond its limit", alarm, lambda r: len(r) == 1)
until("the reading that was lost is gone", f'kavplat_sensor_reading{{entPhysicalName="{lost["name"]}"}}', lambda r: not r)
if len(query("kavplat_sensor_reading")) != before - 1:
    sys.exit("other readings went with the lost one")
if not query('entPhySensorOperStatus{entPhysicalName="%s"} != 1' % lost["name"]):
    sys.exit("the status does not tell of the lost reading")
print(f"{before} readings by the real Prometheus, {len(dashboard['panels'])} panels of them, an alert, and a lost reading")
END

# The picture in docs/, where one is asked for: a minute and a half, in which what was
# raised above falls back.
[[ -n ${KAVPLAT_PICTURE-} ]] || exit 0
until_there_are() { # SAMPLES of the temperature
    until [[ $(promtool query instant "http://127.0.0.1:$web_prometheus" \
        "count_over_time(kavplat_sensor_reading{entPhysicalName=\"/SYS/T_AMB\"}[90s]) > $1") == *T_AMB* ]]; do
        kill -0 "$prometheus" 2>/dev/null || fail "Prometheus ended:" "$(cat -- "$scratch/prometheus.log")"
        sleep 1
    done
}
until_there_are 45
"$build_dir/tools/kavplat/kavplat" set "$scratch/run/server.json" /SYS/T_AMB reading=23.75
until_there_are 80
page=$(python3 -c 'import sys, urllib.parse
print(urllib.parse.urlencode({"g0.expr": sys.argv[1], "g0.tab": 0, "g0.range_input": "90s"}))' \
    'kavplat_sensor_reading{entPhysicalName=~"/SYS/(T_AMB|HDD[0-9]+/DISK/T|SP/T)"}')
timeout 120 chromium --headless --no-sandbox --disable-gpu --hide-scrollbars --window-size=1000,960 \
    --virtual-time-budget=20000 --screenshot="$KAVPLAT_PICTURE" "http://127.0.0.1:$web_prometheus/graph?$page" \
    >"$scratch/chromium.log" 2>&1 || fail "no picture:" "$(cat -- "$scratch/chromium.log")"
