# SPDX-License-Identifier: MIT
"""tessard-mqtt with a broker: topics, payloads and retained flags of all it publishes, states, filters, and the end of
the daemon. The client is mosquitto_sub."""

import signal
import time

import pytest

from client import header
from documents import SCHEMA_DIR
from eventapplication import ACME, CROSSED, OBJECT, TAMPER
from gatewayprocess import IS_SHORT, only_long
from installation import DOCUMENT_PLUGIN, OWN_EVENT_PLUGIN
from mqttdocuments import LATER, alarm, crossing, events, expected, frame, published
from mqttgateway import ALARMS, CROSSINGS, EVENTS, EVENTS_ALONE, FRAMES, METADATA, PREFIX, STATUS
from test_all_kinds import EVERY_KIND, EVERYTHING, kind_of, start_full_daemon  # noqa: F401
from waiting import wait_until

DOCUMENTS = 60 if IS_SHORT else 300

needs_schemas = pytest.mark.skipif(not SCHEMA_DIR, reason="ONVIF_SCHEMA_DIR does not name the official schemas")


def states(messages):
    """The state of each alarm in its order."""
    return [message.payload and ("true" in message.payload) for message in messages]


# What is published


def record_documents(daemon):
    """Documents of every kind, in the order of the stream."""
    found, kinds = [], set()
    with daemon.client() as client:
        for received in client.start(header(**EVERYTHING)).documents():
            found.append(received)
            kinds.add(kind_of(received))
            if len(found) >= DOCUMENTS and EVERY_KIND <= kinds:
                return found


@needs_schemas
def test_messages_are_those_of_the_documents(start_full_daemon, feed, start_fed, subscriber):  # noqa: F811
    daemon = start_full_daemon()
    recorded = record_documents(daemon)
    daemon.end()  # A gateway that learns of its producers would request the stream again.
    start_fed()
    wanted = []
    for received in recorded:
        feed.send(received.data)
        wanted += expected(received.root, PREFIX)
        wait_until(lambda: len(subscriber.messages) > len(wanted), "the document's messages")

    got = [published(message) for message in subscriber.messages if message.topic != STATUS]
    assert got == wanted


def test_events_of_the_camera(start_daemon, broker, subscriber, start_mqtt):
    daemon = start_daemon(speed=100)
    start_mqtt(daemon.socket_path, broker, **EVENTS_ALONE)
    crossed = f"{EVENTS}/VideoAnalytics/tnsimcam:LineDetector/Crossed"
    subscriber.wait_for_topic(crossed)
    subscriber.wait_for_topic(ALARMS, 4)
    inputs = subscriber.wait_for_topic(f"{EVENTS}/Device/Trigger/DigitalInput", 4)

    assert all(message.retain and message.qos == 1 for message in [*inputs, *subscriber.of(ALARMS)])
    assert not any(message.retain for message in subscriber.of(crossed))
    (first, *_) = subscriber.payloads(subscriber.of(crossed)[0].topic)
    assert sorted(first) == ["Data", "Source", "UtcTime"]
    assert sorted(first["Data"]) == ["Direction", "ObjectId"]
    # Alarms go on and off in turn.
    on = states(subscriber.of(ALARMS))
    assert all(one != other for one, other in zip(on, on[1:]))


def test_late_client_gets_the_states(feed, start_fed, broker, subscriber):
    start_fed()
    feed.send(events(alarm("1", "true", "Initialized"), alarm("2", "false", "Initialized"), crossing(7)),
              events(alarm("1", "false"), crossing(8)))
    subscriber.wait_for_topic(CROSSINGS, 2)

    retained = broker.retained()
    assert set(retained) == {STATUS, f"{ALARMS}/&1", f"{ALARMS}/&2"}
    assert "false" in retained[f"{ALARMS}/&1"] and retained[STATUS] == "online"


