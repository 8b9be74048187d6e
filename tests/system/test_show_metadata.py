# SPDX-License-Identifier: MIT
"""The demo's output for a client's stream."""

import re
import signal
import subprocess

import pytest

from installation import TREE
from waiting import BOUND_SECONDS

SHOW_METADATA = TREE / "scripts/show-metadata"

NAMESPACES = 'xmlns:tt="http://www.onvif.org/ver10/schema" xmlns:wsnt="http://docs.oasis-open.org/wsn/b-2"'


def document(content):
    return f"<tt:MetadataStream {NAMESPACES}>{content}</tt:MetadataStream>\n"


def event(message='<tt:Message UtcTime="2026-01-02T03:04:05.678Z" PropertyOperation="Changed">'
                  '<tt:Source><tt:SimpleItem Name="Token" Value="first"/><tt:SimpleItem Name="Port" Value="2"/>'
                  '</tt:Source><tt:Data><tt:SimpleItem Name="State" Value="true"/></tt:Data></tt:Message>'):
    return document("<tt:Event><wsnt:NotificationMessage><wsnt:Topic> tns1:Device/tnsx:Input </wsnt:Topic>"
                    f"<wsnt:Message>{message}</wsnt:Message></wsnt:NotificationMessage></tt:Event>")


def ptz(content):
    time = "<tt:UtcTime>2026-01-02T03:04:05Z</tt:UtcTime>"
    return document(f"<tt:PTZ><tt:PTZStatus>{content}{time}</tt:PTZStatus></tt:PTZ>")


def frame(source, content="", time="2026-01-02T03:04:05.6Z"):
    attribute = f' Source="{source}"' if source else ""
    opened = f'<tt:Frame UtcTime="{time}"{attribute}>'
    return document(f"<tt:VideoAnalytics>{opened}{content}</tt:Frame></tt:VideoAnalytics>")


OBJECT = ('<tt:Object ObjectId="7"><tt:Appearance><tt:Shape><tt:CenterOfGravity x="0.5" y="-0.25"/></tt:Shape>'
          "<tt:Class><tt:Type>Human</tt:Type></tt:Class></tt:Appearance></tt:Object>")


@pytest.fixture
def show():
    def run(*documents, needed=(), sources=()):
        return subprocess.run([SHOW_METADATA, *needed, "--", *sources], input="".join(documents), capture_output=True,
                              text=True, check=False, timeout=BOUND_SECONDS)

    return run


def lines_of(result):
    """The lines for documents, which are between the first document and the summary."""
    assert result.stderr == ""
    _, _, rest = result.stdout.partition("at most one line per second for PTZ and for each source of scenes):\n")
    return re.match(r"\n((?:.+\n)*)\n\d+ documents, ", rest)[1].splitlines()


def test_first_document_is_printed_in_full_and_indented(show):
    out = show(event(), event()).stdout
    assert out.startswith('\nThe first document:\n\n<?xml version="1.0" ?>\n<tt:MetadataStream ')
    assert out.count("<tt:MetadataStream ") == 1
    assert '\n            <tt:SimpleItem Name="Port" Value="2"/>\n' in out


@pytest.mark.parametrize("text, line", [
    (event(), "03:04:05.678  Device/Input                         Changed      2: State=true"),
    (event(""), "Device/Input: no message"),
    (ptz('<tt:Position><tt:PanTilt x="0.1" y="0.2"/><tt:Zoom x="0.3"/></tt:Position>'
         "<tt:MoveStatus><tt:PanTilt>MOVING</tt:PanTilt><tt:Zoom>IDLE</tt:Zoom></tt:MoveStatus>"),
     "03:04:05      PTZ                                  pan and tilt x=0.1 y=0.2, zoom x=0.3, MOVING/IDLE"),
    (frame("Door", OBJECT), "03:04:05.6    scenes of Door                       Human 7 at x=0.5 y=-0.25"),
    (frame("Other", OBJECT * 2),
     "03:04:05.6    detections of Other                  Human 7 at x=0.5 y=-0.25; Human 7 at x=0.5 y=-0.25"),
    (frame("Door", '<tt:Object ObjectId="8"/>'), "03:04:05.6    scenes of Door                       object 8 at "),
    (frame("Door"), "03:04:05.6    scenes of Door                       nothing moves"),
])
def test_line(show, text, line):
    assert lines_of(show(text, needed=["scenes of Door"])) == [line]


def test_frame_without_a_source_is_no_line(show):
    assert lines_of(show(frame(""))) == []


def test_every_event_and_only_some_frames_have_a_line(show):
    lines = lines_of(show(*[event()] * 5, *[frame("A")] * 5, *[frame("B")] * 5))
    assert sum("Device/Input" in line for line in lines) == 5
    # At most one in a second; the test may take longer than one.
    assert 1 <= sum("of A" in line for line in lines) < 5
    assert 1 <= sum("of B" in line for line in lines) < 5


def test_summary_counts_by_kind(show):
    texts = [event(), event(), frame("A"), document("")]
    result = show(*texts, needed=["events", "scenes of A"])
    size = sum(len(text) - 1 for text in texts)
    assert re.search(rf"\n\n4 documents, {size} bytes in \d+ s: 2 events, 1 scenes of A\n\Z", result.stdout)
    assert result.returncode == 0


@pytest.mark.parametrize("needed, sources, missing, status", [
    (["events", "PTZ"], [], "PTZ", 1),
    (["events", "PTZ", "scenes of A"], ["Mine"], "PTZ, scenes of A, detections of Mine", 1),
    (["events"], ["Mine"], "detections of Mine", 0),
])
def test_missing_kinds_fail_and_missing_detections_do_not(show, needed, sources, missing, status):
    result = show(event(), needed=needed, sources=sources)
    assert result.stdout.endswith(f"\nmissing: {missing}\n")
    assert result.returncode == status


def test_no_document_at_all(show):
    result = show(needed=["events"])
    assert result.stdout == "\n0 documents, 0 bytes in 0 s: nothing\nmissing: events\n"
    assert (result.returncode, result.stderr) == (1, "")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_summary_is_printed_after_a_signal(number):
    with subprocess.Popen([SHOW_METADATA], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
        process.stdin.write(event())
        process.stdin.flush()
        while "Device/Input" not in process.stdout.readline():
            pass
        process.send_signal(number)
        out, _ = process.communicate(event(), timeout=BOUND_SECONDS)
    assert "2 documents, " in out
    assert process.returncode == 0
