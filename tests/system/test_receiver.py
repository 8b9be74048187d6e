# SPDX-License-Identifier: MIT
"""The metadata receiver: applications that register producers, their channels, and the streams of their readers."""

import contextlib
import os
import signal
import subprocess
import sys
import threading
import time

import pytest
from gi.repository import Gio, GLib

from busclient import BusClient
from daemon import WARNING
from installation import documented_limit, run_by_root, unprivileged
from receiverclient import LENGTH, NAME, PRODUCER, ReceiverClient, Watcher, path_of
from receiverprocess import (ERROR_PREFIX, LIMITS, LOST_BUS, LOST_NAME, REGISTRY, REGISTRY_PATH, SAMPLE, Application,
                             Receiver, Refused, ended, enough_descriptors, message, not_read, unread_bytes)
from waiting import BOUND_SECONDS, wait_until

MIB = 1024 * 1024
MAX_MESSAGE = LIMITS["RECEIVER_MAX_MESSAGE_BYTES"]
QUEUE_SECONDS = LIMITS["RECEIVER_QUEUE_MAX_AGE_MS"] / 1000
GRACE_SECONDS = LIMITS["RECEIVER_GRACE_SECONDS"]
MAX_CHANNEL_STREAMS = LIMITS["RECEIVER_MAX_CHANNEL_STREAMS"]

MINE, OTHER = "Mine", "Other"

# How many messages are sent one by one, and how many a second.
PACED_MESSAGES = int(os.environ.get("TESSARD_PACED_MESSAGES", "20000"))
PACED_RATE = 4000


@pytest.fixture
def start_receiver(installation, bus):
    with contextlib.ExitStack() as started:

        def start(on=bus, **arguments):
            receiver = Receiver(installation, on, **arguments)
            started.callback(receiver.finish)
            receiver.wait_until_ready()
            return receiver

        yield start


@pytest.fixture
def receiver(start_receiver):
    return start_receiver()


@pytest.fixture
def start_application(bus):
    with contextlib.ExitStack() as started:

        def start(on=bus):
            application = Application(on)
            started.callback(application.close)
            return application

        yield start


@pytest.fixture
def application(start_application):
    return start_application()


@pytest.fixture
def reader(bus):
    connected = ReceiverClient(bus)
    yield connected
    connected.close()


@pytest.fixture
def watcher(receiver, bus):
    watching = Watcher(bus)
    yield watching
    watching.close()


def refusal(call, *arguments, **more):
    with pytest.raises(Refused) as refused:
        call(*arguments, **more)
    return refused.value.args


def remote_refusal(call, *arguments):
    with pytest.raises(GLib.Error) as failed:
        call(*arguments)
    return Gio.DBusError.get_remote_error(failed.value).removeprefix(ERROR_PREFIX)


def numbers(count, first=0):
    return [b'{"Number":%d}' % number for number in range(first, first + count)]


def read_numbers(stream, last):
    """The numbers of the messages up to this one."""
    found = []
    while not found or found[-1] != last:
        found.append(stream.item()["Number"])
    return found


# Registering


def test_registered_producer_is_an_object(receiver, application, reader):
    application.register(MINE, nice_name="Mein Zähler", channels=(3, 1, 2147483647))

    assert reader.producers() == {
        path_of(MINE): {PRODUCER: {"Name": MINE, "NiceName": "Mein Zähler", "SupportedChannels": [3, 1, 2147483647]}}}
    assert reader.properties(MINE).endswith("'SupportedChannels': <[uint32 3, 1, 2147483647]>}")
    assert reader.sample_frame(MINE) == SAMPLE


def test_producers_are_announced(receiver, application, watcher):
    application.register(MINE)
    application.unregister(MINE)

    assert watcher.wait(2) == [("added", MINE, f"'{MINE}'"), ("removed", MINE, f"'{MINE}'")]


