# SPDX-License-Identifier: MIT
"""The control service on the bus: changes of producers, their storage, and the daemon without a bus."""

import threading

import pytest
from gi.repository import Gio, GLib

from busclient import BusClient, error_text
from daemon import (NAME_ACQUIRED_LINE, NAME_REFUSED_LINES, NO_BUS_LINE, NO_CONNECTION_LINES, NOTHING_REQUESTED,
                    RADAR_TRACKER, VIDEO_TRACKER, WARNING, name_taken_lines, producers_enabled, stored_names)
from fakereceiver import all_connected
from installation import DOCUMENT_PLUGIN, EVENT_PLUGIN, JSON_PLUGIN, RADAR_PLUGIN, SCENE_PLUGIN, documented_limit
from simcamera import CAPTURE
from controlclient import NAME, ControlClient, path_of
from waiting import BOUND_SECONDS, wait_until

PLUGINS = (EVENT_PLUGIN, SCENE_PLUGIN, RADAR_PLUGIN, JSON_PLUGIN, DOCUMENT_PLUGIN)

NAME_BYTES = documented_limit("producerconfig.h", "PRODUCER_CONFIG_MAX_NAME_BYTES")

SCENES = "analytics=1\nvideo_channel=1\n"

# The number of calls of each of two control clients.
CALLS = 500


@pytest.fixture
def start(start_daemon):
    def started(**arguments):
        return start_daemon(plugins=PLUGINS, **arguments)

    return started


@pytest.fixture
def daemon(start):
    return start()


def source_of_scenes(daemon):
    """The source of the scenes that a client receives; None without scenes."""
    with daemon.client() as client:
        reply = client.request(SCENES)
        if reply == NOTHING_REQUESTED:
            return None
        assert reply == "OK"
        stream = client.open_stream()
        for document in stream.documents():
            sources = {frame.get("Source") for frame in document.root.iter("{*}Frame")}
            if sources:
                (source,) = sources
                return source
    return None


# Properties and changes


def test_built_in_producers_are_listed(daemon, control):
    assert control.objects() == {path_of(VIDEO_TRACKER), path_of(RADAR_TRACKER)}
    for producer in (VIDEO_TRACKER, RADAR_TRACKER):
        properties = control.properties(producer)
        assert properties["Name"] == producer
        assert properties["SampleFrameXML"].startswith("<tt:SampleFrame ")
        assert properties["ChannelsEnabled"] == [(1, False, ""), (2, False, "")]


def test_producers_without_their_plugin_are_not_listed(start_daemon, control):
    start_daemon()

    assert control.objects() == set()


def test_enabled_producer_serves_requests(camera, daemon, control):
    assert source_of_scenes(daemon) is None

    control.set_channels(VIDEO_TRACKER, (1, True, "left door"))
    assert source_of_scenes(daemon) == "left door"

    control.set_producers({VIDEO_TRACKER: [(1, True, "right door")]})
    assert source_of_scenes(daemon) == "right door"

    control.set_channels(VIDEO_TRACKER, (1, False, ""))
    assert source_of_scenes(daemon) is None


def test_running_streams_keep_their_producers(camera, daemon, control):
    control.set_channels(VIDEO_TRACKER, (1, True, "left door"))
    with daemon.client() as client:
        stream = client.start_reading(SCENES)

        control.set_channels(VIDEO_TRACKER, (1, False, ""))
        for _ in range(3):
            stream.next_document()


def test_restart_keeps_what_was_enabled(camera, start, control):
    first = start()
    control.set_producers({VIDEO_TRACKER: [(1, True, "door \"ä\" = [x]\n")], RADAR_TRACKER: [(2, True, " yard ")]})
    first.end()
    start(producers=first.producers_conf.read_text(encoding="utf-8"))

    assert control.channels(VIDEO_TRACKER) == [(1, True, "door \"ä\" = [x]\n"), (2, False, "")]
    assert control.channels(RADAR_TRACKER) == [(1, False, ""), (2, True, " yard ")]


def test_refused_calls_change_nothing(daemon, control):
    before = daemon.producers_conf.read_text(encoding="utf-8")

    with pytest.raises(GLib.Error) as failed:
        control.set_channels(VIDEO_TRACKER, (1, True, "x"), (-1, True, "x"))
    assert error_text(failed.value) == "Tried to enable/disable producer on non-supported channel"
    with pytest.raises(GLib.Error) as failed:
        control.set_producers({"Unknown": [], VIDEO_TRACKER: [(1, True, "x")]})
    assert error_text(failed.value) == "Producer with specified name does not exist"
    assert daemon.producers_conf.read_text(encoding="utf-8") == before


# Two such names would not fit into one message.
HUGE_NAME = "x" * (17 * 1024 * 1024)


