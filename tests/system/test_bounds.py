# SPDX-License-Identifier: MIT
"""The tables of limits in the documentation: they have each limit of the headers with its value, and no other one."""

import re

import pytest

from installation import TREE, defined_limits, value_of

DOCUMENTATION = TREE / "docs/architecture.md"

# The source folders of the daemon, of code that it shares with other programs, of its clients, of the library of
# applications, of tessard-receiver and of tessardctl. Each number in their headers is a limit except those in NO_BOUNDS;
# a component's own number is one if its name has one of BOUND_WORDS. So is a number in these single headers.
FOLDERS = ("src", "common", "client", "lib", "receiver", "tools", "gateways/common", "gateways/rtsp",
           "gateways/mqtt", "gateways/view")
PLUGIN_HEADERS = [TREE / "plugins" / name for name in (
    "eventqueue.h", "eventtable.h", "objecttracker.h", "producerelement.h", "receiverevent.h", "rtpdocument.h")]
SINGLE_HEADERS = PLUGIN_HEADERS + [TREE / "onvif/metadatajson.h"]
NO_BOUNDS = {"OPTION_VALIDATION_DEFAULT_CHANNEL"}
OWN_NUMBER = re.compile(r"^constexpr [\w:]+ ([A-Z0-9_]+) = ([\d*+ ]+);", re.MULTILINE)
BOUND_WORDS = {"BACKLOG", "LIMIT", "MAX", "PATIENCE", "THREADS", "TIMEOUT"}

# Added to a constant to get the documented number: a new client is accepted while at most that many wait.
TOLD_MORE = {"SERVER_MAX_WAITING_REQUESTS": 1}

# The head of a table; its first column has any title.
TABLE = re.compile(r"^\|[^|\n]*\| bound \| where it is named(?: in `plugins/`)? \|\n\|[-|]*\|\n((?:\|.*\|\n)+)",
                   re.MULTILINE)
NAME = re.compile(r"`([A-Z][A-Z0-9_]+)`")

KIB, MIB = 1024, 1024 * 1024

# The unit of a time, by the last word of the constant's name.
MILLISECONDS = {"US": 1 / 1000, "MS": 1, "S": 1000, "SECONDS": 1000}


def files(pattern):
    return sorted(path for folder in FOLDERS for path in (TREE / folder).glob(pattern))


def constants():
    found = {}
    for header in files("*.h") + SINGLE_HEADERS:
        found |= defined_limits(header)
    for source in files("*.cpp") + SINGLE_HEADERS:
        own = OWN_NUMBER.findall(source.read_text(encoding="utf-8"))
        found |= {name: value_of(value) for name, value in own if not BOUND_WORDS.isdisjoint(name.split("_"))}
    return {name: value + TOLD_MORE.get(name, 0) for name, value in found.items() if name not in NO_BOUNDS}


def rows():
    """Each row as the text of the limit and the names of its constants."""
    tables = TABLE.findall(DOCUMENTATION.read_text(encoding="utf-8"))
    cells = [line.strip("|").split(" | ") for table in tables for line in table.splitlines()]
    assert len(tables) >= 2 and all(len(row) == 3 for row in cells), cells
    return [(bound, NAME.findall(where)) for _, bound, where in cells]


CONSTANTS = constants()
ROWS = rows()


def notations_of(name, value):
    """The notations of a constant's value in a row, as regular expressions."""
    milliseconds = MILLISECONDS.get(name.rpartition("_")[2])
    if milliseconds is not None:
        value = round(value * milliseconds)
        ways = [f"{value:,} ms"] + ([f"{value // 1000:,} s"] if value % 1000 == 0 else [])
        ways += ["a second"] if value == 1000 else []
    else:
        ways = [f"{value:,}"] + (["one"] if value == 1 else [])
        ways += [f"{value // unit:,} {word}" for unit, word in ((KIB, "KiB"), (MIB, "MiB"))
                                 if value >= unit and value % unit == 0]
    return [rf"(?<![\w.,]){re.escape(way)}(?!\w|[.,]\d)" for way in ways]


@pytest.mark.parametrize("name, value", CONSTANTS.items())
def test_bound_is_documented_with_its_value(name, value):
    bounds = [bound for bound, names in ROWS if name in names]
    assert bounds, f"{DOCUMENTATION} does not name {name}"
    assert any(re.search(way, bound) for way in notations_of(name, value) for bound in bounds), \
        f"{name} is {value}, not: {bounds}"


def test_documented_names_are_those_of_the_headers():
    assert {name for _, names in ROWS for name in names} <= CONSTANTS.keys()


# The comparison itself


@pytest.mark.parametrize("name, value, bound, matches", [
    ("A_MAX_BYTES", 65536, "65,536 bytes", True),
    ("A_MAX_BYTES", 65536, "64 KiB", True),
    ("A_MAX_BYTES", 65536, "64 MiB", False),
    ("A_MAX_BYTES", 65536, "164 KiB", False),
    ("A_MAX_BYTES", 65536, "65,536,000 bytes", False),
    ("A_MAX", 16, "16", True),
    ("A_MAX", 16, "at most 16, and no more", True),
    ("A_MAX", 16, "116 or 1,016 or 16.5 or 160", False),
    ("A_TIME_MS", 10000, "10 s", True),
    ("A_TIME_MS", 10000, "10,000 ms", True),
    ("A_TIME_MS", 10000, "10", False),
    ("A_TIME_MS", 250, "0 s", False),
    ("A_TIME_US", 1000000, "1 in 1 s", True),
    ("A_TIME_US", 1000000, "one a second", True),
    ("A_TIME_US", 2000000, "one a second", False),
    ("A_MAX", 1, "one at a time", True),
    ("A_MAX", 1, "none", False),
    ("A_TIME_S", 60, "60 s", True),
    ("A_TIME_S", 60, "60 seconds", False),
])
def test_values_are_compared_with_their_units(name, value, bound, matches):
    assert any(re.search(way, bound) for way in notations_of(name, value)) == matches
