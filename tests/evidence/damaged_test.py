#!/usr/bin/env python3
"""Damages logs at random. Where another reader reads a record of them, too, both must read the same.

usage: damaged_test.py WINE_RUN PROGRAM [LOGS [SEED]]

Each log is the synthetic one of a scenario, one chunk, with up to four places changed. Our reader and
python3-evtx read them as the chunks of one log, whose records get new numbers; evtxexport, which
gives up at some damage, reads one log each. A time is not compared: ours is that of the record's
header, theirs that of the damaged values.
"""
import collections
import json
import random
import re
import struct
import subprocess
import sys
import zlib

from evidence_files import DEFAULT, check, host, prints, run
from other_readers import (NO_XML, PYTHON_EVTX, as_others, evtxexport_joins, from_xml, python_repeats, sound_xml,
                           xml_of_evtxexport)

logs, seed = (int(word) for word in (sys.argv[3:] + ["16", "1"][len(sys.argv) - 3:]))
CHUNK, HEADER, CHUNK_HEADER = 65536, 4096, 512
NUMBERS = 1000 # of each chunk in the common log


def places_of(log):
    """Number, offset and size of each record."""
    found, at = [], HEADER + CHUNK_HEADER
    while log[at:at + 4] == b"**\0\0":
        size, number = struct.unpack_from("<IQ", log, at + 4)
        found.append((number, at, size))
        at += size
    return found


def damage_place(log, places, chance):
    _, at, size = chance.choice(places) if chance.random() < 0.9 else (0, HEADER, CHUNK_HEADER)
    where, count = at + chance.randrange(size), chance.randrange(1, 40)
    match chance.randrange(5):
        case 0:
            log[where] ^= 1 << chance.randrange(8)
        case 1:
            log[where] = chance.randrange(256)
        case 2:
            log[where:where + 2] = struct.pack("<H", chance.choice([0, 1, 0x7FFF, 0xFFFF, chance.randrange(65536)]))
        case 3:
            log[where:where + count] = bytes(count)
        case _:
            source = at + chance.randrange(size)
            log[where:where + count] = log[source:source + count]


def seal(log):
    """Makes the chunk's checksums right, so that a reader does not stop at them."""
    end = struct.unpack_from("<I", log, HEADER + 0x30)[0]
    if CHUNK_HEADER <= end <= CHUNK:
        struct.pack_into("<I", log, HEADER + 0x34, zlib.crc32(bytes(log[HEADER + CHUNK_HEADER:HEADER + end])))
    header = bytes(log[HEADER:HEADER + 0x78] + log[HEADER + 0x80:HEADER + CHUNK_HEADER])
    struct.pack_into("<I", log, HEADER + 0x7C, zlib.crc32(header))


def damaged(log, places, number):
    chance = random.Random(seed + number)
    log = bytearray(log)
    for _ in range(chance.choice([1, 1, 2, 4])):
        damage_place(log, places, chance)
    if chance.random() < 0.8:
        seal(log)
    return log


def common_log(variants, places):
    """All as the chunks of one log."""
    header = bytearray(variants[0][:HEADER])
    struct.pack_into("<QQ", header, 0x10, len(variants) - 1, 1 + NUMBERS * len(variants))
    struct.pack_into("<H", header, 0x2A, len(variants))
    whole = bytes(header)
    for first, log in enumerate(variants):
        log = bytearray(log)
        for index, (_, at, _) in enumerate(places):
            struct.pack_into("<Q", log, at + 8, 1 + NUMBERS * first + index)
        whole += bytes(log[HEADER:HEADER + CHUNK])
    return whole


def read_by_us(path):
    _, output, _ = host("events", "--lenient", path)
    return {one["record"]: [one["id"], one["source"], one["strings"]] for one in json.loads(output)}


def read_by_python(path):
    done = subprocess.run(["/usr/bin/python3", "-c", PYTHON_EVTX, path], capture_output=True, text=True, timeout=3000)
    return {number: text for number, text in json.loads(done.stdout or "[]") if text}


def read_by_evtxexport(path, variants, places):
    """It does not say which record it has skipped, so its records are known by the number in their values."""
    index = {number: index for index, (number, _, _) in enumerate(places)}
    found = {}
    for first, log in enumerate(variants):
        path.write_bytes(log)
        named = [(re.search(r"<EventRecordID>(\d+)<", text), text) for text in xml_of_evtxexport(path)]
        named = [(int(number[1]), text) for number, text in named if number]
        count = collections.Counter(number for number, _ in named)
        found.update({1 + NUMBERS * first + index[number]: text for number, text in named
                      if number in index and count[number] == 1})
    return found


def plain(record):
    strings = as_others([re.sub(NO_XML, "", text) for text in record[2]])
    source, *strings = (re.sub(NO_XML, "", text) for text in [record[1], *strings])
    return [record[0], source, [text for text in strings if text]]


LISTED = {"python3-evtx": python_repeats, "evtxexport": evtxexport_joins}


def compare(reader, texts, ours):
    """Result: how many records both read, and the differences."""
    same, problems = 0, []
    for number, text in texts.items():
        try:
            _, code, source, _, strings = from_xml(sound_xml(text))
        except (AttributeError, ValueError, SyntaxError, TypeError): # what it reads is no record
            continue
        if number not in ours or LISTED[reader](ours[number][2]):
            continue # we read no record whose structure is not sound
        theirs, own = plain([code, source, strings]), plain(ours[number])
        same += own == theirs
        if own != theirs:
            problems.append(f"seed {seed + (number - 1) // NUMBERS}, record {(number - 1) % NUMBERS}: "
                            f"{reader} reads {theirs}, we read {own}")
    return same, problems


def test_damaged(folder):
    prints("synthesize", "synthesize", DEFAULT, folder / "case")
    sound = (folder / "case" / "System.evtx").read_bytes()
    places = places_of(sound)
    variants = [damaged(sound, places, number) for number in range(logs)]
    (folder / "all.evtx").write_bytes(common_log(variants, places))
    ours = read_by_us(folder / "all.evtx")
    for reader, texts in (("python3-evtx", read_by_python(folder / "all.evtx")),
                          ("evtxexport", read_by_evtxexport(folder / "one.evtx", variants, places))):
        same, differences = compare(reader, texts, ours)
        print(f"{reader}: {same} records of {logs} damaged logs are the same, of {len(ours)} that we read")
        for difference in differences:
            check(reader, False, difference)
        check(reader, same >= len(places) * logs // 2, "too few records to compare")


run(test_damaged)
