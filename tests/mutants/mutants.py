#!/usr/bin/env python3
"""mutants.py SOURCE_DIR WORK_DIR --mutants N --seed S [--only WORD]

Tests the tests: makes N changes of one token to the library, one at a time, in a few files, all chosen by the seed, and
says which of them no test noticed. Works in a copy of the tree in WORK_DIR. A mutant is killed when a test program that answers for its file
(the table "programs") fails, or takes far longer than it does without the change; it is equivalent when the compiler
makes the same of it, or when the list "equivalent" has it. The last line has the counts.
"""
import argparse
import collections
import filecmp
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
FILES = 8
COPIED = ["CMakeLists.txt", "CMakePresets.json", "cmake", "examples", "include", "scripts", "src", "tests", "tools"]

Mutant = collections.namedtuple("Mutant", "file line text changed")

# What stands there, as a regular expression, and what takes its place. clang-format sets operators between blanks, and
# never the signs of types.
TOKENS = [
    (r" <= ", " < "), (r" < ", " <= "), (r" >= ", " > "), (r" > ", " >= "), (r" == ", " != "), (r" != ", " == "),
    (r" && ", " || "), (r" \|\| ", " && "),
    (r" \+ ", " - "), (r" - ", " + "), (r" \* ", " / "), (r" / ", " * "), (r" % ", " / "),
    (r" & ", " | "), (r" \| ", " & "), (r" << ", " >> "), (r" >> ", " << "),
    (r" \+= ", " -= "), (r" -= ", " += "), (r" \|= ", " &= "), (r" &= ", " |= "),
    (r"\+\+(?=\w)", "--"), (r"--(?=\w)", "++"),
    (r"\btrue\b", "false"), (r"\bfalse\b", "true"),
    (r"(?<=[ (])!(?=\w)", ""),
    (r"\bbreak;", ";"), (r"\bcontinue;", ";"),
]
NUMBER = re.compile(r"(?<![\w.])(\d+)(u?)(?![\w.])")
CONDITION = re.compile(r"^(\s*(?:\} else )?(?:if|while) \()(.*)(\) \{)$")
STATEMENT = re.compile(r"^\s+(?!return\b|delete\b|throw\b|static_assert\b)[\w:.>\[\]-]+(?:\(.*\)| [-+|&]?= .*);$")
NEVER = re.compile(r"^\s*(#|//|static_assert|using |namespace |template|extern )|TQ_PRINTF")


