# SPDX-License-Identifier: MIT
"""The producers' file at the daemon's start."""

import pytest

from daemon import ERROR, INFO, RADAR_TRACKER, VIDEO_TRACKER, WARNING, stored_names
from installation import RADAR_PLUGINS, SCENE_PLUGIN, TREE

STARTING = (INFO, "Starting.")


def expect_refused(daemon, text, reason):
    """Waits for a start that fails at the producers' file."""
    assert daemon.wait() == 1
    assert daemon.log.take() == [
        STARTING,
        (WARNING, f"could not load producer config from 'producers.conf': {text}"),
        (ERROR, f"could not load producer config: {reason}"),
    ]
    assert not daemon.socket_path.exists()


def test_missing_file_is_fatal(launch):
    daemon = launch(producers=None)

    expect_refused(daemon, "No such file or directory", "No such file or directory")
    assert not daemon.producers_conf.exists()


def test_malformed_file_is_fatal(launch):
    daemon = launch(producers="[Producers.0.VideoMotionTracker\n")

    expect_refused(daemon, "Key file contains line “[Producers.0.VideoMotionTracker” which is not a key-value "
                           "pair, group, or comment", "Invalid argument")


def test_folder_instead_of_the_file_is_fatal(launch):
    daemon = launch(producers=None, wrapper=lambda command, environment: (
        ["sh", "-c", 'mkdir producers.conf; exec "$0" "$@"', *command], environment))

    expect_refused(daemon, "Not a regular file", "Invalid argument")


@pytest.mark.parametrize("producers", ["", "# nothing\n", "[Something.else]\nName=\n"])
def test_file_without_producers_is_enough(start_daemon, producers):
    daemon = start_daemon(producers=producers)

    assert daemon.producers_conf.read_text(encoding="utf-8") == producers


def test_shipped_file_has_channel_1_of_both_trackers(start_daemon, control):
    shipped = (TREE / "data/producers.conf").read_text(encoding="utf-8")
    daemon = start_daemon(plugins=(SCENE_PLUGIN, *RADAR_PLUGINS), producers=shipped)

    assert control.names(VIDEO_TRACKER, RADAR_TRACKER) == {(VIDEO_TRACKER, 1): "", (RADAR_TRACKER, 1): ""}
    control.set_channels(VIDEO_TRACKER, (1, True, "profile1"))
    assert stored_names(daemon.producers_conf) == {(VIDEO_TRACKER, 1): "profile1", (RADAR_TRACKER, 1): ""}
