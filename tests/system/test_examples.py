# SPDX-License-Identifier: MIT
"""The examples, run as their users run them."""

import datetime
import importlib.util
import itertools
import json
import os
import signal
import subprocess

import jsonschema
import lxml.etree
import numpy
import pytest

from daemon import NOTHING_REQUESTED
from installation import TREE, build_folder, build_option
from waiting import BOUND_SECONDS, wait_until

DETECTOR = TREE / "examples/detector.py"
PIPELINE_DETECTOR = TREE / "examples/pipeline_detector.py"

# As which it registers.
DETECTOR_NAME = "Detector"

SCHEMA = json.loads((TREE / "docs/producer-item.schema.json").read_text(encoding="utf-8"))

RATE = 30  # of the test video, frames a second
FRAMES = 230
COMPARED_FRAMES = 100
LEAST_EXACT_TIMES = 15
LEAST_MATCHES = 95

WIDTH, HEIGHT = 320, 240
BALL_VIDEO = (f"videotestsrc num-buffers={FRAMES} pattern=ball ! "
              f"video/x-raw,width={WIDTH},height={HEIGHT},framerate={RATE}/1")


def run_detector(*source):
    """The items that the detector prints for a video that ends."""
    result = subprocess.run([DETECTOR, *source], capture_output=True, text=True, timeout=2 * BOUND_SECONDS, check=False)
    assert (result.returncode, result.stderr) == (0, "")
    return [json.loads(line) for line in result.stdout.splitlines()]


@pytest.fixture(scope="module")
def items():
    return run_detector(*BALL_VIDEO.split())


@pytest.fixture
def start_program():
    """Starts programs with pipes for their output."""
    started = []

    def start(*command, **popen_args):
        process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **popen_args)
        started.append(process)
        return process

    yield start
    for process in started:
        process.kill()
        process.communicate(timeout=BOUND_SECONDS)


@pytest.fixture
def start_detector(start_program):

    def start(*source):
        process = start_program(DETECTOR, *source)
        assert json.loads(process.stdout.readline())["Objects"] == []
        return process

    return start


@pytest.fixture(scope="module")
def detector():
    loadable = importlib.util.spec_from_file_location("detector", DETECTOR)
    module = importlib.util.module_from_spec(loadable)
    loadable.loader.exec_module(module)
    return module


def ball_boxes():
    """Where the ball is in each frame: the only bright pixels. (left, top, right, bottom), normalised."""
    raw = subprocess.run(["gst-launch-1.0", "-q", *BALL_VIDEO.split(), "!", "videoconvert", "!",
                          "video/x-raw,format=GRAY8", "!", "fdsink"],
                         capture_output=True, timeout=BOUND_SECONDS, check=True).stdout
    pictures = numpy.frombuffer(raw, numpy.uint8).reshape(FRAMES, HEIGHT, WIDTH)
    for picture in pictures:
        rows, columns = numpy.nonzero(picture > 127)
        yield (2 * columns.min() / WIDTH - 1, 1 - 2 * rows.min() / HEIGHT,
               2 * (columns.max() + 1) / WIDTH - 1, 1 - 2 * (rows.max() + 1) / HEIGHT)


def overlap(box, other):
    """The common area of two boxes as a part of all their area."""
    def area(left, top, right, bottom):
        return max(right - left, 0) * max(top - bottom, 0)

    common = area(max(box[0], other[0]), min(box[1], other[1]), min(box[2], other[2]), max(box[3], other[3]))
    return common / (area(*box) + area(*other) - common)


def box_of(found):
    return tuple(found["BoundingBox"][side] for side in ("Left", "Top", "Right", "Bottom"))


def time_of(item):
    return datetime.datetime.fromisoformat(item["UtcTime"])


def by_frame(items):
    """The items by the number of their frame. The last frame of a video that ends always has one."""
    last = time_of(items[-1])
    return {FRAMES - 1 - round((last - time_of(item)).total_seconds() * RATE): item for item in items}


