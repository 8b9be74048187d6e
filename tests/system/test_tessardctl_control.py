"""tessardctl's commands that call the daemon over the bus, against a fake daemon."""

import json
import os
import pty
import re
import signal

import pytest
from gi.repository import Gio, GLib

from busclient import PROPERTIES
from daemon import RADAR_TRACKER as RADAR
from daemon import VIDEO_TRACKER as VIDEO
from fakeservice import FakeService, properties
from installation import TREE, documented_limit
from overdue import CALL_SECONDS
from tessardctl import ENDED, LOCAL, MALFORMED, NO_CONNECTION, REFUSED, SUCCESS, USAGE, read_lines, read_some
from tool import OBJECT_MANAGER, PRODUCER, ROOT, path_of
from waiting import wait_until

MAX_PRODUCERS = documented_limit("../tools/producers.h", "PRODUCERS_MAX")
MAX_CHANNELS = documented_limit("../tools/producers.h", "PRODUCERS_MAX_CHANNELS")
MAX_PENDING_BYTES = documented_limit("../tools/linewriter.h", "LINE_WRITER_MAX_PENDING_BYTES")
MAX_FILE_BYTES = documented_limit("../tools/applyfile.h", "APPLY_FILE_MAX_BYTES")

ABSENT = b"tessardctl: The daemon is not on the bus: 'com.quon.MetadataServer1' has no owner.\n"

# A valid command line of every command.
COMMANDS = {
    "producers": ["producers"],
    "show": ["show", VIDEO],
    "enable": ["enable", VIDEO, "1", "profile1"],
    "disable": ["disable", VIDEO, "1"],
    "apply": ["apply", "-"],
}

ALL_COMMANDS = COMMANDS | {"monitor": ["monitor"], "list": ["list"]}


# What the name of a configuration cannot contain.
BAD_CHARACTERS = [('"', "a quotation mark"), ("\\", "a backslash"), ("\n", "a control character"),
                  ("\x01", "a control character"), ("\x7f", "a control character")]

CHANNEL = '{"Channel": 1, "Enabled": true, "Configuration": "c"}'


def producer(channel=CHANNEL, name='"a"'):
    """A file with one producer."""
    return f'[{{"Name": {name}, "Channels": [{channel}]}}]'


@pytest.fixture
def make_service(stand_in_bus):
    """Makes fake daemons, which the test starts."""
    services = []

    def make():
        services.append(FakeService(stand_in_bus))
        return services[-1]

    yield make
    for service in services:
        service.close()


@pytest.fixture
def service(make_service):
    """A fake daemon with the two trackers, not started yet."""
    made = make_service()
    made.producers = {
        path_of(VIDEO): properties(VIDEO, "Quon video motion tracker", [(2, False, ""), (1, True, "profile1")]),
        path_of(RADAR): properties(RADAR, "Quon radar motion tracker", [(1, False, "")]),
    }
    return made


@pytest.fixture
def started(service):
    service.start()
    return service


@pytest.fixture
def control(start, stand_in_bus):
    """Starts a command with the bus of the test as the system bus."""

    def start_control(*args, env=None, **popen_args):
        return start(*args, env={"DBUS_SYSTEM_BUS_ADDRESS": stand_in_bus.address} | (env or {}), **popen_args)

    return start_control


@pytest.fixture
def ask(control, tmp_path):
    """Runs a command with a text as its standard input."""

    def run_control(*args, stdin="[]", **popen_args):
        path = tmp_path / "stdin"
        path.write_text(stdin, encoding="utf-8")
        with open(path, "rb") as file:
            return control(*args, stdin=file, **popen_args).finish()

    return run_control


def lines_of(tool, count):
    return [line.decode().removesuffix("\n") for line in read_lines(tool.out, count)]


class TestUsage:
    def test_help_lists_the_commands(self, run):
        text = run("--help").out.decode()
        for command in ALL_COMMANDS:
            assert re.search(rf"^  {command} +\S", text, re.MULTILINE)

    @pytest.mark.parametrize("command, arguments", [
        ("producers", ""), ("list", ""), ("show", " NAME"), ("enable", " NAME CHANNEL CONFIGURATION"),
        ("disable", " NAME CHANNEL"), ("apply", " FILE"), ("monitor", ""),
    ])
    def test_help_of_each(self, run, command, arguments):
        result = run(command, "--help")
        text = result.out.decode()
        assert result.status == SUCCESS
        assert re.match(rf"Usage:\n  tessardctl {command} \[OPTION…\]{arguments} ?\n", text)
        assert "  --bus=ADDRESS " in text
        assert re.findall(r"^  (\d)  \S", text, re.MULTILINE) == [str(status) for status in range(8)]

    @pytest.mark.parametrize("args, message", [
        (["producers", "now"], "Unexpected argument 'now'."),
        (["producers", "--json", "--names"], "Only one of --json, --names and --channels is allowed."),
        (["producers", "--names", "--channels", "a"], "Only one of --json, --names and --channels is allowed."),
        (["show"], "Missing argument NAME."),
        (["show", "a", "b"], "Unexpected argument 'b'."),
        (["enable", "a", "1"], "Missing argument CONFIGURATION."),
        (["enable", "a", "1", "b", "c"], "Unexpected argument 'c'."),
        (["enable", "a", "1", b"\xff"], "The argument CONFIGURATION is not UTF-8."),
        *((["enable", "a", "1", f"c{character}d"],
           f"The argument CONFIGURATION contains {name}, which would make the producer's frames malformed.")
          for character, name in BAD_CHARACTERS),
        (["disable", "a"], "Missing argument CHANNEL."),
        (["disable", "a", "-1"], "Unknown option -1"),
        (["apply"], "Missing argument FILE."),
        (["monitor", "a"], "Unexpected argument 'a'."),
        *((arguments + ["--bus="], "The value of --bus is empty.") for arguments in ALL_COMMANDS.values()),
    ])
    def test_wrong_usage(self, run, args, message):
        result = run(*args)
        assert result.err == f"tessardctl: {message}\nTry 'tessardctl {args[0]} --help'.\n".encode()
        assert (result.status, result.out) == (USAGE, b"")

    @pytest.mark.parametrize("command", [["enable", VIDEO], ["disable", VIDEO]])
    @pytest.mark.parametrize("channel", ["", "x", "1x", "0x1", " 1", "1.5", "2147483648", "18446744073709551617"])
    def test_channel_that_the_bus_cannot_carry(self, run, command, channel):
        arguments = ["profile1"] if command[0] == "enable" else []
        result = run(*command, channel, *arguments)
        assert result.status == USAGE
        assert result.err.startswith(f"tessardctl: The argument CHANNEL is '{channel}', not a whole number of 32 "
                                     "bits.\n".encode())


