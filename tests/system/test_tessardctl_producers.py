# SPDX-License-Identifier: MIT
"""tessardctl producers, show, enable and disable, and what these share with apply, with a fake control service."""

import json
import os
import re

import pytest
from gi.repository import Gio, GLib

from daemon import RADAR_TRACKER as RADAR
from daemon import VIDEO_TRACKER as VIDEO
from fakeservice import properties
from installation import documented_limit
from tessardctl import BUS_COMMANDS, ENDED, LOCAL, MALFORMED, NO_CONNECTION, REFUSED, SUCCESS, failure
from controlclient import PRODUCER, ROOT, path_of

MAX_PRODUCERS = documented_limit("../tools/producers.h", "PRODUCERS_MAX")
MAX_CHANNELS = documented_limit("../tools/producers.h", "PRODUCERS_MAX_CHANNELS")

# The commands that call the daemon, and end after one call.
COMMANDS = {name: words for name, words in BUS_COMMANDS.items()
            if name not in ("list", "monitor", "produce", "emit", "topics")}


# Every command


@pytest.mark.parametrize("command", BUS_COMMANDS)
@pytest.mark.parametrize("address", ["unix:path=/nonexistent/bus", "nothing", "unix:path="])
def test_unreachable_bus(run_on_bus, command, address):
    result = run_on_bus(*BUS_COMMANDS[command], "--bus", address)
    assert result.err.startswith(b"tessardctl: Could not connect to the bus: ")
    assert (result.status, result.out) == (NO_CONNECTION, b"")


@pytest.mark.parametrize("command", COMMANDS)
def test_name_without_an_owner(run_on_bus, command):
    assert run_on_bus(*COMMANDS[command]) == failure(
        NO_CONNECTION, "The daemon is not on the bus: 'com.quon.MetadataServer1' has no owner.")


@pytest.mark.parametrize("command", COMMANDS)
def test_bus_option_replaces_the_system_bus(run_on_bus, start_bus, started_service, stand_in_bus, command):
    system_bus = start_bus()
    result = run_on_bus(*COMMANDS[command], "--bus", stand_in_bus.address,
                        env={"DBUS_SYSTEM_BUS_ADDRESS": system_bus.address})
    assert (result.status, result.err) == (SUCCESS, b"")
    assert started_service.calls != []


@pytest.mark.parametrize("command", COMMANDS)
def test_calls_do_not_start_the_daemon(run_on_bus, started_service, command):
    run_on_bus(*COMMANDS[command])
    assert started_service.flags == {Gio.DBusMessageFlags.NO_AUTO_START}


each_call = pytest.mark.parametrize("method, command", [
    ("GetManagedObjects", "producers"), ("GetManagedObjects", "show"), ("GetManagedObjects", "enable"),
    ("SetChannelsEnabled", "enable"), ("SetChannelsEnabled", "disable"), ("SetProducersEnabled", "apply"),
    ("GetStatus", "status"),
])


@each_call
def test_refusal(run_on_bus, fake_service, method, command):
    fake_service.errors[method] = ("org.freedesktop.DBus.Error.Failed", "Because: 100 % no\x1b[2J")
    fake_service.start()
    assert run_on_bus(*COMMANDS[command]) == failure(REFUSED, "Because: 100 % no\\u001b[2J")


@each_call
def test_refusal_without_a_text(run_on_bus, fake_service, method, command):
    fake_service.errors[method] = ("com.quon.Error.Odd", "")
    fake_service.start()
    assert run_on_bus(*COMMANDS[command]) == failure(REFUSED, "com.quon.Error.Odd")


@each_call
def test_daemon_leaves_before_its_reply(run_on_bus, fake_service, method, command):
    fake_service.leaving.add(method)
    fake_service.start()
    assert run_on_bus(*COMMANDS[command]) == failure(ENDED, "The daemon left without a reply.")


@each_call
def test_reply_of_another_type(run_on_bus, fake_service, method, command):
    fake_service.replies[method] = GLib.Variant("(s)", ("what?",))
    fake_service.start()
    expected = {"GetManagedObjects": "(a{oa{sa{sv}}})", "GetStatus": "(a{sv})"}.get(method, "()")
    assert run_on_bus(*COMMANDS[command]) == failure(
        MALFORMED, f"What the daemon sent for {method} has the type '(s)', not '{expected}'.")


