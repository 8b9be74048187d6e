# SPDX-License-Identifier: MIT
"""The installation that is measured: its programs, sets of plug-ins, and processes of it on a private bus."""

import contextlib
import ctypes
import glob
import grp
import os
import pathlib
import pwd
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time

BOUND_SECONDS = 30
LOOK_SECONDS = 0.002
PRODUCER = "Benchmark"
DETECTIONS = "PersonDetector"

# The header lines of a request for each kind of metadata. A request names only the channel, so the producer that is
# enabled there selects the kind of analytics.
KINDS = {
    "events": "event=1",
    "ptz": "ptz=1",
    "video": "analytics=2;video_channel=2",
    "radar": "analytics=2;video_channel=3",
    "detections": "analytics=2;video_channel=1",
}
KINDS_ENABLED = f"""\
[Producers.0.{DETECTIONS}]
Name=detections
[Producers.1.VideoMotionTracker]
Name=video
[Producers.2.RadarMotionTracker]
Name=radar
"""

# GStreamer's own plug-ins that the daemon needs.
STANDARD_PLUGINS = ("coreelements", "gdp", "app")
OWN_PLUGINS = ("json2xml", "onvifxmlmetadatastreamdoc")
PLUGIN_FOLDERS = ("/usr/lib/*/gstreamer-1.0", "/usr/lib/gstreamer-1.0", "/usr/lib64/gstreamer-1.0")

_libc = ctypes.CDLL(None)
_PR_SET_PDEATHSIG = 1
_never = threading.Event()


class Failed(Exception):
    """A process does not do what is measured; the text says what."""


def die_with_parent():
    """Lets the calling process get a signal at the end of its parent. A change of its user ends this."""
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGTERM)


def wait_until(condition, what, seconds=BOUND_SECONDS, look=LOOK_SECONDS):
    """Returns the first true value of condition()."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise Failed(f"not within {seconds} s: {what}")
        _never.wait(look)


def pause(seconds):
    """Lets the measured processes come to rest."""
    _never.wait(seconds)


def connects(path):
    """Whether a process listens on a UNIX socket."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
        try:
            connection.connect(str(path))
        except (FileNotFoundError, ConnectionRefusedError):
            return False
    return True


def accepts(path, header):
    """Whether the daemon grants a request."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
        connection.settimeout(BOUND_SECONDS)
        connection.connect(str(path))
        lines = header.replace(";", "\n")
        connection.sendall(f"OPEN\n{lines}\n\n".encode())
        return connection.recv(2) == b"OK"


class Stage:
    """A staged installation with the benchmarks, of which this file is one, and a folder for what a run leaves."""

    def __init__(self):
        here = pathlib.Path(__file__).resolve()
        self.programs = here.parents[1] / "programs"
        self.elements = here.parents[1] / "elements"
        self.library = here.parents[3]
        self.prefix = next(folder for folder in here.parents if (folder / "bin/tessard").exists())
        self.tessard = self.prefix / "bin/tessard"
        self.simcamera = here.parents[2] / "sim/simcamera"
        self.sim_plugins = here.parents[2] / "sim/plugins"
        self.plugins = self.library / "gstreamer-1.0"
        self.bus_configuration = here.parent / "private-bus.conf.in"
        self.bus_policy = self.prefix / "share/dbus-1/system.d/com.quon.MetadataServer1.conf"
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="tessard-bench-", dir="/tmp"))
        self.count = 0

    def remove(self):
        shutil.rmtree(self.folder, ignore_errors=True)

    def new_folder(self):
        self.count += 1
        folder = self.folder / str(self.count)
        folder.mkdir()
        return folder

    def program(self, name):
        return str(self.programs / name)

    def standard_plugin(self, name):
        found = [path for pattern in PLUGIN_FOLDERS for path in glob.glob(f"{pattern}/libgst{name}.so")]
        if not found:
            raise Failed(f"GStreamer's plug-in {name} is not installed")
        return pathlib.Path(found[0])

    def own_plugin(self, name):
        return self.plugins / f"libgst{name}.so"

    def sim_plugin(self, name):
        return self.sim_plugins / f"libgst{name}.so"

    def plugin_set(self, paths, all_of_system=False):
        """A folder with these plug-ins, and GStreamer's that the daemon needs or all of the system's."""
        return PluginSet(self.new_folder(), paths, [] if all_of_system else
                         [self.standard_plugin(name) for name in STANDARD_PLUGINS], all_of_system)

    def pass_through(self):
        """The plug-ins with which the daemon's own cost is measured."""
        return self.plugin_set([self.elements / "libgstpassthrough.so"])

    def every_kind(self, all_of_system=False):
        """The product's converter and document element, and the simulated camera's sources."""
        names = ("onvifeventsrc", "statuscacheptz", "scene", "radarscene")
        return self.plugin_set([*map(self.own_plugin, OWN_PLUGINS), *map(self.sim_plugin, names)], all_of_system)

    def product(self, *more, all_of_system=False):
        """The product's converter and document element, and further plug-ins."""
        return self.plugin_set([*map(self.own_plugin, OWN_PLUGINS), *more], all_of_system)