def test_largest_description_is_taken(receiver, application, reader):
    name = "x" * LIMITS["RECEIVER_MAX_NAME_BYTES"]
    sample = "{}".ljust(LIMITS["RECEIVER_MAX_SAMPLE_FRAME_BYTES"] - 1) + " "
    application.register(name, nice_name="x" * LIMITS["RECEIVER_MAX_NICE_NAME_BYTES"],
                         channels=range(1, LIMITS["RECEIVER_MAX_PRODUCER_CHANNELS"] + 1), sample=sample[:-2] + "\n ")

    assert reader.names() == {name}


@pytest.mark.parametrize("arguments, error", [
    ({"name": ""}, "InvalidName"),
    ({"name": "a-b"}, "InvalidName"),
    ({"name": "a/b"}, "InvalidName"),
    ({"name": "ä"}, "InvalidName"),
    ({"name": 'a"b'}, "InvalidName"),
    ({"name": "x" * (LIMITS["RECEIVER_MAX_NAME_BYTES"] + 1)}, "InvalidName"),
    ({"nice_name": "x" * (LIMITS["RECEIVER_MAX_NICE_NAME_BYTES"] + 1)}, "InvalidNiceName"),
    ({"channels": ()}, "InvalidChannels"),
    ({"channels": (0,)}, "InvalidChannels"),
    ({"channels": (1, 2, 1)}, "InvalidChannels"),
    ({"channels": (2147483648,)}, "InvalidChannels"),
    ({"channels": range(1, LIMITS["RECEIVER_MAX_PRODUCER_CHANNELS"] + 2)}, "InvalidChannels"),
    ({"sample": ""}, "InvalidSampleFrame"),
    ({"sample": "[]"}, "InvalidSampleFrame"),
    ({"sample": "{" + " " * LIMITS["RECEIVER_MAX_SAMPLE_FRAME_BYTES"] + "}"}, "InvalidSampleFrame"),
    ({"options": {"colour": GLib.Variant("s", "red")}}, "InvalidOption"),
])
def test_invalid_descriptions_are_refused(receiver, application, reader, arguments, error):
    name, text = refusal(application.register, **{"name": MINE, **arguments})

    assert name == error
    assert text
    assert reader.names() == set()


def test_wrong_types_are_refused_by_the_interface(receiver, application):
    with pytest.raises(GLib.Error) as failed:
        application.ask("RegisterProducer", "(s)", MINE)

    assert Gio.DBusError.get_remote_error(failed.value) == "org.freedesktop.DBus.Error.InvalidArgs"


def test_limits_are_those_of_the_daemon():
    """What the daemon would leave out is refused at once."""
    assert LIMITS["RECEIVER_MAX_NAME_BYTES"] == documented_limit("producerproperties.h",
                                                                 "PRODUCER_PROPERTIES_MAX_NAME_BYTES")
    assert LIMITS["RECEIVER_MAX_NICE_NAME_BYTES"] == documented_limit("producerproperties.h",
                                                                      "PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES")
    assert LIMITS["RECEIVER_MAX_PRODUCER_CHANNELS"] == documented_limit("producerproperties.h",
                                                                        "PRODUCER_PROPERTIES_MAX_CHANNELS")
    assert LIMITS["RECEIVER_MAX_SAMPLE_FRAME_BYTES"] <= documented_limit("dbusclient.h",
                                                                         "DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES")


def test_names_are_unique(receiver, application, start_application, reader):
    application.register(MINE, nice_name="first")

    assert refusal(start_application().register, MINE)[0] == "NameTaken"
    assert refusal(application.register, MINE)[0] == "NameTaken"
    assert "'NiceName': <'first'>" in reader.properties(MINE)


def test_only_the_owner_can_change_a_producer(receiver, application, start_application, reader):
    stranger = start_application()
    application.register(MINE)

    assert refusal(stranger.unregister, MINE)[0] == "NotOwner"
    assert refusal(stranger.open_channel, MINE)[0] == "NotOwner"
    assert refusal(stranger.unregister, OTHER)[0] == "UnknownProducer"
    assert refusal(stranger.open_channel, "x" * 1000)[0] == "UnknownProducer"
    assert reader.names() == {MINE}


