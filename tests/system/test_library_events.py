# SPDX-License-Identifier: MIT
"""The library of applications, used from Python: events on their way through the receiver."""

import contextlib
import re

import pytest

from eventapplication import CROSSED, MOTION, EventApplication, summary
from external import ANALYTICS_AND_EVENTS, DETECTOR, DETECTOR_ENABLED, EXTERNAL_PLUGINS, GATE, wait_until_listed
from installation import OWN_EVENT_PLUGIN, TREE
from libraryprogram import PREFACE

pytestmark = pytest.mark.usefixtures("introspection")

# Declares two topics, and emits what its input says: OPERATION SOURCE DATA, or "-" for an event that is no state.
EMITTER = PREFACE + """
def tell(*words):
    print(*words, flush=True)

events = Tessard.Events.new()
events.declare("tns1:VideoSource/MotionAlarm", True, ["Source:tt:ReferenceToken"], ["State:xs:boolean"], None)
events.declare("tns1:RuleEngine/LineDetector/Crossed", False, ["Source:tt:ReferenceToken"], ["ObjectId:xs:integer"],
               None)
loop = GLib.MainLoop()

def on_taken(_, result, line):
    try:
        events.emit_finish(result)
        tell("taken", line)
    except GLib.Error as error:
        tell(error.message)

def on_line(channel, _):
    line = channel.readline().strip()
    if not line:
        loop.quit()
        return False
    operation, source, data = line.split()
    if operation == "-":
        topic, operation, data = "tns1:RuleEngine/LineDetector/Crossed", None, {"ObjectId": data}
    else:
        topic, data = "tns1:VideoSource/MotionAlarm", {"State": data}
    events.emit_async(topic, operation, {"Source": source}, data, 0, None, on_taken, line)
    return True

def on_interrupted(_, error):
    tell("interrupted:", error.message)

if sys.argv[1:]:
    events.connect("interrupted", on_interrupted)
GLib.io_add_watch(GLib.IOChannel.unix_new(0), GLib.PRIORITY_DEFAULT, GLib.IOCondition.IN | GLib.IOCondition.HUP, on_line)
loop.run()
try:
    events.close()
except GLib.Error as error:
    tell(error.message)
tell(events.get_dropped())
"""

ABSENT = "The receiver is not on the bus: 'com.quon.MetadataReceiver1' has no owner."


@pytest.fixture
def other(bus):
    """An application of the test itself, which also reads the stream of events."""
    with contextlib.closing(EventApplication(bus)) as application:
        yield application


@pytest.fixture
def open_events(other):
    """Opens streams of events."""
    return other.open_events


def test_events_arrive(receiver_process, open_events, start_program):
    program = start_program(EMITTER)
    stream = open_events()
    assert stream.up_to_current() == []
    program.send("Changed 1 true", "- 1 7", "Changed 1 false", "Deleted 1 false")
    found = [stream.item() for _ in range(4)]
    assert [(item["Topic"], *summary(item)) for item in found] == [
        (MOTION, "Initialized", "1", "true"), (CROSSED, "", "1", "7"), (MOTION, "Changed", "1", "false"),
        (MOTION, "Deleted", "1", "false")]
    assert [program.line() for _ in found] == ["taken Changed 1 true", "taken - 1 7", "taken Changed 1 false",
                                               "taken Deleted 1 false"]
    assert program.finish() == (0, "0\n", "")


def test_refusals_are_told(receiver_process, other, start_program):
    other.declare()
    other.alarm("3", True)
    program = start_program(EMITTER)
    program.send("Changed 1 perhaps", "Deleted 2 true", "Changed 3 true", "Other 1 true", "Changed 1 true")
    lines = [program.line() for _ in range(5)]
    assert [line.startswith("taken") for line in lines] == [False, False, False, False, True]
    assert program.finish() == (0, "4\n", "")


def test_topics_that_other_applications_have_in_another_form(receiver_process, other, start_program):
    """Their events fail, and those of the other topic arrive."""
    other.declare(data=[("Other", "xs:boolean")])
    program = start_program(EMITTER)
    program.send("Changed 1 true", "- 1 7")
    assert not program.line().startswith("taken")
    assert program.line() == "taken - 1 7"


