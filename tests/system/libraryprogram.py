# SPDX-License-Identifier: MIT
"""Python programs that use the installed library of applications."""

import os
import select
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


def library_environment(installation, bus):
    """The variables with which a program without instrumentation uses the installed library on a bus."""
    (library,) = installation.prefix.glob("lib*/**/libtessard-1.0.so.0")
    return installation.plugin_host_environment() | {
        "LD_LIBRARY_PATH": str(library.parent), "GI_TYPELIB_PATH": str(library.parent / "girepository-1.0"),
        "DBUS_SYSTEM_BUS_ADDRESS": bus.address, "PYTHONDONTWRITEBYTECODE": "1"}


class Program:
    """A program, given as its text. Its standard input and output are pipes of lines."""

    def __init__(self, installation, bus, text, *args):
        self.process = subprocess.Popen(
            [sys.executable, "-c", text, *args], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            bufsize=0, cwd="/", env=library_environment(installation, bus))
        self.output = b""

    def send(self, *lines):
        data = memoryview("".join(f"{line}\n" for line in lines).encode())
        while data:
            data = data[self.process.stdin.write(data):]

    def line(self):
        """The next line of its output, with a time limit."""
        while b"\n" not in self.output:
            readable, _, _ = select.select([self.process.stdout], [], [], BOUND_SECONDS)
            some = os.read(self.process.stdout.fileno(), 65536) if readable else b""
            assert some, f"no line after {self.output}"
            self.output += some
        line, _, self.output = self.output.partition(b"\n")
        return line.decode()

    def finish(self):
        """Ends its input; returns its status and what it has printed since."""
        out, err = self.process.communicate(timeout=BOUND_SECONDS)
        return self.process.returncode, (self.output + out).decode(), err.decode()

    def kill(self):
        self.process.kill()
        self.process.communicate(timeout=BOUND_SECONDS)

    def clean_up(self):
        if self.process.poll() is None:
            self.kill()


def needs_introspection():
    if build_option("introspection") == "disabled":
        pytest.skip("the library is built without introspection")
