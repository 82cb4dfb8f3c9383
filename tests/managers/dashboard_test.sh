#!/bin/bash
# The dashboard is what Grafana's own types say that one is; whoever judges it would tell
# if not.
# usage: dashboard_test.sh SOURCE_DIR
set -euo pipefail
source_dir=$1
dashboard=$source_dir/managers/grafana/kavplat.json
modules=$source_dir/build/fetched/grafana-types/node_modules
[[ -x $modules/.bin/tsc ]] || { echo "the judge of the dashboard is not there: run tools/setup test"; exit 1; }
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
ln -s -- "$modules" "$scratch/node_modules"
cp -- "$source_dir/tests/managers/grafana/dashboard.d.ts" "$scratch/"
cat >"$scratch/tsconfig.json" <<'END'
{
  "compilerOptions": { "noEmit": true, "strict": true, "module": "esnext", "moduleResolution": "node", "types": [] },
  "include": ["dashboard.d.ts", "served.ts", "spoilt_*.ts"]
}
END
judged() { # what the compiler compares with the type comes on standard input
    echo "import type { OurDashboard } from './dashboard';"
    printf 'export const dashboard: OurDashboard = '
    cat
}
judged <"$dashboard" >"$scratch/served.ts"

spoilt=0
for fault in \
    's/"schemaVersion": 37/"schemaVersion": "37"/' \
    's/"panels"/"panel"/' \
    's/"type": "datasource"/"type": "data source"/' \
    's/"type": "stat"/"type": "stats"/' \
    's/"colorMode": "background"/"colorMode": "red"/' \
    's/"mode": "absolute"/"mode": "absolut"/' \
    's/"w": 6/"w": "6"/' \
    's/"title": "Fans"/"titel": "Fans"/' \
    's/"sort": "desc"/"sort": "downwards"/' \
    's/"showHeader"/"header"/' \
    's/"unit": "celsius"/"units": "celsius"/' \
    's/"expr"/"query"/' \
    's/"format": "table"/"format": "rows"/'; do
    sed "$fault" "$dashboard" | judged >"$scratch/spoilt_$spoilt.ts"
    faults[spoilt++]=$fault
done

said=$(cd -- "$scratch" && node_modules/.bin/tsc -p . --pretty false) && { echo "no fault is seen"; exit 1; }
if grep -q '^[^ s]\|^served\.ts' <<<"$said"; then
    grep -A 3 '^[^ s]\|^served\.ts' <<<"$said"
    exit 1
fi
for number in "${!faults[@]}"; do
    grep -q "^spoilt_$number\.ts(" <<<"$said" || { echo "a fault goes unseen: ${faults[number]}"; exit 1; }
done
echo "a dashboard by Grafana's types, and $spoilt that are none"
