# SPDX-License-Identifier: MIT
"""The library of applications, used from Python: producers on their way through the receiver and the daemon."""

import contextlib
import json
import os
import re
import socket
import threading

import pytest
from gi.repository import Gio, GLib

from external import (ANALYTICS, DETECTOR, DETECTOR_ENABLED, EXTERNAL_PLUGINS, GATE, expect_frames,
                      numbered as detections, wait_until_listed)
from fakeregistry import FakeRegistry, accept, refuse
from installation import TREE
from libraryprogram import PREFACE
from receiverclient import NAME, Stream
from waiting import wait_until

pytestmark = pytest.mark.usefixtures("introspection")

MINE = "Mine"

# Sends the items of its input and prints how many the receiver has not taken.
SENDER = PREFACE + """
producer = Tessard.Producer.new(sys.argv[1], "My detector", [1, 2], None)
for line in sys.stdin:
    try:
        producer.send_json(1, line)
    except GLib.Error as error:
        if not error.matches(Tessard.error_quark(), Tessard.Error.QUEUE_FULL):
            print(error.message, flush=True)
try:
    producer.close()
except GLib.Error as error:
    print(error.message)
print(producer.get_dropped())
"""

# Prints its signals.
LISTENER = PREFACE + """
def tell(*words):
    print(*words, flush=True)

producer = Tessard.Producer.new(sys.argv[1], None, [1, 2], '{"Objects": [{"Id": 1}]}')
for name in ("ready", "listed"):
    producer.connect(f"notify::{name}", lambda *_, name=name: tell(name, producer.get_property(name)))
producer.connect("enabled", lambda _, channel, name: tell("enabled", channel, name, producer.is_enabled(channel)))
producer.connect("disabled", lambda _, channel: tell("disabled", channel, producer.is_enabled(channel)))
producer.connect("interrupted", lambda _, error: tell("interrupted:", error.message))
producer.connect("failed", lambda _, error: tell("failed:", error.message))
GLib.MainLoop().run()
"""

# The same, whose main loop runs when its input has a line.
LATE_LISTENER = LISTENER.replace("GLib.MainLoop()", """
import time
while not producer.get_ready():
    time.sleep(0.01)
tell("waits")
sys.stdin.readline()
GLib.MainLoop()""")

# The same with an item, of which it prints whether it waits.
WAITING_LISTENER = LISTENER.replace("GLib.MainLoop()", """
producer.connect("interrupted", lambda *_: tell("waiting", producer.get_pending()))
producer.send_json(1, "{}")
GLib.MainLoop()""")

# Prints its interruptions, and sends nothing.
SILENT = PREFACE + """
def on_new(source, result):
    global producer
    producer = Tessard.Producer.new_finish(result)
    producer.connect("interrupted", lambda _, error: print(error.message, flush=True))
    print("connected", flush=True)

Tessard.Producer.new_async("Mine", None, [1], None, None, on_new)
GLib.MainLoop().run()
"""

# Applications that end without a word, one after the other: each sends one item and goes when it is written.
RESTARTS = PREFACE + """
import time
for number in range(int(sys.argv[1])):
    child = os.fork()
    if child == 0:
        producer = Tessard.Producer.new("Mine", None, [1], '{"Objects": []}')
        producer.send_json(1, '{"Number": %d}' % number)
        while producer.get_pending() > 0:
            time.sleep(0.01)
        os._exit(0 if producer.get_dropped() == 0 else 1)
    if os.waitpid(child, 0)[1] != 0:
        sys.exit(f"an item of application {number} is dropped")
"""


@pytest.fixture
def registry(start_bus):
    """A fake registry on a bus of its own, and the bus."""
    own_bus = start_bus()
    with contextlib.closing(FakeRegistry(own_bus)) as fake:
        fake.bus = own_bus
        fake.start()
        yield fake


def numbered(number):
    return '{"Number": %d}' % number


def number_in(message):
    return json.loads(message)["Number"]


def next_stream(registry):
    """The read end of channel 1, which is opened before channel 2."""
    (number, fd), (other, other_fd) = registry.channels.get(timeout=30), registry.channels.get(timeout=30)
    assert (number, other) == (1, 2)
    return Stream(fd), Stream(other_fd)


# The way to clients


def test_program_of_five_lines(receiver_process, start_program):
    text = re.search(r"```python\n(.*?)```", (TREE / "docs/library.md").read_text(encoding="utf-8"), re.DOTALL)[1]
    assert len(text.splitlines()) == 5
    assert start_program(text).finish() == (0, "", "")
    assert [line for _, line in receiver_process.log.lines if MINE in line][-1] == f"Producer {MINE} is unregistered"


