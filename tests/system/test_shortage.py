# SPDX-License-Identifier: MIT
"""Lack of descriptors: each client is served or refused, and the daemon serves all clients when it has enough again.
And the documented resources of a client of each kind, on which the limits of the service are based."""

import concurrent.futures
import contextlib
import itertools
import re
import time

import pytest

from client import header
from daemon import ERROR, NOTHING_REQUESTED, RADAR_TRACKER, VIDEO_TRACKER, WARNING, producers_enabled
from installation import ALL_PLUGINS, TREE, documented_limit
from controlclient import path_of
from waiting import wait_until, wait_until_settled

RESERVE = documented_limit("descriptorreserve.h", "DESCRIPTOR_RESERVE_SIZE")
PIPELINE = documented_limit("server.h", "SERVER_PIPELINE_DESCRIPTORS")
BUS_CALL = documented_limit("systembus.h", "SYSTEM_BUS_CALL_DESCRIPTORS")
WARNING_SECONDS = documented_limit("server.h", "SERVER_SHORTAGE_WARNING_INTERVAL_MS") / 1000

# With fewer than TOO_FEW free descriptors, including the client's connection, no pipeline is built; with ENOUGH one is.
# A pipeline's open descriptors also count as reserved until it is complete, and calls of the platform need more.
TOO_FEW = RESERVE + PIPELINE + 1
ENOUGH = RESERVE + 2 * PIPELINE + BUS_CALL + 1

NOT_CREATED = "FAIL\nCould not create metadata, Internal server error."

NO_DESCRIPTOR = (ERROR, "Could not accept new request on metadata server socket: Too many open files")

SHORTAGE = re.compile(r"Too few free file descriptors, refused a metadata request\."
                      r"( \(\d+ more since the last such line\))?")

# A possible log line about the producers' streams of a served client.
STREAMS_WAIT = re.compile(r"streams of external producers wait: too few free file descriptors"
                          r"( \(\d+ more since the last such line\))?")

# The video channels on which one kind of analytics is enabled, and the one on which all are.
VIDEO_CHANNEL, RADAR_CHANNEL, EXTERNAL_CHANNEL, FULL_CHANNEL = CHANNELS = (1, 2, 3, 4)

KINDS = {
    "event": {"event": 1},
    "ptz": {"ptz": 1},
    "scenes": {"analytics": 1, "video_channel": VIDEO_CHANNEL},
    "radar": {"analytics": 1, "video_channel": RADAR_CHANNEL},
    "external": {"analytics": 1, "video_channel": EXTERNAL_CHANNEL},
    "all": {"event": 1, "ptz": 1, "analytics": 2, "video_channel": FULL_CHANNEL},
}

# The external producers, all enabled on the same channels.
EXTERNAL = ("First", "Second", "Third")

PRODUCERS = producers_enabled({
    (VIDEO_TRACKER, VIDEO_CHANNEL): "video",
    (VIDEO_TRACKER, FULL_CHANNEL): "video",
    (RADAR_TRACKER, RADAR_CHANNEL): "radar",
    (RADAR_TRACKER, FULL_CHANNEL): "radar",
} | {(name, channel): name for name in EXTERNAL for channel in (EXTERNAL_CHANNEL, FULL_CHANNEL)})


@pytest.fixture
def full_daemon(start_camera, start_daemon, control):
    """An idle daemon with all kinds of metadata, which has listed the external producers."""
    camera = start_camera("--channels", str(len(CHANNELS)))
    daemon = start_daemon(plugins=ALL_PLUGINS, coordinator_line=None, producers=PRODUCERS, speed=4,
                          ptz_channels=CHANNELS)
    for name in EXTERNAL:
        camera.add_producer(name)
    wait_until(lambda: control.objects() >= {path_of(name) for name in EXTERNAL}, "the external producers are listed")
    # The first client makes the daemon load plug-ins and start threads that stay.
    with daemon.client() as client:
        client.start(header(**KINDS["all"])).next_document()
    daemon.idle_descriptors = wait_until_settled(daemon.descriptors, "the daemon is idle")
    return daemon


# Running out


