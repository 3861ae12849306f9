"""Runs commands and measures them: seconds, peak memory, system calls."""
import os
import shutil
import subprocess
import tempfile
import time


class Failed(Exception):
    """A command that did not do its work; the text says which and why."""


def run(command, cwd=None, keep_output=False):
    """Seconds from start to end, and what the command wrote when it is asked for."""
    with tempfile.TemporaryFile() as errors:
        output = subprocess.PIPE if keep_output else subprocess.DEVNULL
        start = time.perf_counter()
        done = subprocess.run(command, cwd=cwd, stdin=subprocess.DEVNULL, stdout=output,
                              stderr=errors, check=False)
        seconds = time.perf_counter() - start
        if done.returncode != 0:
            errors.seek(0)
            said = errors.read().decode("utf-8", "replace").strip()[-300:]
            raise Failed(f"{' '.join(command)}: exit status {done.returncode}: {said}")
    return seconds, done.stdout


def run_with_usage(command, cwd=None):
    """Seconds from start to end, seconds of all processors together, and the peak of resident
    memory in bytes.

    GNU time starts the command, because what a process inherits counts in its peak, and of this
    program that would be more than some tools need. Of several processes, it tells the largest.
    """
    with tempfile.NamedTemporaryFile("r") as note:
        seconds, _ = run(["time", "-f", "%U %S %M", "-o", note.name, *command], cwd)
        user, system, peak = note.read().split()[-3:]
        return seconds, float(user) + float(system), int(peak) * 1024


def system_calls(command, cwd=None):
    """How many system calls the command and its threads and children make."""
    with tempfile.NamedTemporaryFile("r") as table:
        run(["strace", "-f", "-c", "-o", table.name, *command], cwd)
        rows = (line.split() for line in table)
        # Share, seconds, microseconds a call, calls, errors if any, name.
        return sum(int(row[3]) for row in rows
                   if len(row) >= 5 and row[3].isdigit() and row[-1] != "total")


def can_trace():
    if not shutil.which("strace"):
        return False
    try:
        return system_calls(["true"]) > 0
    except (Failed, OSError):
        return False


def processors():
    return len(os.sched_getaffinity(0))
