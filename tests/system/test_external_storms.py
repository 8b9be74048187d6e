# SPDX-License-Identifier: MIT
"""External producers and their receiver under stress: crowds, bursts, lack of descriptors, data that is too long or has
a wrong type, and a converter that hangs. The daemon keeps running and loses nothing that is within its limits."""

import concurrent.futures
import contextlib
import itertools
import os
import re
import threading
import time

import pytest
from gi.repository import GLib

from busclient import BUS, PROPERTIES
from client import ConnectionEnded, header
from daemon import LOG_BURST, LOG_SECONDS, RADAR_TRACKER, WARNING, producers_enabled, with_count
from external import (ANALYTICS, COUNTER, DETECTOR, EXTERNAL_PLUGINS, GATE, WRONG_SIGNAL, expect_frames,
                      not_converted, numbered, producer_frames, wait_until_listed)
from fakereceiver import FakeReceiver, Producer
from installation import EVENT_PLUGIN, RADAR_PLUGIN, SANITIZED, documented_limit
from receiverclient import OBJECT_MANAGER, PRODUCER, ROOT, path_of
from simcamera import CAPTURE, RECEIVER
from controlclient import NAME
from controlclient import path_of as listed_path_of
from waiting import BOUND_SECONDS, wait_until, wait_until_settled

MAX_OBJECTS = documented_limit("dbusclient.h", "DBUS_CLIENT_MAX_OBJECTS")
MAX_PRODUCERS = documented_limit("dbusclient.h", "DBUS_CLIENT_MAX_PRODUCERS")
MAX_XML_BYTES = documented_limit("dbusclient.h", "DBUS_CLIENT_MAX_XML_BYTES")
MAX_XML_BYTES_IN_ALL = documented_limit("dbusclient.h", "DBUS_CLIENT_MAX_XML_BYTES_IN_ALL")
MAX_UNDER_WAY = documented_limit("receivercalls.h", "RECEIVER_CALLS_MAX_UNDER_WAY")
MAX_UNANSWERED = documented_limit("receivercalls.h", "RECEIVER_CALLS_MAX_UNANSWERED")
CONVERSION_SECONDS = documented_limit("sampleframequeue.h", "SAMPLE_FRAME_QUEUE_MAX_SECONDS")
CONVERSIONS_AT_ONCE = documented_limit("sampleframequeue.h", "SAMPLE_FRAME_QUEUE_MAX_RUNNING")

# With a sanitizer on a busy machine, each conversion may take its whole time limit.
ALL_CONVERTED_SECONDS = MAX_PRODUCERS * CONVERSION_SECONDS / CONVERSIONS_AT_ONCE

# The bus' limit of pending replies of a connection.
BUS_REPLIES = 128

# The bus' limit of a message.
BUS_MESSAGE_BYTES = 32 * 1024 * 1024

ROUNDS = 15

CROWD_OF_PRODUCERS, CROWD_OF_CLIENTS = 8, 40
CROWD = [f"producer{number}" for number in range(CROWD_OF_PRODUCERS)]
CROWD_AND_RADAR_ENABLED = producers_enabled({(name, 1): name for name in CROWD} | {(RADAR_TRACKER, 1): "radar"})

# More than each crowd needs.
MANY_DESCRIPTORS = 8192

# A low limit of descriptors, and numbers of clients that need more.
CROWDED_DESCRIPTORS, EVENT_CLIENTS, BURST_CLIENTS = 512, 110, 83


# Bursts


def test_producers_announced_at_the_start_of_the_receiver_are_listed(bus, start_daemon, control):
    daemon = start_daemon(plugins=EXTERNAL_PLUGINS)
    for number in range(ROUNDS):
        names = [f"round{number}_{name}" for name in "abc"]
        with contextlib.closing(FakeReceiver(bus)) as receiver:
            for name in names:
                receiver.add(name)
            receiver.start()
            for producer in receiver.producers:
                receiver.emit_added(ROOT, producer.path, producer.interfaces)
            wait_until_listed(control, *names)
        wait_until_listed(control)
    assert daemon.log.take() == []


# Crowds


class SlowStreams:
    """Makes producers send their streams after a delay, all requested ones at once."""

    PAUSE_MS = 200

    def __init__(self, context):
        self.context = context
        self.pending = []
        self.most_pending = 0

    def keep(self, producer, call):
        if not self.pending:
            timer = GLib.timeout_source_new(self.PAUSE_MS)
            timer.set_callback(self._reply)
            timer.attach(self.context)
        self.pending.append((producer, call))
        self.most_pending = max(self.most_pending, len(self.pending))

    def _reply(self, _):
        calls, self.pending = self.pending, []
        for producer, call in calls:
            producer.give_stream(call)
        return False


