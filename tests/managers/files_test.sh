#!/bin/bash
# The files for managers that are no part of a Debian machine, as far as an agent can
# tell: each object that they ask for is served, and what they say of it agrees with itself.
# usage: files_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

source_dir=$1 build_dir=$2
files=$source_dir/managers
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
port=$(perl -MSocket -e 'socket(my $s, PF_INET, SOCK_DGRAM, 0); bind($s, sockaddr_in(0, INADDR_LOOPBACK));
    print((sockaddr_in(getsockname($s)))[0])')
: >"$scratch/agent.log"
KAVPLAT_PORT=$port KAVPLAT_RUN=$scratch/run "$source_dir/tools/run-agent" "$build_dir" >"$scratch/agent.log" 2>&1 &
agent=$!
deadline=$((SECONDS + 60))
until grep -q 'Ctrl-C ends it' "$scratch/agent.log"; do
    kill -0 "$agent" 2>/dev/null || fail "the agent ended:" "$(cat -- "$scratch/agent.log")"
    [[ $SECONDS -lt $deadline ]] || fail "no agent within 60 seconds:" "$(cat -- "$scratch/agent.log")"
    sleep 0.1
done

# Objects below our roots; a trap's name is below a 0 and is no object.
objects=$(grep -rhoE '1\.3\.6\.1\.(2\.1\.(47|99|131)|4\.1\.58213)(\.[0-9]+)+' "$files" --exclude-dir=snmptt --exclude-dir=snmptrapd |
    sort -u)
count=0
while read -r object; do
    case $object in 1.3.6.1.2.1.131.*) # served once its module is loaded
        grep -q '^dlmod entityStateMIB' "$source_dir/examples/snmpd.conf.in" || continue ;;
    esac
    count=$((count + 1))
    answer=$(MIBS='' snmpget -v2c -c public -Onq "127.0.0.1:$port" "$object" 2>&1 || true)
    [[ $answer == *No\ Such* ]] || continue
    answer=$(MIBS='' snmpgetnext -v2c -c public -Onq "127.0.0.1:$port" "$object" 2>&1)
    [[ $answer == ".$object."* ]] || fail "nothing is served below $object, which is asked for in:" \
        "$(grep -rlF "$object" "$files")"
done <<<"$objects"
[[ $count -ge 12 ]] || fail "only $count objects were found in the files"

for column in 1 2 3; do # type, scale, precision
    MIBS='' snmpbulkwalk -v2c -c public -Onq "127.0.0.1:$port" "1.3.6.1.2.1.99.1.1.1.$column"
done >"$scratch/sensors"

python3 - "$files" "$scratch/sensors" <<'PYTHON'
import json, re, sys, xml.etree.ElementTree as xml, yaml
files = sys.argv[1]
template = yaml.safe_load(open(f"{files}/zabbix/template_kavplat.yaml"))["zabbix_export"]["templates"][0]
text = open(f"{files}/zabbix/template_kavplat.yaml").read()
uuids = re.findall(r"uuid: (\w+)", text)
assert len(uuids) == len(set(uuids)) and all(re.fullmatch(r"[0-9a-f]{12}4[0-9a-f]{3}[89ab][0-9a-f]{15}", u) for u in uuids)
keys = {i["key"] for r in [template] + template["discovery_rules"] for i in r.get("items", []) + r.get("item_prototypes", [])}
used = set(re.findall(r"/Kavplat by SNMP/(kavplat\.\w+(?:\[[^\]]*\])?)", text))
assert used and used <= keys, used - keys
maps = {m["name"] for m in template["valuemaps"]}
assert {n for n in re.findall(r"valuemap:\s+name: (.+)", text)} == maps
assert all("{#NAME}" in i["name"] for r in template["discovery_rules"] for i in r["item_prototypes"])
# What a reading is multiplied by is what is served for each sensor of its types.
sensors = {}
for line in open(sys.argv[2]):
    oid, value = line.split()
    sensors.setdefault(int(oid.split(".")[-1]), {})[int(oid.split(".")[-2])] = int(value)
multiplied = 0
for rule in template["discovery_rules"]:
    for item in rule["item_prototypes"]:
        if not item["snmp_oid"].startswith("1.3.6.1.2.1.99.1.1.1.4."):
            continue
        [types] = [c["value"] for c in rule["filter"]["conditions"] if c["macro"] == "{#TYPE}"]
        multiplier = [s["parameters"][0] for s in item.get("preprocessing", []) if s["type"] == "MULTIPLIER"] or ["1"]
        # Scale 9 is units; each step is three powers of ten.
        served = {round(10 ** (3 * (s[2] - 9) - s[3]), 12) for s in sensors.values() if re.search(types, str(s[1]))}
        assert served == {float(multiplier[0])}, f"{rule['name']}: multiplied by {multiplier[0]}, served by {served}"
        multiplied += 1
assert multiplied >= 5, multiplied
librenms = yaml.safe_load(open(f"{files}/librenms/kavplat.yaml"))["modules"]["sensors"]["state"]["data"]
assert [s["value"] for s in librenms[0]["states"]] == list(range(1, 8))
assert xml.parse(f"{files}/opennms/kavplat-hw-inventory.xml").getroot().findall("hw-extension/mib-object")
dashboard = json.load(open(f"{files}/grafana/kavplat.json"))
ids = [p["id"] for p in dashboard["panels"]]
assert len(ids) == len(set(ids)) >= 8
PYTHON

# Who lists notifications lists each that our modules define.
told=0
while read -r notification; do
    told=$((told + 1))
    oid=$(snmptranslate -M "$source_dir/mibs:$source_dir/mibs/compact" -m ALL -IR -On "$notification")
    grep -qE "^EVENT $notification ${oid//./\\.} " "$files/snmptt/snmptt.conf.kavplat" || fail "snmptt has no event for $notification, $oid"
    grep -qE "^#?traphandle ${oid//./\\.} " "$files/snmptrapd/snmptrapd.conf" || fail "snmptrapd has no handler for $notification, $oid"
done < <(sed -n 's/^\(\w*\) NOTIFICATION-TYPE$/\1/p' "$source_dir"/mibs/*.txt "$source_dir"/mibs/compact/*.txt)
[[ $told -ge 5 ]] || fail "only $told notifications are defined"

echo "$count objects asked for, all served; $told notifications in each list"
