#!/usr/bin/env python3
"""Stacks with stale addresses: scanned, they blame a driver that is not on the stack; unwound by the
images at hand, they do not. The images are copies of a library of the tests.

usage: images_test.py WINE_RUN PROGRAM LIBRARY LISTING
"""
import pathlib
import re
import struct
import sys

from evidence_files import BUG_CHECK, POWER, a_dump, check, logon, prints, record, refused, result, run, start, write

library = pathlib.Path(sys.argv[3]).read_bytes()
pe = struct.unpack_from("<I", library, 0x3C)[0]
preferred, = struct.unpack_from("<Q", library, pe + 0x30)
image_bytes, = struct.unpack_from("<I", library, pe + 0x50)
functions = {name: int(address, 16) - preferred for address, name in
             re.findall(r"^([0-9a-f]+) <(\w+)>:", pathlib.Path(sys.argv[4]).read_text(), re.M)}
# Number in the list of the dump's modules, file, and its time stamp.
MODULES = {"nt": (0, "ntoskrnl.exe", 0x5E000000), "FLTMGR": (1, "fltMgr.sys", 0x5E000001),
           "guard_flt": (3, "guard_flt.sys", 0x5E000002)}


def image(module, stamp=None):
    content = bytearray(library)
    struct.pack_into("<I", content, pe + 8, stamp or MODULES[module][2])
    return bytes(content)


def the_dump(path, stack, crash):
    """A crash at an address; stack: values, or (module, function, offset)."""
    content = bytearray(a_dump(path, "2024-03-05T09:00:00Z").read_bytes())
    entries, = struct.unpack_from("<I", content, 0x2030)
    bases = {}
    for name, (number, _, stamp) in MODULES.items():
        entry = entries + 0x90 * number
        bases[name], = struct.unpack_from("<Q", content, entry + 0x38)
        struct.pack_into("<I", content, entry + 0x48, image_bytes)
        struct.pack_into("<I", content, entry + 0x88, stamp)

    def address(place):
        if not isinstance(place, tuple):
            return place
        return bases[place[0]] + functions[place[1]] + place[2]

    context, = struct.unpack_from("<I", content, 0x200C)
    top, = struct.unpack_from("<Q", content, 0x2048)
    struct.pack_into("<Q", content, 0x20, bases["nt"] + 0x1000)
    struct.pack_into("<Q", content, context + 0xF8, address(crash))
    struct.pack_into("<Q", content, context + 0x98, top)
    struct.pack_into("<II", content, 0x2028, len(content), 8 * len(stack))
    content += struct.pack(f"<{len(stack)}Q", *map(address, stack))
    return write(path, bytes(content))


# Return addresses in functions of six locals and a register, and of eight and a register.
SIX, EIGHT = "unwind_parent", "unwind_second"
STALE = ("guard_flt", EIGHT, 6)
TWO_FRAMES = [1, STALE, 3, 4, 5, 6, 7, ("nt", EIGHT, 6), 1, STALE, 3, 4, 5, 6, 7, 8, 9, 0, STALE]
# A stale address of the kernel, whose frame seems to contain that of the driver.
SKIPPED = [("nt", SIX, 5), 1, 2, STALE, 4, 5, 6, 7, ("nt", EIGHT, 6), 1, 2, 3, 4, 5, 6, 7, 8, 9, 0]
OTHER_BUILD = "fltMgr.sys: is of another build: time stamp 0x5f000000, the dump has 0x5e000001"

