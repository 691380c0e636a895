#!/usr/bin/env bash
# Scenarios that name a log and a dump, which the engine reads: synthetic ones and, where
# BYPASS_SHARED_DATA holds them, real ones; and dumps that the engine refuses.
# usage: dump_scenario_test.sh WINE_RUN PROGRAM SCENARIO_FOLDER
set -eu
wine=$1 program=$2 scenarios=$3 data=${BYPASS_SHARED_DATA:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
run() {
    timeout 100 "$wine" "$program" run --quiet --log none "$@"
}

timeout 100 "$wine" "$program" synthesize --memory-dump "$scenarios/default.json" "$work/evidence" >/dev/null
for dump in Minidump/*.dmp MEMORY.DMP; do
    sed "s|DUMP|$(cd "$work" && echo evidence/$dump)|" >"$work/scenario.json" <<'END'
{"products": {"guard": {"modules": ["guard_flt"]}, "vault": {"modules": ["vault_fs"]}},
 "before": {"ends": "blue_screen", "crash": {"dump": "DUMP"}},
 "machine": {"events_from": "evidence/System.evtx"},
 "boots": [{"at": "2024-03-08T09:00:00Z", "until": 100, "expect": {
  "log": ["find [guard_flt] crach!"], "no_log": ["find [vault_fs]", "find [guard_net]"],
  "products": {"guard": {"status": "bypass"}, "vault": {"status": "bypass"}}}}]}
END
    run "$work/scenario.json"
done

if [ -f "$data/system.evtx" ] && [ -f "$data/triage_x64.dmp" ]; then
    for zone in UTC Asia/Tokyo America/New_York; do
        TZ=$zone run --define "shared=$data" "$scenarios/real/log.json" "$scenarios/real/dump.json"
    done
fi

# A dump that the engine rejects is reported with the reason, and no module is blamed.
refused() {
    cp "$work"/evidence/Minidump/*.dmp "$work/bad.dmp"
    printf "$2" | dd of="$work/bad.dmp" bs=1 seek="$3" conv=notrunc status=none
    [ -z "${4:-}" ] || truncate --size="$4" "$work/bad.dmp"
    printf '{"products": {"p": {"modules": ["guard_flt"]}}, "before": {"ends": "blue_screen", "crash": {"dump": "bad.dmp"}},
"boots": [{"until": 100, "expect": {"commands": [], "log": ["OpenDumpFileWide failed with hr = 0x8"]}}]}' >"$work/bad.json"
    timeout 100 "$wine" "$program" run --log none "$work/bad.json" >"$work/out.txt"
    grep -q "debugger engine refuses" "$work/out.txt" || {
        echo "FAILED: $1: no reason is reported"
        exit 1
    }
}
refused "32-bit dump" "PAGEDUMP" 0
refused "user-mode dump" "MDMP" 0
refused "another type of dump" '\x02' 3992
refused "truncated" "P" 0 9000
echo "logs and dumps give what they should"
