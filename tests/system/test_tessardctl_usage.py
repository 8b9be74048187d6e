# SPDX-License-Identifier: MIT
"""tessardctl's command line, its help and its man page."""

import os
import re

import pytest

from daemon import VIDEO_TRACKER as VIDEO
from installation import TREE, documented_limit
from overdue import CALL_SECONDS
from tessardctl import BAD_CHARACTERS, BUS_COMMANDS, SUCCESS, USAGE, failure

MAX_PENDING_BYTES = documented_limit("../tools/linewriter.h", "LINE_WRITER_MAX_PENDING_BYTES")
WAIT_MS = documented_limit("../tools/produce.h", "PRODUCE_WAIT_MS")
MAX_FILE_BYTES = documented_limit("../tools/applyfile.h", "APPLY_FILE_MAX_BYTES")


def test_help_lists_the_commands(run_tessardctl):
    result = run_tessardctl("--help")
    assert result.status == SUCCESS
    assert result.out.startswith("Usage:\n  tessardctl [OPTION…] COMMAND [ARGUMENT…]\n".encode())
    assert b"\n  stream     Print the metadata that the daemon streams\n" in result.out
    assert result.err == b""
    for command in BUS_COMMANDS:
        assert re.search(rf"^  {command} +\S", result.out.decode(), re.MULTILINE)


@pytest.mark.parametrize("words", [[], ["stream"], ["producers"], ["list"], ["apply"], ["help"]])
def test_help_command_prints_what_the_option_prints(run_tessardctl, words):
    by_command, by_option = run_tessardctl("help", *words), run_tessardctl(*words, "--help")
    assert (by_command.status, by_command.err) == (SUCCESS, b"")
    assert by_command.out == by_option.out
    assert by_command.out.startswith(" ".join(["Usage:\n  tessardctl", *words, ""]).encode())


def test_stream_help_names_every_option_and_status(run_tessardctl):
    result = run_tessardctl("stream", "--help")
    text = result.out.decode()
    assert result.status == SUCCESS
    assert text.startswith("Usage:\n  tessardctl stream [OPTION…]\n")
    assert re.findall(r"^  (--[a-z-]+(?:=[A-Z]+)?) ", text, re.MULTILINE) == [
        "--event", "--event-topic=TEXT", "--event-content=TEXT", "--analytics=N", "--ptz=N",
        "--pantilt-space=N", "--zoom-space=N", "--channel=N", "--socket=PATH", "--count=N",
        "--timeout=SECONDS", "--sync", "--pretty", "--output=FILE"]
    assert "(default: $TESSARD_SOCKET, or /run/tessard/metadata)" in text
    assert "\nExamples:\n  tessardctl stream --event\n" in text
    assert re.findall(r"^  (\d)  \S", text, re.MULTILINE) == [str(status) for status in range(8)]


@pytest.mark.parametrize("command, arguments", [
    ("producers", ""), ("list", ""), ("show", " NAME"), ("enable", " NAME CHANNEL CONFIGURATION"),
    ("disable", " NAME CHANNEL"), ("apply", " FILE"), ("monitor", ""), ("status", ""),
])
def test_help_of_commands_that_use_the_bus(run_tessardctl, command, arguments):
    result = run_tessardctl(command, "--help")
    text = result.out.decode()
    assert result.status == SUCCESS
    assert re.match(rf"Usage:\n  tessardctl {command} \[OPTION…\]{arguments} ?\n", text)
    assert "  --bus=ADDRESS " in text
    assert re.findall(r"^  (\d)  \S", text, re.MULTILINE) == [str(status) for status in range(8)]


def test_help_without_a_reader(run_tessardctl):
    reader, writer = os.pipe()
    os.close(reader)
    with os.fdopen(writer, "wb") as unread:
        assert run_tessardctl("--help", stdout=unread).status == SUCCESS


@pytest.mark.parametrize("option", ["--version", "-V"])
def test_version(run_tessardctl, option):
    result = run_tessardctl(option)
    assert result.status == SUCCESS
    assert re.fullmatch(rb"tessardctl version \d+\.\d+\.\d+\n", result.out)


