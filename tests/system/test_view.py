# SPDX-License-Identifier: MIT
"""tessard-view: its page, the streams of events and of pictures, and what a client that comes late gets."""

import contextlib
import http.client
import json
import pathlib
import re
import signal
import socket

import pytest

from daemon import WARNING
from fakeservice import properties
from controlclient import path_of
from installation import ALL_PLUGINS, TREE
from scenes import BUSY_SECONDS
from scenes import VIDEO as VIDEO_SCENES
from waiting import wait_until

HEADERS = {
    "Content-Security-Policy": "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data:; "
                               "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'",
    "X-Content-Type-Options": "nosniff",
    "Referrer-Policy": "no-referrer",
    "Cross-Origin-Resource-Policy": "same-origin",
    "Cache-Control": "no-store",
}

PAGE = TREE / "gateways/view/page"

TYPES = {".html": "text/html; charset=utf-8", ".js": "text/javascript; charset=utf-8",
         ".css": "text/css; charset=utf-8", ".svg": "image/svg+xml"}

NO_DAEMON = "Channel 1: Could not connect to '{}': No such file or directory."
ENDED = "Channel 1: The daemon ended the stream."

EVENT = """<wsnt:NotificationMessage xmlns:wsnt="http://docs.oasis-open.org/wsn/b-2"><wsnt:Topic
 xmlns:tns1="http://www.onvif.org/ver10/topics">tns1:{topic}</wsnt:Topic><wsnt:Message>
<tt:Message UtcTime="2026-01-01T00:00:00Z"{operation}><tt:Source><tt:SimpleItem Name="Token" Value="{source}"/></tt:Source>
<tt:Data><tt:SimpleItem Name="State" Value="{value}"/></tt:Data></tt:Message></wsnt:Message></wsnt:NotificationMessage>"""


def document(*parts):
    return ('<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema">' + "".join(parts) +
            "</tt:MetadataStream>").encode()


def event(operation, value, source="1", topic="VideoSource/MotionAlarm"):
    attribute = f' PropertyOperation="{operation}"' if operation else ""
    return document("<tt:Event>", EVENT.format(operation=attribute, value=value, source=source, topic=topic),
                    "</tt:Event>")


def frame(source, number):
    return document(f'<tt:VideoAnalytics><tt:Frame UtcTime="2026-01-01T00:00:00Z" Source="{source}">'
                    f'<tt:Object ObjectId="{number}"/></tt:Frame></tt:VideoAnalytics>')


def is_connected(data):
    return data == {"connected": True}


def connections_of(path):
    """The number of connections at a daemon's socket."""
    lines = pathlib.Path("/proc/net/unix").read_text(encoding="utf-8").splitlines()
    return sum(fields[5] == "03" and fields[7:] == [str(path)] for fields in map(str.split, lines))


@pytest.fixture(name="fake")
def make_fake(reachable_daemon, view):
    """A view of a fake daemon."""
    return view(reachable_daemon.path)


# The page


@pytest.mark.parametrize("path", ["/", *(f"/{path.name}" for path in PAGE.iterdir() if path.suffix in TYPES)])
def test_page(daemon, view, path):
    file = PAGE / (path[1:] or "index.html")
    for method, text in (("GET", file.read_bytes()), ("HEAD", b"")):
        reply = view(daemon.socket_path).request(method, path)
        assert (reply.status, reply.text) == (200, text)
        assert reply.getheader("Content-Type") == TYPES[file.suffix]
        assert int(reply.getheader("Content-Length")) == file.stat().st_size
        assert {name: reply.getheader(name) for name in HEADERS} == HEADERS


@pytest.mark.parametrize("options, info", [
    ((), {"version": "0.0.0", "channels": [1], "video": [], "control": False}),
    (("--channels", "3", "--video", "test", "--control"),
     {"version": "0.0.0", "channels": [1, 2, 3], "video": [1], "control": True}),
])
def test_info(daemon, view, options, info):
    gateway = view(daemon.socket_path, *options)
    reply = gateway.get("/info")
    assert (reply.status, reply.getheader("Content-Type"), json.loads(reply.text)) == (200, "application/json", info)
    assert (gateway.token is not None) == info["control"]
    assert gateway.token is None or re.fullmatch("[0-9a-f]{64}", gateway.token)


