# SPDX-License-Identifier: MIT
"""The element tessardproducer in pipelines, with the receiver and the daemon. The element "boxes" of the tests' own
plug-in takes the place of a detector."""

import contextlib
import datetime
import itertools
import os
import signal
import statistics
import subprocess

import pytest

from documents import Document, now
from external import ANALYTICS, DETECTOR, DETECTOR_ENABLED, EXTERNAL_PLUGINS, GATE, wait_until_listed
from promptness import SLOWNESS
from waiting import BOUND_SECONDS

RATE = 60  # frames a second
FRAME_SECONDS = 1 / RATE
BOXES = 50

# `./check --all` sets 60.
SECONDS = int(os.environ.get("TESSARD_BOXES_SECONDS", "5"))

# The size of the picture: coordinates have 1/1000 of it in four decimals.
WIDTH, HEIGHT = 1000, 200
TOLERANCE = 2 / 1000

# All boxes are at their places again after so many frames; the first box moves by one pixel in each.
PLACES = 900

# docs/elements.md names both.
FIRST_OWN_ID = 1000000000
PATIENCE_FRAMES = 15

VIDEO = f"videotestsrc is-live=true pattern=black ! video/x-raw,format=GRAY8,width={WIDTH},height={HEIGHT}"


def box_of(frame, number):
    """Where the element "boxes" attaches a box, in ONVIF's coordinates: (left, top, right, bottom)."""
    left, top = (frame + 17 * number) % PLACES, (frame + 3 * number) % 180
    right, bottom = left + 50 + number % 50, top + 20
    return 2 * left / WIDTH - 1, 1 - 2 * top / HEIGHT, 2 * right / WIDTH - 1, 1 - 2 * bottom / HEIGHT


def number_of(box):
    """The number of a frame, modulo PLACES, from the place of its first box."""
    return round((box[0] + 1) / 2 * WIDTH)


def expect_place(box, expected):
    assert all(abs(side - other) <= TOLERANCE for side, other in zip(box, expected, strict=True)), (box, expected)


