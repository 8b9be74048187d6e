# SPDX-License-Identifier: MIT
"""Statistics of the benchmarks: medians with intervals, percentiles, straight lines."""

import math
import statistics
import typing

LEVEL = 0.95


class Estimate(typing.NamedTuple):
    """A median, and the interval that holds the true median with a probability of at least LEVEL. With fewer than six
    values no interval does; it is then from the smallest to the largest value."""

    median: float
    low: float
    high: float

    def text(self, digits=2):
        return f"{self.median:.{digits}f}"

    def interval_text(self, digits=2):
        return f"{self.low:.{digits}f} to {self.high:.{digits}f}"


def interval_rank(count):
    """The rank of the interval's lower end in the sorted values, from 1; its upper end has the same rank from above. It
    is the highest one with which the interval between two order statistics has the level, for any distribution: the
    number of values below the true median is binomial with one half."""
    rank, outside = 1, 0.5 ** (count - 1)
    while 2 * (rank + 1) <= count + 1:
        outside += math.comb(count, rank) * 0.5 ** (count - 1)
        if 1 - outside < LEVEL:
            break
        rank += 1
    return rank


def estimate(values):
    """The median of the values and its interval."""
    ordered = sorted(values)
    rank = interval_rank(len(ordered))
    return Estimate(statistics.median(ordered), ordered[rank - 1], ordered[-rank])


def ratio(values, base):
    """The estimate of a ratio that was measured in pairs."""
    return estimate([value / yardstick for value, yardstick in zip(values, base, strict=True)])


def percentile(values, percent):
    """The value below which this share of the values lies, interpolated between the two nearest."""
    ordered = sorted(values)
    at = (len(ordered) - 1) * percent / 100
    below = math.floor(at)
    above = min(below + 1, len(ordered) - 1)
    return ordered[below] + (ordered[above] - ordered[below]) * (at - below)


class Line(typing.NamedTuple):
    """A straight line by least squares; fit is the share of the variance that it explains."""

    start: float
    slope: float
    fit: float


def line(points):
    """The line through points (x, y), of which at least two have different x."""
    x_mean = statistics.fmean(x for x, _ in points)
    y_mean = statistics.fmean(y for _, y in points)
    x_square = sum((x - x_mean) ** 2 for x, _ in points)
    y_square = sum((y - y_mean) ** 2 for _, y in points)
    slope = sum((x - x_mean) * (y - y_mean) for x, y in points) / x_square
    start = y_mean - slope * x_mean
    left = sum((y - start - slope * x) ** 2 for x, y in points)
    return Line(start, slope, 1 - left / y_square if y_square > 0 else 1.0)
