"""Builds the plug-in and its unit tests with a fault, in a folder of its own, with the commands of
the project's build. The source tree is only read.
"""
import hashlib
import json
import os
import pathlib
import shlex
import shutil
import subprocess
import time

import lexer

PLUGINS = "oxni_sys/plugins"
DLL = "bin/libbypass_mgr.dll"
UNIT_TESTS = "bin/unit_tests.exe"
# A fault may cause a warning, or a line that differs only in what a debugger shows.
NOT_FOR_FAULTS = {"-Werror", "-g1", "-g"}


class Failed(Exception):
    """Something that the user has to put right."""


class Processes:
    """Every process that is started here, so that an interruption can end them all."""

    def __init__(self):
        self.live = set()
        self.stopped = False

    def run(self, command, **options):
        """Result: exit status, output (both streams), seconds."""
        start = time.monotonic()
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, start_new_session=True, **options)
        self.live.add(process)
        if self.stopped:
            self.kill(process)
        output = process.communicate()[0].decode("utf-8", "replace").replace("\r", "")
        self.live.discard(process)
        return process.returncode, output, time.monotonic() - start

    @staticmethod
    def kill(process):
        try:
            os.killpg(process.pid, 9)
        except ProcessLookupError:
            pass

    def stop(self):
        self.stopped = True
        for process in list(self.live):
            self.kill(process)


class Build:
    """What the project's build knows: objects, how each is compiled, and what they depend on."""

    def __init__(self, root, folder):
        self.root, self.folder = root, folder
        self.plugins = root / PLUGINS
        self.links = {target: self.link_command(target) for target in (DLL, UNIT_TESTS)}
        linked = {word for words in self.links.values() for word in words}
        self.compile = {}  # object: (source, command)
        for one in json.loads((folder / "compile_commands.json").read_text()):
            words = shlex.split(one["command"])
            output = words[words.index("-o") + 1] if "-o" in words else None
            if output in linked:
                self.compile[output] = (pathlib.Path(one["file"]).resolve(), words)
        self.depends = self.dependencies()
        used = {path for depends in self.depends.values() for path in depends}
        self.files = {str(path.relative_to(self.plugins)): path.read_text()
                      for path in sorted(used) if path.is_relative_to(self.plugins)}
        if not self.files:
            raise Failed(f"{folder} has no object of a source in {PLUGINS}")

    def ninja(self, *arguments):
        done = subprocess.run(["ninja", "-C", self.folder, "-t", *arguments], capture_output=True,
                              text=True)
        if done.returncode != 0:
            raise Failed(f"ninja -t {' '.join(arguments)}: {done.stderr.strip()}")
        return done.stdout

    def link_command(self, target):
        last = self.ninja("commands", target).strip().splitlines()[-1]
        for part in last.split(" && "):
            words = shlex.split(part)
            if "-o" in words and words[words.index("-o") + 1] == target:
                return [word for word in words if not word.startswith("-Wl,--out-implib")]
        raise Failed(f"the build's last command for {target} does not link it")

    def dependencies(self):
        """Of each object: its source and the headers in it."""
        found = {}
        for block in self.ninja("deps").split("\n\n"):
            lines = block.strip().splitlines()
            output = lines[0].split(":")[0] if lines else ""
            if output in self.compile:
                found[output] = {(self.folder / line.strip()).resolve() for line in lines[1:]}
        return found