def without_texts(line):
    """The line with what stands in quotes and comments blanked, so that places stay the same."""
    def blank(match):
        return match.group(0)[0] + "~" * (len(match.group(0)) - 2) + match.group(0)[-1]
    line = re.sub(r'"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'', blank, line)
    comment = line.find("//")
    return line if comment < 0 else line[:comment] + "~" * (len(line) - comment)


def changes_of(line):
    """Every change of one token of a line."""
    code = without_texts(line)
    if NEVER.search(code):
        return
    for pattern, instead in TOKENS:
        for match in re.finditer(pattern, code):
            yield line[:match.start()] + instead + line[match.end():]
    for match in NUMBER.finditer(code):
        yield line[:match.start()] + str(int(match.group(1)) + 1) + match.group(2) + line[match.end():]
    match = CONDITION.match(line)
    if match and code.count("(") == code.count(")") and "const " not in code and "*p" not in code:
        yield match.group(1) + "!(" + match.group(2) + ")" + match.group(3)
    if STATEMENT.match(code) and code.count("(") == code.count(")"):
        yield re.match(r"\s*", line).group(0) + ";"


def mutants_of(source_dir, name):
    with open(os.path.join(source_dir, "src/tqos", name), encoding="utf-8") as file:
        for number, line in enumerate(file.read().split("\n")):
            for changed in changes_of(line):
                yield Mutant(name, number, line, changed)


def rows_of(path):
    """The rows of a table of this directory: columns set apart by " | ", with # for comments."""
    with open(os.path.join(HERE, path), encoding="utf-8") as file:
        return [line.rstrip("\n").split(" | ") for line in file if line.strip() and not line.startswith("#")]


class Workshop:
    """The copy of the tree, its build, and what is known of the test programs without a change."""

    def __init__(self, source_dir, work_dir):
        self.tree = os.path.join(work_dir, "tree")
        self.build = os.path.join(work_dir, "build")
        self.seconds = {}
        self.copy(source_dir)
        self.run(["cmake", "-S", self.tree, "--preset", "x86-32", "-B", self.build,
                  "-DTQOS_GTEST_SOURCES=/usr/src/googletest", "-DCMAKE_CXX_FLAGS_DEBUG=-O1",
                  "-DTQOS_WARNINGS_AS_ERRORS=OFF", "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"])

    def copy(self, source_dir):
        """What has not changed keeps its time, and is not built again."""
        wanted = set()
        for name in COPIED:
            for place, _, files in os.walk(os.path.join(source_dir, name)):
                wanted.update(os.path.relpath(os.path.join(place, file), source_dir) for file in files)
            if os.path.isfile(os.path.join(source_dir, name)):
                wanted.add(name)
        for name in wanted:
            ours = os.path.join(self.tree, name)
            theirs = os.path.join(source_dir, name)
            if not os.path.exists(ours) or not filecmp.cmp(ours, theirs, shallow=False):
                os.makedirs(os.path.dirname(ours), exist_ok=True)
                shutil.copy(theirs, ours)
        for place, _, files in os.walk(self.tree):
            for file in files:
                if os.path.relpath(os.path.join(place, file), self.tree) not in wanted:
                    os.remove(os.path.join(place, file))

    def run(self, command):
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        if done.returncode != 0:
            sys.exit("mutants: failed: %s\n%s" % (" ".join(command), done.stdout[-4000:]))

    def make(self, target):
        done = subprocess.run(["cmake", "--build", self.build, "--target", target], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, check=False)
        return done.returncode == 0

    def object_of(self, name):
        return "CMakeFiles/tqos_objects.dir/src/tqos/%s.o" % name

    def write(self, mutant, text):
        path = os.path.join(self.tree, "src/tqos", mutant.file)
        with open(path, encoding="utf-8") as file:
            lines = file.read().split("\n")
        lines[mutant.line] = text
        with open(path, "w", encoding="utf-8") as file:
            file.write("\n".join(lines))

    def program(self, row):
        name = row.split(" ")[0]
        for place in ("tests", "tests/faults", "tests/soak"):
            path = os.path.join(self.build, place, name)
            if os.path.exists(path):
                return [path, "--gtest_fail_fast", "--gtest_brief=1"] + row.split(" ")[1:]
        sys.exit("mutants: no program " + name)

    def passes(self, row, limit):
        """A crash may end a process with status 0: what counts is what it says."""
        with subprocess.Popen(self.program(row), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                              start_new_session=True, cwd=self.build) as process:
            try:
                said = process.communicate(timeout=limit)[0]
                return process.returncode == 0 and re.search(rb"\[  PASSED  \] \d+ test", said) is not None
            except subprocess.TimeoutExpired:
                return False
            finally:
                try:
                    os.killpg(process.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass

    def limit_of(self, row):
        """How long a program may take: without a change it passes, and in that time."""
        if row not in self.seconds:
            if not self.make(row.split(" ")[0]):
                sys.exit("mutants: not built without a change: " + row)
            for _ in range(3):
                started = time.monotonic()
                if self.passes(row, 600):
                    break
            else:
                sys.exit("mutants: fails without a change: " + row)
            self.seconds[row] = time.monotonic() - started
        return 30 + 5 * self.seconds[row]

    def judge(self, mutant, rows):
        """What becomes of a mutant: "killed by ...", "survived", "same" or "not built"."""
        limits = [self.limit_of(row) for row in rows]
        target = self.object_of(mutant.file)
        compiled = os.path.join(self.build, target)
        self.make(target)
        before = compiled + ".before"
        shutil.copyfile(compiled, before)
        self.write(mutant, mutant.changed)
        try:
            if not self.make(target):
                return "not built"
            if filecmp.cmp(compiled, before, shallow=False):
                return "same"
            for row, limit in zip(rows, limits):
                if not self.make(row.split(" ")[0]):
                    return "not built"
                if not self.passes(row, limit):
                    return "killed by " + row.split(" ")[0]
            return "survived"
        finally:
            self.write(mutant, mutant.text)


def sample(source_dir, seed, only):
    """The mutants of a few files, chosen by the seed as their sizes go, in an order that it decides too. A run that took
    them from everywhere would spend its time on building test programs."""
    names = sorted(name for name in os.listdir(os.path.join(source_dir, "src/tqos")) if name.endswith(".cpp"))
    mutants = [mutant for name in names if only in name for mutant in mutants_of(source_dir, name)]
    random.Random(seed).shuffle(mutants)
    chosen = list(dict.fromkeys(mutant.file for mutant in mutants))[:FILES]
    return [mutant for mutant in mutants if mutant.file in chosen]


def key_of(mutant):
    return mutant.file, mutant.text.strip(), mutant.changed.strip()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("source_dir")
    parser.add_argument("work_dir")
    parser.add_argument("--mutants", type=int, default=40)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--only", default="")
    parser.add_argument("--list", action="store_true")
    arguments = parser.parse_args()
    source_dir = os.path.abspath(arguments.source_dir)
    mutants = sample(source_dir, arguments.seed, arguments.only)
    if arguments.list:
        for mutant in mutants[:arguments.mutants]:
            print("%s:%d: %s => %s" % (mutant.file, mutant.line + 1, mutant.text.strip(), mutant.changed.strip()))
        return
    programs = {row[0]: row[1:] for row in rows_of("programs")}
    equivalent = {(row[0], row[1], row[2]) for row in (r for r in rows_of("equivalent"))}
    workshop = Workshop(source_dir, os.path.abspath(arguments.work_dir))
    counts = collections.Counter()
    for mutant in mutants:
        if counts["run"] >= arguments.mutants:
            break
        fate = "equivalent" if key_of(mutant) in equivalent else workshop.judge(mutant, programs[mutant.file])
        if fate in ("not built", "same"):
            continue
        counts["run"] += 1
        counts[fate.split(" ")[0]] += 1
        print("%s:%d: %s: %s => %s" % (mutant.file, mutant.line + 1, fate, mutant.text.strip(), mutant.changed.strip()),
              flush=True)
    print("mutants: %d run, %d killed, %d equivalent, %d survived"
          % tuple(counts[key] for key in ("run", "killed", "equivalent", "survived")))
    sys.exit(0 if counts["survived"] == 0 else 3)


if __name__ == "__main__":
    main()
