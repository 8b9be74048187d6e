# SPDX-License-Identifier: MIT
"""Requests for the metadata of external producers: the selected producers, the sources of their frames, and streams
without any."""

import datetime
import itertools

import pytest

from client import header
from daemon import VIDEO_TRACKER, WARNING, producers_enabled
from documents import EVENTS
from external import (ANALYTICS, COUNTER, DETECTOR, DETECTOR_ENABLED, EXTERNAL_PLUGINS, GATE, YARD,
                      expect_converter_warning, expect_frames, numbered, wait_until_listed)
from installation import ALL_PLUGINS, EVENT_PLUGIN, JSON_PLUGIN, SCENE_PLUGIN, documented_limit
from refusals import WRONG_ANALYTICS, WRONG_CHANNELS, expect_refused
from simcamera import CAPTURE, SCENES

WITH_POLYGONS = header(analytics=2)

NO_CONVERTER = "Could not construct json2xml."

POLYGON = ('{"Objects":[{"Id":1,"BoundingBox":{"Left":-0.5,"Top":0.5,"Right":0.5,"Bottom":-0.5},'
           '"Polygon":[[-0.5,0.5],[0.5,0.5],[0,-0.5]]}]}')


def source_of(daemon, producer, number, **fields):
    """The source of the producer's frames in the stream of a new client."""
    streams = len(producer.streams)
    with daemon.client() as client:
        stream = client.start(header(**{"analytics": 1} | fields))
        producer.wait_for_stream(streams + 1).send(numbered(number))
        for frame in stream.frames():
            if frame.deleted == [str(number)]:
                return frame.source


# The beginning of a stream


def test_first_document_only_opens_the_stream(receiver, start_listing_daemon):
    receiver.add(DETECTOR)
    daemon = start_listing_daemon()
    requested = datetime.datetime.now(datetime.timezone.utc)
    with daemon.client() as client:
        document = client.start(ANALYTICS).next_document()

    (frame,) = document.frames
    assert (frame.source, frame.objects, frame.deleted) == (None, {}, [])
    assert frame.time >= requested - datetime.timedelta(seconds=1)
    daemon.wait_until_idle()


def test_every_frame_has_the_configuration_name_of_its_producer(receiver, start_listing_daemon):
    detector, counter = receiver.add(DETECTOR), receiver.add(COUNTER)
    daemon = start_listing_daemon()
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        for number in range(5):
            detector.wait_for_stream().send(numbered(number))
            expect_frames(stream, (GATE, number))
            counter.wait_for_stream().send(numbered(number, -number))
            expect_frames(stream, (YARD, number, -number))

    daemon.expect_idle_and_no_log()


def test_message_of_several_items_is_one_document(receiver, start_listing_daemon):
    detector = receiver.add(DETECTOR)
    with start_listing_daemon().client() as client:
        stream = client.start_reading(ANALYTICS)
        detector.wait_for_stream().send(f"{numbered(1)},{numbered(2)} , {numbered(3)}")
        frames = stream.next_document().frames

    assert [(frame.source, frame.deleted) for frame in frames] == [(GATE, ["1"]), (GATE, ["2"]), (GATE, ["3"])]


@pytest.mark.parametrize("fields, polygons", [(ANALYTICS, False), (WITH_POLYGONS, True)])
def test_polygons_are_sent_on_request(receiver, start_listing_daemon, fields, polygons):
    detector = receiver.add(DETECTOR)
    with start_listing_daemon().client() as client:
        stream = client.start_reading(fields)
        detector.wait_for_stream().send(POLYGON)
        (frame,) = stream.next_document().frames

    assert frame.objects["1"].box == (-0.5, 0.5, 0.5, -0.5)
    assert frame.objects["1"].polygon == ([(-0.5, 0.5), (0.5, 0.5), (0, -0.5)] if polygons else None)


