# SPDX-License-Identifier: MIT
"""The daemon's status on the bus, and tessardctl status with a daemon."""

import contextlib
import json
import os
import xml.etree.ElementTree

import pytest

import openmetrics
from client import header, stuck_client
from controlclient import NAME, OBJECT_MANAGER, ROOT, STATUS, STATUS_PATH
from daemon import VIDEO_TRACKER, producers_enabled
from external import ANALYTICS, COUNTER, GATE, YARD, expect_frames, numbered
from fakereceiver import message
from installation import documented_limit
from tessardctl import SUCCESS
from waiting import BOUND_SECONDS, wait_until

MAX_VALUE_BYTES = documented_limit("clientrecord.h", "CLIENT_RECORD_MAX_VALUE_BYTES")

PARENT = "/com/quon/MetadataServer1"

CLIENTS = 100

# Longer than the documents and messages of these tests take on a slow machine with a sanitizer.
MICROSECONDS = BOUND_SECONDS * 1_000_000


def clients_of(control):
    return control.status()["Clients"]


def wait_for_clients(control, count):
    wait_until(lambda: len(clients_of(control)) == count, f"{count} clients are shown")


def source_of(control, name):
    """The counts of one source; None if there is none."""
    return next((source for source in control.status()["Producers"] if source["Source"] == name), None)


def count_documents(stream, client, count):
    """Reads documents, each after a sync point, and returns their bytes."""
    size = 0
    for _ in range(count):
        client.sync()
        size += len(stream.next_data())
    return size


def introspect(control, path):
    text = control.call(NAME, path, "org.freedesktop.DBus.Introspectable", "Introspect").unpack()[0]
    return xml.etree.ElementTree.fromstring(text)


def managed_objects(control):
    return control.call(NAME, ROOT, OBJECT_MANAGER, "GetManagedObjects").print_(True)


# The object


def test_fixed_objects_stay_as_they_are(start_daemon, control):
    start_daemon(plugins=("scene",))
    before = managed_objects(control)
    assert control.status()["Clients"] == []

    assert managed_objects(control) == before
    assert control.objects() == {f"{ROOT}/{VIDEO_TRACKER}"}
    root = introspect(control, ROOT)
    assert [node.get("name") for node in root.findall("node")] == [VIDEO_TRACKER]
    assert STATUS not in [interface.get("name") for interface in root.findall("interface")]
    assert {node.get("name") for node in introspect(control, PARENT).findall("node")} == {"Producers", "Status"}
    assert STATUS in [interface.get("name") for interface in introspect(control, STATUS_PATH).findall("interface")]


def test_status_of_an_idle_daemon(daemon, control, run_tessardctl):
    status = control.status()

    assert run_tessardctl("--version").out.decode() == f"tessardctl version {status['Version']}\n"
    assert status["Clients"] == status["Producers"] == []
    assert 0 < status["Uptime"] < 3600 * 1_000_000
    assert status["Descriptors"] == daemon.descriptors()
    assert status["Limits"]["Descriptors"] == int(
        next(line for line in open(f"/proc/{daemon.process.pid}/limits", encoding="ascii")
             if line.startswith("Max open files")).split()[3])


# Clients


def test_client_with_its_documents(daemon, control):
    with daemon.client() as client:
        stream = client.start("event=1\nevent_topic=tns1:VideoSource//.\n")
        size = len(stream.next_data())
        [shown] = wait_until(lambda: [entry for entry in clients_of(control) if entry["Documents"] == 1],
                             "one document is shown")
        first = shown["Documents"], shown["Bytes"]
        size += count_documents(stream, client, 5)
        wait_until(lambda: clients_of(control)[0]["Documents"] >= 6, "the other documents are shown")
        status = control.status()
        [shown] = status["Clients"]

        assert first == (1, first[1])
        assert (shown["Documents"], shown["Bytes"]) == (6, size)
        assert (shown["Pid"], shown["Uid"], shown["Streaming"]) == (os.getpid(), os.getuid(), True)
        assert shown["Request"] == {"event": "1", "event_topic": "tns1:VideoSource//."}
        assert (shown["QueueItems"], shown["QueueBytes"]) == (0, 0)
        assert 0 <= shown["LastDocumentAge"] < shown["Age"] < MICROSECONDS
        assert (status["DocumentsTotal"], status["BytesTotal"]) == (6, size)

    wait_for_clients(control, 0)
    status = control.status()
    assert status["DocumentsTotal"] >= 6 and status["ClientsTotal"] == shown["Id"]


def test_client_that_is_refused_is_not_shown(daemon, control):
    before = control.status()
    daemon.expect_reply()
    wait_for_clients(control, 0)
    # It held a place while its request was handled.
    assert control.status()["ClientsTotal"] == before["ClientsTotal"] + 1

    daemon.expect_reply("nothing\n", "FAIL\nUnable to parse header line: nothing.")
    assert control.status()["ClientsTotal"] == before["ClientsTotal"] + 1


def test_client_that_does_not_read_has_a_queue(fast_daemon, control):
    with stuck_client(fast_daemon):
        [shown] = wait_until(lambda: [entry for entry in clients_of(control) if entry["QueueItems"] > 3],
                             "documents wait")
        assert shown["QueueBytes"] > shown["QueueItems"]
        assert shown["Documents"] > 0
    wait_for_clients(control, 0)


