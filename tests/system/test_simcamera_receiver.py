"""The simulated camera's metadata receiver: its producers, their streams, and the verbs that change them."""

import datetime
import functools
import json
import os
import subprocess
import threading
import time

import pytest
from gi.repository import Gio, GLib

from busclient import PROPERTIES, error_text
from receiverclient import NAME, PRODUCER, ReceiverClient, Watcher, path_of
from simcamera import RECEIVER, Refused, SimulatedCamera
from waiting import BOUND_SECONDS, wait_until

PERSONS, VEHICLES = "PersonDetector", "VehicleDetector"
BUILT_INS = {PERSONS: "Human", VEHICLES: "Vehicle"}

USAGE, FAILURE = 2, 1

# Longer than anything takes that is not waited for, short enough for a test.
SLOW_MS = 300

# Long enough for a verb to take effect meanwhile, even on a busy machine.
VERY_SLOW_MS = 3000

MAX_STREAMS = 64
MAX_PRODUCERS = 64
MAX_NAME_BYTES = 255
MAX_LINE_BYTES = 16 * 1024 * 1024
MAX_FILE_BYTES = 64 * 1024 * 1024
MAX_FILE_LINES = 100000

# More than a pipe holds, so that its writer cannot be rid of it while nobody reads.
LARGE_LINE = b'{"Filling":"' + b"x" * 1000000 + b'"}'


@pytest.fixture
def start_camera(start_camera):
    """Starts one with all that it has by itself."""
    return functools.partial(start_camera, producers=None)


@pytest.fixture
def client(bus):
    connected = ReceiverClient(bus)
    yield connected
    connected.close()


@pytest.fixture
def watch(bus):
    """Watches the producers from now on."""
    watchers = []

    def start():
        watchers.append(Watcher(bus))
        return watchers[-1]

    yield start
    for watcher in watchers:
        watcher.close()


@pytest.fixture
def fast_camera(start_camera, workspace):
    """A camera in whose world nobody is long away."""
    settings = workspace.folder() / "settings"
    settings.write_text("[World]\nspeed=20\n", encoding="utf-8")
    return start_camera(variables={"TESSARD_SIM_CONFIG": str(settings)})


@pytest.fixture
def record(workspace):
    """Writes a file of lines that the camera can read."""

    def write(*lines):
        path = workspace.folder() / "recording"
        path.write_bytes(b"".join(line + b"\n" for line in lines))
        return str(path)

    return write


def item_at(seconds, **more):
    """A line of a recording, seen so long after some moment."""
    moment = datetime.datetime(2020, 2, 3, tzinfo=datetime.timezone.utc) + datetime.timedelta(seconds=seconds)
    return json.dumps({"Objects": [{"UtcTime": "inner"}], "UtcTime": moment.isoformat(), **more}).encode()


def seen_at(item):
    return datetime.datetime.fromisoformat(item["UtcTime"].replace("Z", "+00:00")).timestamp()


def remote_error(failed):
    return Gio.DBusError.get_remote_error(failed.value).removeprefix("org.freedesktop.DBus.Error."), error_text(
        failed.value)


def refused(camera, *words):
    with pytest.raises(Refused) as refusal:
        camera.tell(*words)
    return str(refusal.value).removeprefix("simcamera: ").removesuffix("\n")


# What the built-in producers say


def test_built_in_producers_are_objects_of_an_object_manager(start_camera, client):
    start_camera("--channels", "3")

    assert client.producers() == {
        path_of(PERSONS): {PRODUCER: {"Name": PERSONS, "NiceName": "Simulated person detector",
                                      "SupportedChannels": [1, 2, 3]}},
        path_of(VEHICLES): {PRODUCER: {"Name": VEHICLES, "NiceName": "Simulated vehicle detector",
                                       "SupportedChannels": [1, 2, 3]}}}
    assert client.properties(PERSONS).endswith("'SupportedChannels': <[uint32 1, 2, 3]>}")


@pytest.mark.parametrize("prop, value", [
    ("Name", "(<'PersonDetector'>,)"),
    ("NiceName", "(<'Simulated person detector'>,)"),
    ("SupportedChannels", "(<[uint32 1, 2]>,)"),
])
def test_properties_can_be_read_one_by_one(camera, client, prop, value):
    assert client.get(NAME, path_of(PERSONS), PRODUCER, prop).print_(True) == value
    assert camera.calls(RECEIVER) == 0


@pytest.mark.parametrize("name", BUILT_INS)
def test_sample_frame_is_an_item_of_the_producers_type(camera, client, name):
    item = json.loads(client.sample_frame(name))

    assert [seen["Type"] for seen in item["Objects"]] == [BUILT_INS[name]]
    assert ("Polygon" in item["Objects"][0]) == (name == PERSONS)
    assert client.sample_frame(name) == client.sample_frame(name)


