"""The PTZ coordinator, which the daemon asks at its start what the camera's head can move. Whatever becomes of that,
the daemon starts, and says in one line why it does not know."""

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

# What the simulated PTZ head can move, as its driver says it.
PAN, TILT, ZOOM = 1, 2, 4

# Longer than anything takes that is not waited for.
SLOW_MS = 500


@pytest.fixture
def launch_with_ptz(launch):
    """Starts a daemon with PTZ that shall say this of the coordinator, None for nothing."""

    def start(line, **arguments):
        daemon = launch(plugins=PTZ_PLUGINS, **arguments)
        daemon.start_lines = start_lines(PTZ_PLUGINS, line)
        return daemon

    return start


@pytest.fixture
def start_with_ptz(launch_with_ptz):
    """The same, and waits until it answers, having said so."""

    def start(line, **arguments):
        daemon = launch_with_ptz(line, **arguments)
        daemon.wait_until_ready()
        return daemon

    return start


# Answers


def test_answer_causes_no_line(camera, start_with_ptz):
    start_with_ptz(None)

    assert camera.calls(PTZ) == 1


@pytest.mark.parametrize("value", [-2147483648, 0, 2147483647])
def test_any_number_is_an_answer(start_camera, start_with_ptz, value):
    start_camera("--move-capabilities", str(value))

    start_with_ptz(None)


def position_in_first_document(daemon):
    """What the position of the head consists of."""
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
def test_answer_reaches_the_element(start_camera, start_with_ptz, capabilities, parts):
    start_camera("--move-capabilities", str(capabilities))
    daemon = start_with_ptz(None)

    assert position_in_first_document(daemon) == parts


def test_without_an_answer_the_element_gets_0(camera, start_with_ptz):
    camera.move_capabilities(ZOOM)
    camera.inject_fault(PTZ, "error")
    daemon = start_with_ptz(no_move_capabilities(
        "GDBus.Error:org.freedesktop.DBus.Error.Failed: The simulated service fails."))

    # Then it takes the head for one that can do everything.
    assert position_in_first_document(daemon) == ["PanTilt", "Zoom"]


def test_slow_answer_is_waited_for(camera, start_with_ptz):
    camera.inject_fault(PTZ, "slow", SLOW_MS)
    began = time.monotonic()
    start_with_ptz(None)

    assert time.monotonic() - began >= SLOW_MS / 1000


def test_daemon_does_not_start_before_the_answer(overdue_start):
    assert not overdue_start.has_socket()
    assert overdue_start.daemon.process.poll() is None


def test_coordinator_is_asked_once_whatever_clients_ask(camera, start_with_ptz):
    daemon = start_with_ptz(None)
    for _ in range(3):
        with daemon.client() as client:
            client.ask("ptz=0\n")

    assert camera.calls(PTZ) == 1


def test_start_asks_nobody_else(camera, start_with_ptz):
    start_with_ptz(None)

    assert [camera.calls(service) for service in (CAPTURE, SCENES)] == [0, 0]


def test_without_ptz_nobody_is_asked(camera, start_daemon):
    start_daemon(plugins=EVENT_PLUGINS)

    assert camera.calls(PTZ) == 0


def test_each_start_asks_anew(camera, start_with_ptz):
    start_with_ptz(None).end()
    camera.inject_fault(PTZ, "empty")
    start_with_ptz(NOT_UNPACKED).end()
    camera.clear_fault(PTZ)
    start_with_ptz(None)

    assert camera.calls(PTZ) == 3


# Everything else


def test_absent_coordinator(start_with_ptz):
    start_with_ptz(NO_COORDINATOR)


def test_other_services_are_no_coordinator(start_camera, start_with_ptz):
    start_camera("--services", "capture,scenes")

    start_with_ptz(NO_COORDINATOR)


@pytest.mark.parametrize("text", ["The driver is not loaded.", "", "100 %s %n", "ü"])
def test_error_is_told_as_it_came(camera, start_with_ptz, text):
    camera.inject_fault(PTZ, "error", text)

    start_with_ptz(no_move_capabilities(f"GDBus.Error:org.freedesktop.DBus.Error.Failed: {text}"))


@pytest.mark.parametrize("how", ["wrong-type", "wrong-number", "no-variant", "nested", "empty"])
def test_answer_of_a_wrong_form(camera, start_with_ptz, how):
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
def test_answer_of_a_form_nobody_thought_of(camera, start_with_ptz, body):
    camera.inject_fault(PTZ, "reply", body)

    start_with_ptz(NOT_UNPACKED)


def test_coordinator_that_ends_without_an_answer(camera, launch_with_ptz):
    camera.inject_fault(PTZ, "never")
    daemon = launch_with_ptz(NO_REPLY)
    wait_until(lambda: camera.calls(PTZ) == 1, "the coordinator has been asked")
    camera.end()

    daemon.wait_until_ready()


def test_coordinator_without_the_object(bus, start_with_ptz):
    stranger = BusClient(bus)
    stranger.own(NAME)
    with pytest.raises(GLib.Error) as failed:
        stranger.get(NAME, PATH, NAME, PROPERTY)

    start_with_ptz(no_move_capabilities(failed.value.message))
    stranger.close()


def test_bus_that_is_not_there(start_with_ptz, workspace):
    start_with_ptz(no_move_capabilities("Could not connect: No such file or directory"),
                   environment={"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={workspace.path}/nothing"},
                   bus_lines=NO_CONNECTION_LINES, repeated_lines=[NO_BUS_LINE])
