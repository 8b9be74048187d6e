"""External producers: what they say, and how it comes to a client."""

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

# Without polygons.
ANALYTICS = header(analytics=1)

# For a stream that shows that it goes on though no producer tells anything.
ANALYTICS_AND_EVENTS = header(analytics=1, event=1)

DETECTOR, COUNTER = "Detector", "Counter"

# Under which names they are enabled on the first channel.
GATE, YARD = "the gate's", "the yard's"

# The producers' file that has one of them enabled.
DETECTOR_ENABLED = producers_enabled({(DETECTOR, 1): GATE})
BOTH_ENABLED = producers_enabled({(DETECTOR, 1): GATE, (COUNTER, 1): YARD})


# Whose frame a document has, and the numbers in it, for those who expect so many that parsing takes too long.
SOURCE = re.compile(rb'<tt:Frame [^>]*Source="([^"]*)"')
NUMBER = re.compile(rb'<tt:Delete ObjectId="(\d+)"')

CONVERTER_WARNING = re.compile(r"Warning from json2xml in metadata connection manager pipeline: "
                               r"A (frame of a producer|part of a producer's frame) is malformed and left out\. \(.+?\)"
                               r"( \(\d+ more since the last such line\))?")


def numbered(*numbers):
    """An item that carries numbers to its receiver: as the ids of objects that have left."""
    return json.dumps({"Deleted": numbers}, separators=(",", ":"))


def expect_converter_warning(daemon):
    """The converter warns of malformed frames: in one line, and with the count of the others in another one at the end of
    each interval."""
    lines = daemon.log.take(1)
    matches = [CONVERTER_WARNING.fullmatch(text) for _, text in lines]
    assert all(matches)
    assert {priority for priority, _ in lines} == {WARNING}
    assert [match for match in matches if match[2] is None] == matches[:1]


def wait_until_listed(control, *names):
    """Waits until the daemon has these producers and no other external ones on the bus."""
    paths = {path_of(name) for name in names}
    wait_until(lambda: control.objects() == paths, f"{names} are listed")


WRONG_SIGNAL = (WARNING, "left out a signal of the metadata receiver: it has the wrong type")


def not_converted(name):
    return (WARNING, f"failed to convert sample frame from: {name}")


def left_out(producer, reason):
    """What the daemon says of an object that is not good for a producer."""
    return (WARNING, f"left out producer object {producer.path}: {reason}")


def told(stream):
    """What producers tell, as it comes: (source, numbers) of each frame, without what only opens the stream."""
    for frame in stream.frames():
        if frame.source is not None:
            yield frame.source, [int(number) for number in frame.deleted]


def expect_told(stream, *expected):
    """Expects the next frames of producers to be these, each a source and its numbers."""
    assert list(itertools.islice(told(stream), len(expected))) == [(source, numbers) for source, *numbers in expected]


def read_numbers(stream, source, count):
    """The next numbers of one source, until there are so many."""
    numbers = itertools.chain.from_iterable(found for found_source, found in told(stream) if found_source == source)
    return list(itertools.islice(numbers, count))


def expect_alive(client, stream):
    """Expects of a stream that has events too that it goes on."""
    asked = datetime.datetime.now(datetime.timezone.utc)
    client.sync()
    assert any(event.time >= asked for event in stream.events())
