# SPDX-License-Identifier: MIT
"""tessardctl produce: lines of standard input on their way through the receiver and the daemon to clients."""

import contextlib
import json
import os
import re
import signal
import subprocess
import time

import pytest
from gi.repository import GLib

import fakereceiver
from external import (ANALYTICS, DETECTOR, DETECTOR_ENABLED, EXTERNAL_PLUGINS, GATE, expect_frames, numbered,
                      wait_until_listed)
from fakeregistry import FakeRegistry, accept, refuse
from installation import BUS_CONFIGURATION, TREE, Bus, defined_limits
from receiverclient import LENGTH, NAME, ReceiverClient, Stream
from receiverprocess import LIMITS, REGISTRY, Application, Receiver, unread_bytes
from tessardctl import ENDED, LOCAL, MALFORMED, NO_CONNECTION, REFUSED, SUCCESS, TIMED_OUT, Tessardctl, failure
from waiting import BOUND_SECONDS, suspended, wait_until, wait_until_settled

MINE = "Mine"

MAX_LINE = defined_limits(TREE / "tools/produceritem.h")["PRODUCE_MAX_LINE_BYTES"]
MAX_SAMPLE = defined_limits(TREE / "tools/produceoptions.h")["PRODUCE_MAX_SAMPLE_BYTES"]
END_SECONDS = defined_limits(TREE / "lib/tessardproducer.h")["TESSARD_PRODUCER_CLOSE_MS"] / 1000

ABSENT = "The receiver is not on the bus: 'com.quon.MetadataReceiver1' has no owner."
CLOSED = "The receiver has closed a channel."
SILENT = "The receiver does not read."

POLICY_REFUSAL = ("The bus policy refused the call: only root and members of the group 'tessard-producer' can register "
                  "producers.")


SAMPLE = str(TREE / "examples/detector-sample.json")

# Of standard input, output and error.
STANDARD_PIPES = 3

# Lines of a kilobyte: more than a pipe holds.
FLOOD = 300


def dropping(reason):
    return f"tessardctl: {reason} Lines are dropped until it takes them.\n".encode()


def taking_again(count):
    return f"tessardctl: The receiver takes lines again; dropped lines: {count}.\n".encode()


@pytest.fixture
def receiver(installation, bus):
    started = Receiver(installation, bus)
    try:
        started.wait_until_ready()
        yield started
    finally:
        started.finish()


@pytest.fixture
def reader(bus):
    with contextlib.closing(ReceiverClient(bus)) as client:
        yield client


@pytest.fixture
def start_produce(tessardctl, bus):
    """Starts "tessardctl produce" with a pipe as standard input."""
    with contextlib.ExitStack() as started:

        def start(*args, on=bus, **popen_args):
            producer = Tessardctl("produce", *args, env={"DBUS_SYSTEM_BUS_ADDRESS": on.address},
                                  **({"stdin": subprocess.PIPE} | popen_args))
            started.callback(producer.clean_up)
            return producer

        yield start


@pytest.fixture
def run_produce(start_produce):
    """Runs it with this input."""

    def run(*args, text="", **arguments):
        producer = start_produce(*args, **arguments)
        out, err = producer.process.communicate(text.encode(), timeout=BOUND_SECONDS)
        return producer.process.returncode, out, err

    return run


@pytest.fixture
def registry(start_bus):
    """A fake registry on a bus of its own, and the bus."""
    own_bus = start_bus()
    with contextlib.closing(FakeRegistry(own_bus)) as fake:
        fake.bus = own_bus
        yield fake


@pytest.fixture
def produce_fake(start_produce, registry):
    """Starts it at the fake registry."""

    def start(*args, lines=(numbered(0),)):
        registry.start()
        producer = start_produce(MINE, *args, on=registry.bus)
        send(producer, *lines)
        return producer

    return start


def send(producer, *lines):
    """Writes lines, with a time limit."""
    fakereceiver.Stream(producer.process.stdin.fileno(), None).write("".join(f"{line}\n" for line in lines).encode())