# name, stack, images at hand, answer, frames with how they were found, part of a doubt
ROWS = [
    ("no images", TWO_FRAMES, None, "bypass", ["FLTMGR", "guard_flt", "nt", "guard_flt", "guard_flt"],
     None),
    ("all images", TWO_FRAMES, ["nt", "FLTMGR", "guard_flt"], "no bypass",
     ["FLTMGR rip", "nt unwound"], None),
    ("the crashed driver's image is missing", TWO_FRAMES, ["nt"], "bypass",
     ["FLTMGR rip", "guard_flt scanned", "nt scanned", "guard_flt scanned", "guard_flt scanned"],
     "the frame of guard_flt was found by scanning, so its address may be stale; hand in FLTMGR.SYS"),
    ("the crashed driver's image is of another build", TWO_FRAMES, ["nt", "other FLTMGR"], "bypass",
     ["FLTMGR rip", "guard_flt scanned", "nt scanned", "guard_flt scanned", "guard_flt scanned"],
     OTHER_BUILD),
    ("the kernel's image is missing", TWO_FRAMES, ["FLTMGR"], "bypass",
     ["FLTMGR rip", "nt unwound", "guard_flt scanned", "guard_flt scanned"],
     "the frame of guard_flt was found by scanning, so its address may be stale; hand in ntoskrnl.exe"),
    ("a scanned frame hides the driver's", SKIPPED, ["nt"], "cannot tell",
     ["FLTMGR rip", "nt scanned", "nt unwound"],
     "guard_flt is found only by scanning the whole stack, so its address may be stale; hand in FLTMGR.SYS"),
]


def play(folder, name, stack, images):
    """Returns the results of replay and of dump."""
    log = write(folder / "log.json", [
        start("2024-03-04T09:00:00Z"), start("2024-03-05T09:01:00Z"),
        record(POWER, 41, "2024-03-05T09:01:05Z", "80", "0x1", "0x2", "0x3", "0x4"),
        logon("2024-03-05T09:01:20Z"),
        record("BugCheck", BUG_CHECK, "2024-03-05T09:01:25Z", "0x00000050 (0x1, 0x2, 0x3, 0x4)",
               r"C:\Windows\Minidump\030724-5437-01.dmp", "11111111-2222-3333-4444-555555555555")])
    dump = the_dump(folder / "030724-5437-01.dmp", stack, ("FLTMGR", SIX, 5))
    evidence = ["--events", log, "--dump", dump, "--product", "guard:guard_flt"]
    options = []
    if images is not None:
        place = folder / re.sub(r"\W", "_", name)
        place.mkdir()
        for module in images:
            other = module.startswith("other ")
            module = module.removeprefix("other ")
            write(place / MODULES[module][1], image(module, 0x5F000000 if other else None))
        options = ["--images", place]
    played = result(name, "replay", *evidence, "--html", folder / "page.html", *options)
    prints(name + ", redacted", "redact", *evidence, *options, folder / f"{name} redacted",
           contains=[f'The answer is "{played["answer"]}"'])
    return played, result(name, "dump", dump, *options)


def test_row(folder, name, stack, images, answer, frames, doubt):
    result, dumps = play(folder, name, stack, images)
    check(name, result["answer"] == answer, result["sentence"])
    shown = [" ".join(filter(None, [frame["module"], frame.get("found")]))
             for frame in result["stack"] if frame["module"]]
    check(name, shown == frames, shown)
    check(name, any(doubt in line for line in result["doubts"]) if doubt
          else not any("scanning" in line for line in result["doubts"]), result["doubts"])
    dump = dumps["dumps"][0]
    shown = [" ".join([site.split("+")[0], *found]) for site, *found in
             zip(dump["stack"], *([dump["found"]] if images is not None else []))]
    check(name + ", dump", shown == frames, shown)
    check(name + ", members", ("images" in result) == ("images" in dump) == (images is not None), result)
    used = sum(image["used"] for image in result.get("images", []))
    check(name + ", used", used == sum(" " not in module for module in images or []), result.get("images"))


def test_rows(folder):
    for row in ROWS:
        test_row(folder, *row)


def test_texts(folder):
    """Of the last row."""
    page = (folder / "page.html").read_text()
    check("page", '"found": "scanned"' in page and '"used": true' in page, "no frame is marked")
    log, dump = folder / "log.json", folder / "030724-5437-01.dmp"
    for call in (["replay", "--events", log, "--dump", dump], ["dump", dump]):
        prints(call[0], *call, "--images", folder / "a_scanned_frame_hides_the_driver_s",
               contains=["  (scanned)\n", "ntoskrnl.exe: image, unwinds its frames"])
    refused([(3, "not a folder", *call, "--images", folder / "missing")
             for call in (["replay", "--events", log], ["dump", dump])])


run(test_rows, test_texts)
