# SPDX-License-Identifier: MIT
"""The list of external producers: correct and wrong announcements of the metadata receiver, and its absence."""

import signal
import time

import pytest
from gi.repository import GLib
from lxml import etree

from busclient import PROPERTIES
from daemon import (BUS_LINES, LOG_BURST, NO_CONNECTION_LINES, VIDEO_TRACKER, WARNING, clipped,
                    with_count)
from documents import NAMESPACES
from external import (ANALYTICS, ANALYTICS_AND_EVENTS, BOTH_ENABLED, COUNTER, DETECTOR, EXTERNAL_PLUGINS, GATE,
                      WRONG_SIGNAL, YARD, expect_alive, expect_frames, left_out, not_converted, numbered,
                      producer_frames, wait_until_listed)
from fakereceiver import FakeReceiver, Producer
from installation import EVENT_PLUGIN, SCENE_PLUGIN, documented_limit
from overdue import PATIENCE_SECONDS
from receiverclient import OBJECT_MANAGER, PRODUCER, ROOT, path_of
from simcamera import RECEIVER
from controlclient import ControlClient
from waiting import BOUND_SECONDS, wait_until

MAX_PRODUCERS = documented_limit("dbusclient.h", "DBUS_CLIENT_MAX_PRODUCERS")
MAX_NAME_BYTES = documented_limit("producerproperties.h", "PRODUCER_PROPERTIES_MAX_NAME_BYTES")
MAX_NICE_NAME_BYTES = documented_limit("producerproperties.h", "PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES")
MAX_CHANNELS = documented_limit("producerproperties.h", "PRODUCER_PROPERTIES_MAX_CHANNELS")
MAX_SAMPLE_BYTES = documented_limit("dbusclient.h", "DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES")

# The number of producers beyond the limit, and of listed ones that are removed.
TOO_MANY, GOING = 24, 90

# The time limits of a conversion, and of the reply with a sample frame.
CONVERSION_SECONDS = documented_limit("sampleframe.h", "SAMPLE_FRAME_TIMEOUT_MS") / 1000
ANSWER_SECONDS = 10

# The time limit of a reply while the daemon waits for a service.
PROMPT_SECONDS = 2

NOT_FETCHED = (WARNING, "failed to fetch sample frame")

NO_NAME = "it has no property Name of type s"
NO_NICE_NAME = "it has no property NiceName of type s"
NO_CHANNELS = "it has no property SupportedChannels of type au"
BAD_NAME = "its name cannot end an object's path"


def already_there(name):
    return (WARNING, f"tried to add a producer that already exists: {name}")


def error_of(text):
    return f"GDBus.Error:org.freedesktop.DBus.Error.Failed: {text}"


def fail_with(producer, text):
    producer.on_sample = lambda call: call.fail(text)


def reply_with(producer, body):
    producer.on_sample = lambda call: call.reply(body)


def expect_replies_while(daemon, condition):
    """Sends requests, each of which must get a prompt reply, until the condition holds."""
    while not condition():
        requested = time.monotonic()
        daemon.expect_reply()
        assert time.monotonic() - requested < PROMPT_SECONDS


@pytest.fixture
def daemon(start_listing_daemon):
    """A daemon without an external producer."""
    return start_listing_daemon()


# The first test, because its receiver takes long


def test_silent_receiver_delays_no_client(overdue_receiver):
    overdue_receiver.daemon.expect_reply(ANALYTICS)
    assert time.monotonic() - overdue_receiver.began < PATIENCE_SECONDS, "the receiver is called for the first time"
    assert overdue_receiver.is_silent()


# Listed producers


