# SPDX-License-Identifier: MIT
"""tessardctl monitor, with a fake control service."""

import os
import pty
import signal

import pytest
from gi.repository import Gio, GLib

from busclient import PROPERTIES
from controlclient import OBJECT_MANAGER, PRODUCER, ROOT, path_of
from daemon import RADAR_TRACKER as RADAR
from daemon import VIDEO_TRACKER as VIDEO
from fakeservice import FakeService, properties
from installation import documented_limit
from tessardctl import ENDED, LOCAL, MALFORMED, REFUSED, SUCCESS, failure, read_lines, read_some
from waiting import wait_until

MAX_PRODUCERS = documented_limit("../tools/producers.h", "PRODUCERS_MAX")
MAX_PENDING_BYTES = documented_limit("../tools/linewriter.h", "LINE_WRITER_MAX_PENDING_BYTES")


@pytest.fixture
def start_monitor(start_on_bus):
    """Starts a monitor and reads its first line, after which it has the state of all producers."""

    def start(first_line="daemon present, producers: 2"):
        monitor = start_on_bus("monitor")
        assert monitor.lines(1) == [first_line]
        return monitor

    return start


@pytest.fixture
def waiting_monitor(start_on_bus, fake_service):
    """A monitor whose request for the producers has no reply yet."""
    fake_service.silent.add("GetManagedObjects")
    fake_service.start()
    monitor = start_on_bus("monitor")
    wait_until(lambda: fake_service.kept, "the monitor requests the producers")
    return monitor


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_interrupt(start_monitor, started_service, number):
    assert start_monitor().end_by(number) == (SUCCESS, b"", b"")


def test_each_change_is_a_line(start_monitor, started_service):
    monitor = start_monitor()
    assert started_service.flags == {Gio.DBusMessageFlags.NO_AUTO_START}
    started_service.change(VIDEO, [(2, True, "p2"), (1, True, "profile1")])
    started_service.change(VIDEO, [(2, True, "other"), (1, False, "")])
    started_service.add("Counter", "People counter", [(1, True, "door 7"), (3, False, "")])
    started_service.change("Counter", [(1, False, ""), (3, False, "")])
    started_service.change("Counter", [(1, True, ""), (3, False, "")])
    started_service.remove("Counter")
    assert monitor.lines(8) == [
        "enabled VideoMotionTracker 2: p2",
        "disabled VideoMotionTracker 1",
        "enabled VideoMotionTracker 2: other",
        "added Counter: People counter",
        "enabled Counter 1: door 7",
        "disabled Counter 1",
        "enabled Counter 1: ",
        "removed Counter",
    ]


def test_no_line_without_a_change(start_monitor, started_service):
    monitor = start_monitor()
    started_service.change(VIDEO, [(1, True, "profile1"), (2, False, "")])
    started_service.emit_changed(path_of(VIDEO), PRODUCER, {"NiceName": GLib.Variant("s", "n")})
    started_service.emit_changed(path_of(VIDEO), "com.quon.Other", {"ChannelsEnabled": GLib.Variant("i", 1)})
    started_service.emit_changed(path_of("unknown"), PRODUCER, {"ChannelsEnabled": GLib.Variant("i", 1)})
    started_service.emit_added(ROOT, path_of("other"), {"com.quon.Other": {}})
    started_service.emit_removed(ROOT, path_of(VIDEO), ["com.quon.Other"])
    started_service.emit_removed(ROOT, path_of("unknown"), [PRODUCER])
    started_service.emit(ROOT, "com.quon.Other", "InterfacesAdded", GLib.Variant("(i)", (1,)))
    started_service.remove(RADAR)
    assert monitor.lines(1) == ["removed RadarMotionTracker"]


def test_daemon_starts_later(start_monitor, fake_service):
    monitor = start_monitor("daemon absent")
    fake_service.start()
    assert monitor.lines(4) == [
        "daemon present, producers: 2",
        "added RadarMotionTracker: Quon radar motion tracker",
        "added VideoMotionTracker: Quon video motion tracker",
        "enabled VideoMotionTracker 1: profile1",
    ]


