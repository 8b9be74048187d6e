# SPDX-License-Identifier: MIT
"""The metadata receiver of the installation as a process, and the applications that register with it."""

import array
import fcntl
import os
import pathlib
import resource
import signal
import struct
import subprocess
import termios

import pytest
from gi.repository import Gio, GLib

from busclient import BusClient, error_text, remote_error
from daemon import ERROR, INFO, WARNING, Log
from installation import TREE, defined_limits, unprivileged
from receiverclient import NAME, OBJECT_MANAGER, ROOT
from waiting import BOUND_SECONDS, wait_until

REGISTRY_PATH = "/com/quon/MetadataReceiver1"
REGISTRY = "com.quon.MetadataReceiver1.Registry"
ERROR_PREFIX = "com.quon.MetadataReceiver1.Error."

LIMITS = defined_limits(TREE / "receiver/receiverlimits.h")

READY = (INFO, "Ready.")
LOST_NAME = (ERROR, "The name com.quon.MetadataReceiver1 has another owner, or the bus policy refuses it.")
LOST_BUS = (ERROR, "The connection to the bus is closed.")

SAMPLE = '{"Objects":[{"Id":1,"Type":"Human"}]}'

LENGTH = struct.Struct("=I")


def message(text):
    data = text if isinstance(text, bytes) else text.encode()
    return LENGTH.pack(len(data)) + data


def ended(label, reason):
    return (WARNING, f"{label}: ended, because {reason}")


def not_read(name, channel):
    return (WARNING, f"A stream of {name}, channel {channel}: is not read, messages are dropped")


def unread_bytes(fd):
    """The number of bytes in the pipe."""
    count = array.array("i", [0])
    fcntl.ioctl(fd, termios.FIONREAD, count)
    return count[0]


def enough_descriptors(count):
    """Raises the limit of this process to `count` descriptors."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, min(count, hard)), hard))


class Receiver:
    """One tessard-receiver. A test must take each line of its log with a priority above "info"."""

    def __init__(self, installation, bus, launcher=()):
        self.folder = installation.workspace.folder()
        self.log = Log(self.folder / "log")
        self.environment = {
            "PATH": os.environ["PATH"],
            "LC_ALL": "C",
            "DBUS_SYSTEM_BUS_ADDRESS": bus.address,
            "LD_PRELOAD": str(installation.testhost),
            "TESTHOST_SYSLOG": self.log.path,
            **installation.sanitizer_environment(),
        }
        self.command = [*launcher, str(installation.prefix / "bin/tessard-receiver")]
        self.process = None
        self.start()

    def start(self):
        self.process = subprocess.Popen(self.command, env=self.environment, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd="/", text=True,
                                        **unprivileged())

    def wait_until_ready(self):
        wait_until(lambda: READY in self.log.lines or self.process.poll() is not None, "the receiver is ready")
        assert self.process.poll() is None, self.process.communicate()
        assert READY in self.log.take()

    def kill(self):
        self.process.kill()
        self.process.communicate(timeout=BOUND_SECONDS)

    def end(self, number=signal.SIGTERM):
        """Ends it by a signal; returns its status and its output."""
        self.process.send_signal(number)
        return self.wait()

    def wait(self):
        out, err = self.process.communicate(timeout=BOUND_SECONDS)
        return self.process.returncode, out, err

    def take_warnings(self, count=0):
        """Waits for at least `count` lines with a priority above "info", and takes all of these."""
        wait_until(lambda: len(self.warnings()) >= count, f"{count} warnings")
        return [line for line in self.log.take() if line[0] != INFO]

    def warnings(self):
        return [line for line in list(self.log.lines) if line[0] != INFO]

    def wait_until_disconnected(self, name):
        """Waits until the receiver has detected the end of the producer's application."""
        line = (INFO, f"The application of producer {name} has gone")
        wait_until(lambda: line in list(self.log.lines), "the receiver detects the end of the application")

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def memory(self):
        """The resident memory in bytes."""
        (line,) = (line for line in pathlib.Path(f"/proc/{self.process.pid}/status").read_text("ascii").splitlines()
                   if line.startswith("VmRSS:"))
        return int(line.split()[1]) * 1024

    def processor_seconds(self):
        fields = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text("ascii").rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def finish(self):
        try:
            if self.process.returncode is None:
                assert self.end() == (0, "", "")
            left = self.take_warnings()
        finally:
            self.process.kill()
            self.process.wait(BOUND_SECONDS)
            self.log.close()
        assert left == []