def check_object(seen, kind, polygon):
    assert seen["Type"] == kind
    assert isinstance(seen["Id"], int)
    assert 0 < seen["Likelihood"] <= 1
    box = seen["BoundingBox"]
    assert -1 <= box["Left"] <= box["Right"] <= 1
    assert -1 <= box["Bottom"] <= box["Top"] <= 1
    assert set(seen) == {"Id", "BoundingBox", "Type", "Likelihood"} | ({"Polygon"} if polygon else set())
    for x, y in seen.get("Polygon", []):
        assert box["Left"] <= x <= box["Right"]
        assert box["Bottom"] <= y <= box["Top"]


@pytest.mark.parametrize("name", BUILT_INS)
def test_streams_have_the_present_objects_and_each_deletion_once(fast_camera, client, name):
    stream = client.open(name)
    present, seen_ids, left_ids = set(), set(), []

    while len(left_ids) < 3:
        item = stream.item()
        assert set(item) == {"UtcTime", "Objects", "Deleted"}
        for seen in item["Objects"]:
            check_object(seen, BUILT_INS[name], polygon=name == PERSONS)
        now_present = {seen["Id"] for seen in item["Objects"]}
        assert set(item["Deleted"]) == present - now_present
        left_ids += item["Deleted"]
        seen_ids |= now_present
        present = now_present
    assert len(left_ids) == len(set(left_ids))
    assert seen_ids >= set(left_ids)


def test_first_item_is_immediate_and_current(camera, client):
    before = time.time()
    for name in BUILT_INS:
        item = client.open(name).item()
        assert before <= seen_at(item) <= time.time()
        assert item["Deleted"] == []


