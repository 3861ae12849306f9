#!/usr/bin/env python3
"""Prints the sources that changed since a commit and all that include them, directly or not: first
what changed, then what is nearest to it. All sources below a .clang-tidy that changed have changed.

usage: users_of.py [COMMIT]     all sources without COMMIT, or when there is no such commit
"""
import os
import re
import subprocess
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)


def git(*arguments):
    run = subprocess.run(["git", *arguments], capture_output=True, text=True)
    return run.stdout.split() if run.returncode == 0 else None


def main():
    sources = [name for name in git("ls-files") if name.endswith((".h", ".cpp"))]
    changed = git("diff", "--name-only", sys.argv[1], "--") if len(sys.argv) > 1 else sources
    if changed is None:
        changed = sources
    judged = [os.path.join(os.path.dirname(name), "") for name in changed if name.endswith(".clang-tidy")]
    left = [name for name in sources if name in set(changed) or name.startswith(tuple(judged))]
    users = {}
    for name in sources:
        with open(name, encoding="utf-8") as text:
            for included in INCLUDE.findall(text.read()):
                users.setdefault(included, []).append(name)
    found = dict.fromkeys(left)
    while left:
        left = [user for name in left for user in users.get(name, []) if user not in found]
        found.update(dict.fromkeys(left))
    print("\n".join(found))


main()
