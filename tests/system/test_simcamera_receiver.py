# SPDX-License-Identifier: MIT
"""The simulated camera's metadata receiver: its built-in producers, changes of producers, and the kinds of streams."""

import json
import os
import time

import pytest
from gi.repository import GLib

from busclient import remote_error
from receiverclient import NAME, PRODUCER, path_of
from receiverprocess import ERROR_PREFIX, LIMITS, enough_descriptors
from simcamera import (BUILT_INS, PERSONS, RECEIVER, SLOW_MS, USAGE, VEHICLES, SimulatedCamera, item_at, refused,
                       seen_at)
from waiting import wait_until

MAX_STREAMS = LIMITS["RECEIVER_MAX_CHANNEL_STREAMS"]
MAX_PRODUCERS = LIMITS["RECEIVER_MAX_PRODUCERS"]


@pytest.fixture
def start_camera(start_full_camera):
    return start_full_camera


@pytest.fixture
def fast_camera(start_camera, workspace):
    """A camera whose world has objects at short intervals."""
    settings = workspace.folder() / "settings"
    settings.write_text("[World]\nspeed=20\n", encoding="utf-8")
    return start_camera(variables={"TESSARD_SIM_CONFIG": str(settings)})


def test_built_in_producers_are_objects_of_an_object_manager(start_camera, receiver_client):
    start_camera("--channels", "3")

    assert receiver_client.producers() == {
        path_of(PERSONS): {PRODUCER: {"Name": PERSONS, "NiceName": "Simulated person detector",
                                      "SupportedChannels": [1, 2, 3]}},
        path_of(VEHICLES): {PRODUCER: {"Name": VEHICLES, "NiceName": "Simulated vehicle detector",
                                       "SupportedChannels": [1, 2, 3]}}}
    assert receiver_client.properties(PERSONS).endswith("'SupportedChannels': <[uint32 1, 2, 3]>}")


@pytest.mark.parametrize("prop, value", [
    ("Name", "(<'PersonDetector'>,)"),
    ("NiceName", "(<'Simulated person detector'>,)"),
    ("SupportedChannels", "(<[uint32 1, 2]>,)"),
])
def test_properties_can_be_read_one_by_one(camera, receiver_client, prop, value):
    assert receiver_client.get(NAME, path_of(PERSONS), PRODUCER, prop).print_(True) == value
    assert camera.calls(RECEIVER) == 0


@pytest.mark.parametrize("name", BUILT_INS)
def test_sample_frame_is_an_item_of_the_producers_type(camera, receiver_client, name):
    item = json.loads(receiver_client.sample_frame(name))

    assert [seen["Type"] for seen in item["Objects"]] == [BUILT_INS[name]]
    assert ("Polygon" in item["Objects"][0]) == (name == PERSONS)
    assert receiver_client.sample_frame(name) == receiver_client.sample_frame(name)


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
def test_streams_have_the_present_objects_and_each_deletion_once(fast_camera, receiver_client, name):
    stream = receiver_client.open(name)
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


def test_first_item_is_immediate_and_current(camera, receiver_client):
    before = time.time()
    for name in BUILT_INS:
        item = receiver_client.open(name).item()
        assert before <= seen_at(item) <= time.time()
        assert item["Deleted"] == []


def test_items_come_ten_times_a_second_or_every_two_seconds(camera, receiver_client):
    """A new object is reported within two seconds after an empty item."""
    stream = receiver_client.open(PERSONS)
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


def test_all_producers_have_the_same_objects(fast_camera, receiver_client):
    """A producer with an unknown name has the objects of all built-in producers."""
    fast_camera.add_producer("Everything")
    streams = {name: receiver_client.open(name) for name in ("Everything", *BUILT_INS)}
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


def test_streams_do_not_disturb_each_other(camera, receiver_client):
    first, second = receiver_client.open(PERSONS), receiver_client.open(PERSONS, channel=2)
    assert camera.streams(PERSONS) == 2
    first.item()
    first.close()
    wait_until(lambda: camera.streams(PERSONS) == 1, "the first stream has ended")

    second.item()
    second.item()