@pytest.fixture
def start_crowd(start_camera, bus, start_daemon, control):
    """Starts a camera with a radar, a receiver with a crowd of producers, and a daemon with all of them enabled."""
    made = []

    def start():
        camera = start_camera("--rotation", "1=90")
        camera.absent(RECEIVER)
        receiver = FakeReceiver(bus)
        made.append(receiver)
        for name in CROWD:
            receiver.add(name)
        receiver.start()
        daemon = start_daemon(plugins=(RADAR_PLUGIN, *EXTERNAL_PLUGINS), producers=CROWD_AND_RADAR_ENABLED)
        daemon.limit_descriptors(MANY_DESCRIPTORS)
        wait_until_listed(control, RADAR_TRACKER, *CROWD)
        daemon.idle_descriptors = wait_until_settled(daemon.descriptors, "the descriptors of the start are closed", 0.1)
        return camera, receiver, daemon

    yield start
    for receiver in made:
        receiver.close()


def read_from_all(client):
    """Reads until each producer of the crowd has sent a frame."""
    stream = client.open_stream()
    sources = set()
    for source, _ in producer_frames(stream):
        sources.add(source)
        if sources >= set(CROWD):
            return sources - {"radar"}
    return sources


def test_crowd_of_clients_gets_every_stream_of_a_crowd_of_producers(start_crowd):
    camera, receiver, daemon = start_crowd()
    streams = SlowStreams(receiver.context)
    for producer in receiver.producers:
        producer.on_stream = lambda call, producer=producer: streams.keep(producer, call)

    with contextlib.ExitStack() as stack:
        clients = [stack.enter_context(daemon.client()) for _ in range(CROWD_OF_CLIENTS)]
        for client in clients:
            client.send_request(ANALYTICS)
        for client in clients:
            assert client.read_reply() == b"OK"
        for producer in receiver.producers:
            producer.wait_for_stream(CROWD_OF_CLIENTS)
            for stream in producer.streams:
                stream.send(numbered(1))
        with concurrent.futures.ThreadPoolExecutor(CROWD_OF_CLIENTS) as readers:
            assert list(readers.map(read_from_all, clients)) == [set(CROWD)] * CROWD_OF_CLIENTS

    assert [len(producer.streams) for producer in receiver.producers] == [CROWD_OF_CLIENTS] * CROWD_OF_PRODUCERS
    assert streams.most_pending == MAX_UNDER_WAY
    assert camera.calls(CAPTURE) == CROWD_OF_CLIENTS
    # All radar scenes have their rotation.
    assert daemon.log.take() == []
    daemon.wait_until_idle()


def reply_too_late(call):
    """Replies with a stream after its client has left."""
    read_fd, write_fd = os.pipe()
    call.reply(GLib.Variant("(h)", (0,)), [read_fd])
    os.close(read_fd)
    os.close(write_fd)


def test_crowds_that_leave_while_the_receiver_delays_its_replies_leak_nothing(start_crowd):
    camera, receiver, daemon = start_crowd()
    threads = daemon.threads()
    kept = []
    for producer in receiver.producers:
        producer.on_stream = kept.append

    # More than the bus allows pending.
    for crowd in range(BUS_REPLIES // MAX_UNDER_WAY + 1):
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(daemon.client()) for _ in range(CROWD_OF_CLIENTS)]
            for client in clients:
                client.send_request(ANALYTICS)
            for client in clients:
                assert client.read_reply() == b"OK"
            wait_until(lambda: len(kept) >= min((crowd + 1) * MAX_UNDER_WAY, MAX_UNANSWERED),
                       "the receiver is called")
        daemon.wait_until_idle()
        wait_until(lambda: daemon.threads() <= threads + CROWD_OF_PRODUCERS, "their threads have ended")
    assert len(kept) == MAX_UNANSWERED
    assert daemon.log.take(1) == [
        (WARNING, f"calls of the metadata receiver wait: it leaves {MAX_UNANSWERED} unanswered")]

    with daemon.client() as client:
        client.send_request(ANALYTICS)
        assert client.read_reply() == b"OK"
        # The platform is still called, and replies.
        assert camera.calls(CAPTURE) == (crowd + 1) * CROWD_OF_CLIENTS + 1
        assert daemon.log.take() == []
        for producer in receiver.producers:
            producer.on_stream = producer.give_stream
        for call in list(kept):
            reply_too_late(call)
        for producer in receiver.producers:
            producer.wait_for_stream().send(numbered(1))
        assert read_from_all(client) == set(CROWD)
    daemon.expect_idle_and_no_log()


