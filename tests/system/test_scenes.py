# SPDX-License-Identifier: MIT
"""Scenes: the parts that a request selects, requests without scenes, and the daemon's calls of the platform. Tests of
common behaviour run for video and radar scenes."""

import contextlib
import itertools
import statistics
import time

import pytest

from busclient import BusMonitor
from client import header
from daemon import NOTHING_REQUESTED, producers_enabled
from documents import EVENTS, PAN_TILT_SPACES, SCENE, ZOOM_SPACES
from installation import (EVENT_PLUGIN, EVENT_PLUGINS, JSON_PLUGIN, PTZ_PLUGIN, RADAR_PLUGIN, SCENE_PLUGINS,
                          documented_limit)
from refusals import (INVALID_ANALYTICS, INVALID_CHANNEL, INVALID_EVENT, INVALID_PAN_TILT_SPACE, INVALID_PTZ,
                      INVALID_ZOOM_SPACE, PAN_TILT_SPACE_OUT_OF_BOUNDS, PTZ_OUT_OF_BOUNDS, WRONG_ANALYTICS,
                      WRONG_CHANNELS, WRONG_PTZ, WRONG_SPACES, expect_refused)
from scenes import (BUSY_SECONDS, NO_ROTATION, RADAR, RADAR_ROUNDING, ROUNDING, VIDEO, Tracks, is_inside,
                    objects_of, rotate, seen_by_radar)
from simcamera import CAPTURE, PTZ, SCENES
from waiting import suspended, wait_until, wait_until_settled

WITH_BOXES, WITH_POLYGONS = 1, 2

@pytest.fixture(params=[VIDEO, RADAR], ids=repr)
def kind(request):
    return request.param


@pytest.fixture
def start_scene_daemon(start_daemon):
    """Starts a daemon on a camera with one kind of scenes, enabled on the first channels with these names."""

    def start(kind, *names, **arguments):
        defaults = {"plugins": kind.plugins, "speed": 4, "world_seconds": BUSY_SECONDS,
                    "producers": kind.enabled(*names)}
        return start_daemon(**defaults | arguments)

    return start


def first_frame(daemon, **fields):
    with daemon.client() as client:
        (frame,) = client.start(header(**fields)).next_document().frames
    return frame


# Selected parts


@pytest.mark.parametrize("analytics, polygons", [(WITH_BOXES, False), (WITH_POLYGONS, True)])
def test_objects_have_the_requested_parts(camera, start_scene_daemon, kind, analytics, polygons):
    daemon = start_scene_daemon(kind, "one")
    with daemon.client() as client:
        stream = client.start(header(analytics=analytics))
        for found in itertools.islice(objects_of(stream.frames()), 5):
            left, top, right, bottom = found.box
            assert -1 <= left <= found.centre[0] <= right <= 1
            assert -1 <= bottom <= found.centre[1] <= top <= 1
            assert (found.polygon is not None) == polygons
            for x, y in found.polygon or []:
                assert left <= x <= right and bottom <= y <= top
            assert found.type in ("Human", "Vehicle")
            assert found.speed > 0


def test_first_document_is_one_frame(camera, start_scene_daemon, kind):
    daemon = start_scene_daemon(kind, "one")
    with daemon.client() as client:
        document = client.start(header(analytics=1)).next_document()

    assert document.kind == SCENE
    assert len(document.frames) == 1
    assert document.frames[0].ptz is None


def test_object_that_leaves_is_deleted_once(camera, start_scene_daemon, kind):
    daemon = start_scene_daemon(kind, "one")
    present, gone = set(), []
    with daemon.client() as client:
        for frame in client.start(header(analytics=1)).frames():
            assert not set(frame.objects) & set(gone)
            assert set(frame.deleted) == present - set(frame.objects)
            present = set(frame.objects)
            gone += frame.deleted
            if len(gone) >= 2:
                break

    assert len(set(gone)) == len(gone)


@pytest.mark.parametrize("fields", [{}, {"analytics": 0}, {"video_channel": 1},
                                    {"analytics": 0, "video_channel": 2}])
def test_no_metadata_without_a_request_for_it(camera, start_scene_daemon, kind, fields):
    daemon = start_scene_daemon(kind, "one", "two")

    daemon.expect_reply(header(**fields))
    assert (camera.calls(SCENES), camera.calls(CAPTURE)) == (0, 0)


