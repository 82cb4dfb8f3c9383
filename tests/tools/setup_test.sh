#!/bin/bash
# What tools/setup asks of the package manager, on a machine whose packages,
# commands and user are pretended.
# usage: setup_test.sh SOURCE_DIR
set -euo pipefail

setup=$1/tools/setup
make=$(type -P make)
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
mkdir "$scratch/bin"
calls=$scratch/calls
export KAVPLAT_CALLS=$calls KAVPLAT_INSTALLED=$scratch/installed KAVPLAT_BIN=$scratch/bin

stub() { # NAME: its body comes on standard input
    { echo '#!/bin/bash'; cat; } >"$scratch/bin/$1"
    chmod +x "$scratch/bin/$1"
}
# What the script itself is made of.
for command in bash env sed cat chmod grep; do
    ln -s -- "$(type -P "$command")" "$scratch/bin/$command"
done
stub dpkg-query <<'END'
grep -qx -- "${*: -1}" "$KAVPLAT_INSTALLED" && printf installed
END
stub apt-get <<'END'
echo "apt-get $* frontend=${DEBIAN_FRONTEND-}" >>"$KAVPLAT_CALLS"
[[ $1 == install ]] || exit 0
for argument in "$@"; do
    case $argument in
    -* | install) continue ;;
    snmp) command=snmpwalk ;;
    ninja-build) command=ninja ;;
    collectd-core) command=collectd ;;
    icinga2-bin) command=icinga2 ;;
    php-cli) command=php ;;
    openipmi) command=ipmi_sim ;;
    poppler-utils) command=pdfinfo ;;
    *) command=$argument ;;
    esac
    echo "$argument" >>"$KAVPLAT_INSTALLED"
    printf '#!/bin/sh\n' >"$KAVPLAT_BIN/$command"
    chmod +x "$KAVPLAT_BIN/$command"
done
END
stub sudo <<'END'
echo "sudo $1" >>"$KAVPLAT_CALLS"
exec "$@"
END
stub id <<'END'
echo "${KAVPLAT_UID:-0}"
END
# No service policy of this machine is touched.
stub sh <<'END'
echo "sh $*" >>"$KAVPLAT_CALLS"
END
stub rm <<'END'
echo "rm $*" >>"$KAVPLAT_CALLS"
END
# The rest of a machine on which everything but what a case takes away is there.
for command in g++ cmake ninja snmpd snmpwalk perl pgrep unshare pidof; do
    stub "$command" </dev/null
done
printf '%s\n' libsnmp-dev libbsd-dev nlohmann-json3-dev libcli11-dev libpci-dev libudev-dev libfreeipmi-dev libarchive-dev \
    >"$KAVPLAT_INSTALLED"

# The directories of system commands are appended by the script: a case can only
# take away what this machine has not got there. So the script is run with those
# directories' names changed.
mkdir -p "$scratch/tools" "$scratch/tests/tools" "$scratch/tests/portability"
sed 's,:/usr/sbin:/sbin,,' "$setup" >"$scratch/tools/setup"
for fetcher in tools/node-modules portability/sysroot; do
    {
        printf '#!/bin/bash\necho "fetch %s ' "$fetcher"
        cat <<'END'
$*" >>"$KAVPLAT_CALLS"
exit "${KAVPLAT_OFFLINE-0}"
END
    } >"$scratch/tests/$fetcher"
    chmod +x "$scratch/tests/$fetcher"
done
run() {
    : >"$calls"
    status=0
    PATH=$scratch/bin bash "$scratch/tools/setup" "$@" >"$scratch/output" 2>&1 || status=$?
}
expect() { # DESCRIPTION CONDITION...
    local what=$1
    shift
    if ! "$@"; then
        echo "not so: $what; exit status $status, output and calls:"
        cat -- "$scratch/output" "$calls"
        exit 1
    fi
}
called() { grep -q -- "$1" "$calls"; }
said() { grep -q -- "$1" "$scratch/output"; }
not() { ! "$@"; }

run run
expect "nothing is missing: success" [ "$status" -eq 0 ]
expect "nothing is missing: no word" [ ! -s "$scratch/output" ]
expect "nothing is missing: no call" [ ! -s "$calls" ]

command rm "$scratch/bin/snmpd"
sed -i '/libcli11-dev/d' "$KAVPLAT_INSTALLED"
run run
expect "two missing: success" [ "$status" -eq 0 ]
expect "two missing: they are named" said 'installing what is missing: libcli11-dev snmpd$'
expect "two missing: lists first" [ "$(grep -n 'apt-get update' "$calls" | cut -d: -f1)" -lt \
    "$(grep -n 'apt-get install' "$calls" | cut -d: -f1)" ]
expect "two missing: these alone are installed" \
    called '^apt-get install .*recommends libcli11-dev snmpd frontend=noninteractive$'
expect "root needs no sudo" not called '^sudo'
if [[ ! -e /usr/sbin/policy-rc.d ]]; then
    expect "services are kept from starting" called '^sh .*exit 101.*/usr/sbin/policy-rc.d'
    expect "only meanwhile" called '^rm -f -- /usr/sbin/policy-rc.d'
fi

run run
expect "a second run finds nothing to do" [ ! -s "$calls" ]

command rm "$scratch/bin/ninja"
KAVPLAT_UID=1000 run run
expect "an ordinary user takes sudo" called '^sudo env'
expect "an ordinary user gets there" [ "$status" -eq 0 ]

command rm "$scratch/bin/ninja" "$scratch/bin/sudo"
KAVPLAT_UID=1000 run run
expect "no root, no sudo: failure" [ "$status" -eq 1 ]
expect "no root, no sudo: what to do is said" said 'as root, run: apt-get install ninja-build'
expect "no root, no sudo: nothing is tried" not called '^apt-get'

expect "no root, no sudo: nothing is fetched" not called '^fetch'

# What else the tasks ask for, where it is no package of the same name.
for command in nm smilint systemd-analyze clang++ {s390x,i686,powerpc}-linux-gnu-g++ qemu-s390x dpkg-source; do
    stub "$command" </dev/null
done
stub ninja </dev/null
KAVPLAT_OFFLINE=1 run run
expect "to run takes no registry" [ "$status" -eq 0 ]
run test
expect "tests need more" called 'apt-get install .* libgtest-dev '
expect "tests get there" [ "$status" -eq 0 ]
expect "what tests need of a registry is fetched" called '^fetch tools/node-modules .*/tests/mibs base-modules'
expect "so is the judge of the Containerfile" called '^fetch tools/node-modules .*/tests/container containerfile-linter'
expect "and Grafana's types" called '^fetch tools/node-modules .*/tests/managers/grafana grafana-types'
expect "and no more" not called '^fetch portability'
KAVPLAT_OFFLINE=1 run test
expect "a registry that does not answer: failure" [ "$status" -eq 1 ]
expect "a registry that does not answer: it is said" said 'need from npm could not be fetched'
run ci
for architecture in s390x i386; do
    expect "libraries for $architecture are fetched" called "^fetch portability/sysroot $architecture"
done
expect "ci gets there" [ "$status" -eq 0 ]
run sideways
expect "an unknown task is misuse" [ "$status" -eq 2 ]
# make comes first on a fresh machine, before anything is there.
for target in run test; do
    "$make" -n -C "$1" "$target" >"$scratch/output" 2>/dev/null || true
    expect "make $target sets up before all else" \
        [ "$(grep -v '^make' "$scratch/output" | sed -n 1p)" = "tools/setup $target" ]
done
echo "all as expected"
