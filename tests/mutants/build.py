"""Builds the plug-in and its unit tests with a fault, in a folder of its own, with the commands of
the project's build. The source tree is only read.
"""
import hashlib
import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess

PLUGINS = "oxni_sys/plugins"
DLL = "bin/libbypass_mgr.dll"
UNIT_TESTS = "bin/unit_tests.exe"
# A fault may cause a warning, or a line that differs only in what a debugger shows.
NOT_FOR_FAULTS = {"-Werror", "-g1", "-g"}
INCLUDE = re.compile(r"^#\s*include\s*<[^>]+>", re.M)


class Failed(Exception):
    """An error for the user to fix, with its message."""


class Processes:
    """Every process that is started here, so that an interruption ends them all."""

    def __init__(self):
        self.live = set()
        self.stopped = False

    def run(self, command, **options):
        """Result: exit status, and output of both streams."""
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, start_new_session=True, **options)
        self.live.add(process)
        if self.stopped:
            self.kill(process)
        output = process.communicate()[0].decode("utf-8", "replace").replace("\r", "")
        self.live.discard(process)
        return process.returncode, output

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


def ninja(folder, *arguments):
    done = subprocess.run(["ninja", "-C", folder, "-t", *arguments], capture_output=True, text=True)
    if done.returncode != 0:
        raise Failed(f"ninja -t {' '.join(arguments)}: {done.stderr.strip()}")
    return done.stdout


def link_command(folder, target):
    """Returns the words of the build's command that links a program or a library."""
    for part in ninja(folder, "commands", target).strip().splitlines()[-1].split(" && "):
        words = shlex.split(part)
        if "-o" in words and words[words.index("-o") + 1] == target:
            outputs = ("-Wl,--out-implib", "-Wl,--pdb")
            return [word for word in words if not word.startswith(outputs)]
    raise Failed(f"the build's last command for {target} does not link it")


def for_output(words, output):
    """Returns a compile command of the build for a faulty source."""
    words = [word for word in words if word not in NOT_FOR_FAULTS]
    words[words.index("-o") + 1] = str(output)
    return [*words, "-w", "-g0"]


class Build:
    """The project's build: its objects, their commands, and the files that they depend on."""

    def __init__(self, root, folder):
        self.root, self.folder = root, folder
        self.plugins = root / PLUGINS
        self.links = {target: link_command(folder, target) for target in (DLL, UNIT_TESTS)}
        linked = {word for words in self.links.values() for word in words}
        self.compile = {}  # object: (source, command)
        for one in json.loads((folder / "compile_commands.json").read_text()):
            words = shlex.split(one["command"])
            output = words[words.index("-o") + 1] if "-o" in words else None
            if output in linked:
                self.compile[output] = (pathlib.Path(one["file"]).resolve(), words)
        self.depends = self.dependencies()
        # Read once, so that editing a source during the run has no effect.
        self.texts = {path: path.read_text(errors="replace")
                      for path in sorted(set().union(*self.depends.values()))
                      if path.is_relative_to(root)}
        self.files = {str(path.relative_to(self.plugins)): text
                      for path, text in self.texts.items() if path.is_relative_to(self.plugins)}
        if not self.files:
            raise Failed(f"{folder} has no object of a source in {PLUGINS}")

    def dependencies(self):
        """Of each object: its source and the headers in it."""
        found = {}
        for block in ninja(self.folder, "deps").split("\n\n"):
            lines = block.strip().splitlines()
            output = lines[0].split(":")[0] if lines else ""
            if output in self.compile:
                found[output] = {(self.folder / line.strip()).resolve() for line in lines[1:]}
        return found

    def command(self, object_name, output):
        """The build's command for an object, for another output."""
        return for_output(self.compile[object_name][1], output)

    def outside_includes(self, object_name):
        """Lines that an object's source and its plug-in headers include from outside. Those of the
        source come first: their order matters."""
        source = self.compile[object_name][0]
        texts = [self.texts[source], *(self.texts[path] for path in sorted(self.depends[object_name])
                                       if path.is_relative_to(self.plugins) and path != source)]
        return list(dict.fromkeys(INCLUDE.findall("\n".join(texts))))

    def key_of(self, object_name):
        """Returns a name for what is made from all of an object's sources."""
        return self.key(object_name, self.depends[object_name], [])

    def key_of_outside(self, object_name):
        """Returns a name for what is made from the sources outside of the plug-in."""
        return self.key(object_name, {path for path in self.depends[object_name]
                                      if not path.is_relative_to(self.plugins)},
                        self.outside_includes(object_name))

    def key(self, object_name, sources, parts):
        """Hashes commands and texts. Headers of the system count as unchanged."""
        words = self.command(object_name, "")
        del words[words.index("-c"):words.index("-c") + 2]
        texts = [self.texts[path] for path in sorted(sources) if path in self.texts]
        return hashlib.sha1("\0".join([*words, *parts, *texts]).encode()).hexdigest()