def test_items_are_skipped_while_a_message_is_written(fast_camera, receiver_client):
    """The items of the time in which a slow message is written are not queued."""
    for name in ("Slow", "Quick"):
        fast_camera.add_producer(name)
    fast_camera.pieces("Slow", 100, 100)
    slow, quick = receiver_client.open("Slow"), receiver_client.open("Quick")
    times = [seen_at(quick.item())]
    last = seen_at(slow.item())

    def has_skipped():
        nonlocal last
        before, last = last, seen_at(slow.item())
        while times[-1] < last:
            times.append(seen_at(quick.item()))
        return sum(before < moment < last for moment in times) >= 3

    wait_until(has_skipped, "three items are skipped")


@pytest.mark.parametrize("channel", [0, 3, -1, 2147483647])
def test_channels_that_are_not_supported_get_no_stream(camera, receiver_client, channel):
    with pytest.raises(GLib.Error) as failed:
        receiver_client.request_stream(PERSONS, channel)

    assert remote_error(failed, ERROR_PREFIX) == ("UnsupportedChannel",
                                                  f"PersonDetector does not support channel {channel}")
    assert camera.streams(PERSONS) == 0


def test_streams_are_bounded(camera, receiver_client):
    enough_descriptors(MAX_STREAMS + 200)
    for _ in range(MAX_STREAMS):
        receiver_client.open(PERSONS)
    with pytest.raises(GLib.Error) as failed:
        receiver_client.open(PERSONS)

    assert remote_error(failed, ERROR_PREFIX) == ("LimitExceeded",
                                                  f"Channel 1 of PersonDetector has {MAX_STREAMS} streams")
    receiver_client.open(VEHICLES).item()


# Producers that are added and removed


@pytest.mark.parametrize("chosen", [[], [PERSONS], [VEHICLES], [VEHICLES, PERSONS]])
def test_only_chosen_producers_are_there(start_camera, receiver_client, chosen):
    start_camera("--producers", ",".join(chosen))

    assert receiver_client.names() == set(chosen)


@pytest.mark.parametrize("options, text", [
    (["--producers", "Unknown"], f"unknown producer 'Unknown'; there are: {PERSONS}, {VEHICLES}"),
    (["--producer", f"{PERSONS}=-"], f"there is a producer '{PERSONS}' already"),
    (["--producer", "A=-", "--producer", "B=-"], "'A' reads the standard input already"),
    (["--rate", "-1"], "the rate must be a number from 0 to 1000000, not '-1'"),
    (["--rate", "fast"], "the rate must be a number from 0 to 1000000, not 'fast'"),
])
def test_wrong_options_are_refused_with_a_hint(installation, bus, options, text):
    assert SimulatedCamera(installation, bus, *options).wait() == (
        USAGE, "", f"simcamera: {text}\nTry 'simcamera --help'.\n")


def test_streams_of_a_removed_producer_end_and_it_can_be_added_again(camera, receiver_client, watch):
    stream = receiver_client.open(PERSONS)
    watcher = watch()
    camera.remove_producer(PERSONS)

    assert receiver_client.names() == {VEHICLES}
    stream.expect_end()
    camera.add_producer(PERSONS)
    assert json.loads(receiver_client.sample_frame(PERSONS))["Objects"][0]["Type"] == "Human"
    assert receiver_client.producers()[path_of(PERSONS)][PRODUCER]["NiceName"] == "Simulated person detector"
    assert watcher.wait(2) == [("removed", PERSONS, f"'{PERSONS}'"), ("added", PERSONS, f"'{PERSONS}'")]


def test_added_producers_replay_a_file(camera, receiver_client, record):
    camera.remove_producer(PERSONS)
    camera.tell("rate", 0)
    camera.add_producer(PERSONS, record(b"x"))

    assert receiver_client.open(PERSONS).messages(3) == [b"x"] * 3
    assert receiver_client.producers()[path_of(PERSONS)][PRODUCER]["NiceName"] == PERSONS


def test_later_streams_have_the_current_rate(camera, receiver_client, record):
    camera.add_producer("Mine", record(item_at(0), item_at(3000)))
    waiting = receiver_client.open("Mine")
    first = waiting.item()
    camera.tell("rate", 0)
    camera.tell("once", "yes")
    stream = receiver_client.open("Mine")
    assert stream.messages(2) == [item_at(0), item_at(3000)]
    assert stream.read_some(1) == b""
    camera.tell("rate", "recorded")

    assert seen_at(receiver_client.open("Mine").item()) >= seen_at(first)
    assert not waiting.has_something()