class Refused(Exception):
    """A call failed. The arguments are the name of its D-Bus error without ERROR_PREFIX, and the message."""


class Application(BusClient):
    """One connection that registers producers. close() closes it and its channels, like the end of an application."""

    def __init__(self, bus):
        super().__init__(bus)
        self.writers = []

    def request(self, method, signature, *arguments):
        try:
            return self.connection.call_with_unix_fd_list_sync(
                NAME, REGISTRY_PATH, REGISTRY, method, GLib.Variant(signature, arguments), None,
                Gio.DBusCallFlags.NO_AUTO_START, BOUND_SECONDS * 1000, None, None)
        except GLib.Error as error:
            name = Gio.DBusError.get_remote_error(error)
            if name is None or not name.startswith(ERROR_PREFIX):
                raise
            raise Refused(name.removeprefix(ERROR_PREFIX), error_text(error)) from error

    def register(self, name, nice_name=None, channels=(1, 2), sample=SAMPLE, options=None):
        """Registers a producer; returns the application."""
        self.request("RegisterProducer", "(ssausa{sv})", name, nice_name if nice_name is not None else f"The {name}",
                 channels, sample, options or {})
        return self

    def open_channel(self, name, channel=1):
        """Returns the write end, which close() closes."""
        reply, descriptors = self.request("OpenChannel", "(su)", name, channel)
        assert reply.get_type_string() == "(h)" and reply.unpack() == (0,)
        (fd,) = descriptors.steal_fds()
        self.writers.append(Writer(fd))
        self._wait_until_sent()
        return self.writers[-1]

    def _wait_until_sent(self):
        """Waits until the receiver has closed its copy of the descriptor in its last reply, which it does before it
        replies to a further call."""
        self.call(NAME, ROOT, OBJECT_MANAGER, "GetManagedObjects")

    def unregister(self, name):
        self.request("UnregisterProducer", "(s)", name)

    def close(self):
        for writer in self.writers:
            writer.close()
        if not self.connection.is_closed():
            super().close()


class Writer:
    """The write end of a channel. Writes block while the receiver does not read."""

    def __init__(self, fd):
        self.fd = fd

    def send(self, *texts):
        self.write(b"".join(map(message, texts)))

    def write(self, data):
        left = memoryview(data)
        while left:
            left = left[os.write(self.fd, left):]

    def wait_until_ended(self):
        """Waits until the receiver has closed its end."""
        os.set_blocking(self.fd, False)

        def is_ended():
            try:
                os.write(self.fd, message("x"))
            except BrokenPipeError:
                return True
            except BlockingIOError:
                pass
            return False

        wait_until(is_ended, "the channel has ended")

    def wait_until_read(self):
        """Waits until the receiver has read everything."""
        wait_until(lambda: unread_bytes(self.fd) == 0, "the receiver has read everything")

    def close(self):
        if self.fd >= 0:
            os.close(self.fd)
        self.fd = -1


def refusal(call, *arguments, **more):
    """The arguments of the Refused that an application's call raises."""
    with pytest.raises(Refused) as refused:
        call(*arguments, **more)
    return refused.value.args


def remote_refusal(call, *arguments):
    """The name, without ERROR_PREFIX, of the error that a call on the bus gets."""
    with pytest.raises(GLib.Error) as failed:
        call(*arguments)
    return remote_error(failed, ERROR_PREFIX)[0]


def numbers(count, first=0):
    """Messages with consecutive numbers."""
    return [b'{"Number":%d}' % number for number in range(first, first + count)]


def read_numbers(stream, last):
    """The numbers of the next messages, up to the last one."""
    found = []
    while not found or found[-1] != last:
        found.append(stream.item()["Number"])
    return found
