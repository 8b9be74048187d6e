# SPDX-License-Identifier: MIT
"""The parts of which the plots of the soak and of the benchmarks are made."""

import math
import xml.sax.saxutils


def round_step(top, ticks):
    """A step of 1, 2 or 5 times a power of ten that makes about this many ticks."""
    raw = top / ticks
    power = 10 ** math.floor(math.log10(raw))
    return next(factor * power for factor in (1, 2, 5, 10) if factor * power >= raw)


def ticks_of(top, ticks):
    """The positions of an axis' ticks, the last one at its end."""
    step = round_step(top, ticks)
    return [number * step for number in range(math.ceil(top / step) + 1)]


def text(x, y, content, anchor="start", size=12, more=""):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}"{more}>'
            f"{xml.sax.saxutils.escape(content)}</text>")


def line(x1, y1, x2, y2, colour):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}"/>'


def paths(points, colour):
    """Joins points; None ends a part of the line."""
    pieces, piece = [], []
    for point in [*points, None]:
        if point is not None:
            piece.append("%.1f,%.1f" % point)
        elif piece:
            pieces.append(piece)
            piece = []
    return [f'<polyline fill="none" stroke="{colour}" stroke-width="1.5" points="{" ".join(found)}"/>'
            for found in pieces]


def document(width, height, pieces):
    """A picture with a white background."""
    body = "\n".join(pieces)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
            f'height="{height}" font-family="sans-serif" fill="#222222">\n'
            f'<rect width="{width}" height="{height}" fill="#ffffff"/>\n{body}\n</svg>\n')