def test_deleted_property_is_an_empty_retained_message(feed, start_fed, broker, subscriber):
    start_fed()
    feed.send(events(alarm("1", "true", "Initialized"), alarm("2", "true", "Initialized")))
    feed.send(events(alarm("1", "true", "Deleted")))
    messages = subscriber.wait_for_topic(f"{ALARMS}/&1", 2)

    assert [(message.payload is None, message.retain) for message in messages] == [(False, True), (True, True)]
    assert set(broker.retained()) == {STATUS, f"{ALARMS}/&2"}


def test_sync_point_publishes_no_state_again(feed, start_fed, subscriber):
    start_fed()
    feed.send(events(alarm("1", "true", "Initialized"), alarm("2", "true", "Initialized")))
    feed.send(events(alarm("1", "true", "Initialized", LATER), alarm("2", "false", "Initialized", LATER)))
    feed.send(events(crossing(1)))
    subscriber.wait_for_topic(CROSSINGS)

    assert states(subscriber.of(f"{ALARMS}/&1")) == [True]
    assert states(subscriber.of(f"{ALARMS}/&2")) == [True, False]


# Values of a source, and their levels of a topic.
LEVELS = {"a b": "a b", "1/2": "12", "+#": "", "\u00e4\u20ac\U0001f600": "\u00e4\u20ac\U0001f600",
          "a\tb\nc\x7fd\u0085": "abcd", "$SYS": "$SYS", "&": "&", "x" * 1000: "x" * 1000}


def test_sources_that_do_not_fit_a_topic(feed, start_fed, subscriber):
    start_fed()
    feed.send(events(*(alarm(value, "true", "Initialized") for value in LEVELS)))
    messages = subscriber.wait_for_topic(ALARMS, len(LEVELS))

    assert [message.topic for message in messages] == [f"{ALARMS}/&{level}" for level in LEVELS.values()]
    assert [subscriber.payloads(message.topic)[0]["Source"] for message in messages] == [
        {"Source": value} for value in LEVELS]


def test_events_of_applications(receiver_process, start_emitter, start_daemon, broker, subscriber, start_mqtt):
    emitter = start_emitter().declare().declare(CROSSED, is_property=False, data=OBJECT)
    emitter.declare(TAMPER, namespaces=ACME)
    daemon = start_daemon(plugins=(OWN_EVENT_PLUGIN, DOCUMENT_PLUGIN))
    start_mqtt(daemon.socket_path, broker, **EVENTS_ALONE)
    subscriber.wait_for_topic(STATUS)
    emitter.alarm("Gate/1 #+\t\u00e4<&>\"'", True)
    emitter.emit(TAMPER, "Changed", {"Source": "1"}, {"State": "true"})
    (alarmed,) = subscriber.wait_for_topic(ALARMS)
    (tampered,) = subscriber.wait_for_topic(f"{EVENTS}/VideoSource/acme:Tamper")
    # The gateway's stream has begun, so it gets events without state.
    emitter.cross(7)
    subscriber.wait_for_topic(CROSSINGS)

    assert alarmed.topic == f"{ALARMS}/&Gate1 \u00e4<&>\"'"
    assert subscriber.payloads(alarmed.topic)[0]["Source"] == {"Source": "Gate/1 #+\t\u00e4<&>\"'"}
    assert (tampered.topic, tampered.retain) == (f"{EVENTS}/VideoSource/acme:Tamper/Covered/&1", True)
    assert subscriber.payloads(f"{CROSSINGS}/&1")[0]["Data"] == {"ObjectId": "7"}
    # Two values that lose what tells them apart are one property.
    emitter.alarm("Gate1 \u00e4<&>\"'", False)
    assert states(subscriber.wait_for_topic(ALARMS, 2)) == [True, False]


# What the key file selects


