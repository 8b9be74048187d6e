# SPDX-License-Identifier: MIT
"""The registry of the metadata receiver, and the start and the end of the program."""

import os
import subprocess

import pytest
from gi.repository import Gio, GLib

from installation import documented_limit
from receiverclient import NAME, PRODUCER, path_of
from receiverprocess import (LIMITS, LOST_BUS, LOST_NAME, REGISTRY, REGISTRY_PATH, SAMPLE, Receiver, refusal,
                             remote_refusal)
from waiting import BOUND_SECONDS, wait_until

MINE, OTHER = "Mine", "Other"


@pytest.fixture
def receiver(receiver_process):
    return receiver_process


@pytest.fixture
def watcher(receiver, watch):
    return watch()


def test_registered_producer_is_an_object(receiver, application, receiver_client):
    application.register(MINE, nice_name="Mein Zähler", channels=(3, 1, 2147483647))

    assert receiver_client.producers() == {
        path_of(MINE): {PRODUCER: {"Name": MINE, "NiceName": "Mein Zähler", "SupportedChannels": [3, 1, 2147483647]}}}
    assert receiver_client.properties(MINE).endswith("'SupportedChannels': <[uint32 3, 1, 2147483647]>}")
    assert receiver_client.sample_frame(MINE) == SAMPLE


def test_producers_are_announced(receiver, application, watcher):
    application.register(MINE)
    application.unregister(MINE)

    assert watcher.wait(2) == [("added", MINE, f"'{MINE}'"), ("removed", MINE, f"'{MINE}'")]


def test_largest_description_is_accepted(receiver, application, receiver_client):
    name = "x" * LIMITS["RECEIVER_MAX_NAME_BYTES"]
    sample = "{}".ljust(LIMITS["RECEIVER_MAX_SAMPLE_FRAME_BYTES"] - 1) + " "
    application.register(name, nice_name="x" * LIMITS["RECEIVER_MAX_NICE_NAME_BYTES"],
                         channels=range(1, LIMITS["RECEIVER_MAX_PRODUCER_CHANNELS"] + 1), sample=sample[:-2] + "\n ")

    assert receiver_client.names() == {name}


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
def test_invalid_descriptions_are_refused(receiver, application, receiver_client, arguments, error):
    name, text = refusal(application.register, **{"name": MINE, **arguments})

    assert name == error
    assert text
    assert receiver_client.names() == set()


def test_wrong_types_are_refused_by_the_interface(receiver, application):
    with pytest.raises(GLib.Error) as failed:
        application.request("RegisterProducer", "(s)", MINE)

    assert Gio.DBusError.get_remote_error(failed.value) == "org.freedesktop.DBus.Error.InvalidArgs"


def test_limits_are_those_of_the_daemon():
    """The receiver refuses what the daemon would leave out."""
    assert LIMITS["RECEIVER_MAX_NAME_BYTES"] == documented_limit("producerproperties.h",
                                                                 "PRODUCER_PROPERTIES_MAX_NAME_BYTES")
    assert LIMITS["RECEIVER_MAX_NICE_NAME_BYTES"] == documented_limit("producerproperties.h",
                                                                      "PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES")
    assert LIMITS["RECEIVER_MAX_PRODUCER_CHANNELS"] == documented_limit("producerproperties.h",
                                                                        "PRODUCER_PROPERTIES_MAX_CHANNELS")
    assert LIMITS["RECEIVER_MAX_SAMPLE_FRAME_BYTES"] <= documented_limit("dbusclient.h",
                                                                         "DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES")


def test_names_are_unique(receiver, application, start_application, receiver_client):
    application.register(MINE, nice_name="first")

    assert refusal(start_application().register, MINE)[0] == "NameTaken"
    assert refusal(application.register, MINE)[0] == "NameTaken"
    assert "'NiceName': <'first'>" in receiver_client.properties(MINE)


def test_only_the_owner_can_change_a_producer(receiver, application, start_application, receiver_client):
    stranger = start_application()
    application.register(MINE)

    assert refusal(stranger.unregister, MINE)[0] == "NotOwner"
    assert refusal(stranger.open_channel, MINE)[0] == "NotOwner"
    assert refusal(stranger.unregister, OTHER)[0] == "UnknownProducer"
    assert refusal(stranger.open_channel, "x" * 1000)[0] == "UnknownProducer"
    assert receiver_client.names() == {MINE}


def test_unsupported_channels_are_refused(receiver, application, receiver_client):
    application.register(MINE, channels=(2,))

    for channel in (0, 1, 3, 2147483647):
        assert refusal(application.open_channel, MINE, channel)[0] == "UnsupportedChannel"
        assert remote_refusal(receiver_client.request_stream, MINE, channel) == "UnsupportedChannel"
    assert refusal(application.open_channel, MINE, 4294967295)[0] == "UnsupportedChannel"
    assert remote_refusal(receiver_client.request_stream, MINE, -1) == "UnsupportedChannel"


def test_channel_is_open_once(receiver, application):
    application.register(MINE)
    application.open_channel(MINE)

    assert refusal(application.open_channel, MINE)[0] == "ChannelOpen"
    application.open_channel(MINE, 2)


def test_calls_of_an_application_are_served_in_order(receiver, application, receiver_client):
    """The application waits for no reply, so all calls arrive while the receiver looks its user up."""
    calls = [("RegisterProducer", "(ssausa{sv})", MINE, "", (1,), SAMPLE, {}), ("OpenChannel", "(su)", MINE, 1),
             ("UnregisterProducer", "(s)", MINE), ("RegisterProducer", "(ssausa{sv})", OTHER, "", (1,), SAMPLE, {})]
    for method, signature, *arguments in calls:
        application.start_call(NAME, REGISTRY_PATH, REGISTRY, method, GLib.Variant(signature, arguments))

    wait_until(lambda: receiver_client.names() == {OTHER}, "all calls are served")


def test_places_for_producers_are_bounded(receiver, application, start_application, receiver_client):
    places = LIMITS["RECEIVER_MAX_PRODUCERS"] - LIMITS["RECEIVER_PRODUCERS_KEPT"]
    for number in range(places):
        application.register(f"P{number}")

    assert refusal(application.register, "Another")[0] == "LimitExceeded"
    assert refusal(start_application().register, "Another")[0] == "LimitExceeded"
    application.unregister("P0")
    application.register("Another")
    assert len(receiver_client.names()) == places


# The bus


def test_taken_name_ends_the_receiver(receiver, installation, bus):
    second = Receiver(installation, bus)
    try:
        assert second.wait() == (1, "", f"tessard-receiver: {LOST_NAME[1]}\n")
        assert LOST_NAME in second.take_warnings(1)
    finally:
        second.finish()


def test_end_of_the_bus_ends_the_receiver(start_receiver_process, own_bus):
    receiver = start_receiver_process(on=own_bus)
    own_bus.stop()

    assert receiver.wait() == (1, "", f"tessard-receiver: {LOST_BUS[1]}\n")
    assert receiver.take_warnings(1) == [LOST_BUS]


def test_signal_ends_the_receiver_and_its_streams(receiver, application, receiver_client):
    application.register(MINE)
    stream = receiver_client.open(MINE)
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