def test_unsupported_channels_are_refused(receiver, application, reader):
    application.register(MINE, channels=(2,))

    for channel in (0, 1, 3, 2147483647):
        assert refusal(application.open_channel, MINE, channel)[0] == "UnsupportedChannel"
        assert remote_refusal(reader.request_stream, MINE, channel) == "UnsupportedChannel"
    assert refusal(application.open_channel, MINE, 4294967295)[0] == "UnsupportedChannel"
    assert remote_refusal(reader.request_stream, MINE, -1) == "UnsupportedChannel"


def test_channel_is_open_once(receiver, application):
    application.register(MINE)
    application.open_channel(MINE)

    assert refusal(application.open_channel, MINE)[0] == "ChannelOpen"
    application.open_channel(MINE, 2)


def test_calls_of_an_application_are_served_in_order(receiver, application, reader):
    """Without waiting for a reply, as they come while its user is looked up."""
    calls = [("RegisterProducer", "(ssausa{sv})", MINE, "", (1,), SAMPLE, {}), ("OpenChannel", "(su)", MINE, 1),
             ("UnregisterProducer", "(s)", MINE), ("RegisterProducer", "(ssausa{sv})", OTHER, "", (1,), SAMPLE, {})]
    for method, signature, *arguments in calls:
        application.start_call(NAME, REGISTRY_PATH, REGISTRY, method, GLib.Variant(signature, arguments))

    wait_until(lambda: reader.names() == {OTHER}, "all calls are served")


def test_places_for_producers_are_bounded(receiver, application, start_application, reader):
    places = LIMITS["RECEIVER_MAX_PRODUCERS"] - LIMITS["RECEIVER_PRODUCERS_KEPT"]
    for number in range(places):
        application.register(f"P{number}")

    assert refusal(application.register, "Another")[0] == "LimitExceeded"
    assert refusal(start_application().register, "Another")[0] == "LimitExceeded"
    application.unregister("P0")
    application.register("Another")
    assert len(reader.names()) == places


# What an application says


def test_stream_needs_no_open_channel(receiver, application, reader):
    application.register(MINE)
    stream = reader.open(MINE)
    assert stream.is_blocking()
    assert os.readlink(f"/proc/self/fd/{stream.fd}").startswith("pipe:")
    writer = application.open_channel(MINE)
    writer.send("{}")

    assert stream.message() == b"{}"


def test_every_message_goes_to_every_stream_of_its_channel(receiver, application, reader):
    application.register(MINE)
    writer, other_writer = application.open_channel(MINE, 1), application.open_channel(MINE, 2)
    streams, other = [reader.open(MINE, 1) for _ in range(3)], reader.open(MINE, 2)
    texts = [b"{}", b" " * 4093, b"x" * 4092, b"y" * 70000, "{\"Größe\":1}".encode(), b"z" * MAX_MESSAGE]
    found = {stream: [] for stream in streams}

    def read(stream):
        for _ in texts:
            found[stream].append(stream.message())

    readers = [threading.Thread(target=read, args=(stream,)) for stream in streams]
    for thread in readers:
        thread.start()
    writer.send(*texts[:-1])
    # A message of this length leaves no place in a queue for others.
    wait_until(lambda: all(len(messages) == len(texts) - 1 for messages in found.values()), "the others are read")
    writer.send(texts[-1])
    for thread in readers:
        thread.join(BOUND_SECONDS)
    other_writer.send("other")

    assert list(found.values()) == [texts] * 3
    assert other.message() == b"other"


def test_messages_are_found_in_any_pieces(receiver, application, reader):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), reader.open(MINE)
    data = b"".join(map(message, [b"{}", b"", b"second"]))
    for place in range(len(data)):
        writer.write(data[place:place + 1])

    assert stream.messages(2) == [b"{}", b"second"]


