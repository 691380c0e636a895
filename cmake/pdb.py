#!/usr/bin/env python3
"""Makes a DLL's PDB, which names its functions to WinDbg.

usage: pdb.py BUILD DLL OUTPUT

BUILD is a Ninja build directory, DLL a path that it builds, linked with --build-id and --pdb. The
linker writes public symbols only, so the DLL is linked once more, from copies of its objects whose
static functions are public; a name that two objects have gets the second one's name after a "$".
OUTPUT is that link's PDB with the GUID and the age of the DLL. The result is reproducible: the
signature, which the linker sets to the time, is the GUID's first 32 bits.

Layouts: Microsoft's "PDB" documentation for MSF and the info stream, CV_INFO_PDB70 for the DLL.
"""
import contextlib
import os
import shlex
import shutil
import struct
import subprocess
import sys
import time

MSF_MAGIC = b"Microsoft C/C++ MSF 7.00\r\n\x1aDS\0\0\0"
DEBUG_DIRECTORY = 6  # IMAGE_DIRECTORY_ENTRY_DEBUG
CODEVIEW = 2         # IMAGE_DEBUG_TYPE_CODEVIEW
TOOL = "x86_64-w64-mingw32-"
STALE_SECONDS = 120  # a link takes some


def run(*words, cwd=None):
    done = subprocess.run(words, cwd=cwd, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"pdb.py: {' '.join(words)[:200]}: {done.stderr.strip()}")
    return done.stdout


def link_command(build, dll):
    """Returns the words of the command that links the DLL."""
    last = run("ninja", "-C", build, "-t", "commands", dll).strip().splitlines()[-1]
    for part in last.split(" && "):
        words = shlex.split(part)
        if "-o" in words and words[words.index("-o") + 1] == dll:
            return words
    sys.exit(f"pdb.py: the build's last command for {dll} does not link it")


def publish(path, copy, taken):
    """Copies an object with its static functions made public."""
    rows = [line.split() for line in run(TOOL + "nm", path).splitlines()]
    stem = os.path.basename(path).split(".")[0]
    options = []
    for name in (row[2] for row in rows if len(row) == 3 and row[1] == "t" and row[2][0] != "."):
        public = f"{name}${stem}" if name in taken else name
        taken.add(name)
        options += ["--redefine-sym", f"{name}={public}"] if public != name else []
        options += ["--globalize-symbol", public]
    run(TOOL + "objcopy", *options, path, copy)


def codeview(path):
    """Returns the GUID's 16 bytes and the age that a DLL has for its PDB."""
    with open(path, "rb") as file:
        data = file.read()
    pe = struct.unpack_from("<I", data, 0x3C)[0]
    sections, optional_bytes = struct.unpack_from("<H12xH", data, pe + 6)
    address, size = struct.unpack_from("<II", data, pe + 24 + 112 + 8 * DEBUG_DIRECTORY)
    for number in range(sections):
        section = pe + 24 + optional_bytes + 40 * number
        bytes_in_memory, start, _, offset = struct.unpack_from("<IIII", data, section + 8)
        if start <= address < start + bytes_in_memory:
            for at in range(offset + address - start, offset + address - start + size, 28):
                kind, _, _, place = struct.unpack_from("<IIII", data, at + 12)
                if kind == CODEVIEW and data[place:place + 4] == b"RSDS":
                    return data[place + 4:place + 20], struct.unpack_from("<I", data, place + 20)[0]
    sys.exit(f"pdb.py: {path}: no CodeView record, expected one of --build-id and --pdb")


def info_stream(pdb):
    """Returns the offset in the file of the info stream, which fits into one block."""
    if pdb[:len(MSF_MAGIC)] != MSF_MAGIC:
        sys.exit("pdb.py: the linker's output is no MSF file")
    block_bytes, _, _, _, _, map_block = struct.unpack_from("<6I", pdb, len(MSF_MAGIC))
    directory = block_bytes * struct.unpack_from("<I", pdb, block_bytes * map_block)[0]
    streams, *sizes = struct.unpack_from("<3I", pdb, directory)
    first = directory + 4 + 4 * streams
    blocks_of_old = 0 if sizes[0] == 0xFFFFFFFF else -(-sizes[0] // block_bytes)
    return block_bytes * struct.unpack_from("<I", pdb, first + 4 * blocks_of_old)[0]


def link_again(build, words, folder):
    """Links in a folder from copies of the build's files. Returns the PDB."""
    taken = set()
    for at, word in enumerate(words):
        path = os.path.join(build, word)
        if word.startswith("-"):
            words[at] = word if not word.startswith(("-Wl,--out-implib", "-Wl,--pdb")) else ""
        elif at > 0 and os.path.isfile(path):
            words[at] = f"{at}_{os.path.basename(word)}"
            if word.endswith(".obj"):
                publish(path, os.path.join(folder, words[at]), taken)
            else:
                shutil.copy(path, os.path.join(folder, words[at]))
    words[words.index("-o") + 1] = "linked.dll"
    run(*filter(None, words), "-Wl,--pdb=linked.pdb", "-s", cwd=folder)
    with open(os.path.join(folder, "linked.pdb"), "rb") as file:
        return bytearray(file.read())


def take_folder(folder):
    """Makes the folder. Waits while another build of the same DLL has it; removes the folder of a build that
    was killed."""
    end = time.monotonic() + 2 * STALE_SECONDS
    while time.monotonic() < end:
        try:
            os.mkdir(folder)
            return
        except FileExistsError:
            with contextlib.suppress(OSError):
                if time.time() - os.stat(folder).st_mtime > STALE_SECONDS:
                    shutil.rmtree(folder)
            time.sleep(0.1)
    sys.exit(f"pdb.py: {folder} is in the way, of another user's build that was killed: remove it")


def main(build, dll, output):
    words = link_command(build, dll)
    guid, age = codeview(os.path.join(build, dll))
    # The PDB contains the absolute paths of what is linked, so the folder's name depends on the DLL
    # alone.
    folder = f"/tmp/{os.path.basename(dll)}-{guid.hex()}"
    take_folder(folder)
    try:
        pdb = link_again(build, words, folder)
    finally:
        shutil.rmtree(folder)
    at = info_stream(pdb)
    pdb[at + 4:at + 28] = guid[:4] + struct.pack("<I", age) + guid
    with open(output, "wb") as file:
        file.write(pdb)


main(*sys.argv[1:])