def test_camera_without_scenes_has_none(camera, start_daemon):
    daemon = start_daemon(plugins=(JSON_PLUGIN, *EVENT_PLUGINS), producers=VIDEO.enabled("one"))

    daemon.expect_reply(header(analytics=1))


def test_sync_point_yields_the_current_state(camera, start_scene_daemon, kind):
    daemon = start_scene_daemon(kind, "one", speed=1)
    with daemon.client() as client:
        stream = client.start(header(analytics=1))
        for _ in range(5):
            time = next(stream.frames()).time
            client.sync()
            assert next(stream.frames()).time > time


# Channels and names


def test_default_channel_is_the_first(camera, start_scene_daemon, kind):
    daemon = start_scene_daemon(kind, "one", "two")

    assert first_frame(daemon, analytics=1).source == "one"
    assert first_frame(daemon, analytics=1, video_channel=1).source == "one"
    assert first_frame(daemon, analytics=1, video_channel="002").source == "two"


def test_channel_beyond_the_usual_ones(start_camera, start_daemon, kind):
    start_camera("--channels", "16")
    daemon = start_daemon(plugins=kind.plugins, producers=producers_enabled({(kind.tracker, 16): "last"}))

    assert first_frame(daemon, analytics=1, video_channel=16).source == "last"


@pytest.mark.parametrize("name", [
    "Größe ☂ 長い 名前",
    "\U0001f4f7",
    "<a href=\"x\">'&amp;'</a>]]>",
    "first\nsecond",
    "\ttabs\tand blanks  ",
    "%s%n{}\\n",
    "name=value;[group]",
    pytest.param("x" * documented_limit("producerconfig.h", "PRODUCER_CONFIG_MAX_NAME_BYTES"), id="longest"),
])
def test_source_is_the_configuration_name(camera, start_scene_daemon, kind, name):
    daemon = start_scene_daemon(kind, name)

    assert first_frame(daemon, analytics=1).source == name


@pytest.mark.parametrize("fields", [{}, {"video_channel": 1}, {"video_channel": 3}, {"video_channel": ""},
                                    {"video_channel": 2147483646}])
def test_disabled_channel_yields_no_metadata(camera, start_scene_daemon, kind, fields):
    daemon = start_scene_daemon(kind, "", "two")
    # A request that waited for this service would time out.
    camera.absent(SCENES)

    daemon.expect_reply(header(analytics=1, **fields))
    assert (camera.calls(SCENES), camera.calls(CAPTURE)) == (0, 0)


def test_producers_file_without_the_tracker_yields_no_metadata(camera, start_daemon, kind):
    daemon = start_daemon(plugins=kind.plugins, producers="")

    daemon.expect_reply(header(analytics=1))
    assert (camera.calls(SCENES), camera.calls(CAPTURE)) == (0, 0)


def test_disabled_channel_does_not_affect_events(camera, start_daemon, kind):
    daemon = start_daemon(plugins=(EVENT_PLUGIN, *kind.plugins), producers=kind.enabled("", "two"), speed=100)
    with daemon.client() as client:
        documents = client.start(header(event=1, analytics=1)).documents()

        assert {document.kind for document in itertools.islice(documents, 10)} == {EVENTS}


# Rotation


def compare_places(plain, turned, degrees):
    """Reads two streams of the same picture, one of them rotated, until a few positions have been compared."""
    tracks, frames = Tracks(), []
    for upright, other in zip(plain.frames(), turned.frames()):
        tracks.add(upright)
        frames.append(other)
        compared = 0
        for frame in frames:
            for found in frame.objects.values():
                place = tracks.at(found.id, frame.time)
                if place is not None and is_inside(found.centre):
                    assert found.centre == pytest.approx(rotate(place, degrees), abs=ROUNDING)
                    compared += 1
        if compared >= 3:
            return


def test_picture_has_the_rotation_of_the_capture_service(start_camera, start_scene_daemon, kind):
    camera = start_camera("--channels", "4", "--rotation", "2=90", "--rotation", "3=180", "--rotation", "4=270")
    daemon = start_scene_daemon(kind, "one", "two", "three", "four")
    with contextlib.ExitStack() as stack:
        plain, *turned = [stack.enter_context(daemon.client()).start(header(analytics=2, video_channel=channel))
                          for channel in (1, 2, 3, 4)]
        for stream, degrees in zip(turned, (90, 180, 270)):
            compare_places(plain, stream, degrees)

    assert camera.calls(CAPTURE) == 4


