# SPDX-License-Identifier: MIT
"""tessard-rtsp: its tracks, the daemon's streams behind them, access, and the transports."""

import concurrent.futures
import contextlib
import gzip
import hashlib
import pathlib
import random
import re
import signal
import socket
import subprocess

import pytest

from daemon import WARNING, Log
from documents import Document
from fakedaemon import metadata
from gatewayprocess import only_long, start_gateway
from installation import ALL_PLUGINS, run_by_root
from rtspclient import Ended, Packet, SenderReport, trusting
from rtspgateway import LIMITS, MALFORMED, is_state
from scenes import BUSY_SECONDS
from scenes import VIDEO as VIDEO_SCENES
from waiting import BOUND_SECONDS, wait_until

VIDEO, METADATA = 0, 1
VIDEO_CHANNEL, METADATA_CHANNEL = 0, 2

NO_DAEMON = "Channel 1: Could not connect to '{}': No such file or directory."
ENDED = "Channel 1: The daemon ended the stream."

EMPTY = (b'<?xml version="1.0" encoding="UTF-8"?><tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema"/>')


def connections_of(path):
    """The number of connections at a daemon's socket."""
    connected = "03"
    lines = pathlib.Path("/proc/net/unix").read_text(encoding="utf-8").splitlines()
    return sum(fields[5] == connected and fields[7:] == [str(path)] for fields in map(str.split, lines))


# Tracks


def test_description_has_both_tracks(daemon, serve):
    with serve(daemon.socket_path).client() as client:
        description = client.describe()
    media = re.findall(r"^m=(\w+) \d+ RTP/AVP (\d+)", description, re.MULTILINE)
    assert [kind for kind, _ in media] == ["video", "application"]
    assert f"a=rtpmap:{media[1][1]} vnd.onvif.metadata/90000" in description.splitlines()


def test_metadata_alone(daemon, serve):
    with serve(daemon.socket_path, "--event", "--no-video").client() as client:
        description = client.describe()
        assert re.findall(r"^m=(\w+)", description, re.MULTILINE) == ["application"]
        client.setup(0, 0)
        client.play()
        assert client.document_with(0, is_state)


def test_default_picture(daemon, serve):
    has_encoder = subprocess.run(["gst-inspect-1.0", "--exists", "x264enc"], check=False).returncode == 0
    with serve(daemon.socket_path, "--event").client() as client:
        assert f"a=rtpmap:96 {'H264' if has_encoder else 'JPEG'}/90000" in client.describe().splitlines()
        client.setup(VIDEO, VIDEO_CHANNEL)
        client.play()
        assert client.next_packet(VIDEO_CHANNEL).payload


@pytest.mark.parametrize("line, encoding", [
    ("videotestsrc ! video/x-raw,format=I420,width=64,height=48 ! jpegenc quality=50", "JPEG"),
    ("videotestsrc ! video/x-raw,format=RGB,width=64,height=48 ! rtpvrawpay", "RAW"),
])
def test_video_of_the_option(daemon, serve, line, encoding):
    live_line = line.replace("videotestsrc", "videotestsrc is-live=true")
    with serve(daemon.socket_path, "--event", "--video", live_line).client() as client:
        assert f" {encoding}/90000" in client.describe()


def test_video_that_fails(daemon, serve):
    gateway = serve(daemon.socket_path, "--event", "--video", "filesrc location=/nowhere ! jpegparse")
    with gateway.client() as client:
        assert client.request("DESCRIBE").status == 503
    lines = gateway.take_log(1)
    assert {(priority, text.partition(":")[0]) for priority, text in lines} == {(WARNING, "The video failed")}, lines


def test_channels_are_mounts(daemon, serve):
    gateway = serve(daemon.socket_path, "--event", "--channels", "2", "--no-video")
    with gateway.client() as client:
        for mount, status in (("1", 200), ("2", 200), ("3", 404), ("", 404)):
            assert client.request("DESCRIBE", f"rtsp://127.0.0.1:{gateway.port}/{mount}").status == status


def test_documents_are_those_of_the_daemon(daemon, serve):
    with serve(daemon.socket_path).client() as client:
        client.start()
        assert client.next_text(METADATA_CHANNEL) == EMPTY
        assert is_state(Document(client.next_text(METADATA_CHANNEL)))
        assert client.next_packet(VIDEO_CHANNEL).payload