def wait_until_taken(producer, number):
    """Sends a line that is no item, and waits until it is named: then those before it are sent or dropped."""
    send(producer, "no item")
    message = f"tessardctl: Line {number + 1} is skipped: it is no JSON, or beyond the limits.\n"
    assert stderr_of(producer, 1) == message.encode()


def flood(producer):
    """Sends more than the pipe to the receiver holds, in numbered lines."""
    send(producer, *(json.dumps({"Number": number, "Text": "x" * 1000}) for number in range(FLOOD)))


def stderr_of(producer, count):
    """The next lines of standard error."""
    data = b""
    while data.count(b"\n") < count:
        some = Stream(producer.process.stderr.fileno()).read_some(65536)
        assert some, data
        data += some
    return data


def wait_for_names(reader, *names):
    wait_until(lambda: reader.names() == set(names), f"{names} are registered")


def unread(producer):
    """How many bytes of its input it has not read."""
    return unread_bytes(producer.process.stdin.fileno())


def is_deaf(producer):
    """Whether it reads its input no more."""
    send(producer, "")
    return wait_until_settled(lambda: unread(producer), "the input is read or not", seconds=0.5) > 0


def start_registered(start_produce, reader, *args, **arguments):
    """Starts it with a sample frame, so that it registers before the first line."""
    producer = start_produce(MINE, "--sample", SAMPLE, *args, **arguments)
    wait_for_names(reader, MINE)
    wait_for_channels(producer, args.count("--channel") or 1)
    return producer


def wait_for_channels(producer, count=1):
    wait_until(lambda: len(pipes_of(producer)) == STANDARD_PIPES + count, "the channels are open")


def pipes_of(producer):
    """The pipes that it has open."""
    folder = f"/proc/{producer.process.pid}/fd"
    found = []
    for fd in os.listdir(folder):
        with contextlib.suppress(FileNotFoundError):
            found.append(os.readlink(f"{folder}/{fd}"))
    return [target for target in found if target.startswith("pipe:")]


def texts(count, start=0):
    return [numbered(number) for number in range(start, start + count)]


def expect_messages(stream, lines):
    assert stream.messages(len(lines)) == [line.encode() for line in lines]


# The way to clients


def test_lines_reach_clients_as_onvif(receiver, control, start_daemon, start_produce):
    daemon = start_daemon(plugins=EXTERNAL_PLUGINS, producers=DETECTOR_ENABLED)
    producer = start_produce(DETECTOR, "--sample", SAMPLE)
    wait_until_listed(control, DETECTOR)
    wait_for_channels(producer)
    before = receiver.descriptors()
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        wait_until(lambda: receiver.descriptors() > before, "the daemon has opened its stream")
        send(producer, numbered(1), numbered(2))
        expect_frames(stream, (GATE, 1), (GATE, 2))
        assert producer.finish() == (SUCCESS, b"", b"")
        wait_until_listed(control)


def test_detections_keep_their_text(receiver, reader, start_produce):
    producer = start_registered(start_produce, reader)
    stream = reader.open(MINE)
    lines = ['{"Objects": [{"Id": 1, "Type": "Zähler"}]}', "  {}", '{"Unknown": 1}\t']
    send(producer, *lines)
    expect_messages(stream, lines)


def test_first_item_is_the_sample_frame(receiver, reader, start_produce):
    producer = start_produce(MINE)
    send(producer, "", "no item", '{"Objects": []}', numbered(1))
    wait_for_names(reader, MINE)
    assert reader.sample_frame(MINE) == '{"Objects": []}'
    assert reader.properties(MINE) == "{'Name': <'Mine'>, 'NiceName': <'Mine'>, 'SupportedChannels': <[uint32 1]>}"


def test_description_comes_from_the_options(receiver, reader, start_produce, tmp_path):
    sample = tmp_path / "sample.json"
    sample.write_text('{"Objects": [\n{"Id": 7}]}\n', encoding="utf-8")
    start_produce(MINE, "--nice-name", "Mein Zähler", "--channel", "3", "--channel=2", "--sample", str(sample))
    wait_for_names(reader, MINE)
    assert reader.sample_frame(MINE) == '{"Objects": [\n{"Id": 7}]}\n'
    assert reader.properties(MINE) == ("{'Name': <'Mine'>, 'NiceName': <'Mein Zähler'>, "
                                       "'SupportedChannels': <[uint32 3, 2]>}")


