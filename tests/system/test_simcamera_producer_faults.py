# SPDX-License-Identifier: MIT
"""Faults of the simulated camera's producers: wrong properties, injected replies, and refused verbs."""

import os
import time

import pytest
from gi.repository import Gio, GLib

from busclient import PROPERTIES, remote_error
from receiverclient import NAME, PRODUCER, path_of
from simcamera import FAILURE, MAX_LINE_BYTES, MAX_NAME_BYTES, PERSONS, RECEIVER, SLOW_MS, VEHICLES, Refused
from waiting import BOUND_SECONDS, wait_until

# Long enough for a verb to take effect meanwhile, even on a busy machine.
VERY_SLOW_MS = 3000


@pytest.fixture
def start_camera(start_full_camera):
    return start_full_camera


@pytest.mark.parametrize("prop, value, told", [
    ("Name", "'Other'", "{'Name': <'Other'>, 'NiceName': <'Simulated person detector'>, "
                        "'SupportedChannels': <[uint32 1, 2]>}"),
    ("Name", "none", "{'NiceName': <'Simulated person detector'>, 'SupportedChannels': <[uint32 1, 2]>}"),
    ("Name", "@ay [1]", "{'Name': <[byte 0x01]>, 'NiceName': <'Simulated person detector'>, "
                        "'SupportedChannels': <[uint32 1, 2]>}"),
    ("NiceName", "5", "{'Name': <'PersonDetector'>, 'NiceName': <5>, 'SupportedChannels': <[uint32 1, 2]>}"),
    ("SupportedChannels", "[1]", "{'Name': <'PersonDetector'>, 'NiceName': <'Simulated person detector'>, "
                                 "'SupportedChannels': <[1]>}"),
    ("SupportedChannels", "none", "{'Name': <'PersonDetector'>, 'NiceName': <'Simulated person detector'>}"),
])
def test_properties_are_replaced_and_announced_anew(camera, receiver_client, watch, prop, value, told):
    stream = receiver_client.open(PERSONS)
    watcher = watch()
    camera.property(PERSONS, prop, value)
    announced = {("Name", "'Other'"): "'Other'", ("Name", "none"): None, ("Name", "@ay [1]"): "[byte 0x01]"}.get(
        (prop, value), f"'{PERSONS}'")

    assert receiver_client.properties(PERSONS) == told
    reply = receiver_client.call(NAME, path_of(PERSONS), PROPERTIES, "GetAll", GLib.Variant("(s)", (PRODUCER,)))
    assert reply.print_(True) == f"({told},)"
    assert watcher.wait(2) == [("removed", PERSONS, f"'{PERSONS}'"), ("added", PERSONS, announced)]
    stream.item()
    receiver_client.open(PERSONS).item()


def test_absent_property_cannot_be_read(camera, receiver_client):
    camera.property(PERSONS, "Name", "none")
    with pytest.raises(GLib.Error) as failed:
        receiver_client.get(NAME, path_of(PERSONS), PRODUCER, "Name")

    assert remote_error(failed)[0] == "InvalidArgs"


def test_replaced_channels_get_streams(camera, receiver_client):
    camera.property(PERSONS, "SupportedChannels", "@au [7]")
    receiver_client.open(PERSONS, channel=7).item()

    with pytest.raises(GLib.Error):
        receiver_client.request_stream(PERSONS, 1)


def test_interface_is_replaced_and_announced_anew(camera, receiver_client, watch):
    stream = receiver_client.open(PERSONS)
    told = receiver_client.properties(PERSONS)
    watcher = watch()
    camera.interface(PERSONS, "some.Other1")

    assert set(receiver_client.producers()[path_of(PERSONS)]) == {"some.Other1"}
    assert receiver_client.get(NAME, path_of(PERSONS), "some.Other1", "Name").unpack() == (PERSONS,)
    with pytest.raises(GLib.Error) as failed:
        receiver_client.sample_frame(PERSONS)
    assert remote_error(failed)[0] == "UnknownMethod"
    stream.item()

    camera.interface(PERSONS, PRODUCER)
    assert receiver_client.properties(PERSONS) == told
    assert watcher.wait(4) == [("removed", PERSONS, f"'{PERSONS}'"), ("added", PERSONS, None),
                               ("removed", PERSONS, None), ("added", PERSONS, f"'{PERSONS}'")]
    receiver_client.open(PERSONS).item()


def test_very_long_name_can_be_announced(camera, receiver_client):
    """Longer than a command line may be, so it is sent over the bus."""
    value = "'" + "x" * 1000000 + "'"
    receiver_client.call("tessard.SimulatedCamera1", "/tessard/SimulatedCamera1", "tessard.SimulatedCamera1", "Tell",
                         GLib.Variant("(as)", (["property", PERSONS, "Name", value],)))

    assert receiver_client.producers()[path_of(PERSONS)][PRODUCER]["Name"] == value[1:-1]


