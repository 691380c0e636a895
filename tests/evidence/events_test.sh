#!/usr/bin/env bash
# Logs as records: bad calls, bad files, and a synthetic log, whole and damaged.
# usage: events_test.sh WINE_RUN PROGRAM SCENARIO
set -u
wine=$1 program=$2 scenario=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

fail() {
    echo "FAILED: $1: $2"
    failures=$((failures + 1))
}

# check ROW STATUS STDERR ARGUMENT...: runs the program; STDERR is a pattern for one of its lines,
# or nothing for silence. What it printed is in $work/out.
check() {
    local row=$1 status=$2 pattern=$3 got
    shift 3
    timeout 60 "$wine" "$program" events "$@" >"$work/out" 2>"$work/err"
    got=$?
    [ $got = "$status" ] || fail "$row" "exit status $got, expected $status: $(cat "$work/err")"
    tr -d '\r' <"$work/err" >"$work/err.txt" && mv "$work/err.txt" "$work/err"
    if [ -z "$pattern" ]; then
        [ ! -s "$work/err" ] || fail "$row" "stderr says $(cat "$work/err")"
    else
        grep -qE -- "$pattern" "$work/err" ||
            fail "$row" "stderr says $(cat "$work/err"), expected $pattern"
    fi
    [ "$status" = 0 ] || [ ! -s "$work/out" ] || fail "$row" "something was printed"
}

# count ROW EXPECTED PATTERN: records in $work/out that match.
count() {
    local got
    got=$(grep -cE -- "$3" "$work/out")
    [ "$got" = "$2" ] || fail "$1" "$got records with $3, expected $2"
}

# copy NAME [BYTES]: the log, or its beginning.
copy() {
    head -c "${2:-999999999}" "$log" >"$work/$1"
}

# put NAME OFFSET: four bytes of a file become "XXXX".
put() {
    printf XXXX | dd of="$work/$1" bs=1 seek="$2" conv=notrunc status=none
}

printf 'not a log at all' >"$work/text.evtx"
printf 'ElfFile\0' >"$work/start.evtx"
: >"$work/empty.evtx"

check "no file named" 2 'FILE is required.*'
check "unknown option" 2 '.*--unknown.*' --unknown x
check "two files" 2 '.*' x y
check "number that is none" 2 '.*--from.*' --from x "$work/text.evtx"
check "range upside down" 2 '.*--from is higher.*' --from 2 --to 1 "$work/text.evtx"
check "strict and lenient" 2 '.*' --strict --lenient "$work/text.evtx"
check "missing file" 3 '.*none.evtx: cannot be opened: file not found .2.' "$work/none.evtx"
check "folder" 3 '.*: a folder, expected a file' "$work"
check "another file" 3 '.*text.evtx: not an event log: .*' "$work/text.evtx"
check "empty file" 3 '.*empty.evtx: empty, expected an event log' "$work/empty.evtx"
check "header cut off" 3 '.*start.evtx: truncated inside the header at byte 8' "$work/start.evtx"
check "header, lenient" 3 '.*: truncated inside the header at byte 8' --lenient "$work/start.evtx"
check "help" 0 '' --help
grep -q -- '--lenient' "$work/out" || fail "help" "does not name --lenient"

timeout 60 "$wine" "$program" synthesize --noise 300 "$scenario" "$work/evidence" >/dev/null ||
    fail "synthesize" "exit status $?"
log=$work/evidence/System.evtx
all=$(sed -n 's/.*"records": \([0-9]*\).*/\1/p' "$work/evidence/truth.json")

# number CHUNK FIELD: the first or last record number in a chunk's header.
number() {
    od -An -tu8 -j $((4096 + 65536 * $1 + 8 * $2)) -N 8 "$log" | tr -d ' '
}
first=$(number 2 1) last=$(number 2 2) end=$(number 0 2)

check "whole log" 0 '' --strict "$log"
count "all records" "$all" '^\{"record":[0-9]+,"source":"[^"]+","id":[0-9]+,"time":"20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9:]{8}Z","type":[124],"strings":\[.*\]\},?$'
count "starts" 2 '"source":"Microsoft-Windows-Kernel-General","id":12,'
count "clean shutdowns" 1 '"source":"Microsoft-Windows-Kernel-General","id":13,'
count "start's strings" 1 '"time":"2024-03-07T09:00:00Z".*"strings":\["10","0","19041","1","0","0","2024-03-07T09:00:00.000000000Z"\]'
count "source of its own" 0 '"source":"Microsoft-Windows-WER-SystemErrorReporting"'
count "qualifiers" 2 '"source":"EventLog","id":2147489653,'
count "no strings" 2 '"id":2147489653,.*"strings":\[\]'
grep -oE '^\{"record":[0-9]+' "$work/out" | grep -oE '[0-9]+' | sort -nc || fail "order" "not rising"
cp "$work/out" "$work/whole.json"

check "range" 0 '' --from "$first" --to $((first + 2)) "$log"
count "range" 3 '"record"'
check "nothing in range" 0 '' --from 90000 "$log"
count "nothing in range" 0 '"record"'

check "output file" 0 '' -o "$work/a.json" "$log"
cmp -s "$work/a.json" "$work/whole.json" || fail "output file" "differs from the printed result"
check "no such folder" 2 '.*no/a.json.: path not found .3.' -o "$work/no/a.json" "$log"
[ ! -e /dev/full ] || {
    timeout 60 "$wine" "$program" events "$log" >/dev/full 2>"$work/err"
    [ $? = 2 ] || fail "full device" "exit status is not 2"
}

# Chunk 2 starts at byte 135168.
copy chunk.evtx
put chunk.evtx 135168
check "damaged, strict" 3 '.*: chunk without a header, .*' --strict -o "$work/a.json" "$work/chunk.evtx"
tr '\0' X </dev/zero | dd of="$work/chunk.evtx" bs=65536 iflag=fullblock oflag=seek_bytes seek=135168 count=1 conv=notrunc status=none
check "damaged chunk" 0 ".*: records missing: $first to $last" "$work/chunk.evtx"
check "its sum" 0 ".*: damaged: $((all - (last - first + 1))) records read, $((last - first + 1)) records missing" "$work/chunk.evtx"
copy header.evtx
put header.evtx 24
check "damaged header" 0 '.*: wrong check sum of the file.s header at byte 0' "$work/header.evtx"

copy cut.evtx 165000
check "cut off" 3 '.*: truncated inside chunk 2 at byte 135168 .--lenient.*' -o "$work/b.json" "$work/cut.evtx"
check "cut off, lenient" 0 '.*: truncated inside chunk 2 .*' --lenient "$work/cut.evtx"
copy chunks.evtx 69632
check "cut between chunks" 3 ".*: truncated after 1 of [0-9]+ chunks at byte 69632 .*" "$work/chunks.evtx"
check "what is lost" 0 ".*: records missing: $((end + 1)) to $((4710 + all))" --lenient "$work/chunks.evtx"

[ "$(echo "$work"/*.json*)" = "$work/a.json $work/whole.json" ] ||
    fail "left over" "$(echo "$work"/*.json*)"
[ $failures = 0 ]