def test_every_channel_gets_every_line(receiver, reader, start_produce):
    producer = start_registered(start_produce, reader, "--channel", "1", "--channel", "7")
    streams = [reader.open(MINE, channel) for channel in (1, 7)]
    lines = texts(100)
    send(producer, *lines)
    for stream in streams:
        expect_messages(stream, lines)
    assert producer.finish() == (SUCCESS, b"", b"")


def test_other_bus(receiver, reader, bus, start_produce):
    class Elsewhere:
        address = "unix:path=/nonexistent"

    producer = start_produce(MINE, "--bus", bus.address, on=Elsewhere)
    send(producer, "{}")
    wait_for_names(reader, MINE)
    assert producer.finish() == (SUCCESS, b"", b"")


# Lines


BAD_LINES = [
    ("no item", "it is no JSON, or beyond the limits"),
    ("[]", "an item is no object"),
    ("1", "an item is no object"),
    ("{},{}", "it is more than one item"),
    ('{"Objects": {}}', '"Objects" or "Deleted" of an item is no array or too long'),
    ('{"a": NaN}', "it is no JSON, or beyond the limits"),
    ('{}]},"Data":{"Item":[{}', "it is not one frame with one source"),
]


def test_bad_lines_are_named_and_skipped(receiver, reader, start_produce):
    producer = start_registered(start_produce, reader)
    stream = reader.open(MINE)
    for number, (line, reason) in enumerate(BAD_LINES):
        send(producer, line, "", numbered(number))
        expect_messages(stream, [numbered(number)])
        assert stderr_of(producer, 1) == f"tessardctl: Line {3 * number + 1} is skipped: {reason}.\n".encode()
    assert producer.finish() == (SUCCESS, b"", b"")


def test_bytes_that_are_no_text_are_skipped(receiver, reader, start_produce):
    producer = start_registered(start_produce, reader)
    stream = reader.open(MINE)
    producer.process.stdin.write(b'{"a":"\xff"}\n{"a":"\0"}\n' + numbered(1).encode())
    producer.process.stdin.close()
    producer.process.stdin = None
    expect_messages(stream, [numbered(1)])
    assert producer.finish() == (SUCCESS, b"", b"".join(
        f"tessardctl: Line {number} is skipped: it is no JSON, or beyond the limits.\n".encode() for number in (1, 2)))


def test_line_with_a_wrong_object_is_passed_on(receiver, reader, start_produce):
    """As the daemon leaves out that object only."""
    producer = start_registered(start_produce, reader)
    stream = reader.open(MINE)
    line = '{"Objects": [{"Id": 1}, {"Id": 1}]}'
    send(producer, line)
    expect_messages(stream, [line])
    assert producer.finish() == (SUCCESS, b"", b"tessardctl: Line 1 is left out in part: an object's \"Id\" is there "
                                               b"twice.\n")


def test_lines_that_are_too_long_are_skipped(receiver, reader, start_produce):
    assert MAX_LINE == LIMITS["RECEIVER_MAX_MESSAGE_BYTES"]
    producer = start_registered(start_produce, reader)
    stream = reader.open(MINE)
    longest = "{" + " " * (MAX_LINE - 100) + "}"
    send(producer, "{" + " " * (MAX_LINE - 2) + "}", "x" * (MAX_LINE + 1), longest)
    expect_messages(stream, [longest])
    assert producer.finish() == (SUCCESS, b"", b"tessardctl: Line 1 is skipped: it is too long.\n"
                                               b"tessardctl: Line 2 is skipped: it is too long.\n")