def test_producers_are_bounded(camera, receiver_client):
    for number in range(MAX_PRODUCERS - len(BUILT_INS)):
        camera.add_producer(f"P{number}")

    assert refused(camera, "add-producer", "Another") == f"there are {MAX_PRODUCERS} producers already"
    assert len(receiver_client.names()) == MAX_PRODUCERS


def test_service_vanishes_and_appears(camera, receiver_client, watch):
    watcher = watch()
    names = [(name, f"'{name}'") for name in (PERSONS, VEHICLES)]
    camera.absent(RECEIVER)
    assert sorted(watcher.wait(2)) == [("removed", *name) for name in names]

    camera.present(RECEIVER)
    assert sorted(watcher.wait(4)[2:]) == [("added", *name) for name in names]
    receiver_client.open(PERSONS).item()


def test_hang_up_ends_streams_and_the_producer_stays(camera, receiver_client, watch):
    streams = [receiver_client.open(PERSONS), receiver_client.open(PERSONS)]
    other = receiver_client.open(VEHICLES)
    watcher = watch()
    camera.hang_up(PERSONS)

    assert camera.streams(PERSONS) == 0
    for stream in streams:
        stream.expect_end()
    other.item()
    receiver_client.open(PERSONS).item()
    assert watcher.wait(0) == []


@pytest.mark.parametrize("kind", [["pipe"], ["socket"]])
def test_descriptors_are_closed_after_streams(start_camera, receiver_client, record, kind):
    camera = start_camera("--rate", "0", "--producer", f"Mine={record(b'x')}")
    names = (PERSONS, "Mine")
    for name in names:
        camera.descriptors(name, *kind)
        receiver_client.open(name).message()
    camera.hang_up(PERSONS)
    camera.hang_up("Mine")
    before = camera.descriptor_count()

    for _ in range(3):
        streams = [receiver_client.open(name) for name in names for _ in range(5)]
        for stream in streams:
            stream.message()
            stream.close()
    wait_until(lambda: camera.streams(PERSONS) + camera.streams("Mine") == 0, "all streams have ended")
    wait_until(lambda: camera.descriptor_count() == before, "the descriptors are as before")


# Kinds of streams


@pytest.mark.parametrize("kind, is_socket, is_blocking", [
    (["pipe"], False, True),
    (["pipe", "nonblocking"], False, False),
    (["socket"], True, True),
    (["socket", "nonblocking"], True, False),
])
def test_descriptors_are_of_the_chosen_kind(camera, receiver_client, kind, is_socket, is_blocking):
    usual = receiver_client.open(PERSONS)
    camera.descriptors(PERSONS, *kind)
    stream = receiver_client.open(PERSONS)

    def form(of):
        return os.readlink(f"/proc/self/fd/{of.fd}").partition(":")[0], of.is_blocking()

    assert form(stream) == ("socket" if is_socket else "pipe", is_blocking)
    stream.item()
    assert form(usual) == ("pipe", True)


def test_messages_are_sent_in_pieces(start_camera, receiver_client, record):
    camera = start_camera("--rate", "0", "--producer", f"Mine={record(b'abcdefgh')}")
    camera.pieces("Mine", 3, SLOW_MS)
    stream = receiver_client.open("Mine")

    began = time.monotonic()
    assert [stream.read_some(3) for _ in range(4)] == [b"\x08\x00\x00", b"\x00ab", b"cde", b"fgh"]
    assert time.monotonic() - began >= 3 * SLOW_MS / 1000 * 0.9
    camera.pieces("Mine", 0, 0)
    assert wait_until(stream.message, "a whole message")


def test_pieces_delay_no_other_stream(camera, receiver_client):
    camera.pieces(PERSONS, 1, 60000)
    stream = receiver_client.open(PERSONS)
    assert len(stream.read_some(100)) == 1

    receiver_client.open(VEHICLES).item()
    stream.close()
    wait_until(lambda: camera.streams(PERSONS) == 0, "the closed read end is detected within a message")
