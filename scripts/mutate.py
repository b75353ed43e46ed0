#!/usr/bin/env python3
"""Breaks the library in one place at a time and sees whether the unit tests notice.

    scripts/mutate.py [--count 100] [--seed N] [--jobs N] [--kinds KIND...]

Each mutant has one condition flipped, one call dropped, two statements swapped or a number changed. A change
that compiles to the same code is none. Prints those that no test noticed: each is a missing test, or a line
without an effect. Works in a copy of the last commit.
"""

import argparse
import collections
import contextlib
import json
import os
import pathlib
import random
import re
import resource
import shlex
import shutil
import subprocess
import tempfile
import time

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FLIPS = [("==", "!="), ("!=", "=="), ("<=", "<"), (">=", ">"), (" < ", " >= "), (" > ", " <= "), ("&&", "||"), ("||", "&&")]
KINDS = ["flip", "drop", "swap", "number"]
SLOW_TESTS = "*.ACallbackThatOutlastsADrain*"  # 15 s of real time, for a line or two
LOGGING = re.compile(r"LOG|static_assert|^\s*(//|\*|/\*|#)")


def code_of(line):
    """Without the comment behind it."""
    return re.split(r"//|/\*", line)[0]


def flips(lines, index):
    """Each operator of a condition on the line, turned round."""
    if '"' in lines[index] or not re.search(r"\b(if|while|for|return)\b|\?|= .*(==|!=|<|>|&&|\|\|)", lines[index]):
        return
    for old, new in FLIPS:
        for match in re.finditer(re.escape(old), code_of(lines[index])):
            if old in (" < ", " > ") and "template" in lines[index]:
                continue
            yield "flip", {index: lines[index][: match.start()] + new + lines[index][match.end() :]}


def drops(lines, index):
    """The line without its call or its assignment."""
    if re.match(r"\s+[\w:>.\[\]*-]+(\(.*\)| = .*);\s*$", lines[index]) and not re.match(r"\s+return\b", lines[index]):
        yield "drop", {index: "    ;\n"}


def swaps(lines, index):
    """A call and the next one in the other order; assignments in a row rarely need theirs."""
    statement = r"(\s+)[\w:>.\[\]*-]+(\(.*\));\s*$"
    here, there = re.match(statement, lines[index]), index + 1 < len(lines) and re.match(statement, lines[index + 1])
    if here and there and here[1] == there[1] and not LOGGING.search(lines[index + 1]):
        yield "swap", {index: lines[index + 1], index + 1: lines[index]}


def numbers(lines, index):
    """A small number one greater."""
    if '"' in lines[index]:
        return
    for match in re.finditer(r"(?<![\w.])([1-9]\d{0,4})(?![\w.])", code_of(lines[index])):
        yield "number", {index: lines[index][: match.start()] + str(int(match[1]) + 1) + lines[index][match.end() :]}


def mutants(folder, kinds):
    """All of these kinds, as (file, kind, lines to replace)."""
    found = []
    listed = subprocess.run(["git", "ls-files", "src"], cwd=folder, capture_output=True, text=True, check=True)
    for path in listed.stdout.split():
        if not path.endswith(".cpp"):
            continue
        with open(os.path.join(folder, path), encoding="utf-8") as file:
            lines = file.readlines()
        for index, line in enumerate(lines):
            if LOGGING.search(line):
                continue
            for change in (flips, drops, swaps, numbers):
                found += [(path, kind, edit) for kind, edit in change(lines, index) if kind in kinds]
    return found


def limit_processor_time():
    resource.setrlimit(resource.RLIMIT_CPU, (90, 90))


def activity(process):
    """The processor time of a process so far, and whether one of its threads waits for a processor."""
    fields = []
    for stat in pathlib.Path(f"/proc/{process}/task").glob("*/stat"):
        with contextlib.suppress(OSError):  # the thread has ended
            fields.append(stat.read_text("ascii", "replace").rpartition(")")[2].split())
    return sum(int(one[11]) + int(one[12]) for one in fields), any(one[0] == "R" for one in fields)


def succeeds(process, idle_seconds=100):
    """Whether it exits with 0. Kills it after that time without activity; a busy machine only makes it slow."""
    seen, since = None, time.monotonic()
    while True:
        with contextlib.suppress(subprocess.TimeoutExpired):
            return process.wait(0.5) == 0
        used, waits = activity(process.pid)
        if used != seen or waits:
            seen, since = used, time.monotonic()
        elif time.monotonic() - since > idle_seconds:
            process.kill()