def test_states_are_there_again_after_a_restart_of_the_receiver(receiver_process, open_events, start_program):
    program = start_program(EMITTER, "tell")
    lines = ["Changed 1 true", "Changed 2 true", "Changed 3 false", "Deleted 3 false", "- 1 7"]
    program.send(*lines)
    assert [program.line() for _ in lines] == [f"taken {line}" for line in lines]
    receiver_process.kill()
    assert program.line() == f"interrupted: {ABSENT}"
    program.send("Changed 2 false", "Changed 2 true", "Changed 4 true", "- 1 8", "- 1 9")
    assert program.line() == "The event was dropped while the receiver was away."
    receiver_process.start()
    receiver_process.wait_until_ready()
    assert sorted(program.line() for _ in range(4)) == ["taken - 1 8", "taken - 1 9", "taken Changed 2 true",
                                                        "taken Changed 4 true"]
    assert sorted(open_events().up_to_current()) == [("Initialized", number, "true") for number in "124"]
    assert program.finish() == (0, "1\n", "")


def test_events_wait_in_bounds_while_the_receiver_is_away(bus, start_receiver_process, start_program):
    """The newest 1,000 and the last state of a property."""
    program = start_program(EMITTER, "tell")
    assert program.line() == f"interrupted: {ABSENT}"
    program.send("Changed 1 true", *(f"- 1 {number}" for number in range(1100)))
    assert [program.line() for _ in range(100)] == 100 * ["The event was dropped while the receiver was away."]
    start_receiver_process()
    lines = [program.line() for _ in range(1001)]
    while any(line.startswith("interrupted") for line in lines):
        lines = [line for line in lines if not line.startswith("interrupted")]
        lines += [program.line() for _ in range(1001 - len(lines))]
    assert lines == ["taken Changed 1 true"] + [f"taken - 1 {number}" for number in range(100, 1100)]
    assert program.finish() == (0, "100\n", "")


def test_events_without_a_receiver_are_counted(bus, start_program):
    program = start_program(EMITTER)
    program.send("Changed 1 true", "- 1 7")
    status, out, err = program.finish()
    assert (status, err) == (0, "")
    assert out.splitlines()[-2:] == ["The receiver has not taken 2 events.", "2"]


def test_topics_of_all_applications(receiver_process, other, start_program):
    other.declare("tns1:VideoSource/acme:Tamper/Covered", False, [], [("Level", "xs:int")],
                  {"acme": "http://acme.example/topics"})
    program = start_program(PREFACE + """
events = Tessard.Events.new()
def on_topics(_, result):
    print(events.get_topics_finish(result).unpack())
    loop.quit()
loop = GLib.MainLoop()
events.get_topics_async(None, on_topics)
loop.run()
""")
    assert program.finish() == (0, "[('tns1:VideoSource/acme:Tamper/Covered', False, [], [('Level', 'xs:int')], "
                                   "{'acme': 'http://acme.example/topics'})]\n", "")


def documented_program():
    """The program of the page that sends an item and emits an event again and again."""
    text = (TREE / "docs/any-linux-box.md").read_text(encoding="utf-8")
    (program,) = (found for found in re.findall(r"```python\n(.*?)```", text, re.DOTALL) if "events" in found)
    assert len(program.splitlines()) <= 15
    return program.replace('"Mine"', f'"{DETECTOR}"')


def expect_both(stream):
    """Expects the alarm and then, or before, a box."""
    found = set()
    while found != {"alarm", "box"}:
        document = stream.next_document()
        found |= {"alarm" for event in document.events
                  if (event.topic, *event.source.values(), *event.data.values()) == (MOTION, "1", "true")}
        found |= {"box" for frame in document.frames
                  if frame.source == GATE and frame.objects["12"].box == (-0.6, 0.6, -0.2, 0.2)}


def test_program_of_15_lines_reaches_a_first_and_a_late_client(receiver_process, control, start_daemon, start_program):
    daemon = start_daemon(plugins=(*EXTERNAL_PLUGINS, OWN_EVENT_PLUGIN), producers=DETECTOR_ENABLED)
    start_program(documented_program())
    wait_until_listed(control, DETECTOR)
    with daemon.client() as first, daemon.client() as late:
        expect_both(first.start(ANALYTICS_AND_EVENTS))
        expect_both(late.start(ANALYTICS_AND_EVENTS))