def test_items_reach_clients_as_onvif(receiver_process, control, start_daemon, start_program):
    daemon = start_daemon(plugins=EXTERNAL_PLUGINS, producers=DETECTOR_ENABLED)
    idle = receiver_process.descriptors()
    program = start_program(SENDER, DETECTOR)
    program.send(detections(0))
    wait_until_listed(control, DETECTOR)
    wait_until(lambda: receiver_process.descriptors() == idle + 2, "the channels are open")
    before = receiver_process.descriptors()
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        wait_until(lambda: receiver_process.descriptors() > before, "the daemon has opened its stream")
        program.send(detections(1), detections(2))
        expect_frames(stream, (GATE, 1), (GATE, 2))
        assert program.finish() == (0, "0\n", "")


def test_application_learns_what_clients_can_get(receiver_process, control, start_daemon, start_program):
    program = start_program(LISTENER, MINE)
    assert program.line() == "ready True"
    daemon = start_daemon(plugins=EXTERNAL_PLUGINS)
    assert program.line() == "listed True"
    control.set_channels(MINE, (2, True, "front door"))
    assert program.line() == "enabled 2 front door True"
    control.set_channels(MINE, (2, True, "back door"))
    assert program.line() == "enabled 2 back door True"
    control.set_channels(MINE, (2, False, ""), (1, True, "hall"))
    assert [program.line(), program.line()] == ["disabled 2 False", "enabled 1 hall True"]
    daemon.end()
    assert [program.line(), program.line()] == ["listed False", "disabled 1 False"]


# The receiver comes and goes


def test_receiver_that_is_killed_and_restarted(receiver_process, receiver_client, start_program):
    """Under load: what arrives is in order, and a new stream gets items again."""
    program = start_program(SENDER, MINE)
    program.send(numbered(0))
    wait_until(lambda: receiver_client.names() == {MINE}, "it is registered")
    stream = receiver_client.open(MINE)
    feeder = Feeder(program)
    first = [stream.item()["Number"] for _ in range(100)]
    receiver_process.kill()
    receiver_process.start()
    receiver_process.wait_until_ready()
    wait_until(lambda: receiver_client.names() == {MINE}, "it is registered again")
    stream = receiver_client.open(MINE)
    second = [stream.item()["Number"] for _ in range(100)]
    feeder.stop()
    numbers = first + second
    assert numbers == sorted(set(numbers))
    status, out, err = program.finish()
    assert (status, err) == (0, "") and int(out.splitlines()[-1]) < feeder.count
    # The test reads the streams more slowly than the program writes.
    stream.close()
    wait_until(lambda: receiver_client.names() == set(), "it is unregistered")
    receiver_process.take_warnings()


class Feeder:
    """Sends numbered items without a pause, from a thread of its own."""

    def __init__(self, program):
        self.program = program
        self.count = 1
        self.stopping = False
        self.thread = threading.Thread(target=self._run)
        self.thread.start()

    def _run(self):
        while not self.stopping:
            self.program.send(*map(numbered, range(self.count, self.count + 10)))
            self.count += 10

    def stop(self):
        self.stopping = True
        self.thread.join()


def test_nothing_is_lost_that_is_not_counted(registry, start_program):
    """The receiver goes with items in its pipe that it has not read, and comes back."""
    program = start_program(SENDER, MINE, on=registry.bus)
    received = []
    feeder = Feeder(program)
    for _ in range(3):
        stream, other = next_stream(registry)
        received += [number_in(stream.message()) for _ in range(500)]
        wait_until(lambda stream=stream: stream.has_something(), "there is more in the pipe")
        registry.client.release(NAME)
        stream.close()
        other.close()
        registry.client.own(NAME)
    stream, other = next_stream(registry)
    reader = threading.Thread(target=lambda: received.extend(map(number_in, stream.messages_to_end())))
    reader.start()
    feeder.stop()
    status, out, err = program.finish()
    reader.join()
    assert (status, err) == (0, "")
    assert received == sorted(set(received))
    assert len(received) + int(out.splitlines()[-1]) == feeder.count - 1
    stream.close()
    other.close()


def test_hundred_restarts_of_the_application(receiver_process, receiver_client, application, start_program):
    """Clients keep their stream, and get the items of all."""
    application.register(MINE, channels=(1,), sample='{"Objects": []}')
    stream = receiver_client.open(MINE)
    application.close()
    receiver_process.wait_until_disconnected(MINE)
    program = start_program(RESTARTS, "100")
    assert [stream.item()["Number"] for _ in range(100)] == list(range(100))
    assert program.finish() == (0, "", "")


def test_receiver_that_does_not_read(registry, start_program):
    """The application is not held up; what does not fit is counted."""
    program = start_program(SENDER, MINE, on=registry.bus)
    program.send(numbered(0))
    stream, other = next_stream(registry)
    text = "x" * 1000
    program.send(*(json.dumps({"Number": number, "Text": text}) for number in range(1, 5000)))
    program.process.stdin.close()
    program.process.stdin = None
    wait_until(lambda: program.process.poll() is None, "it still closes")
    reader = [number_in(message) for message in stream.messages_to_end()]
    out, err = program.process.communicate(timeout=30)
    assert err == b"" and reader == sorted(set(reader))
    assert len(reader) + int(out.splitlines()[-1]) == 5000
    stream.close()
    other.close()


