# SPDX-License-Identifier: MIT
"""docs/compatibility.md: each entry that a comment names is on the page, and each test that the page names exists."""

import re

import pytest

from installation import TREE

PAGE = (TREE / "docs/compatibility.md").read_text(encoding="utf-8")

FOLDERS = ("src", "common", "sim", "tools", "tests")
SUFFIXES = (".cpp", ".h", ".c", ".py")

# The beginning of a line, with what continues a comment there.
LINE_START = re.compile(r"\n\s*(?:\*|//|#)?\s*")
REFERENCE = re.compile(r'docs/compatibility\.md, "([^"]+)"')

ROW = re.compile(r"^\| ([^|]+) \| [^|]+ \| [^|]+ \| ([^|]+) \|$", re.MULTILINE)
HEADINGS = ("entry", "---")
CASES = re.compile(r"`([^`:]+)`: ((?:`\w+(?:\.\w+)?`(?:, )?)+)(?:; |$)")

ROWS = {entry: tests for entry, tests in ROW.findall(PAGE) if entry not in HEADINGS}


def sources():
    return (path for folder in FOLDERS for path in (TREE / folder).rglob("*") if path.suffix in SUFFIXES)


def named_entries():
    return {entry for path in sources()
            for entry in REFERENCE.findall(LINE_START.sub(" ", path.read_text(encoding="utf-8")))}


def definition(case):
    suite, dot, name = case.rpartition(".")
    if dot:
        return re.compile(rf"^TEST(_F|_P)?\({suite}, {name}\)$", re.MULTILINE)
    return re.compile(rf"^def {name}\(", re.MULTILINE)


def test_the_page_has_the_entries_that_the_code_names():
    assert set(ROWS) == named_entries()


def test_each_row_is_an_entry_of_its_own():
    rows = [line for line in PAGE.splitlines() if line.startswith("| ") and not line.startswith("| entry |")]

    assert len(ROWS) == len(rows)


@pytest.mark.parametrize("entry", ROWS)
def test_tests_of_an_entry_exist(entry):
    assert CASES.sub("", ROWS[entry]) == "", "files with their tests, and nothing else"

    for path, cases in CASES.findall(ROWS[entry]):
        text = (TREE / path).read_text(encoding="utf-8")
        for case in re.findall(r"`([^`]+)`", cases):
            assert definition(case).search(text), f"{case} in {path}"
