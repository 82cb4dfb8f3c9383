#!/bin/bash
# kavplat as a command: its status, and what goes where.
# usage: kavplat_test.sh KAVPLAT SOURCE_DIR VERSION
set -uo pipefail

kavplat=$1
servers=$2/servers
version=$3
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
failed=0

# Runs the command and looks at its status and at a part of what it says.
expect() { # STATUS out|err PATTERN ARGUMENTS...
    local wanted=$1 where=$2 pattern=$3 status=0
    shift 3
    "$kavplat" "$@" >"$scratch/out" 2>"$scratch/err" || status=$?
    if [[ $status -ne $wanted ]] || ! grep -q -- "$pattern" "$scratch/$where"; then
        echo "kavplat $*: status $status for $wanted, or no '$pattern' in $where:" >&2
        cat -- "$scratch/out" "$scratch/err" >&2
        failed=1
    fi
}
silent() { # out|err
    [[ ! -s $scratch/$1 ]] || {
        echo "nothing was expected in $1: $(cat -- "$scratch/$1")" >&2
        failed=1
    }
}

echo '{ "components": [] }' >"$scratch/bad.json"

expect 0 out '^ *check ' --help
silent err
expect 2 err 'subcommand is required'
expect 2 err '^There is no subcommand no-such-command; there are describe .* help$' no-such-command
expect 0 out '^Usage: kavplat conformance' conformance --help
expect 0 out '^Usage: kavplat check' check --help
silent err
expect 0 out "^kavplat $version\$" --version
silent err
expect 0 out '^fan  *12  plain  *Fan$' check --types
silent err
expect 2 err 'FILE or --types' check
silent out
expect 2 err 'no-such-option' check --no-such-option
expect 2 err 'there is no user' check --user nobody-has-this-name "$servers/minimal.json"

expect 0 out 'good: root /SYS, 4 components' check --user '' "$servers/minimal.json"
silent err
expect 0 out 'rack-2u.json: good.*, 1 warning$' check --user '' "$servers/minimal.json" "$servers/rack-2u.json"
grep -q '^.*/rack-2u.json:[0-9]*: /components/[0-9]*/sensor/reading/file (/SYS/.*): warning: ' \
    "$scratch/err" || failed=1
expect 1 err 'bad.json:1: /components: expected an array' check "$scratch/bad.json" "$servers/minimal.json"
grep -q 'minimal.json: good' "$scratch/out" || failed=1
expect 1 err 'absent.json: (document): expected a readable file' check "$scratch/absent.json"

expect 0 out '(standard input): good: root /SYS' check - <"$servers/minimal.json"
expect 1 err '(standard input):1: /components: expected' check - <"$scratch/bad.json"

# From here its relative files are looked up.
echo 'on' >"$scratch/led"
cat >"$scratch/bound.json" <<'END'
{ "components": [
    { "name": "/SYS", "type": "system" },
    { "name": "/SYS/L", "type": "led", "indicator": { "state": { "file": "led" } } } ] }
END
kavplat=$(realpath -- "$kavplat")
cd -- "$scratch" || exit 1
expect 0 out '/SYS/L indicator/state: 2 (on), from /.*/led$' check --read - <bound.json
expect 0 out 'bound.json: /SYS/L indicator/state: 2 (on)' check --read bound.json
exit "$failed"