def test_line_without_an_end_takes_no_memory(receiver, reader, start_produce):
    def peak():
        with open(f"/proc/{producer.process.pid}/status", encoding="ascii") as status:
            return int(re.search(r"VmHWM:\s+(\d+) kB", status.read())[1]) * 1024

    producer = start_registered(start_produce, reader)
    before = peak()
    stream = reader.open(MINE)
    send(producer, "x" * (64 * MAX_LINE), numbered(1))
    expect_messages(stream, [numbered(1)])
    assert peak() - before < 16 * MAX_LINE
    assert stderr_of(producer, 1) == b"tessardctl: Line 1 is skipped: it is too long.\n"


@pytest.mark.parametrize("line, message", [
    ("no item", "Line 3 is skipped: it is no JSON, or beyond the limits."),
    ('{"Objects": [{}]}', "Line 3 is left out in part: an object's \"Id\" is missing or no whole number of 64 bits."),
])
def test_strict_ends_with_the_first_bad_line(receiver, reader, start_produce, line, message):
    producer = start_registered(start_produce, reader, "--strict")
    stream = reader.open(MINE)
    send(producer, numbered(1), "", line, numbered(2))
    expect_messages(stream, [numbered(1)])
    stream.expect_end()
    assert producer.finish() == failure(REFUSED, message)
    assert reader.names() == set()


def test_strict_accepts_good_lines(receiver, run_produce):
    assert run_produce(MINE, "--strict", text="{}\n\r\n{}\r\n{}") == (SUCCESS, b"", b"")


# The end


def test_end_of_input_loses_nothing(receiver, reader, start_produce):
    producer = start_registered(start_produce, reader)
    stream = reader.open(MINE)
    lines = texts(1000)
    send(producer, *lines)
    assert producer.finish() == (SUCCESS, b"", b"")
    assert reader.names() == set()
    expect_messages(stream, lines)
    stream.expect_end()


def test_last_line_needs_no_line_feed(receiver, reader, start_produce):
    producer = start_registered(start_produce, reader)
    stream = reader.open(MINE)
    producer.process.stdin.write(b"{}")
    assert producer.finish() == (SUCCESS, b"", b"")
    expect_messages(stream, ["{}"])


def test_producer_of_one_line_is_registered(receiver, run_produce):
    assert run_produce(MINE, text="{}") == (SUCCESS, b"", b"")
    for what in ("registered by ", "unregistered"):
        wait_until(lambda what=what: any(f"Producer {MINE} is {what}" in text for _, text in list(receiver.log.lines)),
                   f"it is {what}")


def test_empty_input_is_no_failure(receiver, run_produce):
    assert run_produce(MINE) == (SUCCESS, b"", b"")
    assert not any(MINE in text for _, text in receiver.log.lines)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signals_end_it(receiver, reader, start_produce, number):
    producer = start_registered(start_produce, reader)
    assert producer.end_by(number) == (SUCCESS, b"", b"")
    assert reader.names() == set()


def test_directory_as_input(receiver, start_produce, tmp_path):
    folder = os.open(tmp_path, os.O_RDONLY)
    result = start_produce(MINE, stdin=folder).finish()
    os.close(folder)
    assert result == failure(LOCAL, "Could not read standard input: Is a directory.")


# The receiver comes and goes


def test_receiver_that_is_killed_and_restarted(receiver, reader, start_produce):
    producer = start_registered(start_produce, reader)
    stream = reader.open(MINE)
    send(producer, numbered(1))
    expect_messages(stream, [numbered(1)])
    receiver.kill()
    assert stderr_of(producer, 1) in (dropping(CLOSED), dropping(ABSENT))
    lines = texts(5000)
    send(producer, *lines)
    wait_until_taken(producer, 1 + len(lines))

    receiver.start()
    receiver.wait_until_ready()
    wait_for_names(reader, MINE)
    stream = reader.open(MINE)
    number = send_until_taken(producer, stream)
    dropped = dropped_lines(producer)
    assert len(lines) <= dropped <= len(lines) + number
    assert producer.finish() == (SUCCESS, b"", b"")


def send_until_taken(producer, stream):
    """Sends lines until one arrives; its channel opens at any time. Returns how many."""
    sent = 0

    def taken():
        nonlocal sent
        send(producer, numbered(sent))
        sent += 1
        return stream.has_something(0.05)

    wait_until(taken, "a line arrives")
    return sent