def test_sample_frame_can_be_any_text(camera, receiver_client):
    camera.sample_frame(PERSONS, "{ not JSON ü")
    assert receiver_client.sample_frame(PERSONS) == "{ not JSON ü"

    camera.sample_frame(PERSONS, "")
    assert receiver_client.sample_frame(PERSONS) == ""


def call_method(receiver_client, method, **arguments):
    return (receiver_client.request_sample_frame(PERSONS, **arguments) if method == "GetSampleFrame" else
            receiver_client.request_stream(PERSONS, **arguments)[0])


METHODS = {"GetSampleFrame": "(s)", "GetStreamFd": "(h)"}


@pytest.mark.parametrize("method", METHODS)
@pytest.mark.parametrize("how, reply", [
    (["empty"], "()"),
    (["reply", "(1,)"], "(1,)"),
    (["reply", "('two', 'words')"], "('two', 'words')"),
])
def test_wrong_replies_are_sent_as_they_are(camera, receiver_client, method, how, reply):
    camera.inject_producer_fault(PERSONS, method, *how)
    assert call_method(receiver_client, method).print_(True) == reply

    camera.clear_producer_faults(PERSONS)
    assert call_method(receiver_client, method).get_type_string() == METHODS[method]


@pytest.mark.parametrize("method, how, reply", [
    ("GetSampleFrame", "wrong-type", "(1,)"),
    ("GetSampleFrame", "variant", "(<'{}'>,)"),
    ("GetSampleFrame", "nested", "(('{}',),)"),
    ("GetStreamFd", "wrong-type", "('wrong',)"),
])
def test_wrong_replies_with_names_are_sent_as_they_are(camera, receiver_client, method, how, reply):
    camera.inject_producer_fault(PERSONS, method, how)

    assert call_method(receiver_client, method).print_(True) == reply


def test_reply_without_a_descriptor(camera, receiver_client):
    camera.inject_producer_fault(PERSONS, "GetStreamFd", "no-descriptor")
    reply, descriptors = receiver_client.request_stream(PERSONS)

    assert reply.print_(True) == "(handle 0,)"
    assert descriptors is None
    assert camera.streams(PERSONS) == 0


def test_reply_with_a_wrong_index(camera, receiver_client):
    camera.inject_producer_fault(PERSONS, "GetStreamFd", "wrong-index")
    reply, descriptors = receiver_client.request_stream(PERSONS)

    assert reply.print_(True) == "(handle 1,)"
    assert descriptors.get_length() == 1
    del descriptors
    wait_until(lambda: camera.streams(PERSONS) == 0, "the stream has ended with the list of descriptors")


@pytest.mark.parametrize("method", METHODS)
def test_errors_have_their_text(camera, receiver_client, method):
    camera.inject_producer_fault(PERSONS, method, "error", "No such ü")
    with pytest.raises(GLib.Error) as failed:
        call_method(receiver_client, method)

    assert remote_error(failed) == ("Failed", "No such ü")
    assert camera.streams(PERSONS) == 0


@pytest.mark.parametrize("method", METHODS)
def test_slow_replies_are_correct_and_late(camera, receiver_client, method):
    camera.inject_producer_fault(PERSONS, method, "slow", SLOW_MS)
    began = time.monotonic()

    assert call_method(receiver_client, method).get_type_string() == METHODS[method]
    assert time.monotonic() - began >= SLOW_MS / 1000


@pytest.mark.parametrize("method", METHODS)
def test_fault_never_suppresses_the_reply(camera, receiver_client, method):
    camera.inject_producer_fault(PERSONS, method, "never")
    with pytest.raises(GLib.Error) as failed:
        call_method(receiver_client, method, seconds=SLOW_MS / 1000)

    assert failed.value.matches(Gio.io_error_quark(), Gio.IOErrorEnum.TIMED_OUT)
    assert camera.streams(PERSONS) == 0


def test_slow_reply_of_a_removed_producer_is_an_error(camera, receiver_client):
    camera.inject_producer_fault(PERSONS, "GetSampleFrame", "slow", VERY_SLOW_MS)
    outcome = []
    receiver_client.connection.call(NAME, path_of(PERSONS), PRODUCER, "GetSampleFrame", None, None,
                                    Gio.DBusCallFlags.NONE, BOUND_SECONDS * 1000, None,
                                    lambda connection, result: outcome.append(result))
    wait_until(lambda: camera.calls(RECEIVER) == 1, "the call has arrived")
    camera.remove_producer(PERSONS)

    def has_reply():
        GLib.MainContext.default().iteration(False)
        return outcome

    wait_until(has_reply, "a reply")

    with pytest.raises(GLib.Error) as failed:
        receiver_client.connection.call_finish(outcome[0])
    assert remote_error(failed) == ("UnknownObject", "the producer has gone")


