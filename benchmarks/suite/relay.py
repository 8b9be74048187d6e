# SPDX-License-Identifier: MIT
"""The processor time and the throughput of messages from a producer to its clients.

The daemon and the bare pipeline have the same pass-through elements, so that their difference is the daemon's. In a
round each client gets the same number of messages from a stream of its own. The rounds of a pair follow each other; the
processor time is that of all threads of the measured process."""

import contextlib
import os
import pathlib
import re
import shutil
import statistics

import figures
from plots import Chart
from stage import Load, Process, connects, running, started_daemon, wait_until
from tables import Fit, Goal, Table, bytes_text, microseconds

NAME = "relay"
DAEMON, BARE, COPY, PRODUCT, BROKER = "daemon", "bare pipeline", "bare copy", "with json2xml", "mosquitto"
PIPELINES = (DAEMON, BARE)

# The kinds of threads: they read producers' streams, run the source element, or write to the client behind the queue.
READER, SOURCE, QUEUE = THREADS = ("reader", "source", "queue")
HAS_SCHEDSTAT = pathlib.Path("/proc/self/schedstat").exists()
WAITS = re.compile(r"^voluntary_ctxt_switches:\s*(\d+)$", re.MULTILINE)

SIZES = (50, 200, 1024, 10 * 1024, 100 * 1024)
CLIENTS = (1, 8, 32)
BROKER_CLIENTS = (1, 32)

# About the time of a round on one core, with the rough cost of a message: for each one, and for each of its bytes.
ROUND_SECONDS = 0.12
MESSAGE_SECONDS, BYTE_SECONDS = 15e-6, 0.7e-9
PRODUCT_MESSAGE_SECONDS, PRODUCT_BYTE_SECONDS = 40e-6, 40e-9
LEAST_MESSAGES = 8

GOAL = 1.05


def count_for(size, clients, effort, product=False):
    """The messages of a round for each client."""
    each = PRODUCT_MESSAGE_SECONDS if product else MESSAGE_SECONDS
    byte = PRODUCT_BYTE_SECONDS if product else BYTE_SECONDS
    return max(LEAST_MESSAGES, int(effort.scale * ROUND_SECONDS / (each + byte * size) / clients))


def program_load(stage, plugins, name, clients):
    """A load through a program that inherits its streams."""
    program = stage.program(name)
    return Load(stage, ["program", clients, program], plugins.environment(program))


def daemon_load(stage, bus, daemon, clients):
    """A load through a daemon on whose bus nothing else is."""
    return Load(stage, ["daemon", daemon.socket_path, daemon.pid, clients],
                dict(os.environ) | {"DBUS_SYSTEM_BUS_ADDRESS": bus.address}, daemon.pid)


