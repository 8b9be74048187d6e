"""What a soak measures: one record each RECORD_SECONDS, and the whole run with all that it is judged by. Both are kept
as files, so that a run can be looked at and judged again later."""

import csv
import dataclasses
import json
import statistics

RECORD_SECONDS = 10

# What is asked over the bus. GDBus answers a ping on a thread of its own; a property is answered by the main loop, so
# that only this question shows whether the main loop stands still.
PING, CALL = "ping", "call"
QUESTIONS = (PING, CALL)

# Who is asked: the daemon, and a peer on the same bus that does nothing else.
DAEMON, IDLE_PEER = "daemon", "idle peer"
PEERS = (DAEMON, IDLE_PEER)

MIB = 1024 * 1024


def series_name(peer, question):
    return f"{peer} {question}"


def daemon_series(question):
    return series_name(DAEMON, question)


# How long clients wait for their replies.
REPLY = "reply"

SERIES = (*(series_name(peer, question) for peer in PEERS for question in QUESTIONS), REPLY)


@dataclasses.dataclass
class Latency:
    """How long answers took, in milliseconds."""

    count: int
    median: float
    p99: float
    worst: float

    @classmethod
    def of(cls, values):
        """None when nothing was asked."""
        if not values:
            return None
        p99 = statistics.quantiles(values, n=100, method="inclusive")[-1] if len(values) > 1 else values[0]
        return cls(len(values), statistics.median(values), p99, max(values))


@dataclasses.dataclass
class Usage:
    """What the daemon takes of the machine."""

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
        ping, call, reply = (triple(self.latencies[series]) for series in (*map(daemon_series, QUESTIONS), REPLY))
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
    return f"{latency.median:.1f}/{latency.p99:.1f}/{latency.worst:.1f}" if latency else "no answer"


@dataclasses.dataclass
class Run:
    """One soak.

    build: the kind of build
    idle, final: what the daemon took before the load, and once it had been gone for a while
    latencies: of the whole run, by series
    expected_questions: how many of each should have been asked
    done: how often the load did each thing that belongs to it
    served: how many clients of each kind got all that they should
    failures: what clients that behave did not get; excused: what they could not get while descriptors were short
    waived: how many did not wait for producers whose receiver was in trouble
    complaints: what GLib and GStreamer said to be wrong; reports: what a sanitizer reported
    leaks: what the leak check at the end found: None if it did not run
    ended: how the daemon ended before it was told to, if it did"""

    build: str
    minutes: float
    idle: Usage
    final: Usage
    records: list
    latencies: dict
    expected_questions: int
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
    """A CSV file that grows by a row with each record, so that a run that is cut short leaves what it has."""

    def __init__(self, path):
        self.file = open(path, "w", encoding="utf-8", newline="")
        self.writer = csv.writer(self.file)
        self.writer.writerow(Record.COLUMNS)

    def add(self, record):
        self.writer.writerow(record.row())
        self.file.flush()

    def close(self):
        self.file.close()