@pytest.mark.parametrize("first", ["daemon", "receiver"])
def test_producers_are_listed_in_either_order_of_start(receiver, start_daemon, control, first):
    def announce():
        receiver.add(DETECTOR, channels=(3, 1, 2))
        receiver.add(COUNTER, channels=())

    if first == "receiver":
        announce()
    daemon = start_daemon(plugins=EXTERNAL_PLUGINS, producers=BOTH_ENABLED)
    if first == "daemon":
        announce()
    wait_until_listed(control, DETECTOR, COUNTER)

    properties = control.properties(DETECTOR)
    assert (properties["Name"], properties["NiceName"]) == (DETECTOR, f"The {DETECTOR}")
    # In the order announced.
    assert properties["ChannelsEnabled"] == [(3, False, ""), (1, True, GATE), (2, False, "")]
    assert control.channels(COUNTER) == []
    assert daemon.log.take() == []


def test_sample_frame_is_converted(receiver, daemon, control):
    receiver.add(DETECTOR, sample='{"Objects":[{"Id":7,"Type":"Human","Likelihood":0.5}],"Deleted":[6]}')
    wait_until_listed(control, DETECTOR)

    frame = etree.fromstring(control.properties(DETECTOR)["SampleFrameXML"])
    assert frame.tag == f"{{{NAMESPACES['tt']}}}SampleFrame"
    assert frame.get("Source") == DETECTOR
    assert [found.get("ObjectId") for found in frame.iterfind("tt:Object", NAMESPACES)] == ["7"]
    assert frame.xpath("string(.//tt:Class/tt:Type)", namespaces=NAMESPACES) == "Human"


def test_removed_producer_is_not_listed(receiver, daemon, control):
    detector = receiver.add(DETECTOR)
    receiver.add(COUNTER)
    wait_until_listed(control, DETECTOR, COUNTER)
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        running = detector.wait_for_stream()

        receiver.remove(detector)
        wait_until_listed(control, COUNTER)
        # A running stream continues.
        running.send(numbered(1))
        expect_frames(stream, (GATE, 1))

        receiver.announce(detector)
        wait_until_listed(control, DETECTOR, COUNTER)
        with daemon.client() as second:
            other = second.start(ANALYTICS)
            detector.wait_for_stream(2).send(numbered(2))
            expect_frames(other, (GATE, 2))
    assert daemon.log.take() == []


def test_added_and_removed_producers_leak_nothing(receiver, daemon, control):
    for _ in range(50):
        detector, counter = receiver.add(DETECTOR), receiver.add(COUNTER)
        receiver.remove(detector)
        receiver.remove(counter)
    receiver.add(DETECTOR)
    wait_until_listed(control, DETECTOR)

    daemon.expect_idle_and_no_log()


def test_producers_are_limited_in_number(receiver, daemon, control):
    # In sequence; none of them is ever listed.
    hopeless = Producer("odd")
    fail_with(hopeless, "no")
    for _ in range(3):
        receiver.announce(hopeless)
        assert daemon.log.take(1) == [(WARNING, f"on_get_sample_frame failed: {error_of('no')}")]
        receiver.remove(hopeless)
    listed = [receiver.add(f"listed{number}") for number in range(MAX_PRODUCERS)]
    last = receiver.add("last")
    assert daemon.log.take(1) == [left_out(last, "there are too many")]
    wait_until_listed(control, *(producer.name for producer in listed))

    receiver.remove(listed.pop())
    receiver.remove(last)
    receiver.announce(last)
    wait_until_listed(control, "last", *(producer.name for producer in listed))


# Names in use


def test_producer_named_like_a_built_in_one_is_refused(receiver, start_daemon, control):
    daemon = start_daemon(plugins=(SCENE_PLUGIN, *EXTERNAL_PLUGINS))
    before = control.properties(VIDEO_TRACKER)
    intruder = receiver.add(VIDEO_TRACKER)
    assert daemon.log.take(1) == [already_there(VIDEO_TRACKER)]
    assert control.properties(VIDEO_TRACKER) == before

    receiver.remove(intruder)
    receiver.add(DETECTOR)
    wait_until_listed(control, VIDEO_TRACKER, DETECTOR)
    assert control.properties(VIDEO_TRACKER) == before


