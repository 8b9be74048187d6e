# SPDX-License-Identifier: MIT
"""The PTZ status: the parts that a request selects, and changes during movement."""

import datetime
import itertools
import math

import pytest

from client import header
from documents import IDLE, MOVING, PAN_TILT_SPACES, PTZ, ZOOM_SPACES, now
from installation import DOCUMENT_PLUGIN, EVENT_PLUGIN, EVENT_PLUGINS, PTZ_PLUGIN, PTZ_PLUGINS
from refusals import (CHANNEL_OUT_OF_BOUNDS, INVALID_CHANNEL, INVALID_EVENT, INVALID_PAN_TILT_SPACE,
                      INVALID_PTZ, INVALID_ZOOM_SPACE, PAN_TILT_SPACE_OUT_OF_BOUNDS, PTZ_OUT_OF_BOUNDS,
                      WRONG_CHANNELS, WRONG_PTZ, WRONG_SPACES, ZOOM_SPACE_OUT_OF_BOUNDS, expect_refused)
from simcamera import PTZ as CAMERA_PTZ
from waiting import BOUND_SECONDS

STATUS_AND_POSITION, POSITION_ONLY, STATUS_ONLY = 1, 2, 3

# The precision of positions in documents.
ROUNDING = 0.0001

PAN_RANGES = ((-1, 1), (-180, 180), (-math.pi, math.pi))
TILT_RANGES = ((-1, 1), (-90, 90), (-math.pi / 2, math.pi / 2))
ZOOM_RANGES = ((0, 1), (4.3, 129), (1, 30))


@pytest.fixture
def start_ptz_daemon(start_daemon):
    """Starts a daemon on a camera with a PTZ head alone."""

    def start(**arguments):
        return start_daemon(plugins=PTZ_PLUGINS, **arguments)

    return start


@pytest.fixture
def ptz_daemon(start_ptz_daemon):
    return start_ptz_daemon()


def first_document(daemon, **fields):
    with daemon.client() as client:
        return client.start(header(**fields)).next_document()


def first_status(daemon, **fields):
    (status,) = first_document(daemon, **fields).ptz
    return status


# Selected parts


@pytest.mark.parametrize("ptz, parts", [
    (STATUS_AND_POSITION, ["Position", "MoveStatus", "UtcTime"]),
    (POSITION_ONLY, ["Position", "UtcTime"]),
    (STATUS_ONLY, ["MoveStatus", "UtcTime"]),
])
def test_request_selects_the_parts_of_the_status(ptz_daemon, ptz, parts):
    began = now()
    with ptz_daemon.client() as client:
        stream = client.start(header(ptz=ptz))
        client.sync()
        for document in itertools.islice(stream.documents(), 2):
            (status,) = document.ptz
            assert document.kind == PTZ
            assert status.parts == parts
            assert began <= status.time <= now()


def test_status_and_position_are_complete(ptz_daemon):
    status = first_status(ptz_daemon, ptz=STATUS_AND_POSITION)

    assert all(-1 <= coordinate <= 1 for coordinate in status.pan_tilt)
    assert 0 <= status.zoom <= 1
    assert {status.pan_tilt_status, status.zoom_status} <= {IDLE, MOVING}


@pytest.mark.parametrize("fields", [{}, {"ptz": 0}, {"video_channel": 1, "ptz_zoom_coordinate_space": 1},
                                    {"ptz": 0, "ptz_pantilt_coordinate_space": 2}])
def test_no_metadata_without_a_request_for_it(ptz_daemon, fields):
    ptz_daemon.expect_reply(header(**fields))


@pytest.mark.parametrize("fields", [{"ptz": 1}, {"ptz": 4}, {"video_channel": "x"}])
def test_camera_without_a_head_does_not_know_the_keys(start_daemon, fields):
    daemon = start_daemon(plugins=EVENT_PLUGINS)

    daemon.expect_reply(header(**fields))


# Channels


@pytest.mark.parametrize("channels, text", [((1,), "1"), ((7,), "007"), ((0,), "0"), ((0,), ""),
                                            ((2, 3), "3"), ((2147483646,), "2147483646")])
def test_head_of_a_channel(start_ptz_daemon, channels, text):
    daemon = start_ptz_daemon(ptz_channels=channels)

    assert first_status(daemon, ptz=1, video_channel=text).parts == ["Position", "MoveStatus", "UtcTime"]


@pytest.mark.parametrize("channels, fields", [((1,), {"video_channel": 2}), ((1,), {"video_channel": 0}),
                                              ((2,), {}), ((), {"video_channel": 1})])
def test_channel_without_a_head_has_no_status(start_ptz_daemon, channels, fields):
    daemon = start_ptz_daemon(ptz_channels=channels)

    document = first_document(daemon, ptz=1, **fields)

    assert (document.kind, document.ptz) == (PTZ, [])