@pytest.mark.parametrize("command", ["producers", "show", "enable", "disable", "monitor"])
@pytest.mark.parametrize("name, value, type_", [
    ("Name", GLib.Variant("i", 1), "s"), ("NiceName", GLib.Variant("as", []), "s"),
    ("SampleFrameXML", GLib.Variant("ay", b"<a/>"), "s"), ("ChannelsEnabled", GLib.Variant("a(ubs)", []), "a(ibs)"),
    ("ChannelsEnabled", GLib.Variant("v", GLib.Variant("a(ibs)", [])), "a(ibs)"),
])
def test_property_of_another_type(run_on_bus, fake_service, command, name, value, type_):
    fake_service.producers[path_of(VIDEO)][name] = value
    fake_service.start()
    assert run_on_bus(*BUS_COMMANDS[command]) == failure(MALFORMED, f"What the daemon sent for {name} has the type "
                                                                    f"'{value.get_type_string()}', not '{type_}'.")


@pytest.mark.parametrize("name", ["Name", "NiceName", "SampleFrameXML", "ChannelsEnabled"])
def test_property_that_is_missing(run_on_bus, fake_service, name):
    del fake_service.producers[path_of(VIDEO)][name]
    fake_service.start()
    assert run_on_bus("producers") == failure(MALFORMED, f"The daemon's object '{path_of(VIDEO)}' has no property "
                                                         f"{name}.")


def test_objects_of_other_interfaces_are_ignored(run_on_bus, fake_service):
    fake_service.replies["GetManagedObjects"] = GLib.Variant("(a{oa{sa{sv}}})", ({
        ROOT + "/other": {"com.quon.Other": {"Name": GLib.Variant("s", "other")}}, ROOT + "/empty": {}},))
    fake_service.start()
    assert run_on_bus("producers", "--names").out == b""


@pytest.mark.parametrize("count", [MAX_PRODUCERS, MAX_PRODUCERS + 1])
def test_number_of_producers_is_bounded(run_on_bus, fake_service, count):
    fake_service.replies["GetManagedObjects"] = GLib.Variant("(a{oa{sa{sv}}})", ({
        path_of(f"p{number:04}"): {PRODUCER: properties(f"p{number:04}")} for number in range(count)},))
    fake_service.start()
    result = run_on_bus("producers", "--names")
    if count == MAX_PRODUCERS:
        assert len(result.out.splitlines()) == count
    else:
        assert result == failure(MALFORMED, f"The daemon has more than {MAX_PRODUCERS} producers.")


@pytest.mark.parametrize("count", [MAX_CHANNELS, MAX_CHANNELS + 1])
def test_number_of_channels_is_bounded(run_on_bus, fake_service, count):
    fake_service.producers[path_of(VIDEO)] = properties(VIDEO, channels=[(n, False, "") for n in range(count)])
    fake_service.start()
    result = run_on_bus("producers", "--channels", VIDEO)
    if count == MAX_CHANNELS:
        assert len(result.out.splitlines()) == count
    else:
        assert (result.status, result.out) == (MALFORMED, b"")
        assert result.err.endswith(f" has more than {MAX_CHANNELS} channels.\n".encode())


# producers


def test_table(run_on_bus, started_service):
    result = run_on_bus("producers")
    assert (result.status, result.err) == (SUCCESS, b"")
    assert result.out.decode() == (
        "NAME                NICE NAME                  CHANNEL  STATE     CONFIGURATION\n"
        "RadarMotionTracker  Quon radar motion tracker  1        disabled  -\n"
        "VideoMotionTracker  Quon video motion tracker  1        enabled   profile1\n"
        "VideoMotionTracker  Quon video motion tracker  2        disabled  -\n")


def test_list_is_an_alias(run_on_bus, started_service):
    for options in ([], ["--json"], ["--names"], ["--channels", VIDEO]):
        listed, expected = run_on_bus("list", *options), run_on_bus("producers", *options)
        assert (listed.status, listed.out, listed.err) == (SUCCESS, expected.out, b"")


def test_no_producers(run_on_bus, fake_service):
    fake_service.start({})
    assert run_on_bus("producers").out == b"NAME  NICE NAME  CHANNEL  STATE  CONFIGURATION\n"
    assert run_on_bus("producers", "--json").out == b"[]\n"
    assert run_on_bus("producers", "--names").out == b""


def test_producer_without_channels(run_on_bus, fake_service):
    fake_service.start({path_of("a"): properties("a", "A")})
    assert run_on_bus("producers").out.splitlines()[1:] == [b"a     A          -        -      -"]


