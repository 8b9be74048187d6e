# SPDX-License-Identifier: MIT
"""tessard-rtsp and tessard-mqtt follow the producers: a stream of the daemon has those that were enabled when it was
requested, and a daemon that starts again grants requests before it knows them."""

import contextlib
import signal
import threading

import pytest

from daemon import WARNING, producers_enabled
from external import DETECTOR, EXTERNAL_PLUGINS, wait_until_listed
from installation import EVENT_PLUGIN
from mqttgateway import FRAMES
from test_rtsp import connections_of
from waiting import suspended, wait_until

GATE, YARD = "Gate", "Yard"
ITEM = '{"Objects": [{"Id": 7, "BoundingBox": {"Left": -0.1, "Top": 0.1, "Right": 0.1, "Bottom": -0.1}}]}'
ITEM_SECONDS = 0.05
METADATA_CHANNEL = 0
ENDED = "Channel 1: The daemon ended the stream."
NOTHING = "Channel 1: Bad request, no metadata can be produced."


@contextlib.contextmanager
def sending(writer):
    """Sends items while the block runs."""
    ended = threading.Event()

    def send():
        while not ended.wait(ITEM_SECONDS):
            writer.send(ITEM)

    thread = threading.Thread(target=send)
    thread.start()
    try:
        yield
    finally:
        ended.set()
        thread.join()


@pytest.fixture
def writer(receiver_process, start_application):
    return start_application().register(DETECTOR).open_channel(DETECTOR)


@pytest.fixture
def start(writer, control, start_daemon):
    """Starts a daemon that knows the detector."""

    def start_it(producers):
        daemon = start_daemon(plugins=(*EXTERNAL_PLUGINS, EVENT_PLUGIN), producers=producers)
        wait_until_listed(control, DETECTOR)
        return daemon

    return start_it


class Rtsp:
    """What a client of tessard-rtsp gets."""

    def __init__(self, opened, daemon, serve):
        self.gateway = serve(daemon.socket_path, "--event", "--analytics", "2", "--no-video")
        self.client = opened.enter_context(self.gateway.client())
        self.client.start(1)

    def expect_frame(self, source):
        assert self.client.document_with(METADATA_CHANNEL,
                                         lambda document: source in [frame.source for frame in document.frames])

    def take_warnings(self):
        return [text for priority, text in self.gateway.take_log() if priority == WARNING]


class Mqtt:
    """What tessard-mqtt publishes."""

    def __init__(self, daemon, broker, subscriber, start_mqtt):
        self.gateway = start_mqtt(daemon.socket_path, broker)
        self.subscriber = subscriber

    def expect_frame(self, source):
        count = len(self.subscriber.of(f"{FRAMES}/{source}"))
        self.subscriber.wait_for_topic(f"{FRAMES}/{source}", count + 1)

    def take_warnings(self):
        return self.gateway.take_warnings()


@pytest.fixture(params=["rtsp", "mqtt"])
def start_gateway(request):
    with contextlib.ExitStack() as opened:

        def start_it(daemon):
            if request.param == "rtsp":
                return Rtsp(opened, daemon, request.getfixturevalue("serve"))
            return Mqtt(daemon, *map(request.getfixturevalue, ("broker", "subscriber", "start_mqtt")))

        yield start_it


def test_producer_that_is_enabled_and_renamed_later(start, start_gateway, writer, control):
    gateway = start_gateway(start(""))
    for name in (GATE, YARD):
        control.set_channels(DETECTOR, (1, True, name))
        with sending(writer):
            gateway.expect_frame(name)


def test_objects_come_back_with_the_daemon(start, start_gateway, writer, receiver_process):
    daemon = start(producers_enabled({(DETECTOR, 1): GATE}))
    gateway = start_gateway(daemon)
    with sending(writer):
        gateway.expect_frame(GATE)
        daemon.end(signal.SIGKILL)
        wait_until(lambda: ENDED in gateway.take_warnings(), "the daemon has ended the stream")
        # So the daemon has the gateway's request before it knows the detector.
        with suspended(receiver_process.process):
            daemon.start_again()
            daemon.wait_until_started()
            wait_until(lambda: connections_of(daemon.socket_path) > 0, "the gateway has connected")
        gateway.expect_frame(GATE)
    # tessard-mqtt has a stream of events too, which can end later, and without events and the detector there is nothing
    # that the daemon could grant.
    assert set(gateway.take_warnings()) <= {ENDED, NOTHING}