def test_channels_of_one_head_have_the_same_status(start_ptz_daemon):
    daemon = start_ptz_daemon(ptz_channels=(1, 4))
    with daemon.client() as first, daemon.client() as fourth:
        streams = [client.start(header(ptz=1, video_channel=channel))
                   for client, channel in ((first, 1), (fourth, 4))]
        one, other = idle_statuses((first, fourth), streams)

    assert (one.pan_tilt, one.zoom) == (other.pan_tilt, other.zoom)


# Coordinate spaces


def status_since(client, stream):
    """The status that a sync point yields."""
    requested = now()
    client.sync()
    return next(status for status in stream.statuses() if status.time >= requested)


def idle_statuses(clients, streams):
    """The status in each stream, all from one time at which the head does not move."""
    deadline = now() + datetime.timedelta(seconds=BOUND_SECONDS)
    while now() < deadline:
        seen = [status_since(client, stream) for client, stream in zip(clients, streams)]
        again = status_since(clients[0], streams[0])
        before = seen[0]
        if all(status.is_idle for status in (*seen, again)) and (again.pan_tilt, again.zoom) == (
                before.pan_tilt, before.zoom):
            return seen
    pytest.fail("the head does not stop")


def test_default_spaces_are_the_generic_ones(ptz_daemon):
    status = first_status(ptz_daemon, ptz=POSITION_ONLY)

    assert (status.pan_tilt_space, status.zoom_space) == (PAN_TILT_SPACES[0], ZOOM_SPACES[0])


@pytest.mark.parametrize("space", [0, 1, 2])
def test_each_space_can_be_selected(ptz_daemon, space):
    pan_tilt = first_status(ptz_daemon, ptz=1, ptz_pantilt_coordinate_space=space)
    zoom = first_status(ptz_daemon, ptz=1, ptz_zoom_coordinate_space=space)
    both = first_status(ptz_daemon, ptz=1, ptz_pantilt_coordinate_space=space,
                        ptz_zoom_coordinate_space=2 - space)

    assert (pan_tilt.pan_tilt_space, pan_tilt.zoom_space) == (PAN_TILT_SPACES[space], ZOOM_SPACES[0])
    assert (zoom.pan_tilt_space, zoom.zoom_space) == (PAN_TILT_SPACES[0], ZOOM_SPACES[space])
    assert (both.pan_tilt_space, both.zoom_space) == (PAN_TILT_SPACES[space], ZOOM_SPACES[2 - space])


def part_of_range(value, ends):
    low, high = ends
    return (value - low) / (high - low)


def test_spaces_have_the_same_position(ptz_daemon):
    with ptz_daemon.client() as first, ptz_daemon.client() as second, ptz_daemon.client() as third:
        clients = (first, second, third)
        streams = [client.start(header(ptz=1, ptz_pantilt_coordinate_space=space,
                                       ptz_zoom_coordinate_space=space))
                   for client, space in zip(clients, range(3))]
        seen = idle_statuses(clients, streams)

    pans = [part_of_range(status.pan_tilt[0], ends) for status, ends in zip(seen, PAN_RANGES)]
    tilts = [part_of_range(status.pan_tilt[1], ends) for status, ends in zip(seen, TILT_RANGES)]
    zooms = [part_of_range(status.zoom, ends) for status, ends in zip(seen, ZOOM_RANGES)]
    for parts in (pans, tilts, zooms):
        assert parts == pytest.approx([parts[0]] * 3, abs=2 * ROUNDING)
    # At the middle of each range all spaces would agree.
    assert any(abs(part - 0.5) > 10 * ROUNDING for part in (pans[0], tilts[0], zooms[0]))


# Move capabilities

PAN, TILT, ZOOM = 1, 2, 4


@pytest.mark.parametrize("capabilities, pan_tilt, zoom", [
    (PAN | TILT | ZOOM, True, True),
    (PAN | TILT, True, False),
    (ZOOM, False, True),
    (0, True, True),
])
def test_fixed_axes_are_left_out(start_camera, start_ptz_daemon, capabilities, pan_tilt, zoom):
    start_camera("--move-capabilities", str(capabilities))
    daemon = start_ptz_daemon(coordinator_line=None)

    status = first_status(daemon, ptz=1)

    assert (status.pan_tilt is not None, status.pan_tilt_status is not None) == (pan_tilt, pan_tilt)
    assert (status.zoom is not None, status.zoom_status is not None) == (zoom, zoom)


@pytest.mark.parametrize("capabilities, axis", [(PAN, 1), (TILT, 0)])
def test_axis_that_cannot_move_is_in_the_middle(start_camera, start_ptz_daemon, capabilities, axis):
    start_camera("--move-capabilities", str(capabilities))
    daemon = start_ptz_daemon(coordinator_line=None)

    assert first_status(daemon, ptz=1, ptz_pantilt_coordinate_space=1).pan_tilt[axis] == 0


def test_capabilities_are_those_of_the_start(camera, start_ptz_daemon):
    daemon = start_ptz_daemon(coordinator_line=None)
    camera.move_capabilities(ZOOM)
    camera.absent(CAMERA_PTZ)

    assert first_status(daemon, ptz=1).pan_tilt is not None
    assert camera.calls(CAMERA_PTZ) == 1