def test_channels_in_the_order_of_numbers(run_on_bus, fake_service):
    fake_service.start({path_of("a"): properties("a", "A", [(n, False, "") for n in (10, 9, 2147483647, -1)])})
    assert [line.split()[2] for line in run_on_bus("producers").out.splitlines()[1:]] == [
        b"-1", b"9", b"10", b"2147483647"]


def test_wide_and_combined_characters_keep_the_columns(run_on_bus, fake_service):
    fake_service.start({path_of("a"): properties("a", "摄像机", [(1, False, "")]),
                        path_of("b"): properties("b", "e\u0301tage", [(1, False, "")])})
    assert run_on_bus("producers").out.decode().splitlines()[1:] == [
        "a     摄像机     1        disabled  -",
        "b     e\u0301tage      1        disabled  -",
    ]


@pytest.mark.parametrize("text, shown", [
    ("a\nb", "a\\u000ab"), ("\x1b[2Ja", "\\u001b[2Ja"), ("\u009b1m", "\\u009b1m"), ("a\tb\r", "a\\u0009b\\u000d"),
    ("\u202etxt", "\\u202etxt"), ("a\u2028b\u2029c", "a\\u2028b\\u2029c"), ("\U000e0001", "\\udb40\\udc01"),
    ("100 %s%n", "100 %s%n"),
])
@pytest.mark.parametrize("place", ["name", "nice name", "configuration"])
def test_control_characters_are_escaped(run_on_bus, fake_service, text, shown, place):
    channels = [(1, True, text if place == "configuration" else "c")]
    fake_service.start({path_of("a"): properties(text if place == "name" else "n",
                                                 text if place == "nice name" else "N", channels)})
    lines = run_on_bus("producers").out.decode().split("\n")
    assert len(lines) == 3 and lines[2] == ""
    assert re.split(r" {2,}", lines[1]) == [
        shown if place == "name" else "n", shown if place == "nice name" else "N", "1", "enabled",
        shown if place == "configuration" else "c"]


def test_json(run_on_bus, started_service):
    result = run_on_bus("producers", "--json")
    assert (result.status, result.err) == (SUCCESS, b"")
    assert json.loads(result.out) == [
        {"Name": RADAR, "NiceName": "Quon radar motion tracker",
         "Channels": [{"Channel": 1, "Enabled": False, "Configuration": ""}]},
        {"Name": VIDEO, "NiceName": "Quon video motion tracker",
         "Channels": [{"Channel": 1, "Enabled": True, "Configuration": "profile1"},
                      {"Channel": 2, "Enabled": False, "Configuration": ""}]},
    ]


def test_json_keeps_every_text_and_has_no_control_characters(run_on_bus, fake_service):
    text = "\x01\x1b[2J\x7f\u009b1m\u2028\u202e\"\\u001b\\\U000e0001 \U0001f600é\n\t"
    fake_service.start({path_of("a"): properties(text, text, [(1, True, text)])})
    out = run_on_bus("producers", "--json").out.decode()
    assert json.loads(out) == [{"Name": text, "NiceName": text,
                                "Channels": [{"Channel": 1, "Enabled": True, "Configuration": text}]}]
    assert all(c.isprintable() or c == "\n" for c in out)


def test_names(run_on_bus, started_service):
    assert run_on_bus("producers", "--names").out.decode() == f"{RADAR}\n{VIDEO}\n"


def test_channels_of_one_producer(run_on_bus, started_service):
    assert run_on_bus("producers", "--channels", VIDEO).out == b"1\n2\n"
    assert run_on_bus("producers", "--channels", "unknown") == failure(REFUSED, "There is no producer 'unknown'.")


def test_output_that_cannot_be_written(start_on_bus, started_service):
    with open("/dev/full", "wb") as full:
        result = start_on_bus("producers", stdout=full).finish()
    assert (result.status, result.err) == (
        LOCAL, b"tessardctl: Could not write to standard output: Error writing to file descriptor: "
               b"No space left on device.\n")


def test_output_without_a_reader(start_on_bus, started_service):
    reader, writer = os.pipe()
    os.close(reader)
    with os.fdopen(writer, "wb") as unread:
        result = start_on_bus("producers", stdout=unread).finish()
    assert (result.status, result.err) == (SUCCESS, b"")


# show