@pytest.mark.parametrize("value, shown", [
    (b"a\x1b[2J\xc3\xa9", "a\x1b[2Jé"), (b"\xff", "\ufffd"), (b"x" * 256, "x" * 256), (b"x" * 5000, "x" * 256 + "…"),
    (b"x" * 255 + "é".encode(), "x" * 255 + "…"),
])
def test_value_of_a_request_is_bounded_text(daemon, control, value, shown):
    assert MAX_VALUE_BYTES == 256
    with daemon.client() as client:
        # Without PTZ, the daemon does not check this value.
        client.send(b"OPEN\nevent=1\nptz_zoom_coordinate_space=" + value + b"\nother=1\n\n")
        assert client.read_reply() == b"OK"
        assert clients_of(control)[0]["Request"] == {"event": "1", "ptz_zoom_coordinate_space": shown}


def test_many_clients(daemon, control):
    with contextlib.ExitStack() as running:
        for _ in range(CLIENTS):
            running.enter_context(daemon.client()).start()
        shown = clients_of(control)
        assert [client["Id"] for client in shown] == sorted({client["Id"] for client in shown})
        assert len(shown) == CLIENTS
        assert all(client["Request"] == {"event": "1"} for client in shown)
    wait_for_clients(control, 0)
    assert control.status()["ClientsTotal"] == shown[-1]["Id"]


# Producers


def test_messages_of_a_producer(detector, counter, start_listing_daemon, control):
    daemon = start_listing_daemon()
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        counter.wait_for_stream().send(numbered(1), numbered(2))
        expect_frames(stream, (YARD, 1), (YARD, 2))
        detector.wait_for_stream()
        source = source_of(control, YARD)
        assert (source["Streams"], source["Messages"], source["Dropped"]) == (1, 2, 0)
        assert source["Bytes"] > len(numbered(1)) + len(numbered(2))
        wait_until(lambda: source_of(control, GATE), "the other source is shown")
        assert source_of(control, GATE)["Messages"] == 0

    wait_until(lambda: source_of(control, YARD)["Streams"] == 0, "the stream has ended")
    status = control.status()
    assert source_of(control, YARD)["Messages"] == status["MessagesTotal"] == 2
    assert status["MessageBytesTotal"] == source["Bytes"]
    daemon.wait_until_idle()


def test_dropped_messages_of_a_producer(counter, start_listing_daemon, control):
    counter.nonblocking = True
    daemon = start_listing_daemon(producers=producers_enabled({(COUNTER, 1): YARD}))
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        feed = counter.wait_for_stream()
        # A non-blocking stream loses a message that is cut short.
        feed.write(message(numbered(1))[:-1])
        wait_until(lambda: source_of(control, YARD)["Dropped"] == 1, "the message is dropped")
        feed.send(numbered(2))
        expect_frames(stream, (YARD, 2))
        assert source_of(control, YARD)["Messages"] == 1
        assert control.status()["DroppedTotal"] == 1
    daemon.wait_until_idle()


@pytest.mark.parametrize("name, shown", [("gate\x1b[2J", "gate\\u001b[2J"), ("摄像机 é", "摄像机 é")])
def test_names_in_labels(counter, start_listing_daemon, control, bus, run_tessardctl, name, shown):
    daemon = start_listing_daemon(producers=producers_enabled({(COUNTER, 1): "x"}))
    control.set_channels(COUNTER, (1, True, name))
    with daemon.client() as client:
        client.start(ANALYTICS)
        counter.wait_for_stream()
        wait_until(lambda: source_of(control, name), "the source is shown")
        result = run_tessardctl("status", "--metrics", "--bus", bus.address)
        table = run_tessardctl("status", "--bus", bus.address)
    assert openmetrics.values(result.out)["tessard_source_streams"] == {(("source", shown),): 1}
    assert table.out.decode().endswith(f"  {shown}\n")
    daemon.wait_until_idle()


# The command


def test_command_shows_a_client(daemon, control, bus, run_tessardctl):
    with daemon.client() as client:
        client.start_reading(header(event=1))
        as_json = run_tessardctl("status", "--json", "--bus", bus.address)
        table = run_tessardctl("status", "--bus", bus.address)
        metrics = run_tessardctl("status", "--metrics", "--bus", bus.address)
        [shown] = clients_of(control)

    assert {as_json.status, table.status, metrics.status} == {SUCCESS}
    [told] = json.loads(as_json.out)["Clients"]
    assert (told["Id"], told["Pid"], told["Request"]) == (shown["Id"], os.getpid(), {"event": "1"})
    assert table.out.decode().splitlines()[-1].endswith("  events")
    assert openmetrics.values(metrics.out)["tessard_clients"] == {(): 1}


def test_counters_never_decrease(daemon, bus, run_tessardctl):
    last = {}
    for _ in range(3):
        with daemon.client() as client:
            client.start_reading()
            now = openmetrics.parse(run_tessardctl("status", "--metrics", "--bus", bus.address).out)
        totals = {name: family.samples[frozenset()] for name, family in now.items()
                  if family.kind == "counter" and frozenset() in family.samples}
        assert len(totals) == 6
        assert all(totals[name] >= value for name, value in last.items())
        last = totals
    assert last["tessard_accepted_clients"] >= 3
