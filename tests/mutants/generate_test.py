#!/usr/bin/env python3
"""Mutants are made where they belong, and are found again after sources changed around them.

usage: generate_test.py PROJECT_FOLDER
"""
import json
import pathlib
import re
import sys

import generate
import named

SAMPLE = r'''
/* a < b && "text" in a comment */
#define LIMIT 10 // 11
#define IS_SMALL(x) ((x) < LIMIT)
#ifdef NOT_CODE_3
#endif
enum kind { KIND_A = 1, KIND_B };
static const struct row { int id; const char *word; } s_rows[] = {
    {12, "a == b"},
    {LIMIT, R"x(1 " 2)x"},
};
static_assert(sizeof(int) == 4, "4");
class box final : public base<int>
{
  public:
    box() : size_{0}
    {
    }
    bool operator<(const box &other) const
    {
        return size_ < other.size_;
    }
    int operator()(int a) const
    {
        static_assert(sizeof(int) == 4, "4");
        typedef int(WINAPI * convert_fn)(void);
        return a ^ size_;
    }

  private:
    int size_ = 7;
};
bool whole(const std::vector<std::string> &names, char **out)
{
    char text[32];
    std::map<int, char> *map = make<int, char>(names);

    if (names.empty() || !map)
        return false;
    for (size_t i = 0; i < names.size(); i++)
        (void)put(map, [&](int a) { done(a); return a * 2; });
    LOG_WARN("1 < 2 && %d",
             names.size() - 1);
    *out = text;
    close(map);
    if (names[0] == '\'')
        LOG_INFO_JSON(map);
    else
        close(map);
    return ready(map);
}
static enum kind kind_of(int a)
{
    return a < 3 ? KIND_A : KIND_B;
}
const char *name(int kind)
{
    if (kind == KIND_A)
        return NULL;
    if (kind == KIND_B)
        return "b";
    return NULL;
}
'''
# All mutants of the sample but swaps: function, operator, originals with their replacements.
WANTED = {(function, operator, original, new) for function, operator, changes in [
    ("", "constant", {"10": "11 9", "1": "2 0", "12": "13 11", "7": "8 6"}),
    ("", "relational", {"<": "<= >="}),
    ("box::operator<", "relational", {"<": "<= >="}),
    ("box::operator()", "arithmetic", {"^": "&"}),
    ("box::operator()", "return", {"a ^ size_": "{}"}),
    ("whole", "arithmetic", {"++": "--", "*": "/", "-": "+"}),
    ("whole", "constant", {"false": "true", "0": "1 -1", "1": "2 0", "2": "3 1"}),
    ("whole", "level", {"LOG_WARN": "LOG_ERROR", "LOG_INFO_JSON": "LOG_DEBUG_JSON"}),
    ("whole", "logical", {"||": "&&"}),
    ("whole", "negation", {"!": ""}),
    ("whole", "relational", {"<": "<= >=", "==": "!="}),
    ("whole", "remove", dict.fromkeys([
        "( void ) put ( map , [ & ] ( int a ) { done ( a ) ; return a * 2 ; } )", "done ( a )",
        'LOG_WARN ( "1 < 2 && %d" , names . size ( ) - 1 )', "* out = text", "close ( map )",
        "LOG_INFO_JSON ( map )"], "")),
    ("whole", "return", {"a * 2": "{}", "ready ( map )": "!(ready(map))"}),
    ("kind_of", "constant", {"3": "4 2"}),
    ("kind_of", "relational", {"<": "<= >="}),
    ("kind_of", "return", {"a < 3 ? KIND_A : KIND_B": "{}"}),
    ("name", "relational", {"==": "!="}),
    ("name", "return", {'"b"': "{}"}),
] for original, replacements in changes.items() for new in replacements.split(" ")}
problems = []


def check(row, holds, what=""):
    if not holds:
        problems.append(f"{row}: {what}")


