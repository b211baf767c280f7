"""The plots of docs/performance.md, as SVG. Each function takes a section's result as report.py makes it."""

import math
from xml.sax.saxutils import escape, quoteattr

# People who see fewer colours can distinguish these too, and all are dark enough for white paper.
COLOURS = ["#0072b2", "#e08214", "#009e73", "#b5548c", "#5c5c5c", "#3f9fdc", "#c23b00", "#8a6d00"]
# With five markers and eight colours forty combinations come before the first repetition.
DASHES = ["", "7 3", "2 3", "9 3 2 3"]
MARKERS = ["circle", "square", "triangle", "diamond", "cross"]
FONT = 12
SMALL = 10
STYLE = f"text{{font:{FONT}px sans-serif;fill:#222}}.small{{font-size:{SMALL}px}}rect.page{{fill:#fff}}"
# A number stays readable where a line of the grid passes behind it.
STYLE += ".value{paint-order:stroke;stroke:#fff;stroke-width:3px}"
MARGIN = 10
LINE = 18
# Bars end here, in multiples of what they are compared with; a longer one is cut and marked.
LONGEST = 3.0
# Nobody can distinguish more lines than this in one picture.
LINES_TOGETHER = 6
SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


def text_width(text, size=FONT):
    """Of a usual sans-serif font, rather too much than too little."""
    return len(text) * size * 0.6


def line_style(index):
    """(colour, dashes, marker): different for the first forty."""
    return COLOURS[index % len(COLOURS)], DASHES[index % len(DASHES)], MARKERS[index % len(MARKERS)]


def _page(width, height, parts):
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:.0f}" height="{height:.0f}" '
        f'viewBox="0 0 {width:.0f} {height:.0f}">'
        f'<style>{STYLE}</style><rect class="page" width="{width:.0f}" height="{height:.0f}"/>'
        # Stripes over a bar whose colour has been used already.
        '<pattern id="stripes" width="4" height="4" patternUnits="userSpaceOnUse">'
        '<path d="M0 4L4 0" stroke="#fff" stroke-width="1.2"/></pattern>' + "".join(parts) + "</svg>\n"
    )