def test_second_object_of_the_same_name_is_refused(receiver, daemon, control):
    first = receiver.add(DETECTOR, channels=(1,))
    wait_until_listed(control, DETECTOR)
    second = receiver.add(DETECTOR, element="second", channels=(2,))
    assert daemon.log.take(1) == [already_there(DETECTOR)]

    receiver.remove(second)
    receiver.add(COUNTER)
    wait_until_listed(control, DETECTOR, COUNTER)
    assert [channel for channel, _, _ in control.channels(DETECTOR)] == [1]
    receiver.remove(first)
    wait_until_listed(control, COUNTER)


def test_producer_that_takes_the_name_of_another_is_removed_alone(receiver, daemon, control):
    detector = receiver.add(DETECTOR)
    receiver.add(COUNTER)
    wait_until_listed(control, DETECTOR, COUNTER)

    detector.properties["Name"] = GLib.Variant("s", COUNTER)
    receiver.emit_changed(detector.path, PRODUCER, {"Name": detector.properties["Name"]})
    receiver.remove(detector)
    wait_until_listed(control, COUNTER)


# Wrong announcements


@pytest.mark.parametrize("name, value, reason", [
    ("Name", None, NO_NAME),
    ("Name", GLib.Variant("i", 1), NO_NAME),
    ("Name", GLib.Variant("ay", b"Detector"), NO_NAME),
    ("Name", GLib.Variant("v", GLib.Variant("s", DETECTOR)), NO_NAME),
    *[("Name", GLib.Variant("s", text), BAD_NAME)
      for text in ("", "a/b", "/", "a.b", "a-b", "a b", "ä", "a\nb", "%s%n", "../Producers")],
    pytest.param("Name", GLib.Variant("s", "x" * (MAX_NAME_BYTES + 1)), "its name is too long", id="long name"),
    pytest.param("Name", GLib.Variant("s", "x" * 1024 * 1024), "its name is too long", id="name of 1 MiB"),
    ("NiceName", None, NO_NICE_NAME),
    ("NiceName", GLib.Variant("as", ["a"]), NO_NICE_NAME),
    pytest.param("NiceName", GLib.Variant("s", "x" * (MAX_NICE_NAME_BYTES + 1)), "its nice name is too long",
                 id="long nice name"),
    ("SupportedChannels", None, NO_CHANNELS),
    ("SupportedChannels", GLib.Variant("ai", [1]), NO_CHANNELS),
    ("SupportedChannels", GLib.Variant("u", 1), NO_CHANNELS),
    ("SupportedChannels", GLib.Variant("s", "1"), NO_CHANNELS),
    pytest.param("SupportedChannels", GLib.Variant("au", range(1, MAX_CHANNELS + 2)), "it supports too many channels",
                 id="many channels"),
])
def test_wrong_property_affects_its_object_alone(receiver, daemon, control, name, value, reason):
    odd = Producer("odd")
    if value is None:
        del odd.properties[name]
    else:
        odd.properties[name] = value
    receiver.announce(odd)
    receiver.add(DETECTOR)

    assert daemon.log.take(1) == [left_out(odd, reason)]
    wait_until_listed(control, DETECTOR)
    receiver.remove(odd)
    receiver.add(COUNTER)
    wait_until_listed(control, DETECTOR, COUNTER)
    assert daemon.log.take() == []


def test_longest_names_are_listed(receiver, daemon, control):
    name = "x" * MAX_NAME_BYTES
    producer = Producer(name, channels=range(1, MAX_CHANNELS + 1))
    producer.properties["NiceName"] = GLib.Variant("s", "y" * MAX_NICE_NAME_BYTES)
    receiver.announce(producer)
    wait_until_listed(control, name)

    assert control.properties(name)["NiceName"] == "y" * MAX_NICE_NAME_BYTES
    assert len(control.channels(name)) == MAX_CHANNELS


def test_object_without_the_interface_is_left_out(receiver, daemon, control):
    other = Producer("other")
    other.interfaces = {"com.quon.MetadataReceiver1.Consumer": other.properties}
    receiver.announce(other)
    receiver.add(DETECTOR)

    assert daemon.log.take(1) == [left_out(other, f"it has no interface {PRODUCER}")]
    wait_until_listed(control, DETECTOR)
    receiver.remove(other)
    receiver.add(COUNTER)
    wait_until_listed(control, DETECTOR, COUNTER)


