# SPDX-License-Identifier: MIT
"""Radar scenes: their differences from video scenes."""

import itertools
import math

import pytest

from client import header
from daemon import NO_CONNECTION_LINES, RADAR_TRACKER, VIDEO_TRACKER, producers_enabled
from fakereceiver import all_connected
from installation import EVENT_PLUGIN, PTZ_PLUGIN, RADAR_PLUGIN, RADAR_PLUGINS, SCENE_PLUGINS
from refusals import (INVALID_ANALYTICS, INVALID_CHANNEL, INVALID_EVENT, WRONG_CHANNELS, WRONG_PTZ,
                      WRONG_SPACES, expect_refused)
from scenes import BUSY_SECONDS, NO_ROTATION, RADAR, RADAR_ROUNDING, is_inside, objects_of, rotate, seen_by_radar
from simcamera import CAPTURE, SCENES

# The position of the simulated camera.
CAMERA_LONGITUDE, CAMERA_LATITUDE, CAMERA_ELEVATION = -0.0015, 51.4779, 46

METRES_PER_DEGREE = 111_000

# The tolerance between measurements of one object, in metres and metres per second.
MEASURE_TOLERANCE = 0.5


@pytest.fixture
def start_radar_daemon(start_daemon):
    """Starts a daemon on a camera with a radar alone, enabled on the first channels with these names."""

    def start(*names, **arguments):
        defaults = {"plugins": RADAR_PLUGINS, "speed": 4, "world_seconds": BUSY_SECONDS,
                    "producers": RADAR.enabled(*names)}
        return start_daemon(**defaults | arguments)

    return start


def some_objects(daemon, **fields):
    """The objects of the first frames; an object can occur several times."""
    with daemon.client() as client:
        return list(itertools.islice(objects_of(client.start(header(**fields)).frames()), 5))


# Measurements


@pytest.mark.parametrize("analytics", [1, 2])
def test_objects_have_what_the_radar_measures(camera, start_radar_daemon, analytics):
    for found in some_objects(start_radar_daemon("one"), analytics=analytics):
        assert -30 <= found.radar.angle <= 30
        assert 0 < found.radar.range < 50
        assert 0 < found.radar.size < 20
        assert found.radar.speed == found.speed > 0
        assert -180 <= found.radar.direction <= 180


def test_objects_have_their_place_on_the_earth(camera, start_radar_daemon):
    for found in some_objects(start_radar_daemon("one"), analytics=1):
        longitude, latitude, elevation = found.location
        east = (longitude - CAMERA_LONGITUDE) * METRES_PER_DEGREE * math.cos(math.radians(CAMERA_LATITUDE))
        north = (latitude - CAMERA_LATITUDE) * METRES_PER_DEGREE

        # The camera faces east, and its angles are clockwise.
        angle = math.radians(found.radar.angle)
        assert east == pytest.approx(found.radar.range * math.cos(angle), abs=MEASURE_TOLERANCE)
        assert north == pytest.approx(-found.radar.range * math.sin(angle), abs=MEASURE_TOLERANCE)
        assert elevation == CAMERA_ELEVATION


@pytest.mark.parametrize("degrees", [0, 90, 180, 270])
def test_rotation_does_not_apply_to_the_radars_measurements(start_camera, start_radar_daemon, degrees):
    start_camera("--rotation", f"1={degrees}")
    inside = [found for found in some_objects(start_radar_daemon("one"), analytics=1)
              if is_inside(found.centre)]

    for found in inside:
        assert found.centre == pytest.approx(rotate(seen_by_radar(found.radar), degrees), abs=RADAR_ROUNDING)
    assert inside != []


def test_radar_frames_have_no_ptz_status(camera, start_radar_daemon):
    daemon = start_radar_daemon("one", "two")
    for fields in ({"ptz": 1}, {"ptz": 1, "video_channel": 2},
                   *({key: value} for key, value, _ in WRONG_PTZ + WRONG_SPACES)):
        with daemon.client() as client:
            (frame,) = client.start(header(analytics=1, **fields)).next_document().frames
        assert frame.ptz is None


# Calls of the platform