def test_daemon_restarts(start_monitor, started_service, make_fake_service):
    monitor = start_monitor()
    started_service.close()
    assert monitor.lines(1) == ["daemon absent"]
    second = make_fake_service()
    second.start({path_of(VIDEO): properties(VIDEO, "n", [(1, True, "profile2"), (2, True, "p")]),
                  path_of("New"): properties("New", "new one")})
    assert monitor.lines(5) == [
        "daemon present, producers: 2",
        "removed RadarMotionTracker",
        "added New: new one",
        "enabled VideoMotionTracker 1: profile2",
        "enabled VideoMotionTracker 2: p",
    ]
    second.change(VIDEO, [(1, False, "")])
    assert monitor.lines(2) == ["disabled VideoMotionTracker 2", "disabled VideoMotionTracker 1"]


def test_another_producer_at_the_same_path(start_monitor, started_service):
    monitor = start_monitor()
    started_service.emit_added(ROOT, path_of(VIDEO), {PRODUCER: properties("x", "X")})
    assert monitor.lines(2) == ["removed VideoMotionTracker", "added x: X"]


def test_changes_before_the_first_reply_are_in_it(waiting_monitor, fake_service):
    fake_service.add("early")
    fake_service.change(VIDEO, [(1, True, "early")])
    fake_service.remove("early")
    fake_service.reply_to_kept()
    fake_service.change(VIDEO, [(1, True, "late")])
    assert waiting_monitor.lines(2) == ["daemon present, producers: 2", "enabled VideoMotionTracker 1: late"]


def test_daemon_leaves_before_its_reply(waiting_monitor, fake_service, make_fake_service):
    fake_service.close()
    assert waiting_monitor.lines(1) == ["daemon absent"]
    second = make_fake_service()
    second.start({path_of("a"): properties("a", "A")})
    assert waiting_monitor.lines(2) == ["daemon present, producers: 1", "added a: A"]


def test_interrupt_before_the_first_reply(waiting_monitor):
    assert waiting_monitor.end_by(signal.SIGINT) == (SUCCESS, b"", b"")


def test_signals_of_other_senders_are_ignored(start_monitor, started_service, stand_in_bus):
    monitor = start_monitor()
    stranger = FakeService(stand_in_bus)
    stranger.add("fake")
    stranger.remove("fake")
    stranger.client.has_owner("com.quon.MetadataServer1")
    started_service.add("real", "Real")
    stranger.close()
    assert monitor.lines(1) == ["added real: Real"]


def test_control_characters_are_escaped(start_monitor, started_service):
    monitor = start_monitor()
    text = "a\ndaemon absent\x1b[2J\u009b1m\u2028 100 %s%n"
    shown = "a\\u000adaemon absent\\u001b[2J\\u009b1m\\u2028 100 %s%n"
    started_service.emit_added(ROOT, path_of("x"), {PRODUCER: properties(text, text, [(1, True, text)])})
    started_service.emit_removed(ROOT, path_of("x"), [PRODUCER])
    assert monitor.lines(3) == [f"added {shown}: {shown}", f"enabled {shown} 1: {shown}", f"removed {shown}"]


@pytest.mark.parametrize("path, interface, name, body, type_", [
    (ROOT, OBJECT_MANAGER, "InterfacesAdded", GLib.Variant("(s)", ("x",)), "(oa{sa{sv}})"),
    (ROOT, OBJECT_MANAGER, "InterfacesRemoved", GLib.Variant("(o)", ("/x",)), "(oas)"),
    (path_of(VIDEO), PROPERTIES, "PropertiesChanged", GLib.Variant("(sa{ss}as)", ("x", {}, [])), "(sa{sv}as)"),
])
def test_signal_of_another_type(start_monitor, started_service, path, interface, name, body, type_):
    monitor = start_monitor()
    started_service.emit(path, interface, name, body)
    assert monitor.finish() == failure(MALFORMED, f"What the daemon sent for {name} has the type "
                                                  f"'{body.get_type_string()}', not '{type_}'.")


