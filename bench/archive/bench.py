"""One run: what it measures with, and what it measures."""
import json
import os
import platform

from . import corpora, extras, measure, rounds, tools

# What each corpus needs at once of the work folder, with the largest archive and what comes out.
ROOM = {"text": (600e6, 25_000), "mixed": (1500e6, 25_000), "tiny": (1600e6, 220_000),
        "large": (700e6, 100), "single": (5000e6, 100), "million": (12e9, 2_400_000)}


def jobs_of(options, capsule):
    """What -j is to be given, or None; and how many jobs there will be."""
    accepted = tools.takes_jobs(capsule)
    if options.jobs and not accepted:
        rounds.say("archive_bench: this capsule has no -j, so it runs without")
    if not accepted:
        return None, 1
    return options.jobs, options.jobs or measure.processors()


def chosen_tools(options, capsule, given_jobs):
    """The tools to run, and the names of those that are not installed."""
    starts = tuple(options.tools.split(",")) if options.tools else ("",)
    wanted = [tool for tool in tools.capsule_tools(capsule, given_jobs) + tools.PEERS
              if tool.name.startswith(starts)]
    there = [tool for tool in wanted if tools.is_installed(tool)]
    return there, [tool.name for tool in wanted if tool not in there]


def processor_name():
    with open("/proc/cpuinfo", encoding="utf-8") as lines:
        names = [line.split(":", 1)[1].strip() for line in lines if line.startswith("model name")]
    return names[0] if names else platform.machine()


def machine(options, kind, run_tools, missing):
    """What the figures were measured with, in one paragraph; and the same in one line."""
    short = (f"Medians of {options.runs} on {processor_name()} with {measure.processors()} "
             f"processors, files on {kind}")
    versions = sorted({tools.version(tool.create[0]) for tool in run_tools})
    text = f"{short}. Load at the start: {os.getloadavg()[0]:.1f}. {'; '.join(versions)}."
    if options.scale != 1:
        text += f" The corpora are {options.scale:g} of their whole size."
    if kind != "tmpfs":
        text += " Only capsule syncs what it writes, which costs time on this file system."
    if missing:
        text += f" Left out, not installed: {', '.join(missing)}."
    return text, short


def needs(options, names):
    """Bytes and files that the work folder must take."""
    wanted = list(names) + ["large"] * (not options.no_extras)
    wanted += [name for name in ("single", "million") if getattr(options, name)]
    if not wanted:
        raise SystemExit("archive_bench: nothing to measure")
    sums = sum if options.keep else max
    size, files = (sums(ROOM[name][which] for name in wanted) for which in (0, 1))
    return int(size * options.scale) + (64 << 20), int(files * options.scale) + 10_000


class Bench:
    """One run: what it measures with, and what it has measured."""

    def __init__(self, options, work, capsule, range_bench):
        self.options = options
        self.work = work
        self.capsule = capsule
        self.range_bench = range_bench
        self.given_jobs, jobs = jobs_of(options, capsule)
        self.tools, missing = chosen_tools(options, capsule, self.given_jobs)
        text, short = machine(options, work.kind, self.tools, missing)
        self.run = {"machine": text, "short machine": short, "jobs": jobs, "corpora": {},
                    "holds": {}, "failures": []}

    def with_corpus(self, name, measure_it):
        """Builds a corpus, hands out its folder and what it holds, and removes it."""
        rounds.say(f"building the corpus {name}")
        folder, holds = corpora.build(self.work.folder, name, self.options.scale)
        self.run["holds"][name] = holds
        result = measure_it(folder, holds)
        if not self.options.keep:
            corpora.remove(self.work.folder, name, self.options.scale)
        return result

    def measure_corpora(self, names):
        for name in names:
            self.run["corpora"][name] = self.with_corpus(
                name, lambda folder, holds, name=name: rounds.run_rounds(
                    (folder, holds), self.tools, self.work, self.options.runs, name,
                    self.run["failures"]))

    def measure_extras(self):
        self.run["reads"] = self.with_corpus("large", lambda folder, _: extras.piece_reads(
            self.capsule, self.range_bench, self.work, folder))
        if not self.range_bench:
            self.run["machine"] += " Left out, not built: range_bench."
        if measure.can_trace():
            self.run["calls"] = extras.calls_a_file(
                [tool for tool in self.tools if not tool.ours or tool.name == "capsule -5"],
                self.work, self.run["failures"])
        else:
            self.run["machine"] += " Left out, strace is missing or refused: system calls."

    def measure_single(self):
        self.run["single"] = self.with_corpus("single", lambda folder, _: extras.single_file(
            self.capsule, self.work, folder, self.options.runs))
        if "2" not in self.run["single"]:
            self.run["machine"] += " This capsule has no -j: jobs could not be compared."

    def measure_million(self):
        def both(fewer, few, more, many):
            times = extras.growth(self.capsule, self.work, (fewer, more), self.options.runs)
            return {"files": [few["files"], many["files"]], "times": times}
        self.run["million"] = self.with_corpus("tiny", lambda fewer, few: self.with_corpus(
            "million", lambda more, many: both(fewer, few, more, many)))

    def all(self, names):
        """Measures what the options ask for; after each part, what there is goes to --json."""
        parts = [lambda: self.measure_corpora(names)]
        parts += [self.measure_extras] * (not self.options.no_extras)
        parts += [self.measure_single] * self.options.single
        parts += [self.measure_million] * self.options.million
        for part in parts:
            part()
            if self.options.json:
                with open(self.options.json, "w", encoding="utf-8") as handle:
                    json.dump(self.run, handle, indent=1)
        return self.run