def dropped_lines(producer):
    """How many lines were dropped, as its next message says."""
    message = re.fullmatch(rb"tessardctl: The receiver takes lines again; dropped lines: (\d+)\.\n",
                           stderr_of(producer, 1))
    return int(message[1])


def test_receiver_that_starts_later(installation, bus, reader, start_produce):
    producer = start_produce(MINE)
    send(producer, numbered(1), numbered(2))
    assert stderr_of(producer, 1) == dropping(ABSENT)
    wait_until(lambda: unread(producer) == 0, "the lines are read")
    receiver = Receiver(installation, bus)
    try:
        receiver.wait_until_ready()
        wait_for_names(reader, MINE)
        assert reader.sample_frame(MINE) == numbered(1)
        stream = reader.open(MINE)
        send_until_taken(producer, stream)
        stderr_of(producer, 1)
        assert producer.finish() == (SUCCESS, b"", b"")
    finally:
        receiver.finish()


def test_input_ends_before_the_receiver_starts(bus, run_produce):
    assert run_produce(MINE, text="{}\n") == (NO_CONNECTION, b"", dropping(ABSENT) + f"tessardctl: {ABSENT}\n".encode())


def test_receiver_that_does_not_read(receiver, reader, start_produce):
    """Lines wait for some time, then they are dropped; the program before the pipe is never stopped for long."""
    producer = start_registered(start_produce, reader)
    stream = reader.open(MINE)
    send(producer, numbered(1))
    expect_messages(stream, [numbered(1)])
    with suspended(receiver.process):
        flood(producer)
        assert stderr_of(producer, 1) == dropping(SILENT)
        wait_until_taken(producer, 1 + FLOOD)
    numbers = []
    while stream.has_something(1):
        numbers.append(stream.item()["Number"])
    assert 0 < len(numbers) < FLOOD and numbers == list(range(len(numbers)))
    send(producer, numbered(2))
    expect_messages(stream, [numbered(2)])
    assert stderr_of(producer, 1) == taking_again(FLOOD - len(numbers))


# Lines that a pipe holds, and then some that it does not, because the first of these is too long.
FITTING = [json.dumps({"Number": number, "Text": "x" * 1000}) for number in range(40)]
WAITING = [json.dumps({"Text": "x" * 12_000}), *texts(3)]


@pytest.fixture
def produce_waiting(registry, produce_fake):
    """Starts it at a fake registry that does not read, with lines that wait. Returns it with its stream."""
    producer = produce_fake(lines=FITTING)
    _, stream = next_channel(registry)
    full = sum(LENGTH.size + len(line) for line in FITTING)
    wait_until(lambda: unread_bytes(stream.fd) == full, "the first lines are in the pipe")
    send(producer, *WAITING)
    yield producer, stream
    stream.close()


def test_few_lines_that_the_receiver_does_not_read(produce_waiting):
    """Each line arrives or is counted."""
    producer, stream = produce_waiting
    assert stderr_of(producer, 1) == dropping(SILENT)
    expect_messages(stream, FITTING + WAITING[:1])
    sent = send_until_taken(producer, stream)
    dropped = dropped_lines(producer)
    assert producer.finish() == (SUCCESS, b"", b"")
    assert len(stream.messages_to_end()) + dropped == len(WAITING[1:]) + sent


def test_input_ends_while_the_receiver_does_not_read(produce_waiting):
    producer, _ = produce_waiting
    assert producer.finish() == (SUCCESS, b"", dropping(SILENT))


def test_input_ends_before_the_receiver_reads(produce_waiting):
    """The command waits for it."""
    producer, stream = produce_waiting
    producer.process.stdin.close()
    producer.process.stdin = None
    assert stream.messages_to_end() == [line.encode() for line in FITTING + WAITING]
    assert producer.finish() == (SUCCESS, b"", b"")


