"""The rules can fail: each is shown a small tree with one planted violation, and a clean one."""

import os
import tempfile
import unittest

import build_paths
import include_rule
import messages

CLEAN = {
    "PlatformDependant/SString.h": "#include <string>\n",
    "pvss/include/pvss/Manager.h": "#include <pvss/Variable.h>\n",
    "pvss/include/pvss/Variable.h": "",
    "pvss/src/Core.h": '#include "pvss/Manager.h"\n',
    "pvss/src/store/Store.cpp": '#include "Core.h"\n#include <hiredis/hiredis.h>\n',
    "kel/include/kel/Kel.h": "",
    "kel/src/wire/Codec.h": "",
    "kel/src/Session.cpp": '#include "wire/Codec.h"\n#include <kel/Kel.h>\n#include "record.pb.h"\n',
    "Sources/ApiMain.cpp": '#include <pvss/Manager.h>\n#include <kel/Kel.h>\n#include "SString.h"\n',
    "tools/kelgw/main.cpp": "#include <pvss/Manager.h>\n",
    "tests/unit/kel/CodecTest.cpp": '#include "wire/Codec.h"\n',
}


class Tree:
    def __init__(self, files):
        self.folder = tempfile.TemporaryDirectory()
        for path, text in files.items():
            full = os.path.join(self.folder.name, path)
            os.makedirs(os.path.dirname(full), exist_ok=True)
            with open(full, "w", encoding="utf-8") as target:
                target.write(text)

    def __enter__(self):
        return self.folder.name

    def __exit__(self, *_):
        self.folder.cleanup()


class IncludeRule(unittest.TestCase):
    def found(self, path, text):
        with Tree({**CLEAN, path: text}) as top:
            return include_rule.violations(top)

    def test_a_clean_tree_has_no_violation(self):
        with Tree(CLEAN) as top:
            self.assertEqual([], include_rule.violations(top))

    def test_each_planted_violation_is_found_where_it_stands(self):
        planted = [
            ("pvss/src/Bad.cpp", "#include <kel/Kel.h>\n"),
            ("pvss/include/pvss/Bad.h", '#include "Core.h"\n'),
            ("kel/src/Bad.cpp", "\n  #  include <pvss/Manager.h>\n"),
            ("kel/src/Bad.cpp", '#include "../../Sources/ApiMain.cpp"\n'),
            ("pvss/src/Bad.cpp", '#include "SString.h"\n'),
            ("Sources/Bad.cpp", '#include "Core.h"\n'),
            ("Sources/Bad.cpp", '#include "../pvss/src/Core.h"\n'),
            ("PlatformDependant/Bad.cpp", "#include <pvss/Manager.h>\n"),
            ("tools/kelgw/Bad.cpp", '#include "wire/Codec.h"\n'),
            ("tools/kelgw/Bad.cpp", '#include "SString.h"\n'),
            ("tests/unit/pvss/Bad.cpp", '#include "wire/Codec.h"\n'),
            ("tests/unit/gateway/Bad.cpp", '#include "Core.h"\n'),
            ("bench/Bad.cpp", '#include "Core.h"\n'),
            ("Sources/Bad.cpp", '#include "nowhere.h"\n'),
            ("Sources/Bad.cpp", '#include "Codec.h"\n'),
            ("tests/elsewhere/Bad.cpp", "\n"),
        ]
        for path, text in planted:
            with self.subTest(path=path, text=text):
                found = self.found(path, text)
                self.assertEqual(1, len(found), found)
                self.assertTrue(found[0].startswith(path + ":"), found)


class BuildPaths(unittest.TestCase):
    def judge(self, room, *switches, sdks=()):
        entry = {"directory": "/r/build", "file": f"/r/{room}/Unit.cpp", "command": "g++ " + " ".join(switches) + " -c x"}
        return build_paths.violations("/r", "/r/build", [entry], sdks)

    def test_public_paths_and_system_paths_are_fine(self):
        self.assertEqual((1, []), self.judge("Sources", "-I/r/Sources", "-I/r/PlatformDependant", "-I/r/pvss/include",
                                             "-isystem /r/kel/include", "-isystem /usr/include/x"))

    def test_any_other_folder_of_the_repository_or_the_build_is_reported(self):
        for switch in ("-I/r/pvss/src", "-I /r/kel/src", "-isystem /r/kel/src/wire", "-iquote /r", "-Ikel",
                       "-I/r/build/kel", "-I/r/Sources/../tools"):
            for room in build_paths.GUARDED:
                with self.subTest(switch=switch, room=room):
                    units, bad = self.judge(room, "-I/r/Sources", switch)
                    self.assertEqual((1, 1), (units, len(bad)), bad)

    def test_with_a_platform_sdk_our_own_headers_are_out_of_sight(self):
        self.assertEqual((1, []), self.judge("Sources", "-I/sdk/include", "-I/r/kel/include", sdks=("/sdk",)))
        self.assertEqual(1, len(self.judge("Sources", "-I/r/pvss/include", sdks=("/sdk",))[1]))

    def test_other_rooms_are_not_judged(self):
        self.assertEqual((0, []), self.judge("kel", "-I/r/kel/src"))


class Messages(unittest.TestCase):
    SOURCE = """constexpr runtime::Report<const char*> bad{"Unit", 17,
                       "It is \\"%s\\"\\n"};
constexpr runtime::Notice<> made{"Unit", "Made " "it\\n"};
constexpr const char* someReason =
    "%lu of them";"""
    PAGE = """## Error reports
| Unit | Number | Text | Cause | What to do |
|---|---|---|---|---|
| Unit | 17 | `It is "%s"` | why | this |
## Informational lines
| Unit | `Made it` | meaning |
## Reasons of bad publications
| `%lu of them` | cause | remedy |
"""

    def differences(self, source, page):
        return messages.differences({"Unit.cpp": source}, page)

    def test_a_page_that_lists_all_has_no_difference(self):
        self.assertEqual((3, []), self.differences(self.SOURCE, self.PAGE))

    def test_each_planted_difference_is_found(self):
        planted = [(self.SOURCE.replace("17", "18"), self.PAGE, 2), (self.SOURCE.replace("It is", "It was"), self.PAGE, 2),
                   (self.SOURCE.replace("Made", "Maid"), self.PAGE, 2), (self.SOURCE.replace("lu of", "lu in"), self.PAGE, 2),
                   (self.SOURCE + 'constexpr runtime::Invariant extra{"Unit", 3, "x > 0"};', self.PAGE, 1),
                   (self.SOURCE, self.PAGE + "| `nowhere said` | cause | remedy |\n", 1),
                   (self.SOURCE + 'std::printf("so");', self.PAGE, 1), (self.SOURCE + "std::cout << 1;", self.PAGE, 1),
                   (self.SOURCE, self.PAGE.replace("| this |", "| |"), 2)]
        for source, page, count in planted:
            with self.subTest(source=source, page=page):
                self.assertEqual(count, len(self.differences(source, page)[1]))


if __name__ == "__main__":
    unittest.main()