@contextlib.contextmanager
def free_descriptors(daemon, count):
    """Limits the running daemon to `count` more descriptors."""
    limits = (daemon.proc / "limits").read_text(encoding="ascii")
    (before,) = re.findall(r"^Max open files +(\d+)", limits, re.MULTILINE)
    daemon.leave_descriptors(count)
    try:
        yield
    finally:
        daemon.limit_descriptors(before)


def request_metadata(client, fields):
    """Requests metadata and returns the text of the reply, which may arrive before the request is sent."""
    with contextlib.suppress(BrokenPipeError):
        client.send_request(header(**fields))
    return client.read_reply().decode()


def request_and_read(daemon, fields):
    """Requests metadata and returns whether it arrived. A refusal must have its text and then the end."""
    with daemon.client() as client:
        reply = request_metadata(client, fields)
        if reply == "OK":
            client.open_stream().next_document()
            return True
        assert reply == NOT_CREATED
        assert client.read_to_end() == b""
        return False


def expect_only_shortages(daemon, began, without_any=0):
    """Expects that the log has only warnings about the shortage, at most one in each interval since `began`, and lines
    about connections that found no descriptor."""
    lines = daemon.log.take()
    assert lines.count(NO_DESCRIPTOR) == without_any
    warnings = [line for line in lines if line[0] == WARNING and SHORTAGE.fullmatch(line[1])]
    waits = [line for line in lines if line[0] == WARNING and STREAMS_WAIT.fullmatch(line[1])]
    assert [line for line in lines if line not in (NO_DESCRIPTOR, *waits, *warnings)] == []
    assert 1 <= len(warnings) <= 1 + (time.monotonic() - began) / WARNING_SECONDS


@pytest.mark.parametrize("kind", KINDS)
def test_every_number_of_free_descriptors_serves_or_refuses(full_daemon, kind):
    began = time.monotonic()
    served = {}
    for count in range(ENOUGH + 1):
        with free_descriptors(full_daemon, count):
            served[count] = request_and_read(full_daemon, KINDS[kind])
            full_daemon.wait_until_idle()
        assert request_and_read(full_daemon, KINDS[kind])
        full_daemon.wait_until_idle()

    assert served[ENOUGH]
    assert not any(served[count] for count in range(TOO_FEW))
    expect_only_shortages(full_daemon, began, without_any=1)


def test_clients_without_a_descriptor_are_refused_one_by_one(full_daemon):
    began = time.monotonic()
    with free_descriptors(full_daemon, 0):
        for _ in range(10):
            assert not request_and_read(full_daemon, KINDS["event"])

    expect_only_shortages(full_daemon, began, without_any=10)
    assert request_and_read(full_daemon, KINDS["all"])


def test_waiting_clients_leave_the_reserve(full_daemon):
    began = time.monotonic()
    with contextlib.ExitStack() as stack, free_descriptors(full_daemon, RESERVE + 3):
        silent = [stack.enter_context(full_daemon.client()) for _ in range(3)]
        wait_until(lambda: full_daemon.descriptors() == full_daemon.idle_descriptors + 3, "they are accepted")
        for _ in range(10):
            assert not request_and_read(full_daemon, KINDS["event"])
        assert full_daemon.descriptors() == full_daemon.idle_descriptors + 3
        for client in silent:
            client.send_request("")
            assert client.read_reply().decode() in (NOTHING_REQUESTED, NOT_CREATED)

    expect_only_shortages(full_daemon, began)
    assert request_and_read(full_daemon, KINDS["all"])


# A crowd

REQUEST_THREADS = 2

CROWD = 150
CROWD_LIMIT = 512

# The number of clients that wait for their replies at a time, which is the daemon's limit.
AT_ONCE = documented_limit("server.h", "SERVER_MAX_WAITING_REQUESTS")


def test_each_client_of_a_crowd_gets_a_reply(full_daemon):
    began = time.monotonic()
    full_daemon.limit_descriptors(CROWD_LIMIT)
    with contextlib.ExitStack() as stack:

        def request_kind(kind):
            client = stack.enter_context(full_daemon.client())
            reply = request_metadata(client, KINDS[kind])
            assert reply in ("OK", NOT_CREATED)
            return client, reply == "OK"

        with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as clients:
            outcomes = list(clients.map(request_kind, itertools.islice(itertools.cycle(KINDS), CROWD)))

        served = [client for client, is_served in outcomes if is_served]
        assert 0 < len(served) < CROWD
        assert full_daemon.descriptors() <= CROWD_LIMIT - RESERVE
        for client, is_served in outcomes:
            if not is_served:
                assert client.read_to_end() == b""
        for client in served:
            client.open_stream().next_document()

    full_daemon.wait_until_idle()
    expect_only_shortages(full_daemon, began)
    assert request_and_read(full_daemon, KINDS["all"])


