# SPDX-License-Identifier: MIT
"""The man pages: their options are those of the programs' --help, and what they say about the protocol and the files is
what docs/protocol.md and the headers say."""

import os
import re
import subprocess

import pytest

from daemon import VIDEO_TRACKER
from installation import SCENE_PLUGINS, SOURCE_PLUGIN, TREE, build_option, documented_limit, unprivileged
from tessardctl import read_some
from waiting import BOUND_SECONDS

DOCS = TREE / "docs"

# Options that only print, and are not in a synopsis.
PRINTING = re.compile(r"-h|--help(-\w+)?")

# Options of --help, which does not show that they have an argument.
ARGUMENT_NOT_SHOWN = {"--run-dir"}

# The commands of tessardctl, by the section that describes them.
SECTIONS = {
    "stream": ["stream"],
    "snapshot": ["snapshot"],
    "producers, list, show, enable, disable, apply, monitor": [
        "producers", "list", "show", "enable", "disable", "apply", "monitor"],
    "status": ["status"],
    "produce": ["produce"],
    "emit, topics": ["emit", "topics"],
}

PROGRAMS = ("tessard", "tessard-receiver", "tessard-rtsp", "tessard-mqtt", "tessard-view")

PROTOCOL_PAGE = (DOCS / "tessard-protocol.7").read_text(encoding="utf-8")
PROTOCOL_TEXT = (DOCS / "protocol.md").read_text(encoding="utf-8")
PRODUCERS_PAGE = (DOCS / "producers.conf.5.in").read_text(encoding="utf-8")


def text_of(page):
    """The words of a page, with one blank between them."""
    return re.sub(r"\s+", " ", page)


def section(page, name):
    """The text of a section or subsection of a page."""
    (text,) = re.findall(rf"^\.S[hs] {re.escape(name)}\n(.*?)(?=^\.S[hs] |\Z)", page, re.MULTILINE | re.DOTALL)
    return text


# Options


def options_of_help(text):
    """The options in the output of --help, each with whether it shows an argument."""
    rows = re.findall(r"^  (?:(-\w), )?(--[\w-]+)(=\S+)?(?= |$)", text, re.MULTILINE)
    names = [(name, argument != "") for short, long, argument in rows for name in (short, long) if name]
    assert names and len(names) == len(dict(names)), names
    return dict(names)


def options_of_macros(text):
    """The options in lines of mdoc, each with whether it has an argument."""
    flags = re.findall(r"Fl (\S+)((?: Ns =)?(?: Ns)? Ar)?", text)
    return {f"-{name}": argument != "" for name, argument in flags}


def options_of_items(text):
    """The options that lists describe."""
    return options_of_macros("\n".join(re.findall(r"^\.It (Fl .*)$", text, re.MULTILINE)))


def only_shown(options):
    """The options of which --help shows whether they have an argument, without the one for both."""
    return {name: value for name, value in options.items() if name not in ARGUMENT_NOT_SHOWN}


def expect_synopsis(synopsis, printed):
    """Expects that a synopsis has each option of --help, in its long or its short form, and no other."""
    named = options_of_macros(synopsis)
    required = {name for name in printed if name.startswith("--") and not PRINTING.fullmatch(name)}
    shorts = {"--run-dir": "-d", "--version": "-V"}

    assert named.keys() <= printed.keys()
    assert {name for name in required if name not in named and shorts.get(name) not in named} == set()
    assert {name: has for name, has in named.items() if name.startswith("--") and name in only_shown(printed)} == {
        name: has for name, has in only_shown(printed).items() if name in named and name.startswith("--")}


@pytest.fixture(scope="module")
def help_of(installation, bus):
    """The output of --help of the installed programs."""

    def run(program, *words):
        if program == "tessard":
            environment = installation.plugin_environment(()) | installation.sanitizer_environment()
            command = [installation.tessard, "--help"]
        elif program == "simcamera":
            environment, command = installation.sanitizer_environment(), [installation.simcamera, *words, "--help"]
        elif program == "tessardctl":
            environment, command = dict(os.environ), [os.environ["TESSARDCTL"], *words, "--help"]
        else:
            environment = installation.sanitizer_environment() | {
                "LD_LIBRARY_PATH": str(installation.plugins[SOURCE_PLUGIN].parents[1])}
            command = [installation.prefix / "bin" / program, "--help"]
        result = subprocess.run(command, env=environment | {"LC_ALL": "C.UTF-8"}, stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, timeout=BOUND_SECONDS, check=True, cwd="/",
                                **(unprivileged() if program == "tessard" else {}))
        return result.stdout

    return run


