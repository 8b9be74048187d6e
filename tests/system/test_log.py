# SPDX-License-Identifier: MIT
"""The system log: clients control neither the length nor the number of its lines."""

import os
import re

import pytest

from client import header
from daemon import LOGGED_TEXT_BYTES, WARNING, clipped
from installation import EVENT_PLUGINS, PTZ_PLUGINS, RADAR_PLUGINS, SCENE_PLUGINS, TREE, documented_limit

MAX_REQUEST_BYTES = documented_limit("server.h", "SERVER_MAX_REQUEST_BYTES")

NOT_CREATED = "FAIL\nUnable to create source: %s."

CHANNEL = "Invalid value of 'channel'           parameter: '%s'."
CHANNEL_BOUNDS = "Value out of bounds for 'channel'         parameter: '%s'."
PTZ = "Invalid value of 'ptz'         parameter: '%s'."
ANALYTICS = "Invalid value of 'analytics' parameter: '%s'."
EVENT = "Invalid value of 'event' parameter: '%s'."

# The refused parameters of each kind of metadata, and the texts. Long values consist of digits if the parameter is a
# number.
REFUSALS = [
    pytest.param(EVENT_PLUGINS, "event", EVENT, "x", id="event"),
    pytest.param(PTZ_PLUGINS, "ptz", PTZ, "1", id="ptz"),
    pytest.param(PTZ_PLUGINS, "video_channel", CHANNEL_BOUNDS, "9", id="digits"),
    pytest.param(SCENE_PLUGINS, "video_channel", CHANNEL, "x", id="scenes"),
    pytest.param(RADAR_PLUGINS, "analytics", ANALYTICS, "2", id="radar"),
]

# Bytes that control a terminal or are not UTF-8, and their escapes in the log.
HOSTILE, ESCAPED = b"\x1b[2J\xff\t\x7f\xe2\x82 1", "\\x1b[2J\\xff\\x09\\x7f\\xe2\\x82 1"

# Enough long requests to fill a log.
DIGITS = 4000
REQUESTS = 200


def exchange(daemon, key, value):
    with daemon.client() as client:
        # Some factories check their parameters only in requests for their metadata.
        client.send(b"OPEN\nanalytics=1\n" + key.encode() + b"=" + value + b"\n\n")
        return client.read_to_end()


@pytest.mark.parametrize("plugins, key, text, character", REFUSALS)
@pytest.mark.parametrize("length", [LOGGED_TEXT_BYTES, LOGGED_TEXT_BYTES + 1, DIGITS, MAX_REQUEST_BYTES - 100])
def test_long_value_is_whole_in_the_reply_and_clipped_in_the_log(start_daemon, plugins, key, text, character, length):
    daemon = start_daemon(plugins=plugins)
    value = character * length

    assert exchange(daemon, key, value.encode()) == (NOT_CREATED % (text % value)).encode() + b"\0"
    logged = clipped(value) if length > LOGGED_TEXT_BYTES else value
    assert daemon.log.take(1) == [(WARNING, text % logged)]


@pytest.mark.parametrize("plugins, key, text", [
    (EVENT_PLUGINS, "event", EVENT), (PTZ_PLUGINS, "video_channel", CHANNEL), (PTZ_PLUGINS, "ptz", PTZ),
    (RADAR_PLUGINS, "analytics", ANALYTICS)])
def test_hostile_value_is_unchanged_in_the_reply_and_one_line_in_the_log(start_daemon, plugins, key, text):
    daemon = start_daemon(plugins=plugins)
    before, after = text.encode().split(b"%s")

    assert exchange(daemon, key, HOSTILE) == (b"FAIL\nUnable to create source: " + before + HOSTILE + after + b".\0")
    assert daemon.log.take(1) == [(WARNING, text % ESCAPED)]


def test_many_requests_make_one_short_line_each(start_daemon):
    daemon = start_daemon(plugins=PTZ_PLUGINS)
    request = header(video_channel="9" * DIGITS)
    for _ in range(REQUESTS):
        with daemon.client() as client:
            assert client.request(request).startswith("FAIL\nUnable to create source: Value out of bounds")

    lines = daemon.log.take(REQUESTS)
    assert lines == [(WARNING, CHANNEL_BOUNDS % clipped("9" * DIGITS))] * REQUESTS


def own_lines(*texts):
    """The lines of debug priority about clients of this process."""
    return [f"process {os.getpid()} of user {os.getuid()}: {text}" for text in texts]


def test_client_of_a_refusal_is_in_a_line_of_its_own(start_daemon):
    daemon = start_daemon()
    # The first request, which waits for the start, is refused too.
    assert set(daemon.log.debug_lines) == set(own_lines("request refused: Bad request, no metadata can be produced."))
    daemon.log.debug_lines.clear()

    exchange(daemon, "event", HOSTILE)
    assert daemon.log.take(1) == [(WARNING, EVENT % ESCAPED)]
    with daemon.client() as client:
        client.send(b"CLOSE\n")
        assert client.read_to_end() == b"FAIL\nUnknown: request: CLOSE\n (6)\0"
    assert daemon.log.take() == []
    assert daemon.log.debug_lines == own_lines(
        f"request refused: Unable to create source: {EVENT % ESCAPED}.",
        "request refused: Unknown: request: CLOSE\\x0a (6)")


def test_stream_has_no_line_about_its_client(daemon):
    daemon.log.debug_lines.clear()
    daemon.expect_stream()

    assert daemon.log.take() == []
    assert daemon.log.debug_lines == []


def test_unit_limits_the_rate_of_lines():
    unit = (TREE / "data/tessard.service.in").read_text(encoding="utf-8")
    docs = (TREE / "docs/architecture.md").read_text(encoding="utf-8")
    (seconds,) = re.findall(r"^LogRateLimitIntervalSec=(\d+)$", unit, re.MULTILINE)
    (burst,) = re.findall(r"^LogRateLimitBurst=(\d+)$", unit, re.MULTILINE)

    assert f"| lines of the log | {int(burst):,} in {seconds} s" in docs
