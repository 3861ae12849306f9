"""The rounds of one corpus: every tool in turn, as often as asked for.

A round rotates the order, so that no tool always runs behind the same one. What a tool has made is
removed outside of the measured time. The first round also counts what came out of each archive.
"""
import os
import subprocess
import sys

from . import corpora, measure, place


def say(text):
    print(text, file=sys.stderr, flush=True)


def archive_size(archive):
    """The bytes of an archive, whatever suffix its tool has given it; none of a copied folder."""
    for suffix in ("", ".7z", ".zip"):
        if os.path.isfile(archive + suffix):
            return os.path.getsize(archive + suffix)
    return None


def remove_archive(archive):
    for suffix in ("", ".7z", ".zip"):
        place.remove(archive + suffix)


def came_out_right(tool, source, wanted, target):
    """Compares what came out with the source: numbers and sizes, and of Capsule every byte."""
    inner = os.listdir(target)
    # Some tools make a folder of their own in the target.
    root = os.path.join(target, inner[0]) if inner in (["out"], ["0"]) else target
    found = corpora.count(root)
    if found != wanted:
        raise measure.Failed(f"{tool.name}: {found} came out, and not {wanted}")
    if tool.ours and subprocess.run(["diff", "-r", "-q", source, root], check=False).returncode:
        raise measure.Failed(f"{tool.name}: what came out differs from the source")


def record(results, operation, seconds, work_seconds, memory):
    row = results.setdefault(operation, {"seconds": [], "work": [], "memory": 0})
    row["seconds"].append(seconds)
    row["work"].append(work_seconds)
    row["memory"] = max(row["memory"], memory)


def run_tool(tool, corpus, work, results, check):
    source, wanted = corpus
    archive = work.path("archive")
    remove_archive(archive)
    cwd = source if tool.inside else None
    command = tool.command("create", source=source, archive=archive)
    record(results, "create", *measure.run_with_usage(command, cwd))
    results["size"] = archive_size(archive)
    if tool.list:
        command = tool.command("list", archive=archive)
        record(results, "list", *measure.run_with_usage(command))
    if tool.extract:
        target = work.path("target")
        os.mkdir(target)
        command = tool.command("extract", archive=archive, target=target)
        record(results, "extract", *measure.run_with_usage(command))
        if check:
            came_out_right(tool, source, wanted, target)
        place.remove(target)
    elif check and corpora.count(archive) != wanted:
        raise measure.Failed(f"{tool.name}: the copy is not whole")
    remove_archive(archive)


def run_rounds(corpus, tools, work, runs, name, failures):
    """The seconds of every tool and operation, a figure a round. A tool that fails is left out from
    then on, and has no results; the text of its failure goes to `failures`."""
    results = {tool.name: {} for tool in tools}
    for number in range(runs):
        turn = number * 5 % len(tools)
        for tool in tools[turn:] + tools[:turn]:
            if tool.name not in results:
                continue
            say(f"{name}, round {number + 1} of {runs}: {tool.name}")
            try:
                run_tool(tool, corpus, work, results[tool.name], check=number == 0)
            except measure.Failed as failure:
                say(f"failed: {failure}")
                failures.append(f"{name}: {failure}")
                del results[tool.name]
    return results
