"""Prints what was measured as tables of Markdown, and puts them into a file between two marks."""
import statistics

from . import marks

BEGIN = "<!-- archive_bench: begin -->"
END = "<!-- archive_bench: end -->"


def table(head, rows):
    """A table whose first column is text and whose others are figures."""
    lines = [head, ["---"] + ["---:"] * (len(head) - 1), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def duration(values):
    value = statistics.median(values)
    return f"{value:.3f}" if value < 1 else f"{value:.2f}"


def tool_names(corpora):
    """Each tool once, in the order in which the first round ran them."""
    return list(dict.fromkeys(name for tools in corpora.values() for name in tools))


def tool_table(title, corpora, cell):
    """One row a tool, one column a corpus; `cell` gives the text of a tool's results or nothing."""
    rows = []
    for name in tool_names(corpora):
        cells = [cell(tools.get(name, {}), corpus) or "" for corpus, tools in corpora.items()]
        if any(cells):
            rows.append([f"**{name}**" if name.startswith("capsule") else name, *cells])
    return table([title, *corpora], rows)


def seconds_table(corpora, operation, key="seconds", title="seconds"):
    def cell(tool, _):
        return duration(tool[operation][key]) if key in tool.get(operation, {}) else None
    return tool_table(f"{operation}, {title}", corpora, cell)


def size_table(run):
    def cell(tool, corpus):
        size = tool.get("size")
        return f"{100 * size / run['holds'][corpus]['bytes']:.1f}" if size else None
    return tool_table("size, % of the bytes", run["corpora"], cell)


def memory_table(corpora):
    def cell(tool, _):
        peaks = [row["memory"] for row in tool.values() if isinstance(row, dict)]
        return f"{max(peaks) / 2**20:.1f}" if peaks else None
    return tool_table("peak memory, MiB", corpora, cell)


def marks_table(run):
    rows = [[mark.what, mark.where, mark.wanted, mark.measured, "yes" if mark.reached else "**no**"]
            for mark in marks.outcomes(run)]
    return table(["mark", "corpus", "wanted", "measured (rounds)", "reached"], rows)


def calls_table(calls):
    operations = ("create", "extract")
    rows = [[name, *(f"{row[one]:.1f}" if one in row else "" for one in operations)]
            for name, row in calls.items()]
    return table(["system calls a small file", *operations], rows)


def reads_table(reads):
    names = {"cold": "`capsule cat` of 4 KiB, from start to end",
             "cold longest": "the longest of them",
             "open": "one reader: opening the image",
             "first": "its first 4 KiB",
             "next": "each of the next, at random",
             "longest": "the longest of them"}
    rows = [[text, f"{reads[key]:.2f}"] for key, text in names.items() if key in reads]
    return table(["reads of the large file", "ms"], rows)


def single_table(single):
    rows = [[f"{operation}, jobs: {jobs}", duration(row[operation])]
            for operation in ("create", "extract") for jobs, row in single.items()]
    return table(["the single file", "seconds"], rows)


def growth_table(run):
    fewer, more = run["million"]["times"]
    small, large = (f"{files:,} files" for files in run["million"]["files"])
    rows = []
    for key in fewer:
        unit = 2**20 if key.endswith("memory") else 1
        one, other = fewer[key] / unit, more[key] / unit
        name = f"{key}, MiB" if key.endswith("memory") else f"{key}, s"
        rows.append([name, f"{one:.2f}", f"{other:.2f}", f"{other / one:.1f}"])
    return table(["capsule", small, large, "factor"], rows)


def corpora_lines(run):
    kinds = {"text": "text", "mixed": "text, programs, compressed data and runs of zeros",
             "tiny": "text, 0 to 3 KB a file", "million": "text, 0 to 3 KB a file",
             "large": "half text, half programs", "single": "half text, half programs"}
    for name, holds in run["holds"].items():
        yield (f"- {name}: {holds['bytes'] / 1e6:.0f} MB in {holds['files']:,} file"
               f"{'s' * (holds['files'] != 1)}, {holds['folders']:,} folders; {kinds[name]}")


def whole(run):
    """Everything, as one text of Markdown."""
    corpora = run["corpora"]
    parts = [run["machine"], "\n".join(corpora_lines(run)), marks_table(run)]
    if corpora:
        parts += [seconds_table(corpora, operation) for operation in ("create", "extract", "list")]
        parts += [seconds_table(corpora, operation, "work", "seconds of all processors together")
                  for operation in ("create", "extract")]
        parts += [size_table(run), memory_table(corpora)]
    parts += [make(run[key]) for key, make in
              (("calls", calls_table), ("reads", reads_table), ("single", single_table))
              if run.get(key)]
    if run.get("million"):
        parts.append(growth_table(run))
    return "\n\n".join(parts) + "\n"


def put_between(path, text):
    """Replaces what lies between the two marks in the file."""
    with open(path, encoding="utf-8") as handle:
        before, found, rest = handle.read().partition(BEGIN)
    _, closed, after = rest.partition(END)
    if not found or not closed:
        raise SystemExit(f"archive_bench: {path} lacks {BEGIN} or {END}")
    with open(path, "w", encoding="utf-8") as handle:
        handle.write(f"{before}{BEGIN}\n{text}{END}{after}")