def test_picture_is_not_rotated_without_the_capture_service(camera, start_scene_daemon, kind):
    daemon = start_scene_daemon(kind, "one", "two")
    with daemon.client() as first, daemon.client() as second:
        one = first.start(header(analytics=1))
        two = second.start(header(analytics=1, video_channel=2))
        # A person is higher than wide, and a vehicle is not.
        whole = next(found for found in objects_of(one.frames()) if is_inside(found.box))
        left, top, right, bottom = whole.box
        assert (top - bottom > right - left) == (whole.type == "Human")
        compare_places(one, two, 0)


def test_picture_keeps_the_rotation_of_the_request(camera, start_scene_daemon, kind):
    daemon = start_scene_daemon(kind, "one")
    with daemon.client() as first, daemon.client() as second:
        plain = first.start(header(analytics=1))
        camera.rotation(1, 180)
        turned = second.start(header(analytics=1))
        compare_places(plain, turned, 180)


def test_capture_service_without_a_rotation(start_camera, start_scene_daemon, kind):
    start_camera("--rotation", "1=none")
    daemon = start_scene_daemon(kind, "one", "two")
    with daemon.client() as first, daemon.client() as second:
        one = first.start(header(analytics=1))
        two = second.start(header(analytics=1, video_channel=2))
        compare_places(one, two, 0)


@pytest.mark.parametrize("how", ["wrong-number", "wrong-rotation"])
def test_rotation_of_another_type_counts_as_none(start_camera, start_scene_daemon, kind, how):
    camera = start_camera("--rotation", "1=90")
    daemon = start_scene_daemon(kind, "one", "two")
    with daemon.client() as first, daemon.client() as second:
        plain = first.start(header(analytics=1, video_channel=2))
        camera.inject_fault(CAPTURE, how)
        compare_places(plain, second.start(header(analytics=1)), 0)


def test_request_waits_for_a_slow_capture_service(start_camera, start_scene_daemon, kind):
    camera = start_camera("--rotation", "1=90", "--fault", "capture=slow:300")
    daemon = start_scene_daemon(kind, "one", "two")
    with daemon.client() as first, daemon.client() as second:
        turned = first.start(header(analytics=1))
        camera.clear_fault(CAPTURE)
        compare_places(second.start(header(analytics=1, video_channel=2)), turned, 90)


def no_service(camera):
    camera.absent(CAPTURE)


def no_object(camera):
    camera.channels(1)


def inject_fault(*fault):

    def inject(camera):
        camera.inject_fault(CAPTURE, *fault)

    inject.__name__ = fault[0]
    return inject


FAILURES = [no_service, no_object, inject_fault("error"), inject_fault("error", "Grund: 100 % unbekannt"),
            inject_fault("wrong-type"), inject_fault("no-variant"), inject_fault("nested"), inject_fault("empty"),
            inject_fault("reply", "(<@a{su} {'rotation': 90}>,)"),
            inject_fault("reply", "(<{'rotation': <uint32 90>}>, 1)")]


def expect_no_rotation(daemon, kind, **fields):
    """Expects the outcome of a request without a known rotation."""
    if kind is VIDEO:
        daemon.expect_reply(header(**fields))
        assert daemon.log.take() == []
        return
    with daemon.client() as client:
        frames = client.start(header(**fields)).frames()
        found = next(found for found in objects_of(frames) if is_inside(found.centre))
        assert found.centre == pytest.approx(seen_by_radar(found.radar), abs=RADAR_ROUNDING)
    assert daemon.log.take() == [NO_ROTATION]


@pytest.mark.parametrize("fail", FAILURES, ids=lambda fail: fail.__name__)
def test_capture_service_that_fails(start_camera, start_scene_daemon, kind, fail):
    camera = start_camera("--rotation", "1=90", "--rotation", "2=90")
    daemon = start_scene_daemon(kind, "one", "two")
    fail(camera)

    expect_no_rotation(daemon, kind, analytics=1, video_channel=2)


def test_capture_service_that_ends_without_a_reply(start_camera, start_scene_daemon, kind):
    camera = start_camera("--fault", "capture=never")
    daemon = start_scene_daemon(kind, "one")
    with daemon.client() as client:
        client.send_request(header(analytics=1))
        wait_until(lambda: camera.calls(CAPTURE) == 1, "the daemon requests the rotation")
        camera.end()

        assert client.read_reply().decode() == (NOTHING_REQUESTED if kind is VIDEO else "OK")
    assert daemon.log.take() == ([] if kind is VIDEO else [NO_ROTATION])


