# SPDX-License-Identifier: MIT
"""The simulated camera's services, a program on a private bus, with its verbs as methods."""

import datetime
import json
import os
import signal
import subprocess

import pytest

from installation import TREE, defined_limits, unprivileged
from waiting import BOUND_SECONDS

PTZ, CAPTURE, SCENES, RECEIVER = "ptz", "capture", "scenes", "receiver"
SERVICES = (PTZ, CAPTURE, SCENES, RECEIVER)

# The built-in external producers, and the type of their objects.
PERSONS, VEHICLES = "PersonDetector", "VehicleDetector"
BUILT_INS = {PERSONS: "Human", VEHICLES: "Vehicle"}

# Exit statuses.
USAGE, FAILURE = 2, 1

MAX_NAME_BYTES = defined_limits(TREE / "receiver/receiverlimits.h")["RECEIVER_MAX_NAME_BYTES"]
MAX_LINE_BYTES = 16 * 1024 * 1024

# Longer than operations take that do not wait, short enough for a test.
SLOW_MS = 300


class Refused(Exception):
    """The camera refused a verb; the text is the reason."""


class SimulatedCamera:
    """One simcamera; the fixtures `camera` and `start_camera` make one and clean up after it.

    options: its command line
    bus: its system bus
    producers: its built-in external producers, separated by commas; None for all
    stdin: its standard input; None for a closed one
    variables: additional environment variables
    program: the path of simcamera; None for the installed one"""

    def __init__(self, installation, bus, *options, producers=None, stdin=subprocess.DEVNULL, variables=None,
                 program=None):
        self.program = str(program or installation.simcamera)
        self.environment = {
            "PATH": os.environ["PATH"],
            "LC_ALL": "C.UTF-8",
            "DBUS_SYSTEM_BUS_ADDRESS": bus.address,
            **installation.sanitizer_environment(),
            **(variables or {}),
        }
        own = () if producers is None else ("--producers", producers)
        closing = ("sh", "-c", 'exec "$@" <&-', "sh") if stdin is None else ()
        self.process = subprocess.Popen([*closing, self.program, *own, *options], **self._pipes() | {"stdin": stdin},
                                        **unprivileged())

    def _pipes(self):
        return {"env": self.environment, "stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE,
                "stderr": subprocess.PIPE, "cwd": "/", "text": True}

    def wait_until_ready(self):
        """Waits until the camera owns all its names; fails if it ends before."""
        assert self.process.stdout.readline() == "ready\n", self.process.communicate(timeout=BOUND_SECONDS)

    def end(self, number=signal.SIGTERM):
        """Ends the camera by a signal; returns its status and its output since it was ready."""
        self.process.send_signal(number)
        return self.wait()

    def wait(self):
        """Waits for the end of the camera; returns its status and its output."""
        out, err = self.process.communicate(timeout=BOUND_SECONDS)
        return self.process.returncode, out, err

    def finish(self):
        """Ends the camera if the test has not, and fails if it wrote anything."""
        try:
            if self.process.returncode is None:
                assert self.end() == (0, "", "")
        finally:
            self.process.kill()
            self.process.wait(BOUND_SECONDS)

    # Verbs

    def run_tell(self, *words):
        """Runs `simcamera tell` with these words; returns its status and its output."""
        client = subprocess.run([self.program, "tell", *words], timeout=BOUND_SECONDS, check=False,
                                **self._pipes(), **unprivileged())
        return client.returncode, client.stdout, client.stderr

    def tell(self, *words):
        """Sends a verb and returns the reply."""
        status, out, err = self.run_tell(*map(str, words))
        if status != 0:
            raise Refused(err)
        assert err == ""
        return out

    def absent(self, service):
        self.tell("absent", service)

    def present(self, service):
        self.tell("present", service)

    def inject_fault(self, service, *fault):
        self.tell("inject-fault", service, *fault)

    def clear_fault(self, service):
        self.tell("clear-fault", service)

    def calls(self, service):
        """The number of calls to the service."""
        return int(self.tell("calls", service))

    def channels(self, count):
        self.tell("channels", count)

    def rotation(self, channel, degrees):
        self.tell("rotation", channel, degrees)

    def move_capabilities(self, value):
        self.tell("move-capabilities", value)

    def add_producer(self, name, *file):
        self.tell("add-producer", name, *file)

    def remove_producer(self, name):
        self.tell("remove-producer", name)

    def property(self, name, prop, value):
        self.tell("property", name, prop, value)

    def interface(self, name, interface):
        self.tell("interface", name, interface)

    def sample_frame(self, name, text):
        self.tell("sample-frame", name, text)

    def inject_producer_fault(self, name, method, *fault):
        self.tell("inject-producer-fault", name, method, *fault)

    def clear_producer_faults(self, name):
        self.tell("clear-producer-faults", name)

    def streams(self, name):
        """The number of open streams of the producer."""
        return int(self.tell("streams", name))

    def hang_up(self, name):
        self.tell("hang-up", name)

    def descriptors(self, name, *kind):
        self.tell("descriptors", name, *kind)

    def pieces(self, name, size, pause_ms):
        self.tell("pieces", name, size, pause_ms)

    # Resources

    def descriptor_count(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))


def refused(camera, *words):
    """The reason of the refusal of a verb."""
    with pytest.raises(Refused) as refusal:
        camera.tell(*words)
    return str(refusal.value).removeprefix("simcamera: ").removesuffix("\n")


def item_at(seconds, **more):
    """A line of a recording, with a time relative to a fixed one."""
    time = datetime.datetime(2020, 2, 3, tzinfo=datetime.timezone.utc) + datetime.timedelta(seconds=seconds)
    return json.dumps({"Objects": [{"UtcTime": "inner"}], "UtcTime": time.isoformat(), **more}).encode()


def seen_at(item):
    """The time of an item, in seconds."""
    return datetime.datetime.fromisoformat(item["UtcTime"].replace("Z", "+00:00")).timestamp()
