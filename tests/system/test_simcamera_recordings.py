# SPDX-License-Identifier: MIT
"""The simulated camera's producers of recordings: files, and standard input."""

import json
import os
import subprocess
import threading
import time

import pytest

from receiverclient import PRODUCER, path_of
from receiverprocess import unread_bytes
from simcamera import (BUILT_INS, MAX_LINE_BYTES, MAX_NAME_BYTES, PERSONS, SLOW_MS, USAGE, SimulatedCamera, item_at,
                       refused, seen_at)
from waiting import BOUND_SECONDS, wait_until

MAX_FILE_BYTES = 64 * 1024 * 1024
MAX_FILE_LINES = 100000

# More than a pipe holds, so that a write of it waits for the reader.
LARGE_LINE = b'{"Filling":"' + b"x" * 1000000 + b'"}'


@pytest.fixture
def start_camera(start_full_camera):
    return start_full_camera


def test_recording_is_replayed_with_current_times_and_repeated(start_camera, receiver_client, record):
    offsets = [0, 0.2, 0.3, 0.3]
    path = record(*(item_at(offset, Number=number) for number, offset in enumerate(offsets)))
    start_camera("--producer", f"Mine={path}")
    before = time.time()
    stream = receiver_client.open("Mine")
    items = [stream.item() for _ in range(12)]

    assert [item["Number"] for item in items] == list(range(4)) * 3
    times = [seen_at(item) for item in items]
    assert before <= times[0] <= times[-1] <= time.time()
    gaps = [round(later - earlier, 5) for earlier, later in zip(times, times[1:])]
    assert gaps == pytest.approx([0.2, 0.1, 0, 0.1] * 2 + [0.2, 0.1, 0], abs=0.0001)
    assert all(item["Objects"] == [{"UtcTime": "inner"}] for item in items)


def test_replay_keeps_the_recorded_intervals(start_camera, receiver_client, record):
    start_camera("--producer", f"Mine={record(item_at(0), item_at(0.3))}")
    stream = receiver_client.open("Mine")
    stream.message()
    began = time.monotonic()
    stream.message()

    assert time.monotonic() - began >= 0.25


def test_each_stream_replays_from_the_start(start_camera, receiver_client, record):
    start_camera("--rate", "0", "--producer", f"Mine={record(b'one', b'two', b'three')}")
    first = receiver_client.open("Mine")
    assert first.messages(5) == [b"one", b"two", b"three", b"one", b"two"]

    assert receiver_client.open("Mine").messages(2) == [b"one", b"two"]


def test_lines_without_a_time_go_out_unchanged_with_those_before(start_camera, receiver_client, record):
    lines = [b"{", item_at(0), b'{"UtcTime": "yesterday"}', b'{"UtcTime": 5}', b'["UtcTime", "2020-02-03T00:00:00Z"]',
             "{\"Größe\": 1}".encode(), b"\xff\x00\xfe", b" ", b"a\r"]
    start_camera("--once", "--producer", f"Mine={record(*lines)}")
    stream = receiver_client.open("Mine")
    messages = stream.messages(len(lines))

    stream.expect_end()
    assert messages[0] == lines[0]
    assert messages[1] != lines[1]
    assert messages[2:] == lines[2:]


@pytest.mark.parametrize("rate", ["0", "50", "1000000"])
def test_with_a_rate_lines_go_out_unchanged(start_camera, receiver_client, record, rate):
    lines = [item_at(0), item_at(3600), b"not JSON", b"x"]
    start_camera("--rate", rate, "--producer", f"Mine={record(*lines)}")

    assert receiver_client.open("Mine").messages(8) == lines * 2


def test_rate_is_kept(start_camera, receiver_client, record):
    start_camera("--rate", "20", "--producer", f"Mine={record(b'x')}")
    stream = receiver_client.open("Mine")
    stream.message()
    began = time.monotonic()
    stream.messages(10)

    assert 0.4 <= time.monotonic() - began <= BOUND_SECONDS


def test_once_hangs_up_after_the_last_line(start_camera, receiver_client, record):
    camera = start_camera("--once", "--rate", "0", "--producer", f"Mine={record(b'one', LARGE_LINE, b'last')}")
    stream = receiver_client.open("Mine")

    assert stream.messages(3) == [b"one", LARGE_LINE, b"last"]
    assert stream.read_some(1) == b""
    wait_until(lambda: camera.streams("Mine") == 0, "no stream is open")
    assert receiver_client.open("Mine").message() == b"one"