def test_client_gets_nothing_of_the_past(receiver, application, reader):
    application.register(MINE)
    writer = application.open_channel(MINE)
    for text in numbers(20000):
        writer.send(text)
    writer.send(*numbers(1000, 20000))
    # The channel is read up to here when it is open no more.
    writer.close()
    writer = wait_for_channel(application)
    stream = reader.open(MINE)
    assert not stream.has_something()

    writer.send(b'{"Number":-1}')
    assert stream.item() == {"Number": -1}


def wait_for_channel(application, name=MINE, channel=1):
    """Opens a channel that has been closed."""
    return application.open_channel(name, channel)


def test_closed_channel_can_be_opened_at_once_and_nothing_is_lost(receiver, application, reader):
    application.register(MINE)
    stream = reader.open(MINE)
    for number in range(200):
        writer = application.open_channel(MINE)
        writer.send(*numbers(3, 3 * number))
        writer.close()

    assert read_numbers(stream, 599) == list(range(600))


def test_unread_stream_loses_old_messages_and_no_other_does(receiver, application, reader):
    """The application is never held, the stream that is read gets all, and the other one gets whole messages in order,
    the newest at last."""
    application.register(MINE)
    writer, unread, read = application.open_channel(MINE), reader.open(MINE), reader.open(MINE)
    filling = b'"' + b"x" * 10000 + b'"}'
    count = 1000
    found = []
    thread = threading.Thread(target=lambda: found.extend(read_numbers(read, count - 1)))
    thread.start()
    for number in range(count):
        writer.send(b'{"Number":%d,"Filling":%s' % (number, filling))
        time.sleep(0.0005)
    thread.join(BOUND_SECONDS)

    assert found == list(range(count))
    assert receiver.take_warnings(1) == [not_read(MINE, 1)]
    left = read_numbers(unread, count - 1)
    assert left == sorted(set(left))
    assert left[0] == 0
    assert 50 < len(left) <= MIB // 10000 + 5
    assert receiver.take_warnings(1) == [
        (WARNING, f"A stream of {MINE}, channel 1: is read again, {count - len(left)} messages were dropped")]
    writer.send(b'{"Number":-1}')
    assert unread.item()["Number"] == -1


def test_queue_of_an_unread_stream_grows_no_older(receiver, application, reader):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), reader.open(MINE)
    # Fills the pipe, so that all others wait.
    writer.send(b"{" + b" " * 5000 + b'"Number":0}')
    began = time.monotonic()
    sent = {}
    number = 1
    while time.monotonic() - began < QUEUE_SECONDS * 2:
        sent[number] = time.monotonic()
        writer.send(b'{"Number":%d}' % number)
        number += 1
        time.sleep(0.01)
    now = time.monotonic()
    received = read_numbers(stream, number - 1)

    assert received[0] == 0
    assert received[1:] == list(range(received[1], number))
    assert now - sent[received[1]] <= QUEUE_SECONDS + 0.5
    assert now - sent[received[1]] >= QUEUE_SECONDS / 2
    assert len(receiver.take_warnings(2)) == 2


def test_one_message_always_waits(receiver, application, reader):
    """However long it is, and however old."""
    application.register(MINE)
    writer, stream = application.open_channel(MINE), reader.open(MINE)
    first, last = b"a" * MAX_MESSAGE, b"b" * MAX_MESSAGE
    writer.send(first, last)
    time.sleep(QUEUE_SECONDS + 0.2)

    assert stream.messages(2) == [first, last]
    assert receiver.take_warnings() == []


def test_stream_that_ends_unread_is_counted(receiver, application, reader):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), reader.open(MINE)
    writer.send(*[b"x" * MAX_MESSAGE] * 5)
    assert receiver.take_warnings(1) == [not_read(MINE, 1)]
    wait_until_all_read(receiver, writer)
    stream.close()

    assert receiver.take_warnings(1) == [
        (WARNING, f"A stream of {MINE}, channel 1: has ended, 3 messages were dropped")]


def wait_until_all_read(receiver, writer):
    wait_until(lambda: unread_bytes(writer.fd) == 0, "the receiver has read everything")


