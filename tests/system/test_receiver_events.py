# SPDX-License-Identifier: MIT
"""The events of the metadata receiver: declarations, emitted events, and its stream."""

import contextlib
import datetime
import time

import pytest
from gi.repository import GLib

from eventapplication import (ACME, CROSSED, CURRENT, EVENTS, EVENTS_PATH, MOTION, NOT_READ, OBJECT, RESYNC, SOURCE,
                              STATE, TAMPER, summary)
from installation import run_by_root
from receiverclient import NAME
from receiverprocess import ERROR_PREFIX, LIMITS, refusal, remote_refusal
from users import STRANGER, call
from waiting import BOUND_SECONDS, wait_until

GRACE_SECONDS = LIMITS["RECEIVER_GRACE_SECONDS"]


@pytest.fixture(autouse=True)
def receiver(receiver_process):
    return receiver_process


@pytest.fixture
def emitter(start_emitter):
    return start_emitter()


@pytest.fixture
def reader(start_emitter):
    return start_emitter()


def test_events_reach_a_stream(emitter, reader):
    emitter.declare(TAMPER, data=[("State", "xs:boolean"), ("Text", "acme:Text")], namespaces=ACME)
    emitter.declare(CROSSED, is_property=False, data=OBJECT)
    stream = reader.open_events()
    emitter.emit(TAMPER, "Changed", {"Source": "1"}, {"Text": '"\\\u00e4\n', "State": "1"}, 1700000000123456)
    emitter.emit(CROSSED, "", {"Source": "1"}, {"ObjectId": "7"}, 1)

    assert stream.item() == CURRENT
    assert stream.item() == {
        "Topic": TAMPER, "Namespaces": ACME, "Property": True, "Operation": "Initialized",
        "UtcTime": "2023-11-14T22:13:20.123456Z", "Source": [["Source", "1"]],
        "Data": [["State", "1"], ["Text", '"\\\u00e4\n']]}
    assert stream.item() == {
        "Topic": CROSSED, "Namespaces": {}, "Property": False, "Operation": "",
        "UtcTime": "1970-01-01T00:00:00.000001Z", "Source": [["Source", "1"]], "Data": [["ObjectId", "7"]]}


def test_time_0_is_now(emitter, reader):
    emitter.declare()
    stream = reader.open_events()
    before = datetime.datetime.now(datetime.timezone.utc)
    emitter.alarm("1", True)
    after = datetime.datetime.now(datetime.timezone.utc)

    assert stream.item() == CURRENT
    assert before <= datetime.datetime.fromisoformat(stream.item()["UtcTime"].replace("Z", "+00:00")) <= after


def test_stream_begins_with_the_present_states(emitter, reader):
    emitter.declare()
    for source, state in (("1", True), ("2", True), ("1", False)):
        emitter.alarm(source, state)
    emitter.alarm("3", True)
    emitter.alarm("3", True, "Deleted")

    assert reader.open_events().up_to_current() == [("Initialized", "1", "false"), ("Initialized", "2", "true")]


def test_topics_are_listed_in_the_order_of_their_names(emitter, start_emitter):
    emitter.declare(MOTION)
    start_emitter().declare(CROSSED, is_property=False, data=OBJECT)
    start_emitter().declare(TAMPER, namespaces=ACME | {"unused": "urn:unused"})
    start_emitter().declare(MOTION)

    assert emitter.topics() == [
        (CROSSED, False, SOURCE, OBJECT, {}),
        (MOTION, True, SOURCE, STATE, {}),
        (TAMPER, True, SOURCE, STATE, ACME)]


@pytest.mark.parametrize("arguments, error", [
    ({"topic": ""}, "InvalidTopic"),
    ({"topic": "MotionAlarm"}, "InvalidTopic"),
    ({"topic": "tns1:VideoSource//."}, "InvalidTopic"),
    ({"topic": "tns1:A|tns1:B"}, "InvalidTopic"),
    ({"topic": TAMPER}, "InvalidTopic"),
    ({"topic": "tns1:" + "x" * LIMITS["RECEIVER_MAX_TOPIC_BYTES"]}, "InvalidTopic"),
    ({"namespaces": {"tns1": "urn:other"}}, "InvalidTopic"),
    ({"namespaces": {"acme": ""}}, "InvalidTopic"),
    ({"source": [("A", "xs:int"), ("A", "xs:int")]}, "InvalidItems"),
    ({"source": [("A b", "xs:int")]}, "InvalidItems"),
    ({"data": [("A", "int")]}, "InvalidItems"),
    ({"data": [(f"A{i}", "xs:int") for i in range(LIMITS["RECEIVER_MAX_EVENT_ITEMS"] + 1)]}, "InvalidItems"),
])
def test_invalid_declarations_are_refused(emitter, arguments, error):
    name, text = refusal(emitter.declare, **arguments)

    assert name == error
    assert text
    assert emitter.topics() == []


