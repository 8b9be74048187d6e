# SPDX-License-Identifier: MIT
"""The daemon with tessard-receiver: detections of applications reach clients, also after one of the two is killed and
started again."""

import contextlib
import signal
import time

import pytest

from client import header
from external import (ANALYTICS, ANALYTICS_AND_EVENTS, DETECTOR, DETECTOR_ENABLED, EXTERNAL_PLUGINS, GATE, expect_alive,
                      expect_frames, numbered, producer_frames, wait_until_listed)
from installation import EVENT_PLUGIN
from receiverprocess import LIMITS
from waiting import wait_until

KILLED = -signal.SIGKILL


@pytest.fixture
def receiver(receiver_process):
    return receiver_process


@pytest.fixture
def start_detector(receiver, start_application):
    return lambda: start_application().register(DETECTOR)


@pytest.fixture
def application(start_detector):
    return start_detector()


@pytest.fixture
def daemon(application, control, start_daemon):
    started = start_daemon(plugins=(*EXTERNAL_PLUGINS, EVENT_PLUGIN), producers=DETECTOR_ENABLED)
    wait_until_listed(control, DETECTOR)
    return started


@contextlib.contextmanager
def streaming(daemon, header=ANALYTICS):
    with daemon.client() as client:
        yield client, client.start(header)


def wait_for_stream(receiver, before):
    """Waits until the daemon has opened a stream."""
    wait_until(lambda: receiver.descriptors() > before, "the daemon has opened its stream")


def expect_delivery(daemon, receiver, writer, *numbers):
    """Expects that a new client gets messages with these numbers."""
    before = receiver.descriptors()
    with streaming(daemon) as (_, stream):
        wait_for_stream(receiver, before)
        for number in numbers:
            writer.send(numbered(number))
        expect_frames(stream, *((GATE, number) for number in numbers))


def restart(receiver):
    receiver.start()
    receiver.wait_until_ready()


def test_detections_reach_every_client(daemon, receiver, application):
    writer = application.open_channel(DETECTOR)
    before = receiver.descriptors()
    with streaming(daemon) as (_, first), streaming(daemon) as (_, second):
        wait_until(lambda: receiver.descriptors() == before + 2, "both streams are open")
        for number in range(100):
            writer.send(numbered(number))
        for stream in (first, second):
            expect_frames(stream, *((GATE, number) for number in range(100)))
    wait_until(lambda: receiver.descriptors() == before, "both streams have ended")


def test_without_a_camera_only_detections_are_offered(start_daemon, receiver, application, control):
    daemon = start_daemon(plugins=EXTERNAL_PLUGINS, producers=DETECTOR_ENABLED)
    # There are no others.
    wait_until_listed(control, DETECTOR)
    for fields in ({"event": 1}, {"ptz": 1}):
        daemon.expect_reply(header(**fields))
    expect_delivery(daemon, receiver, application.open_channel(DETECTOR), 1, 2)
    assert daemon.log.take() == []


def test_client_gets_no_detection_from_before_its_request(daemon, receiver, application):
    writer = application.open_channel(DETECTOR)
    for number in range(1000):
        writer.send(numbered(number))

    expect_delivery(daemon, receiver, writer, 5000, 5001)


def test_stream_can_be_opened_before_the_channel(daemon, receiver, application):
    before = receiver.descriptors()
    with streaming(daemon) as (_, stream):
        wait_for_stream(receiver, before)
        application.open_channel(DETECTOR).send(numbered(7))
        expect_frames(stream, (GATE, 7))


def test_application_that_registers_again_reaches_its_clients(daemon, receiver, application, start_detector, control):
    before = receiver.descriptors()
    with streaming(daemon) as (_, stream):
        wait_for_stream(receiver, before)
        application.open_channel(DETECTOR).send(numbered(1))
        expect_frames(stream, (GATE, 1))
        application.close()
        receiver.wait_until_disconnected(DETECTOR)
        wait_until_listed(control, DETECTOR)

        start_detector().open_channel(DETECTOR).send(numbered(2))
        expect_frames(stream, (GATE, 2))


def test_receiver_is_killed_while_clients_stream(daemon, receiver, application, start_detector, control):
    """Streams of clients continue without the producer; new requests get its detections."""
    application.open_channel(DETECTOR)
    before = receiver.descriptors()
    with streaming(daemon, ANALYTICS_AND_EVENTS) as (client, stream):
        wait_for_stream(receiver, before)
        receiver.kill()
        wait_until_listed(control)
        restart(receiver)
        writer = start_detector().open_channel(DETECTOR)
        wait_until_listed(control, DETECTOR)
        expect_delivery(daemon, receiver, writer, 1, 2)
        expect_alive(client, stream)


def test_daemon_is_killed_while_clients_stream(daemon, receiver, application, control):
    """The application's channel stays open; new clients get no detection from before their request."""
    writer = application.open_channel(DETECTOR)
    before = receiver.descriptors()
    with streaming(daemon):
        wait_for_stream(receiver, before)
        assert daemon.end(signal.SIGKILL) == KILLED
        for number in range(1000):
            writer.send(numbered(number))
    daemon.start_again()
    daemon.wait_until_ready()
    wait_until_listed(control, DETECTOR)

    expect_delivery(daemon, receiver, writer, 5000)
    wait_until(lambda: receiver.descriptors() == before, "all streams are closed")


@pytest.mark.parametrize("receiver_first", [True, False], ids=["receiver first", "daemon first"])
def test_both_are_killed_and_started_again(daemon, receiver, application, start_detector, control, receiver_first):
    """In both orders, of the ends and of the starts."""
    application.open_channel(DETECTOR)
    before = receiver.descriptors()
    with streaming(daemon):
        wait_for_stream(receiver, before)
        ends = [receiver.kill, lambda: daemon.end(signal.SIGKILL)]
        for end in ends if receiver_first else reversed(ends):
            end()

    def start_daemon():
        daemon.start_again()
        daemon.wait_until_ready()

    starts = [lambda: restart(receiver), start_daemon]
    for start in starts if receiver_first else reversed(starts):
        start()
    writer = start_detector().open_channel(DETECTOR)
    wait_until_listed(control, DETECTOR)

    expect_delivery(daemon, receiver, writer, 1, 2, 3)


def test_client_that_does_not_read_affects_no_other(daemon, receiver, application):
    """Another client gets all messages for longer than messages can be queued."""
    writer = application.open_channel(DETECTOR)
    before = receiver.descriptors()
    with streaming(daemon), streaming(daemon) as (_, stream):
        wait_until(lambda: receiver.descriptors() == before + 2, "both streams are open")
        deadline = time.monotonic() + 2 * LIMITS["RECEIVER_QUEUE_MAX_AGE_MS"] / 1000
        number = 0
        numbers = (found for _, found in producer_frames(stream))
        while time.monotonic() < deadline:
            writer.send(numbered(number))
            assert next(numbers) == [number]
            number += 1
