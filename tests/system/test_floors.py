# SPDX-License-Identifier: MIT
"""The check of the floors: refused includes, and differences between the table and the files."""

import subprocess
import sys

import pytest

from installation import TREE

TABLE = """# Architecture

| floor | files |
|---|---|
| common | `memory` |
| 0 | `logtext`, and the binding `binding1` that is generated from `src/dbus/` |
| 1 | `request`, `reader` |
| 2 | `main` |

| another | table |
|---|---|
| 9 | `server` |
"""

FILES = {
    "common/memory.h": "#pragma once\n",
    "common/memory.cpp": '#include "memory.h"\n#include <malloc.h>\n',
    "src/dbus/meson.build": "import('gnome').gdbus_codegen('binding1', xml)\n",
    "src/logtext.h": "#pragma once\n#include <glib.h>\n",
    "src/logtext.cpp": '#include "logtext.h"\n\n#include "memory.h"\n',
    "src/reader.h": '#include "logtext.h"\n',
    "src/reader.cpp": '#include "reader.h"\n#include "binding1.h"\n',
    "src/request.cpp": '#include "logtext.h"\n',
    "src/main.cpp": '#include "reader.h"\n#include "memory.h"\n',
}


class Tree:
    def __init__(self, root):
        self.root = root
        self.write("docs/architecture.md", TABLE)
        for name, text in FILES.items():
            self.write(name, text)

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def check(self):
        """The exit status and the lines of the check."""
        result = subprocess.run([sys.executable, TREE / "scripts/check-floors", self.root], stdout=subprocess.PIPE,
                                text=True, timeout=60, check=False)
        return result.returncode, result.stdout.splitlines()


@pytest.fixture(name="tree")
def make_tree(tmp_path):
    return Tree(tmp_path)


def test_tree_without_a_violation(tree):
    assert tree.check() == (0, ["8 files include only files of lower floors"])


@pytest.mark.parametrize("name, text, fault", [
    ("src/logtext.cpp", '#include "reader.h"',
     "src/logtext.cpp includes reader.h of floor 1, and is itself on floor 0"),
    ("src/request.cpp", '  #  include "reader.h"',
     "src/request.cpp includes reader.h of floor 1, and is itself on floor 1"),
    ("src/request.cpp", "#include <reader.h>",
     "src/request.cpp includes reader.h of floor 1, and is itself on floor 1"),
    ("src/logtext.h", '#include "binding1.h"',
     "src/logtext.h includes binding1.h of floor 0, and is itself on floor 0"),
    ("common/memory.h", '#include "logtext.h"',
     "common/memory.h includes logtext.h of floor 0, and is itself on floor common"),
    ("src/reader.cpp", '#include "../sim/world.h"',
     "src/reader.cpp includes ../sim/world.h, which is no component's"),
    ("src/sub/request.h", '#include "main.h"',
     "src/sub/request.h includes main.h of floor 2, and is itself on floor 1"),
])
def test_include_that_is_refused(tree, name, text, fault):
    tree.write(name, FILES.get(name, "") + text + "\n")
    assert tree.check() == (1, [fault])


@pytest.mark.parametrize("name", ["src/server.cpp", "common/server.h"])
def test_component_that_is_missing_from_the_table(tree, name):
    tree.write(name, "")
    assert tree.check() == (1, ["server is missing from the table of floors"])


@pytest.mark.parametrize("name, component", [("src/request.cpp", "request"), ("src/dbus/meson.build", "binding1")])
def test_component_that_is_listed_without_a_file(tree, name, component):
    (tree.root / name).unlink()
    tree.write("src/reader.cpp", "")
    assert tree.check() == (1, [f"{component} is in the table of floors and not in the tree"])


def test_component_that_is_listed_twice(tree):
    tree.write("docs/architecture.md", TABLE.replace("`main`", "`main`, `logtext`"))
    status, lines = tree.check()
    assert status == 1
    assert "logtext is in the table of floors twice" in lines


def test_documentation_without_the_table(tree):
    tree.write("docs/architecture.md", TABLE.replace("| floor |", "| storey |"))
    status, lines = tree.check()
    assert status == 1
    assert "docs/architecture.md has no table of floors" in lines


def test_tree_without_files(tmp_path):
    tree = Tree(tmp_path / "tree")
    for name in FILES:
        (tree.root / name).unlink()
    status, lines = tree.check()
    assert status == 1
    assert any("has no files to check" in line for line in lines)
