# SPDX-License-Identifier: MIT
"""tessard-rtsp with clients of others: GStreamer's rtspsrc, ffmpeg, and one from npm that is built on neither; and the
times of both tracks."""

import json
import re
import shutil
import socket
import subprocess
import sys
import threading
import time

import pytest

from client import Client
from documents import Document
from fakedaemon import metadata
from gatewayprocess import IS_SHORT, only_long
from installation import SANITIZED, TREE
from rtspclient import CLOCK_RATE
from rtspgateway import MALFORMED
from scenes import BUSY_SECONDS, VIDEO, is_inside
from waiting import BOUND_SECONDS

VIDEO_CHANNEL, METADATA_CHANNEL = 0, 2

PROTOCOLS = ["tcp", pytest.param("udp", marks=only_long)]

DOCUMENT = re.compile(rb"<\?xml .*?(?:</tt:MetadataStream>|MetadataStream [^>]*/>)", re.DOTALL)


@pytest.fixture(name="scenes")
def make_scenes(camera, start_daemon):
    """A daemon with objects in the picture."""
    return start_daemon(plugins=VIDEO.plugins, world_seconds=BUSY_SECONDS, producers=VIDEO.enabled("Front"))


@pytest.fixture(name="gateway")
def make_gateway(scenes, serve):
    return serve(scenes.socket_path, "--analytics", "2")


def check(documents, count):
    """Checks that these are valid documents, at least `count`, with objects."""
    assert len(documents) >= count
    assert any(found.objects for document in documents for found in Document(document).frames)


def read_documents(player, count):
    """The documents that a player prints, at least `count`; ends it then."""
    data = b""
    try:
        while len(DOCUMENT.findall(data)) < count:
            read = player.stdout.read1()
            assert read, "the player ended"
            data += read
    finally:
        player.kill()
        player.communicate()
    return DOCUMENT.findall(data)


# GStreamer


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_rtspsrc(installation, bus, gateway, protocol):
    pipeline = f"rtspsrc location={gateway.url} protocols={protocol} latency=200 ! tessardrtpdepay ! fdsink"
    player = subprocess.Popen(["gst-launch-1.0", "-q", *pipeline.split()], env=installation.pipeline_environment(bus),
                              stdout=subprocess.PIPE)
    check(read_documents(player, 20), 20)


def test_both_tracks_in_a_player(installation, bus, gateway):
    pipeline = (f"rtspsrc location={gateway.url} name=source source. ! application/x-rtp,media=video ! decodebin ! "
                "fakesink num-buffers=25 name=video source. ! application/x-rtp,media=application ! tessardrtpdepay ! "
                "fakesink num-buffers=5 name=metadata")
    played = subprocess.run(["gst-launch-1.0", *pipeline.split()], env=installation.pipeline_environment(bus),
                            capture_output=True, text=True, timeout=2 * BOUND_SECONDS, check=False)
    assert played.returncode == 0, played.stderr
    assert "Got EOS from element" in played.stdout


def test_documents_that_are_malformed(installation, bus, reachable_daemon, gdp, serve):
    gateway = serve(reachable_daemon.path, "--event", "--no-video")
    pipeline = f"rtspsrc location={gateway.url} protocols=tcp latency=0 ! tessardrtpdepay ! fdsink"
    player = subprocess.Popen(["gst-launch-1.0", "-q", *pipeline.split()], env=installation.pipeline_environment(bus),
                              stdout=subprocess.PIPE)
    try:
        stream = reachable_daemon.accept_stream()
        for data in MALFORMED:
            stream.send(gdp.document(data))
        data = b""
        while metadata("last") not in data:
            stream.send(gdp.document(metadata("last")))
            read = player.stdout.read1()
            assert read, "the player ended"
            data += read
    finally:
        player.kill()
        player.communicate()


# ffmpeg


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_ffprobe_sees_both_tracks(gateway, protocol):
    probe = subprocess.run(["ffprobe", "-v", "error", "-rtsp_transport", protocol, "-show_streams", "-of", "json",
                            gateway.url], capture_output=True, text=True, timeout=2 * BOUND_SECONDS, check=True)
    streams = json.loads(probe.stdout)["streams"]
    assert [stream["codec_type"] for stream in streams] == ["video", "data"]
    assert (streams[0]["width"], streams[0]["height"]) == (640, 360)


def test_ffmpeg_keeps_playing(gateway):
    seconds = 2 if IS_SHORT else 20
    played = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-rtsp_transport", "tcp", "-i", gateway.url, "-t", str(seconds),
                             "-map", "0:v", "-f", "null", "-", "-progress", "-"], capture_output=True, text=True,
                            timeout=2 * BOUND_SECONDS, check=True)
    assert int(re.findall(r"^frame=(\d+)$", played.stdout, re.MULTILINE)[-1]) >= 12 * seconds


def test_ffmpeg_prints_the_metadata(gateway):
    player = subprocess.Popen(["ffmpeg", "-nostdin", "-v", "error", "-i", gateway.url, "-map", "0:d", "-c", "copy", "-f",
                               "data", "-"], stdout=subprocess.PIPE)
    check(read_documents(player, 10), 10)


# A client of npm


@pytest.fixture(name="yellowstone", scope="module")
def make_yellowstone(tmp_path_factory):
    """The folder with the client, which npm installs."""
    if shutil.which("npm") is None or shutil.which("node") is None:
        pytest.skip("npm is not installed")
    folder = tmp_path_factory.mktemp("yellowstone")
    installed = subprocess.run(["npm", "install", "--no-audit", "--no-fund", "--prefix", folder, "yellowstone@2.1.0"],
                               capture_output=True, text=True, timeout=120, check=False)
    if installed.returncode != 0:
        pytest.skip("npm cannot install yellowstone")
    return folder / "node_modules/yellowstone"