@pytest.mark.parametrize("arguments, error", [
    (("tns1:Other", "Changed", {"Source": "1"}, {"State": "true"}), "UnknownTopic"),
    ((MOTION, "", {"Source": "1"}, {"State": "true"}), "InvalidOperation"),
    ((MOTION, "Removed", {"Source": "1"}, {"State": "true"}), "InvalidOperation"),
    ((CROSSED, "Changed", {"Source": "1"}, {"ObjectId": "1"}), "InvalidOperation"),
    ((MOTION, "Deleted", {"Source": "1"}, {"State": "true"}), "UnknownProperty"),
    ((MOTION, "Changed", {}, {"State": "true"}), "InvalidItems"),
    ((MOTION, "Changed", {"Source": "1", "More": ""}, {"State": "true"}), "InvalidItems"),
    ((MOTION, "Changed", {"Source": "1"}, {"State": "yes"}), "InvalidItems"),
    ((MOTION, "Changed", {"Source": "\x01"}, {"State": "true"}), "InvalidItems"),
    ((CROSSED, "", {"Source": "1"}, {"ObjectId": "1.5"}), "InvalidItems"),
    ((MOTION, "Changed", {"Source": "1"}, {"State": "true"}, -1), "InvalidTime"),
    ((MOTION, "Changed", {"Source": "1"}, {"State": "true"}, 2 ** 63 - 1), "InvalidTime"),
    ((MOTION, "Changed", {"Source": "x" * LIMITS["RECEIVER_MAX_EVENT_BYTES"]}, {"State": "true"}), "EventTooLarge"),
    ((MOTION, "Changed", {"Source": "x" * (16 << 20)}, {"State": "true"}), "EventTooLarge"),
])
def test_invalid_events_are_refused(emitter, reader, arguments, error):
    emitter.declare()
    emitter.declare(CROSSED, is_property=False, data=OBJECT)
    stream = reader.open_events()
    name, text = refusal(emitter.emit, *arguments)
    emitter.cross(1)

    assert name == error
    assert text
    assert stream.item() == CURRENT
    assert stream.item()["Topic"] == CROSSED


def test_wrong_types_are_refused_by_the_interface(emitter):
    for method, value in (("DeclareTopic", GLib.Variant("(s)", (MOTION,))), ("Emit", GLib.Variant("(ss)", ("", "")))):
        with pytest.raises(GLib.Error) as failed:
            emitter.call(NAME, EVENTS_PATH, EVENTS, method, value)
        assert "org.freedesktop.DBus.Error.InvalidArgs" in failed.value.message


def test_applications_share_a_topic_and_own_their_properties(emitter, start_emitter, reader):
    other = start_emitter().declare()
    emitter.declare()
    emitter.alarm("1", True)
    other.alarm("2", False)

    assert refusal(other.alarm, "1", False)[0] == "NotOwner"
    assert refusal(emitter.alarm, "2", False)[0] == "NotOwner"
    assert refusal(other.declare, data=OBJECT)[0] == "TopicConflict"
    assert reader.open_events().up_to_current() == [("Initialized", "1", "true"), ("Initialized", "2", "false")]


def declare_again(application, **arguments):
    """Declares the topic, when the receiver has detected the end of the previous application, with other items."""
    def is_declared():
        try:
            application.declare(**arguments)
        except Exception as refused:  # pylint: disable=broad-except
            assert refused.args[0] == "TopicConflict"
            return False
        return True

    wait_until(is_declared, "the topic is declared again")


def test_same_user_gets_its_properties_back(emitter, start_emitter, reader):
    emitter.declare()
    emitter.alarm("1", True)
    stream = reader.open_events()
    assert stream.up_to_current() == [("Initialized", "1", "true")]
    emitter.close()
    back = start_emitter().declare()

    def can_emit():
        try:
            back.alarm("1", False)
        except Exception as refused:  # pylint: disable=broad-except
            assert refused.args[0] == "NotOwner"
            return False
        return True

    wait_until(can_emit, "the property belongs to the new application")
    assert summary(stream.item()) == ("Changed", "1", "false")


def test_topic_of_an_application_that_has_gone_can_change(emitter, start_emitter, reader):
    emitter.declare()
    emitter.alarm("1", True)
    stream = reader.open_events()
    stream.up_to_current()
    emitter.close()
    declare_again(start_emitter(), data=OBJECT)

    assert summary(stream.item()) == ("Deleted", "1", "true")


@pytest.mark.skipif(not run_by_root(), reason="only root can be several users")
def test_properties_are_kept_for_their_user(emitter, bus, reader):
    emitter.declare()
    emitter.alarm("1", True)
    emitter.close()

    assert call(bus, STRANGER, NAME, EVENTS_PATH, EVENTS, "DeclareTopic",
                f"('{MOTION}', true, [('Source', 'tt:ReferenceToken')], [('State', 'xs:string')], @a{{ss}} {{}})"
                ) == f"{ERROR_PREFIX}TopicConflict"
    assert reader.open_events().up_to_current() == [("Initialized", "1", "true")]


