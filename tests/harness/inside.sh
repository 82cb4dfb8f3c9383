#!/bin/bash
# To be sourced before all else by tests that start agents from a shell: what follows
# runs in a pid namespace of its own, whose end is that of what was started, since an
# agent ends every snmpd that it can see. $scratch is a directory that goes with it, and
# fail is for the test to define.
PATH=$PATH:/usr/sbin:/sbin
if [[ ${KAVPLAT_INSIDE-} != yes ]]; then
    namespace=(unshare --pid --fork --kill-child --mount-proc)
    [[ $(id -u) -eq 0 ]] || namespace+=(--user --map-root-user)
    KAVPLAT_INSIDE=yes exec "${namespace[@]}" "$0" "$@"
fi
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

free_port() {
    perl -MSocket -e 'socket(my $s, PF_INET, SOCK_DGRAM, 0);
        bind($s, sockaddr_in(0, INADDR_LOOPBACK)); print((sockaddr_in(getsockname($s)))[0])'
}
until_so() { # WHAT COMMAND...
    local what=$1 deadline=$((SECONDS + 60))
    shift
    until "$@"; do
        [[ $SECONDS -lt $deadline ]] || fail "not so within 60 seconds: $what"
        sleep 0.05
    done
}