def test_replay_waits_for_its_reader(start_camera, receiver_client, record):
    """Without a reader the pipe is full, and nothing is lost or queued elsewhere."""
    lines = [b"%d" % number + LARGE_LINE for number in range(5)]
    camera = start_camera("--once", "--rate", "0", "--producer", f"Mine={record(*lines)}")
    stream = receiver_client.open("Mine")
    assert stream.has_something(BOUND_SECONDS)
    assert receiver_client.open(PERSONS).item()
    assert camera.streams("Mine") == 1

    assert stream.messages(5) == lines
    stream.expect_end()


def test_longest_line_is_delivered(start_camera, receiver_client, record):
    line = b"x" * MAX_LINE_BYTES
    start_camera("--once", "--producer", f"Mine={record(line)}")

    assert receiver_client.open("Mine").message() == line


def test_recorded_producer_has_properties_and_a_sample_frame(start_camera, receiver_client, record):
    start_camera("--producer", f"My_1={record(b'first', b'second')}")

    assert receiver_client.producers()[path_of("My_1")] == {
        PRODUCER: {"Name": "My_1", "NiceName": "My_1", "SupportedChannels": [1, 2]}}
    assert receiver_client.sample_frame("My_1") == "first"


def test_sample_frame_is_valid_text_for_any_file(start_camera, receiver_client, record):
    start_camera("--producer", f"Mine={record(bytes([255, 0, 65]))}")

    assert receiver_client.sample_frame("Mine") == "��A"


def test_shipped_recording_can_be_replayed(start_camera, installation, receiver_client):
    (path,) = installation.simcamera.parent.glob("recordings/*.jsonl")
    assert path.stat().st_size < 100000
    lines = path.read_bytes().splitlines()
    start_camera("--rate", "0", "--once", "--producer", f"Mine={path}")

    items = [json.loads(message) for message in receiver_client.open("Mine").messages(len(lines))]
    times = [seen_at(item) for item in items]
    assert times == sorted(times)
    assert times[-1] - times[0] <= 60
    assert {seen["Type"] for item in items for seen in item["Objects"]} == set(BUILT_INS.values())
    assert any(item["Deleted"] for item in items)


@pytest.mark.parametrize("name", ["", "a-b", "a/b", "a.b", "ä", "x" * (MAX_NAME_BYTES + 1)])
def test_names_must_fit_an_object_path(installation, bus, receiver_client, record, name):
    status, out, err = SimulatedCamera(installation, bus, "--producer", f"{name}={record(b'x')}").wait()

    assert (status, out) == (USAGE, "")
    assert err == (f"simcamera: a producer's name must be 1 to {MAX_NAME_BYTES} letters, digits and underscores, not "
                   f"'{name}'\nTry 'simcamera --help'.\n")


def test_longest_name_is_taken(start_camera, receiver_client, record):
    name = "x" * MAX_NAME_BYTES
    start_camera("--producer", f"{name}={record(b'x')}")

    assert name in receiver_client.names()


@pytest.mark.parametrize("lines, text", [
    ([], "has no line"),
    ([b"", b"", b""], "has no line"),
    ([b"x" * (MAX_LINE_BYTES + 1)], f"has a line longer than {MAX_LINE_BYTES} bytes"),
    ([b"1"] * (MAX_FILE_LINES + 1), f"has more than {MAX_FILE_LINES} lines"),
], ids=["empty", "empty lines", "long line", "many lines"])
def test_invalid_recordings_are_refused(camera, receiver_client, record, lines, text):
    path = record(*lines)

    assert refused(camera, "add-producer", "Mine", path) == f"'{path}' {text}"
    assert receiver_client.names() == set(BUILT_INS)


def test_too_large_files_are_refused(camera, workspace):
    path = workspace.folder() / "recording"
    with open(path, "wb") as file:
        file.truncate(MAX_FILE_BYTES + 1)

    assert refused(camera, "add-producer", "Mine", path) == f"'{path}' is longer than {MAX_FILE_BYTES} bytes"


def test_unreadable_files_are_refused(camera, workspace):
    folder = workspace.folder()

    assert refused(camera, "add-producer", "Mine", folder) == f"'{folder}' is not a regular file"
    assert refused(camera, "add-producer", "Mine", f"{folder}/nothing") == (
        f"cannot read '{folder}/nothing': No such file or directory")


# Standard input