def test_items_come_ten_times_a_second_or_every_two_seconds(camera, client):
    """Nobody new comes later than two seconds after an empty item."""
    stream = client.open(PERSONS)
    last = stream.item()
    busy, empty = [], []

    while len(busy) < 5 or len(empty) < 1:
        item = stream.item()
        gap = seen_at(item) - seen_at(last)
        (busy if last["Objects"] else empty).append(gap)
        last = item
    assert min(busy) >= 0.1
    assert sorted(busy)[len(busy) // 2] < 0.2
    assert min(empty) >= 0.1


def test_all_producers_have_the_same_objects(fast_camera, client):
    """A producer of everything, by whatever name, tells of the union of what the built-in ones tell."""
    fast_camera.add_producer("Everything")
    streams = {name: client.open(name) for name in ("Everything", *BUILT_INS)}
    seen = {name: {} for name in streams}

    def is_seen():
        for name, stream in streams.items():
            seen[name] |= {entry["Id"]: entry["Type"] for entry in stream.item()["Objects"]}
        everything = seen["Everything"].items()
        return all(len(everything & seen[name].items()) >= 2 for name in BUILT_INS)

    wait_until(is_seen, "two of each type, by both producers")
    for name, kind in BUILT_INS.items():
        assert set(seen[name].values()) == {kind}
    assert set(seen["Everything"].values()) == set(BUILT_INS.values())


def test_streams_do_not_disturb_each_other(camera, client):
    first, second = client.open(PERSONS), client.open(PERSONS, channel=2)
    assert camera.streams(PERSONS) == 2
    first.item()
    first.close()
    wait_until(lambda: camera.streams(PERSONS) == 1, "the first stream has ended")

    second.item()
    second.item()


def test_items_are_skipped_while_a_message_is_written(fast_camera, client):
    """While a message takes its time, the others that are told meanwhile are not kept for later."""
    for name in ("Slow", "Quick"):
        fast_camera.add_producer(name)
    fast_camera.pieces("Slow", 100, 100)
    slow, quick = client.open("Slow"), client.open("Quick")
    told = [seen_at(quick.item())]
    last = seen_at(slow.item())

    def has_skipped():
        nonlocal last
        before, last = last, seen_at(slow.item())
        while told[-1] < last:
            told.append(seen_at(quick.item()))
        return sum(before < moment < last for moment in told) >= 3

    wait_until(has_skipped, "three messages are left out")


@pytest.mark.parametrize("channel", [0, 3, -1, 2147483647])
def test_channels_that_are_not_supported_get_no_stream(camera, client, channel):
    with pytest.raises(GLib.Error) as failed:
        client.request_stream(PERSONS, channel)

    assert remote_error(failed) == ("InvalidArgs", f"PersonDetector does not support channel {channel}")
    assert camera.streams(PERSONS) == 0


def test_streams_are_bounded(camera, client):
    for _ in range(MAX_STREAMS):
        client.open(PERSONS)
    with pytest.raises(GLib.Error) as failed:
        client.open(PERSONS)

    assert remote_error(failed) == ("LimitsExceeded", "PersonDetector has too many streams")
    client.open(VEHICLES).item()


# Recordings


def test_recording_is_replayed_with_current_times_and_repeated(start_camera, client, record):
    offsets = [0, 0.2, 0.3, 0.3]
    path = record(*(item_at(offset, Number=number) for number, offset in enumerate(offsets)))
    start_camera("--producer", f"Mine={path}")
    before = time.time()
    stream = client.open("Mine")
    items = [stream.item() for _ in range(12)]

    assert [item["Number"] for item in items] == list(range(4)) * 3
    times = [seen_at(item) for item in items]
    assert before <= times[0] <= times[-1] <= time.time()
    gaps = [round(later - earlier, 5) for earlier, later in zip(times, times[1:])]
    assert gaps == pytest.approx([0.2, 0.1, 0, 0.1] * 2 + [0.2, 0.1, 0], abs=0.0001)
    assert all(item["Objects"] == [{"UtcTime": "inner"}] for item in items)


def test_replay_keeps_the_recorded_intervals(start_camera, client, record):
    start_camera("--producer", f"Mine={record(item_at(0), item_at(0.3))}")
    stream = client.open("Mine")
    stream.message()
    began = time.monotonic()
    stream.message()

    assert time.monotonic() - began >= 0.25


def test_each_stream_replays_from_the_start(start_camera, client, record):
    start_camera("--rate", "0", "--producer", f"Mine={record(b'one', b'two', b'three')}")
    first = client.open("Mine")
    assert first.messages(5) == [b"one", b"two", b"three", b"one", b"two"]

    assert client.open("Mine").messages(2) == [b"one", b"two"]


def test_lines_without_a_time_go_out_unchanged_with_those_before(start_camera, client, record):
    lines = [b"{", item_at(0), b'{"UtcTime": "yesterday"}', b'{"UtcTime": 5}', b'["UtcTime", "2020-02-03T00:00:00Z"]',
             "{\"Größe\": 1}".encode(), b"\xff\x00\xfe", b" ", b"a\r"]
    start_camera("--once", "--producer", f"Mine={record(*lines)}")
    stream = client.open("Mine")
    messages = stream.messages(len(lines))

    stream.expect_end()
    assert messages[0] == lines[0]
    assert messages[1] != lines[1]
    assert messages[2:] == lines[2:]


@pytest.mark.parametrize("rate", ["0", "50", "1000000"])
def test_with_a_rate_lines_go_out_unchanged(start_camera, client, record, rate):
    lines = [item_at(0), item_at(3600), b"not JSON", b"x"]
    start_camera("--rate", rate, "--producer", f"Mine={record(*lines)}")

    assert client.open("Mine").messages(8) == lines * 2


def test_rate_is_kept(start_camera, client, record):
    start_camera("--rate", "20", "--producer", f"Mine={record(b'x')}")
    stream = client.open("Mine")
    stream.message()
    began = time.monotonic()
    stream.messages(10)

    assert 0.4 <= time.monotonic() - began <= BOUND_SECONDS


def test_once_hangs_up_after_the_last_line(start_camera, client, record):
    camera = start_camera("--once", "--rate", "0", "--producer", f"Mine={record(b'one', LARGE_LINE, b'last')}")
    stream = client.open("Mine")

    assert stream.messages(3) == [b"one", LARGE_LINE, b"last"]
    assert stream.read_some(1) == b""
    wait_until(lambda: camera.streams("Mine") == 0, "no stream is open")
    assert client.open("Mine").message() == b"one"


def test_replay_waits_for_its_reader(start_camera, client, record):
    """With nobody reading, the pipe fills up, and nothing is lost or kept elsewhere."""
    lines = [b"%d" % number + LARGE_LINE for number in range(5)]
    camera = start_camera("--once", "--rate", "0", "--producer", f"Mine={record(*lines)}")
    stream = client.open("Mine")
    assert stream.has_something(BOUND_SECONDS)
    assert client.open(PERSONS).item()
    assert camera.streams("Mine") == 1

    assert stream.messages(5) == lines
    stream.expect_end()


def test_longest_line_is_delivered(start_camera, client, record):
    line = b"x" * MAX_LINE_BYTES
    start_camera("--once", "--producer", f"Mine={record(line)}")

    assert client.open("Mine").message() == line


def test_recorded_producer_has_properties_and_a_sample_frame(start_camera, client, record):
    start_camera("--producer", f"My_1={record(b'first', b'second')}")

    assert client.producers()[path_of("My_1")] == {
        PRODUCER: {"Name": "My_1", "NiceName": "My_1", "SupportedChannels": [1, 2]}}
    assert client.sample_frame("My_1") == "first"


def test_sample_frame_is_valid_text_for_any_file(start_camera, client, record):
    start_camera("--producer", f"Mine={record(bytes([255, 0, 65]))}")

    assert client.sample_frame("Mine") == "��A"


def test_shipped_recording_can_be_replayed(start_camera, installation, client):
    (path,) = installation.simcamera.parent.glob("recordings/*.jsonl")
    assert path.stat().st_size < 100000
    lines = path.read_bytes().splitlines()
    start_camera("--rate", "0", "--once", "--producer", f"Mine={path}")

    items = [json.loads(message) for message in client.open("Mine").messages(len(lines))]
    times = [seen_at(item) for item in items]
    assert times == sorted(times)
    assert times[-1] - times[0] <= 60
    assert {seen["Type"] for item in items for seen in item["Objects"]} == set(BUILT_INS.values())
    assert any(item["Deleted"] for item in items)


@pytest.mark.parametrize("name", ["", "a-b", "a/b", "a.b", "ä", "x" * (MAX_NAME_BYTES + 1)])
def test_names_must_fit_an_object_path(installation, bus, client, record, name):
    status, out, err = SimulatedCamera(installation, bus, "--producer", f"{name}={record(b'x')}").wait()

    assert (status, out) == (USAGE, "")
    assert err == (f"simcamera: a producer's name must be 1 to {MAX_NAME_BYTES} letters, digits and underscores, not "
                   f"'{name}'\nTry 'simcamera --help'.\n")


def test_longest_name_is_taken(start_camera, client, record):
    name = "x" * MAX_NAME_BYTES
    start_camera("--producer", f"{name}={record(b'x')}")

    assert name in client.names()


@pytest.mark.parametrize("lines, text", [
    ([], "has no line"),
    ([b"", b"", b""], "has no line"),
    ([b"x" * (MAX_LINE_BYTES + 1)], f"has a line longer than {MAX_LINE_BYTES} bytes"),
    ([b"1"] * (MAX_FILE_LINES + 1), f"has more than {MAX_FILE_LINES} lines"),
], ids=["empty", "empty lines", "long line", "many lines"])
def test_invalid_recordings_are_refused(camera, client, record, lines, text):
    path = record(*lines)

    assert refused(camera, "add-producer", "Mine", path) == f"'{path}' {text}"
    assert client.names() == set(BUILT_INS)


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


def test_input_is_sent_line_by_line_to_all_streams(start_camera, client):
    camera = start_camera("--producer", "Mine=-", stdin=subprocess.PIPE)
    first, second = client.open("Mine"), client.open("Mine")
    camera.process.stdin.write("one\n\ntwo")
    camera.process.stdin.flush()
    assert [first.message(), second.message()] == [b"one", b"one"]
    assert not first.has_something()

    camera.process.stdin.write(" halves\nthree\n")
    camera.process.stdin.flush()
    assert [first.messages(2), second.messages(2)] == [[b"two halves", b"three"]] * 2


def test_input_waits_for_the_first_stream(start_camera, client):
    reader, writer = os.pipe()
    os.write(writer, b"one\ntwo\nlast")
    os.close(writer)
    camera = start_camera("--producer", "Mine=-", stdin=reader)
    os.close(reader)
    assert json.loads(client.sample_frame("Mine"))["Objects"]
    stream = client.open("Mine")

    assert stream.messages(3) == [b"one", b"two", b"last"]
    assert not stream.has_something(SLOW_MS / 1000)
    assert camera.streams("Mine") == 1


def test_input_ends_its_streams_with_once(start_camera, client):
    camera = start_camera("--once", "--producer", "Mine=-", stdin=subprocess.PIPE)
    first, second = client.open("Mine"), client.open("Mine")
    camera.process.stdin.write("last")
    camera.process.stdin.close()
    camera.process.stdin = None

    for stream in (first, second):
        assert stream.message() == b"last"
        assert stream.read_some(1) == b""
    assert client.open("Mine").read_some(1) == b""


def test_input_is_not_read_without_a_stream(start_camera, client):
    reader, writer = os.pipe()
    camera = start_camera("--producer", "Mine=-", stdin=reader)
    os.close(reader)
    stream = client.open("Mine")
    os.write(writer, b"one\n")
    assert stream.message() == b"one"
    stream.close()
    wait_until(lambda: camera.streams("Mine") == 0, "nobody listens")
    os.write(writer, b"two\nthree\n")

    again = client.open("Mine")
    assert again.messages(2) == [b"two", b"three"]
    os.close(writer)


def test_input_waits_for_the_slowest_stream(start_camera, client):
    lines = [b"%d" % number + LARGE_LINE for number in range(5)]
    reader, writer = os.pipe()
    start_camera("--producer", "Mine=-", stdin=reader)
    os.close(reader)
    fast, slow = client.open("Mine"), client.open("Mine")
    with os.fdopen(writer, "wb") as file:
        feeder = threading.Thread(target=file.write, args=(b"\n".join(lines) + b"\n",))
        feeder.start()
        # One line is on its way to the slow one, and one more waits for it.
        assert fast.messages(2) == lines[:2]
        assert not fast.has_something(SLOW_MS / 1000)

        assert slow.message() == lines[0]
        assert fast.message() == lines[2]
        slow.close()
        assert fast.messages(2) == lines[3:]
        feeder.join(BOUND_SECONDS)


def test_input_lines_that_are_too_long_are_left_out(installation, bus, client, workspace):
    path = workspace.folder() / "input"
    path.write_bytes(b"x" * (MAX_LINE_BYTES + 1) + b"\nshort\n")
    with open(path, "rb") as file:
        camera = SimulatedCamera(installation, bus, "--producer", "Mine=-", stdin=file)
    camera.wait_until_ready()

    assert client.open("Mine").message() == b"short"
    assert camera.end() == (0, "", f"simcamera: left out a line longer than {MAX_LINE_BYTES} bytes\n")


def test_closed_input_is_an_empty_input(start_camera, client):
    """What has the place of standard input then must not be read."""
    start_camera("--producer", "Mine=-", "--once", stdin=None)

    client.open("Mine").expect_end()


def test_at_most_one_producer_reads_the_input(camera, client):
    camera.add_producer("Mine", "-")
    assert refused(camera, "add-producer", "Other", "-") == "'Mine' reads the standard input already"

    camera.remove_producer("Mine")
    camera.add_producer("Other", "-")
    assert client.names() == {*BUILT_INS, "Other"}


# Producers that come and go


@pytest.mark.parametrize("chosen", [[], [PERSONS], [VEHICLES], [VEHICLES, PERSONS]])
def test_only_chosen_producers_are_there(start_camera, client, chosen):
    start_camera("--producers", ",".join(chosen))

    assert client.names() == set(chosen)


@pytest.mark.parametrize("options, text", [
    (["--producers", "Nobody"], f"unknown producer 'Nobody'; there are: {PERSONS}, {VEHICLES}"),
    (["--producer", f"{PERSONS}=-"], f"there is a producer '{PERSONS}' already"),
    (["--producer", "A=-", "--producer", "B=-"], "'A' reads the standard input already"),
    (["--rate", "-1"], "the rate must be a number from 0 to 1000000, not '-1'"),
    (["--rate", "fast"], "the rate must be a number from 0 to 1000000, not 'fast'"),
])
def test_wrong_options_are_refused_with_a_hint(installation, bus, options, text):
    assert SimulatedCamera(installation, bus, *options).wait() == (
        USAGE, "", f"simcamera: {text}\nTry 'simcamera --help'.\n")


def test_streams_of_a_removed_producer_end_and_it_can_be_added_again(camera, client, watch):
    stream = client.open(PERSONS)
    watcher = watch()
    camera.remove_producer(PERSONS)

    assert client.names() == {VEHICLES}
    stream.expect_end()
    camera.add_producer(PERSONS)
    assert json.loads(client.sample_frame(PERSONS))["Objects"][0]["Type"] == "Human"
    assert client.producers()[path_of(PERSONS)][PRODUCER]["NiceName"] == "Simulated person detector"
    assert watcher.wait(2) == [("removed", PERSONS, f"'{PERSONS}'"), ("added", PERSONS, f"'{PERSONS}'")]


def test_added_producers_replay_a_file(camera, client, record):
    camera.remove_producer(PERSONS)
    camera.tell("rate", 0)
    camera.add_producer(PERSONS, record(b"x"))

    assert client.open(PERSONS).messages(3) == [b"x"] * 3
    assert client.producers()[path_of(PERSONS)][PRODUCER]["NiceName"] == PERSONS


def test_later_streams_have_the_current_rate(camera, client, record):
    camera.add_producer("Mine", record(item_at(0), item_at(3000)))
    waiting = client.open("Mine")
    first = waiting.item()
    camera.tell("rate", 0)
    camera.tell("once", "yes")
    stream = client.open("Mine")
    assert stream.messages(2) == [item_at(0), item_at(3000)]
    assert stream.read_some(1) == b""
    camera.tell("rate", "recorded")

    assert seen_at(client.open("Mine").item()) >= seen_at(first)
    assert not waiting.has_something()


def test_producers_are_bounded(camera, client):
    for number in range(MAX_PRODUCERS - len(BUILT_INS)):
        camera.add_producer(f"P{number}")

    assert refused(camera, "add-producer", "Another") == f"there are {MAX_PRODUCERS} producers already"
    assert len(client.names()) == MAX_PRODUCERS


def test_service_vanishes_and_appears(camera, client, watch):
    watcher = watch()
    names = [(name, f"'{name}'") for name in (PERSONS, VEHICLES)]
    camera.absent(RECEIVER)
    assert sorted(watcher.wait(2)) == [("removed", *name) for name in names]

    camera.present(RECEIVER)
    assert sorted(watcher.wait(4)[2:]) == [("added", *name) for name in names]
    client.open(PERSONS).item()


def test_hang_up_ends_streams_and_the_producer_stays(camera, client, watch):
    streams = [client.open(PERSONS), client.open(PERSONS)]
    other = client.open(VEHICLES)
    watcher = watch()
    camera.hang_up(PERSONS)

    assert camera.streams(PERSONS) == 0
    for stream in streams:
        stream.expect_end()
    other.item()
    client.open(PERSONS).item()
    assert watcher.wait(0) == []


@pytest.mark.parametrize("kind", [["pipe"], ["socket"]])
def test_descriptors_are_closed_after_streams(start_camera, client, record, kind):
    camera = start_camera("--rate", "0", "--producer", f"Mine={record(b'x')}")
    names = (PERSONS, "Mine")
    for name in names:
        camera.descriptors(name, *kind)
        client.open(name).message()
    camera.hang_up(PERSONS)
    camera.hang_up("Mine")
    before = camera.descriptor_count()

    for _ in range(3):
        streams = [client.open(name) for name in names for _ in range(5)]
        for stream in streams:
            stream.message()
            stream.close()
    wait_until(lambda: camera.streams(PERSONS) + camera.streams("Mine") == 0, "all streams have ended")
    wait_until(lambda: camera.descriptor_count() == before, "the descriptors are as before")


# How streams come


@pytest.mark.parametrize("kind, is_socket, is_blocking", [
    (["pipe"], False, True),
    (["pipe", "nonblocking"], False, False),
    (["socket"], True, True),
    (["socket", "nonblocking"], True, False),
])
def test_descriptors_are_of_the_chosen_kind(camera, client, kind, is_socket, is_blocking):
    usual = client.open(PERSONS)
    camera.descriptors(PERSONS, *kind)
    stream = client.open(PERSONS)

    def form(of):
        return os.readlink(f"/proc/self/fd/{of.fd}").partition(":")[0], of.is_blocking()

    assert form(stream) == ("socket" if is_socket else "pipe", is_blocking)
    stream.item()
    assert form(usual) == ("pipe", True)


def test_messages_are_sent_in_pieces(start_camera, client, record):
    camera = start_camera("--rate", "0", "--producer", f"Mine={record(b'abcdefgh')}")
    camera.pieces("Mine", 3, SLOW_MS)
    stream = client.open("Mine")

    began = time.monotonic()
    assert [stream.read_some(3) for _ in range(4)] == [b"\x08\x00\x00", b"\x00ab", b"cde", b"fgh"]
    assert time.monotonic() - began >= 3 * SLOW_MS / 1000 * 0.9
    camera.pieces("Mine", 0, 0)
    assert wait_until(stream.message, "a whole message")


def test_pieces_delay_no_other_stream(camera, client):
    camera.pieces(PERSONS, 1, 60000)
    stream = client.open(PERSONS)
    assert len(stream.read_some(100)) == 1

    client.open(VEHICLES).item()
    stream.close()
    wait_until(lambda: camera.streams(PERSONS) == 0, "the reader's end is noticed in the middle of a message")


# What producers say when they should not


@pytest.mark.parametrize("prop, value, told", [
    ("Name", "'Other'", "{'Name': <'Other'>, 'NiceName': <'Simulated person detector'>, "
                        "'SupportedChannels': <[uint32 1, 2]>}"),
    ("Name", "none", "{'NiceName': <'Simulated person detector'>, 'SupportedChannels': <[uint32 1, 2]>}"),
    ("Name", "@ay [1]", "{'Name': <[byte 0x01]>, 'NiceName': <'Simulated person detector'>, "
                        "'SupportedChannels': <[uint32 1, 2]>}"),
    ("NiceName", "5", "{'Name': <'PersonDetector'>, 'NiceName': <5>, 'SupportedChannels': <[uint32 1, 2]>}"),
    ("SupportedChannels", "[1]", "{'Name': <'PersonDetector'>, 'NiceName': <'Simulated person detector'>, "
                                 "'SupportedChannels': <[1]>}"),
    ("SupportedChannels", "none", "{'Name': <'PersonDetector'>, 'NiceName': <'Simulated person detector'>}"),
])
def test_properties_are_replaced_and_announced_anew(camera, client, watch, prop, value, told):
    stream = client.open(PERSONS)
    watcher = watch()
    camera.property(PERSONS, prop, value)
    announced = {("Name", "'Other'"): "'Other'", ("Name", "none"): None, ("Name", "@ay [1]"): "[byte 0x01]"}.get(
        (prop, value), f"'{PERSONS}'")

    assert client.properties(PERSONS) == told
    reply = client.call(NAME, path_of(PERSONS), PROPERTIES, "GetAll", GLib.Variant("(s)", (PRODUCER,)))
    assert reply.print_(True) == f"({told},)"
    assert watcher.wait(2) == [("removed", PERSONS, f"'{PERSONS}'"), ("added", PERSONS, announced)]
    stream.item()
    client.open(PERSONS).item()


def test_absent_property_cannot_be_read(camera, client):
    camera.property(PERSONS, "Name", "none")
    with pytest.raises(GLib.Error) as failed:
        client.get(NAME, path_of(PERSONS), PRODUCER, "Name")

    assert remote_error(failed)[0] == "InvalidArgs"


def test_replaced_channels_get_streams(camera, client):
    camera.property(PERSONS, "SupportedChannels", "@au [7]")
    client.open(PERSONS, channel=7).item()

    with pytest.raises(GLib.Error):
        client.request_stream(PERSONS, 1)


def test_interface_is_replaced_and_announced_anew(camera, client, watch):
    stream = client.open(PERSONS)
    told = client.properties(PERSONS)
    watcher = watch()
    camera.interface(PERSONS, "some.Other1")

    assert set(client.producers()[path_of(PERSONS)]) == {"some.Other1"}
    assert client.get(NAME, path_of(PERSONS), "some.Other1", "Name").unpack() == (PERSONS,)
    with pytest.raises(GLib.Error) as failed:
        client.sample_frame(PERSONS)
    assert remote_error(failed)[0] == "UnknownMethod"
    stream.item()

    camera.interface(PERSONS, PRODUCER)
    assert client.properties(PERSONS) == told
    assert watcher.wait(4) == [("removed", PERSONS, f"'{PERSONS}'"), ("added", PERSONS, None),
                               ("removed", PERSONS, None), ("added", PERSONS, f"'{PERSONS}'")]
    client.open(PERSONS).item()


def test_very_long_name_can_be_announced(camera, client):
    """Longer than a command line may be, so that it comes over the bus."""
    value = "'" + "x" * 1000000 + "'"
    client.call("tessard.SimulatedCamera1", "/tessard/SimulatedCamera1", "tessard.SimulatedCamera1", "Tell",
                GLib.Variant("(as)", (["property", PERSONS, "Name", value],)))

    assert client.producers()[path_of(PERSONS)][PRODUCER]["Name"] == value[1:-1]


def test_sample_frame_can_be_any_text(camera, client):
    camera.sample_frame(PERSONS, "{ not JSON ü")
    assert client.sample_frame(PERSONS) == "{ not JSON ü"

    camera.sample_frame(PERSONS, "")
    assert client.sample_frame(PERSONS) == ""


def call_method(client, method, **arguments):
    return (client.request_sample_frame(PERSONS, **arguments) if method == "GetSampleFrame" else
            client.request_stream(PERSONS, **arguments)[0])


METHODS = {"GetSampleFrame": "(s)", "GetStreamFd": "(h)"}


@pytest.mark.parametrize("method", METHODS)
@pytest.mark.parametrize("how, reply", [
    (["empty"], "()"),
    (["reply", "(1,)"], "(1,)"),
    (["reply", "('two', 'words')"], "('two', 'words')"),
])
def test_wrong_replies_are_sent_as_they_are(camera, client, method, how, reply):
    camera.inject_producer_fault(PERSONS, method, *how)
    assert call_method(client, method).print_(True) == reply

    camera.clear_producer_faults(PERSONS)
    assert call_method(client, method).get_type_string() == METHODS[method]


@pytest.mark.parametrize("method, how, reply", [
    ("GetSampleFrame", "wrong-type", "(1,)"),
    ("GetSampleFrame", "variant", "(<'{}'>,)"),
    ("GetSampleFrame", "nested", "(('{}',),)"),
    ("GetStreamFd", "wrong-type", "('wrong',)"),
])
def test_wrong_replies_with_names_are_sent_as_they_are(camera, client, method, how, reply):
    camera.inject_producer_fault(PERSONS, method, how)

    assert call_method(client, method).print_(True) == reply


def test_reply_without_a_descriptor(camera, client):
    camera.inject_producer_fault(PERSONS, "GetStreamFd", "no-descriptor")
    reply, descriptors = client.request_stream(PERSONS)

    assert reply.print_(True) == "(handle 0,)"
    assert descriptors is None
    assert camera.streams(PERSONS) == 0


def test_reply_with_a_wrong_index(camera, client):
    camera.inject_producer_fault(PERSONS, "GetStreamFd", "wrong-index")
    reply, descriptors = client.request_stream(PERSONS)

    assert reply.print_(True) == "(handle 1,)"
    assert descriptors.get_length() == 1
    del descriptors
    wait_until(lambda: camera.streams(PERSONS) == 0, "the stream has ended with the list")


@pytest.mark.parametrize("method", METHODS)
def test_errors_have_their_text(camera, client, method):
    camera.inject_producer_fault(PERSONS, method, "error", "No such ü")
    with pytest.raises(GLib.Error) as failed:
        call_method(client, method)

    assert remote_error(failed) == ("Failed", "No such ü")
    assert camera.streams(PERSONS) == 0


@pytest.mark.parametrize("method", METHODS)
def test_slow_replies_are_correct_and_late(camera, client, method):
    camera.inject_producer_fault(PERSONS, method, "slow", SLOW_MS)
    began = time.monotonic()

    assert call_method(client, method).get_type_string() == METHODS[method]
    assert time.monotonic() - began >= SLOW_MS / 1000


@pytest.mark.parametrize("method", METHODS)
def test_fault_never_suppresses_the_reply(camera, client, method):
    camera.inject_producer_fault(PERSONS, method, "never")
    with pytest.raises(GLib.Error) as failed:
        call_method(client, method, seconds=SLOW_MS / 1000)

    assert failed.value.matches(Gio.io_error_quark(), Gio.IOErrorEnum.TIMED_OUT)
    assert camera.streams(PERSONS) == 0


def test_slow_reply_of_a_removed_producer_is_an_error(camera, client):
    camera.inject_producer_fault(PERSONS, "GetSampleFrame", "slow", VERY_SLOW_MS)
    outcome = []
    client.connection.call(NAME, path_of(PERSONS), PRODUCER, "GetSampleFrame", None, None,
                           Gio.DBusCallFlags.NONE, BOUND_SECONDS * 1000, None,
                           lambda connection, result: outcome.append(result))
    wait_until(lambda: camera.calls(RECEIVER) == 1, "the question has arrived")
    camera.remove_producer(PERSONS)

    def has_input():
        GLib.MainContext.default().iteration(False)
        return outcome

    wait_until(has_input, "an answer")

    with pytest.raises(GLib.Error) as failed:
        client.connection.call_finish(outcome[0])
    assert remote_error(failed) == ("UnknownObject", "the producer has gone")


def test_a_fault_affects_one_method_of_one_producer_only(camera, client):
    camera.inject_producer_fault(PERSONS, "GetSampleFrame", "empty")

    client.open(PERSONS).item()
    assert client.sample_frame(VEHICLES)


def test_a_fault_of_a_method_overrides_the_fault_of_the_service(camera, client):
    camera.inject_fault(RECEIVER, "wrong-type")
    camera.inject_producer_fault(PERSONS, "GetStreamFd", "empty")

    assert client.request_sample_frame(PERSONS).print_(True) == "(1,)"
    assert client.request_stream(PERSONS)[0].print_(True) == "()"
    assert client.request_stream(VEHICLES)[0].print_(True) == "(1,)"
    camera.clear_fault(RECEIVER)
    assert client.request_stream(PERSONS)[0].print_(True) == "()"
    client.open(VEHICLES).item()


def test_calls_of_both_methods_of_all_producers_are_counted(camera, client):
    client.sample_frame(PERSONS)
    client.open(VEHICLES)
    camera.inject_producer_fault(PERSONS, "GetStreamFd", "empty")
    client.request_stream(PERSONS)

    assert camera.calls(RECEIVER) == 3


# What is refused


KINDS = "error [TEXT], reply BODY, slow MILLISECONDS, never"


@pytest.mark.parametrize("words, text", [
    *[([verb, "Nobody", *rest], f"unknown producer 'Nobody'; there are: {PERSONS}, {VEHICLES}")
      for verb, *rest in (["remove-producer"], ["property", "Name", "none"], ["interface", PRODUCER],
                          ["sample-frame", "x"], ["inject-producer-fault", "GetStreamFd", "never"],
                          ["clear-producer-faults"], ["streams"], ["hang-up"], ["descriptors", "pipe"], ["pieces", "0", "0"])],
    (["add-producer", PERSONS], f"there is a producer '{PERSONS}' already"),
    (["add-producer", "a b"], f"a producer's name must be 1 to {MAX_NAME_BYTES} letters, digits and underscores, not "
                              "'a b'"),
    (["property", PERSONS, "Colour", "1"], "unknown property 'Colour'; there are: Name, NiceName, SupportedChannels"),
    (["property", PERSONS, "Name", "just 1"], "the bus carries no such value: 'just 1'"),
    (["property", PERSONS, "Name", "<just 1>"], "the bus carries no such value: '<just 1>'"),
    (["property", PERSONS, "Name", "()"], "the bus carries no such value: '()'"),
    (["interface", PERSONS, "none"], "not a name for a producer's interface: 'none'"),
    (["interface", PERSONS, PROPERTIES], f"not a name for a producer's interface: '{PROPERTIES}'"),
    (["inject-producer-fault", PERSONS, "Get", "never"],
     "unknown method 'Get'; there are: GetSampleFrame, GetStreamFd"),
    (["inject-producer-fault", PERSONS, "GetStreamFd", "badly"],
     f"unknown fault 'badly'; there are: {KINDS}, wrong-type, no-descriptor, wrong-index, empty"),
    (["inject-producer-fault", PERSONS, "GetSampleFrame", "no-descriptor"],
     f"unknown fault 'no-descriptor'; there are: {KINDS}, wrong-type, variant, nested, empty"),
    (["descriptors", PERSONS, "file"], "the descriptor must be socket or pipe, not 'file'"),
    (["descriptors", PERSONS, "pipe", "slow"], "its mode must be blocking or nonblocking, not 'slow'"),
    (["pieces", PERSONS, "-1", "0"], f"the number of bytes must be a number from 0 to {MAX_LINE_BYTES}, not '-1'"),
    (["pieces", PERSONS, "1", "60001"], "the pause in milliseconds must be a number from 0 to 60000, not '60001'"),
    (["rate", "1000001"], "the rate must be a number from 0 to 1000000, not '1000001'"),
    (["once", "maybe"], "once must be yes or no, not 'maybe'"),
])
def test_wrong_verbs_are_refused_and_change_nothing(camera, client, words, text):
    before = client.producers()
    assert camera.run_tell(*words) == (FAILURE, "", f"simcamera: {text}\n")

    assert client.producers() == before
    stream = client.open(PERSONS)
    assert os.readlink(f"/proc/self/fd/{stream.fd}").startswith("pipe:")
    stream.item()


def test_value_that_is_no_gvariant_is_refused(camera):
    with pytest.raises(Refused, match="^simcamera: the value is not in GVariant's text format: .+\n$"):
        camera.property(PERSONS, "Name", "(5")


def test_signals_end_the_camera_and_its_streams(start_camera, client):
    camera = start_camera()
    stream = client.open(PERSONS)
    stream.item()

    assert camera.end() == (0, "", "")
    stream.expect_end()
