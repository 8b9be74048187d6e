# SPDX-License-Identifier: MIT
"""Applications of the metadata receiver that disconnect, come back, or unregister their producers."""

import time

import pytest
from gi.repository import GLib

from installation import run_by_root
from receiverclient import NAME, PRODUCER, path_of
from receiverprocess import ERROR_PREFIX, LIMITS, REGISTRY, REGISTRY_PATH, SAMPLE, Application, Refused, ended
from users import STRANGER, call
from waiting import BOUND_SECONDS, wait_until

GRACE_SECONDS = LIMITS["RECEIVER_GRACE_SECONDS"]

MINE = "Mine"


@pytest.fixture
def receiver(receiver_process):
    return receiver_process


@pytest.fixture
def watcher(receiver, watch):
    return watch()


def test_producer_outlives_its_application(receiver, application, start_application, receiver_client, watcher):
    """Its last message arrives, and its streams stay open. When it is registered again, they get its messages."""
    application.register(MINE)
    stream = receiver_client.open(MINE)
    application.open_channel(MINE).send("last")
    application.close()
    assert stream.message() == b"last"
    assert not stream.has_something(0.5)

    back = start_application()
    register_again(back)
    assert not stream.has_something()
    back.open_channel(MINE).send("back")
    assert stream.message() == b"back"
    assert watcher.wait(1) == [("added", MINE, f"'{MINE}'")]


def register_again(application, **arguments):
    """Registers the producer when the receiver has detected the end of the previous application."""

    def is_registered():
        try:
            return application.register(MINE, **arguments)
        except Refused as refused:
            assert refused.args[0] == "NameTaken"
            return None

    wait_until(is_registered, "the producer is registered again")


def test_new_description_is_announced(receiver, application, start_application, receiver_client, watcher):
    """Streams of channels that are still supported stay open."""
    application.register(MINE, channels=(1, 2))
    kept, ending = receiver_client.open(MINE, 1), receiver_client.open(MINE, 2)
    application.close()
    back = start_application()
    register_again(back, nice_name="new", channels=(1, 3), sample='{"Objects":[]}')

    assert receiver_client.sample_frame(MINE) == '{"Objects":[]}'
    assert receiver_client.producers()[path_of(MINE)][PRODUCER] == {
        "Name": MINE, "NiceName": "new", "SupportedChannels": [1, 3]}
    assert [what for what, *_ in watcher.wait(3)] == ["added", "removed", "added"]
    ending.expect_end()
    back.open_channel(MINE).send("back")
    assert kept.message() == b"back"


@pytest.mark.skipif(not run_by_root(), reason="only root can be several users")
def test_name_is_kept_for_its_user(receiver, application, start_application, bus, receiver_client):
    application.register(MINE)
    application.close()
    receiver.wait_until_disconnected(MINE)

    assert call(bus, STRANGER, NAME, REGISTRY_PATH, REGISTRY, "RegisterProducer",
                f"('{MINE}', '', [uint32 1], '{{}}', @a{{sv}} {{}})") == f"{ERROR_PREFIX}NameTaken"
    register_again(start_application())


def test_producer_is_removed_after_its_grace_period(receiver, application, receiver_client, watcher):
    application.register(MINE)
    stream = receiver_client.open(MINE)
    began = time.monotonic()
    application.close()
    wait_until(lambda: MINE not in receiver_client.names(), "the producer is removed", GRACE_SECONDS + BOUND_SECONDS)

    assert GRACE_SECONDS - 1 <= time.monotonic() - began
    assert stream.read_some(1) == b""
    assert watcher.wait(2)[1] == ("removed", MINE, f"'{MINE}'")


def test_unregistered_producer_ends_with_its_streams(receiver, application, receiver_client, watcher):
    """A stream ends after its queue is read. One that is not read ends after a time."""
    application.register(MINE)
    writer = application.open_channel(MINE)
    read, unread = receiver_client.open(MINE), receiver_client.open(MINE)
    texts = [b"x" * 10000, b"y" * 20000, b"last"]
    writer.send(*texts)
    application.unregister(MINE)

    assert receiver_client.names() == set()
    assert read.messages(3) == texts
    assert read.read_some(1) == b""
    writer.wait_until_ended()
    application.register(MINE)
    unread.expect_end()
    receiver_client.open(MINE)


def test_descriptors_are_closed(receiver, start_application, receiver_client):
    before = receiver.descriptors()
    for _ in range(3):
        application = start_application()
        application.register(MINE)
        writer = application.open_channel(MINE)
        streams = [receiver_client.open(MINE) for _ in range(5)]
        writer.send("{}")
        for stream in streams:
            stream.message()
            stream.close()
        application.unregister(MINE)
        application.close()

    wait_until(lambda: receiver.descriptors() == before, "the descriptors are closed")


def test_application_can_disconnect_at_every_stage(receiver, bus, receiver_client):
    """Only its producer remains."""
    before = receiver.descriptors()
    for stage in range(4):
        application = Application(bus)
        if stage == 0:
            application.start_call(NAME, REGISTRY_PATH, REGISTRY, "RegisterProducer",
                                   GLib.Variant("(ssausa{sv})", ("Hasty", "", (1,), SAMPLE, {})))
        if stage >= 1:
            application.register(f"P{stage}")
        if stage >= 2:
            application.open_channel(f"P{stage}")
        if stage == 3:
            application.writers[0].write(b"\x05")
        application.close()

    assert receiver.take_warnings(1) == [ended("P3, channel 1", "the application closed it within a message")]
    wait_until(lambda: receiver.descriptors() == before, "the descriptors are closed")
    assert receiver_client.names() >= {"P1", "P2", "P3"}
