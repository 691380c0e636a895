"""What changed between two runs: answers, blamed modules and orders, grouped by kind of change."""
import json
import os

import results

MOST_NAMES = 5 # of a group, on the terminal; changes.jsonl contains all


def states_of(path):
    with results.connect(path) as base:
        return dict(base.execute("SELECT name, state FROM cases"))


def boots_of(path):
    """Yields (case, boot), and what is compared of the boot, in order."""
    with results.connect(path) as base:
        yield from base.execute("SELECT name, boot, boots.answer, blamed, orders FROM boots "
                                "JOIN cases ON case_id = id ORDER BY name, boot")


def kinds_of(old, new):
    """The kinds of change between two rows of a boot, a text each."""
    if not old or not new:
        return ["boot: is not played any more" if old else "boot: was not played before"]
    return [f"{what}: {before or 'none'} -> {after or 'none'}"
            for what, before, after in zip(("answer", "blamed", "orders"), old, new) if before != after]


def pairs(old, new):
    """Merges two ordered sequences: yields (key, old row or None, new row or None)."""
    old, new = iter(old), iter(new)
    a, b = next(old, None), next(new, None)
    while a or b:
        key = min(row[:2] for row in (a, b) if row)
        has_a, has_b = bool(a) and a[:2] == key, bool(b) and b[:2] == key
        yield key, a[2:] if has_a else None, b[2:] if has_b else None
        a = next(old, None) if has_a else a
        b = next(new, None) if has_b else b


def changes(baseline, folder):
    """Yields (case, boot, kind); boot 0: the case as a whole."""
    old_states, new_states = states_of(baseline), states_of(folder)
    for name in sorted(old_states.keys() & new_states.keys()):
        if old_states[name] != new_states[name]:
            yield name, 0, f"case: {old_states[name]} -> {new_states[name]}"
    for (name, boot), old, new in pairs(boots_of(baseline), boots_of(folder)):
        if old_states.get(name) == new_states.get(name) == "answered":
            for kind in kinds_of(old, new):
                yield name, boot, kind


def compare(baseline, folder):
    """Returns {kind: [case, ...]}, and the number of cases that only one of the runs has. Writes each
    change to changes.jsonl in the folder."""
    groups = {}
    with open(os.path.join(folder, "changes.jsonl"), "w", encoding="utf-8") as file:
        for name, boot, kind in changes(baseline, folder):
            cases = groups.setdefault(kind, [])
            if not cases or cases[-1] != name:
                cases.append(name)
            file.write(json.dumps({"case": name, "boot": boot, "kind": kind}) + "\n")
    return groups, len(states_of(baseline).keys() ^ states_of(folder).keys())


def text_of(groups, elsewhere):
    lines = []
    for kind, cases in sorted(groups.items(), key=lambda item: -len(item[1])):
        more = f", and {len(cases) - MOST_NAMES:,} more" if len(cases) > MOST_NAMES else ""
        lines.append(f"  {len(cases):,} {'case' if len(cases) == 1 else 'cases'}: {kind}\n"
                     f"    {', '.join(cases[:MOST_NAMES])}{more}")
    if elsewhere:
        lines.append(f"  {elsewhere:,} cases are in one of the runs only, and not compared")
    return "\n".join(lines)