def test_object_that_loses_its_interface_is_no_producer_until_it_gets_it_again(receiver, daemon, control):
    detector = Producer(DETECTOR)
    detector.interfaces = {PRODUCER: detector.properties, "com.quon.MetadataReceiver1.Consumer": {}}
    receiver.announce(detector)
    wait_until_listed(control, DETECTOR)
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        running = detector.wait_for_stream()

        receiver.emit_removed(ROOT, detector.path, [PRODUCER])
        wait_until_listed(control)
        running.send(numbered(1))
        expect_frames(stream, (GATE, 1))

    receiver.emit_added(ROOT, detector.path, {PRODUCER: detector.properties})
    wait_until_listed(control, DETECTOR)
    assert daemon.log.take() == []


def test_object_that_loses_its_interface_releases_its_place(receiver, daemon, control):
    listed = [Producer(f"listed{number}") for number in range(MAX_PRODUCERS)]
    for producer in listed:
        producer.interfaces = {PRODUCER: producer.properties, "com.quon.MetadataReceiver1.Consumer": {}}
        receiver.announce(producer)
    last = receiver.add("last")
    assert daemon.log.take(1) == [left_out(last, "there are too many")]

    first = listed.pop(0)
    receiver.emit_removed(ROOT, first.path, [PRODUCER])
    wait_until_listed(control, "last", *(producer.name for producer in listed))


def test_producers_beyond_the_limit_are_listed_when_others_are_removed(receiver, daemon, control):
    producers = [receiver.add(f"producer{number}") for number in range(MAX_PRODUCERS + TOO_MANY)]
    lines = [left_out(producer, "there are too many") for producer in producers[MAX_PRODUCERS:]]
    lines[LOG_BURST:] = [with_count(lines[-1], TOO_MANY - LOG_BURST - 1)]
    assert daemon.log.take(len(lines)) == lines
    wait_until_listed(control, *(producer.name for producer in producers[:MAX_PRODUCERS]))

    for producer in producers[:GOING]:
        receiver.remove(producer)
    wait_until_listed(control, *(producer.name for producer in producers[GOING:]))
    assert daemon.log.take() == []


def test_channels_that_no_request_can_name_are_left_out(receiver, daemon, control):
    receiver.add(DETECTOR, channels=(2147483647, 2147483648, 1, 4294967295))
    wait_until_listed(control, DETECTOR)

    assert [channel for channel, _, _ in control.channels(DETECTOR)] == [2147483647, 1]
    assert daemon.log.take() == [(WARNING, f"left out 2 channels above 2147483647 of producer {DETECTOR}")]


# Sample frames


@pytest.mark.parametrize("body", [None, GLib.Variant("(i)", (1,)), GLib.Variant("(as)", (["{}"],)),
                                  GLib.Variant("(ss)", ("{}", "{}")), GLib.Variant("(v)", (GLib.Variant("s", "{}"),))])
def test_reply_without_a_sample_frame(receiver, daemon, control, body):
    odd = Producer("odd")
    reply_with(odd, body)
    receiver.announce(odd)
    receiver.add(DETECTOR)

    assert daemon.log.take(1) == [NOT_FETCHED]
    wait_until_listed(control, DETECTOR)


@pytest.mark.parametrize("text", ["No sample yet.", "100 %s%n", "größer"])
def test_failed_sample_frame(receiver, daemon, control, text):
    odd = Producer("odd")
    fail_with(odd, text)
    receiver.announce(odd)
    receiver.add(DETECTOR)

    assert daemon.log.take(1) == [(WARNING, f"on_get_sample_frame failed: {error_of(text)}")]
    wait_until_listed(control, DETECTOR)


def test_long_error_does_not_fill_the_log(receiver, daemon):
    odd = Producer("odd")
    fail_with(odd, "x" * 100000)
    receiver.announce(odd)

    message = clipped(error_of("x" * 100000))
    assert daemon.log.take(1) == [(WARNING, f"on_get_sample_frame failed: {message}")]


