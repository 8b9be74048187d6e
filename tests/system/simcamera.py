"""The simulated camera's services, a program of its own on a bus of the tests', and its verbs as methods."""

import os
import signal
import subprocess

from installation import unprivileged
from waiting import BOUND_SECONDS

PTZ, CAPTURE, SCENES, RECEIVER = "ptz", "capture", "scenes", "receiver"
SERVICES = (PTZ, CAPTURE, SCENES, RECEIVER)


class Refused(Exception):
    """The camera did not do what it was told; the text says why."""


class SimulatedCamera:
    """One simcamera; the fixtures `camera` and `start_camera` make one and clean up after it.

    options: its command line
    bus: where it plays, which it takes for the system's bus"""

    def __init__(self, installation, bus, *options):
        self.program = str(installation.simcamera)
        self.environment = {
            "PATH": os.environ["PATH"],
            "LC_ALL": "C.UTF-8",
            "DBUS_SYSTEM_BUS_ADDRESS": bus.address,
            **installation.sanitizer_environment(),
        }
        self.process = subprocess.Popen([self.program, *options], **self._pipes(), **unprivileged())

    def _pipes(self):
        return {"env": self.environment, "stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE,
                "stderr": subprocess.PIPE, "cwd": "/", "text": True}

    def wait_until_ready(self):
        """Waits until all names are owned. An end in place of that ends the wait too."""
        assert self.process.stdout.readline() == "ready\n", self.process.communicate(timeout=BOUND_SECONDS)

    def end(self, number=signal.SIGTERM):
        """Ends the camera by a signal; its status and all that it wrote since it was ready."""
        self.process.send_signal(number)
        return self.wait()

    def wait(self):
        """Waits for the camera to end; its status and all that it wrote."""
        out, err = self.process.communicate(timeout=BOUND_SECONDS)
        return self.process.returncode, out, err

    def finish(self):
        """Ends the camera if it should still run, and fails when it has anything to complain about."""
        try:
            if self.process.returncode is None:
                assert self.end() == (0, "", "")
        finally:
            self.process.kill()
            self.process.wait(BOUND_SECONDS)

    # Verbs

    def run_tell(self, *words):
        """`simcamera tell` with these words: its status and what it wrote."""
        client = subprocess.run([self.program, "tell", *words], timeout=BOUND_SECONDS, check=False,
                                **self._pipes(), **unprivileged())
        return client.returncode, client.stdout, client.stderr

    def tell(self, *words):
        """Has a verb done, and returns the answer."""
        status, out, err = self.run_tell(*map(str, words))
        if status != 0:
            raise Refused(err)
        assert err == ""
        return out

    def absent(self, service):
        self.tell("absent", service)

    def present(self, service):
        self.tell("present", service)

    def misbehave(self, service, *how):
        self.tell("misbehave", service, *how)

    def behave(self, service):
        self.tell("behave", service)

    def calls(self, service):
        """How often the service has been asked."""
        return int(self.tell("calls", service))

    def channels(self, count):
        self.tell("channels", count)

    def rotation(self, channel, degrees):
        self.tell("rotation", channel, degrees)

    def move_capabilities(self, value):
        self.tell("move-capabilities", value)