def test_sync_point_does_not_change_the_stream(receiver, start_listing_daemon):
    detector = receiver.add(DETECTOR)
    with start_listing_daemon().client() as client:
        stream = client.start(ANALYTICS)
        for number in range(3):
            client.sync()
            detector.wait_for_stream().send(numbered(number))
            expect_frames(stream, (GATE, number))


# Channels and names


def test_default_channel_is_the_first(receiver, start_listing_daemon):
    detector = receiver.add(DETECTOR)
    daemon = start_listing_daemon(producers=producers_enabled({(DETECTOR, 1): "one", (DETECTOR, 2): "two"}))

    assert source_of(daemon, detector, 1) == "one"
    assert source_of(daemon, detector, 2, video_channel=1) == "one"
    assert source_of(daemon, detector, 3, video_channel="002") == "two"
    assert [stream.channel for stream in detector.streams] == [1, 1, 2]


@pytest.mark.parametrize("fields", [{"analytics": 1, "video_channel": 2}, {"analytics": 1, "video_channel": 0},
                                    {"analytics": 2, "video_channel": 2147483646}, {"analytics": 0}, {}])
def test_disabled_channel_yields_no_metadata(receiver, start_listing_daemon, fields):
    detector = receiver.add(DETECTOR)
    daemon = start_listing_daemon()

    daemon.expect_reply(header(**fields))
    daemon.wait_until_idle()
    assert detector.streams == []


def test_unsupported_channel_yields_no_metadata(receiver, start_listing_daemon):
    detector = receiver.add(DETECTOR, channels=(2,))
    daemon = start_listing_daemon(producers=producers_enabled({(DETECTOR, 1): "one", (DETECTOR, 2): "two"}))

    daemon.expect_reply(header(analytics=1))
    assert source_of(daemon, detector, 1, video_channel=2) == "two"


def test_disabled_channel_does_not_affect_events(receiver, start_listing_daemon):
    receiver.add(DETECTOR)
    daemon = start_listing_daemon(plugins=(EVENT_PLUGIN, *EXTERNAL_PLUGINS), speed=100)
    with daemon.client() as client:
        documents = client.start(header(event=1, analytics=1, video_channel=2)).documents()

        assert {document.kind for document in itertools.islice(documents, 10)} == {EVENTS}


def test_missing_producer_yields_no_metadata(start_daemon):
    start_daemon(plugins=EXTERNAL_PLUGINS, producers=DETECTOR_ENABLED).expect_reply(header(analytics=1))


@pytest.mark.parametrize("name", [
    "Größe ☂ 長い 名前",
    "\U0001f4f7",
    "<a href='x'>&amp;</a>]]>",
    "%s%n{};[group]=",
    pytest.param("x" * documented_limit("producerconfig.h", "PRODUCER_CONFIG_MAX_NAME_BYTES"), id="longest"),
])
def test_source_is_the_configuration_name(receiver, start_listing_daemon, name):
    detector = receiver.add(DETECTOR)
    daemon = start_listing_daemon(producers=producers_enabled({(DETECTOR, 1): name}))

    assert source_of(daemon, detector, 1) == name


# The name is not escaped in the frame; docs/compatibility.md, "unescaped names".
@pytest.mark.parametrize("name", [
    'the "gate"',
    "back\\slash",
    '","Data":{"Item":[{"Deleted":[666]}]},"Source":"another',
])
def test_name_that_makes_frames_malformed_affects_its_producer_alone(receiver, start_listing_daemon, name):
    detector, counter = receiver.add(DETECTOR), receiver.add(COUNTER)
    daemon = start_listing_daemon(producers=producers_enabled({(DETECTOR, 1): name, (COUNTER, 1): YARD}))
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        for number in range(10):
            detector.wait_for_stream().send(numbered(number))
            counter.wait_for_stream().send(numbered(number))
            expect_frames(stream, (YARD, number))

    daemon.wait_until_idle()
    expect_converter_warning(daemon)


