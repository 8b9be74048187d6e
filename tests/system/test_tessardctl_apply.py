# SPDX-License-Identifier: MIT
"""tessardctl apply, with a fake control service."""

import json

import pytest

from controlclient import ROOT, path_of
from daemon import RADAR_TRACKER as RADAR
from daemon import VIDEO_TRACKER as VIDEO
from fakeservice import properties
from installation import documented_limit
from tessardctl import BAD_CHARACTERS, LOCAL, SUCCESS, failure

MAX_FILE_BYTES = documented_limit("../tools/applyfile.h", "APPLY_FILE_MAX_BYTES")

CHANNEL = '{"Channel": 1, "Enabled": true, "Configuration": "c"}'


def refused(reason, line, column, file="standard input"):
    return failure(LOCAL, f"Could not apply '{file}': line {line}, column {column}: {reason}.")


def file_with(channel=CHANNEL, name='"a"'):
    """Returns a file with one producer."""
    return f'[{{"Name": {name}, "Channels": [{channel}]}}]'


def test_output_of_producers_is_a_valid_file(run_on_bus, started_service):
    assert run_on_bus("apply", "-", stdin=run_on_bus("producers", "--json").out.decode()) == (SUCCESS, b"", b"")
    assert started_service.set_calls() == [(ROOT, "SetProducersEnabled", (
        {RADAR: [(1, False, "")], VIDEO: [(1, True, "profile1"), (2, False, "")]},))]


def test_every_text_survives(run_on_bus, fake_service):
    text = "\x01\x1b\x7f\u009b\u2028\"\\u001b\\\U000e0001\U0001f600é\n\t/"
    configuration = "\u2028\U000e0001\U0001f600é/'"
    fake_service.start({path_of("a"): properties(text, "a", [(1, True, configuration)])})
    assert run_on_bus("apply", "-", stdin=run_on_bus("producers", "--json").out.decode()).status == SUCCESS
    assert fake_service.set_calls() == [(ROOT, "SetProducersEnabled", ({text: [(1, True, configuration)]},))]


def test_named_file(run_on_bus, started_service, tmp_path):
    path = tmp_path / "changes.json"
    path.write_text(file_with('{"Channel": -2147483648, "Enabled": false}'), encoding="ascii")
    assert run_on_bus("apply", str(path)).status == SUCCESS
    assert started_service.set_calls() == [(ROOT, "SetProducersEnabled", ({"a": [(-2147483648, False, "")]},))]


@pytest.mark.parametrize("text, sent", [
    ("[]", {}), (" [ ] \n", {}), (file_with(""), {"a": []}),
    (file_with(f"{CHANNEL}, {CHANNEL}"), {"a": [(1, True, "c"), (1, True, "c")]}),
    (file_with('{"Channel": 1, "Enabled": false}, {"Channel": 1, "Enabled": false, "Configuration": "c"}'),
     {"a": [(1, False, ""), (1, False, "c")]}),
    (file_with('{"Channel": -0, "Enabled": false}'), {"a": [(0, False, "")]}),
    (file_with('{"Channel": 0, "Enabled": true, "Configuration": ""}'), {"a": [(0, True, "")]}),
    (file_with('{"Channel": 2147483647, "Enabled": false, "Configuration": "kept"}'),
     {"a": [(2147483647, False, "kept")]}),
    ('[{"Name": "a", "NiceName": "A", "Channels": []}, {"Name": "b", "Channels": []}]', {"a": [], "b": []}),
    (file_with("", r'"\ud83d\ude00\u00e9\/"'), {"\U0001f600é/": []}),
])
def test_valid_file(run_on_bus, started_service, text, sent):
    assert run_on_bus("apply", "-", stdin=text).status == SUCCESS
    assert started_service.set_calls() == [(ROOT, "SetProducersEnabled", (sent,))]


