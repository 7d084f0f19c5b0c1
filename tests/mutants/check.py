#!/usr/bin/python3
"""Changes the gateway one small step at a time and prints which of the changes no unit test notices.

usage: check.py [--only FILE] [--id NUMBER] [--again] [--list] ROOT

One build holds every mutant (mutate.py). One run of each test notes which mutants it reaches; then every mutant is
judged by the tests that reach it, those that reach the fewest others first, until one fails. What survives is printed,
unless explained.txt gives its reason. Ends with 0 when everything that survives is explained, with 1 when not, or when
a mutant could not be judged, or an explanation fits nothing any more.
"""

import argparse
import concurrent.futures
import functools
import hashlib
import json
import os
import re
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOMS = ("PlatformDependant", "Sources")
INCLUDES = ("Sources", "PlatformDependant", "pvss/include", "kel/include")
MARK = re.compile(r"/\*<([0-9_]+)\*/|/\*([0-9_]+)>\*/")
SHORTEST, SOON = 5, 20  # seconds: what is not over then is held against the same tests without the change
LONGEST = 900  # seconds: what is not over then without any change is never over
FIRST = 6  # so many of the likeliest tests are run before all others


def say(text):
    print(f"mutants: {text}", flush=True)


def jobs():
    return int(os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL") or os.cpu_count() or 1)


class Stop(Exception):
    """The check cannot go on; the text says why."""


# --- the copy

def write_if_other(path, data):
    if os.path.exists(path):
        with open(path, "rb") as file:
            if file.read() == data:
                return
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(data)


def ids_around(text, offset):
    """The innermost mutants whose text the offset is in."""
    stack = []
    for mark in MARK.finditer(text):
        if mark.start() > offset:
            break
        if mark.group(1):
            stack.append(mark.group(1))
        elif stack:
            stack.pop()
    return [int(n) for n in stack[-1].split("_")] if stack else []


def compile_errors(folder, path, flags):
    done = subprocess.run(["g++", "-fsyntax-only", "-fmax-errors=0", *flags, path], cwd=folder, capture_output=True,
                          text=True, check=False)
    return [(m.group(1), int(m.group(2)), int(m.group(3)), m.group(4))
            for m in re.finditer(r"^([^:\n]+):(\d+):(\d+): (?:fatal )?error: (.*)$", done.stderr, re.M)]


def write_copy(root, folder, mutator, left_out, extra):
    for path, file in mutator.files.items():
        text = '#include "mutants.h"\n' + file.render(left_out)
        if path.endswith(".h"):
            text = "#pragma once\n" + text
        write_if_other(os.path.join(folder, path), text.encode("latin-1"))
    for name, data in extra.items():
        write_if_other(os.path.join(folder, name), data)


def leave_out_what_does_not_compile(root, folder, mutator, flags, extra):
    left_out = {}
    for _ in range(30):
        write_copy(root, folder, mutator, set(left_out), extra)
        units = [path for path in mutator.files if path.endswith(".cpp")]
        with concurrent.futures.ThreadPoolExecutor(jobs()) as pool:
            results = list(pool.map(lambda unit: compile_errors(folder, unit, flags), units))
        found = False
        for errors in results:
            for path, line, column, words in errors:
                path = os.path.relpath(os.path.join(folder, path), folder)
                if path not in mutator.files:
                    continue
                with open(os.path.join(folder, path), encoding="latin-1") as file:
                    text = file.read()
                offset = sum(len(l) for l in text.splitlines(True)[:line - 1]) + column - 1
                for number in ids_around(text, offset):
                    found = found or number not in left_out
                    left_out.setdefault(number, words)
        errors = [error for result in results for error in result]
        if not errors:
            return left_out
        if not found:
            path, line, column, words = errors[0]
            raise Stop(f"the copy does not compile, and no mutant is to blame: {path}:{line}:{column}: {words}")
    raise Stop("the copy does not compile")


# --- tests

class Test:
    def __init__(self, binary, name):
        self.binary, self.name, self.reached, self.seconds = binary, name, frozenset(), 0.0


def environment(**values):
    return dict(os.environ, **values)


def cases_of(binary):
    done = subprocess.run([binary, "--gtest_list_tests"], capture_output=True, text=True, check=True,
                          env=environment())
    suite, names = "", []
    for line in done.stdout.splitlines():
        if line and not line.startswith(" ") and line.split()[0].endswith("."):
            suite = line.split()[0]
        elif line.startswith("  "):
            names.append(suite + line.split()[0])
    return names


def passes(binary, names, limit, number, more_time=None):
    """Whether the tests pass with the mutant on. Believes nothing but GoogleTest's own last line. When the limit has
    passed, more_time is asked for how long they may go on."""
    command = [binary, "--gtest_brief=1", "--gtest_fail_fast", "--gtest_filter=" + ":".join(names)]
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL,
                               env=environment(KELGW_MUTANT=str(number)), start_new_session=True)
    try:
        try:
            output, _ = process.communicate(timeout=limit)
        except subprocess.TimeoutExpired:
            if more_time is None:
                raise
            output, _ = process.communicate(timeout=more_time())
    except subprocess.TimeoutExpired:
        return False, "hangs"
    finally:
        if process.returncode is None:
            os.killpg(process.pid, 9)  # what it started, too
            process.communicate()
    if process.returncode != 0:
        return False, f"ends with {process.returncode}"
    closing = re.search(rb"^\[  PASSED  \] (\d+) tests?\.$", output, re.M)
    if closing is None or int(closing.group(1)) != len(names):
        return False, "ends early"
    return True, ""


