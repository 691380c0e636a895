#!/usr/bin/env bash
# A real System log to its verdict, a real dump to its module, and what is no such dump refused.
# usage: real_evidence_test.sh WINE_RUN PROGRAM SCENARIO_FOLDER
set -u
wine=$1 program=$2 scenarios=$3 data=${BYPASS_SHARED_DATA:-}
if [ ! -f "$data/system.evtx" ] || [ ! -f "$data/triage_x64.dmp" ]; then
    echo "skipped: no real System log and dump on this machine"
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
set -e
for zone in UTC Asia/Tokyo America/New_York; do
    TZ=$zone "$wine" "$program" run --quiet --log none --define "shared=$data" "$scenarios/log.json" "$scenarios/dump.json"
done

# What the engine refuses is told with the reason, and blames nobody.
refused() {
    cp "$data/triage_x64.dmp" "$work/bad.dmp"
    printf "$2" | dd of="$work/bad.dmp" bs=1 seek="$3" conv=notrunc status=none
    [ -z "${4:-}" ] || truncate --size="$4" "$work/bad.dmp"
    printf '{"products": {"p": {"modules": ["amdppm"]}}, "before": {"ends": "blue_screen", "crash": {"dump": "bad.dmp"}},
"boots": [{"until": 100, "expect": {"commands": [], "log": ["OpenDumpFileWide failed with hr = 0x8"]}}]}' >"$work/bad.json"
    "$wine" "$program" run --log none "$work/bad.json" >"$work/out.txt"
    grep -q "debugger engine refuses" "$work/out.txt" || {
        echo "FAILED: $1: no reason was told"
        exit 1
    }
}
refused "32-bit dump" "PAGEDUMP" 0
refused "user-mode dump" "MDMP" 0
refused "another type of dump" '\x02' 3992
refused "cut off" "P" 0 20000
echo "real evidence gives what it should"
