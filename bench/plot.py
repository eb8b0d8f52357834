# SPDX-License-Identifier: MIT
"""The figures as bars in one SVG picture: a panel for each group, with a scale of its own."""
from html import escape

WIDTH, COLUMNS = 1240, 2
PANEL = (WIDTH - 20 * (COLUMNS + 1)) // COLUMNS
LABEL, BAR, ROW, HEAD = 262, 190, 24, 34
INK, PALE, GOOD, MISSED, AIM = "#222222", "#8a97a6", "#2f6db5", "#c0392b", "#e08a00"


def text(x, y, words, size=13, anchor="start", color=INK, weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" text-anchor="{anchor}" fill="{color}" '
            f'font-weight="{weight}">{escape(words)}</text>')


def bar(figure, x, y, scale):
    """One row; scale is the value that takes the whole width."""
    color = MISSED if figure.get("met") is False else GOOD if is_ours(figure) else PALE
    length = max(1, figure["value"] / scale * BAR)
    parts = [text(x + LABEL - 8, y + 13, figure["name"], anchor="end"),
             f'<rect x="{x + LABEL}" y="{y}" width="{length:.1f}" height="{ROW - 7}" fill="{color}"/>',
             text(x + LABEL + BAR + 8, y + 13, f"{figure['value']:,} {figure['unit']}")]
    if "aim" in figure:
        at = x + LABEL + min(1, aim(figure) / scale) * BAR
        parts.append(f'<path d="M{at:.1f} {y - 3}v{ROW - 1}" stroke="{AIM}" stroke-width="2.5"/>')
    return parts


def is_ours(figure):
    return not any(name in figure["name"] for name in ("epoll", "nginx", "Xtigervnc alone"))


def aim(figure):
    return float(figure["aim"].split()[1].replace(",", ""))


def panel(group, figures, x, y):
    parts = [text(x, y + 18, group, size=15, weight="bold")]
    units = {figure["unit"] for figure in figures}
    scales = {unit: max([figure["value"] for figure in figures if figure["unit"] == unit] +
                        [aim(figure) for figure in figures if figure["unit"] == unit and "aim" in figure] + [1e-9])
              for unit in units}
    for row, figure in enumerate(figures):
        parts += bar(figure, x, y + HEAD + row * ROW, scales[figure["unit"]])
    return parts


def svg(figures, machine):
    groups = {}
    for figure in figures:
        groups.setdefault(figure["group"], []).append(figure)
    heights = [76] * COLUMNS
    parts = []
    for group, members in groups.items():
        column = heights.index(min(heights))
        parts += panel(group, members, 20 + column * (PANEL + 20), heights[column])
        heights[column] += HEAD + len(members) * ROW + 18
    title = [text(20, 32, "Zarvo Server: load and figures", size=20, weight="bold"),
             text(20, 54, f"{machine['processors']} x {machine['processor']}, {machine['begin']}, load average before "
                          f"{machine['load before']:.2f}. Blue: ours; grey: others; orange line: aim; red: aim missed",
                  size=12)]
    height = max(heights) + 10
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
            f'viewBox="0 0 {WIDTH} {height}" font-family="DejaVu Sans, Liberation Sans, Arial, sans-serif">\n'
            f'<rect width="100%" height="100%" fill="white"/>\n' + "\n".join(title + parts) + "\n</svg>\n")