class Pipeline:
    """A pipeline of gst-launch-1.0."""

    def __init__(self, installation, bus, description):
        self.process = subprocess.Popen(["gst-launch-1.0", "--eos-on-shutdown", *description.split()],
                                        env=installation.pipeline_environment(bus), stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def finish(self):
        """Ends the stream; returns the output."""
        self.process.send_signal(signal.SIGINT)
        return self.wait()

    def wait(self):
        out, _ = self.process.communicate(timeout=BOUND_SECONDS)
        assert self.process.returncode == 0, out
        return out

    def clean_up(self):
        self.process.kill()
        self.process.communicate(timeout=BOUND_SECONDS)


@pytest.fixture(name="start_pipeline")
def make_starter(installation, bus):
    with contextlib.ExitStack() as started:

        def start(description):
            pipeline = Pipeline(installation, bus, description)
            started.callback(pipeline.clean_up)
            return pipeline

        yield start


@pytest.fixture(name="start_detector")
def make_detector_starter(receiver_process, start_pipeline, control, start_daemon):
    """Starts a pipeline with the element as the producer DETECTOR, and the daemon; returns both. Without boxes, frames
    have no reference timestamp."""

    def start(boxes=None, settings="", rate=RATE):
        detector = f"! boxes {boxes}" if boxes is not None else ""
        pipeline = start_pipeline(f"{VIDEO},framerate={rate}/1 {detector} ! "
                                  f"tessardproducer producer-name={DETECTOR} {settings} ! fakesink")
        daemon = start_daemon(plugins=EXTERNAL_PLUGINS, producers=DETECTOR_ENABLED)
        wait_until_listed(control, DETECTOR)
        return pipeline, daemon

    return start


@contextlib.contextmanager
def detections(daemon):
    """Yields the producer's frames that a client receives."""
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        yield (frame for frame in stream.frames() if frame.source == GATE)


def read_arrivals(daemon, count):
    """Documents with the times of their arrival, which are parsed afterwards: a client must keep up."""
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        arrivals = [(stream.next_data(), now()) for _ in range(count)]
    return [(frame, arrival) for data, arrival in arrivals for frame in Document(data).frames if frame.source == GATE]


def test_every_box_arrives_in_time_and_in_place(start_detector):
    """At 60 frames a second, with 50 boxes, no frame is missing."""
    _, daemon = start_detector(f"boxes={BOXES} ids=true", settings="type-map=person=Human,car=Vehicle")
    arrivals = read_arrivals(daemon, SECONDS * RATE)
    first = number_of(arrivals[0][0].objects["1"].box)
    assert len(arrivals) >= SECONDS * RATE - 1
    for number, (frame, _) in enumerate(arrivals, first):
        assert list(frame.objects) == [str(box + 1) for box in range(BOXES)]
        assert frame.deleted == []
        for box, found in enumerate(frame.objects.values()):
            expect_place(found.box, box_of(number, box))
            assert found.type == ("Human", "Vehicle")[box % 2]
    delays = sorted((arrival - frame.time).total_seconds() for frame, arrival in arrivals)
    print(f"{len(arrivals)} frames, delay in ms: median {statistics.median(delays) * 1000:.1f}, "
          f"99 % {delays[len(delays) * 99 // 100] * 1000:.1f}, longest {delays[-1] * 1000:.1f}")
    assert statistics.median(delays) <= FRAME_SECONDS * SLOWNESS


def jumps(number, box):
    """Whether a box jumps to the other side of the picture before the frame of this number."""
    return (number + 17 * box) % PLACES == 0 or (number + 3 * box) % 180 == 0


def test_boxes_without_ids_are_followed(start_detector):
    """An object keeps its id until its box jumps. Then the box is a new object, and the old one is deleted later."""
    boxes = 3
    pipeline, daemon = start_detector(f"boxes={boxes}")
    with detections(daemon) as frames:
        before = next(frames)
        number = number_of(next(iter(before.objects.values())).box)
        gone = {}
        for _ in range(4 * RATE):
            number += 1
            frame = next(frames)
            assert len(frame.objects) == boxes
            for box, (old, new) in enumerate(zip(before.objects, frame.objects, strict=True)):
                assert int(new) >= FIRST_OWN_ID
                assert (old != new) == jumps(number, box)
                if old != new:
                    gone[old] = number + PATIENCE_FRAMES
            for old in frame.deleted:
                assert gone.pop(old, number) == number
            before = frame
        pipeline.finish()
        last = next(frame for frame in frames if not frame.objects)
        assert set(before.objects) <= set(last.deleted)


def test_rate_can_be_limited(start_detector):
    _, daemon = start_detector(f"boxes={BOXES} ids=true", settings="max-rate=10")
    with detections(daemon) as frames:
        numbers = [number_of(frame.objects["1"].box) for frame in itertools.islice(frames, 21)]
    steps = [(later - earlier) % PLACES for earlier, later in itertools.pairwise(numbers)]
    assert sum(steps) == 20 * RATE / 10
    assert all(RATE / 10 - 1 <= step <= RATE / 10 + 1 for step in steps)


def test_time_of_a_frame_is_its_running_time(start_detector):
    """Without a reference timestamp: the times are as regular as the timestamps of the frames."""
    rate = 25
    _, daemon = start_detector(rate=rate)
    with detections(daemon) as frames:
        times = [frame.time for frame in itertools.islice(frames, 2 * rate)]
        arrival = now()
    for earlier, later in itertools.pairwise(times):
        assert later - earlier == datetime.timedelta(seconds=1) / rate
    assert datetime.timedelta(0) <= arrival - times[-1] < datetime.timedelta(seconds=BOUND_SECONDS)


def test_pipeline_goes_on_without_a_receiver(start_pipeline):
    out = start_pipeline(f"{VIDEO},framerate={RATE}/1 ! identity eos-after=30 ! boxes boxes=1 ! "
                         f"tessardproducer producer-name={DETECTOR} ! fakesink").wait()
    assert "Got EOS from element" in out
    assert "The receiver is not on the bus" in out
    assert out.count("INFO") == 1


def test_detections_return_with_the_receiver(start_detector, receiver_process, control):
    pipeline, daemon = start_detector("boxes=1 ids=true")
    with detections(daemon) as frames:
        next(frames)
    receiver_process.kill()
    wait_until_listed(control)
    receiver_process.start()
    receiver_process.wait_until_ready()
    wait_until_listed(control, DETECTOR)
    with detections(daemon) as frames:
        assert next(frames).objects
    pipeline.finish()


def test_pipeline_says_what_the_receiver_refuses(receiver_process, start_pipeline):
    """The name is not valid. The pipeline goes on."""
    pipeline = start_pipeline(f"{VIDEO},framerate={RATE}/1 ! tessardproducer producer-name=not-valid ! fakesink")
    warnings = (line for line in pipeline.process.stdout if line.startswith("WARNING"))
    assert "tessardproducer" in next(warnings)
    pipeline.finish()
