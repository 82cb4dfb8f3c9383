#!/bin/bash
# Runs tools/run-agent as a newcomer would.
# usage: run_agent_test.sh SOURCE_DIR BUILD_DIR CASE
set -euo pipefail

source_dir=$1 build_dir=$2 case=$3
scratch=$(mktemp -d)
export KAVPLAT_RUN=$scratch/run
unset MACHINE DESCRIPTION KAVPLAT_WAIT
output=$scratch/output
runner=

# Their command lines name the scratch directory, which no other has.
running() { # COMMAND
    local file
    for file in /proc/[0-9]*/cmdline; do
        if { tr '\0' ' ' <"$file"; } 2>/dev/null | grep -q "$1 .*$scratch/run"; then
            file=${file%/cmdline}
            echo "${file##*/}"
        fi
    done
}
agents() { running snmpd; }
watchers() { running 'kavplat describe --watch'; }
# shellcheck disable=SC2317 # called by the trap
clean_up() {
    [[ -z $runner ]] || kill -KILL "$runner" 2>/dev/null || true
    local pid
    for pid in $(agents) $(watchers); do
        kill -KILL "$pid" 2>/dev/null || true
    done
    rm -rf -- "$scratch"
}
trap clean_up EXIT

fail() {
    echo "FAILED: $*"
    cat -- "$output" 2>/dev/null || true
    exit 1
}
until_so() { # WHAT COMMAND...: within 60 seconds
    local what=$1 deadline=$((SECONDS + 60))
    shift
    until "$@"; do
        [[ $SECONDS -lt $deadline ]] || fail "$what"
        sleep 0.05
    done
}
no_agents() { [[ -z $(agents) && -z $(watchers) ]]; }
said() { grep -q -- "$1" "$output"; }

free_port() {
    perl -MSocket -e 'socket(my $s, PF_INET, SOCK_DGRAM, 0) or die; bind($s, sockaddr_in(0, INADDR_LOOPBACK)) or die;
        print((sockaddr_in(getsockname($s)))[0])'
}
KAVPLAT_PORT=$(free_port)
export KAVPLAT_PORT

# Job control gives a background command the signals that a terminal would send.
start() {
    : >"$output"
    set -m
    "$source_dir/tools/run-agent" "$build_dir" >"$output" 2>&1 &
    runner=$!
    set +m
    until_so "the agent is served" ready
}
ready() {
    kill -0 "$runner" 2>/dev/null || fail "run-agent ended"
    said 'Ctrl-C ends it'
}
status_of_runner() {
    local status=0
    wait "$runner" || status=$?
    runner=
    echo "$status" >"$scratch/status"
}
names() {
    snmpbulkwalk -v2c -c public -Oqv -m '' "127.0.0.1:$KAVPLAT_PORT" 1.3.6.1.2.1.47.1.1.1.1.7
}

case $case in
serves_and_ends_on_interrupt | ends_on_terminate)
    signal=INT
    [[ $case == serves_and_ends_on_interrupt ]] || signal=TERM
    start
    in_file=$(grep -c '"name":' "$source_dir/servers/rack-2u.json")
    said "serving $in_file entities of $scratch/run/server.json" || fail "not all $in_file are served"
    [[ $(names | wc -l) -eq $in_file ]] || fail "not all $in_file answer"
    said '^ *1 */SYS *chassis *0 ' || fail "the sample does not show the root"
    said '^ *3 */SYS/T_AMB *23750 *-3 *degreesC *40000$' || fail "the sample shows no sensor"
    said '^ *9 */SYS/LOCATE *alternating *usual$' || fail "the sample shows no alarm"
    first_rows=$(grep -A 1 '^ *Index ' "$output" | grep -v 'Index\|--')
    [[ $first_rows != *SLOT_ID* ]] || fail "a sample begins with what says nothing"
    [[ $first_rows == *\ critical* ]] || fail "the gravest do not come first"
    said "for /SYS/SLOT_ID: a slot's number has limits of 0" || fail "it does not say why that is critical"
    [[ $(agents | wc -l) -ge 1 ]] || fail "no agent was found, so its end proves nothing"
    # To the whole group, as a terminal does.
    kill "-$signal" -- "-$runner"
    status_of_runner
    [[ $(<"$scratch/status") -eq 0 ]] || fail "exit status $(<"$scratch/status")"
    no_agents || fail "it left an agent behind"
    ! names >/dev/null 2>&1 || fail "somebody still answers"
    ;;