class Worker:
    """Copies of the plug-in's sources, and objects and programs with one fault at a time."""

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
            if path.suffix == ".dll" or path.name in ("oxni_devhost.exe", "harness.exe"):
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

    def run_compiler(self, words):
        return self.processes.run(words, cwd=self.build.folder)

    def compile(self, object_name, output):
        """Compiles from the copied sources. Objects of equal sources are equal on every worker."""
        words = [word.replace(str(self.build.plugins), str(self.tree))
                 for word in self.build.command(object_name, output)]
        return self.run_compiler([*words, "-include", self.outside(object_name),
                                  f"-ffile-prefix-map={self.folder}/tree=."])

    def outside(self, object_name):
        """Returns a header with everything that an object includes from outside of the plug-in,
        precompiled: compiling it takes nine tenths of the time, and no fault changes it."""
        includes = self.build.outside_includes(object_name)
        header = self.kept / (self.build.key_of_outside(object_name) + ".h")
        if not header.with_suffix(".h.gch").exists():
            header.write_text("\n".join(includes) + "\n")
            made = self.folder / "outside.gch"
            words = self.build.command(object_name, made)
            words[words.index("-c"):words.index("-c") + 2] = ["-x", "c++-header", str(header)]
            status, output = self.run_compiler(words)
            if status != 0:
                raise Failed(f"the includes of {object_name} do not compile:\n{output}")
            made.replace(header.with_suffix(".h.gch"))
        return header

    def unchanged_object(self, object_name):
        """Returns the object without a fault. The copied sources must have none."""
        kept = self.kept / (self.build.key_of(object_name) + ".obj")
        if not kept.exists():
            made = self.folder / "unchanged.obj"
            status, output = self.compile(object_name, made)
            if status != 0:
                raise Failed(f"{object_name} does not compile without a fault:\n{output}")
            made.replace(kept)
        return kept

    def forget_old(self):
        """Removes precompiled headers and objects of sources that have changed since."""
        wanted = {key(name) for name in self.build.compile
                  for key in (self.build.key_of, self.build.key_of_outside)}
        for path in self.kept.iterdir():
            if path.name.split(".")[0] not in wanted:
                path.unlink()

    def compile_changed(self, texts):
        """Compiles what depends on sources with faulty texts. Result: the new objects by their names
        in the build, None when one does not compile; whether any differs from that without the
        fault; what the compiler printed."""
        objects = {}
        try:
            for name, text in texts.items():
                self.write(name, text)
            changed = {self.build.plugins / name for name in texts}
            for name, depends in self.build.depends.items():
                if depends & changed:
                    objects[name] = self.folder / "objects" / name
                    objects[name].parent.mkdir(parents=True, exist_ok=True)
                    status, output = self.compile(name, objects[name])
                    if status != 0:
                        return None, False, output
        finally:
            self.restore()
        differs = any(path.read_bytes() != self.unchanged_object(name).read_bytes()
                      for name, path in objects.items())
        return objects, differs, ""

    def link(self, target, objects):
        """Links a program or the DLL. Result: empty, or what the linker printed when it failed."""
        words = [str(objects.get(word, word)) for word in self.build.links[target]]
        words[words.index("-o") + 1] = str(self.folder / target)
        status, output = self.run_compiler([*words, "-s"])
        return "" if status == 0 else output or f"status {status}"
