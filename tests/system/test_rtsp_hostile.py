# SPDX-License-Identifier: MIT
"""tessard-rtsp with clients that are too many, slow or silent, or send what is no request: it stays within its limits,
and other clients are not affected."""

import contextlib
import random
import socket
import time

import pytest

from gatewayprocess import IS_SHORT, SECONDS, is_closed, only_long, send_until_closed
from installation import needs_allocator
from rtspclient import Ended
from rtspgateway import LIMITS, is_state
from waiting import BOUND_SECONDS, wait_until

METADATA_CHANNEL = 2

MIB = 1024 * 1024

# What the threads that handle requests open once.
THREADS_DESCRIPTORS = 2 * LIMITS["RTSP_THREADS"]


@pytest.fixture(name="gateway")
def make_gateway(daemon, serve):
    return serve(daemon.socket_path)


@pytest.fixture(name="witness")
def make_witness(gateway):
    """A client that plays before, during and after each test."""
    with gateway.client() as client:
        client.start()
        assert client.document_with(METADATA_CHANNEL, is_state)
        yield client
        client.play()
        assert client.document_with(METADATA_CHANNEL, is_state)


def connect(gateway):
    found = socket.create_connection(("127.0.0.1", gateway.port), timeout=BOUND_SECONDS)
    found.settimeout(BOUND_SECONDS)
    return found


def test_many_connections(gateway, witness):
    count = LIMITS["RTSP_CONNECTIONS_MAX"] + 50 if IS_SHORT else 1000
    idle = gateway.descriptors()
    with contextlib.ExitStack() as stack:
        peers = [stack.enter_context(connect(gateway)) for _ in range(count)]
        most = idle + THREADS_DESCRIPTORS + LIMITS["RTSP_CONNECTIONS_MAX"]
        wait_until(lambda: gateway.descriptors() <= most, "further ones are closed")
        assert is_closed(peers[-1])
        assert witness.request("OPTIONS").status == 200
    gateway.wait_until_idle(idle + THREADS_DESCRIPTORS)
    with gateway.client() as client:
        assert client.request("OPTIONS").status == 200


def test_places_are_free_again(gateway, witness):
    for _ in range(3):
        with contextlib.ExitStack() as stack:
            for _ in range(LIMITS["RTSP_CONNECTIONS_MAX"]):
                stack.enter_context(connect(gateway))
        wait_until(lambda: options_work(gateway), "there is a place")


def options_work(gateway):
    try:
        with gateway.client() as client:
            return client.request("OPTIONS").status == 200
    except (Ended, ConnectionError):
        return False


@needs_allocator
@pytest.mark.parametrize("begin, more", [
    pytest.param(b"OPTIONS rtsp://127.0.0.1/1 RTSP/1.0\r\nCSeq: 1\r\n", b"A: b\r\n" * 1000, id="headers"),
    pytest.param(b"OPTIONS rtsp://127.0.0.1/1 RTSP/1.0\r\nCSeq: 1\r\nA: ", b"a" * 4096, id="header", marks=only_long),
    pytest.param(b"", b"a" * 4096, id="line", marks=only_long),
    pytest.param(b"", b"\r\n" * 4096, id="empty_lines", marks=only_long),
    pytest.param(b"$\0\xff\xff", b"\0" * 4096, id="packet", marks=only_long),
    pytest.param(b"", b"$\x05\0\0" * 1024, id="packets"),
    pytest.param(b"GET / HTTP/1.1\r\n", b"A: b\r\n" * 1000, id="http", marks=only_long),
])
def test_endless_request(gateway, witness, begin, more):
    before = gateway.status_bytes("VmRSS")
    with connect(gateway) as peer:
        peer.sendall(begin)
        sent = send_until_closed(peer, more, 256 * MIB)
        assert sent < 256 * MIB
    assert gateway.status_bytes("VmRSS") - before < 32 * MIB


def test_body_that_is_too_long(gateway, witness):
    for size in (LIMITS["RTSP_BODY_BYTES_MAX"] + 1, 2**31, 2**63, 10**30, -1):
        with connect(gateway) as peer, contextlib.suppress(OSError):
            peer.sendall(b"SET_PARAMETER rtsp://127.0.0.1/1 RTSP/1.0\r\nCSeq: 1\r\nContent-Length: %d\r\n\r\n" % size)
            peer.sendall(b"a" * 1000)
            peer.shutdown(socket.SHUT_WR)
            assert not peer.recv(65536).startswith(b"RTSP/1.0 200")


