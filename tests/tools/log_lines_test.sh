#!/bin/bash
# docs/operating.md explains every line that the code may log, whole but for what differs
# from case to case, and none that it may not.
# usage: log_lines_test.sh SOURCE_DIR
set -euo pipefail
cd -- "$1"
# kavplat capture shares a directory with describe, and is nobody's service.
mapfile -t files < <(find src described tools/kavplatd tools/kavplat/describe \( -name '*.cpp' -o -name '*.h' \) \
    ! -name 'capture*' ! -name 'archive*' ! -name anonymous.cpp | sort)
logged=$(tests/tools/log_lines "${files[@]}" | sort -u)
# shellcheck disable=SC2016 # a literal backquote
explained=$(sed -n 's/^| `\([^`]*\)` |.*/\1/p' docs/operating.md | sort -u)
[[ $(wc -l <<<"$logged") -ge 100 ]] || { echo "only $(wc -l <<<"$logged") lines of the log were found" >&2; exit 1; }
# Each kind has one that is known to be there.
for line in 'init_local_cache:local cache ready' '...: refused; there is no inventory until it is good' \
    'kavplatd: told to end' 'kavplat describe: ...: written anew' '...it does not answer in time'; do
    grep -qxF -e "$line" <<<"$logged" || { echo "not found in the code: $line" >&2; exit 1; }
done
if ! differing=$(diff <(echo "$explained") <(echo "$logged")); then
    sed -n 's/^> /docs\/operating.md does not explain: /p; s/^< /docs\/operating.md explains what nobody logs: /p' <<<"$differing" >&2
    exit 1
fi
echo "$(wc -l <<<"$logged") lines of the log, all explained"
