"""Where several ctest entries share the tests of one file or binary, every test belongs to exactly one of them: all parts are
there, they share the same thing, and each is told which part it is. What a part takes is GoogleTest's own affair for a
binary; for a file it is tests/system/conftest.py, which is asked here."""

import json
import os
import re
import subprocess
import tempfile
import unittest

BUILD = os.environ.get("KELGW_BUILD", "")
HERE = os.path.dirname(os.path.abspath(__file__))
CONFTEST = os.path.join(HERE, "..", "system", "conftest.py")
NAME = re.compile(r"(.+)_(\d+)of(\d+)$")


def environment_of(test):
    for one in test.get("properties", []):
        if one["name"] == "ENVIRONMENT":
            return dict(pair.split("=", 1) for pair in one["value"])
    return {}


def part_of(test):
    """(part from 1, parts) as the entry's environment tells its tests, or None."""
    environment = environment_of(test)
    if "KELGW_PART" in environment:
        part, parts = environment["KELGW_PART"].split("/")
        return int(part), int(parts)
    if "GTEST_TOTAL_SHARDS" in environment:
        return int(environment["GTEST_SHARD_INDEX"]) + 1, int(environment["GTEST_TOTAL_SHARDS"])
    return None


def trouble(tests):
    """What is wrong with the parts among these ctest entries."""
    shared, wrong = {}, []
    for test in tests:
        named, told = NAME.match(test["name"]), part_of(test)
        if (named is None) != (told is None):
            wrong.append(f"{test['name']}: its name and its environment do not agree that it is a part")
        elif named and (int(named[2]), int(named[3])) != told:
            wrong.append(f"{test['name']} is told to be part {told[0]} of {told[1]}")
        elif named:
            shared.setdefault(named[1], []).append((told, test["command"]))
    for name, entries in shared.items():
        parts = entries[0][0][1]
        if sorted(told for told, _ in entries) != [(part, parts) for part in range(1, parts + 1)]:
            wrong.append(f"{name}: there are the parts {sorted(told for told, _ in entries)}")
        if any(command != entries[0][1] for _, command in entries):
            wrong.append(f"{name}: its parts do not run the same")
    return wrong


def entry(name, environment=(), command=("run",)):
    return {"name": name, "command": list(command), "properties": [{"name": "ENVIRONMENT", "value": list(environment)}]}


def halves(name="a"):
    return [entry(f"{name}_1of2", ["KELGW_PART=1/2"]), entry(f"{name}_2of2", ["KELGW_PART=2/2"])]


class Entries(unittest.TestCase):
    def test_every_part_is_there(self):
        shown = subprocess.run(["ctest", "--test-dir", BUILD, "--show-only=json-v1"], stdout=subprocess.PIPE, check=True)
        tests = json.loads(shown.stdout)["tests"]
        self.assertEqual([], trouble(tests))
        for variable in ("KELGW_PART", "GTEST_TOTAL_SHARDS"):
            self.assertTrue(any(variable in environment_of(test) for test in tests), variable)

    def test_all_parts_are_no_trouble(self):
        shards = [entry(f"b_{part}of3", ["GTEST_TOTAL_SHARDS=3", f"GTEST_SHARD_INDEX={part - 1}"]) for part in (1, 2, 3)]
        self.assertEqual([], trouble([*halves(), *shards, entry("whole")]))

    def test_what_is_wrong_with_parts_is_seen(self):
        for tests in (halves()[:1], halves()[1:], [*halves(), halves()[0]],
                      [halves()[0], entry("a_2of2", ["KELGW_PART=1/2"])],
                      [halves()[0], entry("a_2of2", ["KELGW_PART=2/3"])],
                      [halves()[0], entry("a_2of2")],
                      [halves()[0], entry("a_2of2", ["KELGW_PART=2/2"], ["run", "less"])],
                      [entry("whole", ["KELGW_PART=1/2"])],
                      [entry("b_1of2", ["GTEST_TOTAL_SHARDS=2", "GTEST_SHARD_INDEX=1"]),
                       entry("b_2of2", ["GTEST_TOTAL_SHARDS=2", "GTEST_SHARD_INDEX=1"])]):
            with self.subTest(tests=[test["name"] for test in tests]):
                self.assertNotEqual([], trouble(tests))


class Tests(unittest.TestCase):
    def ran(self, folder, part=None):
        """The numbers of the tests that ran as this part, and pytest's exit code."""
        environment = {name: text for name, text in os.environ.items() if name != "KELGW_PART"}
        environment.update({"KELGW_PART": part} if part else {}, KELGW_BIN=folder, PYTHONDONTWRITEBYTECODE="1")
        done = subprocess.run(["/usr/bin/python3", "-m", "pytest", "-v", "-p", "no:cacheprovider", "--color=no", folder],
                              env=environment, cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        return [int(number) for number in re.findall(r"\[(\d+)\] PASSED", done.stdout)], done.returncode

    def test_every_test_runs_in_exactly_one_part(self):
        with tempfile.TemporaryDirectory(prefix="kelgw-test.") as folder:
            os.symlink(CONFTEST, os.path.join(folder, "conftest.py"))
            os.symlink(os.path.join(os.path.dirname(CONFTEST), "harness.py"), os.path.join(folder, "harness.py"))
            with open(os.path.join(folder, "kel-gateway"), "w", encoding="ascii") as program:
                os.fchmod(program.fileno(), 0o700)
            with open(os.path.join(folder, "test_seven.py"), "w", encoding="ascii") as file:
                file.write("import pytest\n\n\n@pytest.mark.parametrize('number', range(7))\ndef test_it(number):\n    pass\n")
            self.assertEqual((list(range(7)), 0), self.ran(folder))
            each = [self.ran(folder, f"{part}/3") for part in (1, 2, 3)]
            self.assertEqual({0}, {code for _, code in each})
            self.assertEqual(list(range(7)), sorted(number for numbers, _ in each for number in numbers))
            self.assertEqual([2, 2, 3], sorted(len(numbers) for numbers, _ in each))
            for no_part in ("0/3", "4/3", "8/8"):
                numbers, code = self.ran(folder, no_part)
                self.assertEqual([], numbers)
                self.assertNotEqual(0, code, "a part without tests has to fail")


if __name__ == "__main__":
    unittest.main()
