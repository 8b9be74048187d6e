# SPDX-License-Identifier: MIT
"""The criteria of a soak, each with its figure and its limit. docs/soak.md has the reasons."""

import dataclasses
import itertools
import statistics

from records import CALL, IDLE_PEER, PING, RECORD_SECONDS, REPLY, daemon_series, series_name

NORMAL, ADDRESS, THREAD = "normal", "address", "thread"
BUILDS = (NORMAL, ADDRESS, THREAD)

# The private memory that may remain at the end.
MAX_KEPT_MIB = 5

# The growth in the second half, from the slope; random clients always cause a little.
MAX_GROWTH_MIB = 32

# The limits of resources at any time. Some clients are still being released when others take their places.
MAX_CLIENTS = 60
DESCRIPTORS_OF_A_CLIENT, THREADS_OF_A_CLIENT = 5, 7
OWN_DESCRIPTORS, OWN_THREADS = 64, 32
MAX_PRIVATE_MIB = 512

# The latency of a reply over the bus: milliseconds, or a multiple of the idle peer's latency.
MAX_P99_MS, MAX_WORST_MS = 100, 500
MAX_TIMES_IDLE_PEER = 3

# The factor for instrumented daemons.
SLOWNESS = {NORMAL: 1, ADDRESS: 5, THREAD: 10}

# The part of all records and probes that must exist.
MIN_COVERAGE = 0.9


@dataclasses.dataclass
class Criterion:
    name: str
    figure: str
    bound: str
    passed: bool

    def line(self):
        return f"{'passed' if self.passed else 'FAILED'}  {self.name}: {self.figure} ({self.bound})"


def at_most(name, value, bound, unit="", digits=0):
    """A criterion about a number; None fails it."""
    figure = "not measured" if value is None else f"{value:.{digits}f}{unit}"
    return Criterion(name, figure, f"at most {bound:.{digits}f}{unit}", value is not None and value <= bound)


def at_least(name, value, bound):
    return Criterion(name, f"{value}", f"at least {bound}", value >= bound)


def none_of(name, count):
    return Criterion(name, f"{count}", "none", count == 0)


def slope(points):
    """The median of the slopes between all pairs of points (Theil-Sen estimator), which ignores single peaks; None with
    too few points."""
    slopes = [(later - earlier) / (end - start)
              for (start, earlier), (end, later) in itertools.combinations(points, 2) if end > start]
    return statistics.median(slopes) if slopes else None


def second_half(records):
    return records[len(records) // 2:]


def growth(records):
    """The growth of private memory in the second half, in MiB, from its slope."""
    points = [(record.seconds, record.usage.private_mib) for record in second_half(records)]
    found = slope(points)
    return None if found is None else found * (points[-1][0] - points[0][0])


def peak(records, name):
    return max((getattr(record.usage, name) for record in records), default=None)


def life_criteria(run):
    yield Criterion("the daemon lived", run.ended or "to the end", "to the end", run.ended is None)
    yield none_of("sanitizer reports", run.reports)
    yield none_of("complaints of GLib and GStreamer", run.complaints)
    if run.build == ADDRESS:
        yield Criterion("leaks at the end", "not checked" if run.leaks is None else f"{run.leaks}", "0", run.leaks == 0)


def clients_criteria(run):
    yield none_of("clients that did not get what they should", run.failures)
    unserved = sorted(kind for kind, count in run.served.items() if count == 0)
    yield Criterion("kinds of clients that were never served", ", ".join(unserved) or "none", "none",
                    not unserved and bool(run.served))


def usage_criteria(run, producers):
    """producers: the number of producers' streams that a client may have."""
    yield at_most("descriptors at the end", run.final.descriptors, run.idle.descriptors)
    yield at_most("threads at the end", run.final.threads, run.idle.threads)
    yield at_most("most descriptors", peak(run.records, "descriptors"),
                  2 * MAX_CLIENTS * (DESCRIPTORS_OF_A_CLIENT + producers) + OWN_DESCRIPTORS)
    yield at_most("most threads", peak(run.records, "threads"), 2 * MAX_CLIENTS * THREADS_OF_A_CLIENT + OWN_THREADS)


def memory_criteria(run):
    """For the normal build alone: a sanitizer keeps freed memory, and shadow memory for all memory."""
    yield at_most("private memory kept at the end", run.final.private_mib - run.idle.private_mib, MAX_KEPT_MIB,
                  " MiB", 1)
    yield at_most("growth of private memory in the second half", growth(run.records), MAX_GROWTH_MIB, " MiB", 1)
    yield at_most("most private memory", peak(run.records, "private_mib"), MAX_PRIVATE_MIB, " MiB", 1)


def latency_criteria(run, probe):
    measured = run.latencies.get(daemon_series(probe))
    idle = run.latencies.get(series_name(IDLE_PEER, probe))
    for name, value, bound in (("99 of 100", "p99", MAX_P99_MS), ("worst", "worst", MAX_WORST_MS)):
        if idle is not None:
            bound = max(bound, MAX_TIMES_IDLE_PEER * getattr(idle, value))
        yield at_most(f"bus {probe}, {name}", getattr(measured, value, None), bound * SLOWNESS[run.build], " ms", 1)


def coverage_criteria(run):
    """Whether the run measured enough: without data the other criteria would always pass."""
    missing = sorted(name for name, count in run.done.items() if count == 0)
    yield Criterion("parts of the load that never came", ", ".join(missing) or "none", "none",
                    not missing and bool(run.done))
    yield at_least("records", len(run.records), int(MIN_COVERAGE * run.minutes * 60 / RECORD_SECONDS))
    probed = min((latency.count if latency else 0 for series, latency in run.latencies.items() if series != REPLY),
                default=0)
    yield at_least("probes of each kind over the bus", probed, max(1, int(MIN_COVERAGE * run.expected_probes)))


def evaluate(run, producers):
    """All criteria of a run, which passes if each of them does."""
    criteria = [*life_criteria(run), *clients_criteria(run), *usage_criteria(run, producers)]
    if run.build == NORMAL:
        criteria += memory_criteria(run)
    for probe in (PING, CALL):
        criteria += latency_criteria(run, probe)
    return criteria + [*coverage_criteria(run)]