@only_long
def test_yellowstone(gateway, yellowstone):
    played = subprocess.run(["node", TREE / "tests/system/yellowstone.js", yellowstone, gateway.url, "20"],
                            capture_output=True, timeout=2 * BOUND_SECONDS, check=False)
    assert played.returncode == 0, played.stderr.decode()
    format_name, *documents = played.stdout.split(b"\n")[:-1]
    assert format_name in (b"H264", b"JPEG")
    check(documents, 20)


# The times of both tracks


class Picture(threading.Thread):
    """Sends a live picture that is black until an object of the scene crosses the middle, and then white. It reads the
    scene itself and foresees the crossing."""

    FRAME_SECONDS = 0.04
    BYTES = 16 * 16 * 2
    FORESEEN_SECONDS = 0.1

    def __init__(self, daemon, port):
        super().__init__()
        self.client = Client(daemon.socket_path).start("analytics=2\n")
        self.port = port
        self.places = {}
        self.crossing = None  # the object, and the time
        self.ended = threading.Event()
        self.reader = threading.Thread(target=self.__read)

    def __read(self):
        while self.crossing is None and not self.ended.is_set():
            for frame in self.client.next_document().frames:
                for found in frame.objects.values():
                    if is_inside(found.centre):
                        self.__add(found.id, frame.time.timestamp(), found.centre[0])

    def __add(self, name, now, x):
        before = self.places.setdefault(name, (now, x))
        if now - before[0] < 0.5 or self.crossing is not None:
            return
        speed = (x - before[1]) / (now - before[0])
        crossing = now - x / speed if speed else 0
        if x * speed < 0 and self.FORESEEN_SECONDS < crossing - now < 2:
            self.crossing = name, crossing

    def watch(self):
        """Begins to foresee a crossing."""
        self.reader.start()

    def run(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            while not self.ended.wait(self.FRAME_SECONDS):
                is_white = self.crossing is not None and time.time() >= self.crossing[1]
                sender.sendto((b"\xff" if is_white else b"\x10") * self.BYTES, ("127.0.0.1", self.port))

    def finish(self):
        self.ended.set()
        self.join(BOUND_SECONDS)
        if self.reader.is_alive():
            self.reader.join(BOUND_SECONDS)
        self.client.close()


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as found:
        found.bind(("127.0.0.1", 0))
        return found.getsockname()[1]


class Recording:
    """What a client gets of the two tracks, with the RTP times."""

    def __init__(self, client):
        self.client = client
        self.pictures = [(0, False)]
        self.places = []
        self.payload = b""

    def step(self):
        packet = self.client.next_packet(VIDEO_CHANNEL)
        self.pictures.append((packet.time, packet.payload[-1] > 128))
        arrived = [packet for channel, packet in self.client.packets if channel == METADATA_CHANNEL]
        self.client.packets.clear()
        for packet in arrived:
            self.payload += packet.payload
            if packet.marker:
                self.__add(packet.time, Document(self.payload))
                self.payload = b""

    def __add(self, rtp_time, document):
        for frame in document.frames:
            self.places.append((rtp_time, {name: found.centre[0] for name, found in frame.objects.items()}))

    def clock_of(self, channel, rtp_time):
        """The wall clock at an RTP time, by the last report of the channel."""
        report = [report for found, report in self.client.reports if found == channel + 1][-1]
        ticks = (rtp_time - report.time + 2**31) % 2**32 - 2**31
        return report.clock + ticks / CLOCK_RATE

    def whitening(self):
        return next(self.clock_of(VIDEO_CHANNEL, at) for at, is_white in self.pictures if is_white)

    def crossing(self, name):
        places = [(self.clock_of(METADATA_CHANNEL, at), found[name]) for at, found in self.places if name in found]
        for (start, first), (end, last) in zip(places, places[1:]):
            if first * last <= 0 and first != last:
                return start + (end - start) * first / (first - last)
        return None

    def is_complete(self, crossing):
        """Whether the tracks have this crossing of an object."""
        return (crossing is not None and self.pictures[-1][1] and self.has_reports()
                and self.crossing(crossing[0]) is not None)

    def has_reports(self):
        return {channel for channel, _ in self.client.reports} == {VIDEO_CHANNEL + 1, METADATA_CHANNEL + 1}


# A busy machine delays a picture, or what the camera tells of an object, so a crossing has several tries.
TRIES = 3


def measure_crossing(scenes, serve):
    """The time between an object's crossing of the middle in the metadata, and in the video."""
    picture = Picture(scenes, free_port())
    picture.start()
    try:
        # The queue delays the video, as an encoder does.
        line = (f"udpsrc address=127.0.0.1 port={picture.port} "
                "caps=\"video/x-raw,format=(string)UYVY,width=16,height=16,framerate=25/1\" ! "
                "queue min-threshold-time=300000000 ! rtpvrawpay")
        with serve(scenes.socket_path, "--analytics", "2", "--video", line).client() as client:
            client.start()
            picture.watch()
            recording = Recording(client)
            deadline = time.monotonic() + 6 * BOUND_SECONDS
            while not recording.is_complete(picture.crossing):
                recording.step()
                assert time.monotonic() < deadline, "no object has crossed the middle in both tracks"
            return recording.whitening() - recording.crossing(picture.crossing[0])
    finally:
        picture.finish()


@pytest.mark.skipif(SANITIZED, reason="measures time")
def test_reports_line_video_and_metadata_up(scenes, serve):
    differences = []
    while not differences or abs(differences[-1]) > 0.1:
        assert len(differences) < TRIES, differences
        differences.append(measure_crossing(scenes, serve))
    print(f"difference: {1000 * differences[-1]:.1f} ms", file=sys.stderr)