def test_gzip(daemon, serve):
    with serve(daemon.socket_path, "--event", "--gzip", "--no-video").client() as client:
        assert "a=rtpmap:107 vnd.onvif.metadata+gzip/90000" in client.describe().splitlines()
        client.setup(0, 0)
        client.play()
        assert gzip.decompress(client.next_text(0)) == EMPTY
        assert is_state(Document(gzip.decompress(client.next_text(0))))


def test_every_kind_of_metadata(camera, start_daemon, serve):
    daemon = start_daemon(plugins=ALL_PLUGINS, speed=4, world_seconds=BUSY_SECONDS, coordinator_line=None,
                          producers=VIDEO_SCENES.enabled("Front"))
    gateway = serve(daemon.socket_path, "--event", "--ptz", "1", "--analytics", "2", "--no-video")
    wanted = {"Event", "PTZ", "VideoAnalytics"}
    with gateway.client() as client:
        client.start(tracks=1)
        assert client.next_text(0) == EMPTY
        for document in client.documents(0):
            wanted.discard(document.kind)
            if not wanted:
                break
    assert not wanted


@pytest.mark.parametrize("track, channel", [(VIDEO, VIDEO_CHANNEL), (METADATA, METADATA_CHANNEL)])
def test_clients_with_one_track_and_with_both(daemon, serve, track, channel):
    gateway = serve(daemon.socket_path)
    with gateway.client() as both:
        with gateway.client() as one:
            one.describe()
            one.setup(track, channel)
            one.play()
            one.next_packet(channel)
            both.start()
            both.next_packet(VIDEO_CHANNEL)
            assert both.document_with(METADATA_CHANNEL, is_state)
        with gateway.client() as third:
            third.start()
            assert third.document_with(METADATA_CHANNEL, is_state)
        both.next_packet(VIDEO_CHANNEL)
        assert both.document_with(METADATA_CHANNEL, is_state)


def test_clients_that_come_when_others_leave(daemon, serve):
    gateway = serve(daemon.socket_path)
    replies = []

    def come_and_leave():
        for _ in range(20):
            with gateway.client() as client:
                replies.append(client.request("DESCRIBE").status)
                client.setup(VIDEO, VIDEO_CHANNEL)
                client.play()
                client.next_packet(VIDEO_CHANNEL)

    with concurrent.futures.ThreadPoolExecutor() as threads:
        for done in [threads.submit(come_and_leave) for _ in range(3)]:
            done.result()
    assert replies == [200] * 60


# The streams of the daemon


def test_client_that_comes_late_has_the_state(daemon, serve):
    gateway = serve(daemon.socket_path)
    with gateway.client() as first, gateway.client() as second:
        first.start()
        assert first.document_with(METADATA_CHANNEL, is_state)
        second.start()
        assert second.document_with(METADATA_CHANNEL, is_state)
        assert first.document_with(METADATA_CHANNEL, is_state)


def test_clients_of_a_mount_share_a_stream(daemon, serve):
    gateway = serve(daemon.socket_path, "--event", "--no-video", "--channels", "2")
    with contextlib.ExitStack() as stack:
        clients = [stack.enter_context(gateway.client()) for _ in range(5)]
        for client in clients:
            client.start(tracks=1)
            assert client.document_with(0, is_state)
        assert connections_of(daemon.socket_path) == 1
        other = stack.enter_context(gateway.client())
        other.base = other.base.removesuffix("1") + "2"
        other.start(tracks=1)
        assert other.document_with(0, is_state)
        assert connections_of(daemon.socket_path) == 2
    wait_until(lambda: connections_of(daemon.socket_path) == 0, "the streams end with the clients")


def test_query_in_a_url_is_the_same_media(daemon, serve):
    gateway = serve(daemon.socket_path)
    with contextlib.ExitStack() as stack:
        client = stack.enter_context(gateway.client())
        client.start()
        threads = gateway.threads()
        for number in range(10):
            other = stack.enter_context(gateway.client())
            assert other.request("DESCRIBE", f"{other.base}?{number}").status == 200
        # A media of its own has more than five threads. Requests have a few, too.
        assert gateway.threads() < threads + 30