def test_detector_follows_the_ball(items):
    """In at least 95 of 100 frames there is just the ball, where it is, and always with the same id."""
    found = by_frame(items)
    balls = list(ball_boxes())
    objects = {frame: found[frame]["Objects"] for frame in range(FRAMES - COMPARED_FRAMES, FRAMES) if frame in found}
    matches = [listed[0]["Id"] for frame, listed in objects.items()
               if len(listed) == 1 and overlap(box_of(listed[0]), balls[frame]) >= 0.8]
    assert len(matches) >= LEAST_MATCHES
    assert len(set(matches)) == 1


def test_detector_sees_the_ball_from_the_first_second_on(items):
    """With the place that it leaves at first, which is not background yet."""
    balls = list(ball_boxes())
    first = {frame: item for frame, item in by_frame(items).items() if 2 <= frame < RATE}
    assert first
    for frame, item in first.items():
        assert any(overlap(box_of(found), balls[frame]) > 0.1 for found in item["Objects"])


def test_items_of_the_detector_are_valid(items):
    validator = jsonschema.Draft7Validator(SCHEMA)
    for item in items:
        validator.validate(item)
    validator.validate(json.loads((DETECTOR.parent / "detector-sample.json").read_text(encoding="utf-8")))


def test_times_of_the_detector_are_those_of_the_frames(start_detector):
    before = datetime.datetime.now(datetime.timezone.utc)
    process = start_detector("videotestsrc", "is-live=true", "pattern=ball")
    times = [time_of(json.loads(process.stdout.readline())) for _ in range(20)]
    after = datetime.datetime.now(datetime.timezone.utc)
    assert before < times[0] and times[-1] < after
    frames = [(later - earlier).total_seconds() * RATE for earlier, later in zip(times, times[1:])]
    assert all(round(count) >= 1 for count in frames)
    # The detector reads two clocks for a time, and a busy machine can let others run between the two.
    assert len([count for count in frames if abs(count - round(count)) < 0.2]) >= LEAST_EXACT_TIMES


def test_detector_finds_nothing_in_a_still_picture():
    found = run_detector("videotestsrc", "num-buffers=30", "pattern=smpte75")
    assert len(found) > 0
    assert all(item["Objects"] == item["Deleted"] == [] for item in found)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_detector_ends_with_a_signal(start_detector, number):
    process = start_detector()
    process.send_signal(number)
    _, err = process.communicate(timeout=BOUND_SECONDS)
    assert (process.returncode, err) == (0, "")


def test_detector_ends_with_its_reader(start_detector):
    process = start_detector()
    process.stdout.close()
    assert process.wait(BOUND_SECONDS) == 0
    assert process.stderr.read() == ""


@pytest.mark.parametrize("source, status, message", [
    (["nonsense"], 2, 'no element "nonsense"'),
    (["filesrc", "location=/nonexistent.mp4", "!", "decodebin"], 1, "Resource not found."),
])
def test_detector_says_what_is_wrong_with_its_source(source, status, message):
    result = subprocess.run([DETECTOR, *source], capture_output=True, text=True, timeout=BOUND_SECONDS, check=False)
    assert (result.returncode, result.stdout) == (status, "")
    assert message in result.stderr


def test_detector_says_what_ends_its_video():
    """A source that fails sends the end of the video too."""
    result = subprocess.run([DETECTOR, "videotestsrc", "!", "identity", "error-after=5"], capture_output=True, text=True,
                            timeout=BOUND_SECONDS, check=False)
    assert result.returncode == 1
    assert "Failed after iterations as requested." in result.stderr


def mask_with(detector, *boxes):
    mask = numpy.zeros((detector.HEIGHT, detector.WIDTH), bool)
    for left, top, right, bottom in boxes:
        mask[top:bottom, left:right] = True
    return mask


def test_boxes_are_around_areas_that_do_not_touch(detector):
    boxes = [(3, 5, 30, 20), (60, 0, 75, 50), (140, 100, 160, 120)]
    assert sorted(detector.find_boxes(mask_with(detector, *boxes))) == boxes
    assert list(detector.find_boxes(mask_with(detector, (0, 0, 20, 20), (20, 20, 40, 40)))) == [(0, 0, 40, 40)]
    assert list(detector.find_boxes(mask_with(detector, (10, 10, 13, 13)))) == []


def test_ids_stay_while_objects_move(detector):
    tracker = detector.Tracker()
    for step in range(50):
        seen, gone = tracker.follow([(100 - step, 60, 120 - step, 80), (step, 10, step + 10, 30)])
        assert seen == {1: (100 - step, 60, 120 - step, 80), 2: (step, 10, step + 10, 30)} and gone == []


