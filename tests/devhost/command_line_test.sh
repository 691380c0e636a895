#!/usr/bin/env bash
# Invalid calls, bad scenarios and bad evidence get one clear line and their exit status.
# usage: command_line_test.sh WINE_RUN PROGRAM SCENARIO_FOLDER
set -u
wine=$1 program=$2 scenarios=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0

fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# check ROW STATUS PATTERN ARGUMENT...: PATTERN is part of what is said on stderr, in one line.
check() {
    local row=$1 status=$2 pattern=$3 got
    shift 3
    "$wine" "$program" "$@" >out.txt 2>err.txt
    got=$?
    [ $got = "$status" ] || fail "$row: exit status $got, expected $status: $(cat err.txt)"
    grep -qE -- "$pattern" err.txt || [ -z "$pattern" ] ||
        fail "$row: stderr says \"$(cat err.txt)\", expected \"$pattern\""
    [ "$status" -le 1 ] || [ "$(grep -c . err.txt)" -le 3 ] || fail "$row: more than a line: $(cat err.txt)"
}

# bad ROW PATTERN TEXT: a scenario with that text is rejected before it is played; see check_rejected.
rejected=()
bad() {
    rejected+=("$1" "$2")
    printf '%s' "$3" >"bad$((${#rejected[@]} / 2)).json"
}

