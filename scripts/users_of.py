#!/usr/bin/env python3
"""Prints the sources that changed since a commit and all that include them, directly or not.

usage: users_of.py [COMMIT]     all sources without COMMIT, or when there is no such commit
"""
import re
import subprocess
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)


def git(*arguments):
    run = subprocess.run(["git", *arguments], capture_output=True, text=True)
    return run.stdout.split() if run.returncode == 0 else None


def main():
    sources = [name for name in git("ls-files") if name.endswith((".h", ".cpp"))]
    changed = git("diff", "--name-only", sys.argv[1], "--") if len(sys.argv) > 1 else None
    if changed is None or ".clang-tidy" in changed:
        changed = sources
    users = {}
    for name in sources:
        with open(name, encoding="utf-8") as text:
            for included in INCLUDE.findall(text.read()):
                users.setdefault(included, []).append(name)
    found, left = set(), [name for name in changed if name in set(sources)]
    while left:
        name = left.pop()
        if name not in found:
            found.add(name)
            left += users.get(name, [])
    print("\n".join(sorted(found)))


main()