def test_hidden_object_keeps_its_id_for_some_frames(detector):
    tracker = detector.Tracker()
    tracker.follow([(10, 10, 20, 20)])
    for _ in range(detector.PATIENCE):
        assert tracker.follow([]) == ({}, [])
    assert tracker.follow([(15, 10, 25, 20)]) == ({1: (15, 10, 25, 20)}, [])
    for _ in range(detector.PATIENCE):
        assert tracker.follow([]) == ({}, [])
    assert tracker.follow([]) == ({}, [1])
    assert tracker.follow([(15, 10, 25, 20)]) == ({2: (15, 10, 25, 20)}, [])


def test_object_beyond_reach_is_another(detector):
    tracker = detector.Tracker()
    tracker.follow([(10, 10, 20, 20)])
    assert tracker.follow([(100, 10, 110, 20)]) == ({2: (100, 10, 110, 20)}, [])


# The detector in a pipeline


@pytest.fixture
def start_pipeline_detector(installation, bus, start_program):
    return lambda *source: start_program(PIPELINE_DETECTOR, *source, env=installation.pipeline_environment(bus))


def test_pipeline_detector_follows_the_ball(start_pipeline_detector, receiver_process, receiver_client):
    """It is the same ball in all pictures, and never far from its place in the last one."""
    process = start_pipeline_detector()
    wait_until(lambda: DETECTOR_NAME in receiver_client.names(), "the detector is a producer")
    stream = receiver_client.open(DETECTOR_NAME)
    items = [stream.item() for _ in range(6 * RATE)]
    validator = jsonschema.Draft7Validator(SCHEMA)
    for item in items:
        validator.validate(item)
    balls = [found for item in items[-2 * RATE:] for found in item["Objects"]]
    assert len(balls) >= 2 * RATE * LEAST_MATCHES // 100
    assert {found["Id"] for found in balls} == {balls[0]["Id"]}
    for earlier, later in itertools.pairwise(balls):
        assert overlap(box_of(earlier), box_of(later)) >= 0.5
    process.send_signal(signal.SIGINT)
    assert process.wait(BOUND_SECONDS) == -signal.SIGINT


def test_pipeline_detector_ends_with_its_video(start_pipeline_detector):
    process = start_pipeline_detector("videotestsrc", "num-buffers=10")
    assert process.wait(BOUND_SECONDS) == 0


def test_pipeline_detector_says_what_ends_its_video(start_pipeline_detector):
    process = start_pipeline_detector("videotestsrc", "!", "identity", "error-after=5")
    _, err = process.communicate(timeout=BOUND_SECONDS)
    assert process.returncode == 1
    assert "Failed after iterations as requested." in err


# Clients

# In front of the reason in the daemon's reply.
REFUSED = "FAIL\n"

CLIENTS = [TREE / "examples/client.py", build_folder() / "examples/client"]


@pytest.fixture
def run_client(installation, daemon, start_program):
    """Starts a client of the daemon with the installed elements."""
    plugins = installation.prefix / build_option("libdir") / "gstreamer-1.0"
    environment = os.environ | {"TESSARD_SOCKET": str(daemon.socket_path), "GST_PLUGIN_PATH": str(plugins),
                                "LD_PRELOAD": str(installation.testhost)}
    return lambda client, *properties: start_program(client, *properties, env=environment)


@pytest.mark.parametrize("client", CLIENTS, ids=lambda client: client.name)
def test_client_prints_documents(run_client, client):
    process = run_client(client, "event=true")
    for _ in range(3):
        root = lxml.etree.fromstring(process.stdout.readline().encode())
        assert root.tag == "{http://www.onvif.org/ver10/schema}MetadataStream"
        assert len(root) > 0


@pytest.mark.parametrize("client", CLIENTS, ids=lambda client: client.name)
def test_client_prints_the_reason_of_the_daemon(run_client, client):
    process = run_client(client, "analytics=none")
    out, err = process.communicate(timeout=BOUND_SECONDS)
    assert (process.returncode, out) == (1, "")
    assert err == f"{client.name}: {NOTHING_REQUESTED.removeprefix(REFUSED)}\n"
