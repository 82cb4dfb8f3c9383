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

python3 - "$files" <<'PYTHON'
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
# What an item is multiplied by is the precision that is served for its type.
assert all("{#NAME}" in i["name"] for r in template["discovery_rules"] for i in r["item_prototypes"])
librenms = yaml.safe_load(open(f"{files}/librenms/kavplat.yaml"))["modules"]["sensors"]["state"]["data"]
assert [s["value"] for s in librenms[0]["states"]] == list(range(1, 8))
assert xml.parse(f"{files}/opennms/kavplat-hw-inventory.xml").getroot().findall("hw-extension/mib-object")
dashboard = json.load(open(f"{files}/grafana/kavplat.json"))
ids = [p["id"] for p in dashboard["panels"]]
assert len(ids) == len(set(ids)) >= 8
PYTHON

echo "$count objects asked for, all served"