def test_man_page_has_the_limits():
    page = (TREE / "docs/tessardctl.1").read_text(encoding="utf-8")
    mebibyte = 1024 * 1024
    assert MAX_FILE_BYTES % mebibyte == MAX_PENDING_BYTES % mebibyte == 0
    assert f"may take {CALL_SECONDS} seconds each" in page
    assert f"is JSON of at most {MAX_FILE_BYTES // mebibyte} MiB" in page
    assert f"falls more than {MAX_PENDING_BYTES // mebibyte} MiB behind" in page


class TestBus:
    @pytest.mark.parametrize("command", ALL_COMMANDS)
    @pytest.mark.parametrize("address", ["unix:path=/nonexistent/bus", "nothing", "unix:path="])
    def test_no_such_bus(self, ask, command, address):
        result = ask(*ALL_COMMANDS[command], "--bus", address)
        assert result.err.startswith(b"tessardctl: Could not connect to the bus: ")
        assert (result.status, result.out) == (NO_CONNECTION, b"")

    @pytest.mark.parametrize("command", COMMANDS)
    def test_name_without_an_owner(self, ask, command):
        result = ask(*COMMANDS[command])
        assert (result.status, result.out, result.err) == (NO_CONNECTION, b"", ABSENT)

    @pytest.mark.parametrize("command", COMMANDS)
    def test_another_bus_than_the_systems(self, ask, start_bus, started, stand_in_bus, command):
        systems = start_bus()
        result = ask(*COMMANDS[command], "--bus", stand_in_bus.address,
                     env={"DBUS_SYSTEM_BUS_ADDRESS": systems.address})
        assert (result.status, result.err) == (SUCCESS, b"")
        assert started.calls != []

    @pytest.mark.parametrize("command", COMMANDS)
    def test_daemon_is_not_started_for_being_asked(self, ask, started, command):
        ask(*COMMANDS[command])
        assert started.flags == {Gio.DBusMessageFlags.NO_AUTO_START}

    @pytest.mark.parametrize("method, command", [
        ("GetManagedObjects", "producers"), ("GetManagedObjects", "show"), ("GetManagedObjects", "enable"),
        ("SetChannelsEnabled", "enable"), ("SetChannelsEnabled", "disable"), ("SetProducersEnabled", "apply"),
    ])
    class TestOfEachCall:
        def test_daemon_refuses(self, ask, service, method, command):
            service.errors[method] = ("org.freedesktop.DBus.Error.Failed", "Because: 100 % no\x1b[2J")
            service.start()
            result = ask(*COMMANDS[command])
            assert (result.status, result.out) == (REFUSED, b"")
            assert result.err == b"tessardctl: Because: 100 % no\\u001b[2J\n"

        def test_refusal_without_a_text(self, ask, service, method, command):
            service.errors[method] = ("com.quon.Error.Odd", "")
            service.start()
            result = ask(*COMMANDS[command])
            assert (result.status, result.err) == (REFUSED, b"tessardctl: com.quon.Error.Odd\n")

        def test_daemon_leaves_before_its_reply(self, ask, service, method, command):
            service.leaving.add(method)
            service.start()
            result = ask(*COMMANDS[command])
            assert (result.status, result.err) == (ENDED, b"tessardctl: The daemon left without a reply.\n")

        def test_reply_of_another_type(self, ask, service, method, command):
            service.replies[method] = GLib.Variant("(s)", ("what?",))
            service.start()
            result = ask(*COMMANDS[command])
            wanted = "(a{oa{sa{sv}}})" if method == "GetManagedObjects" else "()"
            assert (result.status, result.out) == (MALFORMED, b"")
            assert result.err == (f"tessardctl: What the daemon sent for {method} has the type '(s)', not "
                                  f"'{wanted}'.\n").encode()

    @pytest.mark.parametrize("command", ["producers", "show", "enable", "disable", "monitor"])
    @pytest.mark.parametrize("name, value, type_", [
        ("Name", GLib.Variant("i", 1), "s"), ("NiceName", GLib.Variant("as", []), "s"),
        ("SampleFrameXML", GLib.Variant("ay", b"<a/>"), "s"), ("ChannelsEnabled", GLib.Variant("a(ubs)", []), "a(ibs)"),
        ("ChannelsEnabled", GLib.Variant("v", GLib.Variant("a(ibs)", [])), "a(ibs)"),
    ])
    def test_property_of_another_type(self, ask, service, command, name, value, type_):
        service.producers[path_of(VIDEO)][name] = value
        service.start()
        result = ask(*ALL_COMMANDS[command])
        assert (result.status, result.out) == (MALFORMED, b"")
        assert result.err == (f"tessardctl: What the daemon sent for {name} has the type '{value.get_type_string()}', "
                              f"not '{type_}'.\n").encode()

    @pytest.mark.parametrize("name", ["Name", "NiceName", "SampleFrameXML", "ChannelsEnabled"])
    def test_property_that_is_missing(self, ask, service, name):
        del service.producers[path_of(VIDEO)][name]
        service.start()
        result = ask("producers")
        assert result.status == MALFORMED
        assert result.err == f"tessardctl: The daemon's object '{path_of(VIDEO)}' has no property {name}.\n".encode()

    def test_other_objects_are_passed_over(self, ask, service):
        service.replies["GetManagedObjects"] = GLib.Variant("(a{oa{sa{sv}}})", ({
            ROOT + "/other": {"com.quon.Other": {"Name": GLib.Variant("s", "other")}}, ROOT + "/empty": {}},))
        service.start()
        assert ask("producers", "--names").out == b""

    @pytest.mark.parametrize("count", [MAX_PRODUCERS, MAX_PRODUCERS + 1])
    def test_number_of_producers_is_bounded(self, ask, service, count):
        service.replies["GetManagedObjects"] = GLib.Variant("(a{oa{sa{sv}}})", ({
            path_of(f"p{number:04}"): {PRODUCER: properties(f"p{number:04}")} for number in range(count)},))
        service.start()
        result = ask("producers", "--names")
        if count == MAX_PRODUCERS:
            assert len(result.out.splitlines()) == count
        else:
            assert (result.status, result.out) == (MALFORMED, b"")
            assert result.err == f"tessardctl: The daemon has more than {MAX_PRODUCERS} producers.\n".encode()

    @pytest.mark.parametrize("count", [MAX_CHANNELS, MAX_CHANNELS + 1])
    def test_number_of_channels_is_bounded(self, ask, service, count):
        service.producers[path_of(VIDEO)] = properties(VIDEO, channels=[(n, False, "") for n in range(count)])
        service.start()
        result = ask("producers", "--channels", VIDEO)
        if count == MAX_CHANNELS:
            assert len(result.out.splitlines()) == count
        else:
            assert (result.status, result.out) == (MALFORMED, b"")
            assert result.err.endswith(f" has more than {MAX_CHANNELS} channels.\n".encode())