def test_description_takes_no_stream(daemon, serve):
    with serve(daemon.socket_path).client() as client:
        client.describe()
        client.setup(METADATA, METADATA_CHANNEL)
        assert connections_of(daemon.socket_path) == 0
        client.play()
        assert client.document_with(METADATA_CHANNEL, is_state)


def test_pause(daemon, serve):
    with serve(daemon.socket_path).client() as client:
        client.start()
        assert client.document_with(METADATA_CHANNEL, is_state)
        assert client.request("PAUSE").status == 200
        client.play()
        assert client.document_with(METADATA_CHANNEL, is_state)


def test_session_by_the_url_of_a_track(daemon, serve):
    with serve(daemon.socket_path).client() as client:
        client.describe()
        client.setup(VIDEO, VIDEO_CHANNEL)
        client.setup(METADATA, METADATA_CHANNEL)
        assert client.request("PLAY", f"{client.base}/stream=0").status == 200
        assert client.document_with(METADATA_CHANNEL, is_state)
        assert client.request("TEARDOWN", f"{client.base}/stream=0").status == 200


def test_silent_metadata_holds_nothing_up(serve, tmp_path, daemon):
    path = daemon.socket_path.with_name("none")
    gateway = serve(path)
    with gateway.client() as client:
        client.start()
        assert client.next_text(METADATA_CHANNEL) == EMPTY
        assert client.next_packet(VIDEO_CHANNEL).payload
        assert gateway.take_log(1) == [(WARNING, NO_DAEMON.format(path))]


def test_daemon_that_goes_and_comes_back(daemon, serve):
    gateway = serve(daemon.socket_path)
    with gateway.client() as client:
        client.start()
        assert client.document_with(METADATA_CHANNEL, is_state)
        daemon.end(signal.SIGKILL)
        assert gateway.take_log(1)[0] == (WARNING, ENDED)
        assert client.next_packet(VIDEO_CHANNEL).payload
        daemon.start_again()
        assert client.document_with(METADATA_CHANNEL, is_state)
    daemon.wait_until_ready()
    gateway.take_log()


@only_long
@pytest.mark.parametrize("reply, reason", [
    (b"FAIL\nThe camera has no events.\0", "The camera has no events."),
    (b"OK\0" + b"no packet" * 20, "The daemon's stream is malformed"),
], ids=["refused", "malformed"])
def test_stream_that_fails_begins_again(reachable_daemon, gdp, serve, reply, reason):
    gateway = serve(reachable_daemon.path)
    with gateway.client() as client:
        client.start()
        assert client.next_text(METADATA_CHANNEL) == EMPTY
        reachable_daemon.accept_request().send(reply)
        ((priority, text),) = gateway.take_log(1)
        assert priority == WARNING and reason in text
        assert client.next_packet(VIDEO_CHANNEL).payload
        reachable_daemon.accept_stream().send(gdp.document(metadata("again")))
        assert client.next_text(METADATA_CHANNEL) == metadata("again")


def test_documents_that_are_malformed(reachable_daemon, gdp, serve):
    gateway = serve(reachable_daemon.path)
    with gateway.client() as client:
        client.start()
        assert client.next_text(METADATA_CHANNEL) == EMPTY
        stream = reachable_daemon.accept_stream()
        for data in [*MALFORMED, metadata("last")]:
            stream.send(gdp.document(data))
            assert client.next_text(METADATA_CHANNEL) == data
        assert client.next_packet(VIDEO_CHANNEL).payload
        assert client.request("OPTIONS").status == 200


def test_document_that_is_too_long(reachable_daemon, gdp, serve):
    gateway = serve(reachable_daemon.path)
    size = LIMITS["RTSP_DOCUMENT_BYTES_MAX"]
    with gateway.client() as client:
        client.start()
        stream = reachable_daemon.accept_stream()
        stream.send(gdp.document(b"a" * (size + 1)))
        stream.send(gdp.document(metadata("next")))
        assert client.next_text(METADATA_CHANNEL) == EMPTY
        assert client.next_text(METADATA_CHANNEL) == metadata("next")
    assert gateway.take_log(1) == [(WARNING, f"A document of {size + 1} bytes is not sent.")]


# The start