@pytest.mark.parametrize("method, path, status, allow", [
    ("GET", "/none", 404, None),
    ("GET", "/page/index.html", 404, None),
    ("GET", "//", 404, None),
    ("GET", "/../webserver.cpp", 404, None),
    ("GET", "/%2e%2e/webserver.cpp", 404, None),
    ("GET", "/index.html%00", 400, None),
    ("GET", "/stream", 404, None),
    ("GET", "/stream?channel=2", 404, None),
    ("GET", "/stream?channel=0", 404, None),
    ("GET", "/stream?channel=+1", 404, None),
    ("GET", "/stream?channel=99999999999999999999", 404, None),
    ("GET", "/video?channel=1", 404, None),
    ("POST", "/", 405, "GET, HEAD"),
    ("OPTIONS", "/info", 405, "GET, HEAD"),
    ("OPTIONS", "*", 404, None),
    ("TRACE", "/", 405, "GET, HEAD"),
    ("HEAD", "/stream?channel=1", 405, "GET"),
    ("DELETE", "/video?channel=1", 405, "GET"),
    ("GET", "/producers", 405, "POST"),
    ("PUT", "/producers", 405, "POST"),
])
def test_refused_request(daemon, view, method, path, status, allow):
    reply = view(daemon.socket_path).request(method, path)
    assert (reply.status, reply.getheader("Allow")) == (status, allow)
    assert {name: reply.getheader(name) for name in HEADERS} == HEADERS


@pytest.mark.parametrize("host, status", [
    ("127.0.0.1:{}", 200), ("localhost:{}", 200), ("LOCALHOST:{}", 200), ("[::1]:{}", 200),
    ("127.0.0.1", 403), ("localhost", 403), ("evil.example", 403), ("evil.example:{}", 403), ("127.0.0.1:1", 403),
    ("127.0.0.1:{}, evil.example", 400), (None, 400),
])
def test_host(daemon, view, host, status):
    gateway = view(daemon.socket_path)
    for path in ("/", "/info"):
        assert gateway.get(path, Host=host and host.format(gateway.port)).status == status


def test_two_hosts(daemon, view):
    gateway = view(daemon.socket_path)
    with gateway.connect() as peer:
        peer.sendall(f"GET / HTTP/1.1\r\nHost: {gateway.host}\r\nHost: evil.example\r\n\r\n".encode())
        assert peer.recv(65536).split()[1] in (b"400", b"403")


@pytest.mark.parametrize("header", ["Content-Length: x", "Transfer-Encoding: gzip"])
@pytest.mark.parametrize("is_ended", [False, True])
def test_unknown_length(daemon, view, header, is_ended):
    """Also of a request that ends with the client's side."""
    gateway = view(daemon.socket_path)
    with gateway.connect() as peer:
        head = f"GET / HTTP/1.1\r\nHost: {gateway.host}\r\n{header}\r\n"
        peer.sendall((head if is_ended else f"{head}\r\n").encode())
        if is_ended:
            peer.shutdown(socket.SHUT_WR)
        reply = http.client.HTTPResponse(peer)
        reply.begin()
        assert (reply.status, json.loads(reply.read())) == (400, {"error": "The length of the request is not known."})
        assert {name: reply.getheader(name) for name in HEADERS} == HEADERS


def test_old_version_without_a_host(daemon, view):
    with view(daemon.socket_path).connect() as peer:
        peer.sendall(b"GET / HTTP/1.0\r\n\r\n")
        assert peer.recv(65536).split()[1] == b"403"


@pytest.mark.parametrize("site, status", [("same-origin", 200), ("none", 200), ("cross-site", 403), ("same-site", 403)])
def test_site(daemon, view, site, status):
    gateway = view(daemon.socket_path)
    headers = {"Sec-Fetch-Site": site}
    assert gateway.request("GET", "/info", headers=headers).status == status
    # A link of another site can lead to the page.
    assert gateway.request("GET", "/", headers=headers).status == 200