@pytest.mark.parametrize("text, place, reason", [
    ("", (1, 1), "not an array of producers"),
    ("{}", (1, 1), "not an array of producers"),
    ("1", (1, 1), "not an array of producers"),
    ("null []", (1, 1), "not an array of producers"),
    (" \n", (2, 1), "not an array of producers"),
    ("[]]", (1, 3), "the end of the file expected"),
    ("[]\n []", (2, 2), "the end of the file expected"),
    ("[", (1, 2), "a producer is not an object"),
    ("[,]", (1, 2), "a producer is not an object"),
    ("[1]", (1, 2), "a producer is not an object"),
    ("[[]]", (1, 2), "a producer is not an object"),
    ("[/* none */]", (1, 2), "a producer is not an object"),
    pytest.param("[" * 500000, (1, 2), "a producer is not an object", id="deep"),
    ("[{", (1, 3), "a string expected"),
    ("[{]", (1, 3), "a string expected"),
    ('[{"', (1, 3), "a string without an end"),
    ('[{"a\\', (1, 5), "an escape that is not JSON"),
    ('[{"Na\nme', (1, 6), "a control character in a string"),
    ('[{"Name" "a"}]', (1, 10), "':' expected"),
    ('[{"Name": "a" "Channels": []}]', (1, 15), "'}' expected"),
    ('[{"Name": "a", "Channels": []} {}]', (1, 32), "']' expected"),
    ('[{"Name": "a", "Channels": []},]', (1, 32), "a producer is not an object"),
    ('[{"Channels": []}]', (1, 2), 'a producer without "Name"'),
    ('[{"Name": 1, "Channels": []}]', (1, 11), "a string expected"),
    ('[{"Name": null, "Channels": []}]', (1, 11), "a string expected"),
    ('[{"Name": ["a"], "Channels": []}]', (1, 11), "a string expected"),
    ('[{"Name": "a"}]', (1, 2), 'a producer without "Channels"'),
    ('[{"Name": "a", "Channels": {}}]', (1, 28), "not an array of channels"),
    ('[{"Name": "a",\n  "Chanels": []}]', (2, 3), 'unknown member "Chanels" of a producer'),
    ('[{"Name": "\u6444\u00e9", "Chanels": []}]', (1, 17), 'unknown member "Chanels" of a producer'),
    ('[{"Name": "a", "Name": "b", "Channels": []}]', (1, 16), 'the member "Name" of a producer is there twice'),
    ('[{"Name": "a", "Channels": []},\n {"Name": "a", "Channels": []}]', (2, 2),
     'the producer "a" is there twice'),
    (file_with("1"), (1, 29), "a channel is not an object"),
    (file_with('{"Enabled": false}'), (1, 29), 'a channel without "Channel"'),
    (file_with('{"Channel": 1}'), (1, 29), 'a channel without "Enabled"'),
    (file_with('{"Channel": 1, "Enabled": 1}'), (1, 55), "true or false expected"),
    (file_with('{"Channel": 1, "Enabled": truest}'), (1, 55), "true or false expected"),
    (file_with('{"Channel": "1", "Enabled": true}'), (1, 41), "a whole number expected"),
    (file_with('{"Channel": 1.0, "Enabled": false}'), (1, 41), "a whole number expected"),
    (file_with('{"Channel": 1e0, "Enabled": false}'), (1, 41), "a whole number expected"),
    (file_with('{"Channel": -, "Enabled": false}'), (1, 41), "a whole number expected"),
    (file_with('{"Channel": +1, "Enabled": false}'), (1, 41), "a whole number expected"),
    (file_with('{"Channel": 010, "Enabled": false}'), (1, 41), "a whole number expected"),
    (file_with('{"Channel": 2147483648, "Enabled": false}'), (1, 41), "a number of more than 32 bits"),
    (file_with('{"Channel": -2147483649, "Enabled": false}'), (1, 41), "a number of more than 32 bits"),
    (file_with('{"Channel": 18446744073709551617, "Enabled": false}'), (1, 41), "a number of more than 32 bits"),
    (file_with('{"Channel": 1, "Enabled": true}'), (1, 29), 'an enabled channel without "Configuration"'),
    (file_with('{"Channel": 1, "Enabled": true, "Configuration": null}'), (1, 78), "a string expected"),
    (file_with('{"Channel": 1, "Enabled": false, "Enabeld": true}'), (1, 62),
     'unknown member "Enabeld" of a channel'),
    (file_with('{"Channel": 1, "Enabled": true, "En\\u0061bled": false}'), (1, 61),
     'the member "Enabled" of a channel is there twice'),
    (file_with('{"Channel": 1, "Enabled": false},\n' + CHANNEL), (2, 1),
     "channel 1 is there twice, with different values"),
    (file_with(CHANNEL + ",\n" + CHANNEL.replace('"c"', '"d"')), (2, 1),
     "channel 1 is there twice, with different values"),
    (file_with("", "'a'"), (1, 11), "a string expected"),
    (file_with("", r'"\u0000"'), (1, 12), "an escape that is not JSON"),
    (file_with("", r'"\q"'), (1, 12), "an escape that is not JSON"),
    (file_with("", r'"\u12"'), (1, 12), "an escape that is not JSON"),
    (file_with("", r'"\ud800x"'), (1, 12), "an escape that is not JSON"),
    (file_with("", r'"\ud800\ud800"'), (1, 12), "an escape that is not JSON"),
    (file_with("", r'"\udc00"'), (1, 12), "an escape that is not JSON"),
])
def test_invalid_file(run_on_bus, started_service, text, place, reason):
    assert run_on_bus("apply", "-", stdin=text) == refused(reason, *place)
    assert started_service.calls == []