def time_without_change(binary, names):
    """How long what seems to hang may go on: several times what the same tests need without any change, just now."""
    started = time.monotonic()
    if not any(passes(binary, names, LONGEST, 0)[0] for _ in range(3)):
        raise Stop(f"without any change does not pass any more: {', '.join(names)}")
    return SHORTEST + 3 * (time.monotonic() - started)


def note_reach(test, count, folder):
    """Notes what the test reaches and how long it takes; gives its name when it does not pass."""
    path = os.path.join(folder, f"reached.{os.path.basename(test.binary)}.{test.name}".replace("/", "_"))
    with open(path, "wb") as file:
        file.write(bytes(count + 1))
    started = time.monotonic()
    done = subprocess.run([test.binary, "--gtest_brief=1", "--gtest_filter=" + test.name], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                          env=environment(KELGW_MUTANT="0", KELGW_MUTANTS_REACHED=path), check=False)
    test.seconds = time.monotonic() - started
    if done.returncode != 0 or b"[  PASSED  ] 1 test." not in done.stdout:
        sys.stdout.write(done.stdout.decode(errors="replace")[-2000:])
        return test.name
    with open(path, "rb") as file:
        test.reached = frozenset(i for i, byte in enumerate(file.read()) if byte)
    os.remove(path)
    return None


def judge(number, tests):
    """What the tests say of the mutant: how it was noticed, or None when it was not."""
    reaching = sorted((t for t in tests if number in t.reached), key=lambda t: (t.seconds > 1, len(t.reached)))
    for part in (reaching[:FIRST], reaching[FIRST:]):
        for binary in dict.fromkeys(t.binary for t in part):
            chosen = [t for t in part if t.binary == binary]
            limit = SHORTEST + 3 * sum(t.seconds for t in chosen)
            names = [t.name for t in chosen]
            good, how = passes(binary, names, min(limit, SOON), number,
                               functools.partial(time_without_change, binary, names))
            if not good:
                return how
    return None


# --- explanations

def read_explanations(path):
    """Pairs of a mutant's line and its reason: the line as it is printed, then the reason, indented."""
    entries = []
    if not os.path.exists(path):
        return entries
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            line = line.rstrip("\n")
            if not line.strip() or line.startswith("#"):
                continue
            if line[0] != " ":
                entries.append([line, ""])
            elif entries:
                entries[-1][1] = (entries[-1][1] + " " + line.strip()).strip()
            else:
                raise Stop(f"{path}:{number}: a reason without a mutant")
    for key, reason in entries:
        if not reason:
            raise Stop(f"{path}: no reason is given for: {key}")
    doubled = {key for key, _ in entries if [k for k, _ in entries].count(key) > 1}
    if doubled:
        raise Stop(f"{path}: given twice: {sorted(doubled)[0]}")
    return entries


def stale(entries, mutants):
    known = {mutant.key for mutant in mutants}
    return [key for key, _ in entries if key not in known]