# The stream of events


def test_stream_begins_with_the_state(daemon, view):
    with view(daemon.socket_path).stream() as stream:
        head = stream.reply.head.decode().splitlines()
        assert head[0] == "HTTP/1.1 200 OK"
        assert "Content-Type: text/event-stream" in head
        assert {f"{name}: {value}" for name, value in HEADERS.items()} <= set(head)
        assert stream.next() == ("state", {"connected": False})
        assert stream.next()[0] == "producers"
        assert stream.find("state") == {"connected": True}


def test_every_kind_of_metadata(camera, start_daemon, view):
    daemon = start_daemon(plugins=ALL_PLUGINS, speed=4, world_seconds=BUSY_SECONDS, coordinator_line=None,
                          producers=VIDEO_SCENES.enabled("Front"))
    with view(daemon.socket_path, kinds=()).stream() as stream:
        state = stream.find("event", lambda data: data["operation"] == "Initialized")
        (status,) = stream.find("ptz")["PTZStatus"]
        (found,) = stream.find("frame", lambda data: "Object" in data["Frame"][0])["Frame"]
        assert {"Position", "UtcTime"} <= set(status)
        assert found["@Source"] == "Front" and found["Object"][0]["@ObjectId"]
        assert set(state) == {"topic", "operation", "source", "message"}
        assert state["source"] == list(state["message"]["Source"].values())


def test_only_what_the_options_ask_for(daemon, view):
    with view(daemon.socket_path, kinds=("--event-topic", "tns1:Device//.")).stream() as stream:
        for _ in range(3):
            assert stream.find("event")["topic"].startswith("Device/")


def test_clients_share_a_stream(daemon, view):
    gateway = view(daemon.socket_path, "--channels", "2")
    with contextlib.ExitStack() as stack:
        streams = [stack.enter_context(gateway.stream()) for _ in range(5)]
        for stream in streams:
            assert stream.find("event", lambda data: data["operation"] == "Initialized")
        assert connections_of(daemon.socket_path) == 1
        stack.enter_context(gateway.stream(2)).find("event")
        assert connections_of(daemon.socket_path) == 2
    wait_until(lambda: connections_of(daemon.socket_path) == 0, "the streams end with the clients")


def test_client_that_comes_late_has_the_state(fake, reachable_daemon, gdp):
    with fake.stream() as first:
        stream = reachable_daemon.accept_stream()
        for text in (event("Initialized", "false"), event("Initialized", "true", "2"), event("Changed", "true"),
                     event("Deleted", "true", "2"), event("", "once", "3"), frame("A", 1), frame("B", 2), frame("A", 3)):
            stream.send(gdp.document(text))
        first.find("frame", lambda data: data["Frame"][0]["Object"][0]["@ObjectId"] == 3)
        with fake.stream() as late:
            assert late.next() == ("state", {"connected": True})
            assert late.next()[0] == "producers"
            frames = [late.find("frame")["Frame"][0] for _ in range(2)]
            assert {(found["@Source"], found["Object"][0]["@ObjectId"]) for found in frames} == {("A", 3), ("B", 2)}
            assert late.next() == ("event", {
                "topic": "VideoSource/MotionAlarm", "operation": "Initialized", "source": ["1"],
                "message": {"UtcTime": "2026-01-01T00:00:00Z", "Source": {"Token": "1"}, "Data": {"State": "true"}}})
            stream.send(gdp.document(event("", "end")))
            assert late.next()[1]["message"]["Data"] == {"State": "end"}


@pytest.mark.parametrize("operation", ["Initialized", "Changed", "Deleted", ""])
def test_event(fake, reachable_daemon, gdp, operation):
    with fake.stream() as stream:
        reachable_daemon.accept_stream().send(gdp.document(event(operation, "a &quot;b&quot;", "x\\y", "RuleEngine/LineDetector/Crossed")))
        assert stream.find("event") == {
            "topic": "RuleEngine/LineDetector/Crossed", "operation": operation, "source": ["x\\y"],
            "message": {"UtcTime": "2026-01-01T00:00:00Z", "Source": {"Token": "x\\y"}, "Data": {"State": 'a "b"'}}}


