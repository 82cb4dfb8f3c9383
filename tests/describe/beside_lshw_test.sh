#!/bin/bash
# This machine is described as completely as lshw finds it; and the comparison notices when it is not.
# usage: tests/describe/beside_lshw_test.sh KAVPLAT
set -euo pipefail

kavplat=$1
compare=${BASH_SOURCE[0]%/*}/beside_lshw
here=$(mktemp -d)
trap 'rm -r -- "$here"' EXIT

lshw -quiet -json >"$here/lshw.json"
"$kavplat" describe --no-ipmi >"$here/machine.json"
"$compare" "$here/lshw.json" "$here/machine.json"

# All of a kind are missed when they are taken out, and so is one whose serial number is another.
without() { # KIND: what lshw finds of it is to be missed
    python3 - "$1" "$here" <<'END'
import json
import sys

kind, here = sys.argv[1:]
with open(here + "/machine.json", encoding="utf-8") as file:
    description = json.load(file)
description["components"] = [each for each in description["components"] if each["type"] != kind]
with open(here + "/less.json", "w", encoding="utf-8") as file:
    json.dump(description, file)
END
    if "$compare" "$here/lshw.json" "$here/less.json" >"$here/said"; then
        echo "a description without $1 is good beside lshw" >&2
        exit 1
    fi
    grep -q "misses" "$here/said"
}
without processor
if sed 's/"serial": "[^"]*"/"serial": "ANOTHER-1"/' "$here/machine.json" >"$here/other.json" &&
    ! cmp -s "$here/machine.json" "$here/other.json" &&
    "$compare" "$here/lshw.json" "$here/other.json" >"$here/said" &&
    ! grep -q "lshw does not know" "$here/said"; then
    echo "other serial numbers are good beside lshw" >&2
    exit 1
fi