class PluginSet:
    """Plug-ins in a folder of their own. Each program has its own registry, which its first run writes."""

    def __init__(self, folder, paths, standard, all_of_system):
        self.folder = folder
        for path in [*paths, *standard]:
            (folder / path.name).symlink_to(path)
        self.all_of_system = all_of_system

    def environment(self, program):
        """The variables for a program."""
        variables = {
            "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
            "LC_ALL": "C.UTF-8",
            "GST_PLUGIN_PATH": str(self.folder),
            "GST_REGISTRY": str(self.folder / f"{pathlib.Path(program).name}.registry"),
        }
        return variables if self.all_of_system else variables | {"GST_PLUGIN_SYSTEM_PATH": ""}


class Process:
    """A process that ends with the measurement. What it writes to standard error is told if it fails."""

    def __init__(self, stage, command, environment, folder=None, **popen_arguments):
        self.folder = folder or stage.new_folder()
        self.name = pathlib.Path(command[0]).name
        self.errors = self.folder / f"{self.name}.stderr"
        with open(self.errors, "wb") as errors:
            self.process = subprocess.Popen(
                [str(word) for word in command], env=environment, cwd=self.folder, stderr=errors,
                preexec_fn=die_with_parent, **({"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL}
                                               | popen_arguments))
        self.pid = self.process.pid

    def failed(self, what):
        text = self.errors.read_text(encoding="utf-8", errors="replace").strip()
        return Failed(f"{self.name}: {what}" + (f"\n{text}" if text else ""))

    def check(self):
        """Fails if it has ended."""
        if self.process.poll() is not None:
            raise self.failed(f"ended with {self.process.returncode}")

    def end(self):
        self.process.terminate()
        try:
            self.process.wait(BOUND_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        for pipe in (self.process.stdin, self.process.stdout):
            if pipe:
                pipe.close()


class Bus(Process):
    """A private message bus, used as the system bus, with the installed policy for the daemon's name."""

    def __init__(self, stage):
        folder = stage.new_folder()
        policy = stage.bus_policy.read_text(encoding="utf-8")
        policy = policy.replace('user="tessard"', f'user="{pwd.getpwuid(os.getuid()).pw_name}"')
        policy = policy.replace('group="tessard-admin"', f'group="{grp.getgrgid(os.getgid()).gr_name}"')
        (folder / "policy.conf").write_text(policy, encoding="utf-8")
        text = stage.bus_configuration.read_text(encoding="utf-8")
        text = text.replace("@socket@", str(folder / "socket")).replace("@policy@", str(folder / "policy.conf"))
        (folder / "bus.conf").write_text(text, encoding="utf-8")
        super().__init__(stage, ["dbus-daemon", f"--config-file={folder / 'bus.conf'}", "--nofork", "--nopidfile",
                                 "--nosyslog"], dict(os.environ), folder)
        self.address = f"unix:path={folder / 'socket'}"
        wait_until(lambda: self.check() or connects(folder / "socket"), "the private bus listens")


class Daemon(Process):
    """The installed daemon with a set of plug-ins."""

    def __init__(self, stage, bus, plugins, producers=f"[Producers.0.{PRODUCER}]\nName={PRODUCER}\n", more=None):
        folder = stage.new_folder()
        (folder / "producers.conf").write_text(producers, encoding="utf-8")
        self.socket_path = folder / "run/metadata"
        super().__init__(stage, [stage.tessard, "--run-dir", folder / "run"],
                         plugins.environment("tessard") | {"DBUS_SYSTEM_BUS_ADDRESS": bus.address} | (more or {}),
                         folder)

    def wait_until_listening(self):
        wait_until(lambda: self.check() or connects(self.socket_path), "the daemon listens")
        return self


class Commanded(Process):
    """A program of the benchmarks that runs a command for each line and answers with a line of times."""

    def __init__(self, stage, name, arguments, environment):
        self.what = " ".join(map(str, [name, *arguments]))
        super().__init__(stage, [stage.program(name), *arguments], environment, stdin=subprocess.PIPE,
                         stdout=subprocess.PIPE, text=True, bufsize=1)

    def read_words(self):
        line = self.process.stdout.readline()
        if not line:
            self.process.wait(BOUND_SECONDS)
            raise self.failed(f"ended: {self.what}")
        return line.split()

    def start(self, *words):
        """Begins a command."""
        self.process.stdin.write(" ".join(map(str, words)) + "\n")

    def finish(self):
        """Waits for the end of the command; returns its times in seconds."""
        return [int(word) / 1e9 for word in self.read_words()]

    def tell(self, *words):
        """Runs a command; returns its times in seconds."""
        self.start(*words)
        return self.finish()


class Load(Commanded):
    """A program that writes messages and reads what a process makes of them; see load.cpp."""

    def __init__(self, stage, arguments, environment, measured_pid=None):
        super().__init__(stage, "benchload", arguments, environment)
        if self.read_words() != ["ready"]:
            raise self.failed("does not start")
        self.measured_pid = measured_pid or self._child()

    def _child(self):
        """The process of a program that the load has started."""
        children = pathlib.Path(f"/proc/{self.pid}/task/{self.pid}/children").read_text(encoding="ascii").split()
        return int(children[0]) if children else None

    def relay(self, size, count):
        """Sends messages as fast as possible; returns the processor time and the time of all together."""
        processor, wall = self.tell("relay", size, count)
        return processor, wall


class Camera(Process):
    """The services of the simulated camera, with one producer of detections."""

    def __init__(self, stage, bus):
        super().__init__(stage, [stage.simcamera, "--channels", "3", "--producers", DETECTIONS],
                         dict(os.environ) | {"DBUS_SYSTEM_BUS_ADDRESS": bus.address}, stdout=subprocess.PIPE, text=True)
        if self.process.stdout.readline() != "ready\n":
            raise self.failed("does not start")


@contextlib.contextmanager
def running(process):
    """Ends a process behind the block."""
    try:
        yield process
    finally:
        process.end()


@contextlib.contextmanager
def started_daemon(stage, plugins, **arguments):
    """A daemon with a bus of its own."""
    with running(Bus(stage)) as bus, running(Daemon(stage, bus, plugins, **arguments)) as daemon:
        yield bus, daemon.wait_until_listening()


@contextlib.contextmanager
def daemon_with_camera(stage, plugins):
    """A daemon that can produce every kind of metadata for which it has plug-ins."""
    with running(Bus(stage)) as bus, running(Camera(stage, bus)), \
            running(Daemon(stage, bus, plugins, KINDS_ENABLED)) as daemon:
        yield bus, daemon.wait_until_listening()
