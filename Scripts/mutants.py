#!/usr/bin/env python3
"""Measures how many faults the tests detect: puts random one-line faults into the sources, one at a time.

Each fault ("mutant") is built in a copy of the tree, and the suite runs on it: first the tests that detected earlier mutants
of the same folder, in earlier runs too, then all others. A mutant that no test detects points to a gap; a mutant that many
tests detect points to overlap. A mutant that compiles to the same instructions is none, and is replaced by another.
"""

import argparse
import collections
import json
import os
import pathlib
import random
import re
import shlex
import shutil
import subprocess
import sys
import xml.etree.ElementTree as xml

TOP = pathlib.Path(__file__).resolve().parent.parent
COPY = TOP / "build" / "mutants"
LONGEST_TEST = 60  # seconds; a test that hangs fails by it
MEMORY = COPY / "detecting_tests.json"
DEFAULT_PLACES = ["Src", "Board"]
DEFAULT_PRESETS = ["debug"]
# Slow tests that install, or compare documents: they are not made to detect faults of the sources.
LEFT_OUT = "applications_of_the_installed_library|applications_that_contain_the_tree|manual_pages|completions|readme|on_board_limits"

# Patterns and their replacements. Each match in a line is a candidate of its own.
OPERATORS = [
    (r"(?<![=!<>])==(?!=)", "!="),
    (r"!=", "=="),
    (r"(?<=[\w)\]] )<(?= [\w(])", "<="),
    (r"(?<=[\w)\]] )<=(?= )", "<"),
    (r"(?<=[\w)\]] )>(?= [\w(])", ">="),
    (r"(?<=[\w)\]] )>=(?= )", ">"),
    (r"&&", "||"),
    (r"\|\|", "&&"),
    (r"(?<=[\w)\]] )\+(?= )", "-"),
    (r"(?<=[\w)\]] )-(?= )", "+"),
    (r"(?<=[\w)\]] )& (?=~)", "| "),
    (r"\btrue\b", "false"),
    (r"\bfalse\b", "true"),
    (r"(?<![\w.])0(?![\w.])", "1"),
    (r"(?<![\w.-])1(?![\w.])", "2"),  # not -1: any negative number means a failure
    (r"\bif \((?!constexpr)(?=[^;]*\) \{$)", "if (!"),
    (r"\bKIV_ERR_[A-Z_]+\b", "KIV_OK"),
    (r"\bO_CLOEXEC\b", "0"),
    (r"\bstd::min\b", "std::max"),
]
# A statement that can be removed: a call or an assignment on one line.
STATEMENT = re.compile(r"^\s+(?!return|const|auto|using|static|throw|break|continue|case|default|goto|delete)"
                       r"[\w:.>*\[\]-]+(\(.*\)| (=|\+=|-=|\|=|&=) .*);$")
# Lines that are left alone: comments, directives, and messages, whose loss is no fault of the product. The last three are no
# instructions: va_end() of all supported systems, and hints to ThreadSanitizer.
SKIPPED = re.compile(r"^\s*(//|/\*|\*|#|static_assert|KIV_LOG_|std::perror|va_end|kiv::(hand|take)_over)")
LITERAL = re.compile(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)*\'|//.*$')

Mutant = collections.namedtuple("Mutant", "path line before after")