class TestProducers:
    def test_table(self, ask, started):
        result = ask("producers")
        assert (result.status, result.err) == (SUCCESS, b"")
        assert result.out.decode() == (
            "NAME                NICE NAME                  CHANNEL  STATE     CONFIGURATION\n"
            "RadarMotionTracker  Quon radar motion tracker  1        disabled  -\n"
            "VideoMotionTracker  Quon video motion tracker  1        enabled   profile1\n"
            "VideoMotionTracker  Quon video motion tracker  2        disabled  -\n")

    def test_list_is_another_word(self, ask, started):
        for options in ([], ["--json"], ["--names"], ["--channels", VIDEO]):
            listed, expected = ask("list", *options), ask("producers", *options)
            assert (listed.status, listed.out, listed.err) == (SUCCESS, expected.out, b"")

    def test_no_producers(self, ask, service):
        service.producers = {}
        service.start()
        assert ask("producers").out == b"NAME  NICE NAME  CHANNEL  STATE  CONFIGURATION\n"
        assert ask("producers", "--json").out == b"[]\n"
        assert ask("producers", "--names").out == b""

    def test_producer_without_channels(self, ask, service):
        service.producers = {path_of("a"): properties("a", "A")}
        service.start()
        assert ask("producers").out.splitlines()[1:] == [b"a     A          -        -      -"]

    def test_channels_in_the_order_of_numbers(self, ask, service):
        service.producers = {path_of("a"): properties("a", "A", [(n, False, "") for n in (10, 9, 2147483647, -1)])}
        service.start()
        assert [line.split()[2] for line in ask("producers").out.splitlines()[1:]] == [
            b"-1", b"9", b"10", b"2147483647"]

    def test_wide_and_combined_characters_keep_the_columns(self, ask, service):
        service.producers = {path_of("a"): properties("a", "摄像机", [(1, False, "")]),
                             path_of("b"): properties("b", "e\u0301tage", [(1, False, "")])}
        service.start()
        assert ask("producers").out.decode().splitlines()[1:] == [
            "a     摄像机     1        disabled  -",
            "b     e\u0301tage      1        disabled  -",
        ]

    @pytest.mark.parametrize("text, shown", [
        ("a\nb", "a\\u000ab"), ("\x1b[2Ja", "\\u001b[2Ja"), ("\u009b1m", "\\u009b1m"), ("a\tb\r", "a\\u0009b\\u000d"),
        ("\u202etxt", "\\u202etxt"), ("a\u2028b\u2029c", "a\\u2028b\\u2029c"), ("\U000e0001", "\\udb40\\udc01"),
        ("100 %s%n", "100 %s%n"),
    ])
    @pytest.mark.parametrize("place", ["name", "nice name", "configuration"])
    def test_no_text_makes_lines_or_commands(self, ask, service, text, shown, place):
        channels = [(1, True, text if place == "configuration" else "c")]
        service.producers = {path_of("a"): properties(text if place == "name" else "n",
                                                      text if place == "nice name" else "N", channels)}
        service.start()
        lines = ask("producers").out.decode().split("\n")
        assert len(lines) == 3 and lines[2] == ""
        assert re.split(r" {2,}", lines[1]) == [
            shown if place == "name" else "n", shown if place == "nice name" else "N", "1", "enabled",
            shown if place == "configuration" else "c"]

    def test_json(self, ask, started):
        result = ask("producers", "--json")
        assert (result.status, result.err) == (SUCCESS, b"")
        assert json.loads(result.out) == [
            {"Name": RADAR, "NiceName": "Quon radar motion tracker",
             "Channels": [{"Channel": 1, "Enabled": False, "Configuration": ""}]},
            {"Name": VIDEO, "NiceName": "Quon video motion tracker",
             "Channels": [{"Channel": 1, "Enabled": True, "Configuration": "profile1"},
                          {"Channel": 2, "Enabled": False, "Configuration": ""}]},
        ]

    def test_json_keeps_every_text_and_is_fit_for_a_terminal(self, ask, service):
        text = "\x01\x1b[2J\x7f\u009b1m\u2028\u202e\"\\u001b\\\U000e0001 \U0001f600é\n\t"
        service.producers = {path_of("a"): properties(text, text, [(1, True, text)])}
        service.start()
        out = ask("producers", "--json").out.decode()
        assert json.loads(out) == [{"Name": text, "NiceName": text,
                                    "Channels": [{"Channel": 1, "Enabled": True, "Configuration": text}]}]
        assert all(c.isprintable() or c == "\n" for c in out)

    def test_names(self, ask, started):
        assert ask("producers", "--names").out.decode() == f"{RADAR}\n{VIDEO}\n"

    def test_channels_of_one(self, ask, started):
        assert ask("producers", "--channels", VIDEO).out == b"1\n2\n"
        result = ask("producers", "--channels", "unknown")
        assert (result.status, result.out, result.err) == (
            REFUSED, b"", b"tessardctl: There is no producer 'unknown'.\n")

    def test_output_that_cannot_be_written(self, control, started):
        with open("/dev/full", "wb") as full:
            result = control("producers", stdout=full).finish()
        assert (result.status, result.err) == (
            LOCAL, b"tessardctl: Could not write to standard output: Error writing to file descriptor: "
                   b"No space left on device.\n")

    def test_output_without_a_reader(self, control, started):
        reader, writer = os.pipe()
        os.close(reader)
        with os.fdopen(writer, "wb") as unread:
            result = control("producers", stdout=unread).finish()
        assert (result.status, result.err) == (SUCCESS, b"")