# Applications that are hostile or broken


GARBAGE = [
    ((MAX_MESSAGE + 1).to_bytes(4, sys.byteorder), "a message is longer than 1 MiB"),
    (b"\xff" * 100, "a message is longer than 1 MiB"),
    (b'{"Objects":[]}\n', "a message is longer than 1 MiB"),
    (message(b"\xff\xfe{}"), "a message is not UTF-8 text"),
    (message(b"{\0}"), "a message is not UTF-8 text"),
]


@pytest.mark.parametrize("data, reason", GARBAGE, ids=["long", "bytes", "lines", "not UTF-8", "NUL"])
def test_garbage_ends_the_channel_alone(receiver, application, reader, data, reason):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), reader.open(MINE)
    writer.send("first")
    writer.write(data)

    assert stream.message() == b"first"
    assert receiver.take_warnings(1) == [ended(f"{MINE}, channel 1", reason)]
    writer.wait_until_ended()
    application.open_channel(MINE).send("again")
    assert stream.message() == b"again"


def test_cut_message_is_left_out(receiver, application, reader):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), reader.open(MINE)
    writer.write(message("whole") + message("cut short")[:-1])
    writer.close()

    assert receiver.take_warnings(1) == [ended(f"{MINE}, channel 1", "the application closed it within a message")]
    application.open_channel(MINE).send("next")
    assert stream.messages(2) == [b"whole", b"next"]


def test_unfinished_message_has_ten_seconds(receiver, application, reader):
    """From its first byte; what comes in time starts anew with each message."""
    application.register(MINE)
    slow, cut = application.open_channel(MINE, 1), application.open_channel(MINE, 2)
    streams = reader.open(MINE, 1), reader.open(MINE, 2)
    began = time.monotonic()
    cut.write(message("never complete")[:2])
    for _ in range(4):
        slow.write(message("slow")[:5])
        time.sleep(3)
        slow.write(message("slow")[5:])

    assert receiver.take_warnings(1) == [ended(f"{MINE}, channel 2", "a message is not complete after 10 s")]
    assert 10 <= time.monotonic() - began < 10 + BOUND_SECONDS
    cut.wait_until_ended()
    assert streams[0].messages(4) == [b"slow"] * 4
    application.open_channel(MINE, 2).send("again")
    assert streams[1].message() == b"again"


def test_application_without_a_stream_costs_little(receiver, application):
    """It is read all the same: a hundred times as much as a pipe holds, none of which stays."""
    application.register(MINE)
    writer = application.open_channel(MINE)
    before = receiver.memory()
    for _ in range(100):
        writer.send(b"x" * 65536)
    wait_until_all_read(receiver, writer)

    assert receiver.memory() - before < 4 * MIB


def test_unread_streams_cost_their_queues_together_what_one_costs(receiver, application, reader):
    application.register(MINE)
    writer = application.open_channel(MINE)
    for _ in range(100):
        reader.open(MINE)
    before = receiver.memory()
    for _ in range(300):
        writer.send(b"x" * 100000)
    wait_until_all_read(receiver, writer)

    assert receiver.memory() - before < 30 * MIB
    assert receiver.take_warnings(100) == [not_read(MINE, 1)] * 100
    for stream in reader.streams:
        stream.close()
    assert len(receiver.take_warnings(100)) == 100


def test_streams_of_a_channel_are_bounded(receiver, application, reader, bus):
    """The daemon is never refused one before it has twice as many as it has clients."""
    application.register(MINE)
    enough_descriptors(MAX_CHANNEL_STREAMS + 200)
    for _ in range(MAX_CHANNEL_STREAMS):
        reader.open(MINE)

    assert remote_refusal(reader.request_stream, MINE) == "LimitExceeded"
    reader.open(MINE, 2)
    reader.streams[0].close()
    wait_until(lambda: can_open(reader), "a place is free")


def can_open(reader):
    try:
        reader.open(MINE)
    except GLib.Error:
        return False
    return True