def test_properties_are_deleted_after_the_grace_period(emitter, reader):
    emitter.declare()
    emitter.alarm("1", True)
    stream = reader.open_events()
    stream.up_to_current()
    began = time.monotonic()
    emitter.close()

    assert stream.has_something(GRACE_SECONDS + BOUND_SECONDS)
    assert GRACE_SECONDS - 1 <= time.monotonic() - began
    assert summary(stream.item()) == ("Deleted", "1", "true")
    assert reader.topics() == []


def test_application_that_never_emits_is_forgotten(start_emitter, reader, receiver):
    """Also one that disconnects while its user is being looked up."""
    for number in range(100):
        application = start_emitter()
        application.start_call(NAME, EVENTS_PATH, EVENTS, "DeclareTopic", GLib.Variant(
            "(sba(ss)a(ss)a{ss})", (f"tns1:T{number % 10}", True, SOURCE, STATE, {})))
        application.close()

    wait_until(lambda: len(reader.topics()) <= 10, "the receiver replies")
    start = reader.declare("tns1:T1")
    start.emit("tns1:T1", "Changed", {"Source": "1"}, {"State": "1"})


def test_restarts_leave_one_property(start_emitter, reader):
    for number in range(100):
        application = start_emitter().declare()
        # The previous one may still have it.
        with contextlib.suppress(Exception):
            application.alarm("1", number % 2 == 0)
        application.close()

    assert [(operation, source) for operation, source, _ in reader.open_events().up_to_current()] == [
        ("Initialized", "1")]
    assert [topic for topic, *_ in reader.topics()] == [MOTION]


def test_flood_of_one_application_leaves_others_their_rate(emitter, start_emitter, reader, receiver):
    emitter.declare()
    other = start_emitter().declare(CROSSED, is_property=False, data=OBJECT)
    for number in range(4 * LIMITS["RECEIVER_EVENT_BURST"]):
        emitter.send_alarm("1", "true" if number % 2 else "false")
        if number % 500 == 499:
            other.cross(number)

    assert ("Initialized", "1") in [(op, source) for op, source, _ in reader.open_events().up_to_current()]


def test_rate_is_limited(emitter):
    emitter.declare()
    names = set()
    deadline = time.monotonic() + BOUND_SECONDS
    while not names and time.monotonic() < deadline:
        for _ in range(LIMITS["RECEIVER_EVENT_BURST"] + LIMITS["RECEIVER_EVENTS_PER_SECOND"]):
            emitter.send_alarm("1", "true")
        try:
            emitter.alarm("1", True)
        except Exception as refused:  # pylint: disable=broad-except
            names.add(refused.args[0])

    assert names == {"RateExceeded"}


def test_application_has_a_number_of_topics(emitter, start_emitter):
    for number in range(LIMITS["RECEIVER_MAX_APPLICATION_TOPICS"]):
        emitter.declare(f"tns1:T{number}")

    assert refusal(emitter.declare, "tns1:More")[0] == "TooManyTopics"
    start_emitter().declare("tns1:More")


def test_reader_that_does_not_read_gets_the_states_again(emitter, reader, receiver):
    emitter.declare(data=[("State", "xs:string")])
    stream = reader.open_events()
    emitter.alarm("gone", True)
    for number in range(60):
        emitter.emit(MOTION, "Changed", {"Source": "1"}, {"State": str(number) + "x" * 40000})
    emitter.alarm("gone", True, "Deleted")
    emitter.alarm("1", False)
    assert NOT_READ in receiver.take_warnings(1)

    assert stream.item() == CURRENT
    seen = []
    while (item := stream.item()) != RESYNC:
        seen.append(item)
    assert len(seen) < 60
    assert stream.up_to_current() == [("Initialized", "1", "false")]
    emitter.alarm("1", True)
    assert summary(stream.item()) == ("Changed", "1", "true")
    assert len(receiver.take_warnings(1)) == 1


def test_streams_are_limited_and_closed(emitter, receiver):
    before = receiver.descriptors()
    streams = [emitter.open_events() for _ in range(LIMITS["RECEIVER_MAX_EVENT_STREAMS"])]

    assert remote_refusal(emitter.call, NAME, EVENTS_PATH, EVENTS, "GetEventStream") == "LimitExceeded"
    for stream in streams:
        stream.close()
    wait_until(lambda: receiver.descriptors() <= before + 1, "the streams are closed")


def test_stream_ends_with_the_receiver(emitter, receiver):
    stream = emitter.open_events()
    receiver.kill()

    stream.expect_end()
