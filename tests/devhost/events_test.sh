#!/usr/bin/env bash
# Logs as records: bad calls, bad files and, where BYPASS_SHARED_DATA holds one, a real log, whole
# and damaged. usage: events_test.sh WINE_RUN PROGRAM. Exit status 77: no real log there.
set -u
wine=$1 program=$2
data=${BYPASS_SHARED_DATA:-/none}
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

# copy NAME [BYTES]: the real log, or its beginning.
copy() {
    head -c "${2:-999999999}" "$data/system.evtx" >"$work/$1"
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

if [ ! -f "$data/system.evtx" ]; then
    [ $failures = 0 ] || exit 1
    echo "skipped: $data holds no system.evtx"
    exit 77
fi

log=$data/system.evtx
check "whole log" 0 '' --strict "$log"
count "all records" 1881 '^\{"record":[0-9]+,"source":"[^"]+","id":[0-9]+,"time":"20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9:]{8}Z","type":[124],"strings":\[.*\]\},?$'
count "starts" 3 '"source":"Microsoft-Windows-Kernel-General","id":12,'
count "clean shutdowns" 2 '"source":"Microsoft-Windows-Kernel-General","id":13,'
count "other records 12" 3 '"source":"Microsoft-Windows-UserModePowerService","id":12,'
count "start's strings" 1 '"time":"2017-07-12T17:16:05Z".*"strings":\["10","0","15063","413","0","0","2017-07-12T17:16:05.499259900Z"\]'
count "source of its own" 0 '"source":"Microsoft-Windows-DistributedCOM"'
count "qualifiers" 1 '^\{"record":1,"source":"EventLog","id":2147489657,'
count "binary data is no string" 1 '^\{"record":2,.*"strings":\[\]'
grep -oE '^\{"record":[0-9]+' "$work/out" | grep -oE '[0-9]+' | sort -nc || fail "order" "not rising"
cp "$work/out" "$work/whole.json"

check "range" 0 '' --from 10 --to 12 "$log"
count "range" 3 '"record":1[012],'
count "only the range" 3 '"record"'
check "nothing in range" 0 '' --from 5000 "$log"
count "nothing in range" 0 '"record"'

check "output file" 0 '' -o "$work/a.json" "$log"
cmp -s "$work/a.json" "$work/whole.json" || fail "output file" "differs from the printed result"
check "no such folder" 2 '.*no/a.json.: path not found .3.' -o "$work/no/a.json" "$log"
[ ! -e /dev/full ] || {
    timeout 60 "$wine" "$program" events "$log" >/dev/full 2>"$work/err"
    [ $? = 2 ] || fail "full device" "exit status is not 2"
}

# Chunk 3 holds the records 327 to 444 and starts at byte 200704.
copy chunk.evtx
put chunk.evtx 200704
check "chunk header" 0 '.*: chunk without a header, whose records are used: chunk 3 at byte 200704' "$work/chunk.evtx"
count "chunk header" 1881 '"record"'
check "damaged, strict" 3 '.*: chunk without a header, .*' --strict -o "$work/a.json" "$work/chunk.evtx"
tr '\0' X </dev/zero | dd of="$work/chunk.evtx" bs=65536 iflag=fullblock oflag=seek_bytes seek=200704 count=1 conv=notrunc status=none
check "damaged chunk" 0 '.*: records missing: 327 to 444' "$work/chunk.evtx"
count "damaged chunk" 1763 '"record"'
check "its place" 0 '.*: chunk missing: chunk 3 at byte 200704' "$work/chunk.evtx"
check "its sum" 0 '.*: damaged: 1,763 records read, 118 records missing' "$work/chunk.evtx"
copy record.evtx
put record.evtx 6144
check "damaged record" 0 '.*: wrong check sum of the records, .*: chunk 0 at byte 4096' "$work/record.evtx"
copy empty_chunk.evtx
dd if=/dev/zero of="$work/empty_chunk.evtx" bs=4096 seek=1 count=16 conv=notrunc status=none
check "empty chunk" 0 '.*: empty chunk before a used one: chunk 0 at byte 4096' "$work/empty_chunk.evtx"
copy header.evtx
put header.evtx 24
check "damaged header" 0 '.*: wrong check sum of the file.s header at byte 0' "$work/header.evtx"

copy cut.evtx 361776
check "cut off" 3 '.*: truncated inside chunk 5 at byte 331776 .--lenient.*' -o "$work/b.json" "$work/cut.evtx"
check "cut off, lenient" 0 '.*: truncated inside chunk 5 .*' --lenient "$work/cut.evtx"
count "cut off, lenient" 626 '"record"'
copy chunks.evtx 135168
check "cut between chunks" 3 '.*: truncated after 2 of 3 chunks at byte 135168 .*' "$work/chunks.evtx"
check "what is lost" 0 '.*: records missing: 211 to 308' --lenient "$work/chunks.evtx"

[ "$(echo "$work"/*.json*)" = "$work/a.json $work/whole.json" ] ||
    fail "left over" "$(echo "$work"/*.json*)"
[ $failures = 0 ]
