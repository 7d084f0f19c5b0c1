#!/usr/bin/python3
"""clang-tidy over many files, and only over those that are not known to be clean.

usage: .ci/tidy.py BUILD_FOLDER FILE...

A file is known to be clean when its preprocessed text, its compile command and every .clang-tidy above it are what they
were when it was last found clean; the folder tidy-clean in the build folder remembers that by a hash. The linter is slow
and most files do not change between two runs.
"""

import concurrent.futures
import hashlib
import json
import os
import shlex
import subprocess
import sys


def configurations(path):
    """Contents of every .clang-tidy that speaks for the file."""
    folder, texts = os.path.dirname(os.path.abspath(path)), []
    while True:
        name = os.path.join(folder, ".clang-tidy")
        if os.path.exists(name):
            with open(name, "rb") as file:
                texts.append(file.read())
        if os.path.dirname(folder) == folder:
            return texts
        folder = os.path.dirname(folder)


def fingerprint(entry, version):
    """A hash of all that decides what the linter says of the file."""
    words = [word for word in shlex.split(entry["command"]) if not word.endswith("ccache")]
    for switch in ("-o", "-MF", "-MT"):
        while switch in words:
            at = words.index(switch)
            del words[at:at + 2]
    words = [word for word in words if word not in ("-c", "-MD")]
    text = subprocess.run([*words, "-E", "-C"], cwd=entry["directory"], capture_output=True, check=True).stdout
    digest = hashlib.sha256(version)
    for part in (" ".join(words).encode(), text, *configurations(entry["file"])):
        digest.update(hashlib.sha256(part).digest())
    return digest.hexdigest()


def main():
    build, files = sys.argv[1], [os.path.abspath(name) for name in sys.argv[2:]]
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        commands = {os.path.abspath(os.path.join(entry["directory"], entry["file"])): entry for entry in json.load(file)}
    known = os.path.join(build, "tidy-clean")
    os.makedirs(known, exist_ok=True)
    version = subprocess.run(["clang-tidy", "--version"], capture_output=True, check=True).stdout

    def look(path):
        if path not in commands:
            return path, "is not built in this folder", False
        try:
            stamp = os.path.join(known, fingerprint(commands[path], version))
        except subprocess.CalledProcessError as error:
            return path, error.stderr.decode(errors="replace"), False
        if os.path.exists(stamp):
            return path, "", True
        result = subprocess.run(["clang-tidy", "-quiet", "-p", build, path], capture_output=True, check=False)
        if result.returncode == 0:
            with open(stamp, "w", encoding="utf-8"):
                pass
            return path, "", False
        return path, result.stdout.decode(errors="replace"), False

    bad = skipped = 0
    with concurrent.futures.ThreadPoolExecutor(max_workers=int(os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL") or os.cpu_count())) as pool:
        for path, complaint, was_known in pool.map(look, files):
            skipped += was_known
            if complaint:
                bad += 1
                print(f"{os.path.relpath(path)}:\n{complaint}", flush=True)
    print(f"tidy: {len(files)} files, {skipped} known to be clean from before, {bad} with findings", flush=True)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