@pytest.fixture(name="fail")
def make_fail(installation, bus, workspace):
    """Starts the program, which must fail; returns its exit status and its standard error."""
    with contextlib.closing(Log(workspace.folder() / "log")) as log:

        def run(*arguments):
            process = start_gateway(installation, bus, log, "tessard-rtsp", *arguments)
            _, err = process.communicate(timeout=BOUND_SECONDS)
            return process.returncode, err

        yield run


def test_wrong_usage(fail):
    usage = "Try 'tessard-rtsp --help'.\n"
    assert fail() == (2, f"tessard-rtsp: No kind of metadata is asked for.\n{usage}")
    assert fail("--event", "--address", "0.0.0.0") == \
        (2, f"tessard-rtsp: An address other than 127.0.0.1 needs --users, or --no-authentication.\n{usage}")
    assert fail("--event", "--users", "/nowhere") == \
        (2, f"tessard-rtsp: Could not read the users of '/nowhere': No such file or directory.\n{usage}")


def test_address_that_is_not_available(fail):
    assert fail("--event", "--no-video", "--address", "192.0.2.1", "--no-authentication") == \
        (1, "tessard-rtsp: Error binding to address 192.0.2.1:8554: Cannot assign requested address\n")


def test_port_that_is_in_use(daemon, serve, fail):
    port = serve(daemon.socket_path).port
    assert fail("--event", "--no-video", "--port", str(port)) == \
        (1, f"tessard-rtsp: Error binding to address 127.0.0.1:{port}: Address already in use\n")


def test_full_disk(daemon, serve):
    with open("/dev/full", "wb") as full:
        gateway = serve(daemon.socket_path, "--event", "--no-video", output=full)
    with gateway.client() as client:
        client.start(tracks=1)
        assert client.document_with(0, is_state)


# Access


def htdigest(user, password, realm="tessard"):
    return f"{user}:{realm}:{hashlib.md5(f'{user}:{realm}:{password}'.encode()).hexdigest()}\n"


@pytest.fixture(name="users")
def make_users(workspace):
    path = workspace.folder() / "users"
    path.write_text(htdigest("anna", "secret") + htdigest("ben", "hidden"), encoding="utf-8")
    path.chmod(0o644)
    return path


@pytest.mark.parametrize("user, status", [
    (None, 401), (("anna", "secret"), 200), (("ben", "hidden"), 200), (("anna", "hidden"), 401),
    (("eve", "secret"), 401),
])
def test_users_have_passwords(daemon, serve, users, user, status):
    with serve(daemon.socket_path, "--event", "--no-video", "--users", str(users)).client(user=user) as client:
        assert client.request("DESCRIBE").status == status
        if status == 200:
            client.setup(0, 0)
            client.play()
            assert client.document_with(0, is_state)


def test_every_request_of_a_session_needs_the_password(daemon, serve, users):
    gateway = serve(daemon.socket_path, "--event", "--no-video", "--users", str(users))
    with gateway.client(user=("anna", "secret")) as anna, gateway.client() as eve:
        anna.start(tracks=1)
        eve.session = anna.session
        for method in ("DESCRIBE", "SETUP", "PLAY", "PAUSE", "GET_PARAMETER", "SET_PARAMETER", "TEARDOWN"):
            reply = eve.request(method, f"{eve.base}/stream=0", {"Transport": "RTP/AVP/TCP"})
            assert reply.status == 401, method
        assert eve.request("OPTIONS").status == 200
        assert anna.document_with(0, is_state)


@pytest.fixture(name="certificate")
def make_certificate(workspace):
    folder = workspace.folder()
    files = folder / "certificate.pem", folder / "key.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj", "/CN=test", "-out",
                    files[0], "-keyout", files[1]], check=True, capture_output=True)
    for file in files:
        file.chmod(0o644)
    return files


def test_tls(daemon, serve, certificate, users):
    gateway = serve(daemon.socket_path, "--event", "--no-video", "--certificate", str(certificate[0]), "--key",
                    str(certificate[1]), "--users", str(users))
    assert gateway.url == f"rtsps://127.0.0.1:{gateway.port}/1"
    with gateway.client(user=("anna", "secret"), tls=trusting()) as client:
        client.start(tracks=1)
        assert client.document_with(0, is_state)
    with gateway.client() as client, pytest.raises(Ended):
        client.request("OPTIONS")