def test_input_is_sent_line_by_line_to_all_streams(start_camera, receiver_client):
    camera = start_camera("--producer", "Mine=-", stdin=subprocess.PIPE)
    first, second = receiver_client.open("Mine"), receiver_client.open("Mine")
    camera.process.stdin.write("one\n\ntwo")
    camera.process.stdin.flush()
    assert [first.message(), second.message()] == [b"one", b"one"]
    assert not first.has_something()

    camera.process.stdin.write(" halves\nthree\n")
    camera.process.stdin.flush()
    assert [first.messages(2), second.messages(2)] == [[b"two halves", b"three"]] * 2


def test_input_before_the_first_stream_is_dropped(start_camera, receiver_client):
    """A stream begins with the first line that is read after it was opened."""
    camera = start_camera("--producer", "Mine=-", stdin=subprocess.PIPE)
    assert json.loads(receiver_client.sample_frame("Mine"))["Objects"]
    camera.process.stdin.write("one\ntwo\n" + "x" * 100000 + "\n")
    camera.process.stdin.flush()
    wait_until(lambda: unread_bytes(camera.process.stdin.fileno()) == 0, "all lines are read")
    stream = receiver_client.open("Mine")
    assert not stream.has_something(SLOW_MS / 1000)

    camera.process.stdin.write("three\nlast")
    camera.process.stdin.close()
    camera.process.stdin = None
    assert stream.messages(2) == [b"three", b"last"]
    assert not stream.has_something(SLOW_MS / 1000)
    assert camera.streams("Mine") == 1


def test_input_ends_its_streams_with_once(start_camera, receiver_client):
    camera = start_camera("--once", "--producer", "Mine=-", stdin=subprocess.PIPE)
    first, second = receiver_client.open("Mine"), receiver_client.open("Mine")
    camera.process.stdin.write("last")
    camera.process.stdin.close()
    camera.process.stdin = None

    for stream in (first, second):
        assert stream.message() == b"last"
        assert stream.read_some(1) == b""
    assert receiver_client.open("Mine").read_some(1) == b""


def test_input_is_read_without_a_stream(start_camera, receiver_client):
    reader, writer = os.pipe()
    camera = start_camera("--producer", "Mine=-", stdin=reader)
    stream = receiver_client.open("Mine")
    os.write(writer, b"one\n")
    assert stream.message() == b"one"
    stream.close()
    wait_until(lambda: camera.streams("Mine") == 0, "no stream is open")
    os.write(writer, b"two\nthree\n")
    wait_until(lambda: unread_bytes(reader) == 0, "all lines are read")
    os.close(reader)

    again = receiver_client.open("Mine")
    os.write(writer, b"four\n")
    assert again.message() == b"four"
    os.close(writer)


def test_input_waits_for_no_stream(start_camera, receiver_client):
    """A stream that is not read keeps the newest line; the other one gets all lines."""
    lines = [b"%d" % number + LARGE_LINE for number in range(5)]
    reader, writer = os.pipe()
    start_camera("--producer", "Mine=-", stdin=reader)
    os.close(reader)
    fast, slow = receiver_client.open("Mine"), receiver_client.open("Mine")
    with os.fdopen(writer, "wb", buffering=0) as file:
        for line in lines:
            feeder = threading.Thread(target=file.write, args=(line + b"\n",))
            feeder.start()
            assert fast.message() == line
            feeder.join(BOUND_SECONDS)
    assert slow.messages(2) == [lines[0], lines[-1]]


def test_input_lines_that_are_too_long_are_left_out(installation, bus, receiver_client):
    camera = SimulatedCamera(installation, bus, "--producer", "Mine=-", stdin=subprocess.PIPE)
    camera.wait_until_ready()
    stream = receiver_client.open("Mine")
    camera.process.stdin.write("x" * (MAX_LINE_BYTES + 1) + "\nshort\n")
    camera.process.stdin.flush()

    assert stream.message() == b"short"
    assert camera.end() == (0, "", f"simcamera: left out a line longer than {MAX_LINE_BYTES} bytes\n")


def test_closed_input_is_an_empty_input(start_camera, receiver_client):
    """Another descriptor may have the number of standard input then, and must not be read."""
    start_camera("--producer", "Mine=-", "--once", stdin=None)

    receiver_client.open("Mine").expect_end()


def test_at_most_one_producer_reads_the_input(camera, receiver_client):
    camera.add_producer("Mine", "-")
    assert refused(camera, "add-producer", "Other", "-") == "'Mine' reads the standard input already"

    camera.remove_producer("Mine")
    camera.add_producer("Other", "-")
    assert receiver_client.names() == {*BUILT_INS, "Other"}
