"""Two kinds of charts, on logarithmic scales, as SVG text."""

import math
from html import escape

COLOURS = ["#1f6feb", "#8b949e", "#2da44e", "#bf8700", "#cf222e", "#8250df", "#1b7c83"]
FONT = 'font-family="sans-serif" font-size="12"'


def _document(width, height, title, parts):
    head = (
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" viewBox="0 0 {width} {height}" {FONT}>'
        f'<rect width="{width}" height="{height}" fill="#ffffff"/>'
        f'<text x="12" y="22" font-size="14" font-weight="bold">{escape(title)}</text>'
    )
    return head + "\n" + "\n".join(parts) + "\n</svg>\n"


def number(value):
    if value >= 1e6:
        return f"{value / 1e6:.3g} M"
    if value >= 999.5:
        return f"{value / 1e3:.3g} k"
    return f"{value:.3g}"


def _text(x, y, text, anchor="start", colour="#24292f"):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" fill="{colour}">{escape(text)}</text>'


def _line(x1, y1, x2, y2, colour, width=1):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" stroke-width="{width}"/>'


def _scale(low, high, start, end):
    """Maps [low, high], widened to powers of ten, to pixels; and the powers in between."""
    first, last = math.floor(math.log10(low)), math.ceil(math.log10(high))
    last = max(last, first + 1)
    place = lambda value: start + (math.log10(value) - first) / (last - first) * (end - start)
    return place, [10.0**power for power in range(first, last + 1)]


def bars(title, unit, groups):
    """groups: [(name, [(label, median, lowest, highest)])]; a bar to the median, a whisker over the range."""
    values = [value for _, rows in groups for row in rows for value in row[1:]]
    width, left, right, row_height = 760, 190, 80, 18
    height = 44 + sum(26 + row_height * len(rows) for _, rows in groups) + 30
    place, ticks = _scale(min(values), max(values), left, width - right)
    bottom = height - 30
    parts = [_line(place(tick), 34, place(tick), bottom, "#d0d7de") for tick in ticks]
    parts += [_text(place(tick), bottom + 16, number(tick), "middle", "#57606a") for tick in ticks]
    parts.append(_text(width - 12, 22, unit, "end", "#57606a"))
    colours = {}
    y = 44
    for name, rows in groups:
        parts.append(_text(12, y + 12, name))
        y += 20
        for label, median, low, high in rows:
            colour = colours.setdefault(label, COLOURS[len(colours) % len(COLOURS)])
            middle = y + row_height / 2 - 2
            parts.append(_text(left - 8, middle + 4, label, "end"))
            parts.append(
                f'<rect x="{left}" y="{y}" width="{max(place(median) - left, 1):.1f}" height="{row_height - 4}" fill="{colour}"/>'
            )
            parts.append(_line(place(low), middle, place(high), middle, "#24292f"))
            parts.append(_text(place(high) + 6, middle + 4, number(median)))
            y += row_height
        y += 6
    return _document(width, height, title, parts)


def lines(title, x_label, unit, series):
    """series: [(name, [(x, median, lowest, highest)])]; a line through the medians, whiskers over the ranges."""
    points = [point for _, row in series for point in row]
    width, height, left, right, top, bottom = 760, 380, 70, 190, 40, 330
    x_of, x_ticks = _scale(min(p[0] for p in points), max(p[0] for p in points), left, width - right)
    y_of, y_ticks = _scale(min(min(p[1:]) for p in points), max(max(p[1:]) for p in points), bottom, top)
    parts = []
    for tick in x_ticks:
        parts.append(_line(x_of(tick), top, x_of(tick), bottom, "#d0d7de"))
        parts.append(_text(x_of(tick), bottom + 16, number(tick), "middle", "#57606a"))
    for tick in y_ticks:
        parts.append(_line(left, y_of(tick), width - right, y_of(tick), "#d0d7de"))
        parts.append(_text(left - 6, y_of(tick) + 4, number(tick), "end", "#57606a"))
    parts.append(_text((left + width - right) / 2, height - 12, x_label, "middle", "#57606a"))
    parts.append(_text(width - 12, 22, unit, "end", "#57606a"))
    for index, (name, row) in enumerate(series):
        colour = COLOURS[index % len(COLOURS)]
        path = " ".join(f"{x_of(x):.1f},{y_of(median):.1f}" for x, median, _, _ in row)
        parts.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        for x, median, low, high in row:
            parts.append(_line(x_of(x), y_of(low), x_of(x), y_of(high), colour))
            parts.append(f'<circle cx="{x_of(x):.1f}" cy="{y_of(median):.1f}" r="3" fill="{colour}"/>')
        y = top + 14 + 18 * index
        parts.append(_line(width - right + 12, y - 4, width - right + 30, y - 4, colour, 3))
        parts.append(_text(width - right + 36, y, name))
    return _document(width, height, title, parts)