class Worker:
    """A copy of the plug-in's sources, objects and programs that one fault at a time is put into."""

    def __init__(self, build, folder, processes):
        self.build, self.folder, self.processes = build, folder, processes
        self.kept = folder.parent / "kept"  # what does not change from fault to fault
        self.tree = folder / "tree" / PLUGINS
        shutil.rmtree(folder, ignore_errors=True)
        for path in (self.tree, folder / "bin", self.kept):
            path.mkdir(parents=True, exist_ok=True)
        for name, text in build.files.items():
            self.write(name, text)
        for path in (build.folder / "bin").glob("*"):  # Windows takes DLLs from a program's folder
            if path.suffix == ".dll" or path.name == "oxni_devhost.exe":
                shutil.copy(path, folder / "bin")

    def write(self, name, text):
        path = self.tree / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def changed(self):
        """Texts of the copied sources that differ from the original."""
        texts = {name: (self.tree / name).read_text() for name in self.build.files}
        return {name: text for name, text in texts.items() if text != self.build.files[name]}

    def restore(self):
        for name in self.changed():
            self.write(name, self.build.files[name])

    def compiler(self, object_name, source, output):
        words = [word for word in self.build.compile[object_name][1] if word not in NOT_FOR_FAULTS]
        words[words.index("-o") + 1] = str(output)
        words[words.index("-c") + 1] = str(source)
        return [*words, "-w", "-g0"]

    def run_compiler(self, words):
        return self.processes.run(words, cwd=self.build.folder)[:2]

    def compile_copy(self, object_name, output):
        """Compiles from the copied sources, headers included."""
        source = str(self.build.compile[object_name][0])
        words = [word.replace(str(self.build.plugins), str(self.tree))
                 for word in self.compiler(object_name, source, output)]
        return self.run_compiler([*words, f"-ffile-prefix-map={self.folder}/tree=."])

    def compile_quickly(self, object_name, text, output):
        """Compiles a source whose includes are as they were: they take most of the time, and are
        compiled once."""
        preamble, rest = split_preamble(text)
        source = self.build.compile[object_name][0]
        header = self.precompiled(object_name, preamble)
        copy = self.folder / "source.cpp"
        copy.write_text(f'#include "{header}"\n#line {preamble.count(chr(10)) + 1} "{source}"\n{rest}')
        return self.run_compiler([*self.compiler(object_name, copy, output), "-iquote", source.parent])

    def key(self, object_name, *parts):
        """Of something made from an object's unchanged sources."""
        parts = [*self.compiler(object_name, "", ""), *parts]
        parts += [path.read_text(errors="replace") for path in sorted(self.build.depends[object_name])
                  if path.is_relative_to(self.build.root)]
        return hashlib.sha1("\0".join(map(str, parts)).encode()).hexdigest()

    def forget_old(self):
        """Removes what was kept of sources that have changed since."""
        wanted = set()
        for name, (source, _) in self.build.compile.items():
            preamble = split_preamble(source.read_text())[0]
            wanted |= {self.key(name, part) for part in (preamble, "quick", "copy")}
        for path in self.kept.iterdir():
            if path.name.split(".")[0] not in wanted:
                path.unlink()

    def precompiled(self, object_name, preamble):
        header = self.kept / (self.key(object_name, preamble) + ".h")
        made = self.folder / "preamble.gch"
        final = header.with_suffix(".h.gch")
        if not final.exists():
            header.write_text(preamble)
            words = self.compiler(object_name, header, made)
            words[words.index("-c"):words.index("-c") + 1] = ["-x", "c++-header"]
            source = self.build.compile[object_name][0]
            status, output = self.run_compiler([*words, "-iquote", source.parent])
            if status != 0:
                raise Failed(f"the includes of {source} do not compile:\n{output}")
            made.replace(final)
        return header

    def compile(self, object_name, changed, output):
        """changed: texts by name. Result: the compiler's exit status, and what it printed."""
        source = self.build.compile[object_name][0]
        name = str(source.relative_to(self.build.plugins)) if source.is_relative_to(
            self.build.plugins) else None
        text = changed.get(name, self.build.files.get(name))
        if name and set(changed) <= {name} and \
                split_preamble(text)[0] == split_preamble(self.build.files[name])[0]:
            return "quick", self.compile_quickly(object_name, text, output)
        return "copy", self.compile_copy(object_name, output)

    def unchanged_object(self, object_name, way):
        """The object without a fault, compiled in the same way."""
        kept = self.kept / (self.key(object_name, way) + ".obj")
        made = self.folder / "unchanged.obj"
        if not kept.exists():
            source = self.build.compile[object_name][0]
            if way == "quick":
                status, output = self.compile_quickly(object_name, source.read_text(), made)
            else:
                status, output = self.compile_copy(object_name, made)
            if status != 0:
                raise Failed(f"{object_name} does not compile without a fault:\n{output}")
            made.replace(kept)
        return kept

    def compile_changed(self, apply):
        """Puts a fault into the copied sources and compiles what depends on them. Result: the new
        objects by their names in the build, None when one does not compile; whether any differs
        from that without the fault; what the compiler printed."""
        objects, ways = {}, {}
        try:
            apply()
            changed = self.changed()
            paths = {self.build.plugins / name for name in changed}
            for name, depends in self.build.depends.items():
                if not depends & paths:
                    continue
                objects[name] = self.folder / "objects" / name
                objects[name].parent.mkdir(parents=True, exist_ok=True)
                ways[name], (status, output) = self.compile(name, changed, objects[name])
                if status != 0:
                    return None, False, output
        finally:
            self.restore()
        differs = any(objects[name].read_bytes() != self.unchanged_object(name, way).read_bytes()
                      for name, way in ways.items())
        return objects, differs, ""

    def link(self, target, objects):
        """Result: the linked program, None when it cannot be linked."""
        output = self.folder / target
        words = [str(objects.get(word, word)) for word in self.build.links[target]]
        words[words.index("-o") + 1] = str(output)
        return output if self.run_compiler([*words, "-s"])[0] == 0 else None


def split_preamble(text):
    """A source's text up to the end of its last include before any code, and the rest."""
    end = 0
    for token in lexer.tokens_of(text):
        if token.kind != "directive":
            break
        if token.text[1:].split()[0].startswith("include"):
            end = token.end + 1
    return text[:end], text[end:]