@pytest.mark.parametrize("program", PROGRAMS)
def test_options_of_a_page_are_those_of_the_program(help_of, program):
    page = (DOCS / f"{program}.8").read_text(encoding="utf-8")
    printed = options_of_help(help_of(program))

    described = options_of_items(page)
    assert described.keys() == printed.keys()
    longs = {name for name in only_shown(printed) if name.startswith("--")}
    assert {name: described[name] for name in longs} == {name: printed[name] for name in longs}
    expect_synopsis(section(page, "SYNOPSIS"), printed)


TESSARDCTL_PAGE = (DOCS / "tessardctl.1").read_text(encoding="utf-8")


def synopses_of_tessardctl():
    """The lines of each command in the synopsis, by the command."""
    blocks = re.split(r"^\.Nm\n", section(TESSARDCTL_PAGE, "SYNOPSIS"), flags=re.MULTILINE)[1:]
    synopses = {}
    for block in blocks:
        line, _, rest = block.partition("\n")
        if line.startswith(".Cm "):
            synopses |= {command: rest for command in line.removeprefix(".Cm ").split(" | ")}
    return synopses


def test_commands_of_the_page_are_those_of_tessardctl(help_of):
    commands = re.findall(r"^  ([a-z]+) {2,}\S", help_of("tessardctl").partition("\nCommands:\n")[2], re.MULTILINE)

    assert sorted(synopses_of_tessardctl()) == sorted(commands)
    assert sorted([command for group in SECTIONS.values() for command in group] + ["help"]) == sorted(commands)


@pytest.mark.parametrize("name, commands", SECTIONS.items())
def test_options_of_a_section_are_those_of_its_commands(help_of, name, commands):
    printed = {}
    for command in commands:
        printed |= options_of_help(help_of("tessardctl", command))

    del printed["-h"], printed["--help"]
    assert options_of_items(section(TESSARDCTL_PAGE, name)) == printed


@pytest.mark.parametrize("command", synopses_of_tessardctl())
def test_synopsis_of_a_command_has_its_options(help_of, command):
    expect_synopsis(synopses_of_tessardctl()[command], options_of_help(help_of("tessardctl", command)))


def test_options_of_tessardctl_itself(help_of):
    described = options_of_items(section(TESSARDCTL_PAGE, "DESCRIPTION"))

    assert described == options_of_help(help_of("tessardctl"))


def test_options_of_the_simulated_camera(help_of):
    page = (DOCS / "simulated-camera.md").read_text(encoding="utf-8")
    rows = re.findall(r"^\| `(--[\w-]+)( \S+)?` \|", page, re.MULTILINE)
    printed = options_of_help(help_of("simcamera"))

    del printed["-h"], printed["--help"]
    assert {name: argument != "" for name, argument in rows} == printed


# The protocol


def unescaped(literal):
    return literal.replace(r"\e", "\\")


