# SPDX-License-Identifier: MIT
"""The items of external producers: the installed converter and the JSON Schema accept the same items, and the examples
in docs/producers.md are correct."""

import json
import re
import subprocess
import sys

import gi
import jsonschema
import pytest

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

from documents import Document  # noqa: E402
from installation import JSON_PLUGIN, TREE  # noqa: E402
from waiting import BOUND_SECONDS  # noqa: E402

SCHEMA = json.loads((TREE / "docs/producer-item.schema.json").read_text(encoding="utf-8"))
DOCUMENTATION = (TREE / "docs/producers.md").read_text(encoding="utf-8")

# The outcome of an item: all of it is written, the valid part is, or nothing.
WHOLE, PART, NOTHING = "whole", "part", "nothing"

SOURCE = "Producer"

# Sends each text of a list through the element, and a valid frame after it to detect its end; prints the output and the
# warnings for each text. A separate program, because a plug-in with a sanitizer needs its runtime from the start.
CONVERTER = """\
import json, sys
import gi
gi.require_version("Gst", "1.0")
gi.require_version("GstApp", "1.0")
from gi.repository import Gst, GstApp
Gst.init(None)
pipeline = Gst.parse_launch("appsrc name=source ! json2xml ! appsink name=sink sync=false")
source, sink = pipeline.get_by_name("source"), pipeline.get_by_name("sink")
pipeline.set_state(Gst.State.PLAYING)
MARK = '{"Source":"mark","Data":{"Item":[{}]}}'
def push(text):
    assert source.push_buffer(Gst.Buffer.new_wrapped(text.encode("utf-8", "surrogateescape"))) == Gst.FlowReturn.OK
def pull():
    buffer = sink.try_pull_sample(10 * Gst.SECOND).get_buffer()
    return buffer.extract_dup(0, buffer.get_size()).decode()
def convert(text):
    push(text)
    push(MARK)
    outputs, warnings = [], []
    while 'Source="mark"' not in (output := pull()):
        outputs.append(output)
    while message := pipeline.get_bus().pop_filtered(Gst.MessageType.WARNING | Gst.MessageType.ERROR):
        assert message.type == Gst.MessageType.WARNING
        warnings.append(message.parse_warning().gerror.message)
    return outputs, warnings
print(json.dumps([convert(text) for text in json.load(sys.stdin)]))
pipeline.set_state(Gst.State.NULL)
"""

WARNINGS = {
    WHOLE: [],
    PART: ["A part of a producer's frame is malformed and left out."],
    NOTHING: ["A frame of a producer is malformed and left out."],
}


def object_with(members):
    return '{"Objects": [{"Id": 1, %s}]}' % members


def box(left, top, right, bottom):
    return object_with(f'"BoundingBox": {{"Left": {left}, "Top": {top}, "Right": {right}, "Bottom": {bottom}}}')


def time(text):
    return '{"UtcTime": "%s"}' % text


def list_of(count, element):
    return ", ".join(element if isinstance(element, str) else element(index) for index in range(count))


def objects(count):
    return '{"Objects": [%s]}' % list_of(count, lambda index: '{"Id": %d}' % index)


def polygon(count):
    return object_with('"Polygon": [%s]' % list_of(count, "[0, 0]"))


def members(count):
    return "{%s}" % list_of(count, lambda index: '"%d": 0' % index)


OBJECT = SCHEMA["definitions"]["Object"]["properties"]
OBJECTS_MAX = SCHEMA["properties"]["Objects"]["maxItems"]
DELETED_MAX = SCHEMA["properties"]["Deleted"]["maxItems"]
POINTS_MIN, POINTS_MAX = OBJECT["Polygon"]["minItems"], OBJECT["Polygon"]["maxItems"]
TYPE_MAX = OBJECT["Type"]["maxLength"]
MEMBERS_MAX = SCHEMA["maxProperties"]
ID_MIN, ID_MAX = SCHEMA["definitions"]["Id"]["minimum"], SCHEMA["definitions"]["Id"]["maximum"]

