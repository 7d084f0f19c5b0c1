"""The check of the mutants can fail: it is shown a small program of which it is known what its test notices."""

import os
import subprocess
import tempfile
import unittest
import unittest.mock

import check
import mutate

SOURCE = """#include <array>
#include <unistd.h>

constexpr int step = 2;
int told = 0;

void tell() {
  ++told;
}

int countDown(int n) {
  int steps = 0;
  while (n > 0) {
    n -= step;
    ++steps;
  }
  return steps;
}

int sign(int value) {
  const std::array<int, 3> signs{-1, 0, 1};
  if (value < 0) {
    return signs[0];
  }
  tell();
  return value > 0 ? signs[2] : signs[1];
}

void endWhen(bool wanted) {
  if (wanted) {
    _exit(0);
  }
}

int neverCalled(int value) {
  return value + 1;
}
"""

TEST = """#include <gtest/gtest.h>
#include <unistd.h>
int countDown(int n);
int sign(int value);
void endWhen(bool wanted);

TEST(Sample, countsDown) { EXPECT_EQ(countDown(4), 2); }
TEST(Sample, hasASign) {
  EXPECT_EQ(sign(5), 1);
  EXPECT_EQ(sign(-5), -1);
}
TEST(Sample, goesOn) { endWhen(false); }
TEST(Sample, takesItsTime) {
  usleep(500'000);
  EXPECT_EQ(sign(5), 1);
}
"""


class Explanations(unittest.TestCase):
    def read(self, text):
        with tempfile.NamedTemporaryFile("w", suffix=".txt") as file:
            file.write(text)
            file.flush()
            return check.read_explanations(file.name)

    def test_lines_and_reasons_are_read(self):
        self.assertEqual(self.read("# says why\na.cpp: f: drop: g();\n    one line\n    and one more\n"),
                         [["a.cpp: f: drop: g();", "one line and one more"]])

    def test_a_missing_reason_a_lone_reason_and_a_double_are_refused(self):
        for text in ("a\nb\n  why\n", "  why\n", "a\n  why\na\n  why\n"):
            with self.assertRaises(check.Stop):
                self.read(text)

    def test_what_fits_no_mutant_is_stale(self):
        mutant = mutate.Mutant(1, "a.cpp", 3, "f", "drop", "g();")
        self.assertEqual(check.stale([["a.cpp: f: drop: g();", "why"], ["a.cpp: f: drop: h();", "why"]], [mutant]),
                         ["a.cpp: f: drop: h();"])


