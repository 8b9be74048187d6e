# SPDX-License-Identifier: MIT
"""Python programs that use the installed library of applications."""

import subprocess
import sys

import pytest

from installation import build_option
from waiting import BOUND_SECONDS

PREFACE = """
import os, sys, gi
gi.require_version("Tessard", "1.0")
from gi.repository import GLib, Tessard
"""


class Program:
    """A program, given as its text. Its standard input and output are pipes of lines."""

    def __init__(self, installation, bus, text, *args):
        (library,) = installation.prefix.glob("lib*/**/libtessard-1.0.so.0")
        folders = {"LD_LIBRARY_PATH": str(library.parent), "GI_TYPELIB_PATH": str(library.parent / "girepository-1.0")}
        self.process = subprocess.Popen(
            [sys.executable, "-c", text, *args], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            text=True, cwd="/", env=installation.plugin_host_environment() | folders
            | {"DBUS_SYSTEM_BUS_ADDRESS": bus.address, "PYTHONDONTWRITEBYTECODE": "1"})

    def send(self, *lines):
        self.process.stdin.write("".join(f"{line}\n" for line in lines))
        self.process.stdin.flush()

    def line(self):
        return self.process.stdout.readline().rstrip("\n")

    def finish(self):
        """Ends its input; returns its status and what it has printed since."""
        out, err = self.process.communicate(timeout=BOUND_SECONDS)
        return self.process.returncode, out, err

    def kill(self):
        self.process.kill()
        self.process.communicate(timeout=BOUND_SECONDS)

    def clean_up(self):
        if self.process.poll() is None:
            self.kill()


def needs_introspection():
    if build_option("introspection") == "disabled":
        pytest.skip("the library is built without introspection")
