# SPDX-License-Identifier: MIT
"""Every kind of metadata in one stream: events, PTZ status, both kinds of scenes and the detections of an external
producer, all of one simulated world."""

import concurrent.futures
import itertools
import re
import threading

import pytest

from client import header, stuck_client
from daemon import ERROR, NOT_PRODUCED, RADAR_TRACKER, SPARE_THREADS, VIDEO_TRACKER, producers_enabled
from documents import EVENTS, INITIALIZED, LINE_CROSSED, PTZ, SCENE, now
from installation import (ALL_PLUGINS, DOCUMENT_PLUGIN, EVENT_PLUGIN, JSON_PLUGIN, PTZ_PLUGIN, RADAR_PLUGIN,
                          SCENE_PLUGIN)
from scenes import BUSY_SECONDS, ROUNDING, Tracks, interpolate
from controlclient import path_of
from waiting import BOUND_SECONDS, wait_until, wait_until_settled

# The simulated camera's external producer of persons.
PERSONS_PRODUCER = "PersonDetector"

# The configuration names of the trackers and the external producer, which are the sources of their frames.
VIDEO, RADAR, PERSONS = "the video's", "the radar's", "the persons'"

EVERY_KIND = {EVENTS, PTZ, VIDEO, RADAR, PERSONS}

EVERYTHING = {"event": 1, "ptz": 1, "analytics": 2}

# All producers are enabled on one channel, each kind of scenes alone on another one.
ALL_CHANNEL, VIDEO_CHANNEL, RADAR_CHANNEL = 1, 2, 3
PRODUCERS = producers_enabled({
    (VIDEO_TRACKER, ALL_CHANNEL): VIDEO,
    (RADAR_TRACKER, ALL_CHANNEL): RADAR,
    (PERSONS_PRODUCER, ALL_CHANNEL): PERSONS,
    (VIDEO_TRACKER, VIDEO_CHANNEL): VIDEO,
    (RADAR_TRACKER, RADAR_CHANNEL): RADAR,
})


@pytest.fixture
def start_full_daemon(start_camera, start_daemon, control):
    """Starts a camera with all services and channels, and a daemon. Waits until the external producer is listed, if the
    daemon has the converter."""

    def start(**arguments):
        start_camera("--channels", "3", producers=PERSONS_PRODUCER)
        defaults = {"plugins": ALL_PLUGINS, "coordinator_line": None, "producers": PRODUCERS, "speed": 4,
                    "world_seconds": BUSY_SECONDS, "ptz_channels": (1, 2, 3)}
        daemon = start_daemon(**defaults | arguments)
        if JSON_PLUGIN in daemon.plugins:
            wait_until(lambda: path_of(PERSONS_PRODUCER) in control.objects(), "the external producer is listed")
        return daemon

    return start


def kind_of(document):
    """The kind of a document; None for the first frame of external producers."""
    if document.kind != SCENE:
        return document.kind
    (frame,) = document.frames
    return frame.source


def read_until_every(kinds, documents, count=10):
    """Reads at least `count` documents, until all of these kinds have arrived; returns the kinds that have arrived."""
    found = set()
    for read, document in enumerate(documents, 1):
        found.add(kind_of(document))
        found.discard(None)
        if read >= count and kinds <= found:
            return found


def expect_kinds(daemon, kinds):
    """Expects these kinds in the stream of a request for all kinds."""
    with daemon.client() as client:
        assert read_until_every(kinds, client.start(header(**EVERYTHING)).documents()) == kinds


def test_one_request_gets_every_kind(start_full_daemon):
    expect_kinds(start_full_daemon(), EVERY_KIND)


# The order of the sources

# GStreamer's names of the sources.
SOURCES_IN_ORDER = ["tessardsimeventsrc0", "tessardsimptzsrc0", "scenesrcfactorybin", "radarscenesrcfactorybin",
                    "externalsrcfactorybin"]

# GStreamer's trace of the link between a source and its pad of the document element.
LINKED = re.compile(r"linked (\w+):src and tessardmetadatastreamdoc0:sink_(\d+), successful$",
                    re.MULTILINE)