def test_garbage(gateway, witness):
    seed = random.randrange(2**32)
    print(f"seed {seed}")
    source = random.Random(seed)
    words = [b"DESCRIBE", b"SETUP", b"PLAY", b"TEARDOWN", b" rtsp://127.0.0.1/1", b"/stream=0", b"/stream=99999999999",
             b" RTSP/1.0", b"\r\n", b"\r\n\r\n", b"CSeq: 1", b"CSeq: -", b"Session: x", b"0-1", b"255-256", b"10",
             b"Transport: RTP/AVP/TCP;interleaved=", b"Transport: RTP/AVP;client_port=", b"Content-Length: ",
             b"$\0\0\x04", b"Range: npt=", b"Require: a,b", b"\0", b"Authorization: Digest username=\"",
             b"Scale: nan", b"Blocksize: 1", b"Blocksize: 0"]
    deadline = time.monotonic() + SECONDS
    while time.monotonic() < deadline:
        with connect(gateway) as peer, contextlib.suppress(ConnectionError):
            for _ in range(source.randrange(40)):
                peer.sendall(source.choice(words) if source.random() < 0.9 else source.randbytes(source.randrange(50)))


@needs_allocator
def test_sessions_that_begin_and_are_left(gateway, witness):
    deadline = time.monotonic() + SECONDS
    grown, count = None, 0
    while time.monotonic() < deadline:
        with gateway.client() as client:
            client.start()
            count += 1
        if count == 20:
            grown = gateway.status_bytes("VmRSS")
    assert grown is None or gateway.status_bytes("VmRSS") - grown < 32 * MIB
    assert gateway.threads() < 40


@needs_allocator
def test_client_that_does_not_read(gateway, witness):
    idle = gateway.descriptors()
    with gateway.client(receive_bytes=4096) as slow:
        slow.start()
        before = gateway.status_bytes("VmRSS")
        deadline = time.monotonic() + SECONDS
        while time.monotonic() < deadline:
            witness.next_packet(0)
        assert gateway.status_bytes("VmRSS") - before < 16 * MIB
    gateway.wait_until_idle(idle)


def test_flood_of_play(gateway, witness):
    with gateway.client() as client:
        client.start()
        deadline = time.monotonic() + min(SECONDS, 5)
        count = 0
        while time.monotonic() < deadline:
            assert client.request("PLAY").status == 200
            count += 1
        states = sum(is_state_text(text) for text in texts_of(client))
    most = (min(SECONDS, 5) + 2) * 1000 / LIMITS["RTSP_SYNC_POINT_MS"]
    assert count > most and states <= most


def texts_of(client):
    payload = b""
    for channel, packet in client.packets:
        if channel == METADATA_CHANNEL:
            payload += packet.payload
            if packet.marker:
                yield payload
                payload = b""


def is_state_text(text):
    return b'PropertyOperation="Initialized"' in text


@only_long
def test_silent_connections_are_closed(gateway, witness):
    begins = [b"", b"OPTIONS rtsp://127.0.0.1/1 RT", b"DESCRIBE * RTSP/1.0\r\nCSeq: 1\r\n"]
    started = time.monotonic()
    with contextlib.ExitStack() as stack:
        peers = [stack.enter_context(connect(gateway)) for _ in begins]
        for peer, begin in zip(peers, begins):
            peer.settimeout(LIMITS["RTSP_IDLE_SECONDS"] + BOUND_SECONDS)
            peer.sendall(begin)
        for peer in peers:
            assert is_closed(peer)
            assert time.monotonic() - started >= LIMITS["RTSP_IDLE_SECONDS"]


# Ports that no client of a test takes.
UNUSED_PORTS = "39998-39999"


@only_long
def test_session_without_reports_ends(gateway):
    with gateway.client() as client:
        client.describe()
        client.setup_transport(0, f"RTP/AVP;unicast;client_port={UNUSED_PORTS}")
        client.play()
        client.socket.settimeout(LIMITS["RTSP_SESSION_SECONDS"] + LIMITS["RTSP_IDLE_SECONDS"] + BOUND_SECONDS)
        assert is_closed(client.socket)
    with gateway.client() as client:
        client.start()
        assert client.document_with(METADATA_CHANNEL, is_state)
