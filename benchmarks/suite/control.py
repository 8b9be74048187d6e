# SPDX-License-Identifier: MIT
"""The time of changes of producers over the bus: one in SetChannelsEnabled, and many in one SetProducersEnabled, beside
the same number of durable replacements of a file in the same folder and an empty call to the daemon. All take turns."""

import contextlib
import os

import figures
from stage import Bus, Commanded, Daemon, running, wait_until
from tables import Goal, Table, milliseconds

NAME = "control"
TRACKER = "VideoMotionTracker"
COUNTS = (1, 10, 100)
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


def measure(stage, effort):
    counts = COUNTS if not effort.brief else (1, COUNTS[-1])
    producers = "".join(f"[Producers.{index}.{TRACKER}]\nName=profile\n" for index in range(COUNTS[-1]))
    with contextlib.ExitStack() as opened:
        bus = opened.enter_context(running(Bus(stage)))
        plugins = stage.product(stage.sim_plugin("scene"))
        daemon = opened.enter_context(running(Daemon(stage, bus, plugins, producers)))
        daemon.wait_until_listening()
        control = opened.enter_context(running(Commanded(
            stage, "benchcontrol", [TRACKER], dict(os.environ) | {"DBUS_SYSTEM_BUS_ADDRESS": bus.address})))
        control.tell("await")
        file = daemon.folder / "producers.conf"
        times = {str(count): {"change": [], "replace": []} for count in counts}
        pings = []
        for number in range(-1, effort.pairs):
            ping = control.tell("ping")[0]
            found = {(count, kind): control.tell(kind, count, file)[0]
                     for count in counts for kind in ("replace", "change")}
            # The first round is a warm-up.
            if number >= 0:
                pings.append(ping)
                for (count, kind), value in found.items():
                    times[str(count)][kind].append(value)
        return {"ping": pings, "times": times, "file system": file_system(daemon.folder),
                "file bytes": file.stat().st_size}


def base_of(data, count):
    """What a change consists of: the replacements, and for one change the call."""
    replaced = data["times"][count]["replace"]
    return [one + ping for one, ping in zip(replaced, data["ping"])] if count == "1" else replaced


def ratio_of(data, count):
    return figures.ratio(data["times"][count]["change"], base_of(data, count))


def tables(data):
    rows = []
    for count, sides in data["times"].items():
        ratio = ratio_of(data, count)
        rows.append((count, milliseconds(figures.estimate(sides["replace"]).median),
                     milliseconds(figures.estimate(data["ping"]).median) if count == "1" else "",
                     milliseconds(figures.estimate(sides["change"]).median), ratio.text(), ratio.interval_text()))
    title = f"Changes of producers, a file of {data['file bytes']} bytes on {data['file system']}"
    return [Table(title, ("changes in a call", "replacements, ms", "empty call, ms", "daemon, ms", "ratio", "interval"),
                  rows)]


def goals(data):
    return [Goal("one control change against a replacement of the file and an empty call", ONE_GOAL,
                 ratio_of(data, "1") if data else None),
            Goal("100 changes in one call against 100 replacements", MANY_GOAL,
                 ratio_of(data, "100") if data else None)]


def plots(data):
    return {}


def fits(data):
    points = [(int(count), figures.estimate(sides["change"]).median * 1e3) for count, sides in data["times"].items()]
    return [("time of a call", "changes in it", "ms", points)]