def test_capture_service_that_recovers(camera, start_scene_daemon, kind):
    daemon = start_scene_daemon(kind, "one")
    camera.inject_fault(CAPTURE, "error")
    expect_no_rotation(daemon, kind, analytics=1)
    camera.clear_fault(CAPTURE)

    assert first_frame(daemon, analytics=1).source == "one"


# The scene provider, which only the video's scenes need

@pytest.fixture
def monitor(bus):
    """Counts the calls of the scene provider, also while it is absent."""
    started = BusMonitor(bus, "com.quon.VideoSceneManager1", "GetNumberOfChannels")
    yield started
    started.close()


def start_and_expect_frames(client):
    """Expects the reply "OK" and a frame."""
    assert client.read_reply() == b"OK"
    assert next(client.open_stream().frames()).source == "one"


def test_provider_is_called_once(camera, start_scene_daemon):
    daemon = start_scene_daemon(VIDEO, "one")

    assert first_frame(daemon, analytics=1).source == "one"
    assert camera.calls(SCENES) == 1


def test_request_waits_for_an_absent_provider(camera, monitor, start_scene_daemon):
    daemon = start_scene_daemon(VIDEO, "one")
    camera.absent(SCENES)
    with daemon.client() as client:
        client.send_request(header(analytics=1))
        wait_until(lambda: monitor.calls >= 2, "the daemon calls the provider twice")
        assert not client.has_input()
        camera.present(SCENES)

        start_and_expect_frames(client)
    assert daemon.log.take() == []


WRONG_REPLIES = [["error"], ["never"], ["slow", "5000"], ["wrong-type"], ["wrong-number"], ["variant"],
                 ["nested"], ["empty"], ["reply", "(-1,)"], ["reply", "(int64 1,)"]]


def test_request_waits_for_a_provider_with_a_wrong_reply(start_bus, start_camera, start_scene_daemon):
    # All concurrently, because each takes seconds.
    cameras, daemons = [], []
    with contextlib.ExitStack() as stack:
        for how in WRONG_REPLIES:
            bus = start_bus()
            cameras.append(start_camera("--fault", f"scenes={':'.join(how)}", on=bus))
            daemons.append(start_scene_daemon(VIDEO, "one", on=bus))
        clients = [stack.enter_context(daemon.client()) for daemon in daemons]
        for client in clients:
            client.send_request(header(analytics=1))
        for camera in cameras:
            wait_until(lambda camera=camera: camera.calls(SCENES) >= 2, "the daemon calls the provider again")
        assert not any(client.has_input() for client in clients)
        for camera in cameras:
            camera.clear_fault(SCENES)

        for client in clients:
            start_and_expect_frames(client)
    for daemon in daemons:
        assert daemon.log.take() == []


def test_provider_that_hangs_is_called_repeatedly(camera, monitor, start_scene_daemon):
    daemon = start_scene_daemon(VIDEO, "one")
    with daemon.client() as client:
        with suspended(camera.process):
            client.send_request(header(analytics=1))
            wait_until(lambda: monitor.calls >= 4, "the daemon calls the provider four times")
            assert not client.has_input()

        start_and_expect_frames(client)
    assert daemon.log.take() == []


def test_waiting_requests_delay_later_ones(camera, start_scene_daemon):
    daemon = start_scene_daemon(VIDEO, "one", "two", plugins=(EVENT_PLUGIN, *SCENE_PLUGINS))
    camera.channels(0)
    with daemon.client() as first, daemon.client() as second, daemon.client() as third:
        # Both threads for requests are in use.
        first.send_request(header(analytics=1))
        second.send_request(header(analytics=2))
        wait_until(lambda: camera.calls(SCENES) >= 2, "the daemon calls the provider for both")
        third.send_request(header(event=1))
        before = camera.calls(SCENES)
        wait_until(lambda: camera.calls(SCENES) >= before + 2, "the daemon calls the provider for both again")
        assert not any(client.has_input() for client in (first, second, third))
        camera.channels(2)

        start_and_expect_frames(first)
        start_and_expect_frames(second)
        assert third.read_reply() == b"OK"
    assert camera.calls(CAPTURE) == 2
    assert daemon.log.take() == []


