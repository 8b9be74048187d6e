# SPDX-License-Identifier: MIT
"""Draws the curves of the benchmarks as SVG: several charts, one below the other."""

import math
import typing

import svg

WIDTH, CHART_HEIGHT = 900, 220
LEFT, RIGHT, TOP, GAP = 80, 210, 40, 76
COLOURS = ("#1f5fa8", "#c8501e", "#2e8540", "#7a4fa3", "#8a6d1d")
TICKS = 5


class Chart(typing.NamedTuple):
    """A title, the names of the axes, and points (x, y) for each label. The y axis begins at 0."""

    title: str
    x_title: str
    y_title: str
    lines: dict
    log_x: bool = False


def draw_chart(chart, top):
    """Draws a chart with its upper edge at `top`."""
    points = [point for line in chart.lines.values() for point in line]
    ticks_y = svg.ticks_of(max(y for _, y in points) or 1, TICKS)
    xs = sorted({x for x, _ in points})
    place = math.log10 if chart.log_x else float
    first = place(xs[0]) if chart.log_x else 0
    last = place(xs[-1])
    bottom = top + CHART_HEIGHT

    def x_of(x):
        return LEFT + (WIDTH - LEFT - RIGHT) * ((place(x) - first) / (last - first) if last > first else 0.5)

    def y_of(y):
        return top + CHART_HEIGHT * (1 - y / ticks_y[-1])

    yield svg.text(LEFT, top - 10, f"{chart.title}, {chart.y_title}", size=13, more=' font-weight="bold"')
    for tick in ticks_y:
        yield svg.line(LEFT, y_of(tick), WIDTH - RIGHT, y_of(tick), "#dddddd")
        yield svg.text(LEFT - 8, y_of(tick) + 4, f"{tick:g}", "end")
    for x in xs:
        yield svg.line(x_of(x), bottom, x_of(x), bottom + 4, "#444444")
        yield svg.text(x_of(x), bottom + 18, f"{x:g}", "middle")
    yield svg.line(LEFT, bottom, WIDTH - RIGHT, bottom, "#444444")
    yield svg.text((LEFT + WIDTH - RIGHT) / 2, bottom + 36, chart.x_title, "middle")
    for number, ((label, line), colour) in enumerate(zip(chart.lines.items(), COLOURS)):
        yield from svg.paths([(x_of(x), y_of(y)) for x, y in line], colour)
        for x, y in line:
            yield f'<circle cx="{x_of(x):.1f}" cy="{y_of(y):.1f}" r="2.5" fill="{colour}"/>'
        y = top + 12 + 20 * number
        yield f'<line x1="{WIDTH - RIGHT + 16}" y1="{y}" x2="{WIDTH - RIGHT + 40}" y2="{y}" stroke="{colour}" ' \
              'stroke-width="3"/>'
        yield svg.text(WIDTH - RIGHT + 48, y + 4, label)


def draw(charts):
    """Returns the charts as SVG text."""
    height = TOP + len(charts) * (CHART_HEIGHT + GAP)
    body = [piece for number, chart in enumerate(charts)
            for piece in draw_chart(chart, TOP + number * (CHART_HEIGHT + GAP))]
    return svg.document(WIDTH, height, body)