@pytest.mark.parametrize("data, place", [
    (b'[{"Name": "\xff", "Channels": []}]', (1, 12)), (b'[{"Name":\n "a\0b", "Channels": []}]', (2, 4)),
    (b"\0", (1, 1)), (b"[\xc3", (1, 2)),
])
def test_bytes_that_are_not_text(run_on_bus, started_service, tmp_path, data, place):
    path = tmp_path / "file"
    path.write_bytes(data)
    assert run_on_bus("apply", str(path)) == refused("a byte that is not UTF-8", *place, file=path)
    assert started_service.calls == []


@pytest.mark.parametrize("character, name", BAD_CHARACTERS)
def test_configuration_that_makes_frames_malformed(run_on_bus, started_service, character, name):
    text = json.dumps([{"Name": "a", "Channels": [{"Channel": 1, "Enabled": True,
                                                   "Configuration": f"c{character}d"}]}])
    assert run_on_bus("apply", "-", stdin=text) == refused(
        f"a configuration name that contains {name}, which would make the producer's frames malformed",
        1, text.index('"c') + 1)
    assert started_service.calls == []


def test_byte_order_mark(run_on_bus, started_service):
    assert run_on_bus("apply", "-", stdin="\ufeff[]") == refused("not an array of producers", 1, 1)
    assert started_service.calls == []


@pytest.mark.parametrize("size", [MAX_FILE_BYTES, MAX_FILE_BYTES + 1])
def test_size_is_bounded(run_on_bus, started_service, size):
    result = run_on_bus("apply", "-", stdin="[]".ljust(size))
    if size == MAX_FILE_BYTES:
        assert result.status == SUCCESS
    else:
        assert result == failure(LOCAL, f"Could not apply 'standard input': more than {MAX_FILE_BYTES} bytes.")
        assert started_service.calls == []


def test_endless_file(run_on_bus):
    assert run_on_bus("apply", "/dev/zero").status == LOCAL


@pytest.mark.parametrize("path, message", [
    ("/nonexistent", "Could not open '/nonexistent': No such file or directory."),
    ("/", "Could not read '/': Error reading from file descriptor: Is a directory."),
])
def test_file_that_cannot_be_read(run_on_bus, path, message):
    assert run_on_bus("apply", path) == failure(LOCAL, message)
