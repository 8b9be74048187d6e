# SPDX-License-Identifier: MIT
"""The measurements of a soak: a record every RECORD_SECONDS, and the whole run with the figures of all criteria. Both
are saved, so that a run can be evaluated again."""

import csv
import dataclasses
import json
import statistics

RECORD_SECONDS = 10

# The probes over the bus. GDBus replies to a ping on its own thread; the main loop replies to the call for a property,
# so only the call shows whether the main loop blocks.
PING, CALL = "ping", "call"
PROBES = (PING, CALL)

# The probed peers: the daemon, and a peer on the same bus without other work.
DAEMON, IDLE_PEER = "daemon", "idle peer"
PEERS = (DAEMON, IDLE_PEER)

MIB = 1024 * 1024


def series_name(peer, probe):
    return f"{peer} {probe}"


def daemon_series(probe):
    return series_name(DAEMON, probe)


# The clients' time to their replies.
REPLY = "reply"

SERIES = (*(series_name(peer, probe) for peer in PEERS for probe in PROBES), REPLY)


@dataclasses.dataclass
class Latency:
    """The latencies of replies, in milliseconds."""

    count: int
    median: float
    p99: float
    worst: float

    @classmethod
    def of(cls, values):
        """None without values."""
        if not values:
            return None
        p99 = statistics.quantiles(values, n=100, method="inclusive")[-1] if len(values) > 1 else values[0]
        return cls(len(values), statistics.median(values), p99, max(values))


@dataclasses.dataclass
class Usage:
    """The daemon's resources."""

    descriptors: int
    threads: int
    private_mib: float


@dataclasses.dataclass
class Record:
    """One interval. Shares are of one processor."""

    seconds: float
    usage: Usage
    clients: int
    served: int
    failures: int
    daemon_share: float
    load_share: float
    latencies: dict

    COLUMNS = ("seconds", "descriptors", "threads", "private_mib", "clients", "served", "failures", "daemon_share",
               "load_share", *(f"{series} {value}" for series in SERIES for value in ("median", "p99", "worst")))

    def line(self):
        ping, call, reply = (triple(self.latencies[series]) for series in (*map(daemon_series, PROBES), REPLY))
        return (f"{self.seconds:6.0f} s  descriptors {self.usage.descriptors:5}  threads {self.usage.threads:4}  "
                f"private {self.usage.private_mib:7.1f} MiB  served {self.served:6}  failed {self.failures:3}  "
                f"ping {ping}  call {call}  reply {reply} ms")

    def row(self):
        values = [self.seconds, self.usage.descriptors, self.usage.threads, self.usage.private_mib, self.clients,
                  self.served, self.failures, self.daemon_share, self.load_share]
        for series in SERIES:
            latency = self.latencies[series]
            values += [latency.median, latency.p99, latency.worst] if latency else ["", "", ""]
        return [round(value, 3) if isinstance(value, float) else value for value in values]


def triple(latency):
    """Median, 99th percentile and worst, as text."""
    return f"{latency.median:.1f}/{latency.p99:.1f}/{latency.worst:.1f}" if latency else "no reply"


@dataclasses.dataclass
class Run:
    """One soak.

    build: the kind of build
    idle, final: the daemon's resources before the load, and some time after it
    latencies: of the whole run, by series
    expected_probes: the number of calls of each probe for the whole time
    done: the count of each part of the load
    served: the number of correctly served clients of each kind
    failures: failures of correct clients; excused: those that a shortage of descriptors explains
    waived: clients that did not wait for producers, because the receiver was disturbed
    complaints: warnings and errors of GLib and GStreamer; reports: reports of a sanitizer
    leaks: the result of the leak check at the end; None without one
    ended: the reason of an early end of the daemon, None without one"""

    build: str
    minutes: float
    idle: Usage
    final: Usage
    records: list
    latencies: dict
    expected_probes: int
    done: dict
    served: dict
    failures: int
    excused: int
    waived: int
    complaints: int
    reports: int
    leaks: int = None
    ended: str = None

    def save(self, path):
        path.write_text(json.dumps(dataclasses.asdict(self), indent=1) + "\n", encoding="utf-8")

    @classmethod
    def load(cls, path):
        values = json.loads(path.read_text(encoding="utf-8"))
        for name in ("idle", "final"):
            values[name] = Usage(**values[name])
        values["latencies"] = as_latencies(values["latencies"])
        values["records"] = [Record(**record | {"usage": Usage(**record["usage"]),
                                                "latencies": as_latencies(record["latencies"])})
                             for record in values["records"]]
        return cls(**values)


def as_latencies(values):
    return {series: Latency(**latency) if latency else None for series, latency in values.items()}


class RecordFile:
    """A CSV file with a row for each record, which an interrupted run leaves too."""

    def __init__(self, path):
        self.file = open(path, "w", encoding="utf-8", newline="")
        self.writer = csv.writer(self.file)
        self.writer.writerow(Record.COLUMNS)

    def add(self, record):
        self.writer.writerow(record.row())
        self.file.flush()

    def close(self):
        self.file.close()