# --- the whole

def build(root, folder):
    if not os.path.exists(os.path.join(folder, "build.ninja")):
        # What is built more often than it runs is neither optimised nor debugged.
        run(["cmake", "-S", root, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=-O0 -g0",
             "-DKELGW_BENCH=OFF", f"-DKELGW_MUTATED={folder}/copy"])
    run(["ninja", "-C", folder, "build.ninja"])  # the list of tests may be of an earlier build
    with open(os.path.join(folder, "mutant-tests.txt"), encoding="utf-8") as file:
        tests = [line.split("\t") for line in file.read().splitlines() if line]
    run(["ninja", "-C", folder, "-j", str(jobs()), "--quiet", *(name for name, _ in tests)])
    return [binary for _, binary in tests]


def run(command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode != 0:
        print(done.stdout[-6000:])
        raise Stop(f"{command[0]} failed")


def run_time_numbers(binaries):
    """The mutants that some program can reach at all."""
    names = set()
    for binary in binaries:
        done = subprocess.run(["nm", binary], capture_output=True, text=True, check=True)
        names.update(int(n) for n in re.findall(r"_ZN7mutants11onAtRunTimeILi(\d+)EEEbv", done.stdout))
    return names


def sources_of(root):
    return [f"{room}/{name}" for room in ROOMS for name in sorted(os.listdir(os.path.join(root, room)))
            if name.endswith((".h", ".cpp"))]


def extra_files(root):
    extra = {}
    for room in ROOMS:
        with open(os.path.join(root, room, "CMakeLists.txt"), "rb") as file:
            extra[f"{room}/CMakeLists.txt"] = b"kelgw_mutants()\n" + file.read()
    for name in ("mutants.h", "mutants.cpp"):
        with open(os.path.join(HERE, name), "rb") as file:
            extra[f"mutants/{name}"] = file.read()
    return extra


def fingerprint(root, paths):
    """A hash of everything that the copy is made of and by."""
    result = hashlib.sha256()
    for path in [*paths, *(f"{room}/CMakeLists.txt" for room in ROOMS)]:
        with open(os.path.join(root, path), "rb") as file:
            result.update(path.encode() + b"\0" + file.read())
    for name in ("mutate.py", "mutants.h", "mutants.cpp"):
        with open(os.path.join(HERE, name), "rb") as file:
            result.update(file.read())
    return result.hexdigest()


def make_copy(root, folder):
    """Writes the copy, unless the one that is there is of these very sources. All mutants by their numbers, and why
    some are left out."""
    import mutate  # only here: --help works without libclang
    memory = os.path.join(folder, "copy.json")
    print_of_sources = fingerprint(root, sources_of(root))
    if os.path.exists(memory):
        with open(memory, encoding="utf-8") as file:
            last = json.load(file)
        if last["fingerprint"] == print_of_sources:
            return ({m[0]: mutate.Mutant(*m) for m in last["mutants"]},
                    {int(number): why for number, why in last["left out"].items()})
    include = [f"-I{os.path.join(root, path)}" for path in INCLUDES]
    mutator = mutate.Mutator(root, sources_of(root), ["-std=c++20", *include])
    flags = ["-std=c++20", "-w", "-Wno-narrowing", "-Imutants", "-ISources", "-IPlatformDependant", *include[2:]]
    os.makedirs(folder, exist_ok=True)
    left_out = leave_out_what_does_not_compile(root, os.path.join(folder, "copy"), mutator, flags, extra_files(root))
    with open(memory, "w", encoding="utf-8") as file:
        json.dump({"fingerprint": print_of_sources, "left out": left_out,
                   "mutants": [[m.number, m.path, m.line, m.function, m.kind, m.change]
                               for m in mutator.mutants.values()]}, file)
    return mutator.mutants, left_out


def check(root, options):
    folder = os.path.join(root, "build", "mutants")
    explanations = read_explanations(os.path.join(HERE, "explained.txt"))
    started = time.monotonic()
    everything, left_out = make_copy(root, folder)
    say(f"{len(everything)} mutants, {len(left_out)} of them do not compile; building the others")
    binaries = build(root, folder)

    programs = os.path.join(folder, "bin")  # the tests and what they start
    at_run_time = run_time_numbers(os.path.join(programs, name) for name in os.listdir(programs))
    for number, mutant in everything.items():
        if number not in left_out and number not in at_run_time and mutant.kind == "number":
            left_out[number] = "a constant of the compiler"
    mutants = [m for m in everything.values() if m.number not in left_out]
    if options.list:
        for number, why in sorted(left_out.items()):
            mutant = everything[number]
            print(f"left out {number} {mutant.path}:{mutant.line} {mutant.key}: {why}")
        for mutant in mutants:
            print(f"{mutant.number} {mutant.path}:{mutant.line} {mutant.key}")
        return 0
    wanted = [m for m in mutants if (not options.only or m.path.startswith(options.only) or
                                     m.path.endswith(options.only)) and
              (not options.id or m.number in options.id)]
    last = os.path.join(folder, "survivors.json")
    if options.again and os.path.exists(last):
        with open(last, encoding="utf-8") as file:
            keys = set(json.load(file))
        wanted = [m for m in wanted if m.key in keys]

    tests = [Test(binary, name) for binary in binaries for name in cases_of(binary)]
    say(f"built after {time.monotonic() - started:.0f} s; {len(tests)} tests")
    with concurrent.futures.ThreadPoolExecutor(jobs()) as pool:
        failing = [name for name in pool.map(lambda test: note_reach(test, len(everything), folder), tests) if name]
    if failing:
        raise Stop(f"without any change fails already: {', '.join(failing)}")
    say(f"every test has run after {time.monotonic() - started:.0f} s; judging {len(wanted)} mutants")
    verdicts, explained = {}, dict(explanations)
    with concurrent.futures.ThreadPoolExecutor(jobs()) as pool:
        jobs_running = {pool.submit(judge, m.number, tests): m for m in wanted}
        for done in concurrent.futures.as_completed(jobs_running):
            mutant = jobs_running[done]
            verdicts[mutant.number] = done.result()
            if options.id or verdicts[mutant.number] is None and mutant.key not in explained:
                say(f"{mutant.number} {mutant.key}: {verdicts[mutant.number] or 'survives'}")
            if len(verdicts) % 100 == 0:
                say(f"{len(verdicts)} judged after {time.monotonic() - started:.0f} s")
    return report(everything, mutants, wanted, left_out, tests, verdicts, explanations, last, options,
                  time.monotonic() - started)


def report(everything, mutants, wanted, left_out, tests, verdicts, explanations, last, options, seconds):
    reached = frozenset().union(*(t.reached for t in tests))
    explained = dict(explanations)
    survivors = [m for m in wanted if verdicts[m.number] is None]
    unexplained = [m for m in survivors if m.key not in explained]
    for mutant in unexplained:
        never = "" if mutant.number in reached else " (never executed)"
        print(f"{mutant.path}:{mutant.line}: survives{never}: {mutant.number}\n{mutant.key}")
    with open(last, "w", encoding="utf-8") as file:
        json.dump([m.key for m in survivors], file)
    bad = stale(explanations, everything.values())
    for key in bad:
        print(f"explained.txt: fits no mutant any more: {key}")
    whole = not (options.only or options.id or options.again)
    if whole:
        noticed = {m.key for m in wanted} - {m.key for m in survivors}
        for key, _ in explanations:
            if key in noticed:
                print(f"explained.txt: a test notices it now, the reason can go: {key}")
    hung = sum(1 for how in verdicts.values() if how == "hangs")
    say(f"{len(mutants)} mutants, {len(left_out)} left out, {len(wanted)} judged in {seconds:.0f} s: "
        f"{len(wanted) - len(survivors)} noticed ({hung} by hanging), {len(survivors) - len(unexplained)} explained, "
        f"{len(unexplained)} survive")
    return 1 if unexplained or bad else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("root")
    parser.add_argument("--only", metavar="FILE", help="judge the mutants of this file, or of this folder")
    parser.add_argument("--id", metavar="NUMBER", type=int, action="append", help="judge this mutant")
    parser.add_argument("--again", action="store_true", help="judge what survived the last time")
    parser.add_argument("--list", action="store_true", help="print all mutants and judge none")
    options = parser.parse_args()
    try:
        return check(os.path.abspath(options.root), options)
    except Stop as stop:
        print(f"mutants: {stop}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
