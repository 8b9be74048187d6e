# SPDX-License-Identifier: MIT
"""The time of changes of producers over the bus: one in SetChannelsEnabled, and many in one SetProducersEnabled, beside
the same number of durable replacements of a file in the same folder and an empty call to the daemon. All take turns.

A producer's channels are one property, which each change writes and announces, so a change costs more the more channels
there are. GLib answers the empty call on its own thread; a call without changes reaches the daemon's main thread."""

import contextlib
import os

import figures
from stage import Bus, Commanded, Daemon, running
from tables import Fit, Goal, Table, milliseconds

NAME = "control"
TRACKER = "VideoMotionTracker"
MANY = 100
# The changes in a call, for each number of channels that the producer has. One is that of the installed file.
COUNTS = {1: (1,), MANY: (1, 10, MANY)}
ONE_GOAL, MANY_GOAL = 1.2, 1.3


def file_system(path):
    """The type of the file system of a folder."""
    best = ("", "unknown")
    with open("/proc/mounts", encoding="utf-8") as mounts:
        for line in mounts:
            _, where, kind, *_ = line.split()
            if str(path).startswith(where) and len(where) >= len(best[0]):
                best = (where, kind)
    return best[1]


def measure_producer(stage, bus, channels, counts, effort):
    """All counts of changes of a producer that has this number of channels."""
    producers = "".join(f"[Producers.{index}.{TRACKER}]\nName=profile\n" for index in range(channels))
    with contextlib.ExitStack() as opened:
        plugins = stage.product(stage.sim_plugin("scene"))
        daemon = opened.enter_context(running(Daemon(stage, bus, plugins, producers)))
        daemon.wait_until_listening()
        control = opened.enter_context(running(Commanded(
            stage, "benchcontrol", [TRACKER], dict(os.environ) | {"DBUS_SYSTEM_BUS_ADDRESS": bus.address})))
        control.tell("await")
        file = daemon.folder / "producers.conf"
        times = {str(count): {"change": [], "replace": []} for count in counts}
        calls = {"ping": [], "no change": []}
        for number in range(-1, effort.pairs):
            empty = {"ping": control.tell("ping")[0], "no change": control.tell("change", 0)[0]}
            found = {(count, kind): control.tell(kind, count, file)[0]
                     for count in counts for kind in ("replace", "change")}
            # The first round is a warm-up.
            if number >= 0:
                for kind, value in empty.items():
                    calls[kind].append(value)
                for (count, kind), value in found.items():
                    times[str(count)][kind].append(value)
        return calls | {"times": times, "file system": file_system(daemon.folder), "file bytes": file.stat().st_size}


def measure(stage, effort):
    producers = {}
    for channels, counts in COUNTS.items():
        with running(Bus(stage)) as bus:
            producers[str(channels)] = measure_producer(stage, bus, channels, effort.some(counts), effort)
    return producers


def base_of(producer, count):
    """What a change consists of: the replacements, and for one change the call."""
    replaced = producer["times"][count]["replace"]
    return [one + ping for one, ping in zip(replaced, producer["ping"])] if count == "1" else replaced


def ratio_of(producer, count):
    return figures.ratio(producer["times"][count]["change"], base_of(producer, count))


def row_of(channels, producer, count, sides):
    ratio = ratio_of(producer, count)
    calls = (milliseconds(figures.estimate(producer[kind]).median) if count == "1" else ""
             for kind in ("ping", "no change"))
    return (channels, producer["file bytes"], count, milliseconds(figures.estimate(sides["replace"]).median), *calls,
            milliseconds(figures.estimate(sides["change"]).median), ratio.text(), ratio.interval_text())


def tables(data):
    rows = [row_of(channels, producer, count, sides) for channels, producer in data.items()
            for count, sides in producer["times"].items()]
    systems = " and ".join(sorted({producer["file system"] for producer in data.values()}))
    return [Table(f"Changes of producers, a file on {systems}",
                  ("channels", "file, bytes", "changes in a call", "replacements, ms", "empty call, ms",
                   "call without changes, ms", "daemon, ms", "ratio", "interval"), rows)]


def ratio_in(data, channels, count):
    """None if this was not measured."""
    producer = (data or {}).get(str(channels))
    return ratio_of(producer, str(count)) if producer and str(count) in producer["times"] else None


def goals(data):
    return [Goal("one control change against a replacement of the file and an empty call", ONE_GOAL,
                 ratio_in(data, 1, 1)),
            Goal("100 changes in one call against 100 replacements", MANY_GOAL, ratio_in(data, MANY, MANY))]


def plots(data):
    return {}


def fits(data):
    many = data.get(str(MANY))
    points = [(int(count), figures.estimate(sides["change"]).median * 1e3)
              for count, sides in many["times"].items()] if many else []
    return [Fit("time of a call", "changes in it", "ms", points, "the time of a synced write varies")]