works_in_a_folder_with_a_blank)
    mkdir "$scratch/a folder"
    ln -s "$source_dir" "$scratch/a folder/source"
    ln -s "$build_dir" "$scratch/a folder/build"
    source_dir="$scratch/a folder/source" build_dir="$scratch/a folder/build"
    export KAVPLAT_RUN="$scratch/run here"
    start
    said "entities of $scratch/run here/server.json" || fail "it is not served from where it was told"
    grep '^  snmpbulkwalk .* entPhysicalTable$' "$output" >"$scratch/commands"
    (cd / && bash "$scratch/commands" >"$scratch/answers")
    grep -q 'ENTITY-MIB::entPhysicalClass.1 = INTEGER: chassis' "$scratch/answers" ||
        fail "the printed walk finds no names"
    ;;
ends_when_killed)
    start
    [[ $(agents | wc -l) -ge 1 ]] || fail "no agent was found, so its end proves nothing"
    kill -KILL "$runner"
    status_of_runner
    until_so "the agent ends with a killed run-agent" no_agents
    ;;
printed_commands_work)
    start
    sed -n '/^Try,/,/^What the agent logs/p' "$output" | grep '^  [a-z]' >"$scratch/commands"
    [[ $(wc -l <"$scratch/commands") -eq 7 ]] || fail "seven commands were expected"
    # As pasted: in a shell, elsewhere.
    (cd / && bash "$scratch/commands" >"$scratch/answers")
    grep -q 'ENTITY-MIB::entPhysicalClass.1 = INTEGER: chassis' "$scratch/answers" ||
        fail "the walk has no names"
    grep -q '^ *9 *visible *alternating' "$scratch/answers" || fail "the alarm table has no labels"
    # The bay is there, goes, and comes back with other indexes.
    grep 'entPhysicalName.*= STRING: "*/SYS/HDD3"*$' "$scratch/answers" >"$scratch/bay" || true
    [[ $(sort -u "$scratch/bay" | wc -l) -eq 2 ]] ||
        fail "the bay was seen as: $(<"$scratch/bay")"
    last=$(bash <(tail -n 1 "$scratch/commands"))
    [[ $(wc -l <<<"$last") -ge 5 ]] || fail "what the bay holds did not come back: $last"
    # The walk, the first grep and the last: three times the bay, so not in between.
    [[ $(wc -l <"$scratch/bay") -eq 3 ]] || fail "the bay did not go: $(<"$scratch/bay")"
    ;;
refuses_a_port_in_use)
    perl -MSocket -e 'socket(my $s, PF_INET, SOCK_DGRAM, 0) or die; bind($s, sockaddr_in($ARGV[0], INADDR_LOOPBACK)) or die;
        open(my $f, ">", $ARGV[1]) or die; close($f); sleep 100' "$KAVPLAT_PORT" "$scratch/bound" &
    holder=$!
    until_so "the port is taken" test -e "$scratch/bound"
    status=0
    "$source_dir/tools/run-agent" "$build_dir" >"$output" 2>&1 || status=$?
    kill "$holder"
    [[ $status -eq 1 ]] || fail "exit status $status"
    said "UDP port $KAVPLAT_PORT on 127.0.0.1 is not to be had: Address already in use" ||
        fail "it does not say why"
    [[ ! -e $scratch/run ]] || fail "it had begun before it looked"
    ;;