class TestShow:
    def test_all_about_one(self, ask, started):
        result = ask("show", VIDEO)
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

    def test_no_sample_frame(self, ask, service):
        service.producers = {path_of("a"): properties("a", frame="")}
        service.start()
        assert ask("show", "a").out.endswith(b"\nSample frame: none\n")

    @pytest.mark.parametrize("frame, shown", [
        ("<a><b", b"<a><b\n"), ("\x1b[2J\r", b"\\u001b[2J\\u000d\n"),
        ("<a>\u009b1m</a>", b'<?xml version="1.0" encoding="UTF-8"?>\n<a>\\u009b1m</a>\n'),
    ])
    def test_sample_frame_in_any_text(self, ask, service, frame, shown):
        service.producers = {path_of("a"): properties("a", frame=frame)}
        service.start()
        assert ask("show", "a").out.split(b"Sample frame:\n")[1] == shown

    def test_fields_hold_no_control_characters(self, ask, service):
        service.producers = {path_of("a"): properties("a", "n\nChannel 1: enabled", [(2, True, "c\nd")], "")}
        service.start()
        assert ask("show", "a").out.splitlines()[1:] == [
            b"Nice name: n\\u000aChannel 1: enabled", b"Object: " + path_of("a").encode(),
            b"Channel 2: enabled as 'c\\u000ad'", b"Sample frame: none"]

    @pytest.mark.parametrize("name", ["unknown", "", "a/b", "../x", b"\xff"])
    def test_no_such_producer(self, ask, started, name):
        result = ask("show", name)
        shown = name if isinstance(name, str) else "\ufffd"
        assert (result.status, result.out) == (REFUSED, b"")
        assert result.err == f"tessardctl: There is no producer '{shown}'.\n".encode()


class TestSwitch:
    def test_enable(self, ask, started):
        result = ask("enable", VIDEO, "2", "profile é")
        assert (result.status, result.out, result.err) == (SUCCESS, b"", b"")
        assert started.set_calls() == [(path_of(VIDEO), "SetChannelsEnabled", ([(2, True, "profile é")],))]

    def test_disable(self, ask, started):
        result = ask("disable", RADAR, "1")
        assert (result.status, result.out, result.err) == (SUCCESS, b"", b"")
        assert started.set_calls() == [(path_of(RADAR), "SetChannelsEnabled", ([(1, False, "")],))]

    @pytest.mark.parametrize("text, number", [("0", 0), ("-5", -5), ("007", 7), ("2147483647", 2147483647),
                                              ("-2147483648", -2147483648)])
    def test_daemon_validates_the_channel(self, ask, started, text, number):
        assert ask("disable", "--", VIDEO, text).status == SUCCESS
        assert started.set_calls() == [(path_of(VIDEO), "SetChannelsEnabled", ([(number, False, "")],))]

    def test_daemon_validates_an_empty_configuration(self, ask, started):
        assert ask("enable", VIDEO, "1", "").status == SUCCESS
        assert started.set_calls() == [(path_of(VIDEO), "SetChannelsEnabled", ([(1, True, "")],))]

    def test_refused_channel_of_a_producer_without_channels(self, ask, service):
        service.producers = {path_of("a"): properties("a", "A")}
        service.errors["SetChannelsEnabled"] = ("org.freedesktop.DBus.Error.Failed", "No")
        service.start()
        assert ask("disable", "a", "1").err == b"tessardctl: No. Channels of 'a': none.\n"

    @pytest.mark.parametrize("arguments", [["enable", "unknown", "1", "a"], ["disable", "unknown", "1"]])
    def test_no_such_producer(self, ask, started, arguments):
        result = ask(*arguments)
        assert (result.status, result.err) == (REFUSED, b"tessardctl: There is no producer 'unknown'.\n")
        assert started.set_calls() == []

    def test_producer_is_found_by_its_name_not_its_path(self, ask, service):
        service.producers = {path_of("_30"): properties("a b/c")}
        service.start()
        assert ask("disable", "a b/c", "1").status == SUCCESS
        assert service.set_calls() == [(path_of("_30"), "SetChannelsEnabled", ([(1, False, "")],))]


