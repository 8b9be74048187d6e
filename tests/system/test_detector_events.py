# SPDX-License-Identifier: MIT
"""The events of the example detector: from its video through tessard-receiver and onvifeventsrc to a client."""

import itertools
import os
import statistics
import subprocess
import threading
import time

import numpy
import pytest

from client import header
from eventapplication import CROSSED, MOTION
from installation import DOCUMENT_PLUGIN, OWN_EVENT_PLUGIN, TREE
from libraryprogram import library_environment
from waiting import BOUND_SECONDS

DETECTOR = TREE / "examples/detector.py"

RATE = 30  # frames a second
# The ball crosses the line four times in the shortest time.
SECONDS = max(14, int(os.environ.get("TESSARD_BOXES_SECONDS", "0")))
WIDTH, HEIGHT = 160, 120
VIDEO = (f"videotestsrc is-live={{live}} num-buffers={RATE * SECONDS} pattern=ball ! "
         f"video/x-raw,width={WIDTH},height={HEIGHT},framerate={RATE}/1")
LINE = -0.25

MAX_MEDIAN_SECONDS = 0.2


def true_crossings():
    """How often the middle of the ball, the only bright pixels, changes the side of the line."""
    raw = subprocess.run(["gst-launch-1.0", "-q", *VIDEO.format(live="false").split(), "!", "videoconvert", "!",
                          "video/x-raw,format=GRAY8", "!", "fdsink"],
                         capture_output=True, timeout=4 * BOUND_SECONDS, check=True).stdout
    sides = []
    for picture in numpy.frombuffer(raw, numpy.uint8).reshape(-1, HEIGHT, WIDTH):
        columns = numpy.nonzero(picture > 127)[1]
        sides.append((columns.min() + columns.max() + 1) / WIDTH - 1 > LINE)
    return sum(side != before for before, side in zip(sides, sides[1:]))


@pytest.fixture
def detector(introspection, installation, bus, receiver_process):
    process = subprocess.Popen([DETECTOR, "--events", *VIDEO.format(live="true").split()], stdout=subprocess.DEVNULL,
                               stderr=subprocess.PIPE, text=True,
                               env=library_environment(installation, bus) | {"PATH": os.environ["PATH"]})
    yield process
    process.kill()
    process.communicate(timeout=BOUND_SECONDS)


@pytest.fixture
def end_of_events(detector, start_emitter):
    """Emits an event of another source when the detector has ended, and all its events are emitted."""
    emitter = start_emitter().declare()

    def wait():
        detector.wait()
        emitter.alarm("2", True)

    thread = threading.Thread(target=wait)
    thread.start()
    yield ("2", "true")
    detector.kill()
    thread.join()


def test_detector_reports_each_crossing(start_daemon, detector, end_of_events):
    crossings, states, delays = 0, [], []
    with start_daemon(plugins=(OWN_EVENT_PLUGIN, DOCUMENT_PLUGIN)).client() as client:
        documents = client.start(header(event=1)).documents(SECONDS + BOUND_SECONDS)
        for event in itertools.chain.from_iterable(document.events for document in documents):
            if event.topic == CROSSED:
                crossings += 1
                delays.append(time.time() - event.time.timestamp())
            elif (*event.source.values(), *event.data.values()) == end_of_events:
                break
            else:
                states.append((event.topic, event.operation, *event.data.values()))
    assert (detector.returncode, detector.stderr.read()) == (0, "")
    assert crossings == true_crossings() >= 4
    # Nothing moves in the first frame, and the ball never leaves the picture. The client can come after the first one.
    assert states in ([(MOTION, "Initialized", "true")],
                      [(MOTION, "Initialized", "false"), (MOTION, "Changed", "true")])
    assert statistics.median(delays) < MAX_MEDIAN_SECONDS
