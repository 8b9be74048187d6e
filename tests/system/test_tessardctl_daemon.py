# SPDX-License-Identifier: MIT
"""tessardctl's commands that use the bus, with the daemon."""

import json

import pytest

from daemon import RADAR_TRACKER, VIDEO_TRACKER
from installation import DOCUMENT_PLUGIN, EVENT_PLUGIN, JSON_PLUGIN, RADAR_PLUGIN, SCENE_PLUGIN
from tessardctl import REFUSED, SUCCESS, read_lines

PLUGINS = (EVENT_PLUGIN, SCENE_PLUGIN, RADAR_PLUGIN, JSON_PLUGIN, DOCUMENT_PLUGIN)

# producers.conf at the start of a daemon.
PRODUCERS = """\
[Producers.0.VideoMotionTracker]
Name=
[Producers.1.VideoMotionTracker]
Name=front door
[Producers.0.RadarMotionTracker]
Name=
"""

TABLE = """\
NAME                NICE NAME                  CHANNEL  STATE     CONFIGURATION
RadarMotionTracker  Quon radar motion tracker  1        disabled  -
VideoMotionTracker  Quon video motion tracker  1        disabled  -
VideoMotionTracker  Quon video motion tracker  2        enabled   front door
"""


@pytest.fixture
def start_with_trackers(start_daemon):
    def started(plugins=PLUGINS, producers=PRODUCERS):
        return start_daemon(plugins=plugins, producers=producers)

    return started


@pytest.fixture
def daemon(start_with_trackers):
    return start_with_trackers()


@pytest.fixture
def start_on_bus(start_tessardctl, bus):
    return lambda command, *args: start_tessardctl(command, "--bus", bus.address, *args)


@pytest.fixture
def run_on_bus(start_on_bus):
    return lambda *args: start_on_bus(*args).finish()


def test_list_of_producers(daemon, run_on_bus):
    result = run_on_bus("producers")
    assert (result.status, result.out.decode(), result.err) == (SUCCESS, TABLE, b"")


def test_all_properties_of_one_producer(daemon, run_on_bus):
    result = run_on_bus("show", VIDEO_TRACKER)
    head, frame = result.out.decode().split("Sample frame:\n")
    assert head == ("Name: VideoMotionTracker\nNice name: Quon video motion tracker\n"
                    "Object: /com/quon/MetadataServer1/Producers/VideoMotionTracker\n"
                    "Channel 1: disabled\nChannel 2: enabled as 'front door'\n")
    assert frame.startswith('<?xml version="1.0" encoding="UTF-8"?>\n<tt:SampleFrame ')
    assert frame.endswith("\n</tt:SampleFrame>\n")


def test_switching_is_stored_and_monitored(daemon, run_on_bus, start_on_bus):
    monitor = start_on_bus("monitor")
    assert read_lines(monitor.out, 1) == [b"daemon present, producers: 2\n"]

    assert run_on_bus("enable", RADAR_TRACKER, "1", "forecourt").status == SUCCESS
    assert run_on_bus("disable", VIDEO_TRACKER, "2").status == SUCCESS

    assert read_lines(monitor.out, 2) == [b"enabled RadarMotionTracker 1: forecourt\n",
                                          b"disabled VideoMotionTracker 2\n"]
    assert daemon.producers_conf.read_text(encoding="utf-8").split() == [
        "[Producers.0.VideoMotionTracker]", "Name=", "[Producers.1.VideoMotionTracker]", "Name=",
        "[Producers.0.RadarMotionTracker]", "Name=forecourt"]


@pytest.mark.parametrize("command, reason", [
    (["enable", VIDEO_TRACKER, "3", "x"],
     "Tried to enable/disable producer on non-supported channel. Channels of 'VideoMotionTracker': 1, 2."),
    (["disable", RADAR_TRACKER, "2"],
     "Tried to enable/disable producer on non-supported channel. Channels of 'RadarMotionTracker': 1."),
    (["disable", "--", VIDEO_TRACKER, "-1"],
     "Tried to enable/disable producer on non-supported channel. Channels of 'VideoMotionTracker': 1, 2."),
    (["enable", VIDEO_TRACKER, "1", "x" * 257], "Configuration name is longer than 256 bytes"),
    (["enable", "unknown", "1", "x"], "There is no producer 'unknown'."),
])
def test_refused_switch_changes_nothing(daemon, run_on_bus, command, reason):
    result = run_on_bus(*command)
    assert (result.status, result.out, result.err.decode()) == (REFUSED, b"", f"tessardctl: {reason}\n")
    assert run_on_bus("producers").out.decode() == TABLE


def apply(run_on_bus, path, producers):
    path.write_text(json.dumps(producers), encoding="utf-8")
    return run_on_bus("apply", str(path))


def channels(*tuples):
    return [{"Channel": channel, "Enabled": enabled, "Configuration": name} for channel, enabled, name in tuples]


def test_earlier_state_can_be_applied_again(daemon, run_on_bus, tmp_path):
    before = json.loads(run_on_bus("producers", "--json").out)
    result = apply(run_on_bus, tmp_path / "file", [
        {"Name": VIDEO_TRACKER, "Channels": channels((1, True, "a"), (2, False, ""))},
        {"Name": RADAR_TRACKER, "Channels": channels((1, True, "b"))}])
    assert (result.status, result.err) == (SUCCESS, b"")
    assert run_on_bus("producers").out.decode() != TABLE

    assert apply(run_on_bus, tmp_path / "file", before).status == SUCCESS
    assert run_on_bus("producers").out.decode() == TABLE


@pytest.mark.parametrize("name, channel, reason", [
    ("unknown", 1, "Producer with specified name does not exist"),
    (RADAR_TRACKER, 2, "Videochannel is not supported on producer. Channels of 'RadarMotionTracker': 1."),
])
def test_refused_file_changes_nothing(daemon, run_on_bus, tmp_path, name, channel, reason):
    result = apply(run_on_bus, tmp_path / "file", [{"Name": VIDEO_TRACKER, "Channels": channels((1, True, "a"))},
                                            {"Name": name, "Channels": channels((channel, True, "b"))}])
    assert (result.status, result.err.decode()) == (REFUSED, f"tessardctl: {reason}\n")
    assert run_on_bus("producers").out.decode() == TABLE


def test_monitor_survives_a_restart(start_with_trackers, start_on_bus):
    first = start_with_trackers()
    monitor = start_on_bus("monitor")
    assert read_lines(monitor.out, 1) == [b"daemon present, producers: 2\n"]

    first.end()
    assert read_lines(monitor.out, 1) == [b"daemon absent\n"]

    start_with_trackers(plugins=(EVENT_PLUGIN, SCENE_PLUGIN, DOCUMENT_PLUGIN),
                        producers=PRODUCERS.replace("front", "back"))
    assert read_lines(monitor.out, 3) == [b"daemon present, producers: 1\n", b"removed RadarMotionTracker\n",
                                          b"enabled VideoMotionTracker 2: back door\n"]