def run(command, **options):
    return subprocess.run(command, cwd=COPY / "tree", stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", check=False, **options)


def git_files(*places):
    return subprocess.run(["git", "ls-files", "--", *places], cwd=TOP, stdout=subprocess.PIPE, text=True,
                          check=True).stdout.splitlines()


def sources(places):
    return [path for path in git_files(*places) if path.endswith((".cpp", ".h", ".hpp"))]


def mutants_of(path):
    for number, line in enumerate((TOP / path).read_text().splitlines()):
        if SKIPPED.match(line):
            continue
        literals = [match.span() for match in LITERAL.finditer(line)]
        if STATEMENT.match(line):
            yield Mutant(path, number, line, re.match(r"\s*", line)[0] + ";")
        for pattern, replacement in OPERATORS:
            for match in re.finditer(pattern, line):
                if any(begin <= match.start() < end for begin, end in literals):
                    continue
                tail = line[match.end():]
                if replacement == "if (!":  # the whole condition is negated
                    replacement_tail = "(" + tail.replace(") {", ")) {")
                    if ";" in tail or not tail.endswith(") {"):
                        continue
                    yield Mutant(path, number, line, line[:match.start()] + replacement + replacement_tail)
                else:
                    yield Mutant(path, number, line, line[:match.start()] + replacement + tail)


def copy_tree():
    """Copies the tracked files that differ, so that a second run builds little; removes the others."""
    tracked = set(git_files("."))
    for old in (COPY / "tree").rglob("*"):
        path = old.relative_to(COPY / "tree")
        if path.parts[0] != "build" and not old.is_dir() and str(path) not in tracked:
            old.unlink()
    for path in tracked:
        target = COPY / "tree" / path
        if not target.exists() or target.read_bytes() != (TOP / path).read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(TOP / path, target)


def prepare(presets):
    copy_tree()
    for preset in presets:
        configure = ["cmake", "--preset", preset, f"-DZOL_TEST_TIMEOUT={LONGEST_TEST}"]
        for step in (configure, ["cmake", "--build", "--preset", preset]):
            done = run(step)
            if done.returncode != 0:
                sys.exit(f"mutants: the tree itself does not build:\n{done.stdout[-2000:]}")


def builds(preset):
    return run(["cmake", "--build", "--preset", preset]).returncode == 0


def instructions(preset, path):
    """The optimised instructions of a source file; None for a header."""
    database = COPY / "tree" / "build" / preset / "compile_commands.json"
    for entry in json.loads(database.read_text()):
        if entry["file"] == str(COPY / "tree" / path):
            command = shlex.split(entry["command"])
            command[command.index("-o") + 1] = "-"
            return run(command + ["-O2", "-g0", "-S"]).stdout
    return None


def failing_tests(preset, options, only_first, chosen=None):
    """The names of the tests that fail, of all or of the chosen ones. A hanging test fails by its time limit."""
    report = COPY / "report.xml"
    report.unlink(missing_ok=True)
    command = ["ctest", "--preset", preset, "-j", str(options.jobs), "-E", LEFT_OUT,
               "--timeout", str(LONGEST_TEST), "--output-junit", str(report)]
    if chosen:
        command += ["-R", "^(" + "|".join(map(re.escape, chosen)) + ")$"]
    run(command + (["--stop-on-failure"] if only_first else []))
    cases = xml.parse(report).getroot().iter("testcase")
    return [case.get("name") for case in cases if case.get("status") == "fail"]


def noticed_by_tests(preset, likely, options):
    """The tests that fail: all of them, or the first one, for which the likely tests are run before the others."""
    if options.all:
        return failing_tests(preset, options, False)
    return (likely and failing_tests(preset, options, True, likely)) or failing_tests(preset, options, True)


def detecting_tests(mutant, likely, options):
    """The tests that detect a mutant, or None when it does not compile, or to the same instructions."""
    target = COPY / "tree" / mutant.path
    original = target.read_text()
    lines = original.splitlines(keepends=True)
    lines[mutant.line] = mutant.after + "\n"
    former = instructions(options.presets[0], mutant.path)
    target.write_text("".join(lines))
    try:
        if former is not None and instructions(options.presets[0], mutant.path) == former:
            return None
        for preset in options.presets:
            if not builds(preset):
                return None
            if noticed := noticed_by_tests(preset, likely, options):
                return noticed
        return []
    finally:
        target.write_text(original)


def remembered():
    """The tests that detected mutants of each folder, in the order of their first mutant."""
    killers = collections.defaultdict(list)
    if MEMORY.exists():
        killers.update(json.loads(MEMORY.read_text()))
    return killers


def tell(number, count, mutant, noticed):
    verdict = f"killed by {', '.join(noticed)}" if noticed else "SURVIVED"
    print(f"[{number}/{count}] {mutant.path}:{mutant.line + 1}: {verdict}", flush=True)
    print(f"    - {mutant.before.strip()}\n    + {mutant.after.strip()}", flush=True)


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("places", nargs="*", default=DEFAULT_PLACES, metavar="PLACE",
                        help="files or folders to put faults into (default: %(default)s)")
    parser.add_argument("--count", type=int, default=100, help="mutants to try (default: %(default)s)")
    parser.add_argument("--seed", type=int, help="repeats an earlier choice of mutants")
    parser.add_argument("--all", action="store_true",
                        help="run every test on every mutant and show all that detect it, not just the first")
    parser.add_argument("--presets", nargs="+", default=DEFAULT_PRESETS, metavar="PRESET",
                        help="the builds to use; a later one sees what survived the one before (default: %(default)s)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="tests at a time (default: %(default)s)")
    return parser.parse_args()


def main():
    options = parse_arguments()
    seed = options.seed if options.seed is not None else random.randrange(10**6)
    candidates = [mutant for path in sources(options.places) for mutant in mutants_of(path)]
    random.Random(seed).shuffle(candidates)
    print(f"mutants: {options.count} of {len(candidates)} candidates in {' '.join(options.places)}, seed {seed}")
    prepare(options.presets)
    for preset in options.presets:
        if broken := failing_tests(preset, options, False):
            sys.exit(f"mutants: tests fail without any fault ({preset}): {', '.join(broken)}")
    tried = killed = 0
    noticed_by = collections.Counter()
    killers = remembered()
    while tried < options.count and candidates:
        mutant = candidates.pop()
        likely = killers[os.path.dirname(mutant.path)]
        noticed = detecting_tests(mutant, likely, options)
        if noticed is None:
            continue
        likely.extend(name for name in noticed if name not in likely)
        MEMORY.write_text(json.dumps(killers))
        tried += 1
        killed += bool(noticed)
        noticed_by.update(noticed)
        tell(tried, options.count, mutant, noticed)
    for name, count in noticed_by.most_common() if options.all else []:
        print(f"{count:5} {name}")
    print(f"mutants: {killed} of {tried} killed")


if __name__ == "__main__":
    main()