class Copy:
    """A copy of the last commit, and its build."""

    def __init__(self, jobs):
        self.folder = os.path.join(tempfile.mkdtemp(prefix="mutants-"), "copy")
        self.build = os.path.join(self.folder, "build")
        self.jobs = jobs
        self.originals = {}
        subprocess.run(["git", "clone", "-q", SOURCE, self.folder], check=True)
        options = ["-DSCREENRECORD_HOST=OFF", "-DCMAKE_BUILD_TYPE=", "-DCMAKE_CXX_FLAGS=-O1",
                   "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"]
        subprocess.run(["cmake", "-S", self.folder, "-B", self.build, "-G", "Ninja", *options], check=True,
                       capture_output=True)
        with open(os.path.join(self.build, "compile_commands.json"), encoding="utf-8") as file:
            self.commands = {os.path.relpath(entry["file"], self.folder): entry["command"] for entry in json.load(file)}

    def code(self, path):
        """The object code of a file at -O2; None if it does not compile."""
        target = os.path.join(self.build, "code.o")
        command = shlex.split(self.commands[path]) + ["-O2", "-o", target]
        if subprocess.run(command, cwd=self.build, capture_output=True).returncode != 0:
            return None
        with open(target, "rb") as file:
            return file.read()

    def compiles(self):
        make = ["cmake", "--build", self.build, "-j", str(self.jobs), "--target", "unit_tests"]
        return subprocess.run(make, capture_output=True).returncode == 0

    def passes(self, calls=20000, tests="-" + SLOW_TESTS):
        environment = dict(os.environ, RANDOM_CALLS=str(calls), RANDOM_CALLS_SEED="1")
        tests = [os.path.join(self.build, "bin", "unit_tests"), "--gtest_brief=1", "--gtest_fail_fast",
                 "--gtest_filter=" + tests]
        # The limit of processor time ends an endless loop, idle_seconds a task that never returns.
        with subprocess.Popen(tests, env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              preexec_fn=limit_processor_time) as process:
            return succeeds(process)

    def survives(self, path, edit):
        """None if it does not compile, or compiles to the same code."""
        if path not in self.originals:
            self.originals[path] = self.code(path)
        before = self.originals[path]
        full = os.path.join(self.folder, path)
        with open(full, encoding="utf-8") as file:
            lines = file.readlines()
        try:
            with open(full, "w", encoding="utf-8") as file:
                file.writelines(edit.get(index, line) for index, line in enumerate(lines))
            if self.code(path) in (None, before) or not self.compiles():
                return None
            return self.passes() and self.passes(200000) and self.passes(tests=SLOW_TESTS)
        finally:
            with open(full, "w", encoding="utf-8") as file:
                file.writelines(lines)

    def remove(self):
        shutil.rmtree(os.path.dirname(self.folder))


def main():
    options = argparse.ArgumentParser()
    options.add_argument("--count", type=int, default=100)
    options.add_argument("--seed", type=int, default=random.randrange(1 << 32))
    options.add_argument("--jobs", type=int, default=os.cpu_count())
    options.add_argument("--kinds", nargs="+", choices=KINDS, default=KINDS)
    options = options.parse_args()
    tried, noticed = collections.Counter(), collections.Counter()
    copy = Copy(options.jobs)
    try:
        if not (copy.compiles() and copy.passes()):
            raise SystemExit("The tests do not pass as they are.")
        candidates = mutants(copy.folder, options.kinds)
        print(f"seed {options.seed}, {len(candidates)} candidates", flush=True)
        random.Random(options.seed).shuffle(candidates)
        for path, kind, edit in candidates:
            if tried.total() == options.count:
                break
            outcome = copy.survives(path, edit)
            if outcome is None:
                continue
            tried[kind] += 1
            noticed[kind] += not outcome
            if outcome:
                print(f"not noticed: {path}:{min(edit) + 1} ({kind}) {edit[min(edit)].strip()}", flush=True)
    finally:
        of_each = ", ".join(f"{kind} {noticed[kind]} of {tried[kind]}" for kind in options.kinds)
        print(f"{noticed.total()} of {tried.total()} noticed: {of_each}")
        copy.remove()


if __name__ == "__main__":
    main()