class TestApply:
    def test_what_producers_prints(self, ask, started):
        result = ask("apply", "-", stdin=ask("producers", "--json").out.decode())
        assert (result.status, result.out, result.err) == (SUCCESS, b"", b"")
        assert started.set_calls() == [(ROOT, "SetProducersEnabled", (
            {RADAR: [(1, False, "")], VIDEO: [(1, True, "profile1"), (2, False, "")]},))]

    def test_every_text_survives(self, ask, service):
        text = "\x01\x1b\x7f\u009b\u2028\"\\u001b\\\U000e0001\U0001f600é\n\t/"
        configuration = "\u2028\U000e0001\U0001f600é/'"
        service.producers = {path_of("a"): properties(text, "a", [(1, True, configuration)])}
        service.start()
        assert ask("apply", "-", stdin=ask("producers", "--json").out.decode()).status == SUCCESS
        assert service.set_calls() == [(ROOT, "SetProducersEnabled", ({text: [(1, True, configuration)]},))]

    def test_file(self, ask, started, tmp_path):
        path = tmp_path / "changes.json"
        path.write_text(producer('{"Channel": -2147483648, "Enabled": false}'), encoding="ascii")
        assert ask("apply", str(path)).status == SUCCESS
        assert started.set_calls() == [(ROOT, "SetProducersEnabled", ({"a": [(-2147483648, False, "")]},))]

    @pytest.mark.parametrize("text, sent", [
        ("[]", {}), (" [ ] \n", {}), (producer(""), {"a": []}),
        (producer(f"{CHANNEL}, {CHANNEL}"), {"a": [(1, True, "c"), (1, True, "c")]}),
        (producer('{"Channel": 1, "Enabled": false}, {"Channel": 1, "Enabled": false, "Configuration": "c"}'),
         {"a": [(1, False, ""), (1, False, "c")]}),
        (producer('{"Channel": -0, "Enabled": false}'), {"a": [(0, False, "")]}),
        (producer('{"Channel": 0, "Enabled": true, "Configuration": ""}'), {"a": [(0, True, "")]}),
        (producer('{"Channel": 2147483647, "Enabled": false, "Configuration": "kept"}'),
         {"a": [(2147483647, False, "kept")]}),
        ('[{"Name": "a", "NiceName": "A", "Channels": []}, {"Name": "b", "Channels": []}]', {"a": [], "b": []}),
        (producer("", r'"\ud83d\ude00\u00e9\/"'), {"\U0001f600é/": []}),
    ])
    def test_right_file(self, ask, started, text, sent):
        assert ask("apply", "-", stdin=text).status == SUCCESS
        assert started.set_calls() == [(ROOT, "SetProducersEnabled", (sent,))]

    @pytest.mark.parametrize("text, place, reason", [
        ("", (1, 1), "not an array of producers"),
        ("{}", (1, 1), "not an array of producers"),
        ("1", (1, 1), "not an array of producers"),
        ("null []", (1, 1), "not an array of producers"),
        (" \n", (2, 1), "not an array of producers"),
        ("[]]", (1, 3), "the end of the file expected"),
        ("[]\n []", (2, 2), "the end of the file expected"),
        ("[", (1, 2), "a producer is not an object"),
        ("[,]", (1, 2), "a producer is not an object"),
        ("[1]", (1, 2), "a producer is not an object"),
        ("[[]]", (1, 2), "a producer is not an object"),
        ("[/* none */]", (1, 2), "a producer is not an object"),
        pytest.param("[" * 500000, (1, 2), "a producer is not an object", id="deep"),
        ("[{", (1, 3), "a string expected"),
        ("[{]", (1, 3), "a string expected"),
        ('[{"', (1, 3), "a string without an end"),
        ('[{"a\\', (1, 5), "an escape that is not JSON"),
        ('[{"Na\nme', (1, 6), "a control character in a string"),
        ('[{"Name" "a"}]', (1, 10), "':' expected"),
        ('[{"Name": "a" "Channels": []}]', (1, 15), "'}' expected"),
        ('[{"Name": "a", "Channels": []} {}]', (1, 32), "']' expected"),
        ('[{"Name": "a", "Channels": []},]', (1, 32), "a producer is not an object"),
        ('[{"Channels": []}]', (1, 2), 'a producer without "Name"'),
        ('[{"Name": 1, "Channels": []}]', (1, 11), "a string expected"),
        ('[{"Name": null, "Channels": []}]', (1, 11), "a string expected"),
        ('[{"Name": ["a"], "Channels": []}]', (1, 11), "a string expected"),
        ('[{"Name": "a"}]', (1, 2), 'a producer without "Channels"'),
        ('[{"Name": "a", "Channels": {}}]', (1, 28), "not an array of channels"),
        ('[{"Name": "a",\n  "Chanels": []}]', (2, 3), 'unknown member "Chanels" of a producer'),
        ('[{"Name": "\u6444\u00e9", "Chanels": []}]', (1, 17), 'unknown member "Chanels" of a producer'),
        ('[{"Name": "a", "Name": "b", "Channels": []}]', (1, 16), 'the member "Name" of a producer is there twice'),
        ('[{"Name": "a", "Channels": []},\n {"Name": "a", "Channels": []}]', (2, 2),
         'the producer "a" is there twice'),
        (producer("1"), (1, 29), "a channel is not an object"),
        (producer('{"Enabled": false}'), (1, 29), 'a channel without "Channel"'),
        (producer('{"Channel": 1}'), (1, 29), 'a channel without "Enabled"'),
        (producer('{"Channel": 1, "Enabled": 1}'), (1, 55), "true or false expected"),
        (producer('{"Channel": 1, "Enabled": truest}'), (1, 55), "true or false expected"),
        (producer('{"Channel": "1", "Enabled": true}'), (1, 41), "a whole number expected"),
        (producer('{"Channel": 1.0, "Enabled": false}'), (1, 41), "a whole number expected"),
        (producer('{"Channel": 1e0, "Enabled": false}'), (1, 41), "a whole number expected"),
        (producer('{"Channel": -, "Enabled": false}'), (1, 41), "a whole number expected"),
        (producer('{"Channel": +1, "Enabled": false}'), (1, 41), "a whole number expected"),
        (producer('{"Channel": 010, "Enabled": false}'), (1, 41), "a whole number expected"),
        (producer('{"Channel": 2147483648, "Enabled": false}'), (1, 41), "a number of more than 32 bits"),
        (producer('{"Channel": -2147483649, "Enabled": false}'), (1, 41), "a number of more than 32 bits"),
        (producer('{"Channel": 18446744073709551617, "Enabled": false}'), (1, 41), "a number of more than 32 bits"),
        (producer('{"Channel": 1, "Enabled": true}'), (1, 29), 'an enabled channel without "Configuration"'),
        (producer('{"Channel": 1, "Enabled": true, "Configuration": null}'), (1, 78), "a string expected"),
        (producer('{"Channel": 1, "Enabled": false, "Enabeld": true}'), (1, 62),
         'unknown member "Enabeld" of a channel'),
        (producer('{"Channel": 1, "Enabled": true, "En\\u0061bled": false}'), (1, 61),
         'the member "Enabled" of a channel is there twice'),
        (producer('{"Channel": 1, "Enabled": false},\n' + CHANNEL), (2, 1),
         "channel 1 is there twice, with different values"),
        (producer(CHANNEL + ",\n" + CHANNEL.replace('"c"', '"d"')), (2, 1),
         "channel 1 is there twice, with different values"),
        (producer("", "'a'"), (1, 11), "a string expected"),
        (producer("", r'"\u0000"'), (1, 12), "an escape that is not JSON"),
        (producer("", r'"\q"'), (1, 12), "an escape that is not JSON"),
        (producer("", r'"\u12"'), (1, 12), "an escape that is not JSON"),
        (producer("", r'"\ud800x"'), (1, 12), "an escape that is not JSON"),
        (producer("", r'"\ud800\ud800"'), (1, 12), "an escape that is not JSON"),
        (producer("", r'"\udc00"'), (1, 12), "an escape that is not JSON"),
    ])
    def test_wrong_file(self, ask, started, text, place, reason):
        line, column = place
        result = ask("apply", "-", stdin=text)
        assert result.err.decode() == (f"tessardctl: Could not apply 'standard input': line {line}, column {column}: "
                                       f"{reason}.\n")
        assert (result.status, result.out) == (LOCAL, b"")
        assert started.calls == []

    @pytest.mark.parametrize("data, place", [
        (b'[{"Name": "\xff", "Channels": []}]', (1, 12)), (b'[{"Name":\n "a\0b", "Channels": []}]', (2, 4)),
        (b"\0", (1, 1)), (b"[\xc3", (1, 2)),
    ])
    def test_bytes_that_are_not_text(self, ask, started, tmp_path, data, place):
        line, column = place
        path = tmp_path / "file"
        path.write_bytes(data)
        result = ask("apply", str(path))
        assert result.err == (f"tessardctl: Could not apply '{path}': line {line}, column {column}: a byte that is not "
                              "UTF-8.\n").encode()
        assert (result.status, started.calls) == (LOCAL, [])

    @pytest.mark.parametrize("character, name", BAD_CHARACTERS)
    def test_configuration_that_makes_frames_malformed(self, ask, started, character, name):
        text = json.dumps([{"Name": "a", "Channels": [{"Channel": 1, "Enabled": True,
                                                       "Configuration": f"c{character}d"}]}])
        result = ask("apply", "-", stdin=text)
        column = text.index('"c') + 1
        assert result.err.decode() == (
            f"tessardctl: Could not apply 'standard input': line 1, column {column}: a configuration name that "
            f"contains {name}, which would make the producer's frames malformed.\n")
        assert (result.status, started.calls) == (LOCAL, [])

    def test_byte_order_mark(self, ask, started):
        result = ask("apply", "-", stdin="\ufeff[]")
        assert b"line 1, column 1: not an array of producers" in result.err
        assert (result.status, started.calls) == (LOCAL, [])

    @pytest.mark.parametrize("size", [MAX_FILE_BYTES, MAX_FILE_BYTES + 1])
    def test_size_is_bounded(self, ask, started, size):
        result = ask("apply", "-", stdin="[]".ljust(size))
        if size == MAX_FILE_BYTES:
            assert result.status == SUCCESS
        else:
            assert (result.status, started.calls) == (LOCAL, [])
            assert result.err == (f"tessardctl: Could not apply 'standard input': more than {MAX_FILE_BYTES} "
                                  "bytes.\n").encode()

    def test_endless_file(self, ask):
        assert ask("apply", "/dev/zero").status == LOCAL

    @pytest.mark.parametrize("path, message", [
        ("/nonexistent", "Could not open '/nonexistent': No such file or directory."),
        ("/", "Could not read '/': Error reading from file descriptor: Is a directory."),
    ])
    def test_file_that_cannot_be_read(self, ask, path, message):
        result = ask("apply", path)
        assert (result.status, result.err.decode()) == (LOCAL, f"tessardctl: {message}\n")