def test_sources_are_in_the_order_of_registration(start_full_daemon, workspace):
    trace = workspace.folder() / "trace"
    daemon = start_full_daemon(environment={"GST_DEBUG": "GST_PADS:4", "GST_DEBUG_FILE": str(trace),
                                            "GST_DEBUG_NO_COLOR": "1"})
    with daemon.client() as client:
        # The order of the header lines has no effect.
        client.start(header(**dict(reversed(EVERYTHING.items())))).next_document()
        linked = LINKED.findall(trace.read_text(encoding="utf-8"))

    assert linked == [(source, str(pad)) for pad, source in enumerate(SOURCES_IN_ORDER)]


# One world


def reported_crossings(document):
    return [event for event in document.events if event.topic == LINE_CROSSED]


def are_on_one_line(points):
    """Whether all points are on the line through the lowest and the highest one."""
    low, high = min(points, key=lambda point: point[1]), max(points, key=lambda point: point[1])
    return all(interpolate((low[1], low), (high[1], high), point[1])[0] == pytest.approx(point[0], abs=0.01)
               for point in points)


def test_crossings_are_those_of_the_objects_in_the_scenes(start_full_daemon):
    daemon = start_full_daemon()
    tracks = {VIDEO: Tracks(), RADAR: Tracks()}
    reported, places = [], {}
    with daemon.client() as client:
        for document in client.start(header(**EVERYTHING)).documents():
            reported += reported_crossings(document)
            for frame in document.frames:
                if frame.source in tracks:
                    tracks[frame.source].add(frame)
            for event in reported:
                name = event.data["ObjectId"]
                seen = [track.at(name, event.time) for track in tracks.values()]
                if None not in seen:
                    assert seen[0] == pytest.approx(seen[1], abs=ROUNDING)
                    assert tracks[VIDEO].direction(name) == event.data["Direction"]
                    places[name] = seen[0]
            if len(places) >= 4:
                break

    # All objects crossed the same line.
    assert are_on_one_line(places.values())
    assert len({event.data["ObjectId"] for event in reported}) == len(reported)


def test_objects_look_alike_to_video_and_radar(start_full_daemon):
    objects = {VIDEO: {}, RADAR: {}}
    with start_full_daemon().client() as client:
        for frame in client.start(header(**EVERYTHING)).frames():
            if frame.source not in objects:
                continue
            objects[frame.source] |= {name: found.type for name, found in frame.objects.items()}
            known = set(objects[VIDEO]) & set(objects[RADAR])
            if len(known) >= 3:
                break

    assert all(objects[VIDEO][name] == objects[RADAR][name] for name in known)


# Seconds of the simulation's cycle, shortly before the head turns and then zooms.
BEFORE_MOVES = 4


def position(status):
    return (*status.pan_tilt, status.zoom)


def expect_between(before, within, after):
    """Expects that a frame's PTZ status is between two statuses of the PTZ metadata. Returns whether the head moved."""
    if (before.pan_tilt_status, before.zoom_status) != (after.pan_tilt_status, after.zoom_status):
        return False
    expected = interpolate((before.time, position(before)), (after.time, position(after)), within.time)
    assert position(within) == pytest.approx(expected, abs=ROUNDING)
    assert (within.pan_tilt_status, within.zoom_status) == (before.pan_tilt_status, before.zoom_status)
    return not before.is_idle


def test_frames_have_the_ptz_status_of_the_ptz_metadata(start_full_daemon):
    daemon = start_full_daemon(speed=3, world_seconds=BEFORE_MOVES)
    statuses, told = [], []
    while_moving = while_resting = 0
    with daemon.client() as client:
        for document in client.start(header(**EVERYTHING)).documents():
            told += [frame.ptz for frame in document.frames if frame.ptz is not None]
            for status in document.ptz:
                statuses.append(status)
                for before, after in itertools.pairwise(statuses[-2:]):
                    between = [status for status in told if before.time <= status.time <= after.time]
                    moved = [expect_between(before, status, after) for status in between]
                    while_moving += sum(moved)
                    while_resting += len(moved) - sum(moved)
            if while_moving >= 3 and while_resting >= 3:
                break


# Sync points


