"""What is measured beside the rounds: pieces of a large file, system calls, one file by two jobs,
and how times grow from 100,000 files to a million."""
import json
import os
import random
import statistics

from . import corpora, measure, place, tools
from .rounds import remove_archive, say

PIECE = 4096
COLD_READS = 21
NEXT_READS = 201
TRACED_FILES = 1000
TRACED_FOLDER = 50


def only_file(folder):
    return os.path.join(folder, os.listdir(folder)[0])


def made_image(capsule, work, source):
    """An image by the default level, which lies there until the next one is made."""
    image = work.path("image")
    measure.run([capsule, "create", "-5", image, source])
    return image


def piece_reads(capsule, range_bench, work, source):
    """Milliseconds to read 4 KiB of a large file: by the command, and by one reader again."""
    path = only_file(source)
    name = os.path.basename(path)
    image = made_image(capsule, work, source)
    chance = random.Random(5)
    times = []
    with open(path, "rb") as plain:
        for _ in range(COLD_READS):
            offset = chance.randrange(os.path.getsize(path) - PIECE)
            seconds, piece = measure.run([capsule, "cat", image, f"0:/{name}", "--offset",
                                          str(offset), "--length", str(PIECE)], keep_output=True)
            plain.seek(offset)
            if piece != plain.read(PIECE):
                raise measure.Failed(f"capsule cat: wrong bytes at {offset}")
            times.append(seconds * 1000)
    result = {"cold": statistics.median(times), "cold longest": max(times)}
    if range_bench:
        _, told = measure.run([range_bench, image, f"0:/{name}", str(NEXT_READS)], keep_output=True)
        result.update(json.loads(told))
    place.remove(image)
    return result


def traced_folders(work):
    """Two folders with the same folders in them, the second one without any files."""
    full, empty = work.path("traced"), work.path("traced empty")
    chance = random.Random(6)
    for number in range(TRACED_FILES):
        inner = f"group {number // TRACED_FOLDER:03}"
        if number % TRACED_FOLDER == 0:
            os.makedirs(os.path.join(full, inner))
            os.makedirs(os.path.join(empty, inner))
        corpora.write_file(os.path.join(full, inner, f"note{number:06}.txt"),
                           chance.randbytes(chance.randrange(1, 1500)).hex().encode())
    return full, empty


def traced(tool, work, source):
    """System calls to create from a folder, and to extract."""
    archive = work.path("archive")
    remove_archive(archive)
    cwd = source if tool.inside else None
    calls = {"create": measure.system_calls(
        tool.command("create", source=source, archive=archive), cwd)}
    if tool.extract:
        target = work.path("target")
        os.mkdir(target)
        calls["extract"] = measure.system_calls(
            tool.command("extract", archive=archive, target=target))
        place.remove(target)
    remove_archive(archive)
    return calls


def calls_a_file(some_tools, work, failures):
    """System calls for each small file: those of many files less those of the empty folders."""
    full, empty = traced_folders(work)
    result = {}
    for tool in some_tools:
        say(f"system calls: {tool.name}")
        try:
            many, none = traced(tool, work, full), traced(tool, work, empty)
        except measure.Failed as failure:
            failures.append(f"system calls: {failure}")
            continue
        result[tool.name] = {operation: (many[operation] - none[operation]) / TRACED_FILES
                             for operation in many}
    place.remove(full)
    place.remove(empty)
    return result


def single_file(capsule, work, source, runs):
    """Seconds and peak memory of one large file, by one job and by two where there is -j."""
    choices = (1, 2) if tools.takes_jobs(capsule) else (None,)
    result = {}
    for number in range(runs):
        for jobs in choices:
            say(f"single, round {number + 1} of {runs}: jobs {jobs or 'not to be chosen'}")
            tool = next(tool for tool in tools.capsule_tools(capsule, jobs)
                        if tool.name == "capsule -5")
            image, target = work.path("archive"), work.path("target")
            os.mkdir(target)
            row = result.setdefault(str(jobs or "default"),
                                    {"create": [], "extract": [], "memory": 0})
            for operation in ("create", "extract"):
                command = tool.command(operation, source=source, archive=image, target=target)
                seconds, _, memory = measure.run_with_usage(command)
                row[operation].append(seconds)
                row["memory"] = max(row["memory"], memory)
            place.remove(target)
            place.remove(image)
    return result


def tiny_times(capsule, work, source):
    """Seconds of each command on tiny files, once."""
    image, target = work.path("image"), work.path("target")
    os.mkdir(target)
    commands = {"create -5": ["create", "-5", image, source], "info": ["info", image],
                "list -R": ["list", "-R", image], "extract": ["extract", image, "-C", target]}
    result = {}
    for name, words in commands.items():
        result[name], _, memory = measure.run_with_usage([capsule, *words])
        result[f"{name} memory"] = memory
    place.remove(target)
    place.remove(image)
    return result


def growth(capsule, work, sources, runs):
    """The times of both corpora, each the median of the runs: [fewer files, more files]."""
    rows = [[], []]
    for number in range(runs):
        for row, source in zip(rows, sources):
            say(f"million, round {number + 1} of {runs}: {os.path.basename(source)}")
            row.append(tiny_times(capsule, work, source))
    return [{key: statistics.median(one[key] for one in row) for key in row[0]} for row in rows]