def test_one_waiting_request_delays_no_others(camera, start_scene_daemon):
    daemon = start_scene_daemon(VIDEO, "one", plugins=(EVENT_PLUGIN, *SCENE_PLUGINS))
    camera.channels(0)
    with daemon.client() as waiting, daemon.client() as other:
        waiting.send_request(header(event=1, analytics=1))
        wait_until(lambda: camera.calls(SCENES) >= 1, "the daemon calls the provider")

        assert other.start(header(event=1)).next_document().kind == EVENTS
        assert not waiting.has_input()


# The time limit of a waiting request after its client hangs up: the median of several tries.
GONE_SECONDS = 0.25
TRIES_TO_GO = 5


def seconds_to_go(daemon, monitor):
    """The time that a request outlives its client, which hangs up while the request waits for the provider."""
    before = wait_until_settled(daemon.descriptors, "no request has descriptors")
    calls = monitor.calls
    with daemon.client() as gone:
        gone.send_request(header(analytics=1))
        wait_until(lambda: monitor.calls > calls, "the daemon calls the provider")
    began = time.monotonic()
    wait_until(lambda: daemon.descriptors() == before, "the request's descriptors are closed")
    return time.monotonic() - began


@pytest.mark.parametrize("hanging", [False, True], ids=["absent", "hanging"])
def test_client_that_hangs_up_ends_the_wait_of_its_request(camera, monitor, start_scene_daemon, hanging):
    daemon = start_scene_daemon(VIDEO, "one")
    first_frame(daemon, analytics=1)
    if not hanging:
        camera.absent(SCENES)
    with suspended(camera.process) if hanging else contextlib.nullcontext():
        assert statistics.median(seconds_to_go(daemon, monitor) for _ in range(TRIES_TO_GO)) <= GONE_SECONDS
    if not hanging:
        camera.present(SCENES)

    assert first_frame(daemon, analytics=1).source == "one"
    assert camera.calls(CAPTURE) == 2
    assert daemon.log.take() == []


def test_waiting_ends_with_the_daemon(camera, start_scene_daemon):
    daemon = start_scene_daemon(VIDEO, "one")
    camera.channels(0)
    with daemon.client() as client:
        client.send_request(header(analytics=1))
        wait_until(lambda: camera.calls(SCENES) >= 1, "the daemon calls the provider")
        daemon.end()

        assert client.read_to_end() == b""


# The PTZ head in the video's scenes


@pytest.mark.parametrize("ptz", [1, 2, 3])
def test_frames_have_the_ptz_status(camera, start_scene_daemon, ptz):
    daemon = start_scene_daemon(VIDEO, "one")
    frame = first_frame(daemon, analytics=1, ptz=ptz)

    # The selection of parts applies to the PTZ metadata alone.
    assert frame.ptz.parts == ["Position", "MoveStatus", "UtcTime"]
    assert frame.ptz.time == frame.time
    assert (frame.ptz.pan_tilt_space, frame.ptz.zoom_space) == (PAN_TILT_SPACES[0], ZOOM_SPACES[0])


@pytest.mark.parametrize("space", [0, 1, 2])
def test_frames_have_the_ptz_status_in_the_requested_spaces(camera, start_scene_daemon, space):
    daemon = start_scene_daemon(VIDEO, "one")
    frame = first_frame(daemon, analytics=1, ptz=1, ptz_pantilt_coordinate_space=space,
                        ptz_zoom_coordinate_space=2 - space)

    assert frame.ptz.pan_tilt_space == PAN_TILT_SPACES[space]
    assert frame.ptz.zoom_space == ZOOM_SPACES[2 - space]


@pytest.mark.parametrize("fields", [{}, {"ptz": 0}, {"ptz_pantilt_coordinate_space": 1}])
def test_frames_have_no_ptz_status_without_a_request_for_it(camera, start_scene_daemon, fields):
    assert first_frame(start_scene_daemon(VIDEO, "one"), analytics=1, **fields).ptz is None


def test_move_capabilities_are_not_known_without_the_ptz_plugin(start_camera, start_scene_daemon):
    zoom_only = 4
    camera = start_camera("--move-capabilities", str(zoom_only))
    frame = first_frame(start_scene_daemon(VIDEO, "one"), analytics=1, ptz=1)

    assert frame.ptz.pan_tilt is not None
    assert camera.calls(PTZ) == 0