@pytest.fixture
def run_example(workspace, daemon):
    """Runs the client of the page, as it is printed there."""
    (literal,) = re.findall(r"^\.Bd -literal[^\n]*\n(import .*?)^\.Ed$", section(PROTOCOL_PAGE, "EXAMPLES"),
                            re.MULTILINE | re.DOTALL)
    script = workspace.folder() / "client.py"
    script.write_text(unescaped(literal), encoding="utf-8")

    def run(*lines):
        return subprocess.Popen(["python3", script, daemon.socket_path, *lines], stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    return run


def test_example_of_the_protocol_prints_documents(run_example):
    process = run_example("event=1")
    printed = b""
    try:
        while printed.count(b"</tt:MetadataStream>\n") < 2 and process.poll() is None:
            printed += read_some(process.stdout.fileno())
    finally:
        process.kill()
        _, err = process.communicate(timeout=BOUND_SECONDS)
    assert (err, printed.count(b"<tt:MetadataStream ")) == (b"", printed.count(b"</tt:MetadataStream>\n"))


def test_example_of_the_protocol_prints_a_refusal(run_example):
    out, err = run_example().communicate(timeout=BOUND_SECONDS)

    assert (out, err) == (b"", b"FAIL\nBad request, no metadata can be produced.\n")


def test_protocol_page_has_the_keys_of_the_protocol():
    listed = re.findall(r"^\.It Cm (.*)$", PROTOCOL_PAGE, re.MULTILINE)
    (table,) = re.findall(r"^\| key \| values \| meaning \|\n\|[-|]+\|\n((?:\|.*\n)+)", PROTOCOL_TEXT, re.MULTILINE)

    assert sorted(" , ".join(listed).split(" , ")) == sorted(
        key for row in table.splitlines() for key in re.findall(r"`(\w+)`", row.split("|")[1]))


def test_protocol_page_has_the_replies_of_the_protocol():
    described = re.findall(r"^\.It Li (.*)$", section(PROTOCOL_PAGE, "The reply"), re.MULTILINE)
    texts = [re.sub(r" ?Ar \w+", "%", re.sub(r"Pq Ar \w+", "(%)", line)) for line in described]
    replies = re.findall(r"^\| `FAIL\\n([^`]+)` \|", PROTOCOL_TEXT, re.MULTILINE)

    assert [text.replace("% .", "%.") for text in texts] == [
        re.sub(r" ?%[sd]", "%", reply) for reply in replies]


@pytest.mark.parametrize("sentence, values", [
    ("A request has at most {} bytes, and {} seconds to arrive.",
     [documented_limit("server.h", "SERVER_MAX_REQUEST_BYTES"),
      documented_limit("server.h", "SERVER_REQUEST_TIMEOUT_MS") // 1000]),
    ("At most {} connections are sending their request or are queued, of which {} of one user",
     [documented_limit("server.h", "SERVER_MAX_WAITING_REQUESTS") + 1,
      documented_limit("server.h", "SERVER_MAX_UNFINISHED_REQUESTS")]),
    ("At most {} clients stream; the last {} places are for users that have none.",
     [documented_limit("clientplaces.h", "CLIENT_PLACES"), documented_limit("clientplaces.h", "CLIENT_PLACES_KEPT")]),
    ("At most {} sync points of a client are queued",
     [documented_limit("connectionmanager.h", "CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS")]),
])
def test_protocol_page_has_the_limits(sentence, values):
    assert sentence.format(*values) in text_of(PROTOCOL_PAGE)


# producers.conf


def test_page_of_the_file_has_the_limits():
    longest = documented_limit("producerconfig.h", "PRODUCER_CONFIG_MAX_NAME_BYTES")
    interval = documented_limit("producerconfig.h", "PRODUCER_CONFIG_RETRY_SECONDS")

    assert f"A configuration name of more than {longest} bytes" in text_of(PRODUCERS_PAGE)
    assert f"retries every {interval} seconds." in text_of(PRODUCERS_PAGE)


def test_installed_page_of_the_file_has_its_path(installation):
    page = (installation.prefix / "share/man/man5/producers.conf.5").read_text(encoding="utf-8")
    option = build_option("producers_conf")
    path = option if os.path.isabs(option) else "/etc/tessard/producers.conf"

    assert f".Sh SYNOPSIS\n.Pa {path}\n" in page
    assert f".It Pa {path}.tessard-new\n" in page
    assert "@" not in page


def test_example_of_the_file_is_read(start_daemon, control):
    (example,) = re.findall(r"^\.Bd -literal[^\n]*\n(.*?)^\.Ed$", section(PRODUCERS_PAGE, "EXAMPLES"),
                            re.MULTILINE | re.DOTALL)
    start_daemon(plugins=SCENE_PLUGINS, producers=example)
    assert control.names(VIDEO_TRACKER) == {(VIDEO_TRACKER, 1): "profile1", (VIDEO_TRACKER, 2): ""}