# Items as text, and their outcomes. The schema accepts exactly those that are written completely.
ITEMS = [
    ("{}", WHOLE),
    ('{"Objects": [], "Deleted": []}', WHOLE),
    ('{"Objects": [{"Id": 1}]}', WHOLE),
    ('{"objects": 1, "Other": [null]}', WHOLE),
    ('{"Other": [1e308, 18446744073709551615, -9223372036854775808]}', WHOLE),
    ('{"Objects": "none", "Objects": []}', WHOLE),
    ("[]", NOTHING),
    ("null", NOTHING),
    ("1", NOTHING),
    ('"text"', NOTHING),
    ("", NOTHING),
    ("{", NOTHING),
    ('{"Objects": [],}', NOTHING),
    ("/* empty */ {}", NOTHING),
    ('{"Likelihood": NaN}', NOTHING),
    ('{"Other": "a\nb"}', NOTHING),
    ('{"Other": "\udcff"}', NOTHING),
    (members(MEMBERS_MAX), WHOLE),
    (members(MEMBERS_MAX + 1), NOTHING),

    ('{"Objects": null}', NOTHING),
    ('{"Objects": {}}', NOTHING),
    ('{"Deleted": null}', NOTHING),
    ('{"Deleted": 1}', NOTHING),
    ('{"Objects": [1]}', PART),
    ('{"Objects": [null]}', PART),
    ('{"Objects": [[]]}', PART),
    ('{"Objects": [{}]}', PART),
    ('{"Deleted": ["1"]}', PART),
    ('{"Deleted": [null]}', PART),
    (objects(OBJECTS_MAX), WHOLE),
    (objects(OBJECTS_MAX + 1), NOTHING),
    ('{"Deleted": [%s]}' % list_of(DELETED_MAX, "1"), WHOLE),
    ('{"Deleted": [%s]}' % list_of(DELETED_MAX + 1, "1"), NOTHING),

    (time("2024-01-01T00:00:00Z"), WHOLE),
    (time("2024-01-01T00:00:00.123456789Z"), WHOLE),
    (time("2024-01-01T00:00:00,5Z"), WHOLE),
    (time("2024-02-29T23:59:59+02:00"), WHOLE),
    (time("2024-01-01T00:00:00-0230"), WHOLE),
    (time("2024-01-01T00:00:00+02"), WHOLE),
    (time("1970-01-01T00:00:00Z"), WHOLE),
    (time("2099-12-31T23:59:59Z"), WHOLE),
    ('{"UtcTime": null}', PART),
    ('{"UtcTime": 1704067200}', PART),
    (time(""), PART),
    (time("2024-01-01T00:00:00"), PART),
    (time("2024-01-01T00:00:00z"), PART),
    (time("2024-01-01 00:00:00Z"), PART),
    (time("2024-01-01T00:00Z"), PART),
    (time("2024-01-01"), PART),
    (time("20240101T000000Z"), PART),
    (time("2024-W01-1T00:00:00Z"), PART),
    (time("2024-001T00:00:00Z"), PART),
    (time("2024-13-01T00:00:00Z"), PART),
    (time("2024-00-01T00:00:00Z"), PART),
    (time("2024-01-32T00:00:00Z"), PART),
    (time("2024-01-00T00:00:00Z"), PART),
    (time("2024-01-01T24:00:00Z"), PART),
    (time("2024-01-01T00:60:00Z"), PART),
    (time("2024-01-01T00:00:60Z"), PART),
    (time("2024-01-01T00:00:00.Z"), PART),
    (time("2024-01-01T00:00:00.1234567890Z"), PART),
    (time("2024-01-01T00:00:00,1234567890+02:00"), PART),
    (time("2024-01-01T00:00:00.%sZ" % ("1" * 100)), PART),
    (time("2024-01-01T00:00:00+2"), PART),
    (time("2024-01-01T00:00:00+02:60"), PART),
    (time("2024-01-01T00:00:00Z "), PART),
    (time("1969-12-31T23:59:59Z"), PART),
    (time("2100-01-01T00:00:00Z"), PART),

    ('{"Objects": [{"Id": 5.0}, {"Id": 1e2}, {"Id": -0.0}], "Deleted": [5.0]}', WHOLE),
    ('{"Objects": [{"Id": %d}], "Deleted": [%d]}' % (ID_MAX, ID_MIN), WHOLE),
    ('{"Objects": [{"Id": %d}]}' % (ID_MAX + 1), PART),
    ('{"Deleted": [%d]}' % (ID_MIN - 1), NOTHING),
    ('{"Objects": [{"Id": 18446744073709551616}]}', NOTHING),
    ('{"Objects": [{"Id": 0.5}]}', PART),
    ('{"Objects": [{"Id": 1e999}]}', NOTHING),
    ('{"Objects": [{"Id": "1"}]}', PART),
    ('{"Objects": [{"Id": true}]}', PART),
    ('{"Objects": [{"Id": 01}]}', NOTHING),

    (box(-1, 1, 1, -1), WHOLE),
    (box(0, 0, 0, 0), WHOLE),
    (box(-1.001, 1, 1, -1), PART),
    (box(-1, 1.001, 1, -1), PART),
    (box(-1, 1, 1.001, -1), PART),
    (box(-1, 1, 1, -1.001), PART),
    (box(-1, 1, "1e999", -1), NOTHING),
    (box(-1, 1, "1e99", -1), PART),
    (box(18446744073709551615, 1, 1, -1), PART),
    (box("null", 1, 1, -1), PART),
    (box('"0"', 1, 1, -1), PART),
    (box("false", 1, 1, -1), PART),
    (object_with('"BoundingBox": null'), PART),
    (object_with('"BoundingBox": [0, 0, 0, 0]'), PART),
    (object_with('"BoundingBox": {"Left": 0, "Top": 0, "Right": 0}'), PART),

    (object_with('"CenterOfGravity": [-1, 1.0]'), WHOLE),
    (object_with('"CenterOfGravity": [0]'), PART),
    (object_with('"CenterOfGravity": [0, 0, 0]'), PART),
    (object_with('"CenterOfGravity": [0, 2]'), PART),
    (object_with('"CenterOfGravity": {"x": 0, "y": 0}'), PART),
    (polygon(POINTS_MIN), WHOLE),
    (polygon(POINTS_MAX), WHOLE),
    (polygon(POINTS_MIN - 1), PART),
    (polygon(POINTS_MAX + 1), PART),
    (polygon(0), PART),
    (object_with('"Polygon": [[0, 0], [0, 1], [0]]'), PART),
    (object_with('"Polygon": [[0, 0], [0, 1], [0, "1"]]'), PART),
    (object_with('"Polygon": {}'), PART),

    (object_with('"Type": "<&\\" \\ud83d\\ude97"'), WHOLE),
    (object_with('"Type": "%s"' % ("\U0001f697" * TYPE_MAX)), WHOLE),
    (object_with('"Type": "%s"' % ("\U0001f697" * (TYPE_MAX + 1))), PART),
    (object_with('"Type": ""'), PART),
    (object_with('"Type": "a\\nb"'), PART),
    (object_with('"Type": "a\\u001f"'), PART),
    (object_with('"Type": 1'), PART),
    (object_with('"Type": null'), PART),
    (object_with('"Likelihood": 0'), WHOLE),
    (object_with('"Likelihood": 1.0'), WHOLE),
    (object_with('"Likelihood": 1.001'), PART),
    (object_with('"Likelihood": -0.001'), PART),
    (object_with('"Likelihood": "1"'), PART),
    (object_with('"Likelihood": true'), PART),
]

