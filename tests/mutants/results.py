"""Results: one object per mutant or patch, and the report at the end of a run."""
import collections
import json

import generate


def read(name):
    with open(name, encoding="utf-8") as file:
        return [json.loads(line) for line in file if line.strip()]


def key_of(record):
    """Names a mutant as generate.Mutant.key does, or a patch."""
    return (record["patch"],) if "patch" in record else \
        tuple(record[name] for name in generate.IDENTITY if name != "after")


def text_of(record):
    return record.get("patch") or str(generate.Mutant(
        **{name: record[name] for name in generate.IDENTITY}, line=record.get("line", 0)))


def show(title, records):
    if records:
        print(f"\n{title}:")
    for one in records:
        print("  " + text_of(one))


def show_stages(killed):
    by_stage = collections.Counter(one["stage"] for one in killed)
    ends = collections.Counter(one["by"].split(": ")[1] for one in killed)
    if killed:
        print("killed by "
              + ", ".join(f"{name}: {number}" for name, number in by_stage.most_common())
              + "".join(f"; {ends[name]} by {name}" for name in ("timeout", "crash") if ends[name]))


def report(records, was, wrong, gone):
    """Prints the end of a run. was: earlier results by key; wrong: what is wrong with the list of
    equivalents; gone: how many earlier mutants no longer apply. Result: the exit status."""
    counted = [one for one in records if one["result"] != "dropped"]
    killed, equivalent, survived = ([one for one in counted if one["result"] == result]
                                    for result in ("killed", "equivalent", "survived"))
    show("Survived", survived)
    show("Survived before, killed now",
         [one for one in killed if was.get(key_of(one)) == "survived"])
    show("KILLED BEFORE, SURVIVES NOW",
         [one for one in survived if was.get(key_of(one)) == "killed"])
    print()
    for text in wrong:
        print(f"equivalents.json: {text}")
    show_stages(killed)
    if gone:
        print(f"{gone} no longer {'applies' if gone == 1 else 'apply'}")
    print(f"{len(counted)} mutants: {len(killed)} killed, {len(equivalent)} equivalent, "
          f"{len(survived)} survived")
    return 1 if survived else 2 if wrong else 0
