# SPDX-License-Identifier: MIT
"""The event filters of a request, from the header line to the events that arrive."""

import itertools

import pytest

from daemon import ERROR, NOT_PRODUCED
from documents import CHANGED, DIGITAL_INPUT, INITIALIZED, LINE_CROSSED, MOTION_ALARM

EVENTS_LOOKED_AT = 20


def receive_events(daemon, *header_lines):
    header = "".join(f"{line}\n" for line in ("event=1", *header_lines))
    with daemon.client() as client:
        return list(itertools.islice(client.start(header).events(), EVENTS_LOOKED_AT))


def topics(events):
    return {event.topic for event in events}


@pytest.mark.parametrize("expression, expected", [
    (DIGITAL_INPUT, {DIGITAL_INPUT}),
    (MOTION_ALARM, {MOTION_ALARM}),
    (f"{MOTION_ALARM}|{LINE_CROSSED}", {MOTION_ALARM, LINE_CROSSED}),
    ("tns1:VideoAnalytics//.", {LINE_CROSSED}),
    ("tns1:Device//.|tns1:VideoSource//.", {DIGITAL_INPUT, MOTION_ALARM}),
    ("tns1:Nothing|tns1:VideoSource//.", {MOTION_ALARM}),
    # With escapes: a line break, an octal code, and an unnecessary one.
    (r"tns1:Device//.\n|\ntns1:VideoSource//.", {DIGITAL_INPUT, MOTION_ALARM}),
    (r"tns1:Device\057Trigger\057DigitalInput\t", {DIGITAL_INPUT}),
    (r"tns1\:Video\Source/MotionAlarm", {MOTION_ALARM}),
])
def test_topic_filter(fast_daemon, expression, expected):
    events = receive_events(fast_daemon, f"event_topic={expression}")

    assert topics(events) == expected


@pytest.mark.parametrize("expression, wanted", [
    ('boolean(//tt:SimpleItem[@Name="LogicalState" and @Value="true"])',
     lambda event: event.data.get("LogicalState") == "true"),
    (r'boolean(//tt:SimpleItem[@Name=\"InputToken\" and @Value=\"DigitalInput_2\"])',
     lambda event: event.source.get("InputToken") == "DigitalInput_2"),
    (r'boolean(//tt:SimpleItem[@Name\075"Direction"])',
     lambda event: event.topic == LINE_CROSSED),
    (r'//tt:SimpleItem[\n  @Name="State"\n]', lambda event: event.topic == MOTION_ALARM),
    ('@PropertyOperation="Changed"', lambda event: event.operation == CHANGED),
    ('not(@PropertyOperation="Changed")', lambda event: event.operation != CHANGED),
])
def test_content_filter(fast_daemon, expression, wanted):
    events = receive_events(fast_daemon, f"event_content={expression}")

    assert all(wanted(event) for event in events)


def test_both_filters(fast_daemon):
    events = receive_events(fast_daemon, "event_topic=tns1:Device//.",
                            'event_content=boolean(//tt:SimpleItem[@Name="InputToken" and @Value="DigitalInput_1"])')

    assert topics(events) == {DIGITAL_INPUT}
    assert {event.source["InputToken"] for event in events} == {"DigitalInput_1"}
    assert [event.operation for event in events] == [INITIALIZED] + [CHANGED] * (len(events) - 1)


def test_last_filter_of_a_request_counts(fast_daemon):
    events = receive_events(fast_daemon, f"event_topic={MOTION_ALARM}", f"event_topic={DIGITAL_INPUT}")

    assert topics(events) == {DIGITAL_INPUT}


@pytest.mark.parametrize("line", [
    "event_topic=",
    "event_topic=|",
    "event_topic=no:thing here",
    "event_topic=tns1:Device//.//.",
    r"event_topic=tns1:Device\377",
    pytest.param("event_topic=tns1:" + "x" * 5000, id="long topic"),
    "event_content=",
    "event_content=((",
    "event_content=unknown()",
    "event_content=//foreign:Item",
    r"event_content=\377",
    pytest.param("event_content=" + "(" * 5000, id="long content"),
])
def test_malformed_filter(daemon, line):
    with daemon.client() as client:
        assert client.request(f"event=1\n{line}\n") == NOT_PRODUCED
        assert client.read_to_end() == b""

    ((priority, text),) = daemon.log.take(1)
    assert priority == ERROR
    kind = line.partition("=")[0].removeprefix("event_")
    assert text.startswith(
        f"Error in metadata connection manager pipeline: The {kind} filter of the events is malformed: ")
    daemon.expect_stream()


def test_malformed_filter_is_ignored_without_events(daemon):
    daemon.expect_reply("event=0\nevent_topic=|\n")


def test_filter_that_fails_later_is_logged_and_ends_the_stream(fast_daemon):
    # A line crossing, which is the only kind to have an ObjectId, is no state and so not in the first document.
    fails_at_a_crossing = '//tt:SimpleItem[@Name="ObjectId"]/@Value > 1 and unknown()'
    with fast_daemon.client() as client:
        # A crossing before the reply fails the request instead.
        assert client.request(f"event=1\nevent_content={fails_at_a_crossing}\n") in ("OK", NOT_PRODUCED)
        client.read_to_end()

    ((priority, text),) = fast_daemon.log.take(1)
    assert priority == ERROR
    assert text.startswith("Error in metadata connection manager pipeline: "
                           "The content filter of the events cannot be evaluated: ")
    assert text.endswith(".")
