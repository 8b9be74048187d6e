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
    bus: where it plays, which it takes for the system's bus
    producers: which of its own external producers it has, with commas; all if that is not said
    stdin: its standard input; closed if that is None
    variables: what its environment has beside the usual"""

    def __init__(self, installation, bus, *options, producers=None, stdin=subprocess.DEVNULL, variables=None):
        self.program = str(installation.simcamera)
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

    def inject_fault(self, service, *fault):
        self.tell("inject-fault", service, *fault)

    def clear_fault(self, service):
        self.tell("clear-fault", service)

    def calls(self, service):
        """How often the service has been asked."""
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
        """How many streams of the producer are open."""
        return int(self.tell("streams", name))

    def hang_up(self, name):
        self.tell("hang-up", name)

    def descriptors(self, name, *kind):
        self.tell("descriptors", name, *kind)

    def pieces(self, name, size, pause_ms):
        self.tell("pieces", name, size, pause_ms)

    # What it holds

    def descriptor_count(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))
