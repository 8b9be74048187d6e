# SPDX-License-Identifier: MIT
"""The time from the start of the daemon's process until it listens, beside a program that only initialises GStreamer,
with all plug-ins of the system. Each has its registry of plug-ins, which an earlier start has written. A second program
that does no more is linked with the daemon's libraries; the rest is the daemon's own."""

import contextlib
import os

import figures
from stage import Bus, Commanded, running
from tables import Goal, Table, milliseconds

NAME = "start"
DAEMON, LIBRARIES, BARE = "daemon", "libraries", "gst_init"
GOAL = 1.5


def spawner(stage, opened, environment):
    """A program that starts others in a folder with the file that the daemon needs."""
    process = opened.enter_context(running(Commanded(stage, "benchspawn", [], environment)))
    (process.folder / "producers.conf").write_text("", encoding="utf-8")
    return process


def measure(stage, effort):
    with contextlib.ExitStack() as opened:
        plugins = stage.product(stage.own_plugin("onvifeventsrc"), all_of_system=True)
        bus = opened.enter_context(running(Bus(stage)))
        folder = stage.new_folder()
        address = {"DBUS_SYSTEM_BUS_ADDRESS": bus.address}
        commands = {
            DAEMON: (spawner(stage, opened, plugins.environment("tessard") | address),
                     ("listening", folder / "metadata", stage.tessard, "--run-dir", folder)),
            LIBRARIES: (spawner(stage, opened, plugins.environment("benchlibraries")),
                        ("byte", stage.program("benchlibraries"))),
            BARE: (spawner(stage, opened, plugins.environment("benchstart")), ("byte", stage.program("benchstart"))),
        }
        times = {side: [] for side in commands}
        for side, (process, command) in commands.items():
            process.tell(*command)
        for _ in range(effort.pairs):
            for side, (process, command) in commands.items():
                times[side].append(process.tell(*command)[0])
        return {"times": times, "registry bytes": os.path.getsize(plugins.environment("tessard")["GST_REGISTRY"])}


def tables(data):
    times = data["times"]
    ratio, libraries = (figures.ratio(times[side], times[BARE]) for side in (DAEMON, LIBRARIES))
    medians = (milliseconds(figures.estimate(times[side]).median) for side in (BARE, LIBRARIES, DAEMON))
    title = f"Start to listening, with a registry of {data['registry bytes'] / 1e6:.1f} MB"
    return [Table(title, ("gst_init, ms", "the same with the daemon's libraries, ms", "daemon, ms",
                          "libraries / gst_init", "daemon / gst_init", "interval"),
                  [(*medians, libraries.text(), ratio.text(), ratio.interval_text())])]


def goals(data):
    return [Goal("start to listening against gst_init() alone, registry warm, all plug-ins of the system", GOAL,
                 figures.ratio(data["times"][DAEMON], data["times"][BARE]) if data else None)]


def plots(data):
    return {}


def fits(data):
    return []