def test_server_is_at_the_loopback_address_alone(daemon, serve):
    gateway = serve(daemon.socket_path)
    with gateway.client() as client:
        client.describe()
        client.setup_transport(VIDEO, "RTP/AVP;unicast;client_port=40000-40001")
        listening = subprocess.run(["ss", "-Hlntup"], check=True, capture_output=True, text=True).stdout
    own = [line.split()[4] for line in listening.splitlines() if f"pid={gateway.process.pid}," in line]
    assert len(own) == 3
    assert all(address.startswith("127.0.0.1:") for address in own), own


# Transports


def udp_pair():
    """Two sockets at neighbouring ports, the first one even. A gateway of a run beside this one can still send to ports
    that a client has left, so they are not the first free ones."""
    for port in random.sample(range(40000, 60000, 2), 100):
        pair = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2)]
        try:
            for index, found in enumerate(pair):
                found.bind(("127.0.0.1", port + index))
                found.settimeout(BOUND_SECONDS)
            return port, pair
        except OSError:
            for found in pair:
                found.close()
    raise AssertionError("no free ports")


def next_document(next_datagram):
    """The next document of a track, from a function that returns the next datagram."""
    packets = [Packet(next_datagram())]
    while not packets[-1].marker:
        packets.append(Packet(next_datagram()))
    return b"".join(packet.payload for packet in packets)


def test_udp(daemon, serve):
    port, (media, reports) = udp_pair()
    with serve(daemon.socket_path).client() as client, media, reports:
        client.describe()
        client.setup_transport(METADATA, f"RTP/AVP;unicast;client_port={port}-{port + 1}")
        client.play()
        packet = Packet(media.recv(65536))
        assert (packet.payload, packet.payload_type, packet.marker) == (EMPTY, 107, True)
        assert is_state(Document(next_document(lambda: media.recv(65536))))
        assert SenderReport(reports.recv(65536)).source == packet.source


class Sniffer:
    """The datagrams to a group on the loopback interface, since its creation, and to the port that is set later. The
    server's socket does not share its port, so another one of this machine cannot have it."""

    IP_PROTOCOLS, UDP = 0x0800, 17

    def __init__(self, group):
        self.group, self.port = socket.inet_aton(group), None
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(self.IP_PROTOCOLS))
        self.socket.settimeout(BOUND_SECONDS)
        self.socket.bind(("lo", self.IP_PROTOCOLS))

    def next(self):
        while True:
            packet = self.socket.recv(65536)
            header = (packet[0] & 15) * 4
            found = packet[16:20], int.from_bytes(packet[header + 2:header + 4], "big")
            if packet[9] == self.UDP and found == (self.group, self.port):
                return packet[header + 8:]


@pytest.mark.skipif(not run_by_root(), reason="only root sees the packets of an interface")
def test_multicast(daemon, serve):
    group = "239.255.77.1"
    gateway = serve(daemon.socket_path, "--event", "--no-video", "--multicast", group)
    # The first document can be sent before the reply to SETUP is here.
    sniffer = Sniffer(group)
    with sniffer.socket, gateway.client() as client:
        client.describe()
        transport = client.setup_transport(0, "RTP/AVP;multicast")
        assert f"destination={group};" in transport and "ttl=1;" in transport
        sniffer.port = int(re.search(r";port=(\d+)-", transport)[1])
        client.play()
        assert Packet(sniffer.next()).payload == EMPTY
        assert is_state(Document(next_document(sniffer.next)))


def test_multicast_must_be_allowed(daemon, serve):
    with serve(daemon.socket_path).client() as client:
        reply = client.request("SETUP", f"{client.base}/stream=0", {"Transport": "RTP/AVP;multicast"})
        assert reply.status == 461


def test_tracks_have_sources_of_their_own(daemon, serve):
    with serve(daemon.socket_path).client() as client:
        client.start()
        sources = {client.next_packet(channel).source for channel in (VIDEO_CHANNEL, METADATA_CHANNEL)}
        assert len(sources) == 2
        while {channel for channel, _ in client.reports} != {VIDEO_CHANNEL + 1, METADATA_CHANNEL + 1}:
            client.next_packet(VIDEO_CHANNEL)
        assert {report.source for _, report in client.reports} == sources
