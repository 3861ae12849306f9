#!/usr/bin/env python3
"""Records what the command prints and writes for many images, to compare two builds by `diff -r`.

usage: recorded_run.py CAPSULE OUT [--damages N]

The images are the samples, the corpora of the fuzzers, and N damages of each sample that chance
chose once: changed bits and bytes, zeros, cuts, bytes put in. Of each, OUT holds one text file with
standard output, standard error and exit status of every command, and the digests of what extraction
and indexing left on disk.
"""
import argparse
import concurrent.futures
import hashlib
import os
import pathlib
import random
import shutil
import subprocess
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
COMMANDS = [
    ["list", "-l", "-R", "x.img"], ["list", "--json", "-R", "x.img"], ["info", "x.img"],
    ["verify", "--json", "x.img"], ["inspect", "x.img"],
    ["extract", "x.img", "-C", "stop"], ["extract", "--on-damage=skip", "x.img", "-C", "skip"],
    ["extract", "--on-damage=zero", "--json", "x.img", "-C", "zero"], ["index", "x.img"],
    ["list", "-R", "x.img"],
]


def digest(path):
    """Of the names, times and bytes of all that lies below `path`."""
    lines = []
    for folder, folders, files in os.walk(path):
        folders.sort()
        for name in sorted(files + folders):
            item = os.path.join(folder, name)
            data = b""
            if os.path.isfile(item):
                with open(item, "rb") as handle:
                    data = handle.read()
            time = int(os.lstat(item).st_mtime) if os.path.isfile(item) else "-"
            content = hashlib.sha256(data).hexdigest()[:16]
            lines.append(f"{os.path.relpath(item, path)} {time} {content}")
    text = "\n".join(lines).encode("utf-8", "surrogateescape")
    return f"{hashlib.sha256(text).hexdigest()[:16]} {len(lines)} items"


def record(capsule, out, name, data):
    """Runs every command on an image of these bytes, in a folder of its own."""
    with tempfile.TemporaryDirectory() as scratch:
        image = os.path.join(scratch, "x.img")
        with open(image, "wb") as handle:
            handle.write(data)
        text = []
        for command in COMMANDS:
            try:
                run = subprocess.run([capsule, *command], cwd=scratch, capture_output=True,
                                     timeout=60, env={"TZ": "UTC", "LC_ALL": "C"})
                output = run.stdout.decode("utf-8", "backslashreplace")
                errors = run.stderr.decode("utf-8", "backslashreplace")
                text.append(f"$ {' '.join(command)}\n[{run.returncode}]\n{output}"
                            f"--- stderr\n{errors}")
            except subprocess.TimeoutExpired:
                text.append(f"$ {' '.join(command)}\nTIMEOUT\n")
        for folder in ("stop", "skip", "zero"):
            text.append(f"{folder}: {digest(os.path.join(scratch, folder))}\n")
        with open(image, "rb") as handle:
            text.append(f"image: {hashlib.sha256(handle.read()).hexdigest()[:16]}\n")
        joined = "".join(text).replace(scratch, "SCRATCH")
        (out / (name + ".txt")).write_text(joined, encoding="utf-8", errors="backslashreplace")


def damaged(data, seed):
    """The bytes with one damage; the same for the same seed."""
    chance = random.Random(seed)
    data = bytearray(data)
    kind = chance.randrange(7)
    at = chance.randrange(len(data))
    if kind == 0:
        data[at] ^= 1 << chance.randrange(8)
    elif kind == 1:
        data[at] = chance.randrange(256)
    elif kind == 2:
        del data[at:at + (1 << chance.randrange(10))]
    elif kind == 3:
        for k in range(at, min(len(data), at + (1 << chance.randrange(12)))):
            data[k] = 0
    elif kind == 4:
        del data[at:]
    elif kind == 5:
        data[at:at] = bytes(chance.randrange(256) for _ in range(chance.randrange(1, 40)))
    else:
        for _ in range(chance.randrange(2, 9)):
            data[chance.randrange(len(data))] = chance.randrange(256)
    return bytes(data)


def cases(count):
    samples = sorted((ROOT / "tests/data/images").rglob("*.img"))
    for sample in samples:
        data = sample.read_bytes()
        yield f"sample-{sample.stem}", data
        for k in range(count):
            yield f"damage-{sample.stem}-{k:02}", damaged(data, f"{sample.stem}/{k}")
    for item in sorted((ROOT / "fuzz/corpus").rglob("*")):
        if item.is_file():
            yield f"corpus-{item.parent.name}-{item.name}", item.read_bytes()


def trees(capsule, out):
    """Creates images of a tree made here, and records them too."""
    with tempfile.TemporaryDirectory() as scratch:
        chance = random.Random(5)
        tree = os.path.join(scratch, "tree")
        for k in range(300):
            above = [f"Folder number {chance.randrange(4)}" for _ in range(chance.randrange(4))]
            folder = os.path.join(tree, *above)
            os.makedirs(folder, exist_ok=True)
            name = f"a longer name {k}.text" if k % 2 else f"N{k}.TXT"
            with open(os.path.join(folder, name), "wb") as handle:
                for _ in range(chance.randrange(3000)):
                    handle.write(bytes([chance.randrange(97, 105)]) * chance.randrange(1, 9))
        for folder, folders, files in os.walk(tree, topdown=False):
            for name in files + folders: os.utime(os.path.join(folder, name), (1.6e9, 1.6e9))
        os.utime(tree, (1.6e9, 1.6e9))
        text = []
        for options in (["-0"], ["-1"], ["-5"], ["-9"], ["--exclude", "N1*"]):
            run = subprocess.run([capsule, "create", "x.img", "tree", *options], cwd=scratch,
                                 capture_output=True, env={"TZ": "UTC"})
            text.append(f"{options} {run.returncode} {run.stderr.decode()}")
            data = pathlib.Path(scratch, "x.img").read_bytes()
            text.append(hashlib.sha256(data).hexdigest() + "\n")
            record(capsule, out, "created" + "-".join(options).replace("*", "x"), data)
        (out / "created.txt").write_text("".join(text))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("capsule")
    parser.add_argument("out", type=pathlib.Path)
    parser.add_argument("--damages", type=int, default=25)
    given = parser.parse_args()
    shutil.rmtree(given.out, ignore_errors=True)
    given.out.mkdir(parents=True)
    capsule = os.path.abspath(given.capsule)
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        runs = [pool.submit(record, capsule, given.out, name, data)
                for name, data in cases(given.damages)]
        for run in runs:
            run.result()
    trees(capsule, given.out)


main()