def test_move_capabilities_are_the_coordinators(start_camera, start_scene_daemon):
    zoom_only = 4
    start_camera("--move-capabilities", str(zoom_only))
    daemon = start_scene_daemon(VIDEO, "one", plugins=(PTZ_PLUGIN, *SCENE_PLUGINS), coordinator_line=None)
    with daemon.client() as client:
        frame = next(client.start(header(analytics=1, ptz=1)).frames())

    assert (frame.ptz.pan_tilt, frame.ptz.pan_tilt_status) == (None, None)
    assert frame.ptz.zoom is not None and frame.ptz.zoom_status is not None


@pytest.mark.parametrize("plugins", [SCENE_PLUGINS, (EVENT_PLUGIN, PTZ_PLUGIN, *SCENE_PLUGINS)])
def test_head_that_the_channel_does_not_have_is_refused(camera, start_scene_daemon, plugins):
    daemon = start_scene_daemon(VIDEO, "one", "two", plugins=plugins, coordinator_line=None)

    expect_refused(daemon, {"event": 1, "analytics": 1, "ptz": 1, "video_channel": 2},
                   "Could not activate PTZ in the scene2xml element.")


# Refusals


def test_wrong_analytics(camera, start_scene_daemon, kind):
    daemon = start_scene_daemon(kind, "one")

    for key, value, text in WRONG_ANALYTICS:
        expect_refused(daemon, {key: value}, text.format(value))
        expect_refused(daemon, {key: value, "video_channel": "x", "ptz": "x"}, text.format(value))
    assert (camera.calls(SCENES), camera.calls(CAPTURE)) == (0, 0)


def test_wrong_channel(start_scene_daemon, kind):
    daemon = start_scene_daemon(kind, "one")

    for key, value, text in WRONG_CHANNELS:
        expect_refused(daemon, {"analytics": 1, key: value}, text.format(value))


def test_wrong_ptz_or_space(camera, start_scene_daemon):
    daemon = start_scene_daemon(VIDEO, "one")

    for key, value, text in WRONG_PTZ + WRONG_SPACES:
        # Also refused on a disabled channel.
        wrong = {"analytics": 1, "video_channel": 2, key: value}
        expect_refused(daemon, wrong, text.format(value))
        daemon.expect_reply(header(**wrong | {"analytics": 0}))
    assert (camera.calls(SCENES), camera.calls(CAPTURE)) == (0, 0)


WRONG_IN_ORDER = [
    ("event", "2", INVALID_EVENT),
    ("analytics", "3", INVALID_ANALYTICS),
    ("video_channel", "one", INVALID_CHANNEL),
    ("ptz", "x", INVALID_PTZ),
    ("ptz_pantilt_coordinate_space", "a", INVALID_PAN_TILT_SPACE),
    ("ptz_zoom_coordinate_space", "a", INVALID_ZOOM_SPACE),
]

# The factory of PTZ checks before that of scenes.
WRONG_IN_ORDER_WITH_PTZ = [
    ("event", "2", INVALID_EVENT),
    ("ptz", "4", PTZ_OUT_OF_BOUNDS),
    ("video_channel", "one", INVALID_CHANNEL),
    ("ptz_pantilt_coordinate_space", "3", PAN_TILT_SPACE_OUT_OF_BOUNDS),
    ("analytics", "3", INVALID_ANALYTICS),
]


@pytest.mark.parametrize("plugins, order", [((), WRONG_IN_ORDER), ((PTZ_PLUGIN,), WRONG_IN_ORDER_WITH_PTZ)],
                         ids=["without PTZ", "with PTZ"])
def test_first_of_several_wrong_values_is_reported(start_scene_daemon, plugins, order):
    daemon = start_scene_daemon(VIDEO, "one", plugins=(EVENT_PLUGIN, RADAR_PLUGIN, *SCENE_PLUGINS, *plugins))

    for first, (_, value, text) in enumerate(order):
        wrong = {key: value for key, value, _ in order[first:]}
        if first > order.index(("analytics", "3", INVALID_ANALYTICS)):
            wrong["analytics"] = 1
        # The order of the header lines has no effect.
        expect_refused(daemon, dict(reversed(wrong.items())), text.format(value))


def test_elements_that_are_removed_after_the_start(camera, installation, start_scene_daemon, kind):
    folder, environment = installation.new_plugin_folder(kind.plugins)
    # The first start registers the plug-in, which the second one need not load.
    start_scene_daemon(kind, "one", environment=environment).end()
    daemon = start_scene_daemon(kind, "one", environment=environment)
    (folder / installation.plugins[kind.plugin].name).unlink()

    expect_refused(daemon, {"analytics": 1}, f"Could not construct {kind.source}.")