# Invalid items that the schema cannot exclude and accepts.
BEYOND_THE_SCHEMA = [
    (box(0.1, 0, 0, 0), PART),
    (box(0, 0, 0, 0.1), PART),
    ('{"Objects": [{"Id": 1}, {"Id": 1.0}]}', PART),
    (time("2023-02-29T00:00:00Z"), PART),
    (time("1970-01-01T00:00:00+01:00"), PART),
    (time("2099-12-31T23:59:59.5Z"), PART),
    ('{"Other": 1e999}', NOTHING),
    ('{"Other": 18446744073709551616}', NOTHING),
    ('{"Other": -9223372036854775809}', NOTHING),
    ('{"Other": "\\u0000"}', NOTHING),
    ('{"Other": "\\ud83d"}', NOTHING),
    ('{"Other": %s}' % ("[" * 100 + "]" * 100), NOTHING),
    ('{"Other": [%s]}' % list_of(70000, "0"), NOTHING),
    ('{"Other": "%s"}' % ("x" * 2000000), NOTHING),
]


def documented_items():
    """Each line of each JSON example."""
    blocks = re.findall(r"^```json\n(.*?)^```$", DOCUMENTATION, re.MULTILINE | re.DOTALL)
    return [line for block in blocks for line in block.splitlines()]


def refuse_constant(name):
    raise ValueError(name)


def accepted_by_schema(text):
    try:
        text.encode()
        item = json.loads(text, parse_constant=refuse_constant)
    except ValueError:
        return False
    return jsonschema.Draft7Validator(SCHEMA).is_valid(item)


