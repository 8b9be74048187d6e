# SPDX-License-Identifier: MIT
"""A gateway of the installation as a process, and what its hostile clients have in common."""

import contextlib
import functools
import os
import re
import select
import signal
import socket
import subprocess

import pytest

from daemon import INFO, Log, processor_seconds
from installation import SOURCE_PLUGIN, unprivileged
from waiting import BOUND_SECONDS, wait_until


# How long load lasts. A short run leaves out what takes longer, or repeats another test with another transport.
SECONDS = int(os.environ.get("TESSARD_GATEWAY_SECONDS", "1"))
IS_SHORT = SECONDS < 60
only_long = pytest.mark.skipif(IS_SHORT, reason="runs with TESSARD_GATEWAY_SECONDS=60")


@functools.lru_cache(maxsize=None)
def registry_folder(installation):
    """The home of all gateways, with a registry of the plug-ins that are installed. To make it takes as long as a short
    test, and leaves behind what plug-ins of others allocate when they are loaded."""
    folder = installation.workspace.folder()
    variables = installation.plugin_host_environment() | plugin_variables(installation, folder)
    subprocess.run(["gst-inspect-1.0", "--exists", "appsink"], env=variables, check=True, timeout=BOUND_SECONDS * 3,
                   **unprivileged())
    return folder


def plugin_variables(installation, folder):
    return {
        "HOME": str(folder),
        "GST_PLUGIN_PATH": str(installation.plugins[SOURCE_PLUGIN].parent),
        "GST_REGISTRY": str(folder / "registry.bin"),
        "GST_REGISTRY_FORK": "no",
    }


def gateway_environment(installation, bus, log):
    """The variables of a gateway that logs to the log."""
    return plugin_variables(installation, registry_folder(installation)) | {
        "PATH": os.environ["PATH"],
        "LC_ALL": "C",
        "LD_LIBRARY_PATH": installation.pipeline_environment(bus)["LD_LIBRARY_PATH"],
        "DBUS_SYSTEM_BUS_ADDRESS": bus.address,
        "LD_PRELOAD": str(installation.testhost),
        "TESTHOST_SYSLOG": log.path,
        "GST_REGISTRY_UPDATE": "no",
        **installation.sanitizer_environment(),
    }


def start_gateway(installation, bus, log, program, *options, environment=None, output=subprocess.PIPE):
    """Starts a program without privileges, which logs to the log."""
    variables = gateway_environment(installation, bus, log) | (environment or {})
    command = [str(installation.prefix / "bin" / program), *map(str, options)]
    return subprocess.Popen(command, env=variables, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                            cwd=installation.workspace.folder(), text=True, **unprivileged())


class Observed:
    """What a running gateway logs and uses."""

    log = None
    process = None

    def take_log(self, count=0):
        return self.log.take(count)

    def status_bytes(self, field):
        """A size in the process's status, in bytes."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            (value,) = re.findall(rf"^{field}:\s*(\d+) kB$", status.read(), re.MULTILINE)
        return int(value) * 1024

    def processor_seconds(self):
        return processor_seconds(self.process.pid)

    def threads(self):
        return len(os.listdir(f"/proc/{self.process.pid}/task"))

    def descriptors(self):
        """The number of open descriptors but event counters, which come and go with the waits of threads."""
        folder = f"/proc/{self.process.pid}/fd"
        count = 0
        for name in os.listdir(folder):
            # One that is closed meanwhile does not count.
            with contextlib.suppress(FileNotFoundError):
                count += os.readlink(f"{folder}/{name}") != "anon_inode:[eventfd]"
        return count

    def wait_until_idle(self, descriptors):
        wait_until(lambda: self.descriptors() <= descriptors, "the connections are closed")


class GatewayProcess(Observed):
    """A gateway that prints its address. A test must take each line of its log with a priority above "info"."""

    def __init__(self, installation, bus, program, *options, environment=None, output=subprocess.PIPE):
        self.log = Log(installation.workspace.folder() / "log")
        self.process = start_gateway(installation, bus, self.log, program, *options, environment=environment,
                                     output=output)
        self.url = None
        if output == subprocess.PIPE:
            self.url = self.process.stdout.readline().strip()
            assert self.url, self.process.communicate()

    def finish(self):
        try:
            assert self.process.poll() is None, self.process.communicate()
            self.process.send_signal(signal.SIGTERM)
            _, err = self.process.communicate(timeout=BOUND_SECONDS)
            left = [line for line in self.log.take() if line[0] != INFO]
        finally:
            self.process.kill()
            self.process.communicate()
            self.log.close()
        assert (self.process.returncode, err or "") == (0, "")
        assert left == []


def is_closed(peer):
    """Whether the server has closed the connection, after it is read to its end."""
    try:
        while peer.recv(65536):
            pass
    except TimeoutError:
        return False
    except ConnectionError:
        pass
    return True


def has_ended(peer):
    """Whether the server has closed the connection, of what has arrived."""
    try:
        return not peer.recv(65536)
    except ConnectionError:
        return True


def send_until_closed(peer, data, most):
    """Sends the data again and again, at most as many bytes; returns how many were sent. A full connection that the
    server has closed is noticed by reading."""
    sent = 0
    while sent < most:
        readable, writable, _ = select.select([peer], [peer], [], BOUND_SECONDS)
        assert readable or writable, "the server neither reads nor closes the connection"
        if readable and has_ended(peer):
            break
        try:
            sent += peer.send(data, socket.MSG_DONTWAIT) if writable else 0
        except ConnectionError:
            break
    return sent
