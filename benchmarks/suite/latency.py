# SPDX-License-Identifier: MIT
"""The time from the write of a producer to the arrival in its client.

At the rate of a camera the daemon and both yardsticks get their messages in turn, a third of the interval apart, so
that all see the same machine. At half of the daemon's largest rate each has its rounds alone, all at that same rate."""

import contextlib
import statistics
import time

import figures
from relay import BARE, COPY, DAEMON, count_for, open_yardsticks
from tables import Goal, Table, microseconds

NAME = "latency"

SIZE = 200
CAMERA_RATE = 30
CAMERA_MESSAGES = 100
FAST_SECONDS = 0.4
LEAST_MESSAGES = 20

# From the command to the first message of a round.
LEAD_NS = 20_000_000

SLOW, FAST = "30 a second", "half of the maximum"
PERCENTILES = {"median": 50, "99th": 99, "99.9th": 99.9}
KINDS = (DAEMON, BARE, COPY)

MEDIAN_GOAL, HIGH_GOAL = 1.2, 1.5


def percentiles_of(round_times):
    """The percentiles of a round's delays. The first two values of a round are its processor time and its length."""
    delays = round_times[2:]
    return {name: figures.percentile(delays, percent) for name, percent in PERCENTILES.items()}


def camera_round(loads, effort):
    """One round of all, in turn."""
    interval = 1_000_000_000 // CAMERA_RATE
    start = time.monotonic_ns() + LEAD_NS
    count = max(LEAST_MESSAGES, int(CAMERA_MESSAGES * effort.scale))
    for number, load in enumerate(loads.values()):
        load.start("paced", SIZE, count, interval, start + number * interval // len(loads))
    return {kind: percentiles_of(load.finish()) for kind, load in loads.items()}


def fast_round(load, rate, effort):
    """One round of one of them."""
    count = max(LEAST_MESSAGES, int(rate * FAST_SECONDS * effort.scale))
    load.start("paced", SIZE, count, int(1e9 / rate), time.monotonic_ns() + LEAD_NS)
    return percentiles_of(load.finish())


def largest_rate(load, effort):
    """The daemon's messages in a second: the median of some rounds."""
    count = count_for(SIZE, 1, effort)
    return statistics.median(count / load.relay(SIZE, count)[1] for _ in range(min(5, effort.pairs)))


def measure(stage, effort):
    with contextlib.ExitStack() as opened:
        loads = open_yardsticks(stage, opened, stage.pass_through(), 1)
        for load in loads.values():
            load.relay(SIZE, LEAST_MESSAGES)
        rate = largest_rate(loads[DAEMON], effort) / 2
        rounds = {SLOW: [], FAST: []}
        for _ in range(effort.pairs):
            rounds[SLOW].append(camera_round(loads, effort))
            rounds[FAST].append({kind: fast_round(load, rate, effort) for kind, load in loads.items()})
        return {"half of the maximum": rate, "rounds": rounds}


def values_of(data, speed, kind, name):
    return [one[kind][name] for one in data["rounds"][speed]]


def against(data, speed, name, kind=BARE):
    return figures.ratio(values_of(data, speed, DAEMON, name), values_of(data, speed, kind, name))


def tables(data):
    rows = []
    for speed, names in ((SLOW, ("median", "99th")), (FAST, tuple(PERCENTILES))):
        for name in names:
            medians = [figures.estimate(values_of(data, speed, kind, name)).median for kind in (COPY, BARE, DAEMON)]
            ratio = against(data, speed, name)
            rows.append((speed, name, *map(microseconds, medians), ratio.text(), ratio.interval_text(),
                         against(data, speed, name, COPY).text()))
    title = f"Latency of a message of {SIZE} B; half of the maximum is {data['half of the maximum']:.0f} a second"
    return [Table(title, ("messages", "", "copy, µs", "bare, µs", "daemon, µs", "daemon / bare", "interval",
                          "daemon / copy"), rows)]


def goals(data):
    text = "latency at 30 messages a second against the bare pipeline"
    return [Goal(f"{text}, {name}", limit, against(data, SLOW, name) if data else None)
            for name, limit in (("median", MEDIAN_GOAL), ("99th", HIGH_GOAL))]


def plots(data):
    return {}


def fits(data):
    return []