def limit_descriptors(receiver, limit):
    subprocess.run(["prlimit", f"--pid={receiver.process.pid}", f"--nofile={limit}:"], check=True, cwd="/",
                   **unprivileged())


def test_without_descriptors_calls_fail_and_streams_go_on(receiver, application, reader):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), reader.open(MINE)
    taken = set(map(int, os.listdir(f"/proc/{receiver.process.pid}/fd")))
    limit_descriptors(receiver, max(taken) + 1)
    free = max(taken) + 1 - len(taken)
    for _ in range(free):
        with contextlib.suppress(GLib.Error):
            reader.open(MINE)

    assert remote_refusal(reader.request_stream, MINE) == "NoDescriptor"
    assert refusal(application.open_channel, MINE, 2)[0] == "NoDescriptor"
    writer.send("still")
    assert stream.message() == b"still"
    limit_descriptors(receiver, 1024)
    application.open_channel(MINE, 2)
    reader.open(MINE, 2)


# Applications that go and come back


def test_producer_outlives_its_application(receiver, application, start_application, reader, watcher):
    """Its streams stay open and silent, and what it said last arrives; then it finds its clients again."""
    application.register(MINE)
    stream = reader.open(MINE)
    application.open_channel(MINE).send("last")
    application.close()
    assert stream.message() == b"last"
    assert not stream.has_something(0.5)

    back = start_application()
    wait_until_free(back)
    assert not stream.has_something()
    back.open_channel(MINE).send("back")
    assert stream.message() == b"back"
    assert watcher.wait(1) == [("added", MINE, f"'{MINE}'")]


def wait_until_free(application, **arguments):
    """Registers as soon as the receiver has noticed that the last application has gone."""

    def is_registered():
        try:
            return application.register(MINE, **arguments)
        except Refused as refused:
            assert refused.args[0] == "NameTaken"
            return None

    wait_until(is_registered, "the producer is registered again")


def test_new_description_is_announced(receiver, application, start_application, reader, watcher):
    """Streams of channels that are still supported stay."""
    application.register(MINE, channels=(1, 2))
    kept, ending = reader.open(MINE, 1), reader.open(MINE, 2)
    application.close()
    back = start_application()
    wait_until_free(back, nice_name="new", channels=(1, 3), sample='{"Objects":[]}')

    assert reader.sample_frame(MINE) == '{"Objects":[]}'
    assert reader.producers()[path_of(MINE)][PRODUCER] == {"Name": MINE, "NiceName": "new", "SupportedChannels": [1, 3]}
    assert [what for what, *_ in watcher.wait(3)] == ["added", "removed", "added"]
    ending.expect_end()
    back.open_channel(MINE).send("back")
    assert kept.message() == b"back"


REGISTER_MINE = f"""\
import sys
from gi.repository import Gio, GLib
flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
bus = Gio.DBusConnection.new_for_address_sync(sys.argv[1], flags, None, None)
try:
    bus.call_sync("{NAME}", "{REGISTRY_PATH}", "{REGISTRY}", "RegisterProducer",
                  GLib.Variant("(ssausa{{sv}})", ("{MINE}", "", (1,), "{{}}", {{}})), None, 0, -1, None)
except GLib.Error as error:
    print(Gio.DBusError.get_remote_error(error))
"""


@pytest.mark.skipif(not run_by_root(), reason="only root can be several users")
def test_name_is_kept_for_its_user(receiver, application, start_application, bus, reader):
    application.register(MINE)
    application.close()
    wait_until(lambda: not any("registered by" in text for _, text in receiver.log.lines[-1:]), "the end is noticed")

    other = subprocess.run([sys.executable, "-I", "-c", REGISTER_MINE, bus.address], stdout=subprocess.PIPE, text=True,
                           check=True, timeout=BOUND_SECONDS, cwd="/", user="daemon", group="daemon", extra_groups=[])
    assert other.stdout == f"{ERROR_PREFIX}NameTaken\n"
    wait_until_free(start_application())