def test_all_properties_of_one_producer(run_on_bus, started_service):
    result = run_on_bus("show", VIDEO)
    assert (result.status, result.err) == (SUCCESS, b"")
    assert result.out.decode() == (
        "Name: VideoMotionTracker\n"
        "Nice name: Quon video motion tracker\n"
        "Object: /com/quon/MetadataServer1/Producers/VideoMotionTracker\n"
        "Channel 1: enabled as 'profile1'\n"
        "Channel 2: disabled\n"
        "Sample frame:\n"
        '<?xml version="1.0" encoding="UTF-8"?>\n'
        '<tt:SampleFrame xmlns:tt="http://www.onvif.org/ver10/schema">\n'
        "  <tt:Object/>\n"
        "</tt:SampleFrame>\n")


def test_no_sample_frame(run_on_bus, fake_service):
    fake_service.start({path_of("a"): properties("a", frame="")})
    assert run_on_bus("show", "a").out.endswith(b"\nSample frame: none\n")


@pytest.mark.parametrize("frame, shown", [
    ("<a><b", b"<a><b\n"), ("\x1b[2J\r", b"\\u001b[2J\\u000d\n"),
    ("<a>\u009b1m</a>", b'<?xml version="1.0" encoding="UTF-8"?>\n<a>\\u009b1m</a>\n'),
])
def test_sample_frame_that_is_not_plain_xml(run_on_bus, fake_service, frame, shown):
    fake_service.start({path_of("a"): properties("a", frame=frame)})
    assert run_on_bus("show", "a").out.split(b"Sample frame:\n")[1] == shown


def test_fields_hold_no_control_characters(run_on_bus, fake_service):
    fake_service.start({path_of("a"): properties("a", "n\nChannel 1: enabled", [(2, True, "c\nd")], "")})
    assert run_on_bus("show", "a").out.splitlines()[1:] == [
        b"Nice name: n\\u000aChannel 1: enabled", b"Object: " + path_of("a").encode(),
        b"Channel 2: enabled as 'c\\u000ad'", b"Sample frame: none"]


@pytest.mark.parametrize("name", ["unknown", "", "a/b", "../x", b"\xff"])
def test_unknown_producer(run_on_bus, started_service, name):
    result = run_on_bus("show", name)
    shown = name if isinstance(name, str) else "\ufffd"
    assert (result.status, result.out) == (REFUSED, b"")
    assert result.err == f"tessardctl: There is no producer '{shown}'.\n".encode()


# enable and disable


def test_enable(run_on_bus, started_service):
    assert run_on_bus("enable", VIDEO, "2", "profile é") == (SUCCESS, b"", b"")
    assert started_service.set_calls() == [(path_of(VIDEO), "SetChannelsEnabled", ([(2, True, "profile é")],))]


def test_disable(run_on_bus, started_service):
    assert run_on_bus("disable", RADAR, "1") == (SUCCESS, b"", b"")
    assert started_service.set_calls() == [(path_of(RADAR), "SetChannelsEnabled", ([(1, False, "")],))]


@pytest.mark.parametrize("text, number", [("0", 0), ("-5", -5), ("007", 7), ("2147483647", 2147483647),
                                          ("-2147483648", -2147483648)])
def test_daemon_validates_the_channel(run_on_bus, started_service, text, number):
    assert run_on_bus("disable", "--", VIDEO, text).status == SUCCESS
    assert started_service.set_calls() == [(path_of(VIDEO), "SetChannelsEnabled", ([(number, False, "")],))]


def test_daemon_validates_an_empty_configuration(run_on_bus, started_service):
    assert run_on_bus("enable", VIDEO, "1", "").status == SUCCESS
    assert started_service.set_calls() == [(path_of(VIDEO), "SetChannelsEnabled", ([(1, True, "")],))]


def test_refused_channel_of_a_producer_without_channels(run_on_bus, fake_service):
    fake_service.errors["SetChannelsEnabled"] = ("org.freedesktop.DBus.Error.Failed", "No")
    fake_service.start({path_of("a"): properties("a", "A")})
    assert run_on_bus("disable", "a", "1").err == b"tessardctl: No. Channels of 'a': none.\n"


@pytest.mark.parametrize("arguments", [["enable", "unknown", "1", "a"], ["disable", "unknown", "1"]])
def test_switching_an_unknown_producer(run_on_bus, started_service, arguments):
    assert run_on_bus(*arguments) == failure(REFUSED, "There is no producer 'unknown'.")
    assert started_service.set_calls() == []


def test_producer_is_found_by_name_not_by_path(run_on_bus, fake_service):
    fake_service.start({path_of("_30"): properties("a b/c")})
    assert run_on_bus("disable", "a b/c", "1").status == SUCCESS
    assert fake_service.set_calls() == [(path_of("_30"), "SetChannelsEnabled", ([(1, False, "")],))]