def test_sample_frame_is_limited_in_length(receiver, daemon, control):
    def sample(length):
        return numbered(1).ljust(length)

    odd = receiver.add("odd", sample=sample(MAX_SAMPLE_BYTES + 1))
    assert daemon.log.take(1) == [left_out(odd, "its sample frame is too long")]


def test_slow_sample_frame_delays_no_others(receiver, daemon, control):
    slow = Producer("slow")
    slow.on_sample = slow.keep
    receiver.announce(slow)
    receiver.add(DETECTOR)
    wait_until_listed(control, DETECTOR)

    slow.send_sample(slow.kept.pop())
    wait_until_listed(control, "slow", DETECTOR)
    assert daemon.log.take() == []


def test_sample_frame_of_a_removed_object_lists_no_producer(receiver, daemon, control):
    gone = Producer(DETECTOR)
    gone.on_sample = gone.keep
    receiver.announce(gone)
    wait_until(lambda: gone.kept, "its sample frame is requested")
    receiver.remove(gone)
    successor = receiver.add(DETECTOR, channels=(2,))
    gone.send_sample(gone.kept.pop())
    wait_until_listed(control, DETECTOR)
    assert [channel for channel, _, _ in control.channels(DETECTOR)] == [2]

    receiver.remove(successor)
    wait_until_listed(control)
    assert daemon.log.take() == []


def test_sample_frame_that_never_arrives_is_abandoned(receiver, daemon, control):
    silent = Producer("silent")
    silent.on_sample = silent.keep
    receiver.announce(silent)
    receiver.add(DETECTOR)
    wait_until_listed(control, DETECTOR)
    asked = time.monotonic()
    expect_replies_while(daemon, lambda: daemon.log.lines)

    assert ANSWER_SECONDS - PROMPT_SECONDS < time.monotonic() - asked < ANSWER_SECONDS + BOUND_SECONDS
    assert daemon.log.take() == [(WARNING, "on_get_sample_frame failed: Timeout was reached")]
    # The reply is too late.
    silent.send_sample(silent.kept.pop())
    receiver.add(COUNTER)
    wait_until_listed(control, DETECTOR, COUNTER)


def test_conversion_without_a_result_delays_no_others(receiver, daemon, control):
    receiver.add("odd", sample="no JSON")
    asked = time.monotonic()
    detector = receiver.add(DETECTOR)
    wait_until_listed(control, DETECTOR)
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        detector.wait_for_stream().send(numbered(1))
        expect_frames(stream, (GATE, 1))
        assert time.monotonic() - asked < CONVERSION_SECONDS
        expect_replies_while(daemon, lambda: daemon.log.lines)
        detector.wait_for_stream().send(numbered(2))
        expect_frames(stream, (GATE, 2))

    assert CONVERSION_SECONDS - 1 < time.monotonic() - asked
    assert daemon.log.take() == [not_converted("odd")]
    daemon.wait_until_idle()


def test_platform_without_a_converter_lists_no_producer(receiver, control, start_daemon):
    daemon = start_daemon(plugins=(EVENT_PLUGIN,))
    receiver.add(DETECTOR)
    receiver.add(COUNTER)

    # They are converted concurrently.
    assert sorted(daemon.log.take(2)) == [not_converted(COUNTER), not_converted(DETECTOR)]
    assert control.objects() == set()


# Wrong messages of the receiver

def not_connected(reason):
    return (WARNING, f"Failed to connect to metadata-receiver over DBus: {reason}")


def expect_repeated_call(receiver, launch, control, failure):
    """Expects that a daemon lists producers that are announced after a failed call, and all producers after a correct
    reply."""
    receiver.add(DETECTOR)
    daemon = launch(plugins=EXTERNAL_PLUGINS, producers=BOTH_ENABLED, repeated_lines=[not_connected(failure)])
    daemon.log.wait_for(len(daemon.start_lines) + len(BUS_LINES) + 1)
    daemon.wait_until_ready()
    receiver.add(COUNTER)
    wait_until_listed(control, COUNTER)

    receiver.on_objects = receiver.send_objects
    wait_until_listed(control, DETECTOR, COUNTER)


