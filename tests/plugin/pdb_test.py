#!/usr/bin/env python3
"""The plug-in's PDB, read by LLVM: it belongs to the DLL, and names each function of the plug-in's
objects at its address, static ones too.

usage: pdb_test.py NM DLL OBJECT...
"""
import re
import subprocess
import sys


def lines_of(*words):
    return subprocess.run(words, capture_output=True, text=True, check=True).stdout.splitlines()


def identity_of_dll(dll):
    """Returns GUID, age and file name of the PDB that the DLL asks for."""
    text = "\n".join(lines_of("llvm-readobj", "--coff-debug-directory", dll))
    octets = bytes.fromhex(re.search(r"PDBGUID: \(([0-9A-F ]+)\)", text).group(1))
    guid = octets[3::-1] + octets[5:3:-1] + octets[7:5:-1] + octets[8:]
    return (guid.hex().upper(), int(re.search(r"PDBAge: (\d+)", text).group(1)),
            re.search(r"PDBFileName: (\S+)", text).group(1))


def identity_of_pdb(pdb):
    text = "\n".join(lines_of("llvm-pdbutil", "dump", "--summary", pdb))
    return (re.search(r"GUID: \{(.*)\}", text).group(1).replace("-", ""),
            int(re.search(r"Age: (\d+)", text).group(1)), pdb.split("/")[-1])


def sections_of(dll):
    """Returns the addresses of the sections, in order."""
    return [int(line.split()[1], 16) for line in lines_of("llvm-readobj", "--sections", dll)
            if "VirtualAddress" in line]


def publics_of(pdb, sections):
    """Returns the addresses of each public function by name, from the start of the image."""
    found, name = {}, ""
    for line in lines_of("llvm-pdbutil", "dump", "--publics", pdb):
        match = re.search(r"S_PUB32 .*`(.*)`", line)
        name = match.group(1) if match else name
        match = re.search(r"flags = function, addr = (\d+):(\d+)", line)
        if match:
            found.setdefault(name.split("$")[0], set()).add(
                sections[int(match.group(1)) - 1] + int(match.group(2)))
    return found


def functions_of(nm, *paths):
    """Returns address and name of each function."""
    rows = [line.split() for line in lines_of(nm, *paths)]
    return [(int(row[0], 16), row[2]) for row in rows
            if len(row) == 3 and row[1] in "tT" and not row[2].startswith(".")]


def main(nm, dll, *objects):
    pdb = dll.removesuffix("dll") + "pdb"
    problems = []
    if identity_of_dll(dll) != identity_of_pdb(pdb):
        problems.append(f"the DLL asks for {identity_of_dll(dll)}, the PDB is "
                        f"{identity_of_pdb(pdb)}")
    header = "\n".join(lines_of("llvm-readobj", "--file-headers", dll))
    base = int(re.search(r"ImageBase: (0x[0-9A-F]+)", header).group(1), 16)
    ours = {name for _, name in functions_of(nm, *objects)}
    publics = publics_of(pdb, sections_of(dll))
    functions = [(address - base, name) for address, name in functions_of(nm, dll + ".debug")
                 if name in ours]
    problems += [f"{name} is at 0x{address:x}; the PDB has {publics.get(name)}"
                 for address, name in functions if address not in publics.get(name, set())]
    if not {"oxni_plugin_init", "_ZL15set_data_memberPKcP6json_ti"} <= {n for _, n in functions}:
        problems.append("a function is missing in the DLL's symbols")
    print(f"{len(functions)} functions, {len(problems)} problems", *problems[:20], sep="\n")
    return 1 if problems else 0


sys.exit(main(*sys.argv[1:]))