def test_a_fault_affects_one_method_of_one_producer_only(camera, receiver_client):
    camera.inject_producer_fault(PERSONS, "GetSampleFrame", "empty")

    receiver_client.open(PERSONS).item()
    assert receiver_client.sample_frame(VEHICLES)


def test_a_fault_of_a_method_overrides_the_fault_of_the_service(camera, receiver_client):
    camera.inject_fault(RECEIVER, "wrong-type")
    camera.inject_producer_fault(PERSONS, "GetStreamFd", "empty")

    assert receiver_client.request_sample_frame(PERSONS).print_(True) == "(1,)"
    assert receiver_client.request_stream(PERSONS)[0].print_(True) == "()"
    assert receiver_client.request_stream(VEHICLES)[0].print_(True) == "(1,)"
    camera.clear_fault(RECEIVER)
    assert receiver_client.request_stream(PERSONS)[0].print_(True) == "()"
    receiver_client.open(VEHICLES).item()


def test_calls_of_both_methods_of_all_producers_are_counted(camera, receiver_client):
    receiver_client.sample_frame(PERSONS)
    receiver_client.open(VEHICLES)
    camera.inject_producer_fault(PERSONS, "GetStreamFd", "empty")
    receiver_client.request_stream(PERSONS)

    assert camera.calls(RECEIVER) == 3


# Refused verbs


KINDS = "error [TEXT], reply BODY, slow MILLISECONDS, never"


@pytest.mark.parametrize("words, text", [
    *[([verb, "Unknown", *rest], f"unknown producer 'Unknown'; there are: {PERSONS}, {VEHICLES}")
      for verb, *rest in (["remove-producer"], ["property", "Name", "none"], ["interface", PRODUCER],
                          ["sample-frame", "x"], ["inject-producer-fault", "GetStreamFd", "never"],
                          ["clear-producer-faults"], ["streams"], ["hang-up"], ["descriptors", "pipe"],
                          ["pieces", "0", "0"])],
    (["add-producer", PERSONS], f"there is a producer '{PERSONS}' already"),
    (["add-producer", "a b"], f"a producer's name must be 1 to {MAX_NAME_BYTES} letters, digits and underscores, not "
                              "'a b'"),
    (["property", PERSONS, "Colour", "1"], "unknown property 'Colour'; there are: Name, NiceName, SupportedChannels"),
    (["property", PERSONS, "Name", "just 1"], "the bus carries no such value: 'just 1'"),
    (["property", PERSONS, "Name", "<just 1>"], "the bus carries no such value: '<just 1>'"),
    (["property", PERSONS, "Name", "()"], "the bus carries no such value: '()'"),
    (["interface", PERSONS, "none"], "not a name for a producer's interface: 'none'"),
    (["interface", PERSONS, PROPERTIES], f"not a name for a producer's interface: '{PROPERTIES}'"),
    (["inject-producer-fault", PERSONS, "Get", "never"],
     "unknown method 'Get'; there are: GetSampleFrame, GetStreamFd"),
    (["inject-producer-fault", PERSONS, "GetStreamFd", "badly"],
     f"unknown fault 'badly'; there are: {KINDS}, wrong-type, no-descriptor, wrong-index, empty"),
    (["inject-producer-fault", PERSONS, "GetSampleFrame", "no-descriptor"],
     f"unknown fault 'no-descriptor'; there are: {KINDS}, wrong-type, variant, nested, empty"),
    (["descriptors", PERSONS, "file"], "the descriptor must be socket or pipe, not 'file'"),
    (["descriptors", PERSONS, "pipe", "slow"], "its mode must be blocking or nonblocking, not 'slow'"),
    (["pieces", PERSONS, "-1", "0"], f"the number of bytes must be a number from 0 to {MAX_LINE_BYTES}, not '-1'"),
    (["pieces", PERSONS, "1", "60001"], "the pause in milliseconds must be a number from 0 to 60000, not '60001'"),
    (["rate", "1000001"], "the rate must be a number from 0 to 1000000, not '1000001'"),
    (["once", "maybe"], "once must be yes or no, not 'maybe'"),
])
def test_wrong_verbs_are_refused_and_change_nothing(camera, receiver_client, words, text):
    before = receiver_client.producers()
    assert camera.run_tell(*words) == (FAILURE, "", f"simcamera: {text}\n")

    assert receiver_client.producers() == before
    stream = receiver_client.open(PERSONS)
    assert os.readlink(f"/proc/self/fd/{stream.fd}").startswith("pipe:")
    stream.item()


def test_value_that_is_no_gvariant_is_refused(camera):
    with pytest.raises(Refused, match="^simcamera: the value is not in GVariant's text format: .+\n$"):
        camera.property(PERSONS, "Name", "(5")


def test_signals_end_the_camera_and_its_streams(start_camera, receiver_client):
    camera = start_camera()
    stream = receiver_client.open(PERSONS)
    stream.item()

    assert camera.end() == (0, "", "")
    stream.expect_end()