def test_daemon_that_comes_later(view, tmp_path, start_daemon, daemon):
    path = daemon.socket_path
    daemon.end(signal.SIGKILL)
    gateway = view(path)
    with gateway.stream() as stream:
        gateway.take_log(1)
        daemon.start_again()
        assert stream.find("state", is_connected)
        assert stream.find("event")
    daemon.wait_until_ready()


def test_daemon_that_goes_and_comes_back(daemon, view):
    gateway = view(daemon.socket_path)
    with gateway.stream() as stream:
        stream.find("state", is_connected)
        stream.find("event")
        daemon.end(signal.SIGKILL)
        assert stream.find("state") == {"connected": False}
        assert gateway.take_log(1)[0] == (WARNING, ENDED)
        with gateway.stream() as late:
            assert late.next() == ("state", {"connected": False})
            assert late.next()[0] == "producers"
            daemon.start_again()
            for client in (late, stream):
                assert client.find("state") == {"connected": True}
                assert client.find("event", lambda data: data["operation"] == "Initialized")
    daemon.wait_until_ready()
    gateway.take_log()


@pytest.mark.parametrize("reply", [b"FAIL\nThe camera has no events.\0", b"OK\0" + b"no packet" * 20],
                         ids=["refused", "malformed"])
def test_stream_that_fails_begins_again(fake, reachable_daemon, gdp, reply):
    with fake.stream() as stream:
        reachable_daemon.accept_request().send(reply)
        assert fake.take_log(1)[0][0] == WARNING
        reachable_daemon.accept_stream().send(gdp.document(event("Initialized", "again")))
        assert stream.find("state", is_connected)
        assert stream.find("event")["message"]["Data"] == {"State": "again"}


@pytest.mark.parametrize("text", [
    b"", b"no XML", b"<a>" * 1000, b'<!DOCTYPE a [<!ENTITY b "c">]><a>&b;</a>', b"\xff\0\xfe", b"<a/>" + b" " * 100_000,
], ids=["empty", "text", "open", "entity", "bytes", "blanks"])
def test_malformed_document(fake, reachable_daemon, gdp, text):
    with fake.stream() as stream:
        daemon = reachable_daemon.accept_stream()
        for data in (event("Initialized", "1"), text or b" ", event("Changed", "2")):
            daemon.send(gdp.document(data))
        assert [stream.find("event")["message"]["Data"]["State"] for _ in range(2)] == ["1", "2"]
    for priority, line in fake.take_log():
        assert priority == WARNING and line.startswith("Channel 1: a document is left out: ")


def test_frame_that_is_too_long(fake, reachable_daemon, gdp):
    name = "x" * 1_100_000
    with fake.stream() as stream:
        daemon = reachable_daemon.accept_stream()
        daemon.send(gdp.document(frame(name, 1)))
        daemon.send(gdp.document(frame("next", 2)))
        assert stream.find("frame")["Frame"][0]["@Source"] == "next"


# The video


def test_pictures(daemon, view):
    gateway = view(daemon.socket_path, "--video", "test")
    with gateway.pictures() as first, gateway.pictures() as second:
        for pictures in (first, second):
            for _ in range(3):
                picture = next(pictures)
                assert picture[:2] == b"\xff\xd8" and picture[-2:] == b"\xff\xd9"
        running = gateway.threads()
    wait_until(lambda: gateway.threads() < running, "the video ends with its last client")
    with gateway.pictures() as again:
        assert next(again)[:2] == b"\xff\xd8"