@pytest.fixture(scope="module")
def convert(installation):
    """Sends items through the installed element, each in its own frame; returns the output and the warnings of each."""
    folder, environment = installation.new_plugin_folder([JSON_PLUGIN])
    application = Gst.Registry.get().find_plugin("app").get_filename()
    (folder / "app.so").symlink_to(application)
    environment |= installation.plugin_host_environment()

    def run(items):
        frames = ['{"Source":"%s","Data":{"Item":[%s]}}' % (SOURCE, item) for item in items]
        result = subprocess.run([sys.executable, "-c", CONVERTER], input=json.dumps(frames), env=environment,
                                stdout=subprocess.PIPE, text=True, timeout=6 * BOUND_SECONDS)
        assert result.returncode == 0
        return json.loads(result.stdout)

    return run


def expect_outcomes(convert, items):
    results = convert([text for text, _ in items])
    assert len(results) == len(items)
    for (text, outcome), (outputs, warnings) in zip(items, results):
        assert warnings == WARNINGS[outcome], text[:200]
        assert len(outputs) == (0 if outcome == NOTHING else 1), text[:200]


def frames_of(outputs):
    (fragment,) = outputs
    document = f'<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema">{fragment}</tt:MetadataStream>'
    return Document(document.encode()).frames


def test_schema_is_one():
    jsonschema.Draft7Validator.check_schema(SCHEMA)


def test_element_writes_all_that_the_schema_accepts(convert):
    expect_outcomes(convert, ITEMS)
    for text, outcome in ITEMS:
        assert accepted_by_schema(text) == (outcome == WHOLE), text[:200]


def test_element_refuses_values_that_the_schema_cannot_exclude(convert):
    expect_outcomes(convert, BEYOND_THE_SCHEMA)
    for text, _ in BEYOND_THE_SCHEMA:
        assert accepted_by_schema(text), text[:200]


def test_documented_items_are_written_completely(convert):
    items = documented_items()
    assert len(items) == 4
    results = convert(items)
    for text, (outputs, warnings) in zip(items, results, strict=True):
        assert accepted_by_schema(text), text
        assert warnings == []
        item = json.loads(text)
        (frame,) = frames_of(outputs)
        assert frame.source == SOURCE
        assert list(frame.objects) == [str(seen["Id"]) for seen in item.get("Objects", [])]
        assert frame.deleted == [str(left) for left in item.get("Deleted", [])]


def test_documented_example_has_the_documented_output(convert):
    (result,) = convert(documented_items()[:1])
    (frame,) = frames_of(result[0])
    seen = frame.objects["12"]
    assert frame.time.isoformat() == "2024-01-01T00:00:00.250000+00:00"
    assert seen.box == (-0.6, 0.6, -0.2, 0.2)
    assert seen.centre == (-0.4, 0.4)
    assert seen.polygon == [(-0.6, 0.6), (-0.2, 0.6), (-0.4, 0.2)]
    assert (seen.type, seen.likelihood) == ("Human", 0.96)


def test_recordings_are_written_completely(convert):
    recordings = list((TREE / "sim/recordings").glob("*.jsonl"))
    assert recordings
    for recording in recordings:
        items = recording.read_text(encoding="utf-8").splitlines()
        assert items
        for text, (outputs, warnings) in zip(items, convert(items), strict=True):
            assert warnings == [] and accepted_by_schema(text), text
            (frame,) = frames_of(outputs)
            assert len(frame.objects) == len(json.loads(text)["Objects"])


def test_several_items_are_one_fragment(convert):
    (result,) = convert([", ".join(documented_items())])
    assert result[1] == []
    assert len(frames_of(result[0])) == len(documented_items())


@pytest.mark.parametrize("header, name, words", [
    ("producerframe.h", "PRODUCER_FRAME_BYTES_MAX", "bytes of a message, including the daemon's frame around it"),
    ("jsonlimits.h", "JSON_VALUES_MAX", "JSON values of a message"),
    ("jsonlimits.h", "JSON_DEPTH_MAX", "nested arrays and objects, three of which are the daemon's"),
    ("jsonlimits.h", "JSON_MEMBERS_MAX", "members of an object"),
    ("producerframe.h", "PRODUCER_ITEMS_MAX", "items of a message"),
    ("producerframe.h", "PRODUCER_OBJECTS_MAX", "`Objects` of an item"),
    ("producerframe.h", "PRODUCER_OBJECTS_MAX", "`Deleted` of an item"),
])
def test_limits_are_documented(header, name, words):
    text = (TREE / "plugins" / header).read_text(encoding="utf-8")
    (value,) = re.findall(rf"^constexpr \w+ {name} = (\d+);", text, re.MULTILINE)
    assert f"| {words} | {int(value):,} |\n" in DOCUMENTATION