def test_input_is_read_at_the_pace_of_the_receiver(registry, start_produce, tmp_path):
    """More lines than the library keeps."""
    lines = texts(5 * defined_limits(TREE / "lib/messagequeue.h")["TESSARD_QUEUE_MAX_ITEMS"])
    path = tmp_path / "lines"
    path.write_text("".join(f"{line}\n" for line in lines), encoding="utf-8")
    registry.start()
    with path.open("rb") as file:
        producer = start_produce(MINE, on=registry.bus, stdin=file)
    _, stream = next_channel(registry)
    wait_until_settled(lambda: unread_bytes(stream.fd), "the pipe is full", seconds=0.2)
    expect_messages(stream, lines)
    assert producer.finish() == (SUCCESS, b"", b"")
    stream.close()


def test_signal_while_the_receiver_does_not_read(receiver, reader, start_produce):
    producer = start_registered(start_produce, reader)
    with suspended(receiver.process):
        flood(producer)
        assert stderr_of(producer, 1) == dropping(SILENT)
        assert producer.end_by() == (SUCCESS, b"", b"")


def test_two_signals_end_it_at_once(receiver, reader, start_produce):
    producer = start_registered(start_produce, reader)
    with suspended(receiver.process):
        flood(producer)
        assert stderr_of(producer, 1) == dropping(SILENT)
        producer.kill()
        wait_until(lambda: is_deaf(producer), "the first signal is handled")
        started = time.monotonic()
        assert producer.end_by() == (SUCCESS, b"", b"")
        assert time.monotonic() - started < END_SECONDS - 1


def test_bus_that_goes_before_the_first_line(registry, start_produce):
    registry.start()
    producer = start_produce(MINE, on=registry.bus)
    send(producer, "")
    wait_until(lambda: unread(producer) == 0, "it is connected and reads")
    registry.bus.stop()
    assert producer.process.wait(BOUND_SECONDS) == ENDED
    assert producer.finish() == failure(ENDED, "The bus closed the connection.")


def test_bus_that_goes(installation, start_bus, start_produce):
    own_bus = start_bus()
    receiver = Receiver(installation, own_bus)
    try:
        receiver.wait_until_ready()
        producer = start_produce(MINE, on=own_bus)
        send(producer, "{}")
        wait_until(lambda: any("is registered" in text for _, text in receiver.log.lines), "it is registered")
        own_bus.stop()
        assert producer.process.wait(BOUND_SECONDS) == ENDED
        assert producer.finish().err.endswith(b"tessardctl: The bus closed the connection.\n")
        receiver.wait()
        receiver.take_warnings(1)
    finally:
        receiver.finish()


# Refusals


def test_name_that_is_taken(receiver, reader, bus, run_produce):
    with contextlib.closing(Application(bus)) as application:
        application.register(MINE)
        owner = application.connection.get_unique_name()
        assert run_produce(MINE, text="{}\n") == failure(REFUSED, f"{owner} has registered {MINE}")


def test_name_that_is_taken_while_the_receiver_is_away(registry, produce_fake):
    producer = produce_fake()
    _, stream = next_channel(registry)
    registry.handlers["RegisterProducer"].put(refuse("NameTaken"))
    registry.client.release(NAME)
    assert stderr_of(producer, 1) == dropping(ABSENT)
    registry.client.own(NAME)
    assert producer.process.wait(BOUND_SECONDS) == REFUSED
    assert producer.finish() == failure(REFUSED, "No: NameTaken")
    stream.close()


@pytest.mark.parametrize("arguments, message", [
    (["a-b"], "A producer's name must be 1 to 255 letters, digits and underscores"),
    ([MINE, "--channel", "0"], "A channel must be a number from 1 to 2147483647"),
    ([MINE, "--channel", "1", "--channel", "1"], "A channel must be listed once"),
])
def test_receiver_refuses_the_description(receiver, run_produce, arguments, message):
    assert run_produce(*arguments, text="{}\n") == failure(REFUSED, message)


def test_first_line_that_is_no_sample_frame(receiver, run_produce):
    assert MAX_SAMPLE == LIMITS["RECEIVER_MAX_SAMPLE_FRAME_BYTES"]
    size = MAX_SAMPLE + 1
    assert run_produce(MINE, text="{" + " " * (size - 2) + "}\n") == failure(
        REFUSED, f"The sample frame must have at most {MAX_SAMPLE} bytes, not {size}")