def test_huge_names_are_refused_and_the_bus_keeps_the_daemon(daemon, control):
    before = daemon.producers_conf.read_text(encoding="utf-8")

    for change in (lambda: control.set_channels(VIDEO_TRACKER, (1, True, HUGE_NAME)),
                   lambda: control.set_producers({RADAR_TRACKER: [(1, True, HUGE_NAME)]})):
        with pytest.raises(GLib.Error) as failed:
            change()
        assert Gio.DBusError.get_remote_error(failed.value) == "org.freedesktop.DBus.Error.LimitsExceeded"
        assert error_text(failed.value) == f"Configuration name is longer than {NAME_BYTES} bytes"
    assert control.objects() == {path_of(VIDEO_TRACKER), path_of(RADAR_TRACKER)}
    assert set(control.names(VIDEO_TRACKER, RADAR_TRACKER).values()) == {""}
    assert daemon.producers_conf.read_text(encoding="utf-8") == before


def test_longest_name_is_taken(daemon, control):
    name = "ü" * (NAME_BYTES // 2)
    control.set_channels(VIDEO_TRACKER, (1, True, name))

    assert control.names(VIDEO_TRACKER, RADAR_TRACKER)[VIDEO_TRACKER, 1] == name
    assert stored_names(daemon.producers_conf)[VIDEO_TRACKER, 1] == name


def test_longer_name_in_the_file_is_used_and_logged(launch, control):
    name = "x" * (NAME_BYTES + 1)
    daemon = launch(plugins=PLUGINS, producers=producers_enabled({(VIDEO_TRACKER, 1): name}))
    daemon.start_lines.insert(1, (WARNING, f"configuration name longer than {NAME_BYTES} bytes in producers.conf: "
                                           f"Producers.0.{VIDEO_TRACKER}"))
    daemon.wait_until_ready()

    assert control.channels(VIDEO_TRACKER) == [(1, True, name), (2, False, "")]


# Many calls


def test_two_control_clients_at_once_lose_nothing(bus, daemon, control):
    acknowledged = {VIDEO_TRACKER: 0, RADAR_TRACKER: 0}

    def switch(producer):
        own = ControlClient(bus)
        for i in range(CALLS):
            if i % 2:
                own.set_channels(producer, (1, True, f"{producer} {i}"))
            else:
                own.set_producers({producer: [(2, True, f"{producer} {i}")]})
            acknowledged[producer] += 1
        own.set_channels(producer, (2, True, f"{producer} last"))
        own.close()

    threads = [threading.Thread(target=switch, args=(producer,)) for producer in acknowledged]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(10 * BOUND_SECONDS)

    assert acknowledged == {VIDEO_TRACKER: CALLS, RADAR_TRACKER: CALLS}
    expected = {(producer, channel): name for producer in acknowledged
                for channel, name in ((1, f"{producer} {CALLS - 1}"), (2, f"{producer} last"))}
    assert control.names(VIDEO_TRACKER, RADAR_TRACKER) == expected
    assert stored_names(daemon.producers_conf) == expected


# Without the bus


def test_without_a_bus_clients_are_served(start_daemon, workspace):
    daemon = start_daemon(environment={"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={workspace.path}/nothing"},
                          bus_lines=NO_CONNECTION_LINES, repeated_lines=[NO_BUS_LINE])

    with daemon.client() as client:
        client.start().next_document()
        # The daemon tries to connect repeatedly.
        assert set(daemon.log.take(2)) == {NO_BUS_LINE}


def test_with_the_name_taken_clients_are_served(own_bus, start_daemon):
    owner = start_daemon(on=own_bus)
    stranger = BusClient(own_bus)
    daemon = start_daemon(on=own_bus, bus_lines=name_taken_lines(stranger.owner_of(NAME)))
    stranger.close()

    daemon.expect_stream()
    owner.end()
    # The daemon was next in the bus' queue.
    assert daemon.log.take(1) == [NAME_ACQUIRED_LINE]


def test_with_the_name_refused_clients_are_served(start_bus, start_daemon):
    daemon = start_daemon(on=start_bus(owner="daemon"), bus_lines=NAME_REFUSED_LINES)

    daemon.expect_stream()


def test_bus_that_stops_ends_no_stream(own_bus, start):
    with all_connected(own_bus):
        daemon = start(on=own_bus)
    with daemon.client() as client:
        stream = client.start_reading()

        own_bus.stop()
        assert daemon.log.take(2) == NO_CONNECTION_LINES
        client.sync()
        stream.next_document()


def test_restarted_bus_serves_requests_again(own_bus, start, start_camera):
    with all_connected(own_bus):
        daemon = start(on=own_bus)
    control = ControlClient(own_bus)
    control.set_channels(VIDEO_TRACKER, (1, True, "left door"))
    control.close()

    own_bus.stop()
    assert daemon.log.take(2) == NO_CONNECTION_LINES
    own_bus.start()
    camera = start_camera(on=own_bus)
    assert source_of_scenes(daemon) == "left door"
    assert camera.calls(CAPTURE) == 1

    stranger = BusClient(own_bus)
    assert not stranger.has_owner(NAME), "the daemon asks for its name only at its start"
    stranger.close()


def test_descriptors_are_released_with_the_bus(own_bus, start):
    with all_connected(own_bus):
        daemon = start(on=own_bus)

    own_bus.stop()
    assert daemon.log.take(2) == NO_CONNECTION_LINES
    wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors - 1, "the connection is closed")
