# SPDX-License-Identifier: MIT
"""tessardctl emit and tessardctl topics: events through the receiver."""

import concurrent.futures
import contextlib
import json
import signal
import subprocess

import pytest

from eventapplication import CROSSED, EVENTS, MOTION, EventApplication, EventStream, summary
from installation import BUS_CONFIGURATION, TREE, defined_limits
from receiverprocess import LIMITS as RECEIVER_LIMITS
from receiverprocess import Receiver
from tessardctl import NO_CONNECTION, REFUSED, SUCCESS, USAGE, Tessardctl, failure, read_lines
from waiting import BOUND_SECONDS

EMIT_MAX_LINE_BYTES = defined_limits(TREE / "tools/emitlines.h")["EMIT_MAX_LINE_BYTES"]

ABSENT = "The receiver is not on the bus: 'com.quon.MetadataReceiver1' has no owner."
POLICY_REFUSAL = ("The bus policy refused the call: only root and members of the group 'tessard-producer' can emit "
                  "events.")
ALARM = [MOTION, "--property", "--source", "Source:tt:ReferenceToken=1", "--data", "State:xs:boolean=true"]


@pytest.fixture
def events(bus):
    """The stream of events, and an application of the test itself."""
    with contextlib.closing(EventApplication(bus)) as application:
        stream = application.open_events()
        stream.up_to_current()
        stream.application = application
        yield stream


@pytest.fixture
def start(tessardctl, bus):
    """Starts commands whose input and output are pipes."""
    with contextlib.ExitStack() as started:

        def start_command(*args):
            command = Tessardctl(*args, env={"DBUS_SYSTEM_BUS_ADDRESS": bus.address}, stdin=subprocess.PIPE, bufsize=0)
            started.callback(command.clean_up)
            return command

        yield start_command


@pytest.fixture
def run(start):
    def run_command(*args, text=b""):
        command = start(*args)
        out, err = command.process.communicate(text, timeout=BOUND_SECONDS)
        return command.process.returncode, out, err

    return run_command


def crossing(number):
    """A line of JSON."""
    return json.dumps({"Topic": CROSSED, "Source": {"Rule": "1"}, "Data": {"ObjectId:xs:integer": number}}) + "\n"


def alarm(source, state):
    return json.dumps({"Topic": MOTION, "Property": True, "Source": {"Source:tt:ReferenceToken": source},
                       "Data": {"State:xs:boolean": state}}) + "\n"


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


@pytest.mark.parametrize("arguments", [["emit", CROSSED, "--data", "A=1"], ["topics"]])
def test_bus_policy_refuses(installation, start_bus, tessardctl, arguments):
    rule = f'<policy context="mandatory"><deny send_interface="{EVENTS}"/></policy></busconfig>'
    own_bus = start_bus(text=BUS_CONFIGURATION.read_text(encoding="utf-8").replace("</busconfig>", rule))
    receiver = Receiver(installation, own_bus)
    try:
        receiver.wait_until_ready()
        assert Tessardctl(*arguments, "--bus", own_bus.address).finish() == failure(REFUSED, POLICY_REFUSAL)
    finally:
        receiver.finish()


def test_lines(receiver_process, events, run):
    lines = [alarm("1", True), "no JSON\n", crossing(7).replace("Source", "Other"), "\n", crossing(8).rstrip()]
    assert run("emit", "--lines", text="".join(lines).encode()) == (
        SUCCESS, b"", b"tessardctl: Line 2 is skipped: it is no JSON object.\n"
                      b"tessardctl: Line 3 is skipped: the member 'Other' is not valid.\n")
    assert [summary(events.item()) for _ in range(2)] == [("Initialized", "1", "true"), ("", "1", "8")]