def _text(x, y, text, anchor="start", css=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" class="{css}">{escape(text)}</text>'


def _line(x1, y1, x2, y2, colour, dashes="", width=1):
    return (
        f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
        f'stroke-width="{width}" stroke-dasharray="{dashes}"/>'
    )


def _bar(x, y, width, height, index):
    area = f'x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height:.1f}"'
    bar = f'<rect {area} fill="{COLOURS[index % len(COLOURS)]}"/>'
    return bar + f'<rect {area} fill="url(#stripes)"/>' if index >= len(COLOURS) else bar


def _marker(x, y, index):
    colour, _, marker = line_style(index)
    if marker == "circle":
        return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.5" fill="{colour}"/>'
    shape = {
        "square": "M-3 -3H3V3H-3Z",
        "triangle": "M0 -4.5L4 3H-4Z",
        "diamond": "M0 -4.5L4.5 0L0 4.5L-4.5 0Z",
        "cross": "M-4 -2.5L-2.5 -4L0 -1.5L2.5 -4L4 -2.5L1.5 0L4 2.5L2.5 4L0 1.5L-2.5 4L-4 2.5L-1.5 0Z",
    }[marker]
    return f'<path transform="translate({x:.1f} {y:.1f})" d="{shape}" fill="{colour}"/>'


def _bar_sample(x, y, index):
    return _bar(x, y - 9, 22, 10, index)


def _line_sample(x, y, index):
    colour, dashes, _ = line_style(index)
    return _line(x, y - 4, x + 30, y - 4, colour, dashes, 2) + _marker(x + 15, y - 4, index)


def _heading(text, width):
    """The title in as many lines as it takes, and where what follows begins."""
    parts = []
    line = ""
    y = 20
    for word in text.split():
        longer = f"{line} {word}".strip()
        if line and MARGIN * 2 + text_width(longer) > width:
            parts.append(_text(MARGIN, y, line))
            y += LINE
            longer = word
        line = longer
    parts.append(_text(MARGIN, y, line))
    return parts, y + LINE


def _legend(names, y, width, sample, sample_width):
    """Every name beside a sample of its style, in as many lines as it takes, and where what follows begins."""
    parts = []
    x = MARGIN
    for index, name in enumerate(names):
        needed = sample_width + 6 + text_width(name)
        if x > MARGIN and x + needed > width - MARGIN:
            x = MARGIN
            y += LINE
        parts.append(sample(x, y, index))
        parts.append(_text(x + sample_width + 6, y, name, css="legend"))
        x += needed + 16
    return parts, y + LINE


# ---- bars


def _floor(row):
    """What the row's bars are measured by."""
    against = row.get("against")
    sides = [against] if isinstance(against, str) else list(against or [])
    values = [row["values"][side] for side in sides if row["values"].get(side)]
    if not values:
        return None
    return max(values) if row["unit"].endswith("/s") else min(values)


def _multiple_text(multiple):
    if math.isinf(multiple):
        return "∞"
    return f"{multiple:.2f}" if multiple < 100 else f"{multiple:,.0f}"


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
    left = 2 * MARGIN + max(text_width(row["what"]) for row, _ in rows)
    width, bar = left + 530, 11
    scale = (width - left - 90) / LONGEST
    parts, y = _heading(f"{result['title']}: medians beside the one compared with (1.0), less is better", width)
    legend, y = _legend(["ours" if side == ours else side for side in sides], y + 2, width, _bar_sample, 22)
    parts += legend
    top = y - 8
    bars = []
    numbers = []
    cut = False
    for row, floor in rows:
        there = [side for side in sides if row["values"].get(side) is not None]
        bars.append(_text(left - 8, y + len(there) * bar / 2 + 4, row["what"], "end"))
        for side in there:
            value = row["values"][side]
            if row["unit"].endswith("/s"):
                multiple = floor / value if value else math.inf
            else:
                multiple = value / floor
            end = left + min(multiple, LONGEST) * scale
            bars.append(_bar(left, y, end - left, bar - 1, sides.index(side)))
            if multiple > LONGEST:
                cut = True
                bars.append(_cut_mark(end, y, bar - 1, COLOURS[sides.index(side) % len(COLOURS)]))
                end += 10
            numbers.append(_text(end + 4, y + 9, _multiple_text(multiple), css="small value"))
            y += bar
        y += 8
    for multiple in range(int(LONGEST) + 1):
        x = left + multiple * scale
        parts += [_line(x, top, x, y, "#ddd"), _text(x, y + 12, f"{multiple}", "middle", "small")]
    parts += [*bars, _line(left + scale, top, left + scale, y, "#222", "4 3"), *numbers]
    y += 18
    if cut:
        parts += [_bar(MARGIN, y + 2, 22, 10, 0), _cut_mark(MARGIN + 22, y + 2, 10, COLOURS[0])]
        parts.append(_text(MARGIN + 40, y + 11, f"cut at {LONGEST:g}; the number beside it is the whole bar's", css="small"))
        y += LINE
    return _page(width, y + 4, parts)


def _cut_mark(x, y, height, colour):
    """A gap across the bar's end and an arrow that leads on."""
    return (
        f'<g class="cut"><path d="M{x - 12:.1f} {y + height:.1f}l4 {-height}h3l-4 {height}z" fill="#fff"/>'
        f'<path d="M{x:.1f} {y - 1:.1f}l9 {height / 2 + 1:.1f}l-9 {height / 2 + 1:.1f}z" fill="{colour}"/></g>'
    )


# ---- lines


def _kind(unit):
    """Times are of one kind, in seconds; whatever else has a unit of its own."""
    return "time" if unit in SECONDS else unit


def _points(item):
    """(amount, cost) with times in seconds. A figure that is not above zero has no place on a logarithmic scale."""
    factor = SECONDS.get(item["unit"], 1)
    pairs = [(float(amount), value * factor) for amount, value in item["points"].items() if value is not None]
    return [(amount, cost) for amount, cost in pairs if amount > 0 and cost > 0]


def _cost_text(power, kind):
    """A power of ten with its unit; times in the unit that leaves one to three digits."""
    if kind != "time":
        return f"{10.0**power:g} {kind}".strip()
    unit = next((unit for unit in ("s", "ms", "us") if 10.0**power >= SECONDS[unit] * 0.999), "ns")
    return f"{10.0**power / SECONDS[unit]:g} {unit}"


def _amount_text(power):
    return f"{10**power:,}" if power >= 0 else f"{10.0**power:g}"


def _panels(items):
    """[(title, [(label, item), ...]), ...]. An item that is called as another one, a comma and a side, stands beside it
    where there are too many for one picture."""
    if len(items) <= LINES_TOGETHER:
        return [("", [(item["what"], item) for item in items])]
    names = {item["what"] for item in items}
    families = {}
    for item in items:
        base, _, side = item["what"].rpartition(", ")
        known = base in names
        families.setdefault(base if known else item["what"], []).append((side if known else "ours", item))
    if len(families) < len(items):
        return list(families.items())
    labelled = [(item["what"], item) for item in items]
    return [("", labelled[first : first + LINES_TOGETHER]) for first in range(0, len(items), LINES_TOGETHER)]


class _Scale:
    """Both axes, logarithmic, of all panels of one kind of unit."""

    def __init__(self, kind, items):
        points = [point for item in items for point in _points(item)]
        amounts = [amount for amount, _ in points]
        costs = [cost for _, cost in points]
        self.kind = kind
        self.x_low, self.x_high = math.log10(min(amounts)), math.log10(max(amounts))
        if self.x_low == self.x_high:
            self.x_low, self.x_high = self.x_low - 0.5, self.x_high + 0.5
        self.y_low = math.floor(round(math.log10(min(costs)), 9))
        self.y_high = max(math.ceil(round(math.log10(max(costs)), 9)), self.y_low + 1)

    def draw(self, x, y, width, height, title, series, styles):
        left, right, top, bottom = x + 60, x + width - 26, y + (24 if title else 8), y + height - 26

        def place(amount, cost):
            across = (math.log10(amount) - self.x_low) / (self.x_high - self.x_low)
            up = (math.log10(cost) - self.y_low) / (self.y_high - self.y_low)
            return left + across * (right - left), bottom - up * (bottom - top)

        parts = [_text(left, top - 8, title)] if title else []
        for power in range(self.y_low, self.y_high + 1):
            _, line = place(10.0**self.x_low, 10.0**power)
            parts += [_line(left, line, right, line, "#ddd"), _text(left - 6, line + 4, _cost_text(power, self.kind), "end")]
        for power in range(math.ceil(self.x_low - 1e-9), math.floor(self.x_high + 1e-9) + 1):
            line, _ = place(10.0**power, 10.0**self.y_low)
            parts += [_line(line, top, line, bottom, "#ddd"), _text(line, bottom + 16, _amount_text(power), "middle")]
        for label, item in series:
            index = styles[label]
            colour, dashes, marker = line_style(index)
            points = [place(*point) for point in _points(item)]
            path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
            parts.append(
                f'<g class="series" data-name={quoteattr(item["what"])} data-marker="{marker}">'
                f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2" stroke-dasharray="{dashes}"/>'
                + "".join(_marker(x, y, index) for x, y in points)
                + "</g>"
            )
        return parts


def growth(result):
    """Cost over amount, both on logarithmic scales; None when there is nothing."""
    items = [item for item in result["growth"] if _points(item)]
    if not items:
        return None
    panels = []
    for kind in dict.fromkeys(_kind(item["unit"]) for item in items):
        of_kind = [item for item in items if _kind(item["unit"]) == kind]
        scale = _Scale(kind, of_kind)
        panels += [(scale, title, series) for title, series in _panels(of_kind)]
    labels = list(dict.fromkeys(label for _, _, series in panels for label, _ in series))
    styles = {label: index for index, label in enumerate(labels)}
    columns = 1 if len(panels) == 1 else 2
    width, height = (640, 360) if columns == 1 else (380, 210)
    parts, y = _heading(f"{result['title']}: cost over amount, both on logarithmic scales", columns * width)
    legend, y = _legend(labels, y + 2, columns * width, _line_sample, 30)
    parts += legend
    for index, (scale, title, series) in enumerate(panels):
        row, column = divmod(index, columns)
        parts += scale.draw(column * width, y + row * height, width, height, title, series, styles)
    rows = math.ceil(len(panels) / columns)
    return _page(columns * width, y + rows * height + 4, parts)