# One start of the program reads all of them. Status 2 is that of each: it is the highest one, and
# what is played prints its result.
check_rejected() {
    local count=$((${#rejected[@]} / 2)) number said
    "$wine" "$program" run $(seq -f 'bad%g.json' $count) >out.txt 2>err.txt
    [ $? = 2 ] || fail "bad scenarios: not all have exit status 2"
    [ ! -s out.txt ] || fail "bad scenarios: played before they were rejected: $(head -3 out.txt)"
    for ((number = 1; number <= count; number++)); do
        said=$(grep -F "bad$number.json:" err.txt)
        [ "$(wc -l <<<"$said")" -le 3 ] &&
            grep -qE -- "bad$number.json:([0-9]+:[0-9]+:)? ?${rejected[2 * number - 1]}" <<<"$said" ||
            fail "${rejected[2 * number - 2]}: stderr says \"$said\", expected \"${rejected[2 * number - 1]}\""
    done
}

check "no command" 2 "subcommand is required" 
check "unknown command" 2 "" fly
check "unknown option" 2 "--fast" run --fast x.json
check "no file" 2 "FILE is required" run
check "missing file" 2 "nowhere.json: cannot be opened, error 2" run nowhere.json
check "bad level" 2 "--log" run --log loud "$scenarios/default.json"
check "bad define" 2 "expected NAME=VALUE" run --define shared "$scenarios/default.json"
check "bad console option" 2 'expected \[BOOT/\]SECONDS:COMMAND' run --console "x bypass" "$scenarios/default.json"
check "boot that does not exist" 2 'there is no boot 3, .*default.json has 2' run --console "3/5:bypass" "$scenarios/default.json"
check "help" 0 "" --help
check "no plug-in" 4 "none.dll: cannot be loaded: module not found .126." run --plugin none.dll "$scenarios/default.json"
check "not a plug-in" 4 "does not export oxni_plugin_init" run --plugin kernel32.dll "$scenarios/default.json"

bad "not JSON" "2:1: Invalid value" $'{"boots": [\n,]}'
bad "not an object" "1:1: /: expected an object, found \[\]" '[]'
bad "no boots" '1:1: /: member "boots" is missing' '{}'
bad "unknown member" '1:24: /boots/0/step: unknown member "step" \(did you mean "steps"\?\)' '{"boots": [{  "step" : []}]}'
bad "wrong type" '2:19: /boots/0/until: expected a number of 0 or more, found "long"' $'{"name": "\\"a,", "products": {"p": {}},\n"boots":[{"until":"long"}]}'
bad "not one of" '1:21: /boots/0/ends: expected one of "clean", "power_loss", "blue_screen", found "badly"' '{"boots": [{"ends": "badly"}]}'
bad "below the least" '1:30: /boots/0/steps/0/at: expected a number of 0 or more, found -1' '{"boots": [{"steps": [{"at": -1, "link": true}]}]}'
bad "above the most" '1:46: /machine/files/0/size: expected an integer from 0 to 1048576, found 2000000' '{"machine": {"files": [{"path": "x", "size": 2000000}]}, "boots": [{}]}'
bad "an empty list" '1:38: /machine/services/x: expected an array or null with an element' '{"machine": {"services": {     "x":  []}}, "boots": [{}]}'
bad "empty step" '1:23: /boots/0/steps/0: no action' '{"boots": [{"steps": [{"at": 1}]}]}'
bad "two things" '1:23: /boots/0/steps/0: both "agent" and "link"' '{"boots": [{"steps": [{"at": 1, "link": true, "agent": "stop"}]}]}'
bad "half a step" '1:[0-9]+: /boots/0/steps/0: member "message" is missing' '{"products": {"p": {}}, "boots": [{"steps": [{"at": 1, "send": "p"}]}]}'
bad "unknown product" '1:72: /boots/0/steps/0/register: there is no product "gard" \(did you mean "guard"\?\)' '{"products": {"guard": {}}, "boots": [{"steps": [{"at": 20, "register":"gard"}]}]}'
bad "unknown product in an expectation" '/boots/0/expect/products: there is no product "p"' '{"boots": [{"expect": {"products": {"p": {"count": 1}}}}]}'
bad "unknown receiver" '/boots/0/steps/0/expect/commands/0/to: there is no product "p"' '{"boots": [{"steps": [{"at": 1, "expect": {"commands": [{"to": "p"}]}}]}]}'
bad "unknown call" '/boots/0/steps/0: "Fly" is not a call of the plug-in that can fail' '{"boots": [{"steps": [{"at": 1, "fail": "Fly"}]}]}'
bad "step after the end" '/boots/0/steps/0/at: is after the end' '{"boots": [{"until": 1, "steps": [{"at": 2, "link": true}]}]}'
bad "agent after the end" '/boots/0/agent_start: is after the end' '{"boots": [{"until": 100, "uptime": 95, "agent_start": 6}]}'
bad "registration after the end" '/products/p/registers: no boot lasts' '{"products": {"p": {"registers": 600}}, "boots": [{}, {"until": 20}]}'
bad "member twice" '1:36: /boots/0/until: member "until" occurs twice' '{"boots": [{"until": 1, "until":   2}]}'
bad "crash of a clean end" '/boots/0/crash: expected "ends"' '{"boots": [{"crash": {}}]}'
bad "failure without an error" '/boots/0/steps/0: "CreateFileW" needs an "error"' '{"boots": [{"steps": [{"at": 1, "fail": "CreateFileW"}]}]}'
bad "text for a number" '/machine/registry/0: "data": expected a number of 0 or more for REG_DWORD, found "x"' '{"machine": {"registry": [{"key": "K", "name": "n", "type": "REG_DWORD", "data": "x"}]}, "boots": [{}]}'
bad "half a callback" '/boots/0/steps/0: "arguments": member "of" is missing' '{"boots": [{"steps": [{"at": 1, "callback": "service", "arguments": {}}]}]}'
bad "unknown level" '/machine/log_level: expected one of "error", "warn", "info", "debug", found "trace"' '{"machine": {"log_level": "trace"}, "boots": [{}]}'
bad "unknown kind of event" '/boots/0/expect/sequence/0/calls: unknown member "calls" \(did you mean "call"\?\)' '{"boots": [{"expect": {"sequence": [{"calls": "x"}]}}]}'
bad "two kinds of event" '/boots/0/expect/sequence/0: expected one member' '{"boots": [{"expect": {"sequence": [{"call": "x", "log": "y"}]}}]}'
bad "half a byte" '/machine/files/0/bytes: expected pairs of hexadecimal digits' '{"machine": {"files": [{"path": "x", "bytes": "0ff"}]}, "boots": [{}]}'
bad "unknown member of a file" '/boots/0/expect/files/x/length: unknown member "length"' '{"boots": [{"expect": {"files": {"x": {"length": 3}}}}]}'
bad "bad time" '/boots/0/at: expected a time such as 2024-03-07T09:05:41Z, found "yesterday"' '{"boots": [{"at": "yesterday"}]}'
bad "bad zone" '/machine/time_zone: unknown time zone "Mars"' '{"machine": {"time_zone": "Mars"}, "boots": [{}]}'
bad "two mistakes, the second" '/boots/1/at: expected a time' '{"boots": [{"ends": 1}, {"at": "later"}]}'
bad "two mistakes, the first" '/boots/0/ends: expected one of' '{"boots": [{"ends": 1}, {"at": "later"}]}'
check_rejected
printf '{"products": {"p": {}}, "boots": [{"steps": [{"at": 1, "register": "p"}]}]}' >bad.json
check "no agent" 2 'bad.json:1:46: /boots/0/steps/0: the agent is not running' run bad.json
printf '{"machine": {"base_folder": 9}, "boots": [{}]}' >bad.json
check "short base folder" 2 '/machine/base_folder: the base folder of this run has at least' run bad.json

evidence() {
    printf '%s' "$3" >evidence.json
    printf '{"machine": {"events_from": "evidence.json"}, "boots": [{}]}' >s.json
    check "$1" 3 "evidence.json: $2" run s.json
}
evidence "events are no JSON" "not an event log: it does not begin" 'no'
evidence "events are no array" "expected an array" '{}'
evidence "an event without id" '/0: member "id" is missing' '[{"source": "x"}]'
printf '{"before": {"ends": "blue_screen", "crash": {"dump": "no.dmp"}}, "boots": [{}]}' >s.json
check "missing dump" 3 "no.dmp: cannot be opened, error 2" run s.json
printf '{"before": {"ends": "blue_screen", "crash": {"dump": "{place}/no.dmp"}}, "boots": [{}]}' >s.json
check "evidence that is not here" 77 "needs --define place=" run s.json

# Nothing outside the run's folder is touched, whatever a path looks like.
echo mine >victim.txt
printf '{"boots": [{"until": 5, "steps": [{"at": 1, "delete_file": "victim.txt"}, {"at": 2, "file": {"path": "stray.txt", "text": "x"}}, {"at": 3, "delete_file": "%s/victim.txt"}]}]}' "$work" >s.json
check "paths of this machine" 0 "" run --log none s.json
[ -f victim.txt ] && [ ! -f stray.txt ] ||
    fail "paths of this machine: a file outside the run was touched"

# An expectation that does not hold is reported with its place; one of each kind.
printf '%s' '{"products": {"p": {}}, "boots": [{"expect": {"commands": [{"to": "p"}], "log": ["never said"], "no_log": ["system boot up"], "uploads": [{}],
 "echo": ["x"], "complaints": ["x"], "refused": ["x"], "call_counts": {"oxni_sleep": 7}, "calls": ["NoSuchCall"], "no_calls": ["oxni_timer_start"], "products": {"p": {"count": 9}},
 "timers": {"30000": 9}, "references": {"p": 9, "q/q": 1}, "sequence": [{"left": ""}], "documents": {"none.ejs": {}}, "registry": [{"key": "X", "name": "y", "data": "z"}], "keys": {"X": true}, "files": {"C:\\x": true}, "agent": "stopped",
 "pending_replies": 3, "messages": [], "log_counts": {"never said": 1}}}]}' >s.json