# Descriptors


def allow_shortage(daemon):
    """Allows messages of GStreamer and GLib about the shortage."""
    daemon.allow_on_stderr("Too many open files")
    daemon.allow_on_stderr("CRITICAL")
    daemon.allow_on_stderr("WARNING")


def request_if_possible(client, fields):
    """Sends a request to a daemon that may already have refused the client."""
    with contextlib.suppress(OSError):
        client.send_request(fields)


def expect_some_reply(client):
    """Reads the reply of a daemon that may refuse its clients."""
    with contextlib.suppress(ConnectionEnded, OSError):
        client.read_reply()


def test_nothing_is_lost_while_descriptors_are_short(receiver, start_listing_daemon, control):
    detector = receiver.add(DETECTOR)
    daemon = start_listing_daemon(producers=producers_enabled({(DETECTOR, 1): GATE, (DETECTOR, 2): GATE}))
    daemon.limit_descriptors(MANY_DESCRIPTORS)
    allow_shortage(daemon)

    for free in range(41):
        daemon.leave_descriptors(free)
        late = receiver.add(f"late{free}")
        receiver.release_name()
        receiver.take_name()
        with daemon.client() as client:
            request_if_possible(client, ANALYTICS)
            with contextlib.suppress(GLib.Error):
                control.set_producers({DETECTOR: [(1, True, GATE)]})
            assert daemon.process.poll() is None, f"with {free} descriptors: {daemon.take_stderr()}"
        daemon.limit_descriptors(MANY_DESCRIPTORS)

        wait_until_listed(control, DETECTOR, late.name)
        # On another channel, because the stream of the earlier client may still arrive.
        with daemon.client() as client:
            stream = client.start(header(analytics=1, video_channel=2))
            running = wait_until(lambda: next((found for found in detector.streams if found.channel == 2), None),
                                 "the stream is requested")
            running.send(numbered(free))
            expect_frames(stream, (GATE, free))
        detector.streams.remove(running)
        running.close()
        receiver.remove(late)
        wait_until_listed(control, DETECTOR)
    daemon.log.take()


def restart(receiver, daemon):
    """Makes the receiver leave and return, and waits until the daemon calls it."""
    calls = []

    def reply(call):
        calls.append(call)
        receiver.send_objects(call)

    receiver.release_name()
    receiver.on_objects = reply
    receiver.take_name()
    wait_until(lambda: calls or daemon.process.poll() is not None, "the daemon requests all producers")
    assert daemon.process.poll() is None, daemon.take_stderr()


def test_crowd_of_event_clients_leaves_descriptors_for_a_producer(receiver, start_daemon, control):
    daemon = start_daemon(plugins=(EVENT_PLUGIN, *EXTERNAL_PLUGINS))
    daemon.limit_descriptors(CROWDED_DESCRIPTORS)
    allow_shortage(daemon)
    with contextlib.ExitStack() as stack:
        for _ in range(EVENT_CLIENTS):
            client = stack.enter_context(daemon.client())
            request_if_possible(client, header(event=1))
            expect_some_reply(client)
        # Refused clients may have left some descriptors.
        daemon.leave_descriptors(0)
        receiver.add(DETECTOR)
        restart(receiver, daemon)
    daemon.limit_descriptors(CROWDED_DESCRIPTORS)
    wait_until_listed(control, DETECTOR)
    daemon.log.take()