def test_producer_ends_after_its_grace(receiver, application, reader, watcher):
    application.register(MINE)
    stream = reader.open(MINE)
    began = time.monotonic()
    application.close()
    wait_until(lambda: MINE not in reader.names(), "the producer is gone", GRACE_SECONDS + BOUND_SECONDS)

    assert GRACE_SECONDS - 1 <= time.monotonic() - began
    assert stream.read_some(1) == b""
    assert watcher.wait(2)[1] == ("removed", MINE, f"'{MINE}'")


def test_unregistered_producer_goes_with_its_streams(receiver, application, reader, watcher):
    """What a reader has not read yet still comes; one that does not read is not waited for."""
    application.register(MINE)
    writer = application.open_channel(MINE)
    read, unread = reader.open(MINE), reader.open(MINE)
    texts = [b"x" * 10000, b"y" * 20000, b"last"]
    writer.send(*texts)
    application.unregister(MINE)

    assert reader.names() == set()
    assert read.messages(3) == texts
    assert read.read_some(1) == b""
    writer.wait_until_ended()
    application.register(MINE)
    unread.expect_end()
    reader.open(MINE)


def test_descriptors_are_back(receiver, start_application, reader):
    before = receiver.descriptors()
    for _ in range(3):
        application = start_application()
        application.register(MINE)
        writer = application.open_channel(MINE)
        streams = [reader.open(MINE) for _ in range(5)]
        writer.send("{}")
        for stream in streams:
            stream.message()
            stream.close()
        application.unregister(MINE)
        application.close()

    wait_until(lambda: receiver.descriptors() == before, "the descriptors are as before")


# The bus


def test_name_that_is_taken_ends_it(receiver, installation, bus):
    second = Receiver(installation, bus)
    try:
        assert second.wait() == (1, "", f"tessard-receiver: {LOST_NAME[1]}\n")
        assert LOST_NAME in second.take_warnings(1)
    finally:
        second.finish()


def test_end_of_the_bus_ends_it(start_receiver, own_bus):
    receiver = start_receiver(on=own_bus)
    own_bus.stop()

    assert receiver.wait() == (1, "", f"tessard-receiver: {LOST_BUS[1]}\n")
    assert receiver.take_warnings(1) == [LOST_BUS]


def test_signal_ends_it_with_its_streams(receiver, application, reader):
    application.register(MINE)
    stream = reader.open(MINE)
    application.open_channel(MINE)

    assert receiver.end() == (0, "", "")
    stream.expect_end()


@pytest.mark.parametrize("options, status, out", [
    (["--version"], 0, "tessard-receiver "),
    (["--help"], 0, "Usage:"),
    (["--colour"], 2, ""),
    (["more"], 2, ""),
])
def test_options(installation, options, status, out):
    ran = subprocess.run([installation.prefix / "bin/tessard-receiver", *options], capture_output=True, text=True,
                         check=False, timeout=BOUND_SECONDS, env=os.environ | {"LC_ALL": "C.UTF-8"})

    assert (ran.returncode, ran.stdout[:len(out)]) == (status, out)
    assert (ran.stderr != "") == (status != 0)


# Many


class NumbersReader(threading.Thread):
    """Reads the numbers of a stream's messages in large pieces, up to the last one."""

    def __init__(self, stream, last):
        super().__init__()
        self.stream = stream
        self.last = last
        self.numbers = []
        self.start()

    def run(self):
        data = b""
        while not self.numbers or self.numbers[-1] != self.last:
            data += self.stream.read_some(65536)
            begin = 0
            while len(data) - begin >= LENGTH.size:
                end = begin + LENGTH.size + LENGTH.unpack_from(data, begin)[0]
                if end > len(data):
                    break
                self.numbers.append(int(data[begin + LENGTH.size + len('{"Number":'):end - 1]))
                begin = end
            data = data[begin:]


