"""Draws the report of bench/compare.py as an SVG: one bar per line, with limit and aim."""

from html import escape

WIDTH, LABEL, BAR, ROW, TOP = 960, 380, 400, 30, 60
LONGEST = 2  # greater ratios end at the edge, to keep the other bars long enough to compare
COLOURS = {"FAIL": "#c0392b", "PASS": "#2e86c1", "PASS, aim reached": "#1e8449"}


def text(x, y, words, anchor="start", size=13, colour="#222"):
    return f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" font-size="{size}" fill="{colour}">{escape(words)}</text>'


def line(x, y, height, colour, dash=""):
    return (f'<line x1="{x:.1f}" y1="{y:.0f}" x2="{x:.1f}" y2="{y + height:.0f}" stroke="{colour}" stroke-width="2"'
            f'{dash and f" stroke-dasharray={chr(34)}{dash}{chr(34)}"}/>')


def row(number, one, scale):
    y = TOP + number * ROW
    wanted = f"{one['sense']} {one['limit']:.2f}, aim {one['aim']:.2f}"
    return "".join([
        text(LABEL - 10, y + 16, one["what"], "end"),
        f'<rect x="{LABEL}" y="{y + 3}" width="{min(one["ratio"], LONGEST) * scale:.1f}" height="{ROW - 10}" '
        f'fill="{COLOURS[one["verdict"]]}"/>',
        line(LABEL + one["limit"] * scale, y, ROW - 4, "#222"),
        line(LABEL + one["aim"] * scale, y, ROW - 4, "#222", "3 3"),
        text(LABEL + 6, y + 17, f"{one['ratio']:.2f}", colour="#fff"),
        text(LABEL + BAR + 15, y + 16, wanted, size=12),
    ])


def draw(results, lines):
    height = TOP + len(lines) * ROW + 20
    scale = BAR / LONGEST
    rounds = max(len(case) for case in results.values())
    return "".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" font-family="sans-serif">',
        f'<rect width="{WIDTH}" height="{height}" fill="#fff"/>',
        text(20, 24, "This recorder against the better of ffmpeg and GStreamer", size=17),
        text(20, 44, f"median of the ratios within each of {rounds} rounds; bar: limit, dashed: aim", colour="#666"),
        *(row(number, one, scale) for number, one in enumerate(lines)),
        "</svg>\n",
    ])
