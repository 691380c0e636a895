"""Finding of cases: folders and archives as "replay" takes them, and manifests."""
import json
import os

EVIDENCE = (".evtx", ".json", ".dmp", ".mdmp", ".hdmp", ".kdmp", ".reg")
FILES = ("source", "events", "products_file")
LISTS = ("dumps", "registries")
MEMBERS = FILES + LISTS + ("name", "products", "time_zone", "truth")


class BadCase(Exception):
    """A case that is named wrongly."""


def find(arguments):
    """Yields (name, request, truth) of each case that the arguments name. request: for the host; truth: a
    file, an object, or None."""
    for argument in arguments:
        path = os.path.abspath(argument)
        if path.endswith(".jsonl"):
            yield from of_manifest(path)
        elif os.path.isdir(path) and not is_case(path):
            yield from of_collection(path)
        elif os.path.exists(path):
            yield one(path)
        else:
            raise BadCase(f"{argument}: no such file or folder")


def is_case(folder):
    """A folder with evidence in it is one case; one without contains cases."""
    with os.scandir(folder) as entries:
        return any(entry.name.lower().endswith(EVIDENCE) and entry.is_file() for entry in entries)


def one(path):
    truth = os.path.join(path, "truth.json")
    return os.path.basename(path), {"source": path}, truth if os.path.isfile(truth) else None


def of_collection(folder):
    found = False
    with os.scandir(folder) as entries:
        for entry in sorted(entries, key=lambda entry: entry.name):
            if entry.is_dir() or entry.name.lower().endswith(".zip"):
                found = True
                yield one(entry.path)
    if not found:
        raise BadCase(f"{folder}: contains neither evidence nor folders or archives with it")


def of_manifest(path):
    folder = os.path.dirname(path)
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            if line.strip():
                try:
                    yield of_line(folder, json.loads(line))
                except (ValueError, TypeError, AttributeError) as error:
                    raise BadCase(f"{path}:{number}: {error}") from error


def of_line(folder, case):
    unknown = set(case) - set(MEMBERS)
    if unknown:
        raise ValueError(f"unknown member '{min(unknown)}'; expected {', '.join(MEMBERS)}")
    request = {name: value for name, value in case.items() if name not in ("name", "truth")}
    for name in FILES:
        if name in request:
            request[name] = os.path.join(folder, request[name])
    for name in LISTS:
        if name in request:
            request[name] = [os.path.join(folder, file) for file in request[name]]
    main = case.get("source", case.get("events"))
    if main is None:
        raise ValueError("expected member 'source' (a folder or archive) or 'events' (a log)")
    truth = case.get("truth")
    if truth is None and "source" in request:
        truth = one(request["source"])[2]
    elif isinstance(truth, str):
        truth = os.path.join(folder, truth)
    return case.get("name", main), request, truth
