# SPDX-License-Identifier: MIT
"""tessardctl emit and tessardctl topics: events through the receiver."""

import contextlib
import json
import subprocess

import pytest

from eventapplication import CROSSED, MOTION, EventApplication, EventStream, summary
from tessardctl import NO_CONNECTION, REFUSED, SUCCESS, USAGE, Tessardctl, failure
from waiting import BOUND_SECONDS

ABSENT = "The receiver is not on the bus: 'com.quon.MetadataReceiver1' has no owner."
ALARM = [MOTION, "--property", "--source", "Source:tt:ReferenceToken=1", "--data", "State:xs:boolean=true"]


@pytest.fixture
def events(bus):
    """The stream of events, and an application of the test itself."""
    with contextlib.closing(EventApplication(bus)) as application:
        _, descriptors = application.events_call("GetEventStream")
        (fd,) = descriptors.steal_fds()
        stream = EventStream(fd)
        stream.up_to_current()
        stream.application = application
        yield stream
        stream.close()


@pytest.fixture
def run(tessardctl, bus):
    def start(*args, text=""):
        command = Tessardctl(*args, env={"DBUS_SYSTEM_BUS_ADDRESS": bus.address}, stdin=subprocess.PIPE)
        out, err = command.process.communicate(text.encode(), timeout=BOUND_SECONDS)
        return command.process.returncode, out, err

    return start


def test_event_of_the_command_line(receiver_process, events, run):
    assert run("emit", CROSSED, "--source", "Rule=Line 1", "--data", "ObjectId:xs:integer=7") == (SUCCESS, b"", b"")
    item = events.item()
    assert (item["Topic"], item["Property"], *summary(item)) == (CROSSED, False, "", "Line 1", "7")


def test_state_of_a_property(receiver_process, events, run):
    assert run("emit", *ALARM) == (SUCCESS, b"", b"")
    assert summary(events.item()) == ("Initialized", "1", "true")
    assert run("emit", *ALARM, "--operation", "Deleted") == (SUCCESS, b"", b"")
    assert summary(events.item()) == ("Deleted", "1", "true")


def test_topic_of_another_namespace(receiver_process, events, run):
    assert run("emit", "acme:Door/Open", "--data", "Door=2", "--namespace", "acme=http://acme.example/topics") == (
        SUCCESS, b"", b"")
    item = events.item()
    assert item["Namespaces"]["acme"] == "http://acme.example/topics" and item["Data"] == [["Door", "2"]]


def test_refusal_has_the_words_of_the_receiver(receiver_process, run):
    status, out, err = run("emit", "no topic", "--data", "A=1")
    assert (status, out) == (REFUSED, b"") and err.startswith(b"tessardctl: ")


@pytest.mark.parametrize("arguments, message", [
    (["emit", CROSSED, "--data", "A"], "The value of --data is 'A', not KEY=VALUE."),
    (["emit"], "Missing argument TOPIC."),
])
def test_wrong_usage(run, arguments, message):
    status, _, err = run(*arguments)
    assert status == USAGE and f"tessardctl: {message}".encode() in err


@pytest.mark.parametrize("arguments", [["emit", CROSSED, "--data", "A=1"], ["topics"]])
def test_no_receiver(bus, run, arguments):
    assert run(*arguments) == failure(NO_CONNECTION, ABSENT)


def test_lines(receiver_process, events, run):
    lines = [
        '{"Topic": "%s", "Property": true, "Source": {"Source": "1"}, "Data": {"State:xs:boolean": true}}' % MOTION,
        "no JSON",
        '{"Topic": "%s", "Data": {"ObjectId:xs:integer": 7}, "Other": 1}' % CROSSED,
        "",
        '{"Topic": "%s", "Source": {"Rule": "1"}, "Data": {"ObjectId:xs:integer": 8}}' % CROSSED,
    ]
    assert run("emit", "--lines", text="\n".join(lines)) == (
        SUCCESS, b"", b"tessardctl: Line 2 is skipped: it is no JSON object.\n"
                      b"tessardctl: Line 3 is skipped: the member 'Other' is not valid.\n")
    assert [summary(events.item()) for _ in range(2)] == [("Initialized", "1", "true"), ("", "1", "8")]


def test_topics(receiver_process, events, run):
    assert run("topics") == (SUCCESS, b"", b"")
    events.application.declare(MOTION)
    assert run("topics") == (
        SUCCESS, f"{MOTION}  property  Source (tt:ReferenceToken)  State (xs:boolean)\n".encode(), b"")
    _, out, _ = run("topics", "--json")
    assert json.loads(out) == [{"Topic": MOTION, "Property": True, "Source": {"Source": "tt:ReferenceToken"},
                                "Data": {"State": "xs:boolean"}, "Namespaces": {}}]