@pytest.mark.parametrize("body", [None, GLib.Variant("(s)", ("x",)), GLib.Variant("(a{oa{ss}})", ({"/a": {"x": "y"}},)),
                                  GLib.Variant("(a{sa{sa{sv}}})", ({},)), GLib.Variant("(a{oa{sa{sv}}}i)", ({}, 1))])
def test_receiver_with_a_wrong_reply_is_called_again(receiver, launch, control, body):
    receiver.on_objects = lambda call: call.reply(body)
    returned = body.get_type_string() if body else "()"
    expect_repeated_call(receiver, launch, control,
                       f"Method \u201c{OBJECT_MANAGER}.GetManagedObjects\u201d returned type \u201c{returned}\u201d, "
                       "but expected \u201c(a{oa{sa{sv}}})\u201d")


def test_receiver_that_fails_is_called_again(receiver, launch, control):
    receiver.on_objects = lambda call: call.fail("No list.")
    expect_repeated_call(receiver, launch, control, error_of("No list."))


def test_receiver_that_fails_after_its_return_is_called_again(receiver, daemon, control):
    receiver.add(DETECTOR)
    wait_until_listed(control, DETECTOR)
    receiver.release_name()
    wait_until_listed(control)

    receiver.on_objects = lambda call: call.fail("No list.")
    receiver.take_name()
    daemon.log.wait_for(1)
    receiver.on_objects = receiver.send_objects
    wait_until_listed(control, DETECTOR)
    assert set(daemon.log.take()) == {not_connected(error_of("No list."))}


@pytest.mark.parametrize("path, interface, name, body", [
    *[(ROOT, OBJECT_MANAGER, "InterfacesAdded", body)
      for body in (None, GLib.Variant("(o)", (ROOT,)), GLib.Variant("(sa{sa{sv}})", ("x", {})),
                   GLib.Variant("(oa{ss})", (f"{ROOT}/x", {PRODUCER: "x"})))],
    *[(ROOT, OBJECT_MANAGER, "InterfacesRemoved", body)
      for body in (None, GLib.Variant("(os)", (path_of(DETECTOR), PRODUCER)), GLib.Variant("(as)", ([PRODUCER],)))],
    *[(path_of(DETECTOR), PROPERTIES, "PropertiesChanged", body)
      for body in (None, GLib.Variant("(s)", (PRODUCER,)), GLib.Variant("(sa{ss}as)", (PRODUCER, {"Name": "x"}, [])))],
])
def test_wrong_signal_is_ignored(receiver, daemon, control, path, interface, name, body):
    receiver.add(DETECTOR)
    wait_until_listed(control, DETECTOR)

    receiver.emit(path, interface, name, body)
    assert daemon.log.take(1) == [WRONG_SIGNAL]
    receiver.add(COUNTER)
    wait_until_listed(control, DETECTOR, COUNTER)
    assert daemon.log.take() == []


def test_signals_of_other_senders_are_ignored(bus, receiver, daemon, control):
    stranger = FakeReceiver(bus)
    stranger.emit_added(ROOT, path_of("stranger"), Producer("stranger").interfaces)
    stranger.close()
    receiver.add(DETECTOR)

    wait_until_listed(control, DETECTOR)
    assert daemon.log.take() == []


# The receiver leaves and returns


def test_receiver_that_leaves_and_returns(receiver, daemon, control):
    detector = receiver.add(DETECTOR)
    wait_until_listed(control, DETECTOR)
    control.set_channels(DETECTOR, (2, True, "two"))
    enabled = control.channels(DETECTOR)
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        running = detector.wait_for_stream()
        for number in range(3):
            receiver.release_name()
            wait_until_listed(control)
            daemon.expect_reply(ANALYTICS)
            running.send(numbered(number))
            expect_frames(stream, (GATE, number))

            receiver.take_name()
            wait_until_listed(control, DETECTOR)
            assert control.channels(DETECTOR) == enabled
    daemon.expect_idle_and_no_log()