def test_bursts_of_streams_do_not_end_the_daemon(start_crowd, control):
    _, receiver, daemon = start_crowd()
    daemon.limit_descriptors(CROWDED_DESCRIPTORS)
    allow_shortage(daemon)
    for _ in range(4):
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(daemon.client()) for _ in range(BURST_CLIENTS)]
            for client in clients:
                request_if_possible(client, ANALYTICS)
            restart(receiver, daemon)
            for client in clients:
                expect_some_reply(client)
            assert daemon.process.poll() is None, daemon.take_stderr()
        wait_until(lambda: daemon.descriptors() <= daemon.idle_descriptors, "the clients' descriptors are closed")
        for producer in receiver.producers:
            producer.close()
    daemon.limit_descriptors(MANY_DESCRIPTORS)
    wait_until_listed(control, RADAR_TRACKER, *CROWD)
    before = {producer: len(producer.streams) for producer in receiver.producers}
    with daemon.client() as client:
        client.send_request(ANALYTICS)
        assert client.read_reply() == b"OK"
        for producer, count in before.items():
            producer.wait_for_stream(count + 1)
            producer.streams[-1].send(numbered(1))
        assert read_from_all(client) == set(CROWD)
    daemon.log.take()


# Wrong types

WRONG_BODIES = (None, GLib.Variant("(i)", (1,)), GLib.Variant("(s)", (PRODUCER,)), GLib.Variant("(o)", (ROOT,)),
                GLib.Variant("(sa{ss}as)", (PRODUCER, {"Name": "x"}, [])), GLib.Variant("(oa{ss})", (ROOT, {})),
                GLib.Variant("(a{sv})", ({},)), GLib.Variant("(v)", (GLib.Variant("i", 1),)))
SIGNALS = ((OBJECT_MANAGER, "InterfacesAdded"), (OBJECT_MANAGER, "InterfacesRemoved"),
           (PROPERTIES, "PropertiesChanged"))
PATHS = (ROOT, path_of(DETECTOR), path_of("nobody"), "/", "/elsewhere")


def test_signals_of_wrong_types_do_not_end_the_daemon(receiver, daemon_listing_detector, control):
    daemon = daemon_listing_detector
    # Objects outside the receiver's root, which it announces.
    for path in ("/elsewhere", "/com/quon/Other"):
        receiver.emit_added(ROOT, path, Producer("elsewhere").interfaces)
        assert daemon.log.take(1) == [(WARNING, f"left out producer object {path}: it is not below {ROOT}")]
    (owner,) = control.call(*BUS, "GetNameOwner", GLib.Variant("(s)", (NAME,))).unpack()
    wrong = 0
    for destination in (None, owner):
        for path, (interface, signal), body in itertools.product(PATHS, SIGNALS, WRONG_BODIES):
            receiver.client.connection.emit_signal(destination, path, interface, signal, body)
            # The object manager's signals come from its path, those of properties from any.
            wrong += path == ROOT or interface == PROPERTIES
    receiver.client.connection.flush_sync(None)

    # One line at once, and the count of all others at the end of the interval.
    assert daemon.log.take(2) == [WRONG_SIGNAL, with_count(WRONG_SIGNAL, wrong - 2)]
    receiver.add(COUNTER)
    wait_until_listed(control, DETECTOR, COUNTER)
    assert daemon.log.take() == []


def test_all_signals_of_other_senders_are_ignored(bus, receiver, daemon_listing_detector, control):
    daemon = daemon_listing_detector
    (owner,) = control.call(*BUS, "GetNameOwner", GLib.Variant("(s)", (NAME,))).unpack()
    right = [(OBJECT_MANAGER, "InterfacesAdded",
              GLib.Variant("(oa{sa{sv}})", (path_of("stranger"), Producer("stranger").interfaces))),
             (OBJECT_MANAGER, "InterfacesRemoved", GLib.Variant("(oas)", (path_of(DETECTOR), [PRODUCER]))),
             (PROPERTIES, "PropertiesChanged",
              GLib.Variant("(sa{sv}as)", (PRODUCER, {"Name": GLib.Variant("s", "stranger")}, [])))]
    wrong = [(*signal, body) for signal, body in itertools.product(SIGNALS, WRONG_BODIES)]
    with contextlib.closing(FakeReceiver(bus)) as stranger:
        for destination, path in itertools.product((None, owner), PATHS):
            for interface, signal, body in right + wrong:
                stranger.client.connection.emit_signal(destination, path, interface, signal, body)
        stranger.client.connection.flush_sync(None)
        receiver.add(COUNTER)
        wait_until_listed(control, DETECTOR, COUNTER)
    assert daemon.log.take() == []


@pytest.fixture
def daemon_listing_detector(receiver, start_listing_daemon):
    receiver.add(DETECTOR)
    return start_listing_daemon()


# Sample frames that are too long


