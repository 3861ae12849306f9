"""The ratios that are wanted, and whether they are reached."""
import dataclasses
import statistics

ALL = ("text", "mixed", "tiny")
LARGE = ("text", "mixed")
SMALL = ("tiny",)


@dataclasses.dataclass(frozen=True)
class Ratio:
    """Seconds of ours by those of a peer, at most so much."""
    ours: tuple
    peer: tuple
    most: float
    corpora: tuple
    below: bool = False  # strictly less


RATIOS = [
    Ratio(("capsule -1", "create"), ("mksquashfs lz4 8K", "create"), 1.0, ALL),
    Ratio(("capsule -5", "create"), ("mksquashfs gzip-1 8K", "create"), 0.8, LARGE),
    Ratio(("capsule -5", "create"), ("mksquashfs gzip-1 8K", "create"), 1.0, SMALL),
    Ratio(("capsule -5", "create"), ("wimlib fast", "create"), 0.8, LARGE),
    Ratio(("capsule -5", "create"), ("wimlib fast", "create"), 1.0, SMALL),
    Ratio(("capsule -9", "create"), ("mksquashfs gzip-9 8K", "create"), 1.0, ALL, below=True),
    Ratio(("capsule -0", "create"), ("cp -r", "create"), 1.2, LARGE),
    Ratio(("capsule -5", "extract"), ("mksquashfs lz4 8K", "extract"), 1.0, ALL),
    Ratio(("capsule -5", "extract"), ("cp -r", "create"), 0.5, SMALL),
]


@dataclasses.dataclass(frozen=True)
class Outcome:
    """One line of the table of marks."""
    what: str
    where: str
    wanted: str
    measured: str
    reached: bool


def seconds(results, corpus, side):
    tool, operation = side
    return results.get(corpus, {}).get(tool, {}).get(operation, {}).get("seconds")


def label(side):
    tool, operation = side
    return tool if tool.endswith("-r") else f"{operation}, {tool}"


def ratio_outcomes(results):
    """The ratios of medians, and behind them the least and greatest ratio of a round."""
    for mark in RATIOS:
        for corpus in mark.corpora:
            ours, peer = (seconds(results, corpus, side) for side in (mark.ours, mark.peer))
            if not ours or not peer:
                continue
            value = statistics.median(ours) / statistics.median(peer)
            each = [one / other for one, other in zip(ours, peer)]
            yield Outcome(f"{label(mark.ours)} : {label(mark.peer)}", corpus,
                          f"{'<' if mark.below else '≤'} {mark.most:g}",
                          f"{value:.2f} ({min(each):.2f}–{max(each):.2f})",
                          value < mark.most if mark.below else value <= mark.most)


def memory_outcome(corpus, jobs, peak):
    most = 48 + 8 * jobs
    return Outcome(f"peak memory, {jobs} job{'s' * (jobs > 1)}, MiB", corpus, f"< {most}",
                   f"{peak / 2**20:.1f}", peak < most * 2**20)


def memory_outcomes(run):
    """The peak of all levels and commands, by corpus, and that of the single file by jobs."""
    for corpus, tools in run["corpora"].items():
        peaks = [row["memory"] for name, rows in tools.items() if name.startswith("capsule")
                 for row in rows.values() if isinstance(row, dict)]
        if peaks:
            yield memory_outcome(corpus, run["jobs"], max(peaks))
    for jobs, row in run.get("single", {}).items():
        yield memory_outcome("single", 1 if jobs == "default" else int(jobs), row["memory"])


def read_outcomes(reads):
    wanted = {"cold": ("4 KiB by `capsule cat`, ms", 15),
              "next": ("the next 4 KiB by the same reader, ms", 1)}
    for key, (what, most) in wanted.items():
        if key in reads:
            yield Outcome(what, "large", f"< {most}", f"{reads[key]:.2f}", reads[key] < most)


def single_outcomes(single):
    if not {"1", "2"} <= set(single):
        return
    for operation, least in (("create", 1.7), ("extract", 1.6)):
        one, two = (statistics.median(single[jobs][operation]) for jobs in ("1", "2"))
        yield Outcome(f"{operation}, one job : two jobs", "single", f"≥ {least}",
                      f"{one / two:.2f}", one / two >= least)


def outcomes(run):
    """All marks of what was measured."""
    yield from ratio_outcomes(run["corpora"])
    yield from memory_outcomes(run)
    yield from read_outcomes(run.get("reads", {}))
    yield from single_outcomes(run.get("single", {}))