def test_receiver_that_returns_with_other_producers(bus, start_daemon, control):
    first = FakeReceiver(bus)
    first.add(DETECTOR)
    first.start()
    daemon = start_daemon(plugins=(EVENT_PLUGIN, *EXTERNAL_PLUGINS), producers=BOTH_ENABLED)
    wait_until_listed(control, DETECTOR)
    with daemon.client() as client:
        stream = client.start(ANALYTICS_AND_EVENTS)
        first.producers[0].wait_for_stream().send(numbered(1))
        expect_frames(stream, (GATE, 1))
        # Closes its streams, too.
        first.close()
        wait_until_listed(control)

        second = FakeReceiver(bus)
        counter = second.add(COUNTER)
        second.start()
        wait_until_listed(control, COUNTER)
        with daemon.client() as other:
            streams = other.start(ANALYTICS)
            counter.wait_for_stream().send(numbered(1))
            expect_frames(streams, (YARD, 1))
        second.close()
        expect_alive(client, stream)
    assert daemon.log.take() == []


def test_camera_whose_receiver_leaves_and_returns(start_camera, start_daemon, control):
    camera = start_camera("--rate", "20", producers="PersonDetector")
    daemon = start_daemon(plugins=EXTERNAL_PLUGINS, world_seconds=4)
    wait_until_listed(control, "PersonDetector")
    control.set_channels("PersonDetector", (1, True, "persons"))
    with daemon.client() as client:
        frames = producer_frames(client.start(ANALYTICS))
        assert next(frames)[0] == "persons"

        camera.absent(RECEIVER)
        wait_until_listed(control)
        camera.present(RECEIVER)
        wait_until_listed(control, "PersonDetector")
        assert control.channels("PersonDetector")[0] == (1, True, "persons")
        with daemon.client() as second:
            assert next(producer_frames(second.start(ANALYTICS)))[0] == "persons"
    assert daemon.log.take() == []


def test_camera_that_is_killed_ends_no_stream(start_camera, start_daemon, control):
    camera = start_camera(producers="PersonDetector")
    daemon = start_daemon(plugins=(EVENT_PLUGIN, *EXTERNAL_PLUGINS), world_seconds=4)
    wait_until_listed(control, "PersonDetector")
    control.set_channels("PersonDetector", (1, True, "persons"))
    with daemon.client() as client:
        stream = client.start(ANALYTICS_AND_EVENTS)
        next(producer_frames(stream))
        camera.end(signal.SIGKILL)
        wait_until_listed(control)

        start_camera(producers="PersonDetector")
        wait_until_listed(control, "PersonDetector")
        expect_alive(client, stream)
    assert daemon.log.take() == []


def test_bus_that_stops_ends_no_stream(own_bus, start_daemon):
    receiver, control = FakeReceiver(own_bus), ControlClient(own_bus)
    detector = receiver.add(DETECTOR)
    receiver.start()
    daemon = start_daemon(on=own_bus, plugins=EXTERNAL_PLUGINS, producers=BOTH_ENABLED)
    wait_until_listed(control, DETECTOR)
    control.close()
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        running = detector.wait_for_stream()
        # No reply is pending after this.
        running.send(numbered(1))
        expect_frames(stream, (GATE, 1))

        own_bus.stop()
        assert daemon.log.take(2) == NO_CONNECTION_LINES
        running.send(numbered(2))
        expect_frames(stream, (GATE, 2))
        daemon.expect_reply(ANALYTICS)
        running.send(numbered(3))
        expect_frames(stream, (GATE, 3))
    receiver.close()
    assert daemon.log.take() == []


# The last test, because its receiver takes long


def test_receiver_that_is_slow_at_first_is_called_again(overdue_receiver):
    overdue_receiver.wait_until_listed()
    assert overdue_receiver.daemon.log.take(1) == [not_connected("Timeout was reached")]
