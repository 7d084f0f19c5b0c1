"""Runs one GoogleTest binary and judges it by its exit code and by GoogleTest's own closing line: as many tests have to be
told to have passed (or been skipped) as were announced. A test that ends the process, with whatever code, tells neither.

usage: gtest_run.py BINARY [ARGUMENTS]
"""

import re
import subprocess
import sys

ANNOUNCED = re.compile(rb"^\[==========\] Running (\d+) tests? from \d+ test (?:suites?|cases?)\.$")
RAN = re.compile(rb"^\[==========\] (\d+) tests? from \d+ test (?:suites?|cases?) ran\.")
CLOSED = re.compile(rb"^\[  (PASSED|SKIPPED)  ?\] (\d+) tests?[.,]")


def judge(lines, code):
    """None when the run is good, else what is wrong with it."""
    announced, ran, told = None, None, {}
    for line in lines:
        if announced is None and (match := ANNOUNCED.match(line)):
            announced = int(match[1])
        elif match := RAN.match(line):
            ran = int(match[1])
        elif ran is not None and (match := CLOSED.match(line)):
            told[match[1]] = int(match[2])
    if not announced:
        return "it announced no tests"
    if ran is None or b"PASSED" not in told:
        return f"it ended with {code} before GoogleTest's closing line: a test has ended the process"
    if code != 0:
        return f"it ended with {code}"
    if ran != announced or sum(told.values()) != announced:
        return f"it announced {announced} tests, ran {ran} and told of {sum(told.values())}"
    return None


def main(arguments):
    lines = []
    with subprocess.Popen(arguments, stdout=subprocess.PIPE) as child:
        for line in child.stdout:
            sys.stdout.buffer.write(line)
            sys.stdout.buffer.flush()
            if line.startswith(b"["):
                lines.append(line.rstrip(b"\r\n"))
        code = child.wait()
    trouble = judge(lines, code)
    if trouble:
        print(f"gtest_run: {arguments[0]}: {trouble}", flush=True)
        return code if code > 0 else 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
