# SPDX-License-Identifier: MIT
"""tessardctl as a process. TESSARDCTL names the program under test."""

import os
import select
import signal
import subprocess
import typing

from daemon import VIDEO_TRACKER
from waiting import BOUND_SECONDS

SUCCESS, REFUSED, USAGE, NO_CONNECTION, TIMED_OUT, ENDED, MALFORMED, LOCAL = range(8)

# A valid command line of every command that uses the bus.
BUS_COMMANDS = {
    "producers": ["producers"],
    "list": ["list"],
    "show": ["show", VIDEO_TRACKER],
    "enable": ["enable", VIDEO_TRACKER, "1", "profile1"],
    "disable": ["disable", VIDEO_TRACKER, "1"],
    "apply": ["apply", "-"],
    "monitor": ["monitor"],
    "status": ["status", "--json"],
    "produce": ["produce", "Mine"],
    "emit": ["emit", "tns1:Device/Trigger"],
    "topics": ["topics"],
}

# What a configuration name must not contain, and its name in messages.
BAD_CHARACTERS = [('"', "a quotation mark"), ("\\", "a backslash"), ("\n", "a control character"),
                  ("\x01", "a control character"), ("\x7f", "a control character")]

ENDED_TEXT = b"tessardctl: The daemon ended the stream.\n"


def read_some(fd):
    ready, _, _ = select.select([fd], [], [], BOUND_SECONDS)
    assert ready, "nothing to read within the bound"
    return os.read(fd, 65536)


def read_lines(fd, count):
    """Reads exactly `count` lines; fails if more have been written by then."""
    data = b""
    while data.count(b"\n") < count:
        chunk = read_some(fd)
        assert chunk, f"the output ended after {data!r}"
        data += chunk
    assert data.count(b"\n") == count and data.endswith(b"\n")
    return data.splitlines(keepends=True)


class Result(typing.NamedTuple):
    status: int
    out: bytes
    err: bytes


def failure(status, text, out=b""):
    """The result of a command that ends with this message."""
    return Result(status, out, f"tessardctl: {text}\n".encode())


class Tessardctl:
    """A running tessardctl."""

    def __init__(self, *args, env=None, **popen_args):
        pipes = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        environment = os.environ | {"LC_ALL": "C.UTF-8"} | (env or {})
        self.process = subprocess.Popen([os.environ["TESSARDCTL"], *args], env=environment,
                                        **(pipes | popen_args))

    @property
    def out(self):
        return self.process.stdout.fileno()

    def lines(self, count):
        """The next lines of the output, as text."""
        return [line.decode().removesuffix("\n") for line in read_lines(self.out, count)]

    def kill(self, number=signal.SIGINT):
        self.process.send_signal(number)

    def finish(self):
        out, err = self.process.communicate(timeout=BOUND_SECONDS)
        return Result(self.process.returncode, out or b"", err or b"")

    def end_by(self, number=signal.SIGINT):
        self.kill(number)
        return self.finish()

    def clean_up(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(BOUND_SECONDS)
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream is not None:
                stream.close()
