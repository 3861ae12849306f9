"""Draws the times of creating and extracting as horizontal bars, in an SVG without any script.

Its colours follow the reader's light or dark theme. Each corpus is a row of two panels; the bars of
a panel share a scale, and every bar carries its figure, so there are neither axes nor grid. Bars of
more than twice the slowest of ours are cut.
"""
import html
import statistics

WIDTH = 960
LEFT = 24
PANELS = (("create", "Create"), ("extract", "Extract"))
PANEL_WIDTH = 444
PANEL_GAP = 24
NAME_WIDTH = 156
FIGURE_WIDTH = 48
ROW = 20
BAR = 12
TOP = 74
TITLE = 44
GAP = 22
CUT = 2

# Colours stand in each rule, since not everything that shows SVG knows CSS variables.
STYLE = """
svg { font-family: system-ui, -apple-system, "Segoe UI", "DejaVu Sans", sans-serif; }
text { fill: #1f2328; font-size: 12px; }
.head { font-size: 17px; font-weight: 600; }
.corpus { font-size: 14px; font-weight: 600; }
.name { text-anchor: end; }
.figure { font-variant-numeric: tabular-nums; }
.mine { font-weight: 600; }
.quiet { fill: #59636e; }
.ground { fill: #ffffff; }
.line { stroke: #d1d9e0; }
.ours { fill: #0b6bcb; }
.peer { fill: #b6bec8; }
@media (prefers-color-scheme: dark) {
  text { fill: #f0f6fc; }
  .quiet { fill: #9198a1; }
  .ground { fill: #0d1117; }
  .line { stroke: #3d444d; }
  .ours { fill: #58a6ff; }
  .peer { fill: #4b535d; }
}
"""


def text(x, y, words, kind=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}">{html.escape(words)}</text>'


def figure(seconds):
    return f"{seconds:.3f}" if seconds < 1 else f"{seconds:.2f}"


def bars_of(tools, operation):
    """Names and seconds, the fastest first. Copying is held against both, so it is among both."""
    found = []
    for name, rows in tools.items():
        row = rows.get(operation) or (rows.get("create") if name.startswith("cp") else None)
        if row:
            found.append((name, statistics.median(row["seconds"])))
    return sorted(found, key=lambda one: one[1])


def cut_at(bars):
    """Longer bars are cut, so that one slow tool does not make all others dots."""
    ours = [seconds for name, seconds in bars if name.startswith("capsule")]
    longest = max(seconds for _, seconds in bars)
    return min(longest, CUT * max(ours)) if ours else longest


def cut(x, y):
    """A slanted gap across a bar, shortly before its end."""
    return (f'<path class="ground" d="M {x - 14:.1f} {y + BAR + 1} l 6 {-BAR - 2} h 4 '
            f'l -6 {BAR + 2} z"/>')


def panel(x, y, title, bars):
    longest = cut_at(bars)
    full = PANEL_WIDTH - NAME_WIDTH - FIGURE_WIDTH
    yield text(x + NAME_WIDTH, y - 10, title, "quiet")
    yield (f'<line class="line" x1="{x + NAME_WIDTH - 1}" x2="{x + NAME_WIDTH - 1}" '
           f'y1="{y}" y2="{y + len(bars) * ROW}"/>')
    for number, (name, seconds) in enumerate(bars):
        top = y + number * ROW
        ours = name.startswith("capsule")
        kind, mine = ("ours", " mine") if ours else ("peer", "")
        length = max(1.0, full * min(seconds, longest) / longest)
        yield text(x + NAME_WIDTH - 8, top + 14, name, "name" + mine)
        yield (f'<rect class="{kind}" x="{x + NAME_WIDTH}" y="{top + (ROW - BAR) / 2:.1f}" '
               f'width="{length:.1f}" height="{BAR}" rx="2"/>')
        if seconds > longest:
            yield cut(x + NAME_WIDTH + length, top + (ROW - BAR) // 2)
        yield text(x + NAME_WIDTH + length + 6, top + 14, figure(seconds), "figure" + mine)


def corpus_title(name, holds):
    return f"{name}: {holds['bytes'] / 1e6:.0f} MB in {holds['files']:,} files"


def draw(run):
    """The whole picture as text."""
    shapes = [text(LEFT, 34, "Seconds to create and to extract; shorter is better", "head"),
              text(LEFT, 54, run["short machine"] + "; bars with a gap are cut", "quiet")]
    y = TOP
    for name, tools in run["corpora"].items():
        shapes.append(text(LEFT, y + 16, corpus_title(name, run["holds"][name]), "corpus"))
        y += TITLE
        columns = [bars_of(tools, operation) for operation, _ in PANELS]
        for number, (bars, (_, title)) in enumerate(zip(columns, PANELS)):
            if bars:
                shapes += panel(LEFT + number * (PANEL_WIDTH + PANEL_GAP), y, title, bars)
        y += max(map(len, columns)) * ROW + GAP
    head = (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {y}" width="{WIDTH}" '
            f'height="{y}" role="img">\n<title>Seconds to create and to extract</title>\n'
            f"<style>{STYLE}</style>\n")
    ground = f'<rect class="ground" width="{WIDTH}" height="{y}"/>'
    return head + "\n".join([ground, *shapes]) + "\n</svg>\n"