@pytest.mark.parametrize("path, interface, name, body", [
    (ROOT, OBJECT_MANAGER, "InterfacesAdded",
     GLib.Variant("(oa{sa{sv}})", (path_of("x"), {PRODUCER: {"Name": GLib.Variant("i", 1)}}))),
    (path_of(VIDEO), PROPERTIES, "PropertiesChanged",
     GLib.Variant("(sa{sv}as)", (PRODUCER, {"ChannelsEnabled": GLib.Variant("i", 1)}, []))),
])
def test_property_of_another_type(start_monitor, started_service, path, interface, name, body):
    monitor = start_monitor()
    started_service.emit(path, interface, name, body)
    assert monitor.finish().status == MALFORMED


def test_number_of_producers_is_bounded(start_monitor, fake_service):
    fake_service.start({path_of(f"p{number}"): properties(f"p{number}") for number in range(MAX_PRODUCERS)})
    monitor = start_monitor(f"daemon present, producers: {MAX_PRODUCERS}")
    fake_service.change("p0", [(1, True, "c")])
    fake_service.add("p0", "n", [(1, False, "")])
    fake_service.add("x")
    assert monitor.finish() == failure(MALFORMED, f"The daemon has more than {MAX_PRODUCERS} producers.",
                                       out=b"enabled p0 1: c\ndisabled p0 1\n")


def test_daemon_refuses(start_on_bus, fake_service):
    fake_service.errors["GetManagedObjects"] = ("org.freedesktop.DBus.Error.AccessDenied", "Not you.")
    fake_service.start()
    assert start_on_bus("monitor").finish() == failure(REFUSED, "Not you.")


def test_bus_ends(start_monitor, started_service, stand_in_bus):
    monitor = start_monitor()
    stand_in_bus.stop()
    result = monitor.finish()
    # The bus can disconnect the daemon first, and then sends a signal about it.
    assert result.out in (b"", b"daemon absent\n")
    assert result == failure(ENDED, "The bus closed the connection.", result.out)


def test_reader_closes_the_output(start_on_bus, started_service):
    reader, writer = os.pipe()
    with os.fdopen(writer, "wb") as output:
        monitor = start_on_bus("monitor", stdout=output)
    assert read_lines(reader, 1) == [b"daemon present, producers: 2\n"]
    os.close(reader)
    assert monitor.finish() == (SUCCESS, b"", b"")


def test_output_that_cannot_be_written(start_on_bus, started_service):
    with open("/dev/full", "wb") as full:
        result = start_on_bus("monitor", stdout=full).finish()
    assert result == failure(LOCAL, "Could not write to standard output: No space left on device.")


@pytest.fixture
def full_pipe():
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    with pytest.raises(BlockingIOError):
        while True:
            os.write(writer, b"x" * 4096)
    os.set_blocking(writer, True)
    yield writer
    os.close(reader)
    os.close(writer)


def test_interrupt_while_the_output_is_full(start_on_bus, started_service, full_pipe):
    monitor = start_on_bus("monitor", stdout=full_pipe)
    wait_until(lambda: started_service.calls, "the monitor requests the producers")
    assert monitor.end_by(signal.SIGINT).status == SUCCESS


def test_pending_output_is_bounded(start_on_bus, started_service, full_pipe):
    monitor = start_on_bus("monitor", stdout=full_pipe)
    wait_until(lambda: started_service.calls, "the monitor requests the producers")
    long = "n" * (MAX_PENDING_BYTES // 4)
    for _ in range(5):
        started_service.add("Counter", long)
        started_service.remove("Counter")
    assert monitor.finish() == failure(LOCAL, f"More than {MAX_PENDING_BYTES} bytes wait for the reader of standard "
                                              "output.")


def test_each_line_is_written_at_once_to_a_terminal(start_on_bus, started_service):
    master, slave = pty.openpty()
    monitor = start_on_bus("monitor", stdout=slave)
    os.close(slave)
    assert read_some(master) == b"daemon present, producers: 2\r\n"
    started_service.remove(RADAR)
    assert read_some(master) == b"removed RadarMotionTracker\r\n"
    os.close(master)
    assert monitor.finish().status == SUCCESS