def check_sample():
    mutants = generate.mutants_of("sample.cpp", SAMPLE)
    made = {(one.function, one.operator, one.original, one.replacement)
            for one in mutants if one.operator != "swap"}
    check("too many", made <= WANTED, sorted(made - WANTED))
    check("too few", WANTED <= made, sorted(WANTED - made))
    swaps = [one.replacement.split("\n")[0] for one in mutants if one.operator == "swap"]
    check("swaps", sorted(swaps) == ["*out = text;", "close(map);"], swaps)
    twice = [one for one in mutants if one.operator == "remove" and one.original == "close ( map )"]
    check("equal statements", [one.occurrence for one in twice] == [0, 1], twice)
    finder = generate.Finder(mutants)
    for one in twice:
        check("equal statements of a renamed function",
              finder.find({**one.identity, "function": "renamed"}) is one, one)
    gone = {**twice[0].identity, "statement": "gone ;"}
    check("no statement of that text", finder.find(gone) is None)
    for one in mutants:
        text = one.apply(SAMPLE)
        check("lines", text.count("\n") == SAMPLE.count("\n") and text != SAMPLE, one)


def check_finding(files):
    """Every mutant is found where it is; and in moved, renamed and extended functions."""
    mutants = [one for name, text in files.items() for one in generate.mutants_of(name, text)]
    finder = generate.Finder(mutants)
    lost = [one for one in mutants if finder.find(one.identity) is not one]
    check("every mutant is found by its name", not lost, lost[:3])
    check("names are unique", len({one.key for one in mutants}) == len(mutants))

    # All in one file, in another order of lines and layout.
    changed = "".join(re.sub(r";\n( +)(?=[a-z])", r";\n\n\1/* new 1 < 2 */ ", text)
                      for text in files.values())
    moved = generate.Finder(generate.mutants_of("new/all.cpp", changed))
    pairs = [(one, moved.find(one.identity)) for one in mutants if one.function]
    found = [pair for pair in pairs if pair[1] is not None]
    check("functions in another file", len(found) > 0.95 * len(pairs), (len(found), len(pairs)))
    wrong = [one for one, other in found
             if (one.statement, one.operator) != (other.statement, other.operator)]
    check("the same fault", not wrong, wrong[:3])
    return mutants


def check_order(mutants):
    first = generate.sample(mutants, "1")
    check("all of them", sorted(one.key for one in first) == sorted(one.key for one in mutants))
    check("the same seed", first == generate.sample(mutants, "1"))
    check("another seed", first != generate.sample(mutants, "2"))
    for file in {one.file for one in mutants}:
        own, part = (sum(one.file == file for one in some) for some in (mutants, first[:len(first) // 4]))
        check("spread", abs(part - own / 4) <= 1, f"{file}: {part} of {own}")


def check_lists(root, finder, files):
    for entry in json.loads((pathlib.Path(__file__).parent / "equivalents.json").read_text()):
        check("equivalents.json", finder.find(entry) is not None, f"no longer applies: {entry}")
        check("equivalents.json", bool(entry.get("reason")), f"no reason: {entry}")
    scenarios = {path.name for path in (root / "scenarios").glob("*.json")}
    unit_tests = "".join(path.read_text() for path in (root / "tests/unit").rglob("*.cpp"))
    for problem in named.problems(files, scenarios, unit_tests):
        check("named.json", False, problem)


def main(root):
    plugins = pathlib.Path(root) / "oxni_sys" / "plugins"
    files = {str(path.relative_to(plugins)): path.read_text()
             for path in sorted(plugins.rglob("*")) if path.suffix in (".cpp", ".h")}
    check_sample()
    mutants = check_finding(files)
    check_order(mutants)
    check_lists(pathlib.Path(root), generate.Finder(mutants), files)
    for problem in problems[:20]:
        print("FAILED:", problem)
    print(f"{len(mutants)} mutants in {len(files)} files")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main(sys.argv[1])
