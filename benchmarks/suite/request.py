# SPDX-License-Identifier: MIT
"""The time from a client's request to "OK" and to the first document, for each kind of metadata, beside the same
pipelines made and started in one process without a daemon, until gst_element_set_state() returns and until their first
document. The kinds and both sides take turns."""

import contextlib
import os
import statistics

import figures
from stage import KINDS, Commanded, accepts, daemon_with_camera, pause, running, wait_until
from tables import Goal, Table, milliseconds

NAME = "request"

REQUESTS = 3
CROWD = 100
CROWD_KIND = "events"

# Until a closed client's pipeline is down.
REST_SECONDS = 0.02
CROWD_REST_SECONDS = 0.3

GOAL = 2.0
DAEMON, BARE = "daemon", "bare"


def open_and_close(opener, count, request, rest):
    """Opens pipelines at once; returns the times at which the last one was accepted and had its first document."""
    times = opener.tell("open", count, request)
    opener.tell("close")
    pause(rest)
    return max(times[0::2]), max(times[1::2])


def measure_one(opener, request):
    """The medians of some requests, one after the other."""
    times = [open_and_close(opener, 1, request, REST_SECONDS) for _ in range(REQUESTS)]
    return [statistics.median(column) for column in zip(*times)]


def openers(stage, opened, plugins, daemon):
    """The clients of the daemon, and the program without one."""
    return {
        DAEMON: opened.enter_context(running(Commanded(stage, "benchclients", [daemon.socket_path], dict(os.environ)))),
        BARE: opened.enter_context(running(Commanded(stage, "benchlive", [], plugins.environment("benchlive")))),
    }


def request_of(side, kind):
    return KINDS[kind] if side == DAEMON else kind


def measure(stage, effort):
    with contextlib.ExitStack() as opened:
        plugins = stage.every_kind()
        _, daemon = opened.enter_context(daemon_with_camera(stage, plugins))
        both = openers(stage, opened, plugins, daemon)
        wait_until(lambda: accepts(daemon.socket_path, KINDS["detections"]), "the daemon lists the producer")
        crowd = CROWD if not effort.brief else 2
        single = {kind: {DAEMON: [], BARE: []} for kind in KINDS}
        at_once = {DAEMON: [], BARE: []}
        for side, opener in both.items():
            for kind in KINDS:
                measure_one(opener, request_of(side, kind))
        for _ in range(effort.pairs):
            for kind in KINDS:
                for side, opener in both.items():
                    single[kind][side].append(measure_one(opener, request_of(side, kind)))
            for side, opener in both.items():
                at_once[side].append(open_and_close(opener, crowd, request_of(side, CROWD_KIND), CROWD_REST_SECONDS))
        return {"single": single, "crowd": {"count": crowd, "times": at_once}}


def column(sides, side, index):
    return [times[index] for times in sides[side]]


def rows_of(what, sides):
    for index, until in enumerate(('"OK"', "first document")):
        daemon, bare = column(sides, DAEMON, index), column(sides, BARE, index)
        ratio = figures.ratio(daemon, bare)
        yield (what, until, milliseconds(figures.estimate(bare).median), milliseconds(figures.estimate(daemon).median),
               ratio.text(), ratio.interval_text())


def tables(data):
    rows = [row for kind, sides in data["single"].items() for row in rows_of(kind, sides)]
    rows += rows_of(f"{data['crowd']['count']} for {CROWD_KIND} at once, the last", data["crowd"]["times"])
    return [Table("Requests", ("kind", "until", "bare, ms", "daemon, ms", "daemon / bare", "interval"), rows)]


def goals(data):
    sides = data["single"]["events"] if data else None
    measured = figures.ratio(column(sides, DAEMON, 0), column(sides, BARE, 0)) if data else None
    return [Goal('connect to "OK", events, idle, against the bare live pipeline until gst_element_set_state() returns',
                 GOAL, measured)]


def plots(data):
    return {}


def fits(data):
    return []