def shows_state_since(document, requested):
    """Whether the document shows the state at this time or later."""
    times = [event.time for event in document.events if event.operation == INITIALIZED]
    times += [shown.time for shown in (*document.ptz, *document.frames)]
    return any(time >= requested for time in times)


def test_sync_point_makes_every_kind_of_the_camera_show_its_state(start_full_daemon):
    with start_full_daemon().client() as client:
        stream = client.start(header(**EVERYTHING))
        read_until_every(EVERY_KIND, stream.documents())
        for _ in range(3):
            requested = now()
            client.sync()
            # External producers get no sync points.
            read_until_every(EVERY_KIND - {PERSONS}, (document for document in stream.documents()
                                                      if shows_state_since(document, requested)), count=0)


# What is missing


@pytest.mark.parametrize("plugin, kind", [(EVENT_PLUGIN, EVENTS), (PTZ_PLUGIN, PTZ), (SCENE_PLUGIN, VIDEO),
                                          (RADAR_PLUGIN, RADAR)])
def test_camera_without_one_kind_has_the_others(start_full_daemon, plugin, kind):
    daemon = start_full_daemon(plugins=[name for name in ALL_PLUGINS if name != plugin])

    expect_kinds(daemon, EVERY_KIND - {kind})


def test_camera_that_cannot_make_documents_has_nothing(start_full_daemon):
    daemon = start_full_daemon(plugins=[name for name in ALL_PLUGINS if name != DOCUMENT_PLUGIN])
    daemon.expect_reply(header(**EVERYTHING), NOT_PRODUCED)

    assert daemon.log.take() == [(ERROR, "Could not create onvifxmlmetadatastreamdoc.")]


# Crowds

SCENE_FIELDS = [
    ({}, set()),
    ({"analytics": 1, "video_channel": ALL_CHANNEL}, {VIDEO, RADAR, PERSONS}),
    ({"analytics": 2, "video_channel": VIDEO_CHANNEL}, {VIDEO}),
    ({"analytics": 1, "video_channel": RADAR_CHANNEL}, {RADAR}),
]

# Every combination of kinds: the header fields of a request and the kinds in its stream.
MIXES = [(events | head | scenes, kinds | ({EVENTS} if events else set()) | ({PTZ} if head else set()))
         for events in ({}, {"event": 1}) for head in ({}, {"ptz": 1}) for scenes, kinds in SCENE_FIELDS][1:]

CLIENTS = 20
ROUNDS = 2

# These threads use memory, and allocators, above all AddressSanitizer's, do not release all memory at once.
RESIDENT_GROWTH = 1.5


def receive_mixes(daemon):
    """Runs clients with every combination, all at the same time."""
    together = threading.Barrier(CLIENTS)

    def receive(mix):
        fields, kinds = mix
        with daemon.client() as client:
            stream = client.start(header(**fields))
            together.wait(BOUND_SECONDS)
            assert read_until_every(kinds, stream.documents(), count=3) == kinds

    with concurrent.futures.ThreadPoolExecutor(CLIENTS) as clients:
        list(clients.map(receive, itertools.islice(itertools.cycle(MIXES), CLIENTS)))


def test_clients_with_every_mix_leave_nothing_behind(start_full_daemon):
    daemon = start_full_daemon(sanitizer_options="quarantine_size_mb=1", speed=10)
    threads = daemon.threads()
    receive_mixes(daemon)
    descriptors = wait_until_settled(daemon.descriptors, "the first clients' descriptors are closed")
    resident = daemon.resident_bytes()

    for _ in range(ROUNDS):
        receive_mixes(daemon)

    wait_until(lambda: daemon.descriptors() == descriptors, "the clients' descriptors are closed")
    wait_until(lambda: daemon.threads() <= threads + SPARE_THREADS, "their threads have ended")
    wait_until(lambda: daemon.resident_bytes() <= resident * RESIDENT_GROWTH, "their memory is free")
    assert daemon.log.take() == []


def test_client_that_does_not_read_delays_no_others(start_full_daemon):
    daemon = start_full_daemon(speed=100)
    with stuck_client(daemon, header(**EVERYTHING)):
        expect_kinds(daemon, EVERY_KIND)
        expect_kinds(daemon, EVERY_KIND)

    assert daemon.log.take() == []