# Refusals


def test_wrong_ptz(ptz_daemon):
    for key, value, text in WRONG_PTZ:
        expect_refused(ptz_daemon, {key: value}, text.format(value))


@pytest.mark.parametrize("ptz", [{}, {"ptz": 0}, {"ptz": 1}], ids=["absent", "0", "1"])
def test_wrong_channel_or_space_is_refused_with_and_without_ptz(ptz_daemon, ptz):
    for key, value, text in WRONG_CHANNELS + WRONG_SPACES:
        expect_refused(ptz_daemon, ptz | {key: value}, text.format(value))


WRONG_IN_ORDER = [
    ("event", "2", INVALID_EVENT),
    ("ptz", "7", PTZ_OUT_OF_BOUNDS),
    ("video_channel", "one", INVALID_CHANNEL),
    ("ptz_pantilt_coordinate_space", "7", PAN_TILT_SPACE_OUT_OF_BOUNDS),
    ("ptz_zoom_coordinate_space", "7", ZOOM_SPACE_OUT_OF_BOUNDS),
]


@pytest.mark.parametrize("first", range(len(WRONG_IN_ORDER)))
def test_first_of_several_wrong_values_is_reported(start_daemon, first):
    daemon = start_daemon(plugins=[EVENT_PLUGIN, PTZ_PLUGIN, DOCUMENT_PLUGIN])
    wrong = WRONG_IN_ORDER[first:]
    _, value, text = wrong[0]

    # The order of the header lines has no effect.
    expect_refused(daemon, {key: value for key, value, _ in reversed(wrong)}, text.format(value))


@pytest.mark.parametrize("key, value, text", [
    ("ptz", "x", INVALID_PTZ),
    ("video_channel", "9" * 11, CHANNEL_OUT_OF_BOUNDS),
    ("ptz_pantilt_coordinate_space", "x", INVALID_PAN_TILT_SPACE),
    ("ptz_zoom_coordinate_space", "x", INVALID_ZOOM_SPACE),
])
def test_wrong_value_fails_the_request_for_events_too(start_daemon, key, value, text):
    daemon = start_daemon(plugins=[EVENT_PLUGIN, PTZ_PLUGIN, DOCUMENT_PLUGIN])

    expect_refused(daemon, {"event": 1, key: value}, text.format(value))


def test_last_line_of_a_key_counts(ptz_daemon):
    with ptz_daemon.client() as client:
        stream = client.start("ptz=9\nptz=2\nvideo_channel=x\nvideo_channel=1\n")

        assert next(stream.statuses()).parts == ["Position", "UtcTime"]


def test_element_that_is_removed_after_the_start(installation, start_ptz_daemon):
    folder, environment = installation.new_plugin_folder(PTZ_PLUGINS)
    # The first start registers the plug-in, which the second one need not load.
    start_ptz_daemon(environment=environment).end()
    daemon = start_ptz_daemon(environment=environment)
    (folder / installation.plugins[PTZ_PLUGIN].name).unlink()

    expect_refused(daemon, {"ptz": 1}, "Could not construct statuscacheptzsrc.")


# Sync points and movement


def test_sync_point_shows_the_state_again(ptz_daemon):
    with ptz_daemon.client() as client:
        stream = client.start_reading(header(ptz=1))
        for _ in range(10):
            requested = now()
            client.sync()
            assert any(status.time >= requested for status in stream.statuses())


def test_sync_point_yields_the_status_without_a_head_too(ptz_daemon):
    with ptz_daemon.client() as client:
        stream = client.start_reading(header(ptz=1, video_channel=2))
        # Without sync points, fewer would arrive within the time limit.
        for _ in range(10):
            client.sync()
            assert stream.next_document().ptz == []


# Seconds of the simulation's cycle, each shortly before a long movement.
BEFORE_A_TURN = 0
BEFORE_A_ZOOM = 5


@pytest.mark.parametrize("what, status, began", [("pan_tilt", "pan_tilt_status", BEFORE_A_TURN),
                                                 ("zoom", "zoom_status", BEFORE_A_ZOOM)])
def test_position_changes_while_moving_only(start_ptz_daemon, what, status, began):
    daemon = start_ptz_daemon(speed=4, world_seconds=began)
    received = []
    with daemon.client() as client:
        statuses = client.start(header(ptz=STATUS_AND_POSITION)).statuses()
        for seen in itertools.dropwhile(lambda seen: getattr(seen, status) != IDLE, statuses):
            received.append((getattr(seen, status), getattr(seen, what)))
            if [state for state, _ in received[-2:]] == [MOVING, IDLE]:
                break

    states = [state for state, _ in itertools.groupby(received, lambda one: one[0])]
    assert states == [IDLE, MOVING, IDLE]
    moving = [position for state, position in received if state == MOVING]
    idle = [position for state, position in received if state == IDLE]
    assert len(set(moving)) == len(moving) > 1
    assert len(set(idle[:-1])) == 1
    assert idle[-1] not in idle[:-1]
