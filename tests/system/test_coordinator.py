# SPDX-License-Identifier: MIT
"""The PTZ coordinator, which the daemon calls at its start for the move capabilities. The daemon starts after every
outcome of the call, and logs one line with the reason if the capabilities are unknown."""

import time

import pytest

from gi.repository import GLib

from busclient import BusClient
from daemon import NO_BUS_LINE, NO_CONNECTION_LINES, NO_COORDINATOR, no_move_capabilities, start_lines
from documents import NAMESPACES
from installation import EVENT_PLUGINS, PTZ_PLUGINS
from simcamera import CAPTURE, PTZ, SCENES
from waiting import wait_until

NAME, PATH, PROPERTY = "com.quon.PTZ.Coordinator", "/com/quon/PTZ/Coordinator/1", "DriverMoveCapabilities"

NOT_UNPACKED = no_move_capabilities("Failed to unpack variant")
NO_REPLY = no_move_capabilities("GDBus.Error:org.freedesktop.DBus.Error.NoReply: Message recipient disconnected from "
                                "message bus without replying")

# The move capabilities of the simulated PTZ head.
PAN, TILT, ZOOM = 1, 2, 4

# Longer than operations take that do not wait.
SLOW_MS = 500


@pytest.fixture
def launch_with_ptz(launch):
    """Starts a daemon with PTZ and this log line about the coordinator, None for no line."""

    def start(line, **arguments):
        daemon = launch(plugins=PTZ_PLUGINS, **arguments)
        daemon.start_lines = start_lines(PTZ_PLUGINS, line)
        return daemon

    return start


@pytest.fixture
def start_with_ptz(launch_with_ptz):
    """The same, and waits until the daemon is ready and has logged the line."""

    def start(line, **arguments):
        daemon = launch_with_ptz(line, **arguments)
        daemon.wait_until_ready()
        return daemon

    return start


# Replies


def test_reply_causes_no_line(camera, start_with_ptz):
    start_with_ptz(None)

    assert camera.calls(PTZ) == 1


@pytest.mark.parametrize("value", [-2147483648, 0, 2147483647])
def test_any_number_is_accepted(start_camera, start_with_ptz, value):
    start_camera("--move-capabilities", str(value))

    start_with_ptz(None)


def position_in_first_document(daemon):
    """The elements of the PTZ position."""
    with daemon.client() as client:
        document = client.start("ptz=1\n").next_document()
    position = document.root.find("tt:PTZ/tt:PTZStatus/tt:Position", NAMESPACES)
    return [part.tag.removeprefix(f"{{{NAMESPACES['tt']}}}") for part in position]


@pytest.mark.parametrize("capabilities, parts", [
    (PAN, ["PanTilt"]),
    (PAN | TILT, ["PanTilt"]),
    (ZOOM, ["Zoom"]),
    (PAN | TILT | ZOOM, ["PanTilt", "Zoom"]),
])
def test_reply_reaches_the_element(start_camera, start_with_ptz, capabilities, parts):
    start_camera("--move-capabilities", str(capabilities))
    daemon = start_with_ptz(None)

    assert position_in_first_document(daemon) == parts


def test_without_a_reply_the_element_gets_0(camera, start_with_ptz):
    camera.move_capabilities(ZOOM)
    camera.inject_fault(PTZ, "error")
    daemon = start_with_ptz(no_move_capabilities(
        "GDBus.Error:org.freedesktop.DBus.Error.Failed: The simulated service fails."))

    # The element then treats the head as one with all capabilities.
    assert position_in_first_document(daemon) == ["PanTilt", "Zoom"]


def test_daemon_waits_for_a_slow_reply(camera, start_with_ptz):
    camera.inject_fault(PTZ, "slow", SLOW_MS)
    began = time.monotonic()
    start_with_ptz(None)

    assert time.monotonic() - began >= SLOW_MS / 1000


def test_daemon_does_not_start_before_the_reply(overdue_start):
    assert not overdue_start.has_socket()
    assert overdue_start.daemon.process.poll() is None


def test_coordinator_is_called_once_for_all_requests(camera, start_with_ptz):
    daemon = start_with_ptz(None)
    for _ in range(3):
        with daemon.client() as client:
            client.request("ptz=0\n")

    assert camera.calls(PTZ) == 1


def test_start_calls_no_other_service(camera, start_with_ptz):
    start_with_ptz(None)

    assert [camera.calls(service) for service in (CAPTURE, SCENES)] == [0, 0]


def test_coordinator_is_not_called_without_ptz(camera, start_daemon):
    start_daemon(plugins=EVENT_PLUGINS)

    assert camera.calls(PTZ) == 0


def test_each_start_calls_the_coordinator(camera, start_with_ptz):
    start_with_ptz(None).end()
    camera.inject_fault(PTZ, "empty")
    start_with_ptz(NOT_UNPACKED).end()
    camera.clear_fault(PTZ)
    start_with_ptz(None)

    assert camera.calls(PTZ) == 3


# Failures


def test_absent_coordinator(start_with_ptz):
    start_with_ptz(NO_COORDINATOR)


def test_other_services_do_not_replace_the_coordinator(start_camera, start_with_ptz):
    start_camera("--services", "capture,scenes")

    start_with_ptz(NO_COORDINATOR)


@pytest.mark.parametrize("text", ["The driver is not loaded.", "", "100 %s %n", "ü"])
def test_error_is_logged_unchanged(camera, start_with_ptz, text):
    camera.inject_fault(PTZ, "error", text)

    start_with_ptz(no_move_capabilities(f"GDBus.Error:org.freedesktop.DBus.Error.Failed: {text}"))


@pytest.mark.parametrize("how", ["wrong-type", "wrong-number", "no-variant", "nested", "empty"])
def test_injected_wrong_reply(camera, start_with_ptz, how):
    camera.inject_fault(PTZ, how)

    start_with_ptz(NOT_UNPACKED)


@pytest.mark.parametrize("body", [
    "(<@ai []>,)",
    "(<[3]>,)",
    "(<(3,)>,)",
    "(<int64 3>,)",
    "(<true>,)",
    "(<@a{sv} {}>,)",
    "(@av [],)",
    "('3',)",
    "(@a{sv} {},)",
    "('3', <3>)",
])
def test_reply_of_an_unexpected_type(camera, start_with_ptz, body):
    camera.inject_fault(PTZ, "reply", body)

    start_with_ptz(NOT_UNPACKED)


def test_coordinator_that_ends_without_a_reply(camera, launch_with_ptz):
    camera.inject_fault(PTZ, "never")
    daemon = launch_with_ptz(NO_REPLY)
    wait_until(lambda: camera.calls(PTZ) == 1, "the coordinator has been called")
    camera.end()

    daemon.wait_until_ready()


def test_coordinator_without_the_object(bus, start_with_ptz):
    stranger = BusClient(bus)
    stranger.own(NAME)
    with pytest.raises(GLib.Error) as failed:
        stranger.get(NAME, PATH, NAME, PROPERTY)

    start_with_ptz(no_move_capabilities(failed.value.message))
    stranger.close()


def test_missing_bus(start_with_ptz, workspace):
    start_with_ptz(no_move_capabilities("Could not connect: No such file or directory"),
                   environment={"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={workspace.path}/nothing"},
                   bus_lines=NO_CONNECTION_LINES, repeated_lines=[NO_BUS_LINE])