def test_bus_policy_refuses(installation, start_bus, run_produce):
    rule = f'<policy context="mandatory"><deny send_interface="{REGISTRY}"/></policy></busconfig>'
    text = BUS_CONFIGURATION.read_text(encoding="utf-8").replace("</busconfig>", rule)
    own_bus = start_bus(text=text)
    receiver = Receiver(installation, own_bus)
    try:
        receiver.wait_until_ready()
        assert run_produce(MINE, text="{}\n", on=own_bus) == failure(REFUSED, POLICY_REFUSAL)
    finally:
        receiver.finish()


def test_no_bus(run_produce):
    class Nowhere:
        address = "unix:path=/nonexistent"

    status, out, err = run_produce(MINE, on=Nowhere)
    assert (status, out) == (NO_CONNECTION, b"")
    assert err.startswith(b"tessardctl: Could not connect to the bus: ")


@pytest.mark.parametrize("content, message", [
    (b"[]", "an item is no object"),
    (b"", "there is no item, or too many"),
    (b'{"Objects": [{}]}', "an object's \"Id\" is missing or no whole number of 64 bits"),
    (b" " * (MAX_SAMPLE + 1), f"more than {MAX_SAMPLE} bytes"),
], ids=["array", "empty", "wrong object", "too long"])
def test_wrong_sample_frame(run_produce, tmp_path, content, message):
    sample = tmp_path / "sample.json"
    sample.write_bytes(content)
    assert run_produce(MINE, "--sample", str(sample)) == failure(LOCAL, f"Could not use '{sample}': {message}.")


def test_missing_sample_frame(run_produce):
    assert run_produce(MINE, "--sample", "/nonexistent") == failure(
        LOCAL, "Could not open '/nonexistent': No such file or directory.")


# Replies of another receiver


def next_channel(registry, seconds=BOUND_SECONDS):
    channel, fd = registry.channels.get(timeout=seconds)
    return channel, Stream(fd)


@pytest.mark.parametrize("method, error", [("RegisterProducer", "LimitExceeded"), ("OpenChannel", "LimitExceeded"),
                                           ("OpenChannel", "NoDescriptor"), ("OpenChannel", "ChannelOpen")])
def test_refusal_that_passes(registry, produce_fake, method, error):
    registry.handlers[method].put(refuse(error))
    registry.handlers[method].put(refuse(error))
    producer = produce_fake()
    assert stderr_of(producer, 1) == dropping(f"The receiver refuses for now: No: {error}.")
    _, stream = next_channel(registry)
    send_until_taken(producer, stream)
    assert registry.calls.count(method) == 3
    stream.close()


def test_channel_that_the_receiver_closes(registry, produce_fake):
    """It is opened again, alone."""
    producer = produce_fake("--channel", "1", "--channel", "2")
    (_, first), (number, second) = next_channel(registry), next_channel(registry)
    assert number == 2 and first.message() == second.message() == numbered(0).encode()
    second.close()
    assert stderr_of(producer, 1) == dropping(CLOSED)
    number, second = next_channel(registry)
    assert number == 2
    send_until_taken(producer, second)
    assert registry.calls == ["RegisterProducer"] + 3 * ["OpenChannel"]
    first.close()
    second.close()


@pytest.mark.parametrize("channels", [1, 2])
def test_lines_that_the_receiver_has_not_read(registry, produce_fake, channels):
    """They count as dropped when it closes the channels, once for all of them."""
    lines = texts(10)
    producer = produce_fake(*(f"--channel={number + 1}" for number in range(channels)), lines=lines)
    streams = [next_channel(registry)[1] for _ in range(channels)]
    full = sum(LENGTH.size + len(line) for line in lines)
    wait_until(lambda: all(unread_bytes(stream.fd) == full for stream in streams), "all is written")
    for stream in streams:
        stream.close()
    assert stderr_of(producer, 1) == dropping(CLOSED)
    streams = [next_channel(registry)[1] for _ in range(channels)]
    sent = send_until_taken(producer, streams[0])
    dropped = dropped_lines(producer)
    assert producer.finish() == (SUCCESS, b"", b"")
    for stream in streams:
        assert len(stream.messages_to_end()) + dropped == len(lines) + sent
        stream.close()


