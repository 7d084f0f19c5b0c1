"""The include rule: arrows run downwards only.

tools, demo and Sources stand on the public headers of pvss and kel; Sources also on PlatformDependant. pvss and kel never
see each other, nor anything above them. What lies in a library's src/ is seen by that library and by its own tests,
fuzzers and benchmarks, by nobody else. The check reads the include lines; it compiles nothing.
"""

import os
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^">]+)[">]')
GENERATED = (".pb.h", ".inc")
SUFFIXES = (".h", ".hpp", ".cpp", ".cc")

# zone -> zones it may include. A zone is a room, split into its public headers and the rest for the two libraries.
PUBLIC = {"pvss/include", "kel/include"}
ALLOWED = {
    "PlatformDependant": {"PlatformDependant"},
    "pvss/include": {"pvss/include"},
    "pvss/src": {"pvss/include", "pvss/src"},
    "kel/include": {"kel/include"},
    "kel/src": {"kel/include", "kel/src"},
    "Sources": {"Sources", "PlatformDependant"} | PUBLIC,
    "tools": {"tools"} | PUBLIC,
    "demo": {"demo"} | PUBLIC,
    "tests/support": {"tests/support"} | PUBLIC,
    "tests/rules": set(),
    "tests/mutants": set(),
    "tests/unit/runtime": {"PlatformDependant"},
    "tests/unit/pvss": {"pvss/include", "pvss/src"},
    "tests/unit/kel": {"kel/include", "kel/src"},
    "tests/unit/gateway": {"Sources", "PlatformDependant"} | PUBLIC,
    # The tools know which pairs of types convert; a test holds that against the gateway's registry.
    "tests/unit/tools": {"tools", "demo", "Sources"} | PUBLIC,
    "tests/store": {"pvss/include", "pvss/src"},
    "tests/transport": {"kel/include", "kel/src"},
    "tests/system": set(PUBLIC),
    "tests/interop": set(PUBLIC),
    # One fuzzer a parser, whichever room the parser is in; those of the gateway stand on its unit tests' fakes.
    "tests/fuzz": {"pvss/src", "kel/src", "Sources", "PlatformDependant", "tools", "tests/unit/gateway"} | PUBLIC,
    # A bug may have been in any room.
    "tests/issues": {"pvss/src", "kel/src", "Sources", "PlatformDependant", "tools"} | PUBLIC,
    "bench/pvss": {"pvss/include", "pvss/src"},
    "bench/kel": {"kel/include", "kel/src"},
    "bench/store": {"pvss/include", "pvss/src"},
    "bench": {"Sources", "PlatformDependant"} | PUBLIC,
}
# What each test and bench folder may see of its own, whatever its depth.
for _zone in list(ALLOWED):
    if _zone.startswith(("tests/", "bench")):
        ALLOWED[_zone] = ALLOWED[_zone] | {_zone, "tests/support"}

# Folders that an include line may be relative to, besides the file's own.
ROOTS = ["", "PlatformDependant", "pvss/include", "pvss/src", "kel/include", "kel/src", "Sources", "tools", "tools/kelgw",
         "demo", "tests", "tests/support", "bench"]


def zone_of(path):
    """The longest zone that holds the path, or None outside the rooms."""
    best = None
    for zone in ALLOWED:
        if path.startswith(zone + "/") and (best is None or len(zone) > len(best)):
            best = zone
    return best


def source_files(top):
    for room in sorted({zone.split("/")[0] for zone in ALLOWED}):
        for folder, folders, names in os.walk(os.path.join(top, room)):
            folders.sort()
            for name in sorted(names):
                if name.endswith(SUFFIXES):
                    yield os.path.relpath(os.path.join(folder, name), top).replace(os.sep, "/")


def candidates(path, text, files):
    """Files of the repository that the include text may mean, the file's own folder first."""
    found = []
    for root in [os.path.dirname(path)] + ROOTS:
        full = os.path.normpath(os.path.join(root, text)).replace(os.sep, "/")
        if full in files and full not in found:
            found.append(full)
    # A target may have any folder of its room as an include path.
    return found or sorted(file for file in files if file.endswith("/" + text))


def violations(top):
    """One line for each include that points the wrong way, leads nowhere, or leaves a file outside every room."""
    files = set(source_files(top))
    bad = []
    for path in sorted(files):
        zone = zone_of(path)
        if zone is None:
            bad.append(f"{path}: lies outside every room that the rule knows")
            continue
        with open(os.path.join(top, path), encoding="utf-8") as source:
            for number, line in enumerate(source, 1):
                match = INCLUDE.match(line)
                if not match:
                    continue
                quote, text = match.groups()
                targets = candidates(path, text, files)
                if not targets:
                    # Generated codecs live in the build folder; everything else in quotes has to be ours.
                    if quote == '"' and not text.endswith(GENERATED):
                        bad.append(f'{path}:{number}: "{text}" is no file of this repository')
                    continue
                zones = [zone_of(target) for target in targets]
                if not any(target in ALLOWED[zone] for target in zones):
                    bad.append(f"{path}:{number}: {zone} must not include {text} of {zones[0]}")
    return bad


def main(arguments):
    if len(arguments) != 1:
        print("usage: include_rule.py REPOSITORY", file=sys.stderr)
        return 2
    count = sum(1 for _ in source_files(arguments[0]))
    if count == 0:
        print(f"no source files under {arguments[0]}", file=sys.stderr)
        return 1
    bad = violations(arguments[0])
    for line in bad:
        print(line)
    print(f"{count} files, {len(bad)} includes that point the wrong way")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
