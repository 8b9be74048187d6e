# SPDX-License-Identifier: MIT
"""tessard-view with clients that are too many, slow or silent, or send what is no request: it stays within its limits,
and other clients are not affected."""

import contextlib
import os
import pathlib
import random
import socket
import time

import pytest

from gatewayprocess import IS_SHORT, SECONDS, is_closed, only_long, send_until_closed
from installation import needs_allocator
from test_view import event, frame
from viewgateway import LIMITS, Reply
from waiting import BOUND_SECONDS, wait_until

MIB = 1024 * 1024

HEAD = "GET {} HTTP/1.1\r\nHost: {}\r\n\r\n"


@pytest.fixture(name="gateway")
def make_gateway(daemon, view):
    return view(daemon.socket_path, "--control", "--video", "test")


@pytest.fixture(name="witness")
def make_witness(gateway):
    """A client that gets events before, during and after each test, which begins when the gateway has all connections of
    its own."""
    with gateway.stream() as stream:
        missing = {"event", "producers"}
        while missing:
            name, data = stream.next()
            if name != "producers" or data["available"]:
                missing.discard(name)
        yield stream
        assert stream.find("event")


# Of clients that are too many.
CROWD = LIMITS["VIEW_CONNECTIONS_MAX"] + 50 if IS_SHORT else 1000


def test_many_silent_connections(gateway, witness):
    idle = gateway.descriptors()
    with contextlib.ExitStack() as stack:
        for _ in range(CROWD):
            stack.enter_context(gateway.connect())
        assert gateway.descriptors() <= idle + 2 * LIMITS["VIEW_CONNECTIONS_MAX"]
        # A connection that has a request gets its reply all the same.
        assert gateway.get("/info").status == 200
        assert witness.find("event")
    gateway.wait_until_idle(idle)


def test_many_streams(gateway, witness):
    idle, before = gateway.descriptors(), gateway.status_bytes("VmRSS")
    with contextlib.ExitStack() as stack:
        peers = [stack.enter_context(gateway.connect()) for _ in range(LIMITS["VIEW_CONNECTIONS_MAX"] - 1)]
        for peer in peers:
            peer.sendall(HEAD.format("/stream?channel=1", gateway.host).encode())
        for peer in peers:
            assert peer.recv(9) == b"HTTP/1.1 "
        for _ in range(CROWD - len(peers)):
            with gateway.connect() as peer:
                assert is_closed(peer)
        assert witness.find("event")
        assert gateway.descriptors() <= idle + LIMITS["VIEW_CONNECTIONS_MAX"]
        assert gateway.status_bytes("VmRSS") - before < 64 * MIB
    gateway.wait_until_idle(idle)
    assert is_served(gateway)


def test_places_are_free_again(gateway, witness):
    idle = gateway.descriptors()
    for path in ("/", "/stream?channel=1", "/video?channel=1", "/none"):
        with contextlib.ExitStack() as stack:
            for _ in range(LIMITS["VIEW_CONNECTIONS_MAX"] - 1):
                peer = stack.enter_context(gateway.connect())
                peer.sendall(HEAD.format(path, gateway.host).encode())
                assert peer.recv(9) == b"HTTP/1.1 ", path
        wait_until(lambda: is_served(gateway), "there is a place")
        gateway.wait_until_idle(idle + 10)


def is_served(gateway):
    try:
        return gateway.get("/info").status == 200
    except ConnectionError:
        return False


@needs_allocator
@pytest.mark.parametrize("begin, more", [
    (b"GET / HTTP/1.1\r\n", b"A: b\r\n" * 1000),
    (b"GET / HTTP/1.1\r\nA: ", b"a" * 4096),
    (b"GET /", b"a" * 4096),
    (b"", b"\r\n" * 4096),
    (b"", b"\0" * 4096),
    (b"POST /producers HTTP/1.1\r\nHost: {host}\r\nContent-Length: 99999999\r\n\r\n", b"a" * 4096),
    (b"POST /producers HTTP/1.1\r\nHost: {host}\r\nTransfer-Encoding: chunked\r\n\r\n", b"1000\r\n" + b"a" * 4096 + b"\r\n"),
    (b"GET / HTTP/1.1\r\nHost: {host}\r\nTransfer-Encoding: chunked\r\n\r\n", b"1000\r\n" + b"a" * 4096 + b"\r\n"),
    (b"", b"GET / HTTP/1.1\r\nHost: {host}\r\n\r\n" * 100),
    (b"GET /stream?channel=1 HTTP/1.1\r\nHost: {host}\r\n\r\n", b"a" * 4096),
], ids=["headers", "header", "line", "empty_lines", "zeros", "body", "chunks", "chunks_of_page", "pipeline", "stream"])
def test_endless_request(gateway, witness, begin, more):
    before = gateway.status_bytes("VmRSS")
    with gateway.connect() as peer:
        peer.sendall(begin.replace(b"{host}", gateway.host.encode()))
        assert send_until_closed(peer, more.replace(b"{host}", gateway.host.encode()), 256 * MIB) < 256 * MIB
    assert gateway.status_bytes("VmRSS") - before < 16 * MIB