# Refusals, and replies of another receiver


@pytest.mark.parametrize("name, message", [
    ("a-b", "A producer's name must be 1 to 255 letters, digits and underscores"),
    ("", "A producer's name must be 1 to 255 letters, digits and underscores"),
])
def test_receiver_refuses_the_description(receiver_process, start_program, name, message):
    assert start_program(LISTENER, name).line() == f"failed: {message}"


def test_name_is_taken_over_when_it_is_free(receiver_process, application, start_program):
    application.register(MINE)
    program = start_program(LISTENER, MINE)
    owner = application.connection.get_unique_name()
    assert program.line() == f"interrupted: {owner} has registered {MINE}"
    application.unregister(MINE)
    while (line := program.line()) != "ready True":
        assert line == f"interrupted: {owner} has registered {MINE}"


def with_descriptor(make):
    """A handler that replies with one end of what `make` makes."""

    def handle(call):
        kept, sent = make()
        reply = accept(call)
        reply.set_body(GLib.Variant("(h)", (0,)))
        descriptors = Gio.UnixFDList.new()
        descriptors.append(sent)
        reply.set_unix_fd_list(descriptors)
        os.close(sent)
        os.close(kept)
        return reply

    return handle


def of_wrong_type(call):
    reply = accept(call)
    reply.set_body(GLib.Variant("(s)", ("x",)))
    return reply


@pytest.mark.parametrize("method, handler", [
    ("RegisterProducer", of_wrong_type),
    ("OpenChannel", of_wrong_type),
    ("OpenChannel", accept),
    ("OpenChannel", with_descriptor(lambda: tuple(end.detach() for end in socket.socketpair()))),
    ("OpenChannel", with_descriptor(lambda: tuple(reversed(os.pipe())))),
], ids=["registration", "type", "nothing", "socket", "read end"])
def test_malformed_reply(registry, start_program, method, handler):
    """The application goes on, and the next receiver takes its items."""
    registry.handlers[method].put(handler)
    program = start_program(LISTENER, MINE, on=registry.bus)
    assert program.line().startswith("failed: The receiver sent a malformed reply: ")
    registry.client.release(NAME)
    assert program.line() == "interrupted: The receiver is not on the bus: 'com.quon.MetadataReceiver1' has no owner."
    registry.client.own(NAME)
    assert program.line() == "ready True"


@pytest.mark.parametrize("error", ["LimitExceeded", "NoDescriptor", "ChannelOpen"])
def test_refusal_that_passes(registry, start_program, error):
    registry.handlers["OpenChannel"].put(refuse(error))
    program = start_program(LISTENER, MINE, on=registry.bus)
    assert program.line() == f"interrupted: The receiver refuses for now: No: {error}."
    assert program.line() == "ready True"


def test_each_reason_is_told(registry, start_program):
    """Also if the main loop runs late."""
    program = start_program(LATE_LISTENER, MINE, on=registry.bus)
    streams = [*next_stream(registry)]
    assert program.line() == "waits"
    for stream in streams:
        stream.close()
    streams = [*next_stream(registry)]
    registry.client.release(NAME)
    registry.client.own(NAME)
    streams += next_stream(registry)
    program.send("")
    lines = [program.line() for _ in range(3)]
    lines.remove("ready True")
    assert lines == ["interrupted: The receiver has closed a channel.",
                     "interrupted: The receiver is not on the bus: 'com.quon.MetadataReceiver1' has no owner."]
    for stream in streams:
        stream.close()


@pytest.mark.parametrize("method", ["RegisterProducer", "OpenChannel"])
def test_bus_that_ends_during_a_call(registry, start_program, method):
    """The receiver has not replied, and has not refused either: the item waits for the next one."""
    registry.handlers[method].put(lambda call: None)
    program = start_program(WAITING_LISTENER, MINE, on=registry.bus)
    wait_until(lambda: method in registry.calls, "it calls")
    registry.bus.stop()
    lines = [program.line(), program.line()]
    if "not on the bus" in lines[0]:
        # The bus has disconnected the receiver first.
        lines = [program.line(), program.line()]
    assert lines == ["interrupted: The bus closed the connection.", "waiting 1"]


def test_bus_that_ends_before_the_first_item(registry, start_program):
    program = start_program(SILENT, on=registry.bus)
    assert program.line() == "connected"
    registry.bus.stop()
    assert program.line() == "The bus closed the connection."


def test_bus_that_restarts(installation, start_bus, start_program):
    own_bus = start_bus()
    first = FakeRegistry(own_bus)
    first.start()
    program = start_program(LISTENER, MINE, on=own_bus)
    assert program.line() == "ready True"
    first.close()
    assert program.line() == "ready False"
    program.line()
    own_bus.stop()
    assert program.line() == "interrupted: The bus closed the connection."
    own_bus.start()
    with contextlib.closing(FakeRegistry(own_bus)) as second:
        second.start()
        while program.line() != "ready True":
            pass