@pytest.mark.parametrize("args, message, words", [
    ([], "No command given.", "tessardctl"),
    (["stram"], "Unknown command 'stram'.", "tessardctl"),
    (["help", "stram"], "Unknown command 'stram'.", "tessardctl"),
    (["help", "stream", "now"], "Unexpected argument 'now'.", "tessardctl help"),
    (["help", "--all"], "Unknown option --all", "tessardctl help"),
    (["--stream"], "Unknown option --stream", "tessardctl"),
    (["stream", "--evnt"], "Unknown option --evnt", "tessardctl stream"),
    (["stream", "--event", "now"], "Unexpected argument 'now'.", "tessardctl stream"),
    (["stream", "--event-topic"], "Missing argument for --event-topic", "tessardctl stream"),
    (["stream", "--analytics="], "The value of --analytics is empty.", "tessardctl stream"),
    (["stream", "--ptz="], "The value of --ptz is empty.", "tessardctl stream"),
    (["stream", "--pantilt-space="], "The value of --pantilt-space is empty.", "tessardctl stream"),
    (["stream", "--zoom-space="], "The value of --zoom-space is empty.", "tessardctl stream"),
    (["stream", "--channel="], "The value of --channel is empty.", "tessardctl stream"),
    (["stream", "--socket="], "The value of --socket is empty.", "tessardctl stream"),
    (["stream", "--output="], "The value of --output is empty.", "tessardctl stream"),
    (["stream", "--analytics", "1\nevent=1"], "The value of --analytics has more than one line.",
     "tessardctl stream"),
    (["stream", "--channel", "1\r"], "The value of --channel has more than one line.",
     "tessardctl stream"),
    (["stream", "--ptz", "1\u20292"], "The value of --ptz has more than one line.", "tessardctl stream"),
    (["snapshot"], "Missing argument FILE.", "tessardctl snapshot"),
    (["snapshot", ""], "The value of FILE is empty.", "tessardctl snapshot"),
    (["snapshot", "a", "b"], "Unexpected argument 'b'.", "tessardctl snapshot"),
    (["snapshot", "a", "--input="], "The value of --input is empty.", "tessardctl snapshot"),
    (["snapshot", "a", "--input", "b", "--event"], "Only one of --input and a request is allowed.",
     "tessardctl snapshot"),
    (["snapshot", "a", "--timeout", "0"],
     "The value of --timeout is '0', not a number of seconds from 0.001 to 2592000.", "tessardctl snapshot"),
    (["producers", "now"], "Unexpected argument 'now'.", "tessardctl producers"),
    (["producers", "--json", "--names"], "Only one of --json, --names and --channels is allowed.",
     "tessardctl producers"),
    (["producers", "--names", "--channels", "a"], "Only one of --json, --names and --channels is allowed.",
     "tessardctl producers"),
    (["show"], "Missing argument NAME.", "tessardctl show"),
    (["show", "a", "b"], "Unexpected argument 'b'.", "tessardctl show"),
    (["enable", "a", "1"], "Missing argument CONFIGURATION.", "tessardctl enable"),
    (["enable", "a", "1", "b", "c"], "Unexpected argument 'c'.", "tessardctl enable"),
    (["enable", "a", "1", b"\xff"], "The argument CONFIGURATION is not UTF-8.", "tessardctl enable"),
    *((["enable", "a", "1", f"c{character}d"],
       f"The argument CONFIGURATION contains {name}, which would make the producer's frames malformed.",
       "tessardctl enable")
      for character, name in BAD_CHARACTERS),
    (["disable", "a"], "Missing argument CHANNEL.", "tessardctl disable"),
    (["disable", "a", "-1"], "Unknown option -1", "tessardctl disable"),
    (["apply"], "Missing argument FILE.", "tessardctl apply"),
    (["monitor", "a"], "Unexpected argument 'a'.", "tessardctl monitor"),
    (["status", "now"], "Unexpected argument 'now'.", "tessardctl status"),
    (["status", "--json", "--metrics"], "Only one of --json and --metrics is allowed.", "tessardctl status"),
    (["produce"], "Missing argument NAME.", "tessardctl produce"),
    (["produce", "a", "b"], "Unexpected argument 'b'.", "tessardctl produce"),
    (["produce", b"\xff"], "The argument NAME is not UTF-8.", "tessardctl produce"),
    (["produce", "a", "--nice-name", b"\xff"], "The value of --nice-name is not UTF-8.", "tessardctl produce"),
    (["produce", "a", "--sample="], "The value of --sample is empty.", "tessardctl produce"),
    *((["produce", "a", f"--channel={value}"],
       f"The value of --channel is '{value}', not a whole number of 32 bits.", "tessardctl produce")
      for value in ("", "x", "-1", "1x", "0x1", " 1", "4294967296")),
    *((arguments + ["--bus="], "The value of --bus is empty.", f"tessardctl {arguments[0]}")
      for arguments in BUS_COMMANDS.values()),
])
def test_wrong_usage(run_tessardctl, args, message, words):
    assert run_tessardctl(*args) == failure(USAGE, f"{message}\nTry '{words} --help'.")


@pytest.mark.parametrize("value", ["0", "-1", "", "x", "1x", "0x1", " 1", "1.5", "9223372036854775808"])
def test_wrong_count(run_tessardctl, value):
    assert run_tessardctl("stream", f"--count={value}") == failure(
        USAGE, f"The value of --count is '{value}', not a whole number from 1 on.\nTry 'tessardctl stream --help'.")


@pytest.mark.parametrize("value", ["0", "-1", "", "x", "1s", "inf", "nan", "1e99", "0.0001", "2592001"])
def test_wrong_timeout(run_tessardctl, value):
    assert run_tessardctl("stream", f"--timeout={value}") == failure(
        USAGE, f"The value of --timeout is '{value}', not a number of seconds from 0.001 to 2592000.\n"
               "Try 'tessardctl stream --help'.")


def test_messages_have_no_control_characters(run_tessardctl):
    result = run_tessardctl("\x1b[2J\x07\u009b1m\n")
    assert result.err.startswith(b"tessardctl: Unknown command '\\u001b[2J\\u0007\\u009b1m\\u000a'.\n")


@pytest.mark.parametrize("command", [["enable", VIDEO], ["disable", VIDEO]])
@pytest.mark.parametrize("channel", ["", "x", "1x", "0x1", " 1", "1.5", "2147483648", "18446744073709551617"])
def test_channel_that_is_no_32_bit_number(run_tessardctl, command, channel):
    arguments = ["profile1"] if command[0] == "enable" else []
    result = run_tessardctl(*command, channel, *arguments)
    assert result.status == USAGE
    assert result.err.startswith(f"tessardctl: The argument CHANNEL is '{channel}', not a whole number of 32 "
                                 "bits.\n".encode())


def test_man_page_has_the_limits():
    page = (TREE / "docs/tessardctl.1").read_text(encoding="utf-8")
    mebibyte = 1024 * 1024
    assert MAX_FILE_BYTES % mebibyte == MAX_PENDING_BYTES % mebibyte == 0
    assert f"may take {CALL_SECONDS} seconds each" in page
    assert f"is JSON of at most {MAX_FILE_BYTES // mebibyte} MiB" in page
    assert f"falls more than {MAX_PENDING_BYTES // mebibyte} MiB behind" in page
    assert f"for {WAIT_MS // 1000} seconds" in page
