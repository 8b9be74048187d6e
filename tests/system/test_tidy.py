# SPDX-License-Identifier: MIT
"""The check with clang-tidy: what it finds in files that it checks together, and that it never takes a changed file for
one that has passed."""

import json
import os
import shutil
import subprocess
import sys

import pytest

from installation import TREE

CONFIGURATION = """Checks: '-*,bugprone-macro-parentheses,clang-analyzer-core.*,readability-else-after-return'
WarningsAsErrors: '*'
HeaderFilterRegex: '/src/'
"""

FILES = {
    ".clang-tidy": CONFIGURATION,
    "src/sign.h": "#pragma once\n\ninline int sign(int x) { return x < 0 ? -1 : 1; }\n",
    "src/first.cpp": '#include "sign.h"\n\nint first(int x) { return sign(x); }\n',
    "src/second.cpp": '#include "sign.h"\n\nint second(int x) { return sign(x + 1); }\n',
}

ELSE_AFTER_RETURN = "inline int absolute(int x)\n{\n  if (x < 0)\n    return -x;\n  else\n    return x;\n}\n"
ELSE_IF_WIDE = f"#ifdef WIDE\n{ELSE_AFTER_RETURN}#endif\n"
NULL_DEREFERENCE = "int at_null()\n{\n  int *place = nullptr;\n  return *place;\n}\n"
OPEN_MACRO = "#define TWICE(x) 2 * x\n"
LOCAL_FUNCTION = "static int local() {{ return 1; }}\nint call_{0}() {{ return local(); }}\n"

pytestmark = pytest.mark.skipif(shutil.which("clang-tidy") is None, reason="clang-tidy is not installed")


class Tree:
    def __init__(self, root):
        self.root = root
        for name, text in FILES.items():
            self.write(name, text)
        (root / "scripts").mkdir()
        shutil.copy(TREE / "scripts/tidy", root / "scripts/tidy")
        self.compile_with("-DNARROW")

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def append(self, name, text):
        self.write(name, FILES[name] + text)

    def compile_with(self, option):
        commands = [{"directory": str(self.root / "build"), "file": f"../src/{name}.cpp",
                     "command": f"c++ -I../src {option} -o {name}.o -c ../src/{name}.cpp"}
                    for name in ("first", "second")]
        self.write("build/compile_commands.json", json.dumps(commands))

    def check(self, *names):
        """The exit status and the output of a check of the named files, by default of all."""
        files = [f"src/{name}.cpp" for name in names or ("first", "second")]
        result = subprocess.run([sys.executable, "scripts/tidy", "build", "2", *files], cwd=self.root, timeout=60,
                                env=os.environ | {"XDG_CACHE_HOME": str(self.root / "cache")}, check=False,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        return result.returncode, result.stdout


@pytest.fixture(name="tree")
def make_tree(tmp_path):
    return Tree(tmp_path)


def assert_found(result, file, check):
    status, output = result
    assert status == 1
    assert any(f"src/{file}:" in line and f"[{check}" in line for line in output.splitlines()), output


@pytest.mark.parametrize("file, text, check", [
    ("first.cpp", ELSE_AFTER_RETURN, "readability-else-after-return"),
    ("second.cpp", ELSE_AFTER_RETURN, "readability-else-after-return"),
    ("second.cpp", NULL_DEREFERENCE, "clang-analyzer-core.NullDereference"),
    ("second.cpp", OPEN_MACRO, "bugprone-macro-parentheses"),
    ("sign.h", ELSE_AFTER_RETURN, "readability-else-after-return"),
    ("sign.h", OPEN_MACRO, "bugprone-macro-parentheses"),
])
@pytest.mark.parametrize("cache", ["cold", "warm"])
def test_finding(tree, cache, file, text, check):
    if cache == "warm":
        assert tree.check()[0] == 0
    tree.append(f"src/{file}", text)
    assert_found(tree.check(), file, check)
    # A failure is not kept.
    assert_found(tree.check(), file, check)


def test_files_that_passed_are_not_checked_again(tree):
    status, output = tree.check()
    assert status == 0
    assert "src/first.cpp src/second.cpp" in output
    assert tree.check() == (0, "")


def test_files_that_passed_are_not_checked_again_in_another_copy(tree, tmp_path_factory):
    assert tree.check()[0] == 0
    copy = Tree(tmp_path_factory.mktemp("copy"))
    shutil.copytree(tree.root / "cache", copy.root / "cache")
    assert copy.check() == (0, "")


def test_files_are_checked_again_without_a_comment_that_hid_a_finding(tree):
    tree.append("src/sign.h", f"// NOLINTNEXTLINE(bugprone-macro-parentheses)\n{OPEN_MACRO}")
    assert tree.check()[0] == 0
    tree.append("src/sign.h", f"\n{OPEN_MACRO}")
    assert_found(tree.check(), "sign.h", "bugprone-macro-parentheses")


def test_files_are_checked_again_with_another_configuration(tree):
    tree.write(".clang-tidy", CONFIGURATION.replace(",readability-else-after-return", ""))
    tree.append("src/sign.h", ELSE_AFTER_RETURN)
    assert tree.check()[0] == 0
    tree.write(".clang-tidy", CONFIGURATION)
    assert_found(tree.check(), "sign.h", "readability-else-after-return")


def test_files_are_checked_again_with_other_options(tree):
    tree.append("src/first.cpp", ELSE_IF_WIDE)
    assert tree.check()[0] == 0
    tree.compile_with("-DWIDE")
    assert_found(tree.check(), "first.cpp", "readability-else-after-return")


@pytest.mark.parametrize("file", ["first", "second"])
def test_files_that_do_not_compile_together_are_both_checked(tree, file):
    for name in ("first", "second"):
        tree.append(f"src/{name}.cpp", LOCAL_FUNCTION.format(name))
    assert tree.check()[0] == 0
    assert tree.check() == (0, "")
    tree.append(f"src/{file}.cpp", LOCAL_FUNCTION.format(file) + ELSE_AFTER_RETURN)
    assert_found(tree.check(), f"{file}.cpp", "readability-else-after-return")


def test_header_that_does_not_compile_twice(tree):
    tree.write("src/sign.h", FILES["src/sign.h"].replace("#pragma once", ""))
    assert tree.check()[0] == 0
    tree.append("src/second.cpp", ELSE_AFTER_RETURN)
    assert_found(tree.check(), "second.cpp", "readability-else-after-return")


def test_file_that_does_not_compile(tree):
    tree.append("src/second.cpp", "int broken(\n")
    assert tree.check()[0] == 1


def test_file_that_is_not_compiled(tree):
    tree.write("src/third.cpp", "")
    status, output = tree.check("first", "third")
    assert status == 1
    assert output.startswith("not compiled in build: ")
    assert output.rstrip().endswith("src/third.cpp")
