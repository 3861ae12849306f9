#!/usr/bin/env python3
"""Runs every block of a document that is fenced with ```sh, one after the other, in a folder that
looks like the project's own, as somebody who follows the document would.

Usage: run_commands.py SOURCE BUILD DOCUMENT...

~/photos and ~/letters have files in them, and ~/restored does not exist. Three things are played:
scripts find the build that is there (CAPSULE_BUILD) instead of building; `sudo apt install` unpacks
packages into a folder where CMake and pkg-config find them, and `capsule` is what was built;
scripts/test.sh, which runs this very test, is only read. Blocks fenced with ```cmake must stand in
examples/CMakeLists.txt word for word, and no block may be of a kind that nobody checks.
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

# cpp is for extract_examples.py, hex for format_test.cpp; the last two are pictures and output.
CHECKED = {"sh", "cpp", "cmake", "hex", "", "text"}
SUDO = '#!/bin/sh\nexec "$@"\n'
APT = """#!/bin/sh
[ "$1" = install ] || exit 1
shift
for package in "$@"; do dpkg-deb -x "$package" "$HOME/root" || exit 1; done
"""
TEST = '#!/bin/sh\nbash -n "$0.real" && grep -qx scripts/test.sh "$(dirname "$0")/../.ci/run"\n'


def put(path, text, mode=0o644):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    path.chmod(mode)


def prepare(home, source):
    """A home with files, and in it a folder like the project's."""
    place = home / "project"
    place.mkdir()
    for name in ("examples", ".ci"):
        (place / name).symlink_to(source / name)
    for script in (source / "scripts").iterdir():
        (place / "scripts").mkdir(exist_ok=True)
        (place / "scripts" / script.name).symlink_to(script)
    (place / "scripts/test.sh").rename(place / "scripts/test.sh.real")
    put(place / "scripts/test.sh", TEST, 0o755)
    put(home / "bin/sudo", SUDO, 0o755)
    put(home / "bin/apt", APT, 0o755)
    put(home / "photos/2024/beach.jpg", "".join(f"wave {i % 977}\n" for i in range(20000)))
    put(home / "letters/to-anna.txt", "Dear Anna,\n" + "all is well. " * 30)
    return place


def main():
    source, build, *documents = [pathlib.Path(argument).resolve() for argument in sys.argv[1:]]
    examples = (source / "examples/CMakeLists.txt").read_text()
    ran = 0
    with tempfile.TemporaryDirectory() as name:
        home = pathlib.Path(name)
        place = prepare(home, source)
        environment = dict(os.environ, HOME=name, CAPSULE_BUILD=str(build),
                           CMAKE_PREFIX_PATH=str(home / "root/usr"),
                           PKG_CONFIG_PATH=str(home / "root/usr/lib/pkgconfig"),
                           PATH=f"{home}/bin:{build}/cli:{os.environ['PATH']}")
        for document in documents:
            for kind, text in re.findall(r"^```(\w*)[^\n]*\n(.*?)^```$", document.read_text(),
                                         re.M | re.S):
                if kind not in CHECKED:
                    sys.exit(f"{document.name}: nobody checks what is fenced with {kind}")
                if kind == "cmake" and text not in examples:
                    sys.exit(f"{document.name}: this is not in examples/CMakeLists.txt:\n{text}")
                if kind != "sh":
                    continue
                done = subprocess.run(["bash", "-euo", "pipefail", "-c", text], cwd=place,
                                      env=environment, stdin=subprocess.DEVNULL,
                                      capture_output=True, text=True)
                if done.returncode != 0:
                    sys.exit(f"{document.name}: status {done.returncode}:\n{text}\n{done.stderr}")
                ran += 1
    sys.exit(None if ran else "no block was run")


main()