def test_video_of_the_option(daemon, view):
    line = "videotestsrc is-live=true ! video/x-raw,width={},height=48,framerate=10/1"
    gateway = view(daemon.socket_path, "--channels", "2", "--video", line.format(64) + " ! jpegenc", "--video",
                   line.format(80))
    for channel, width in ((1, 64), (2, 80)):
        with gateway.pictures(channel) as pictures:
            assert size_of(next(pictures)) == (width, 48)


def size_of(picture):
    """Width and height in the frame header of a JPEG picture."""
    place = 2
    while picture[place + 1] not in (0xC0, 0xC1, 0xC2):
        place += 2 + int.from_bytes(picture[place + 2:place + 4], "big")
    height, width = picture[place + 5:place + 7], picture[place + 7:place + 9]
    return int.from_bytes(width, "big"), int.from_bytes(height, "big")


def test_video_that_fails(daemon, view):
    gateway = view(daemon.socket_path, "--video", "filesrc location=/nowhere ! jpegparse")
    with gateway.connect() as peer, gateway.stream() as stream:
        peer.sendall(f"GET /video?channel=1 HTTP/1.1\r\nHost: {gateway.host}\r\n\r\n".encode())
        ((priority, text),) = gateway.take_log(1)
        assert priority == WARNING and text.startswith("The video of channel 1: ")
        assert stream.find("event")


# Producers


def test_producers(started_service, stand_in_bus, view, tmp_path):
    gateway = view(tmp_path / "none", on=stand_in_bus)
    with gateway.stream() as stream:
        assert stream.find("producers", lambda data: data["available"]) == {"available": True, "producers": [
            {"name": "RadarMotionTracker", "nice_name": "Quon radar motion tracker",
             "channels": [{"channel": 1, "enabled": False, "configuration": ""}]},
            {"name": "VideoMotionTracker", "nice_name": "Quon video motion tracker",
             "channels": [{"channel": 1, "enabled": True, "configuration": "profile1"},
                          {"channel": 2, "enabled": False, "configuration": ""}]}]}
        started_service.change("VideoMotionTracker", [(1, False, ""), (2, True, 'a "name"')])
        assert stream.find("producers")["producers"][1]["channels"] == [
            {"channel": 1, "enabled": False, "configuration": ""},
            {"channel": 2, "enabled": True, "configuration": 'a "name"'}]
        started_service.add("Counter", "People\ncounter", [])
        assert [found["name"] for found in stream.find("producers")["producers"]][0] == "Counter"
        started_service.remove("RadarMotionTracker")
        assert [found["name"] for found in stream.find("producers")["producers"]] == ["Counter", "VideoMotionTracker"]
        started_service.close()
        assert stream.find("producers") == {"available": False, "producers": []}
    gateway.take_log(1)


def test_producers_of_the_wrong_type(fake_service, make_fake_service, stand_in_bus, view, tmp_path):
    fake_service.producers = {path_of("A"): properties("A") | {"ChannelsEnabled": properties("A")["Name"]}}
    fake_service.start()
    gateway = view(tmp_path / "none", on=stand_in_bus)
    with gateway.stream() as stream:
        assert stream.next()[0] == "state"
        assert stream.next() == ("producers", {"available": False, "producers": []})
        texts = [text for _, text in gateway.take_log(2)]
        assert any(text.startswith("The producers are not known: What the daemon sent") for text in texts), texts
        fake_service.producers = {path_of("B"): properties("B")}
        assert stream.find("producers")["producers"][0]["name"] == "B"


def test_bus_that_goes_and_comes_back(own_bus, view, start_daemon, tmp_path):
    gateway = view(tmp_path / "none", on=own_bus)
    with gateway.stream() as stream:
        daemon = start_daemon(on=own_bus)
        assert stream.find("producers", lambda data: data["available"])
        own_bus.stop()
        assert stream.find("producers") == {"available": False, "producers": []}
        own_bus.start()
        wait_until(lambda: any("The bus closed the connection" in text for _, text in gateway.take_log()), "the log")
        daemon.end(signal.SIGKILL)
        daemon.log.take()
        daemon.start_again()
        assert stream.find("producers", lambda data: data["available"])
    daemon.wait_until_ready()
    gateway.take_log()