def sample_of(xml_bytes):
    """A sample frame whose XML has about this many bytes, from few JSON values: an instrumented converter is slow for
    each value."""
    kind = "&" * 64
    count = xml_bytes // len(f"<tt:Object ObjectId='100'><tt:Appearance><tt:Class><tt:Type>{kind.replace('&', '&amp;')}"
                             "</tt:Type></tt:Class></tt:Appearance></tt:Object>")
    objects = ",".join(f'{{"Id":{number},"Type":"{kind}"}}' for number in range(count))
    return f'{{"Objects":[{objects}]}}'


def xml_bytes_of(control, names):
    return [len(control.properties(name)["SampleFrameXML"].encode()) for name in names]


def test_too_long_sample_frames_do_not_end_the_bus_connection(receiver, start_listing_daemon, control):
    daemon = start_listing_daemon()
    too_long = sample_of(MAX_XML_BYTES * 3 // 2)
    assert MAX_PRODUCERS * MAX_XML_BYTES * 3 // 2 > BUS_MESSAGE_BYTES
    alone = [receiver.add(f"alone{number}", sample=too_long) for number in range(MAX_PRODUCERS)]
    wait_until(lambda: len(daemon.log.lines) >= MAX_PRODUCERS or len(control.objects()) >= MAX_PRODUCERS,
               "each is listed or refused", ALL_CONVERTED_SECONDS)
    assert control.has_owner(NAME)
    assert sorted(daemon.log.take()) == sorted(not_converted(producer.name) for producer in alone)
    for producer in alone:
        receiver.remove(producer)

    sample = sample_of(MAX_XML_BYTES * 2 // 3)
    together = [receiver.add(f"together{number}", sample=sample) for number in range(MAX_PRODUCERS)]
    wait_until(lambda: len(daemon.log.lines) + len(control.objects()) >= MAX_PRODUCERS,
               "each is listed or refused", ALL_CONVERTED_SECONDS)
    refused = daemon.log.take()
    listed = [producer for producer in together if not_converted(producer.name) not in refused]
    wait_until_listed(control, *(producer.name for producer in listed))
    lengths = xml_bytes_of(control, [producer.name for producer in listed])
    assert MAX_XML_BYTES // 2 < max(lengths) <= MAX_XML_BYTES
    assert MAX_XML_BYTES_IN_ALL - max(lengths) < sum(lengths) <= MAX_XML_BYTES_IN_ALL
    assert control.has_owner(NAME)

    # One producer is removed, and another one is listed instead; all others are refused again.
    receiver.remove(listed.pop())
    wait_until(lambda: len(control.objects()) == len(listed) + 1, "another one is listed")
    wait_until(lambda: len(daemon.log.lines) >= len(refused) - 1, "all others are refused", ALL_CONVERTED_SECONDS)
    assert len(daemon.log.take(len(refused) - 1)) == len(refused) - 1


# Floods of objects and properties

# Sizes of the floods. Builds with a sanitizer check no memory limit, and are slow.
FLOOD_OBJECTS = 10_000 if SANITIZED else 50_000
FLOOD_CHANGES, FLOOD_CHANGE_BYTES = 30, 8 * 1024 * 1024

# The time limit for all messages of a flood.
FLOOD_SECONDS = 120

# The allowed growth of memory, including all known objects, in addition to GDBus' buffer, which has the size of the
# longest message.
FLOOD_GROWTH_BYTES = 4 * 1024 * 1024

LAST = "/last"

# Log lines about objects without a reply, and about objects beyond the limit or outside the root.
NO_ANSWER = re.compile(r"on_get_sample_frame failed: .*")
CALLS_WAIT = re.compile(rf"calls of the metadata receiver wait: it leaves {MAX_UNANSWERED} unanswered"
                        r"( \(\d+ more since the last such line\))?")
LEFT_OUT = re.compile(rf"left out producer object (\S+): (there are too many|it is not below {ROOT})"
                      r"( \(\d+ more since the last such line\))?")


def announce_in_one_reply(receiver, objects):
    """Returns the length of the longest message."""
    replied = threading.Event()
    body = GLib.Variant("(a{oa{sa{sv}}})", (objects,))

    def reply(call):
        call.reply(body)
        replied.set()

    receiver.on_objects = reply
    receiver.release_name()
    receiver.take_name()
    assert replied.wait(BOUND_SECONDS)
    return body.get_size()


def announce_one_by_one(receiver, objects):
    for path, interfaces in objects.items():
        receiver.client.connection.emit_signal(None, ROOT, OBJECT_MANAGER, "InterfacesAdded",
                                               GLib.Variant("(oa{sa{sv}})", (path, interfaces)))
    receiver.client.connection.flush_sync(None)
    return 0


def announce_last(receiver):
    """The log line about this object follows all others."""
    receiver.emit_added(ROOT, LAST, {})


def expect_memory_back(daemon, before, message_bytes):
    """Expects that the daemon's private memory is hardly larger than before. A sanitizer's allocator keeps freed
    memory."""
    if not SANITIZED:
        bound = before + message_bytes + FLOOD_GROWTH_BYTES
        wait_until(lambda: daemon.private_bytes() < bound, f"no more than {bound} bytes")


@pytest.mark.parametrize("announce", [announce_in_one_reply, announce_one_by_one])
def test_flood_of_objects_leaves_little_in_memory_and_in_the_log(receiver, start_listing_daemon, announce):
    daemon = start_listing_daemon()
    before = daemon.private_bytes()
    began = time.monotonic()
    message_bytes = announce(receiver, {
        producer.path: producer.interfaces for producer in map(Producer, map("flood{}".format, range(FLOOD_OBJECTS)))})
    announce_last(receiver)

    def unanswered():
        return sum(NO_ANSWER.fullmatch(text) is not None for _, text in list(daemon.log.lines))

    def heard_last():
        return any(text.startswith(f"left out producer object {LAST}: ") for _, text in list(daemon.log.lines))

    wait_until(lambda: unanswered() >= MAX_OBJECTS and heard_last(), "all known objects are called", FLOOD_SECONDS)
    expect_memory_back(daemon, before, message_bytes)
    lines = daemon.log.take()
    left_out = [text for _, text in lines if LEFT_OUT.fullmatch(text)]
    unanswered_lines = [text for _, text in lines if NO_ANSWER.fullmatch(text)]
    assert len(unanswered_lines) == MAX_OBJECTS
    # The receiver, busy with its own signals, may reply late.
    assert all(CALLS_WAIT.fullmatch(text) for _, text in lines if text not in left_out + unanswered_lines)
    # Includes the first unknown object, and lines at the end of an interval.
    assert len(left_out) <= 1 + (LOG_BURST + 1) * (1 + (time.monotonic() - began) / LOG_SECONDS)


def test_long_properties_leave_little_in_memory(receiver, start_listing_daemon, control):
    receiver.add(DETECTOR)
    daemon = start_listing_daemon()
    (detector,) = receiver.producers
    before = daemon.private_bytes()
    for name in itertools.islice(itertools.cycle(("NiceName", "Name", "Unknown")), FLOOD_CHANGES):
        receiver.emit_changed(detector.path, PRODUCER, {name: GLib.Variant("s", "x" * FLOOD_CHANGE_BYTES)})
        # The bus drops messages for a daemon that has too many unread ones; this waits until the change is read.
        control.objects()
    receiver.add(COUNTER)
    wait_until_listed(control, DETECTOR, COUNTER)

    expect_memory_back(daemon, before, FLOOD_CHANGE_BYTES)
    assert daemon.log.take() == []


# A converter that hangs


def test_converter_that_hangs_affects_its_producer_alone(installation, receiver, start_daemon, control, workspace):
    _, plugins = installation.new_plugin_folder(EXTERNAL_PLUGINS, failing=True)
    daemon = start_daemon(plugins=EXTERNAL_PLUGINS, environment=plugins)
    threads = daemon.threads()
    folder = workspace.folder()
    (folder / "hang").touch()
    # They would occupy both places until the test ends.
    stuck = [receiver.add(f"stuck{number}", sample=f'{{"hang":"{folder}/hang"}}') for number in range(2)]
    receiver.add(DETECTOR)
    wait_until(lambda: len(daemon.log.lines) >= len(stuck), "they are abandoned", CONVERSION_SECONDS + 20)
    assert sorted(daemon.log.take()) == [not_converted(producer.name) for producer in stuck]
    wait_until_listed(control, DETECTOR)
    receiver.add(COUNTER)
    wait_until_listed(control, DETECTOR, COUNTER)

    # Abandoned producers stay unlisted, and their threads end when the converter continues.
    (folder / "hang").unlink()
    wait_until(lambda: daemon.threads() <= threads + 2, "the threads have ended")
    assert control.objects() == {listed_path_of(name) for name in (DETECTOR, COUNTER)}
    daemon.expect_reply()