# Resources of clients

DOCS = (TREE / "docs/architecture.md").read_text(encoding="utf-8")
MANUAL = (TREE / "docs/tessard.8").read_text(encoding="utf-8")
UNIT = (TREE / "data/tessard.service.in").read_text(encoding="utf-8")

NAMES_IN_DOCS = {"event": "events", "ptz": "PTZ", "scenes": "video scenes", "radar": "radar scenes",
                 "external": "external producers", "all": "everything"}

COST = re.compile(r"^\| ([A-Za-z ]+) \| (\d+)(, and 1 for each [a-z ]+)? \| (\d+) \|$", re.MULTILINE)
DOCUMENTED_COSTS = {name: (int(descriptors), bool(producers), int(threads))
                    for name, descriptors, producers, threads in COST.findall(DOCS)}

# The number of clients that are measured together.
MEASURED = 4

# The threads of a sync point in transit.
SYNC_THREADS = 1


def number(text):
    return int(text.replace(",", ""))


def limit_in_unit(name):
    (value,) = re.findall(rf"^{name}=(\d+)$", UNIT, re.MULTILINE)
    return int(value)


@pytest.mark.parametrize("kind", KINDS)
def test_client_needs_the_documented_descriptors(full_daemon, kind):
    descriptors, with_producers, threads = DOCUMENTED_COSTS[NAMES_IN_DOCS[kind]]
    descriptors += len(EXTERNAL) if with_producers else 0
    with contextlib.ExitStack() as stack:

        def start_clients():
            for _ in range(MEASURED):
                client = stack.enter_context(full_daemon.client())
                client.start(header(**KINDS[kind])).next_document()

        # GLib keeps up to eight unused threads for some seconds; these clients take them.
        start_clients()
        before = wait_until_settled(full_daemon.threads, "threads of the start have ended")
        start_clients()
        wait_until(lambda: full_daemon.descriptors() == full_daemon.idle_descriptors + 2 * MEASURED * descriptors,
                   "the clients' descriptors are open")
        wait_until(lambda: full_daemon.threads() == before + MEASURED * threads, "their threads have been made")


def test_descriptor_limit_of_the_service_is_the_documented_sum():
    rows = re.search(r"^\| descriptors \| sum \|\n\|---\|---\|\n((?:\|.*\n)+)", DOCS, re.MULTILINE).group(1)
    sums = {name: number(value) for name, value in re.findall(r"^\| (.+) \| ([\d,]+) \|$", rows, re.MULTILINE)}
    *parts, together = sums.values()
    clients, producers, each = map(int, re.findall(r"\d+", next(iter(sums))))

    assert each == DOCUMENTED_COSTS["everything"][0] + producers
    assert parts[0] == clients * each
    assert RESERVE in parts and AT_ONCE + 1 in parts and REQUEST_THREADS * (1 + PIPELINE + BUS_CALL) in parts
    assert sum(parts) == together <= limit_in_unit("LimitNOFILE")
    assert f"{parts[0]} descriptors, and {together - parts[0]} for the daemon itself" in re.sub(r"\s+", " ", MANUAL)


def test_descriptors_run_out_before_threads_for_every_request():
    descriptors, tasks = limit_in_unit("LimitNOFILE"), limit_in_unit("TasksMax")
    (own_threads,) = map(int, re.findall(r"threads, and (\d+) are for the daemon itself", DOCS))

    assert len(DOCUMENTED_COSTS) == len(KINDS)
    for cost, _, threads in DOCUMENTED_COSTS.values():
        assert descriptors // cost * (threads + SYNC_THREADS) + own_threads <= tasks
    for text in (DOCS, MANUAL):
        assert f"LimitNOFILE={descriptors}" in text and f"TasksMax={tasks}" in text