check "nothing holds" 1 "s.json:1:59: /boots/0/expect/commands: \[0\] is missing" run --quiet s.json
for member in commands messages uploads log no_log log_counts echo refused complaints calls no_calls \
    call_counts timers references sequence products documents registry keys files agent pending_replies; do
    grep -q "/boots/0/expect/$member:" err.txt ||
        fail "nothing holds: no word about $member"
done
check "stops at the first failure" 1 "" run --quiet --stop s.json "$scenarios/default.json"
grep -q 'default.json' out.txt &&
    fail "stops at the first failure: the next file was played"

# Machines read one object a line; a person's commands work; real time is real.
check "json" 0 "" run --json --log info "$scenarios/default.json"
python3 -c 'import json, sys
kinds = {json.loads(line)["kind"] for line in open("out.txt")}
sys.exit(0 if {"scenario", "boot", "command", "log", "result"} <= kinds else 1)' ||
    fail "json: the lines are not what they should be"
printf '+70s\nbypass -p\nstatus\nnext\nnext\n' | "$wine" "$program" console "$scenarios/default.json" >out.txt 2>err.txt
grep -q '"product_name": "guard", "status": 2' out.txt && grep -q 'guard .*ordered bypass (blamed driver: guard_flt)' out.txt &&
    grep -q "no further boot" out.txt ||
    fail "console: $(cat err.txt)"
check "console command at a time" 0 "" run --console "100:bypass -p" --log none "$scenarios/default.json"
grep -q 'types: bypass -p' out.txt ||
    fail "console command at a time: it was not typed"
printf '{"boots": [{"agent_start": 0.2, "until": 2}]}' >s.json
start=$(date +%s%N)
check "real time" 0 "" run --real-time --log none s.json
[ $((($(date +%s%N) - start) / 1000000)) -ge 2000 ] ||
    fail "real time: two seconds took less"
[ $failures = 0 ] && echo "the command line behaves"
exit $((failures > 0))
