# SPDX-License-Identifier: MIT
"""The switches of tessard-view: who can use them, and what they do."""

import concurrent.futures
import contextlib
import re

import pytest

from controlclient import ControlClient, path_of
from daemon import VIDEO_TRACKER
from fakeservice import FakeService, properties
from installation import (DOCUMENT_PLUGIN, EVENT_PLUGIN, JSON_PLUGIN, SCENE_PLUGIN, UNPRIVILEGED_GROUP, run_by_root,
                          user_of_tests)
from scenes import BUSY_SECONDS
from viewgateway import LIMITS, error_of
from waiting import wait_until

PLUGINS = (EVENT_PLUGIN, SCENE_PLUGIN, JSON_PLUGIN, DOCUMENT_PLUGIN)

SWITCH = {"producer": VIDEO_TRACKER, "channel": 1, "enabled": True, "configuration": "profile1"}


@pytest.fixture(name="switch_bus")
def make_switch_bus(start_bus):
    """A bus whose policy lets the gateway's user switch producers."""
    return start_bus(administrators=UNPRIVILEGED_GROUP) if run_by_root() else start_bus()


@pytest.fixture(name="switching_daemon")
def make_switching_daemon(switch_bus, start_daemon):
    return start_daemon(on=switch_bus, plugins=PLUGINS, speed=4, world_seconds=BUSY_SECONDS)


@pytest.fixture(name="gateway")
def make_gateway(switching_daemon, view, switch_bus):
    gateway = view(switching_daemon.socket_path, "--control", on=switch_bus,
                   kinds=("--event", "--analytics", "2"))
    wait_for_producers(gateway)
    return gateway


def wait_for_producers(gateway):
    with gateway.stream() as stream:
        stream.find("producers", lambda data: data["available"])


def channels_of(data, producer):
    return {channel["channel"]: (channel["enabled"], channel["configuration"])
            for found in data["producers"] if found["name"] == producer for channel in found["channels"]}


def test_switch(gateway, switch_bus):
    with contextlib.closing(ControlClient(switch_bus)) as control, gateway.stream() as one, gateway.stream() as other:
        for body, state in ((SWITCH, (True, "profile1")),
                            (SWITCH | {"enabled": False}, (False, "")),
                            ({"producer": VIDEO_TRACKER, "channel": 1, "enabled": True}, (True, VIDEO_TRACKER))):
            reply = gateway.post(body)
            assert (reply.status, reply.text) == (204, b"")
            assert [found[1:] for found in control.channels(VIDEO_TRACKER) if found[0] == 1] == [state]
            for stream in (one, other):
                assert stream.find("producers", lambda data: channels_of(data, VIDEO_TRACKER).get(1) == state)


def test_frames_follow_the_switch(gateway, start_camera, switch_bus):
    """A daemon's stream has the producers that are enabled when it is requested."""
    start_camera(on=switch_bus)
    with gateway.stream() as stream:
        stream.find("state", lambda data: data["connected"])
        for name in ("profile1", "profile2"):
            assert gateway.post(SWITCH | {"configuration": name}).status == 204
            assert stream.find("frame", lambda data: data["Frame"][0].get("@Source") == name)


@pytest.mark.parametrize("body, status, text", [
    ({"producer": "Nothing", "channel": 1, "enabled": True}, 404, "There is no producer 'Nothing'."),
    (SWITCH | {"channel": 99}, 409, "Tried to enable/disable producer on non-supported channel"),
    (SWITCH | {"channel": -1}, 409, "Tried to enable/disable producer on non-supported channel"),
    (SWITCH | {"configuration": 'a"b'}, 400,
     "The configuration contains a quotation mark, which would make the producer's frames malformed."),
    (SWITCH | {"more": 1}, 400, None),
    (b"", 400, "line 1, column 1: '{' expected"),
    (b"\xff", 400, None),
    (b"[" * 4000, 400, None),
])
def test_switch_that_fails(gateway, body, status, text):
    reply = gateway.post(body)
    assert reply.status == status
    assert text is None or error_of(reply) == text