serves_this_machine | ends_what_watches_this_machine_when_killed)
    export MACHINE=1
    start
    machine=$scratch/run/machine.json
    in_file=$(grep -c '"name":' "$machine")
    said "serving $in_file entities of $machine" || fail "not all $in_file are served"
    said '^ *1 */SYS ' || fail "the sample does not show the root"
    ! said 'edit .*and ask again' || fail "it tells to edit what is written anew"
    [[ $(watchers | wc -l) -eq 1 ]] || fail "nobody keeps the description current"
    until_so "what watches says that it does" \
        grep -q "kavplat describe: $machine: describes this machine" "$scratch/run/agent.log"
    if [[ $case == serves_this_machine ]]; then
        kill -INT -- "-$runner"
        status_of_runner
        [[ $(<"$scratch/status") -eq 0 ]] || fail "exit status $(<"$scratch/status")"
        no_agents || fail "it left an agent behind, or what watches"
    else
        kill -KILL "$runner"
        status_of_runner
        until_so "both end with a killed run-agent" no_agents
    fi
    ;;
refuses_another_machine_and_two_servers)
    refused() { # MACHINE DESCRIPTION WHY
        local status=0
        MACHINE=$1 DESCRIPTION=$2 "$source_dir/tools/run-agent" "$build_dir" >"$output" 2>&1 || status=$?
        [[ $status -eq 1 ]] || fail "exit status $status"
        said "$3" || fail "it does not say why"
    }
    refused yes '' "MACHINE is 'yes', but it is 1, or not set"
    refused 1 "$source_dir/servers/minimal.json" 'MACHINE and DESCRIPTION are both set, but'
    [[ ! -e $scratch/run ]] || fail "it had begun before it looked"
    ;;
refuses_a_bad_description)
    printf '{ "product": { "model": "M" }, "components": [ { "name": "/SYS" } ] }' >"$scratch/bad.json"
    status=0
    DESCRIPTION=$scratch/bad.json "$source_dir/tools/run-agent" "$build_dir" >"$output" 2>&1 || status=$?
    [[ $status -eq 1 ]] || fail "exit status $status"
    said "$scratch/bad.json:1: /components/0 (/SYS): expected" || fail "it does not say where"
    no_agents || fail "it had started an agent"
    ;;
keeps_an_edited_copy)
    mkdir "$scratch/run"
    cp "$source_dir/servers/minimal.json" "$scratch/run/server.json"
    start
    said 'serving 4[0-9][0-9] entities' || fail "it does not start from the server that comes with it"
    cmp "$source_dir/servers/minimal.json" "$scratch/run/server.json.previous" ||
        fail "what was in server.json is lost"
    ;;
works_without_namespaces)
    mkdir "$scratch/bin"
    printf '#!/bin/sh\nexit 1\n' >"$scratch/bin/unshare"
    chmod +x "$scratch/bin/unshare"
    PATH=$scratch/bin:$PATH
    # If this went wrong, the module would end every agent that it sees: so the
    # whole case runs in a namespace, with an agent of somebody else beside it.
    fail_if_alone() { kill -0 "$bystander" 2>/dev/null || fail "another agent was ended too"; }
    if [[ $$ -ne 1 && -z ${KAVPLAT_INSIDE-} ]]; then
        namespace=(/usr/bin/unshare --pid --fork --kill-child --mount-proc)
        [[ $(id -u) -eq 0 ]] || namespace+=(--user --map-root-user)
        if ! "${namespace[@]}" true; then
            echo "this machine refuses namespaces: the case would not be safe, so it is skipped"
            exit 77
        fi
        KAVPLAT_INSIDE=yes "${namespace[@]}" "$0" "$@"
        exit
    fi
    cp "$(type -P sleep)" "$scratch/bin/snmpd-bystander"
    (exec -a snmpd "$scratch/bin/snmpd-bystander" 100) &
    bystander=$!
    until_so "the bystander is one for pidof" pidof snmpd >/dev/null
    start
    said 'refuses pid namespaces' || fail "it does not say so"
    kill -INT -- "-$runner"
    status_of_runner
    [[ $(<"$scratch/status") -eq 0 ]] || fail "exit status $(<"$scratch/status")"
    no_agents || fail "it left an agent behind"
    fail_if_alone
    kill "$bystander"
    ;;
*)
    fail "no such case: $case"
    ;;
esac
echo "$case: as expected"
