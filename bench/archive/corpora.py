"""Builds the corpora. What they are is decided by numbers here; chance has fixed seeds.

Every corpus has pools of its own, so that it does not depend on which others are built.
"""
import json
import math
import os
import random
import shutil

from . import pools

MB = 1000 * 1000
SUFFIXES = {"text": (".h", ".txt", ".py", ".html"), "programs": (".so", ""),
            "packed": (".gz", ".png", ".deb"), "runs": (".img",)}
# Shares of the bytes of the mixed corpus.
MIXED_SHARES = {"text": 0.40, "programs": 0.35, "packed": 0.20, "runs": 0.05}
FILES_IN_TINY_FOLDER = 20
STAMP = 1_600_000_000  # A time that every archive can keep to the second.


def write_file(path, data):
    with open(path, "wb") as handle:
        handle.write(data)
    os.utime(path, (STAMP, STAMP))


def scaled_to(sizes, total):
    """The sizes in the same proportions with this sum."""
    factor = total / sum(sizes)
    sizes = [int(size * factor) for size in sizes]
    sizes[-1] += total - sum(sizes)
    return sizes


def build_text(folder, scale):
    """160 MB of text in 10,000 files, twenty in a folder."""
    chance = random.Random(1)
    pool = pools.Pools()["text"]
    count = max(20, int(10_000 * scale))
    sizes = scaled_to([chance.lognormvariate(0, 1.1) for _ in range(count)], int(160 * MB * scale))
    for number, size in enumerate(sizes):
        inner = os.path.join(folder, f"part{number // 400:03}", f"section {number // 20:04}")
        os.makedirs(inner, exist_ok=True)
        suffix = chance.choice(SUFFIXES["text"])
        write_file(os.path.join(inner, f"chapter_{number:05}{suffix}"), pool.take(size))


def mixed_sizes(chance, total):
    """Sizes that sum up to `total`: most of some KB, which together weigh little, one in thirty of
    16 KB to 25 MB, and ten of nothing."""
    largest = math.log10(min(25 * MB, total / 4))
    sizes = []
    while total > 0:
        low, high = (1, 4.2) if chance.random() < 0.97 else (4.2, largest)
        sizes.append(min(total, int(10 ** chance.uniform(low, high))))
        total -= sizes[-1]
    return sizes + [0] * 10


def build_mixed(folder, scale):
    """400 MB of text, programs, compressed data and runs of zeros, from nothing to 25 MB a file."""
    chance = random.Random(2)
    pool = pools.Pools()
    total = int(400 * MB * scale)
    number = 0
    for kind, share in MIXED_SHARES.items():
        for size in mixed_sizes(chance, int(total * share)):
            inner = os.path.join(folder, kind, f"set {number // 40:03}")
            os.makedirs(inner, exist_ok=True)
            suffix = chance.choice(SUFFIXES[kind])
            write_file(os.path.join(inner, f"{kind}-{number:05}{suffix}"), pool[kind].take(size))
            number += 1


def build_tiny(folder, scale, files=100_000):
    """100,000 files of 0 to 3 KB of text, twenty in a folder."""
    chance = random.Random(3)
    pool = pools.Pools()["text"]
    for number in range(max(FILES_IN_TINY_FOLDER, int(files * scale))):
        group = number // FILES_IN_TINY_FOLDER
        inner = os.path.join(folder, f"{group // 100:03}", f"group{group:05}")
        if number % FILES_IN_TINY_FOLDER == 0:
            os.makedirs(inner, exist_ok=True)
        data = pool.take(chance.randrange(0, 3001))
        write_file(os.path.join(inner, f"note{number:06}.txt"), data)


def build_million(folder, scale):
    """1,000,000 files like those of the tiny corpus."""
    build_tiny(folder, scale, files=1_000_000)


def build_halves(folder, size):
    """One file, its first half text and its second half programs."""
    pool = pools.Pools()
    path = os.path.join(folder, "half text half programs.bin")
    with open(path, "wb") as handle:
        for kind in ("text", "programs"):
            left = size // 2
            while left > 0:
                piece = pool[kind].take(min(left, 8 << 20))
                handle.write(piece)
                left -= len(piece)
    os.utime(path, (STAMP, STAMP))


def build_single(folder, scale):
    """One file of 1.5 GB, half text and half programs."""
    build_halves(folder, int(1500 * MB * scale))


def build_large(folder, scale):
    """One file of 200 MB, half text and half programs, to read pieces of."""
    build_halves(folder, int(200 * MB * scale))


BUILDERS = {"text": build_text, "mixed": build_mixed, "tiny": build_tiny, "single": build_single,
            "million": build_million, "large": build_large}


def count(folder):
    """Files, folders below it, and bytes."""
    files = folders = size = 0
    for inner, names_of_folders, names in os.walk(folder):
        folders += len(names_of_folders)
        files += len(names)
        size += sum(os.lstat(os.path.join(inner, name)).st_size for name in names)
    return {"files": files, "folders": folders, "bytes": size}


def build(work, name, scale):
    """The folder of a corpus and what it holds; one that an earlier run has left whole is taken."""
    folder = os.path.join(work, "corpora", f"{name} {scale:g}")
    note = folder + ".json"
    if not os.path.exists(note):
        shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(folder)
        BUILDERS[name](folder, scale)
        with open(note, "w", encoding="utf-8") as handle:
            json.dump(count(folder), handle)
    with open(note, encoding="utf-8") as handle:
        return folder, json.load(handle)


def remove(work, name, scale):
    folder = os.path.join(work, "corpora", f"{name} {scale:g}")
    shutil.rmtree(folder, ignore_errors=True)
    if os.path.exists(folder + ".json"):
        os.remove(folder + ".json")