class Sample(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # pylint: disable=consider-using-with
        cls.folder = tempfile.TemporaryDirectory()
        root = cls.folder.name
        cls.write(root, "sample.cpp", SOURCE)
        cls.write(root, "test.cpp", TEST)
        cls.mutator = mutate.Mutator(root, ["sample.cpp"], ["-std=c++20"])
        extra = {}
        for name in ("mutants.h", "mutants.cpp"):
            with open(os.path.join(check.HERE, name), "rb") as file:
                extra[f"mutants/{name}"] = file.read()
        copy = os.path.join(root, "copy")
        flags = ["-std=c++20", "-w", "-Imutants"]
        cls.left_out = check.leave_out_what_does_not_compile(root, copy, cls.mutator, flags, extra)
        binary = os.path.join(root, "sample-tests")
        subprocess.run(["g++", *flags, "-O0", "sample.cpp", "mutants/mutants.cpp", "../test.cpp", "-o", binary,
                        "-lgtest", "-lgtest_main", "-pthread"], cwd=copy, check=True)
        cls.tests = [check.Test(binary, name) for name in check.cases_of(binary)]
        for test in cls.tests:
            check.note_reach(test, len(cls.mutator.mutants), root)
        cls.at_run_time = check.run_time_numbers([binary])

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    @staticmethod
    def write(root, name, text):
        with open(os.path.join(root, name), "w", encoding="utf-8") as file:
            file.write(text)

    def numbers(self, kind, part, function):
        found = [m.number for m in self.mutator.mutants.values()
                 if m.kind == kind and part in m.change and m.function == function]
        self.assertTrue(found, f"no mutant {kind} {part} in {function}")
        return found

    def verdict(self, kind, part, function):
        found = self.numbers(kind, part, function)
        self.assertEqual(len(found), 1, f"{kind} {part} in {function}")
        return check.judge(found[0], self.tests)

    def test_all_tests_run_and_the_sample_compiles_whole(self):
        self.assertEqual([t.name for t in self.tests], ["Sample.countsDown", "Sample.hasASign", "Sample.goesOn",
                                                          "Sample.takesItsTime"])
        self.assertEqual(self.left_out, {})

    def test_what_a_test_asks_for_is_noticed(self):
        self.assertEqual(self.verdict("negate", "not: value < 0", "sign"), "ends with 1")
        self.assertEqual(self.verdict("drop", "return signs[0];", "sign"), "ends with 1")
        self.assertEqual(self.verdict("number", "steps = [0 ->", "countDown"), "ends with 1")
        self.assertEqual(self.verdict("drop", "++steps;", "countDown"), "ends with 1")
        self.assertEqual(self.verdict("negate", "not: n > 0", "countDown"), "ends with 1")
        self.assertEqual(self.verdict("edge", "n [> -> >=] 0", "countDown"), "ends with 1")

    def test_a_changed_constant_is_noticed_where_it_is_read(self):
        self.assertEqual(self.verdict("number", "step = [2 ->", "-"), None)  # 4 / 3 rounds to the same two steps
        self.assertIn(self.numbers("number", "step = [2 ->", "-")[0], self.at_run_time)

    def test_what_no_test_asks_for_survives(self):
        self.assertIsNone(self.verdict("drop", "tell();", "sign"))
        self.assertIsNone(self.verdict("edge", "value [< -> <=] 0", "sign"))
        self.assertIsNone(self.verdict("swap", "n -= step; <-> ++steps;", "countDown"))

    def test_what_is_never_executed_survives(self):
        number = self.numbers("number", "[1 ->", "neverCalled")[0]
        self.assertFalse(any(number in test.reached for test in self.tests))
        self.assertIsNone(check.judge(number, self.tests))

    def test_a_test_that_hangs_has_noticed(self):
        self.assertEqual(self.verdict("drop", "n -= step;", "countDown"), "hangs")

    def test_a_test_that_only_takes_long_is_not_a_hang(self):
        with unittest.mock.patch.multiple(check, SHORTEST=0.1, SOON=0.1):
            self.assertIsNone(self.verdict("drop", "tell();", "sign"))

    def test_a_test_that_fails_without_a_change_as_well_ends_the_judging(self):
        with unittest.mock.patch.multiple(check, SHORTEST=0.1, SOON=0.1, LONGEST=0.1), self.assertRaises(check.Stop):
            self.verdict("drop", "tell();", "sign")

    def test_a_test_that_ends_the_process_with_success_has_noticed(self):
        self.assertEqual(self.verdict("negate", "not: wanted", "endWhen"), "ends early")

    def test_a_bound_of_an_array_is_a_constant_of_the_compiler(self):
        self.assertNotIn(self.numbers("number", "std::array<int, [3 ->", "sign")[0], self.at_run_time)

    def test_a_mutant_that_does_not_compile_is_left_out_alone(self):
        text = "int f(int a) { if (a > 1) { return 2; } return 3; }\n"
        self.write(self.folder.name, "other.cpp", text)
        mutator = mutate.Mutator(self.folder.name, ["other.cpp"], ["-std=c++20"])
        file = mutator.files["other.cpp"]
        node = next(n for n in file.nodes if text[n.start:n.end] == "a > 1" and n.rank == 4)
        node.wrap = lambda inner, left_out: f"nobody({inner})"
        with open(os.path.join(check.HERE, "mutants.h"), "rb") as header:
            extra = {"mutants/mutants.h": header.read()}
        left_out = check.leave_out_what_does_not_compile(
            self.folder.name, os.path.join(self.folder.name, "other"), mutator,
            ["-std=c++20", "-w", "-Imutants"], extra)
        self.assertEqual(list(left_out), node.numbers)


if __name__ == "__main__":
    unittest.main()
