"""tessardctl as a process. TESSARDCTL names the tool under test."""

import os
import select
import signal
import subprocess

from waiting import BOUND_SECONDS

SUCCESS, REFUSED, USAGE, NO_CONNECTION, TIMED_OUT, ENDED, MALFORMED, LOCAL = range(8)


def read_some(fd):
    ready, _, _ = select.select([fd], [], [], BOUND_SECONDS)
    assert ready, "nothing to read within the bound"
    return os.read(fd, 65536)


def read_lines(fd, count):
    """Exactly @count lines; the output must not have more by then."""
    data = b""
    while data.count(b"\n") < count:
        chunk = read_some(fd)
        assert chunk, f"the output ended after {data!r}"
        data += chunk
    assert data.count(b"\n") == count and data.endswith(b"\n")
    return data.splitlines(keepends=True)


class Result:
    def __init__(self, status, out, err):
        self.status, self.out, self.err = status, out, err


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

    def kill(self, number=signal.SIGINT):
        self.process.send_signal(number)

    def finish(self):
        out, err = self.process.communicate(timeout=BOUND_SECONDS)
        return Result(self.process.returncode, out, err)

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