# Enabling and disabling on the bus


def test_enabled_renamed_and_disabled_while_clients_stream(receiver, control, start_listing_daemon):
    detector = receiver.add(DETECTOR)
    daemon = start_listing_daemon(producers="")
    daemon.expect_reply(header(analytics=1))

    control.set_channels(DETECTOR, (1, True, "first"))
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        first = detector.wait_for_stream()
        first.send(numbered(1))
        expect_frames(stream, ("first", 1))

        control.set_channels(DETECTOR, (1, True, "second"))
        assert source_of(daemon, detector, 2) == "second"
        control.set_channels(DETECTOR, (1, False, ""))
        daemon.expect_reply(header(analytics=1))

        # A running stream keeps its producers and names.
        first.send(numbered(3))
        expect_frames(stream, ("first", 3))

    daemon.wait_until_idle()


def test_newly_enabled_producer_does_not_join_running_streams(receiver, control, start_listing_daemon):
    detector, counter = receiver.add(DETECTOR), receiver.add(COUNTER)
    daemon = start_listing_daemon(producers=DETECTOR_ENABLED)
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        control.set_channels(COUNTER, (1, True, YARD))
        assert source_of(daemon, counter, 1) == YARD

        detector.wait_for_stream().send(numbered(2))
        expect_frames(stream, (GATE, 2))
        assert len(counter.streams) == 1


# Built-in producers


def test_built_in_producer_has_no_external_stream(start_camera, receiver, control, start_daemon):
    start_camera("--services", f"{CAPTURE},{SCENES}")
    detector = receiver.add(DETECTOR)
    daemon = start_daemon(plugins=(SCENE_PLUGIN, *EXTERNAL_PLUGINS), world_seconds=4, speed=4,
                          producers=producers_enabled({(VIDEO_TRACKER, 1): "video"}))
    wait_until_listed(control, VIDEO_TRACKER, DETECTOR)
    with daemon.client() as client:
        documents = itertools.islice(client.start(ANALYTICS).documents(), 10)

        # Also no first frame of external producers, which has no source.
        assert [[frame.source for frame in document.frames] for document in documents] == [["video"]] * 10
    assert detector.streams == []


# Without the converter


@pytest.mark.parametrize("fields", [{"analytics": 1}, {"analytics": 2, "video_channel": 2},
                                    {"event": 1, "ptz": 1, "analytics": 1}])
def test_without_the_converter_there_are_no_analytics(start_daemon, start_camera, fields):
    start_camera()
    daemon = start_daemon(plugins=[name for name in ALL_PLUGINS if name != JSON_PLUGIN], coordinator_line=None,
                          producers=producers_enabled({(VIDEO_TRACKER, 1): "video"}))

    expect_refused(daemon, fields, NO_CONVERTER)
    with daemon.client() as client:
        assert client.start(header(event=1)).next_document().kind == EVENTS


def test_without_the_converter_no_producer_is_listed(receiver, control, start_daemon):
    daemon = start_daemon(plugins=())
    receiver.add(DETECTOR)

    assert daemon.log.take(1) == [(WARNING, f"failed to convert sample frame from: {DETECTOR}")]
    assert control.objects() == set()


# Wrong values


@pytest.mark.parametrize("key, value, text", WRONG_ANALYTICS + WRONG_CHANNELS)
def test_wrong_values_are_refused(receiver, start_listing_daemon, key, value, text):
    detector = receiver.add(DETECTOR)
    daemon = start_listing_daemon()

    expect_refused(daemon, {"analytics": 1} | {key: value}, text.format(value))
    assert detector.streams == []


def test_wrong_channel_is_ignored_without_analytics(receiver, start_listing_daemon):
    receiver.add(DETECTOR)
    daemon = start_listing_daemon()

    daemon.expect_reply(header(analytics=0, video_channel="x"))
    daemon.expect_reply(header(video_channel="x"))