def test_body_that_does_not_come_is_refused_at_once(gateway, witness):
    with gateway.connect() as peer:
        peer.sendall(f"POST /producers HTTP/1.1\r\nHost: {gateway.host}\r\nOrigin: http://{gateway.host}\r\n"
                     f"Authorization: Bearer {gateway.token}\r\nContent-Type: application/json\r\n"
                     "Content-Length: 100000000\r\n\r\n".encode())
        assert peer.recv(65536).startswith(b"HTTP/1.1 413 ")


def test_refusal_reaches_a_client_that_still_sends(gateway, witness):
    body = b"a" * (LIMITS["VIEW_REQUEST_BYTES_MAX"] * 8)
    for _ in range(10):
        assert gateway.request("POST", "/producers", body, {"Origin": "http://evil.example"}).status == 403


def test_garbage(gateway, witness):
    seed = random.randrange(2**32)
    print(f"seed {seed}")
    source = random.Random(seed)
    words = [b"GET", b"POST", b"HEAD", b"PUT", b" / ", b" /stream?channel=1 ", b" /video?channel=1 ", b" /producers ", b"*",
             b" HTTP/1.1", b" HTTP/1.0", b" HTTP/2.0", b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", b"\r\n", b"\r\n\r\n", b"\n",
             b"Host: " + gateway.host.encode() + b"\r\n", b"Host: \r\n", b"Content-Length: ", b"0", b"-1", b"10\r\n",
             b"Transfer-Encoding: chunked\r\n", b"Expect: 100-continue\r\n", b"Connection: Upgrade\r\n",
             b"Upgrade: websocket\r\n", b"Range: bytes=0-,5-,-1\r\n", b"\0", b"%", b"%00", b"http://", b"?a=b&a=%", b":"]
    deadline = time.monotonic() + SECONDS
    while time.monotonic() < deadline:
        with gateway.connect() as peer, contextlib.suppress(ConnectionError):
            for _ in range(source.randrange(40)):
                peer.sendall(source.choice(words) if source.random() < 0.9 else source.randbytes(source.randrange(50)))


@needs_allocator
def test_requests_leave_nothing_behind(gateway, witness):
    paths = ["/", "/info", "/none", "/stream?channel=1", "/video?channel=1"]
    grown, count = None, 0
    deadline = time.monotonic() + 2 * SECONDS
    while time.monotonic() < deadline:
        with gateway.connect() as peer:
            peer.sendall(HEAD.format(paths[count % len(paths)], gateway.host).encode())
            assert peer.recv(9) == b"HTTP/1.1 "
        count += 1
        if count == 200:
            grown = gateway.status_bytes("VmRSS")
    assert grown is None or gateway.status_bytes("VmRSS") - grown < 16 * MIB


@needs_allocator
def test_unknown_lengths_leave_nothing_behind(gateway, witness):
    path = "/" + 16 * 1024 * "a"
    before = gateway.status_bytes("VmRSS")
    for _ in range(4000):
        with gateway.connect() as peer:
            peer.sendall(f"GET {path} HTTP/1.1\r\nHost: {gateway.host}\r\nContent-Length: x\r\n\r\n".encode())
            assert peer.recv(12) == b"HTTP/1.1 400"
    assert gateway.status_bytes("VmRSS") - before < 16 * MIB


# Clients that do not read


@pytest.fixture(name="source")
def make_source(reachable_daemon, view, gdp, control):
    """A gateway that has its connection to the bus, and a function that sends documents of its daemon, as soon as there
    is a client."""
    gateway = view(reachable_daemon.path)
    wait_until(lambda: control.is_connected(gateway.process), "the gateway is connected to the bus")
    streams = []

    def send(*texts):
        if not streams:
            streams.append(reachable_daemon.accept_stream())
        for text in texts:
            streams[0].send(gdp.document(text))

    return gateway, send


