# SPDX-License-Identifier: MIT
"""Draws the plot of a soak as SVG: one panel for each figure, over the time of the run."""

import pathlib
import sys

sys.path.append(str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))

from svg import document, line, paths, text, ticks_of  # noqa: E402

from records import PEERS, PROBES, REPLY, series_name  # noqa: E402

WIDTH, PANEL_HEIGHT = 900, 150
LEFT, RIGHT, TOP, GAP, BOTTOM = 80, 210, 56, 34, 44
COLOURS = ("#1f5fa8", "#c8501e", "#2e8540", "#7a4fa3")
TICKS_Y, TICKS_X = 4, 8


class Panel:
    """A title, and lines: each a label and a value for each time, None for no value."""

    def __init__(self, title, lines):
        self.title = title
        self.lines = lines

    def top(self):
        """The highest value of its axis, which is never 0."""
        return max((value for _, values in self.lines for value in values if value is not None), default=0) or 1


def panels_of(records):
    def usage(name):
        return [getattr(record.usage, name) for record in records]

    def p99(series):
        return [latency.p99 if (latency := record.latencies[series]) else None for record in records]

    return [
        Panel("private memory, MiB", [("private memory", usage("private_mib"))]),
        Panel("descriptors", [("descriptors", usage("descriptors"))]),
        Panel("threads", [("threads", usage("threads"))]),
        *(Panel(f"bus {probe}, 99th percentile, ms",
                [(peer, p99(series_name(peer, probe))) for peer in PEERS]) for probe in PROBES),
        Panel("reply to a request, 99th percentile, ms", [("clients", p99(REPLY))]),
    ]


def draw_panel(panel, top, minutes, ticks_x):
    """Draws a panel with its upper edge at `top`; minutes: the time of each value."""
    ticks_y = ticks_of(panel.top(), TICKS_Y)

    def x_of(minute):
        return LEFT + (WIDTH - LEFT - RIGHT) * minute / ticks_x[-1]

    def y_of(value):
        return top + PANEL_HEIGHT * (1 - value / ticks_y[-1])

    yield text(LEFT, top - 8, panel.title, size=13, more=' font-weight="bold"')
    for tick in ticks_y:
        yield line(LEFT, y_of(tick), WIDTH - RIGHT, y_of(tick), "#dddddd")
        yield text(LEFT - 8, y_of(tick) + 4, f"{tick:g}", "end")
    for tick in ticks_x:
        yield line(x_of(tick), top + PANEL_HEIGHT, x_of(tick), top + PANEL_HEIGHT + 4, "#444444")
    yield line(LEFT, top, LEFT, top + PANEL_HEIGHT, "#444444")
    yield line(LEFT, top + PANEL_HEIGHT, WIDTH - RIGHT, top + PANEL_HEIGHT, "#444444")
    for number, ((label, values), colour) in enumerate(zip(panel.lines, COLOURS)):
        yield from paths([None if value is None else (x_of(minute), y_of(value))
                          for minute, value in zip(minutes, values)], colour)
        y = top + 12 + 20 * number
        yield f'<line x1="{WIDTH - RIGHT + 16}" y1="{y}" x2="{WIDTH - RIGHT + 40}" y2="{y}" stroke="{colour}" ' \
              'stroke-width="3"/>'
        yield text(WIDTH - RIGHT + 48, y + 4, label)


def draw(run, title):
    """Returns the plot as SVG text."""
    panels = panels_of(run.records)
    minutes = [record.seconds / 60 for record in run.records]
    ticks_x = ticks_of(max(minutes, default=0) or 1, TICKS_X)
    height = TOP + len(panels) * (PANEL_HEIGHT + GAP) + BOTTOM
    drawn = [text(LEFT, 18, title, size=15, more=' font-weight="bold"')]
    for number, panel in enumerate(panels):
        drawn += draw_panel(panel, TOP + number * (PANEL_HEIGHT + GAP), minutes, ticks_x)
    bottom = TOP + len(panels) * (PANEL_HEIGHT + GAP) - GAP + 20
    for tick in ticks_x:
        x = LEFT + (WIDTH - LEFT - RIGHT) * tick / ticks_x[-1]
        drawn.append(text(x, bottom, f"{tick:g}", "middle"))
    drawn.append(text((LEFT + WIDTH - RIGHT) / 2, bottom + 20, "minutes", "middle"))
    return document(WIDTH, height, drawn)
