# SPDX-License-Identifier: MIT
"""How the figures grow with what they depend on. Measures the processor time at a steady rate and the time of a request
over the number of clients; the other benchmarks of the run add their own figures. Each is fitted by a straight line."""

import contextlib
import os
import statistics
import time

import figures
from plots import Chart
from relay import daemon_load
from request import REST_SECONDS
from stage import KINDS, Commanded, daemon_with_camera, pause, running, started_daemon
from tables import Fit, Goal, Table

NAME = "growth"

CLIENTS = (1, 10, 25, 50, 100)
MOST = CLIENTS[-1]
RATE = 10
SIZE = 200
SECONDS = 1
SHORT_ROUNDS = 3
REQUESTS = 5
LEAD_NS = 100_000_000
SHARE_GOAL = 0.3

# A line fits if it explains this share of the variance.
LINEAR_FIT = 0.98


def share_round(load, effort):
    """The share of a core at RATE messages a second to each client. A message that is lost ends the load."""
    count = max(2, int(RATE * SECONDS * effort.scale))
    processor, wall, *_ = load.tell("paced", SIZE, count, int(1e9 / RATE), time.monotonic_ns() + LEAD_NS)
    return processor / (wall - LEAD_NS / 1e9)


def measure_share(stage, plugins, clients, rounds, effort):
    with started_daemon(stage, plugins) as (bus, daemon), \
            running(daemon_load(stage, bus, daemon, clients)) as load:
        share_round(load, effort)
        return [share_round(load, effort) for _ in range(rounds)]


def measure_requests(stage, effort):
    """The time to "OK" for events while other clients stream."""
    found = {}
    with contextlib.ExitStack() as opened:
        _, daemon = opened.enter_context(daemon_with_camera(stage, stage.every_kind()))
        holder, asker = (opened.enter_context(running(Commanded(stage, "benchclients", [daemon.socket_path],
                                                                dict(os.environ)))) for _ in range(2))
        held = 0
        for clients in effort.some((0, *CLIENTS)):
            if clients > held:
                holder.tell("open", clients - held, KINDS["events"])
                held = clients
            times = []
            for _ in range(min(REQUESTS, effort.pairs) + 1):
                times.append(asker.tell("open", 1, KINDS["events"])[0])
                asker.tell("close")
                pause(REST_SECONDS)
            found[str(clients)] = statistics.median(times[1:])
    return found


def measure(stage, effort):
    plugins = stage.product()
    share = {}
    for clients in effort.some(CLIENTS):
        rounds = effort.pairs if clients == MOST else min(SHORT_ROUNDS, effort.pairs)
        share[str(clients)] = measure_share(stage, plugins, clients, rounds, effort)
    return {"share": share, "requests": measure_requests(stage, effort)}


def share_points(data):
    return [(int(clients), figures.estimate(values).median) for clients, values in data["share"].items()]


def request_points(data):
    return [(int(clients), value * 1e3) for clients, value in data["requests"].items()]


def tables(data):
    rows = [(clients, f"{figures.estimate(values).median:.3f}", figures.estimate(values).interval_text(3))
            for clients, values in data["share"].items()]
    return [Table(f"Share of a core with {RATE} messages a second of {SIZE} B to each client",
                  ("clients", "share", "interval"), rows)]


def goals(data):
    values = data["share"].get(str(MOST)) if data else None
    return [Goal(f"{MOST} clients at {RATE} messages a second each, none lost", SHARE_GOAL,
                 figures.estimate(values) if values else None, "of a core")]


def plots(data):
    return {"growth": [
        Chart(f"Share of a core, {RATE} messages a second to each client", "clients", "share",
              {"with json2xml": share_points(data)}),
        Chart('Time to "OK" for events', "clients that stream already", "ms", {"daemon": request_points(data)})]}


def fits(data):
    return [Fit(f"share of a core at {RATE} messages a second to each client", "clients", "of a core",
                share_points(data), "the more messages there are, the more of them a thread finds when it wakes"),
            Fit('time to "OK" for events', "clients that stream already", "ms", request_points(data),
                "the times of single requests differ by more than the clients add")]


def row_of(fit):
    line = figures.line(fit.points)
    is_linear = line.fit >= LINEAR_FIT
    return (fit.figure, fit.variable, f"{line.start:.3g} {fit.unit}", f"{line.slope:.3g} {fit.unit}",
            f"{line.fit:.3f}", "yes" if is_linear else f"**no**: {fit.why}")


def fit_table(found):
    """The lines through what all benchmarks measured."""
    return Table("Growth, as a straight line", ("figure", "over", "at 0", "for each", "explained", "linear"),
                 [row_of(fit) for fit in found if len(fit.points) > 2])