def test_radar_does_not_need_the_scene_provider(camera, start_radar_daemon):
    daemon = start_radar_daemon("one")
    camera.inject_fault(SCENES, "error")

    assert some_objects(daemon, analytics=1) != []
    camera.absent(SCENES)
    assert some_objects(daemon, analytics=1) != []
    assert (camera.calls(SCENES), camera.calls(CAPTURE)) == (0, 2)


def test_each_request_without_rotation_logs_a_warning(start_radar_daemon):
    daemon = start_radar_daemon("one", "two")
    for fields in ({"analytics": 1}, {"analytics": 2, "video_channel": 2}):
        assert some_objects(daemon, **fields) != []
        assert daemon.log.take() == [NO_ROTATION]


def test_stopped_bus_affects_the_rotation_alone(own_bus, start_radar_daemon):
    with all_connected(own_bus):
        daemon = start_radar_daemon("one", on=own_bus)
    own_bus.stop()
    assert daemon.log.take(2) == NO_CONNECTION_LINES

    assert some_objects(daemon, analytics=1) != []
    assert some_objects(daemon, analytics=1) != []
    assert daemon.log.take() == [NO_ROTATION] * 2


def start_with_both(start_daemon, **names):
    """Starts a daemon with both kinds of scenes, enabled on the first channel with these names."""
    trackers = {"video": (VIDEO_TRACKER, 1), "radar": (RADAR_TRACKER, 1)}
    return start_daemon(plugins=(RADAR_PLUGIN, *SCENE_PLUGINS), speed=4, world_seconds=BUSY_SECONDS,
                        producers=producers_enabled({trackers[key]: name for key, name in names.items()}))


def sources(daemon, count=10):
    """The sources of the first frames."""
    with daemon.client() as client:
        frames = client.start(header(analytics=1)).frames()
        return {frame.source for frame in itertools.islice(frames, count)}


def test_one_request_gets_both_kinds_of_scenes(camera, start_daemon):
    assert sources(start_with_both(start_daemon, video="tracker", radar="radar")) == {"tracker", "radar"}
    assert camera.calls(CAPTURE) == 2


@pytest.mark.parametrize("names", [{"video": "tracker"}, {"radar": "radar"}])
def test_disabled_kind_does_not_affect_the_other(camera, start_daemon, names):
    assert sources(start_with_both(start_daemon, **names)) == set(names.values())
    assert camera.calls(CAPTURE) == 1


def test_without_rotation_only_the_radar_has_scenes(camera, start_daemon):
    daemon = start_with_both(start_daemon, video="tracker", radar="radar")
    camera.inject_fault(CAPTURE, "error")

    assert sources(daemon) == {"radar"}
    assert daemon.log.take() == [NO_ROTATION]


# Refusals


@pytest.mark.parametrize("analytics", [{}, {"analytics": 0}, {"analytics": 1}], ids=["absent", "0", "1"])
def test_wrong_channel_is_refused_with_and_without_scenes(start_radar_daemon, analytics):
    daemon = start_radar_daemon("one")

    for key, value, text in WRONG_CHANNELS:
        expect_refused(daemon, analytics | {key: value}, text.format(value))


def test_wrong_channel_fails_the_request_for_events_too(start_radar_daemon):
    daemon = start_radar_daemon(plugins=(EVENT_PLUGIN, *RADAR_PLUGINS))

    expect_refused(daemon, {"event": 1, "video_channel": "abc"}, INVALID_CHANNEL.format("abc"))


def test_first_of_several_wrong_values_is_reported(start_radar_daemon):
    daemon = start_radar_daemon("one", plugins=(EVENT_PLUGIN, *RADAR_PLUGINS))

    expect_refused(daemon, {"video_channel": "x", "analytics": "3", "event": "2"}, INVALID_EVENT.format("2"))
    expect_refused(daemon, {"video_channel": "x", "analytics": "3"}, INVALID_ANALYTICS.format("3"))
    expect_refused(daemon, {"video_channel": "x"}, INVALID_CHANNEL.format("x"))


def test_factory_of_ptz_checks_first(camera, start_radar_daemon):
    daemon = start_radar_daemon("one", plugins=(PTZ_PLUGIN, *RADAR_PLUGINS), coordinator_line=None)

    expect_refused(daemon, {"analytics": "3", "video_channel": "x"}, INVALID_CHANNEL.format("x"))
