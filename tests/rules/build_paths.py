"""What the build lets the gateway see: Sources/ and PlatformDependant/ are compiled with the public include paths of the
two seams and their own folders, nothing else of this repository and nothing of its build folder. So they compile against
another platform SDK too, by naming it."""

import json
import os
import shlex
import sys

GUARDED = ("Sources", "PlatformDependant")


def include_folders(command, directory):
    words = iter(command)
    for word in words:
        for switch in ("-isystem", "-iquote", "-idirafter", "-include", "-I"):
            if word == switch:
                yield os.path.normpath(os.path.join(directory, next(words)))
                break
            if word.startswith(switch):
                yield os.path.normpath(os.path.join(directory, word[len(switch):]))
                break


def violations(top, build, commands, sdks=()):
    """(number of guarded units, one line for each include path that they should not have)"""
    top, build = os.path.abspath(top), os.path.abspath(build)
    allowed = {os.path.join(top, room) for room in GUARDED}
    for seam, sdk in zip(("pvss", "kel"), list(sdks) + ["", ""]):
        allowed.add(os.path.join(os.path.normpath(sdk) if sdk else os.path.join(top, seam), "include"))
    units, bad = 0, []
    for entry in commands:
        name = os.path.relpath(os.path.normpath(os.path.join(entry["directory"], entry["file"])), top)
        if name.split(os.sep)[0] not in GUARDED:
            continue
        units += 1
        words = entry.get("arguments") or shlex.split(entry["command"])
        for folder in include_folders(words, entry["directory"]):
            inside = any(os.path.commonpath([folder, ours]) == ours for ours in (top, build))
            if inside and folder not in allowed:
                bad.append(f"{name}: compiled with {os.path.relpath(folder, top)}")
    return units, bad


def main(arguments):
    if len(arguments) < 2:
        print("usage: build_paths.py REPOSITORY BUILD [PVSS-SDK [KEL-SDK]]", file=sys.stderr)
        return 2
    top, build = arguments[:2]
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as source:
        units, bad = violations(top, build, json.load(source), arguments[2:])
    for line in bad:
        print(line)
    print(f"{units} units of {' and '.join(GUARDED)}, {len(bad)} include paths too many")
    return 1 if bad or units == 0 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