@needs_allocator
def test_client_that_does_not_read_is_dropped(source):
    gateway, send = source
    text = "x" * 50_000
    with gateway.stream() as reader, gateway.stream(receive_bytes=4096) as stuck:
        send(event("", "first"))
        reader.find("event")
        before, idle = gateway.status_bytes("VmRSS"), gateway.descriptors()
        for number in range(4 * LIMITS["VIEW_QUEUE_BYTES_MAX"] // len(text)):
            send(event("", f"{number} {text}"))
            assert reader.find("event")["message"]["Data"]["State"].split()[0] == str(number)
        wait_until(lambda: gateway.descriptors() < idle, "the client is dropped")
        assert is_closed(stuck.peer)
        assert gateway.status_bytes("VmRSS") - before < 32 * MIB


def test_slow_client_gets_the_newest_frame(source):
    gateway, send = source
    name, count = "x" * 20_000, 500
    with gateway.stream() as reader, gateway.stream(receive_bytes=4096) as slow:
        for number in range(count):
            send(frame(name, number))
        last = f"{count - 1}"
        reader.find("frame", lambda data: str(data["Frame"][0]["Object"][0]["@ObjectId"]) == last)
        got = []
        slow.find("frame", lambda data: got.append(data) or str(data["Frame"][0]["Object"][0]["@ObjectId"]) == last)
        assert len(got) < count / 2


@needs_allocator
def test_client_that_does_not_read_pictures(gateway, witness):
    with gateway.connect() as stuck:
        stuck.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        reply = Reply(stuck, "/video?channel=1", gateway.host)
        assert reply.head
        before = gateway.status_bytes("VmRSS")
        with gateway.pictures() as pictures:
            deadline = time.monotonic() + SECONDS
            while time.monotonic() < deadline:
                assert next(pictures)
        assert gateway.status_bytes("VmRSS") - before < 16 * MIB


@only_long
def test_time_limits(gateway, witness):
    """Silent and slow clients, all at the same time."""
    begun = time.monotonic()
    texts = [b"", b"GET / HT", b"GET / HTTP/1.1\r\nHost: a\r\n",
             f"POST /producers HTTP/1.1\r\nHost: {gateway.host}\r\nOrigin: http://{gateway.host}\r\nAuthorization: Bearer "
             f"{gateway.token}\r\nContent-Type: application/json\r\nContent-Length: 100\r\n\r\n{{".encode()]
    with contextlib.ExitStack() as stack:
        peers = [stack.enter_context(gateway.connect()) for _ in texts]
        for peer, text in zip(peers, texts):
            peer.sendall(text)
        slow = stack.enter_context(gateway.connect())
        ended = None
        while ended is None and time.monotonic() < begun + 3 * BOUND_SECONDS:
            try:
                slow.sendall(b"A")
                time.sleep(0.2)
            except ConnectionError:
                ended = time.monotonic()
        assert ended is not None and ended - begun >= LIMITS["VIEW_REQUEST_SECONDS"]
        for peer in peers:
            assert is_closed(peer)


@only_long
def test_client_that_reads_nothing_more_is_dropped_in_time(gateway, witness):
    with gateway.connect() as stuck:
        stuck.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        assert Reply(stuck, "/video?channel=1", gateway.host).head
        idle = gateway.descriptors()
        wait_until(lambda: gateway.descriptors() < idle, "the client is dropped", 3 * BOUND_SECONDS)


# A UNIX socket


def test_unix_socket(daemon, view, workspace):
    path = workspace.folder(0o777) / "view"
    gateway = view(daemon.socket_path, "--listen", str(path), "--control")
    assert gateway.address == f"unix:{path}"
    assert pathlib.Path(path).stat().st_mode & 0o777 == 0o660
    for host in ("localhost", "camera.example", "10.0.0.1:8080"):
        assert gateway.get("/info", Host=host).status == 200
        body = {"producer": "Nothing", "channel": 1, "enabled": True}
        assert gateway.post(body, Host=host, Origin=f"https://{host}").status in (404, 503)
        assert gateway.post(body, Host=host, Origin="https://evil.example").status == 403
    with gateway.stream() as stream:
        assert stream.find("event")
    with gateway.connect() as peer:
        peer.sendall(b"GET / HTTP/1.0\r\n\r\n")
        assert peer.recv(65536).split()[1] == b"200"


def test_unix_socket_that_is_left_over(daemon, view, workspace):
    path = workspace.folder(0o777) / "view"
    with socket.socket(socket.AF_UNIX) as left:
        left.bind(str(path))
    os.chmod(path, 0o777)
    assert view(daemon.socket_path, "--listen", str(path)).get("/info").status == 200


@pytest.mark.parametrize("kind", ["file", "socket"])
def test_unix_socket_of_another_program(daemon, view, workspace, kind):
    path = workspace.folder(0o777) / "view"
    with contextlib.ExitStack() as stack:
        if kind == "file":
            path.write_text("text", encoding="utf-8")
        else:
            other = stack.enter_context(socket.socket(socket.AF_UNIX))
            other.bind(str(path))
            other.listen()
            os.chmod(path, 0o777)
        with pytest.raises(AssertionError, match="Address already in use"):
            view(daemon.socket_path, "--listen", str(path))
        assert path.exists()
