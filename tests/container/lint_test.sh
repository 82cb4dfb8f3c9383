#!/bin/bash
# The Containerfile is understood, and has what makes it ours; whoever judges it would
# tell if not. Building and running it is tests/container/run's.
# usage: lint_test.sh SOURCE_DIR
set -euo pipefail
source_dir=$1
linter=$source_dir/build/fetched/containerfile-linter/node_modules/.bin/dockerfile-utils
[[ -x $linter ]] || { echo "the judge of the Containerfile is not there: run tools/setup test"; exit 1; }
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

container=$source_dir/Containerfile
said=$("$linter" lint "$container" 2>&1) || { printf '%s\n' "$said"; exit 1; }
[[ -z $said ]] || { printf '%s\n' "$said"; exit 1; }
for fault in 's/^HEALTHCHECK --interval=30s/HEALTHCHECK --interval=30x/' 's/^EXPOSE/EXPORT/' 's/^FROM .*//'; do
    sed "$fault" "$container" >"$scratch/Containerfile"
    if "$linter" lint "$scratch/Containerfile" >"$scratch/said" 2>&1; then
        echo "a fault goes unseen: $fault"
        exit 1
    fi
done

# What the agent's end by signal asks for: that snmpd is not the first process.
[[ $(grep -c '^ENTRYPOINT \["/usr/bin/tini", ' "$container") -eq 1 ]] || { echo "snmpd would be the first process"; exit 1; }
[[ $(grep -c '^HEALTHCHECK ' "$container") -eq 1 ]] || { echo "nobody looks whether it serves"; exit 1; }
# What is copied is what the build may see.
while read -r file; do
    grep -qxF -- "!$file" "$source_dir/.containerignore" || { echo ".containerignore hides $file"; exit 1; }
done < <(sed -n 's/^COPY \(.*\) [^ ]*$/\1/p' "$container" | tr ' ' '\n')
