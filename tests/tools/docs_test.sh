#!/bin/bash
# What the documents name must exist: each test that holds an oddity, each heading
# and file that is linked, each target of make and each file of this tree.
# usage: docs_test.sh SOURCE_DIR BUILD_DIR CTEST
set -euo pipefail
export LC_ALL=C
# shellcheck source=tests/tools/links.sh
. "${BASH_SOURCE[0]%/*}/links.sh"

source_dir=$1 build_dir=$2 ctest=$3
failed=0
complain() {
    echo "$*"
    failed=1
}

# The tests: `Suite.name`, alone in a cell or a line of code.
tests=$("$ctest" --test-dir "$build_dir" -N | sed -n 's/^ *Test *#[0-9]*: //p')
# shellcheck disable=SC2016 # the quotes are Markdown's
named=$(grep -o '`[A-Za-z0-9_]*\.[A-Za-z0-9_]*`' "$source_dir/docs/oddities.md" | tr -d '`' |
    grep -v '\.\(md\|cpp\|h\|dat\|so\|txt\|json\|entity\)$' | sort -u || true)
count=0
while read -r name; do
    [[ -n $name ]] || continue
    count=$((count + 1))
    # A parametrised test has a prefix and a number around the name.
    grep -Eq "^(.*/)?${name//./\\.}(/.*)?\$" <<<"$tests" ||
        complain "docs/oddities.md names the test $name, but there is none"
done <<<"$named"
[[ $count -ge 20 ]] || complain "docs/oddities.md names only $count tests, that cannot be all"

# An oddity without a test is one that somebody will mend.
while IFS= read -r row; do
    [[ $row == *'`'*.*'` |' ]] || complain "docs/oddities.md has no test for: $row"
done < <(grep '^| ' "$source_dir/docs/oddities.md" | grep -v '^| \(Behaviour\|---\)')

cd -- "$source_dir"
documents=(README.md CONTRIBUTING.md docs/*.md mibs/README.md)
while IFS= read -r line; do
    complain "$line"
done < <(dead_links "${documents[@]}")
# shellcheck disable=SC2016 # the quotes are Markdown's
paths='`\(\.ci\|bench\|cmake\|described\|docs\|examples\|mibs\|platform\|schema\|servers\|src\|tests\|tools\)/[A-Za-z0-9_./-]*`'
for document in "${documents[@]}"; do
    while read -r path; do
        [[ -e $path || $path == *kavPlatYourTable* ]] || complain "$document names $path, which is not there"
    done < <(grep -o "$paths" "$document" | tr -d '`' | sort -u)
    while read -r target; do
        case $target in
        check-*) grep -q "\"name\": \"${target#check-}\"" CMakePresets.json ||
            complain "$document says make $target, but there is no such preset" ;;
        *) grep -q "^$target:" Makefile || complain "$document says make $target, but there is no such target" ;;
        esac
    done < <(grep -o '\(^ *\|`\)make [a-z-]*' "$document" | sed 's/.*make //' | sort -u)
done
[[ $(wc -l <README.md) -lt 150 ]] || complain "README.md has $(wc -l <README.md) lines: less than 150 are read"

[[ $failed -eq 0 ]] && echo "$count tests named, all there"
exit "$failed"