@pytest.mark.parametrize("line, reason", [
    (b"[" * 30000 + b"]" * 30000, b"it is no JSON object"),
    (b'{"Topic": "' + b"x" * EMIT_MAX_LINE_BYTES + b'"}', b"it is too long"),
    (b'{"Topic": "tns1:A/\\u0000"}', b"it is no JSON object"),
    (b'{"Topic": "tns1:A/\xff"}', b"it is no JSON object"),
    (b'{"Topic": 1}', b"the member 'Topic' is not valid"),
    (b'{"Property": true}', b"the member 'Topic' is not valid"),
    (b'{"Topic": "tns1:A", "Property": 1}', b"the member 'Property' is not valid"),
    (b'{"Topic": "tns1:A", "Data": {"B": []}}', b"the member 'Data' is not valid"),
    (b'{"Topic": "tns1:A", "Data": "B"}', b"the member 'Data' is not valid"),
])
def test_invalid_line_is_skipped(receiver_process, events, run, line, reason):
    assert run("emit", "--lines", text=line + b"\n" + crossing(1).encode()) == (
        SUCCESS, b"", b"tessardctl: Line 1 is skipped: " + reason + b".\n")
    assert summary(events.item()) == ("", "1", "1")


def test_refused_event_of_a_line_is_named(receiver_process, events, run):
    status, out, err = run("emit", "--lines", text=(alarm("1", "perhaps") + alarm("1", True)).encode())
    assert (status, out) == (SUCCESS, b"")
    assert err.startswith(b"tessardctl: Line 1 is skipped: ") and err.count(b"\n") == 1
    assert summary(events.item()) == ("Initialized", "1", "true")


def test_lines_faster_than_the_receiver_takes_events(receiver_process, events, run):
    numbers = range(RECEIVER_LIMITS["RECEIVER_EVENT_BURST"] + 200)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        result = pool.submit(run, "emit", "--lines", text="".join(map(crossing, numbers)).encode())
        assert [events.item()["Data"][0][1] for _ in numbers] == [str(number) for number in numbers]
    assert result.result() == (SUCCESS, b"", b"")


def test_lines_wait_for_a_receiver_that_is_away(receiver_process, events, start):
    command = start("emit", "--lines")
    errors = command.process.stderr.fileno()
    command.process.stdin.write(alarm("3", True).encode())
    assert summary(events.item()) == ("Initialized", "3", "true")
    receiver_process.kill()
    assert read_lines(errors, 1) == [f"tessardctl: {ABSENT} Events wait for it.\n".encode()]
    command.process.stdin.write("".join([alarm("1", False), alarm("2", True), crossing(1)]).encode())
    receiver_process.start()
    receiver_process.wait_until_ready()
    assert read_lines(errors, 1) == [b"tessardctl: The receiver takes events again; dropped events: 0.\n"]
    assert command.process.communicate(timeout=BOUND_SECONDS) == (b"", b"")
    assert command.process.returncode == SUCCESS
    states = events.application.open_events().up_to_current()
    assert sorted(states) == [("Initialized", "1", "false"), ("Initialized", "2", "true"), ("Initialized", "3", "true")]


def test_lines_without_a_receiver(bus, run):
    assert run("emit", "--lines", text=crossing(1).encode()) == failure(
        NO_CONNECTION, f"The receiver has not taken 1 events. {ABSENT}")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signal_ends_lines(receiver_process, events, start, number):
    command = start("emit", "--lines")
    command.process.stdin.write(crossing(1).encode())
    assert summary(events.item()) == ("", "1", "1")
    assert command.end_by(number) == (SUCCESS, b"", b"")


def test_topics(receiver_process, events, run):
    assert run("topics") == (SUCCESS, b"", b"")
    events.application.declare(MOTION)
    assert run("topics") == (
        SUCCESS, f"{MOTION}  property  Source (tt:ReferenceToken)  State (xs:boolean)\n".encode(), b"")
    _, out, _ = run("topics", "--json")
    assert json.loads(out) == [{"Topic": MOTION, "Property": True, "Source": {"Source": "tt:ReferenceToken"},
                                "Data": {"State": "xs:boolean"}, "Namespaces": {}}]