@pytest.mark.parametrize("error", ["UnknownProducer", "NotOwner"])
def test_receiver_that_has_forgotten_the_producer(registry, produce_fake, error):
    producer = produce_fake()
    _, stream = next_channel(registry)
    registry.handlers["OpenChannel"].put(refuse(error))
    stream.close()
    assert stderr_of(producer, 1) == dropping(CLOSED)
    _, stream = next_channel(registry)
    assert registry.calls == ["RegisterProducer", "OpenChannel", "OpenChannel", "RegisterProducer", "OpenChannel"]
    stream.close()


def without_descriptor(call):
    reply = accept(call)
    reply.set_body(GLib.Variant("(h)", (0,)))
    return reply


def of_wrong_type(call):
    reply = accept(call)
    reply.set_body(GLib.Variant("(s)", ("x",)))
    return reply


@pytest.mark.parametrize("method, handler", [("OpenChannel", without_descriptor), ("OpenChannel", of_wrong_type),
                                             ("OpenChannel", accept), ("RegisterProducer", of_wrong_type)])
def test_malformed_reply(registry, produce_fake, method, handler):
    registry.handlers[method].put(handler)
    result = produce_fake().finish()
    assert result.status == MALFORMED
    assert result.err.startswith(b"tessardctl: The receiver sent a malformed reply: ")


def test_receiver_that_does_not_reply(registry, produce_fake):
    """Lines wait for the registration, and the input ends without it."""
    registry.handlers["RegisterProducer"].put(lambda call: None)
    producer = produce_fake()
    assert stderr_of(producer, 1) == dropping(SILENT)
    assert producer.finish() == failure(TIMED_OUT, SILENT)


def test_registration_that_is_accepted_at_the_end_is_ended(registry, produce_fake):
    calls = []

    def keep(call):
        calls.append(call)

    registry.handlers["RegisterProducer"].put(keep)
    producer = produce_fake()
    wait_until(lambda: calls, "it registers")
    producer.kill()
    wait_until(lambda: is_deaf(producer), "the signal is handled")
    calls[0].reply()
    assert producer.finish() == (SUCCESS, b"", b"")
    assert registry.calls == ["RegisterProducer", "UnregisterProducer"]


def test_signal_after_the_end_of_the_input(registry, produce_fake):
    """An interrupt of the terminal ends the program before the pipe too: it is no second signal."""
    calls = []
    registry.handlers["UnregisterProducer"].put(calls.append)
    producer = produce_fake()
    _, stream = next_channel(registry)
    producer.process.stdin.close()
    producer.process.stdin = None
    wait_until(lambda: calls, "it unregisters")
    producer.kill()
    assert wait_until_settled(producer.process.poll, "it waits for the reply", seconds=0.5) is None
    calls[0].reply()
    assert producer.finish() == (SUCCESS, b"", b"")
    stream.close()


def test_receiver_that_leaves_the_bus(registry, produce_fake):
    """Its channels are closed, also when it keeps them open itself."""
    producer = produce_fake()
    _, stream = next_channel(registry)
    assert stream.message() == numbered(0).encode()
    registry.client.release(NAME)
    assert stderr_of(producer, 1) == dropping(ABSENT)
    stream.expect_end()
    stream.close()

    registry.client.own(NAME)
    _, stream = next_channel(registry)
    send_until_taken(producer, stream)
    assert registry.calls == 2 * ["RegisterProducer", "OpenChannel"]
    stream.close()


# Messages


def test_reader_of_messages_that_does_not_read(receiver, reader, start_produce):
    producer = start_registered(start_produce, reader)
    stream = reader.open(MINE)
    send(producer, *["bad"] * 3000)
    send(producer, numbered(1))
    expect_messages(stream, [numbered(1)])
