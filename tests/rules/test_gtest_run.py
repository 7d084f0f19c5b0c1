"""A test that ends the process is found, whatever its exit code; and every GoogleTest binary is judged that way."""

import json
import os
import subprocess
import sys
import unittest

RUNNER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support", "gtest_run.py")
PLANTED = os.environ.get("KELGW_PLANTED", "")
BUILD = os.environ.get("KELGW_BUILD", "")


def run(*names):
    """Exit code and output of the planted tests of these names, as ctest would get them."""
    done = subprocess.run([sys.executable, RUNNER, PLANTED, "--gtest_filter=" + ":".join("Planted." + name for name in names)],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return done.returncode, done.stdout


class Runner(unittest.TestCase):
    def test_tests_that_pass_or_are_skipped_pass(self):
        for names in (["Passes"], ["Passes", "PassesToo"], ["Passes", "IsSkipped"], ["IsSkipped"]):
            code, said = run(*names)
            self.assertEqual(0, code, said)

    def test_whatever_ends_the_process_fails(self):
        for name in ("EndsAtOnce", "EndsInOrder", "EndsAfterWordsOfItsOwn"):
            with self.subTest(name=name):
                code, said = run("Passes", name, "PassesToo")
                self.assertNotEqual(0, code, said)
                self.assertIn("gtest_run: ", said)
                # By itself it is no better.
                code, said = run(name)
                self.assertNotEqual(0, code, said)

    def test_a_failure_fails(self):
        code, said = run("Passes", "Fails")
        self.assertNotEqual(0, code, said)

    def test_a_filter_that_fits_nothing_fails(self):
        code, said = run("NoneOfThem")
        self.assertNotEqual(0, code, said)

    def test_a_binary_that_is_no_test_fails(self):
        done = subprocess.run([sys.executable, RUNNER, "/bin/true"], stdout=subprocess.PIPE, check=False)
        self.assertNotEqual(0, done.returncode)


class EveryBinary(unittest.TestCase):
    def test_every_googletest_binary_is_run_by_the_runner(self):
        shown = subprocess.run(["ctest", "--test-dir", BUILD, "--show-only=json-v1"], stdout=subprocess.PIPE, check=True)
        judged, bare = 0, []
        for test in json.loads(shown.stdout)["tests"]:
            command = test.get("command", [])
            if any(word.endswith("gtest_run.py") for word in command):
                judged += 1
            elif command and os.path.isfile(command[0]):
                with open(command[0], "rb") as binary:
                    if b"--gtest_filter" in binary.read():
                        bare.append(test["name"])
        self.assertEqual([], bare)
        self.assertGreater(judged, 10)


if __name__ == "__main__":
    unittest.main()