@pytest.mark.parametrize("headers, status", [
    ({"Authorization": None}, 401),
    ({"Authorization": "Bearer"}, 401),
    ({"Authorization": "Bearer " + 64 * "0"}, 401),
    ({"Authorization": "Basic {token}"}, 401),
    ({"Authorization": "Bearer {token}0"}, 401),
    ({"Origin": None}, 403),
    ({"Origin": "null"}, 403),
    ({"Origin": "http://evil.example"}, 403),
    ({"Origin": "http://127.0.0.1"}, 403),
    ({"Origin": "http://localhost:{port}"}, 403),
    ({"Host": "evil.example:{port}", "Origin": "http://evil.example:{port}"}, 403),
    ({"Sec-Fetch-Site": "cross-site"}, 403),
    ({"Sec-Fetch-Site": "same-site"}, 403),
    ({"Content-Type": None}, 415),
    ({"Content-Type": "text/plain"}, 415),
    ({"Content-Type": "application/x-www-form-urlencoded"}, 415),
    ({"Content-Length": str(LIMITS["VIEW_BODY_BYTES_MAX"] + 1)}, 413),
    ({"Content-Length": str(2**62)}, 413),
    ({"Content-Length": None, "Transfer-Encoding": "chunked"}, 411),
])
def test_refused_switch(gateway, switch_bus, headers, status):
    headers = {name: value and value.format(token=gateway.token, port=gateway.port) for name, value in headers.items()}
    reply = gateway.post(SWITCH, **headers)
    assert reply.status == status and error_of(reply)
    with contextlib.closing(ControlClient(switch_bus)) as control:
        assert not any(enabled for _, enabled, _ in control.channels(VIDEO_TRACKER))


@pytest.mark.parametrize("headers", [
    {"Sec-Fetch-Site": "same-origin"},
    {"Host": "localhost:{port}", "Origin": "http://localhost:{port}"},
    {"Content-Type": "application/json; charset=utf-8"},
    {"Authorization": "bearer {token}"},
    {"Expect": "100-continue"},
])
def test_accepted_switch(gateway, headers):
    headers = {name: value.format(token=gateway.token, port=gateway.port) for name, value in headers.items()}
    assert gateway.post(SWITCH, **headers).status == 204


def test_read_only(switching_daemon, view, switch_bus):
    gateway = view(switching_daemon.socket_path, on=switch_bus)
    wait_for_producers(gateway)
    for token in ("", 64 * "0", "None"):
        reply = gateway.post(SWITCH, Authorization=f"Bearer {token}")
        assert (reply.status, error_of(reply)) == (403, "The server runs without --control.")


@pytest.mark.skipif(not run_by_root(), reason="only root can be several users")
def test_user_who_may_not_switch(start_daemon, view):
    daemon = start_daemon(plugins=PLUGINS)
    gateway = view(daemon.socket_path, "--control")
    wait_for_producers(gateway)
    reply = gateway.post(SWITCH)
    assert (reply.status, error_of(reply)) == (
        409, "The bus policy refused the call: only root and members of the group 'tessard-admin' can enable and disable "
             "producers.")


def test_daemon_that_is_not_there(switch_bus, view, tmp_path):
    gateway = view(tmp_path / "none", "--control", on=switch_bus)
    reply = gateway.post(SWITCH)
    assert (reply.status, error_of(reply)) == (503, "The daemon is not on the bus.")


def test_daemon_that_does_not_reply(start_bus, view, workspace):
    bus = start_bus(owner=user_of_tests(), administrators=UNPRIVILEGED_GROUP if run_by_root() else None)
    most = LIMITS["VIEW_SWITCHES_MAX"]
    with contextlib.closing(FakeService(bus)) as service, concurrent.futures.ThreadPoolExecutor(most) as pool:
        service.producers = {path_of(VIDEO_TRACKER): properties(VIDEO_TRACKER)}
        service.silent.add("SetChannelsEnabled")
        service.start()
        gateway = view(workspace.path / "none", "--control", on=bus)
        with gateway.stream() as stream:
            stream.find("producers", lambda data: data["available"])
            # The stream finds no daemon's socket.
            gateway.take_log(1)
        replies = [pool.submit(gateway.post, SWITCH) for _ in range(most)]
        wait_until(lambda: len(service.kept) == most, "the daemon has the calls")
        assert gateway.get("/info").status == 200
        reply = gateway.post(SWITCH)
        assert (reply.status, error_of(reply)) == (503, "Too many switches wait for the daemon.")
        service.close()
        assert {reply.result().status for reply in replies} == {502}
        reply = gateway.post(SWITCH)
        assert (reply.status, error_of(reply)) == (503, "The daemon is not on the bus.")


def test_token_is_another_one_each_time(daemon, view):
    tokens = {view(daemon.socket_path, "--control").token for _ in range(2)}
    assert len(tokens) == 2 and all(re.fullmatch("[0-9a-f]{64}", token) for token in tokens)


def test_token_is_not_in_the_log(daemon, view):
    # The fixture compares each line of the log.
    assert view(daemon.socket_path, "--control").token