def test_filters(start_full_daemon, broker, subscriber, start_mqtt):  # noqa: F811
    daemon = start_full_daemon()
    start_mqtt(daemon.socket_path, broker, Events={"filter": "tns1:VideoAnalytics//."},
               Metadata={"filter": "VideoAnalytics/front/*video*;PTZ/front"},
               Topics={"profiles": "front", "ptz-configurations": "dome"})
    for topic in ("onvif-mj/VideoAnalytics", "onvif-mj/PTZ", "onvif-ej"):
        subscriber.wait_for_topic(f"{PREFIX}/{topic}", 3)

    assert {message.topic.rpartition("/&")[0] or message.topic for message in subscriber.messages} == {
        STATUS, f"{EVENTS}/VideoAnalytics/tnsimcam:LineDetector/Crossed",
        f"{METADATA}/VideoAnalytics/front/the video's", f"{METADATA}/PTZ/front/dome"}


@pytest.mark.parametrize("off, on", [("Events", METADATA), ("Metadata", EVENTS)])
def test_kind_that_is_not_published(start_full_daemon, broker, subscriber, start_mqtt, off, on):  # noqa: F811
    daemon = start_full_daemon()
    start_mqtt(daemon.socket_path, broker, **{off: {"publish": "false"}})
    subscriber.wait_for_topic(on, 10)

    assert {message.topic == STATUS or message.topic.startswith(f"{on}/") for message in subscriber.messages} == {True}


FRAMES_PER_SECOND = 5


def test_frame_rate_is_limited_for_each_module(feed, start_fed, subscriber):
    start_fed(Metadata={"max-frame-rate": FRAMES_PER_SECOND})
    began, number = time.monotonic(), 0
    while time.monotonic() < began + 1:
        number += 1
        feed.send(frame("A", number), frame("B", number))
    # The newest frame is sent when its time has come.
    topics = [f"{FRAMES}/A", f"{FRAMES}/B"]
    wait_until(lambda: all(object_ids(subscriber, topic)[-1:] == [number] for topic in topics), "the last frames")
    most = (time.monotonic() - began) * FRAMES_PER_SECOND + 1

    assert all(3 <= len(object_ids(subscriber, topic)) <= most for topic in topics)


def object_ids(subscriber, topic):
    return [payload["Frame"][0]["Object"][0]["@ObjectId"] for payload in subscriber.payloads(topic)]


# The gateway's own end, and the daemon's


def test_birth_and_last_will(feed, start_fed, broker, subscriber):
    gateway = start_fed()
    assert [message[1:] for message in subscriber.of(STATUS)] == [("online", True, 1)]
    gateway.kill()
    assert [message[1:] for message in subscriber.wait_for_topic(STATUS, 2)] == [("online", True, 1),
                                                                               ("offline", True, 1)]
    gateway.start()
    subscriber.wait_for_topic(STATUS, 3)
    gateway.end()
    subscriber.wait_for_topic(STATUS, 4)
    assert broker.retained(STATUS) == {STATUS: "offline"}


def test_daemon_that_comes_back(start_daemon, broker, subscriber, start_mqtt):
    daemon = start_daemon(speed=10)
    gateway = start_mqtt(daemon.socket_path, broker, **EVENTS_ALONE)
    subscriber.wait_for_topic(ALARMS)
    assert daemon.end() == -signal.SIGTERM
    assert gateway.wait_for_warnings()
    daemon.start_again()
    daemon.wait_until_ready()
    count = len(subscriber.of(EVENTS))
    subscriber.wait_for_topic(EVENTS, count + 1)
    assert [message.payload for message in subscriber.of(STATUS)] == ["online"]
    gateway.take_warnings()


@only_long
def test_property_that_is_gone_when_the_daemon_comes_back(feed, start_fed, broker, subscriber):
    gateway = start_fed(**EVENTS_ALONE)
    feed.send(events(alarm("1", "true", "Initialized"), alarm("2", "true", "Initialized")))
    subscriber.wait_for_topic(ALARMS, 2)
    feed.close()
    feed.send(events(alarm("2", "true", "Initialized", LATER)))

    assert states(subscriber.wait_for_topic(f"{ALARMS}/&1", 2)) == [True, None]
    assert set(broker.retained()) == {STATUS, f"{ALARMS}/&2"}
    assert states(subscriber.of(f"{ALARMS}/&2")) == [True]
    assert len(gateway.take_warnings()) == 1