def broker_program():
    """The path of mosquitto, None if it is not installed."""
    return shutil.which("mosquitto", path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")


@contextlib.contextmanager
def started_broker(stage):
    folder = stage.new_folder()
    path = folder / "socket"
    # Without a limit of the queue nothing is dropped; the load limits what is under way.
    (folder / "mosquitto.conf").write_text(
        f"listener 0 {path}\nallow_anonymous true\npersistence false\nmax_queued_messages 0\n"
        "log_dest stderr\nlog_type error\n", encoding="utf-8")
    with running(Process(stage, [broker_program(), "-c", folder / "mosquitto.conf"], dict(os.environ),
                         folder)) as broker:
        wait_until(lambda: broker.check() or connects(path), "mosquitto listens")
        yield broker, path


def kind_of_thread(name):
    if name.startswith("queue"):
        return QUEUE
    return SOURCE if name.startswith(("externalsrc", "appsrc")) else READER


def usage_of_threads(pid):
    """The processor time in seconds of each kind of thread, which is 0 where the kernel does not tell it, and how often
    they waited. Leaves out threads that end."""
    found = {kind: [0, 0] for kind in THREADS}
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        try:
            name, status = ((task / file).read_text(encoding="utf-8") for file in ("comm", "status"))
            times = (task / "schedstat").read_text(encoding="utf-8") if HAS_SCHEDSTAT else "0"
        except (FileNotFoundError, ProcessLookupError):
            continue
        of_kind = found[kind_of_thread(name)]
        of_kind[0] += int(times.split()[0]) / 1e9
        of_kind[1] += int(WAITS.search(status)[1])
    return found


def relay_by_thread(load, size, count, deliveries):
    """A round, and for each delivery the processor time and the waits of each kind of thread."""
    before = usage_of_threads(load.measured_pid)
    times = load.relay(size, count)
    after = usage_of_threads(load.measured_pid)
    return times, {kind: [(new - old) / deliveries for old, new in zip(before[kind], after[kind])] for kind in THREADS}


def measure_rounds(loads, size, clients, effort):
    """Interleaved rounds of each load: the processor time of a delivered message, and the deliveries in a second. Of
    the two pipelines also what each kind of thread does."""
    counts = {kind: count_for(size, clients, effort, kind == PRODUCT) for kind in loads}
    results = {kind: {"processor": [], "rate": [], "threads": []} for kind in loads}
    for kind, load in loads.items():
        load.relay(size, counts[kind])
    for number in range(effort.pairs):
        # Each second pair runs backwards, so that none is always first.
        for kind in list(loads) if number % 2 == 0 else reversed(list(loads)):
            deliveries = counts[kind] * clients
            if kind in PIPELINES:
                (processor, wall), threads = relay_by_thread(loads[kind], size, counts[kind], deliveries)
                results[kind]["threads"].append(threads)
            else:
                processor, wall = loads[kind].relay(size, counts[kind])
            results[kind]["processor"].append(processor / deliveries)
            results[kind]["rate"].append(deliveries / wall)
    return results


def open_yardsticks(stage, opened, plugins, clients):
    """Loads through the daemon and both yardsticks, with the same plug-ins."""
    bus, daemon = opened.enter_context(started_daemon(stage, plugins))
    return {
        DAEMON: opened.enter_context(running(daemon_load(stage, bus, daemon, clients))),
        BARE: opened.enter_context(running(program_load(stage, plugins, "benchpipeline", clients))),
        COPY: opened.enter_context(running(program_load(stage, plugins, "benchcopy", clients))),
    }


def measure_clients(stage, clients, effort):
    """All sizes to this number of clients."""
    with contextlib.ExitStack() as opened:
        loads = open_yardsticks(stage, opened, stage.pass_through(), clients)
        bus, daemon = opened.enter_context(started_daemon(stage, stage.product()))
        loads[PRODUCT] = opened.enter_context(running(daemon_load(stage, bus, daemon, clients)))
        if broker_program() and clients in BROKER_CLIENTS:
            broker, path = opened.enter_context(started_broker(stage))
            loads[BROKER] = opened.enter_context(running(
                Load(stage, ["broker", path, broker.pid, clients], dict(os.environ))))
        return {str(size): measure_rounds(loads, size, clients, effort) for size in effort.some(SIZES)}


def measure(stage, effort):
    return {str(clients): measure_clients(stage, clients, effort) for clients in effort.some(CLIENTS)}


def estimates(kinds):
    """The medians of a cell, and the ratios against both yardsticks."""
    times = {kind: result["processor"] for kind, result in kinds.items()}
    return ({kind: figures.estimate(values) for kind, values in times.items()},
            figures.ratio(times[DAEMON], times[BARE]), figures.ratio(times[DAEMON], times[COPY]))


def clients_text(number):
    return "1 client" if number == "1" else f"{number} clients"


def time_table(clients, sizes):
    rows = []
    for size, kinds in sizes.items():
        medians, against_bare, against_copy = estimates(kinds)
        rows.append((bytes_text(int(size)),
                     *(microseconds(medians[kind].median) for kind in (COPY, BARE, DAEMON)),
                     against_bare.text(), against_bare.interval_text(), against_copy.text(),
                     microseconds(medians[PRODUCT].median),
                     microseconds(medians[BROKER].median) if BROKER in medians else "-"))
    return Table(f"Relay to {clients_text(clients)}, processor time of a delivered message",
                 ("message", "copy, µs", "bare, µs", "daemon, µs", "daemon / bare", "interval", "daemon / copy",
                  "with json2xml, µs", "mosquitto, µs"), rows)


def rate_table(data):
    kinds = (COPY, BARE, DAEMON, PRODUCT, BROKER)

    def rate(results, kind):
        return f"{figures.estimate(results[kind]['rate']).median:.0f}" if kind in results else "-"

    return Table("Relay, deliveries in a second", ("clients", "message", *kinds),
                 [(clients, bytes_text(int(size)), *(rate(results, kind) for kind in kinds))
                  for clients, sizes in data.items() for size, results in sizes.items()])


def thread_table(data):
    """Where the pipelines' processor time goes, and how often their threads wait for a message."""
    def cells(rounds):
        for kind in THREADS:
            seconds, waits = (statistics.median(found[kind][index] for found in rounds) for index in range(2))
            yield f"{microseconds(seconds) if seconds else '-'} ({waits:.2f})"

    return Table("Relay, processor time of a delivered message by thread, µs, and how often the thread waited",
                 ("clients", "message", *(f"{side}: {kind}" for side in PIPELINES for kind in THREADS)),
                 [(clients, bytes_text(int(size)),
                   *(cell for side in PIPELINES for cell in cells(kinds[side]["threads"])))
                  for clients, sizes in data.items() for size, kinds in sizes.items()])


def tables(data):
    return [*(time_table(clients, sizes) for clients, sizes in data.items()), thread_table(data), rate_table(data)]


def goals(data):
    found = []
    for clients, text in (("1", "1 client"), ("32", "32 clients, against 32 bare pipelines in one process")):
        for size in map(str, SIZES):
            kinds = data.get(clients, {}).get(size)
            found.append(Goal(f"processor time of a relayed message of {bytes_text(int(size))} against the bare "
                              f"pipeline, {text}", GOAL, estimates(kinds)[1] if kinds else None))
    return found


def plots(data):
    """The processor time over the size, for each number of clients."""
    def points(sizes, kind):
        return [(int(size), figures.estimate(kinds[kind]["processor"]).median * 1e6) for size, kinds in sizes.items()]

    return {"relay": [Chart(f"Processor time of a delivered message, {clients_text(clients)}", "message, bytes", "µs",
                            {kind: points(sizes, kind) for kind in (COPY, BARE, DAEMON)}, log_x=True)
                      for clients, sizes in data.items()]}


def fits(data):
    """The processor time of a delivery over the bytes of a message, and over the clients of the smallest message."""
    found = []
    for clients, sizes in data.items():
        for kind in (COPY, BARE, DAEMON):
            points = [(int(size), figures.estimate(kinds[kind]["processor"]).median * 1e6)
                      for size, kinds in sizes.items()]
            found.append(Fit(f"processor time of a delivery, {kind}, {clients_text(clients)}", "bytes of a message",
                             "µs", points, "short messages share reads and wake-ups, long ones leave the caches"))
    for kind in (COPY, BARE, DAEMON):
        points = [(int(clients), figures.estimate(sizes["1024"][kind]["processor"]).median * 1e6)
                  for clients, sizes in data.items() if "1024" in sizes]
        found.append(Fit(f"processor time of a delivery of 1 KB, {kind}", "clients", "µs", points,
                         "with some clients a thread finds more messages when it wakes, with many the caches are full"))
    return found
