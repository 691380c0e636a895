#!/usr/bin/env bash
# Every line that the plug-in logs in every scenario has the form that log readers rely on.
# usage: log_lines_test.sh WINE_RUN PROGRAM SCENARIO...
set -u
wine=$1 program=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$wine" "$program" run --json --log debug "$@" >"$work/lines.json" || exit 1
python3 - "$work/lines.json" <<'END'
import json, re, sys
form = re.compile(r'^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] \[(fatal|error|warn|info|debug)\] \[pid:\d+\] \[tid:\d+\] '
                  r'\[vkl\] \[[a-z_]+\.cpp:\d+\] .', re.S)
seen, bad = {}, []
for line in open(sys.argv[1], encoding="utf-8"):
    what = json.loads(line)
    if what["kind"] != "log" or what["text"].startswith("ejs: "):
        continue  # the platform's own lines about a damaged file are not the plug-in's
    match = form.match(what["text"])
    if match:
        seen[match.group(1)] = seen.get(match.group(1), 0) + 1
    else:
        bad.append(what["text"])
for text in bad[:5]:
    print("FAILED: not of the form:", text)
missing = {"error", "warn", "info", "debug"} - set(seen)
if missing:
    print("FAILED: no line of level", ", ".join(sorted(missing)))
print("lines by level:", seen)
sys.exit(1 if bad or missing else 0)
END
