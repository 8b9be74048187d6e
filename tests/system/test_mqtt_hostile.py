# SPDX-License-Identifier: MIT
"""tessard-mqtt with brokers that do what they should not, a daemon whose documents are malformed, and no network: it
goes on, and neither its memory nor its work grows."""

import contextlib
import itertools
import random
import re
import signal
import threading
import time

import pytest

from broker import Broker, Subscriber
from fakebroker import HOSTILE, FakeBroker, accepts_and_closes, closes, never_acknowledges
from gatewayprocess import IS_SHORT, only_long
from installation import SANITIZED, needs_allocator, run_by_root
from mqttdocuments import alarm, crossing, document, events, frame, notification
from mqttgateway import CROSSINGS, EVENTS_ALONE, LIMITS, STATUS
from waiting import wait_until

# How long load lasts.
LOAD_SECONDS = 1 if IS_SHORT else 4

MIB = 1024 * 1024
GROWTH_BYTES = 32 * MIB

# Of one core, with the feed below.
PROCESSOR_SHARE = 0.9 if SANITIZED else 0.3
PAUSE_SECONDS = 0.02


@pytest.fixture(name="start_hostile")
def make_start_hostile():
    with contextlib.ExitStack() as started:
        yield lambda handle: started.enter_context(contextlib.closing(FakeBroker(handle)))


def load(feed):
    """Sends documents for some time."""
    deadline, pause = time.monotonic() + LOAD_SECONDS, threading.Event()
    for number in itertools.count():
        feed.send(events(crossing(number), alarm("1", "true" if number % 2 else "false")), frame("A", number))
        pause.wait(PAUSE_SECONDS)
        if time.monotonic() > deadline:
            return


def most_attempts(seconds):
    """The attempts to connect in this time, if all fail at once; a pause can be half as long as it should be."""
    pauses = (LIMITS["MQTT_FIRST_RETRY_MS"] / 1000 * 2 ** number / 2 for number in range(20))
    return 1 + sum(begin <= seconds for begin in itertools.accumulate(pauses))


def expect_recovery(workspace, broker, feed, gateway):
    """Expects that the gateway publishes to a broker that replaces a hostile one; ends the gateway."""
    broker.close()
    good = Broker(workspace, port=broker.port)
    try:
        with Subscriber(good) as subscriber:
            feed.send(events(crossing("after")))
            wait_until(lambda: any("after" in (message.payload or "") for message in subscriber.of(CROSSINGS)),
                       "the gateway publishes again", LIMITS["MQTT_LAST_RETRY_MS"] / 1000 + 20)
        assert gateway.end() == (0, "", "")
    finally:
        good.finish()


@needs_allocator
@pytest.mark.parametrize("handle", [closes, never_acknowledges, *(pytest.param(handle, marks=only_long)
                                                                  for handle in HOSTILE)])
def test_hostile_broker(workspace, feed, start_hostile, start_mqtt, handle):
    began = time.monotonic()
    broker = start_hostile(handle)
    gateway = start_mqtt(feed.daemon.path, broker)
    wait_until(lambda: broker.connections, "the gateway connects")
    load(feed)
    memory, work, half = gateway.status_bytes("VmRSS"), gateway.processor_seconds(), time.monotonic()
    load(feed)

    assert gateway.status_bytes("VmRSS") - memory < GROWTH_BYTES
    assert gateway.processor_seconds() - work < PROCESSOR_SHARE * (time.monotonic() - half)
    assert broker.connections <= most_attempts(time.monotonic() - began)
    expect_recovery(workspace, broker, feed, gateway)
    # Of each connection, why it ended and what was dropped before.
    assert len(gateway.take_warnings()) <= 2 * broker.connections + 2


@only_long
@needs_allocator
def test_memory_of_many_connections(feed, start_hostile, start_mqtt):
    broker = start_hostile(accepts_and_closes)
    gateway = start_mqtt(feed.daemon.path, broker)
    feed.send(GOOD, frame("A"))
    wait_until(lambda: broker.connections >= 2, "the gateway connects again")
    memory, descriptors = gateway.status_bytes("VmRSS"), gateway.descriptors()
    wait_until(lambda: broker.connections >= 6, "and again", 60)
    assert gateway.status_bytes("VmRSS") - memory < MIB
    assert gateway.descriptors() <= descriptors + 1
    assert gateway.take_warnings()


# The daemon


GOOD = events(crossing("good"))

