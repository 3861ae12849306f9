"""Draws the times of creating and extracting as horizontal bars, in an SVG without any script.

Its colours follow the reader's light or dark theme. Each corpus is a row of two panels; the bars of
a panel share a scale, and every bar carries its figure, so there are neither axes nor grid.
"""
import html
import statistics

WIDTH = 960
LEFT = 24
PANELS = (("create", "Create"), ("extract", "Extract"))
PANEL_WIDTH = 444
PANEL_GAP = 24
NAME_WIDTH = 148
FIGURE_WIDTH = 62
ROW = 20
BAR = 12
TOP = 74
TITLE = 44
GAP = 22

STYLE = """
svg { --ground: #ffffff; --ink: #1f2328; --quiet: #59636e; --ours: #0b6bcb; --peer: #b6bec8;
      --line: #d1d9e0; font-family: system-ui, -apple-system, "Segoe UI", sans-serif; }
@media (prefers-color-scheme: dark) {
  svg { --ground: #0d1117; --ink: #f0f6fc; --quiet: #9198a1; --ours: #58a6ff; --peer: #4b535d;
        --line: #3d444d; }
}
.ground { fill: var(--ground); }
.line { stroke: var(--line); stroke-width: 1; }
text { fill: var(--ink); font-size: 12px; }
.head { font-size: 17px; font-weight: 600; }
.corpus { font-size: 14px; font-weight: 600; }
.quiet { fill: var(--quiet); }
.name { text-anchor: end; }
.figure { font-variant-numeric: tabular-nums; }
.ours { fill: var(--ours); }
.peer { fill: var(--peer); }
text.mine { font-weight: 600; }
"""


def text(x, y, words, kind=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}">{html.escape(words)}</text>'


def figure(seconds):
    return f"{seconds:.2f} s" if seconds < 10 else f"{seconds:.1f} s"


def bars_of(tools, operation):
    """Names and seconds, the fastest first. Copying is held against both, so it stands in both panels."""
    found = []
    for name, rows in tools.items():
        row = rows.get(operation) or (rows.get("create") if name.startswith("cp") else None)
        if row:
            found.append((name, statistics.median(row["seconds"])))
    return sorted(found, key=lambda one: one[1])


def panel(x, y, title, bars):
    longest = max(seconds for _, seconds in bars)
    full = PANEL_WIDTH - NAME_WIDTH - FIGURE_WIDTH
    yield text(x + NAME_WIDTH, y - 10, title, "quiet")
    yield (f'<line class="line" x1="{x + NAME_WIDTH - 1}" x2="{x + NAME_WIDTH - 1}" '
           f'y1="{y}" y2="{y + len(bars) * ROW}"/>')
    for number, (name, seconds) in enumerate(bars):
        top = y + number * ROW
        ours = name.startswith("capsule")
        kind, mine = ("ours", " mine") if ours else ("peer", "")
        length = max(1.0, full * seconds / longest)
        yield text(x + NAME_WIDTH - 8, top + 14, name, "name" + mine)
        yield (f'<rect class="{kind}" x="{x + NAME_WIDTH}" y="{top + (ROW - BAR) / 2:.1f}" '
               f'width="{length:.1f}" height="{BAR}" rx="2">'
               f"<title>{html.escape(name)}: {figure(seconds)}</title></rect>")
        yield text(x + NAME_WIDTH + length + 6, top + 14, figure(seconds), "figure" + mine)


def corpus_title(name, holds):
    return f"{name}: {holds['bytes'] / 1e6:.0f} MB in {holds['files']:,} files"


def draw(run):
    """The whole picture as text."""
    shapes = [text(LEFT, 34, "Seconds to create and to extract, shorter is better", "head"),
              text(LEFT, 54, run["short machine"], "quiet")]
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
