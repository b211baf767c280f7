"""The plots of docs/performance.md, as SVG."""

import math
from xml.sax.saxutils import escape

COLOURS = ["#1f6fb4", "#e08214", "#4d9a52", "#a65ba6", "#8c8c8c"]
STYLE = "text{font:12px sans-serif;fill:#222}.small{font-size:10px}rect.page{fill:#fff}"


def _page(width, height, parts):
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" viewBox="0 0 {width} {height}">'
        f'<style>{STYLE}</style><rect class="page" width="{width}" height="{height}"/>' + "".join(parts) + "</svg>\n"
    )


def _text(x, y, text, anchor="start", css=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" class="{css}">{escape(text)}</text>'


def _line(x1, y1, x2, y2, colour, dashes=""):
    return (
        f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" stroke-dasharray="{dashes}"/>'
    )


def _legend(names, x, y):
    parts = []
    for index, name in enumerate(names):
        parts.append(f'<rect x="{x}" y="{y - 10}" width="10" height="10" fill="{COLOURS[index % len(COLOURS)]}"/>')
        parts.append(_text(x + 14, y, name))
        x += 30 + 7 * len(name)
    return parts


def _floor(row):
    """What the row's bars are measured by."""
    against = row.get("against")
    sides = [against] if isinstance(against, str) else list(against or [])
    values = [row["values"][side] for side in sides if row["values"].get(side)]
    if not values:
        return None
    return max(values) if row["unit"].endswith("/s") else min(values)


def ratios(result, ours):
    """Each side's cost as a multiple of the one that the row is compared with; None when nothing can be drawn."""
    rows = []
    for row in result["rows"]:
        floor = _floor(row)
        if floor and not any(row["what"] == former["what"] for former, _ in rows):
            rows.append((row, floor))
    if not rows:
        return None
    sides = [ours]
    for row, _ in rows:
        sides += [side for side in row["values"] if side not in sides]
    left = 20 + 7 * max(len(row["what"]) for row, _ in rows)
    width, bar, most = left + 530, 11, 3.0
    scale = (width - left - 60) / most
    parts = [_text(10, 20, f"{result['title']}: medians beside the one compared with (1.0), less is better")]
    parts += _legend(["ours" if side == ours else side for side in sides], 10, 42)
    y = 60
    for row, floor in rows:
        there = [side for side in sides if row["values"].get(side) is not None]
        parts.append(_text(left - 8, y + len(there) * bar / 2 + 4, row["what"], "end"))
        for side in there:
            value = row["values"][side]
            if row["unit"].endswith("/s"):
                multiple = floor / value if value else most
            else:
                multiple = value / floor
            length = min(multiple, most) * scale
            colour = COLOURS[sides.index(side) % len(COLOURS)]
            parts.append(f'<rect x="{left}" y="{y}" width="{length:.1f}" height="{bar - 1}" fill="{colour}"/>')
            parts.append(_text(left + length + 4, y + 9, f"{multiple:.2f}", css="small"))
            y += bar
        y += 8
    parts.append(_line(left + scale, 52, left + scale, y, "#222", "4 3"))
    return _page(width, y + 10, parts)


def growth(result):
    """Cost over amount, both on logarithmic scales; None when there is nothing."""
    items = result["growth"]
    if not items:
        return None
    left, top, width, height = 70, 70, 640, 420
    right, bottom = width - 20, height - 40
    amounts = [float(amount) for item in items for amount in item["points"]]
    costs = [value for item in items for value in item["points"].values()]
    x_low, x_high = math.log10(min(amounts)), math.log10(max(amounts))
    y_low, y_high = math.floor(math.log10(min(costs))), math.ceil(math.log10(max(costs)))

    def place(amount, cost):
        x = left + (math.log10(float(amount)) - x_low) / (x_high - x_low) * (right - left)
        return x, bottom - (math.log10(cost) - y_low) / (y_high - y_low) * (bottom - top)

    parts = [_text(10, 20, f"{result['title']}: cost ({items[0]['unit']}) over amount")]
    parts += _legend([item["what"] for item in items], 10, 42)
    for power in range(y_low, y_high + 1):
        _, y = place(min(amounts), 10.0**power)
        parts += [_line(left, y, right, y, "#ddd"), _text(left - 6, y + 4, f"{10.0**power:g}", "end")]
    for power in range(math.ceil(x_low), math.floor(x_high) + 1):
        x, _ = place(10.0**power, 10.0**y_low)
        parts += [_line(x, top, x, bottom, "#ddd"), _text(x, bottom + 18, f"{10**power:,}", "middle")]
    for index, item in enumerate(items):
        colour = COLOURS[index % len(COLOURS)]
        points = [place(amount, cost) for amount, cost in item["points"].items()]
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        parts.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        parts += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in points]
    return _page(width, height, parts)