def test_paced_messages(receiver, application, reader):
    """Two streams get each of them once and in order, while a third one is not read."""
    application.register(MINE)
    writer = application.open_channel(MINE)
    readers = [NumbersReader(reader.open(MINE), PACED_MESSAGES - 1) for _ in range(2)]
    unread = reader.open(MINE)
    began = time.monotonic()
    for number, text in enumerate(numbers(PACED_MESSAGES)):
        ahead = began + number / PACED_RATE - time.monotonic()
        if ahead > 0.002:
            time.sleep(ahead)
        writer.send(text)
    for thread in readers:
        thread.join(BOUND_SECONDS)

    for thread in readers:
        assert thread.numbers == list(range(PACED_MESSAGES))
    assert receiver.take_warnings(1) == [not_read(MINE, 1)]
    unread.close()
    assert len(receiver.take_warnings(1)) == 1


def test_hundred_applications_and_streams_and_each_hostile_kind(receiver, start_application, reader):
    """One of each kind among them disturbs none of the others."""
    applications = [start_application().register(f"P{number}") for number in range(100)]
    writers = [application.open_channel(f"P{number}") for number, application in enumerate(applications)]
    streams = [reader.open(f"P{number}") for number in range(100)]
    garbage, too_long, not_text, cut, slow, gone, gone_within, silent, loud, leaving = range(10)
    writers[garbage].write(os.urandom(3) + b"\xff" * 100)
    writers[too_long].write((MAX_MESSAGE + 1).to_bytes(4, sys.byteorder))
    writers[not_text].send(b"\xff")
    writers[cut].write(message("cut")[:-1])
    writers[cut].close()
    writers[slow].write(b"\x01")
    applications[gone].close()
    writers[gone_within].write(message("cut")[:5])
    applications[gone_within].close()
    assert silent
    flood = threading.Event()

    def shout():
        data = message(b"x" * 60000)
        while not flood.is_set():
            writers[loud].write(data)

    flooding = threading.Thread(target=shout)
    flooding.start()
    applications[leaving].unregister(f"P{leaving}")
    try:
        quiet = range(10, 100)
        for round_number in range(20):
            for number in quiet:
                writers[number].send(b'{"Number":%d}' % (1000 * number + round_number))
            for number in quiet:
                assert streams[number].item() == {"Number": 1000 * number + round_number}
    finally:
        flood.set()
        flooding.join(BOUND_SECONDS)

    expected = {ended(f"P{number}, channel 1", reason) for number, reason in (
        (garbage, "a message is longer than 1 MiB"), (too_long, "a message is longer than 1 MiB"),
        (not_text, "a message is not UTF-8 text"), (cut, "the application closed it within a message"),
        (gone_within, "the application closed it within a message"),
        (slow, "a message is not complete after 10 s"))} | {not_read(f"P{loud}", 1)}
    wait_until(lambda: expected <= set(receiver.warnings()), "every hostile one is named")
    streams[loud].close()
    assert set(receiver.take_warnings(len(expected) + 1)) >= expected
    assert reader.names() == {f"P{number}" for number in range(100) if number != leaving}
    for number in (gone, gone_within, silent, slow, garbage):
        assert not streams[number].has_something()


def test_dead_applications_at_every_stage(receiver, bus, reader):
    """Whatever it has done so far, its end leaves nothing behind but its producer."""
    before = receiver.descriptors()
    for stage in range(4):
        application = Application(bus)
        if stage == 0:
            application.start_call(NAME, REGISTRY_PATH, REGISTRY, "RegisterProducer",
                                   GLib.Variant("(ssausa{sv})", ("Hasty", "", (1,), SAMPLE, {})))
        if stage >= 1:
            application.register(f"P{stage}")
        if stage >= 2:
            application.open_channel(f"P{stage}")
        if stage == 3:
            application.writers[0].write(b"\x05")
        application.close()

    assert receiver.take_warnings(1) == [ended("P3, channel 1", "the application closed it within a message")]
    wait_until(lambda: receiver.descriptors() == before, "the descriptors are as before")
    assert reader.names() >= {"P1", "P2", "P3"}