MALFORMED = {
    "empty": b"", "text": b"no document", "begin": GOOD[:100], "bytes": b"\xff\xfe" + GOOD,
    "surrogate": b"\xff\xfe<\0a\0>\0\0\xda:\0", "nul": GOOD.replace(b"good", b"\0"),
    "invalid": GOOD.replace(b"good", b"\xc3"), "root": b"<a/>", "twice": GOOD + GOOD,
    "entities": b'<!DOCTYPE a [<!ENTITY b "' + b"b" * 1000 + b'">]>' + GOOD.replace(b"good", b"&b;" * 1000),
    "file": b'<!DOCTYPE a [<!ENTITY b SYSTEM "/etc/passwd">]>' + GOOD.replace(b"good", b"&b;"),
    "deep": document("<tt:VideoAnalytics><tt:Frame Source='A'>" + "<tt:Object>" * 200 + "</tt:Object>" * 200
                     + "</tt:Frame></tt:VideoAnalytics>"),
    "no topic": events(notification("", {}, {})), "no source": frame(""),
    "long topic": events(notification("tns1:" + "a/" * 40000 + "a", {}, {})),
    "long value": events(alarm("a" * 70000, "true")),
    "long document": document("<tt:Event>" + " " * (9 * MIB) + "</tt:Event>"),
    "long payload": frame("A").replace(b"<tt:Object", b"<tt:Object a='" + b"a" * 5 * MIB + b"'"),
}


def test_malformed_documents(broker, subscriber, feed, start_fed):
    gateway = start_fed()
    for number, wrong in enumerate(MALFORMED.values()):
        feed.send(wrong)
        feed.send(events(crossing(number)))
        subscriber.wait_for_topic(CROSSINGS, number + 1)

    assert gateway.process.poll() is None
    assert {message.topic.split("/&")[0] for message in subscriber.messages} <= {STATUS, CROSSINGS}
    assert not any("root:" in (message.payload or "") for message in subscriber.messages)
    assert 1 <= len(gateway.take_warnings()) <= 3


@only_long
@needs_allocator
def test_random_documents(subscriber, feed, start_fed):
    gateway = start_fed()
    seed = random.randrange(2**32)
    print(f"seed {seed}")
    source = random.Random(seed)
    documents = [GOOD, frame("A"), events(alarm("1", "true", "Initialized")), *MALFORMED.values()]
    documents = [data for data in documents if len(data) < 10_000]
    deadline, memory = time.monotonic() + LOAD_SECONDS, None
    for number in itertools.count():
        data = bytearray(source.choice(documents))
        for _ in range(source.randrange(1, 10) if data else 0):
            data[source.randrange(len(data))] = source.randrange(256)
        feed.send(bytes(data))
        memory = memory or (number == 500 and gateway.status_bytes("VmRSS"))
        if time.monotonic() > deadline:
            break
    feed.send(events(crossing("last")))
    wait_until(lambda: any("last" in (message.payload or "") for message in list(subscriber.messages)[-100:]),
               "the last event")
    assert gateway.status_bytes("VmRSS") - memory < GROWTH_BYTES
    gateway.take_warnings()


# What the machine does not have


@only_long
def test_disk_of_the_broker_is_full(feed, start_broker, start_mqtt):
    broker = start_broker(persistent=True, launcher=("prlimit", "--fsize=65536", "--core=0"))
    gateway = start_mqtt(feed.daemon.path, broker, **EVENTS_ALONE)
    feed.send(events(*(alarm(str(number), "true", "Initialized") for number in range(1000))))
    wait_until(lambda: len(broker.retained()) == 1001, "all states are at the broker")
    broker.end()
    assert broker.process.returncode == -signal.SIGXFSZ
    broker.start()

    wait_until(lambda: len(broker.retained()) == 1001, "all states are at the broker again")
    assert gateway.take_warnings()


def expect_patience(gateway, reason):
    """Expects one warning with this reason, and little work afterwards."""
    (text,) = gateway.wait_for_warnings()
    assert re.search(reason, text), text
    work, began = gateway.processor_seconds(), time.monotonic()
    wait_until(lambda: time.monotonic() > began + LOAD_SECONDS, "the time has passed")
    assert gateway.processor_seconds() - work < PROCESSOR_SHARE * LOAD_SECONDS
    assert gateway.process.poll() is None
    gateway.take_warnings()


def test_host_that_is_not_known(feed, broker, start_mqtt):
    gateway = start_mqtt(feed.daemon.path, broker, Broker={"address": "mqtt://broker.invalid"})
    expect_patience(gateway, "^mqtt://broker.invalid: ")


@only_long
@pytest.mark.skipif(not run_by_root(), reason="only root can leave the network")
def test_no_network(feed, broker, start_mqtt):
    gateway = start_mqtt(feed.daemon.path, broker, launcher=("unshare", "--net"))
    expect_patience(gateway, "Network is unreachable")