class TestMonitor:
    @pytest.fixture
    def monitor(self, control):
        """Starts a monitor and reads its first line, after which it has the state of all producers."""

        def start_monitor(first_line):
            tool = control("monitor")
            assert lines_of(tool, 1) == [first_line]
            return tool

        return start_monitor

    @pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
    def test_until_interrupted(self, monitor, started, number):
        result = monitor("daemon present, producers: 2").end_by(number)
        assert (result.status, result.out, result.err) == (SUCCESS, b"", b"")

    def test_each_change_is_a_line(self, monitor, started):
        tool = monitor("daemon present, producers: 2")
        assert started.flags == {Gio.DBusMessageFlags.NO_AUTO_START}
        started.change(VIDEO, [(2, True, "p2"), (1, True, "profile1")])
        started.change(VIDEO, [(2, True, "other"), (1, False, "")])
        started.add("Counter", "People counter", [(1, True, "door 7"), (3, False, "")])
        started.change("Counter", [(1, False, ""), (3, False, "")])
        started.change("Counter", [(1, True, ""), (3, False, "")])
        started.remove("Counter")
        assert lines_of(tool, 8) == [
            "enabled VideoMotionTracker 2: p2",
            "disabled VideoMotionTracker 1",
            "enabled VideoMotionTracker 2: other",
            "added Counter: People counter",
            "enabled Counter 1: door 7",
            "disabled Counter 1",
            "enabled Counter 1: ",
            "removed Counter",
        ]

    def test_nothing_new_is_no_line(self, monitor, started):
        tool = monitor("daemon present, producers: 2")
        started.change(VIDEO, [(1, True, "profile1"), (2, False, "")])
        started.emit(path_of(VIDEO), PROPERTIES, "PropertiesChanged",
                     GLib.Variant("(sa{sv}as)", (PRODUCER, {"NiceName": GLib.Variant("s", "n")}, [])))
        started.emit(path_of(VIDEO), PROPERTIES, "PropertiesChanged",
                     GLib.Variant("(sa{sv}as)", ("com.quon.Other", {"ChannelsEnabled": GLib.Variant("i", 1)}, [])))
        started.emit(path_of("unknown"), PROPERTIES, "PropertiesChanged",
                     GLib.Variant("(sa{sv}as)", (PRODUCER, {"ChannelsEnabled": GLib.Variant("i", 1)}, [])))
        started.emit(ROOT, OBJECT_MANAGER, "InterfacesAdded",
                     GLib.Variant("(oa{sa{sv}})", (path_of("other"), {"com.quon.Other": {}})))
        started.emit(ROOT, OBJECT_MANAGER, "InterfacesRemoved",
                     GLib.Variant("(oas)", (path_of(VIDEO), ["com.quon.Other"])))
        started.emit(ROOT, OBJECT_MANAGER, "InterfacesRemoved",
                     GLib.Variant("(oas)", (path_of("unknown"), [PRODUCER])))
        started.emit(ROOT, "com.quon.Other", "InterfacesAdded", GLib.Variant("(i)", (1,)))
        started.remove(RADAR)
        assert lines_of(tool, 1) == ["removed RadarMotionTracker"]

    def test_daemon_comes_later(self, monitor, service):
        tool = monitor("daemon absent")
        service.start()
        assert lines_of(tool, 4) == [
            "daemon present, producers: 2",
            "added RadarMotionTracker: Quon radar motion tracker",
            "added VideoMotionTracker: Quon video motion tracker",
            "enabled VideoMotionTracker 1: profile1",
        ]

    def test_daemon_restarts(self, monitor, started, make_service):
        tool = monitor("daemon present, producers: 2")
        started.close()
        assert lines_of(tool, 1) == ["daemon absent"]
        second = make_service()
        second.producers = {path_of(VIDEO): properties(VIDEO, "n", [(1, True, "profile2"), (2, True, "p")]),
                            path_of("New"): properties("New", "new one")}
        second.start()
        assert lines_of(tool, 5) == [
            "daemon present, producers: 2",
            "removed RadarMotionTracker",
            "added New: new one",
            "enabled VideoMotionTracker 1: profile2",
            "enabled VideoMotionTracker 2: p",
        ]
        second.change(VIDEO, [(1, False, "")])
        assert lines_of(tool, 2) == ["disabled VideoMotionTracker 2", "disabled VideoMotionTracker 1"]

    def test_another_producer_at_the_same_path(self, monitor, started):
        tool = monitor("daemon present, producers: 2")
        started.emit(ROOT, OBJECT_MANAGER, "InterfacesAdded",
                     GLib.Variant("(oa{sa{sv}})", (path_of(VIDEO), {PRODUCER: properties("x", "X")})))
        assert lines_of(tool, 2) == ["removed VideoMotionTracker", "added x: X"]

    def test_changes_before_the_first_reply_are_in_it(self, control, service):
        service.silent.add("GetManagedObjects")
        service.start()
        tool = control("monitor")
        wait_until(lambda: service.kept, "the monitor asks")
        service.add("early")
        service.change(VIDEO, [(1, True, "early")])
        service.remove("early")
        service.answer_kept()
        service.change(VIDEO, [(1, True, "late")])
        assert lines_of(tool, 2) == ["daemon present, producers: 2", "enabled VideoMotionTracker 1: late"]

    def test_daemon_leaves_before_its_reply(self, control, service, make_service):
        service.silent.add("GetManagedObjects")
        service.start()
        tool = control("monitor")
        wait_until(lambda: service.kept, "the monitor asks")
        service.close()
        assert lines_of(tool, 1) == ["daemon absent"]
        second = make_service()
        second.producers = {path_of("a"): properties("a", "A")}
        second.start()
        assert lines_of(tool, 2) == ["daemon present, producers: 1", "added a: A"]

    def test_interrupted_while_the_daemon_does_not_reply(self, control, service):
        service.silent.add("GetManagedObjects")
        service.start()
        tool = control("monitor")
        wait_until(lambda: service.kept, "the monitor asks")
        result = tool.end_by(signal.SIGINT)
        assert (result.status, result.out, result.err) == (SUCCESS, b"", b"")

    def test_signals_of_other_senders_are_ignored(self, monitor, started, stand_in_bus):
        tool = monitor("daemon present, producers: 2")
        stranger = FakeService(stand_in_bus)
        stranger.add("fake")
        stranger.remove("fake")
        stranger.client.has_owner("com.quon.MetadataServer1")
        started.add("real", "Real")
        stranger.close()
        assert lines_of(tool, 1) == ["added real: Real"]

    def test_no_text_makes_lines_or_commands(self, monitor, started):
        tool = monitor("daemon present, producers: 2")
        text = "a\ndaemon absent\x1b[2J\u009b1m\u2028 100 %s%n"
        shown = "a\\u000adaemon absent\\u001b[2J\\u009b1m\\u2028 100 %s%n"
        started.emit(ROOT, OBJECT_MANAGER, "InterfacesAdded", GLib.Variant("(oa{sa{sv}})", (
            path_of("x"), {PRODUCER: properties(text, text, [(1, True, text)])})))
        started.emit(ROOT, OBJECT_MANAGER, "InterfacesRemoved", GLib.Variant("(oas)", (path_of("x"), [PRODUCER])))
        assert lines_of(tool, 3) == [f"added {shown}: {shown}", f"enabled {shown} 1: {shown}", f"removed {shown}"]

    @pytest.mark.parametrize("path, interface, name, body, type_", [
        (ROOT, OBJECT_MANAGER, "InterfacesAdded", GLib.Variant("(s)", ("x",)), "(oa{sa{sv}})"),
        (ROOT, OBJECT_MANAGER, "InterfacesRemoved", GLib.Variant("(o)", ("/x",)), "(oas)"),
        (path_of(VIDEO), PROPERTIES, "PropertiesChanged", GLib.Variant("(sa{ss}as)", ("x", {}, [])), "(sa{sv}as)"),
    ])
    def test_signal_of_another_type(self, monitor, started, path, interface, name, body, type_):
        tool = monitor("daemon present, producers: 2")
        started.emit(path, interface, name, body)
        result = tool.finish()
        assert (result.status, result.out) == (MALFORMED, b"")
        assert result.err == (f"tessardctl: What the daemon sent for {name} has the type '{body.get_type_string()}', "
                              f"not '{type_}'.\n").encode()

    @pytest.mark.parametrize("path, interface, name, body", [
        (ROOT, OBJECT_MANAGER, "InterfacesAdded",
         GLib.Variant("(oa{sa{sv}})", (path_of("x"), {PRODUCER: {"Name": GLib.Variant("i", 1)}}))),
        (path_of(VIDEO), PROPERTIES, "PropertiesChanged",
         GLib.Variant("(sa{sv}as)", (PRODUCER, {"ChannelsEnabled": GLib.Variant("i", 1)}, []))),
    ])
    def test_property_of_another_type(self, monitor, started, path, interface, name, body):
        tool = monitor("daemon present, producers: 2")
        started.emit(path, interface, name, body)
        assert tool.finish().status == MALFORMED

    def test_number_of_producers_is_bounded(self, monitor, service):
        service.producers = {path_of(f"p{number}"): properties(f"p{number}") for number in range(MAX_PRODUCERS)}
        service.start()
        tool = monitor(f"daemon present, producers: {MAX_PRODUCERS}")
        service.change("p0", [(1, True, "c")])
        service.add("p0", "n", [(1, False, "")])
        service.add("x")
        result = tool.finish()
        assert result.out == b"enabled p0 1: c\ndisabled p0 1\n"
        assert (result.status, result.err) == (
            MALFORMED, f"tessardctl: The daemon has more than {MAX_PRODUCERS} producers.\n".encode())

    def test_daemon_refuses(self, control, service):
        service.errors["GetManagedObjects"] = ("org.freedesktop.DBus.Error.AccessDenied", "Not you.")
        service.start()
        result = control("monitor").finish()
        assert (result.status, result.out, result.err) == (REFUSED, b"", b"tessardctl: Not you.\n")

    def test_bus_ends(self, monitor, started, stand_in_bus):
        tool = monitor("daemon present, producers: 2")
        stand_in_bus.stop()
        result = tool.finish()
        assert (result.status, result.err) == (ENDED, b"tessardctl: The bus closed the connection.\n")
        # The bus can disconnect the daemon first, and then signals that.
        assert result.out in (b"", b"daemon absent\n")

    def test_reader_hangs_up(self, control, started):
        reader, writer = os.pipe()
        with os.fdopen(writer, "wb") as output:
            tool = control("monitor", stdout=output)
        assert read_lines(reader, 1) == [b"daemon present, producers: 2\n"]
        os.close(reader)
        result = tool.finish()
        assert (result.status, result.err) == (SUCCESS, b"")

    def test_output_that_cannot_be_written(self, control, started):
        with open("/dev/full", "wb") as full:
            result = control("monitor", stdout=full).finish()
        assert (result.status, result.err) == (
            LOCAL, b"tessardctl: Could not write to standard output: No space left on device.\n")

    @pytest.fixture
    def full_pipe(self):
        reader, writer = os.pipe()
        os.set_blocking(writer, False)
        with pytest.raises(BlockingIOError):
            while True:
                os.write(writer, b"x" * 4096)
        os.set_blocking(writer, True)
        yield writer
        os.close(reader)
        os.close(writer)

    def test_reader_that_does_not_read_delays_no_interrupt(self, control, started, full_pipe):
        tool = control("monitor", stdout=full_pipe)
        wait_until(lambda: started.calls, "the monitor asks")
        assert tool.end_by(signal.SIGINT).status == SUCCESS

    def test_reader_that_does_not_read_costs_no_memory(self, control, started, full_pipe):
        tool = control("monitor", stdout=full_pipe)
        wait_until(lambda: started.calls, "the monitor asks")
        long = "n" * (MAX_PENDING_BYTES // 4)
        for _ in range(5):
            started.add("Counter", long)
            started.remove("Counter")
        result = tool.finish()
        assert result.status == LOCAL
        assert result.err == (f"tessardctl: More than {MAX_PENDING_BYTES} bytes wait for the reader of standard "
                              "output.\n").encode()

    def test_lines_come_at_once_on_a_terminal(self, control, started):
        master, slave = pty.openpty()
        tool = control("monitor", stdout=slave)
        os.close(slave)
        assert read_some(master) == b"daemon present, producers: 2\r\n"
        started.remove(RADAR)
        assert read_some(master) == b"removed RadarMotionTracker\r\n"
        os.close(master)
        assert tool.finish().status == SUCCESS
