# SPDX-License-Identifier: MIT
"""External producers: their messages, and the frames of these that clients receive."""

import datetime
import itertools
import json
import re

from client import header
from daemon import WARNING, producers_enabled
from installation import DOCUMENT_PLUGIN, JSON_PLUGIN
from controlclient import path_of
from waiting import wait_until

EXTERNAL_PLUGINS = (JSON_PLUGIN, DOCUMENT_PLUGIN)

# Analytics without polygons.
ANALYTICS = header(analytics=1)

# Events show that a stream continues without messages of producers.
ANALYTICS_AND_EVENTS = header(analytics=1, event=1)

DETECTOR, COUNTER = "Detector", "Counter"

# Their configuration names on the first channel.
GATE, YARD = "the gate's", "the yard's"

# Producers' files with one of them, and with both enabled.
DETECTOR_ENABLED = producers_enabled({(DETECTOR, 1): GATE})
BOTH_ENABLED = producers_enabled({(DETECTOR, 1): GATE, (COUNTER, 1): YARD})


# The producer of a document's frame, and the numbers in it, for tests with too many documents to parse.
SOURCE = re.compile(rb'<tt:Frame [^>]*Source="([^"]*)"')
NUMBER = re.compile(rb'<tt:Delete ObjectId="(\d+)"')

CONVERTER_WARNING = re.compile(r"Warning from json2xml in metadata connection manager pipeline: "
                               r"A (frame of a producer|part of a producer's frame) is malformed and left out\. \(.+?\)"
                               r"( \(\d+ more since the last such line\))?")


def numbered(*numbers):
    """An item that carries numbers to its receiver, as ids of deleted objects."""
    return json.dumps({"Deleted": numbers}, separators=(",", ":"))


def expect_converter_warning(daemon):
    """Expects the converter's warning about malformed frames: one line at once, and counts of the others at the end of
    an interval."""
    lines = daemon.log.take(1)
    matches = [CONVERTER_WARNING.fullmatch(text) for _, text in lines]
    assert all(matches)
    assert {priority for priority, _ in lines} == {WARNING}
    assert [match for match in matches if match[2] is None] == matches[:1]


def wait_until_listed(control, *names):
    """Waits until the daemon has exactly these external producers on the bus."""
    paths = {path_of(name) for name in names}
    wait_until(lambda: control.objects() == paths, f"{names} are listed")


WRONG_SIGNAL = (WARNING, "left out a signal of the metadata receiver: it has the wrong type")


def not_converted(name):
    return (WARNING, f"failed to convert sample frame from: {name}")


def left_out(producer, reason):
    """The warning about an object that is no valid producer."""
    return (WARNING, f"left out producer object {producer.path}: {reason}")


def producer_frames(stream):
    """Yields (source, numbers) of each frame of a producer, without the first frame of the stream."""
    for frame in stream.frames():
        if frame.source is not None:
            yield frame.source, [int(number) for number in frame.deleted]


def expect_frames(stream, *expected):
    """Expects these next frames of producers, each a source and its numbers."""
    frames = list(itertools.islice(producer_frames(stream), len(expected)))
    assert frames == [(source, numbers) for source, *numbers in expected]


def read_numbers(stream, source, count):
    """The next `count` numbers of one source."""
    numbers = itertools.chain.from_iterable(found for name, found in producer_frames(stream) if name == source)
    return list(itertools.islice(numbers, count))


def expect_alive(client, stream):
    """Expects that a stream with events continues."""
    requested = datetime.datetime.now(datetime.timezone.utc)
    client.sync()
    assert any(event.time >= requested for event in stream.events())
