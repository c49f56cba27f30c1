"""Draws charts as SVG: lines over a scale, and groups of bars. Readable on light and dark pages."""

import math
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 720, 360
LEFT, RIGHT, TOP, BOTTOM = 70, 20, 50, 60
COLOURS = ["#1f77b4", "#d95f02", "#2a9d55", "#8856a7"]


def nice_step(span, count=5):
    """A step of 1, 2 or 5 times a power of ten that divides the span into about `count` parts."""
    rough = span / count
    power = 10 ** math.floor(math.log10(rough))
    return next(factor * power for factor in (1, 2, 5, 10) if factor * power >= rough)


def ticks(most):
    step = nice_step(most)
    return [step * number for number in range(math.ceil(most / step) + 1)]


def text(x, y, words, anchor="middle", size=12):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}">{escape(words)}</text>'


def number(value):
    return f"{value:g}"


class Chart:
    """A plane from (0, 0) with a title, names of the axes and a legend."""

    def __init__(self, title, x_name, y_name, x_most, y_most, series):
        self.x_ticks, self.y_ticks = ticks(x_most), ticks(y_most)
        self.parts = [
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" role="img">',
            f"<title>{escape(title)}</title>",
            f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#ffffff"/>',
            text(WIDTH / 2, 20, title, size=14),
            text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 10, x_name),
            f'<g transform="rotate(-90)">{text(-(TOP + HEIGHT - BOTTOM) / 2, 16, y_name)}</g>']
        for value in self.y_ticks:
            self.parts.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{self.y(value):.1f}" y2="{self.y(value):.1f}" stroke="#dddddd"/>')
            self.parts.append(text(LEFT - 6, self.y(value) + 4, number(value), "end"))
        x = LEFT
        for colour, name in zip(COLOURS, series):
            self.parts.append(f'<rect x="{x}" y="30" width="12" height="12" fill="{colour}"/>')
            self.parts.append(text(x + 17, 41, name, "start"))
            x += 30 + 7 * len(name)

    def x(self, value):
        return LEFT + (WIDTH - LEFT - RIGHT) * value / self.x_ticks[-1]

    def y(self, value):
        return HEIGHT - BOTTOM - (HEIGHT - TOP - BOTTOM) * value / self.y_ticks[-1]

    def level(self, value, name):
        """A dashed line across, such as a target."""
        self.parts.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{self.y(value):.1f}" y2="{self.y(value):.1f}" '
                          'stroke="#444444" stroke-dasharray="5 4"/>')
        self.parts.append(text(WIDTH - RIGHT, self.y(value) - 4, name, "end", 11))

    def written(self):
        return "\n".join([*self.parts, "</svg>"]) + "\n"


def lines(title, x_name, y_name, series, level=None, places=None):
    """A chart of {name: [(x, y), ...]}. `level` is (y, name) of a dashed line. `places` names the points x = 0, 1, 2..."""
    points = [point for line in series.values() for point in line]
    chart = Chart(title, x_name, y_name, max(x for x, _ in points), max([y for _, y in points] + [level[0] if level else 0]), series)
    if places:
        chart.x_ticks = [len(places) - 1]
    named = enumerate(places) if places else [(value, number(value)) for value in chart.x_ticks]
    for value, name in named:
        chart.parts.append(text(chart.x(value), HEIGHT - BOTTOM + 16, name))
    for colour, line in zip(COLOURS, series.values()):
        path = " ".join(f"{chart.x(x):.1f},{chart.y(y):.1f}" for x, y in line)
        chart.parts.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
    if level:
        chart.level(*level)
    return chart.written()


def bars(title, y_name, groups, series, level=None):
    """A chart of groups of bars: {name: [value for each of `groups`, or None]}."""
    values = [value for line in series.values() for value in line if value is not None]
    chart = Chart(title, "", y_name, len(groups), max(values + [level[0] if level else 0]), series)
    width = (WIDTH - LEFT - RIGHT) / len(groups)
    for index, group in enumerate(groups):
        chart.parts.append(text(LEFT + width * (index + .5), HEIGHT - BOTTOM + 16, group, size=11))
        for place, (colour, line) in enumerate(zip(COLOURS, series.values())):
            if line[index] is None:
                continue
            bar = .7 * width / len(series)
            x = LEFT + width * (index + .15) + bar * place
            top = chart.y(line[index])
            chart.parts.append(f'<rect x="{x:.1f}" y="{top:.1f}" width="{bar - 2:.1f}" height="{HEIGHT - BOTTOM - top:.1f}" fill="{colour}"/>')
            chart.parts.append(text(x + bar / 2, top - 3, number(round(line[index], 1)), size=10))
    if level:
        chart.level(*level)
    return chart.written()
