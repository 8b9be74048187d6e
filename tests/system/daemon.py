# SPDX-License-Identifier: MIT
"""The shipped daemon as a process, with its log lines, its standard error and its exit status.

A test must take each log line after the start and all text on standard error, and the daemon must run until the test
ends it; otherwise the test fails."""

import contextlib
import itertools
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import threading
import time

from gi.repository import GLib

from client import ConnectionEnded, Client
from installation import (DOCUMENT_PLUGIN, EVENT_PLUGIN, EVENT_PLUGINS, JSON_PLUGIN, OWN_EVENT_PLUGIN, PTZ_PLUGIN,
                          RADAR_PLUGIN, SCENE_PLUGIN, UNPRIVILEGED_GROUP, UNPRIVILEGED_USER, documented_limit,
                          run_by_root, unprivileged)
from waiting import BOUND_SECONDS, wait_until

ERROR = 3
WARNING = 4
INFO = 6
DEBUG = 7

VIDEO_TRACKER, RADAR_TRACKER = "VideoMotionTracker", "RadarMotionTracker"


def producers_enabled(names):
    """Returns a producers' file. Both built-in trackers support the first two channels; `names` has the configuration
    names of enabled channels: {(VIDEO_TRACKER, 1): "Front"}."""
    supported = {(tracker, channel): "" for tracker in (VIDEO_TRACKER, RADAR_TRACKER) for channel in (1, 2)}
    file = GLib.KeyFile()
    for (tracker, channel), name in (supported | names).items():
        file.set_string(f"Producers.{channel - 1}.{tracker}", "Name", name)
    text, _ = file.to_data()
    return text


def stored_names(path):
    """Reads a producers' file: the configuration name of each producer and channel, empty if disabled."""
    file = GLib.KeyFile()
    assert file.load_from_file(str(path), GLib.KeyFileFlags.NONE)
    groups, _ = file.get_groups()
    names = {}
    for group in groups:
        _, index, producer = group.split(".", 2)
        names[producer, int(index) + 1] = file.get_string(group, "Name")
    return names


PRODUCERS = producers_enabled({})

# The log line for each kind of metadata with and without its plug-in.
KIND_LINES = {
    EVENT_PLUGIN: ("Adding event source factory.", "Events not enabled, not adding event factory."),
    PTZ_PLUGIN: ("Adding PTZ source factory.", "PTZ not enabled, not adding PTZ factory."),
    SCENE_PLUGIN: ("Adding scene source factory.", "Scenes not enabled, not adding scene factory."),
    RADAR_PLUGIN: ("Adding radar scene source factory.", "Radar scenes not enabled, not adding radar scene factory."),
}


def no_move_capabilities(reason):
    return (INFO, f"could not get property DriverMoveCapabilities from /com/quon/PTZ/Coordinator/1: {reason} ")


NO_COORDINATOR = no_move_capabilities("GDBus.Error:org.freedesktop.DBus.Error.ServiceUnknown: The name "
                                      "com.quon.PTZ.Coordinator was not provided by any .service files")


# The last line of a start. Lines about the bus follow; the server has already started.
STARTED_LINE = (INFO, "Setting up D-Bus client.")


def missing_elements(*names):
    return (WARNING, f"GStreamer elements are missing, and requests that need them fail: {', '.join(names)}.")


def missing_lines(plugins):
    """The start's warning about elements that the plug-ins lack. Analytics needs the converter."""
    needed = {DOCUMENT_PLUGIN}
    if {SCENE_PLUGIN, RADAR_PLUGIN} & set(plugins):
        needed.add(JSON_PLUGIN)
    names = [name for name in (DOCUMENT_PLUGIN, JSON_PLUGIN) if name in needed - set(plugins)]
    return [missing_elements(*names)] if names else []


def start_lines(plugins, coordinator_line=NO_COORDINATOR):
    """The log lines of a start with these plug-ins. `coordinator_line` gives the reason for unknown move capabilities,
    None if they are known."""
    lines = [(INFO, "Starting."), (INFO, "Setting up D-Bus server.")]
    plugins = [EVENT_PLUGIN if plugin == OWN_EVENT_PLUGIN else plugin for plugin in plugins]
    for plugin, (adding, missing) in KIND_LINES.items():
        lines.append((INFO, adding if plugin in plugins else missing))
        if plugin == PTZ_PLUGIN and plugin in plugins and coordinator_line:
            lines.append(coordinator_line)
    return lines + [(INFO, "Adding external source factory."), *missing_lines(plugins), STARTED_LINE]


START_LINES = start_lines(EVENT_PLUGINS)
START_LINES_UP_TO_SERVER = START_LINES[:START_LINES.index(STARTED_LINE)]

# Log lines about the bus after the start: the name is acquired, there is no bus, the policy refuses the name.
BUS_ACQUIRED_LINE = (INFO, "Bus acquired")
NAME_ACQUIRED_LINE = (INFO, "DBus-name acquired")
NAME_LOST_LINE = (INFO, "DBus-name was lost")
BUS_LINES = [BUS_ACQUIRED_LINE, NAME_ACQUIRED_LINE]


def unavailable(reason):
    """The warning that the daemon has no control service on the bus."""
    return (WARNING, f"The control service is unavailable: {reason}.")


NO_CONNECTION_LINES = [NAME_LOST_LINE, unavailable("there is no connection to the system bus")]
NAME_REFUSED_LINES = [BUS_ACQUIRED_LINE, NAME_LOST_LINE,
                      unavailable("the bus policy does not let this user own the name com.quon.MetadataServer1")]


def name_taken_lines(owner):
    """The lines when the connection `owner` has its name."""
    return [BUS_ACQUIRED_LINE, NAME_LOST_LINE, unavailable(f"{owner} has the name com.quon.MetadataServer1")]


NO_BUS_LINE = (WARNING,
               "Failed to connect to metadata-receiver over DBus: Could not connect: No such file or directory")

NOTHING_REQUESTED = "FAIL\nBad request, no metadata can be produced."
NOT_PRODUCED = "FAIL\nCould not produce metadata, Internal server error."

# The number of different lines that it writes before it counts further ones, and the interval of a count.
LOG_BURST = documented_limit("ratelimitedlog.h", "RATE_LIMITED_LOG_BURST")
LOG_SECONDS = documented_limit("ratelimitedlog.h", "RATE_LIMITED_LOG_INTERVAL_US") / 1e6

LOGGED_TEXT_BYTES = documented_limit("logtext.h", "LOG_TEXT_MAX_BYTES")


# The number of idle threads that GLib keeps for a time.
SPARE_THREADS = 8


def with_count(line, count):
    """The last one of several suppressed lines, with the count of the others."""
    priority, text = line
    return (priority, f"{text} ({count} more since the last such line)")


def clipped(text):
    """A long text of one-byte characters as a log line has it."""
    return f"{text[:LOGGED_TEXT_BYTES]}... ({len(text) - LOGGED_TEXT_BYTES} bytes left out)"


COUNTED = re.compile(r"(.*) \(\d+ more since the last such line\)", re.DOTALL)

# The warning about a sync point that was requested before the reply.
EARLY_SYNC_WARNING = "assertion 'conn->priv->status == CONNECTION_MANAGER_STATUS_STARTED' failed"


class Log:
    """Receives the lines that the preloaded library sends, as (priority, text). The texts of debug priority are in a
    list of their own, which a test need not read."""

    LINE_MAX_BYTES = 64 * 1024
    MARK = b"all earlier lines have arrived"

    def __init__(self, path):
        self.path = str(path)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.path)
        os.chmod(self.path, 0o666)
        self.lines = []
        self.debug_lines = []
        self.taken = set()
        self.marks = 0
        self.changed = threading.Condition()
        # The kernel's queue holds few datagrams, so a thread reads them all the time.
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        while datagram := self.socket.recv(self.LINE_MAX_BYTES):
            with self.changed:
                if datagram == self.MARK:
                    self.marks += 1
                else:
                    priority, text = re.fullmatch(r"<(\d+)>(.*)", datagram.decode(), re.DOTALL).groups()
                    if int(priority) == DEBUG:
                        self.debug_lines.append(text)
                    else:
                        self.lines.append((int(priority), text))
                self.changed.notify_all()

    def _send(self, datagram):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.settimeout(BOUND_SECONDS)
            sender.sendto(datagram, self.path)

    def wait_for(self, count):
        """Waits until `count` lines have not been taken, and does not take them."""
        with self.changed:
            arrived = self.changed.wait_for(lambda: len(self.lines) >= count, BOUND_SECONDS)
            assert arrived, f"{count} log lines expected, got {self.lines}"

    def take(self, count=0):
        """Waits for at least `count` lines and takes all lines sent so far."""
        self.wait_for(count)
        with self.changed:
            marks = self.marks
        self._send(self.MARK)
        with self.changed:
            assert self.changed.wait_for(lambda: self.marks > marks, BOUND_SECONDS)
            lines, self.lines = self.lines, []
        self.taken.update(lines)
        return lines

    def take_first(self):
        """Waits for a line and takes it alone."""
        self.wait_for(1)
        with self.changed:
            line = self.lines.pop(0)
        self.taken.update([line])
        return line

    def is_count_of_taken(self, line):
        """Whether the line counts suppressed repetitions of a taken line. It is written at the end of an interval,
        which may be after the test."""
        priority, text = line
        match = COUNTED.fullmatch(text)
        return match is not None and (priority, match[1]) in self.taken

    def close(self):
        self._send(b"")
        self.reader.join(BOUND_SECONDS)
        self.socket.close()


class Daemon:
    """One daemon; the fixtures `daemon`, `start_daemon` and `launch` make one and clean up after it.

    plugins: the installed plug-ins of the simulated camera
    coordinator_line: the log line about the PTZ coordinator, None if its reply is correct
    speed: the speed of the simulated world relative to the clock
    world_seconds: the time in the simulated world at the start, exact to one second of the clock; None for a time that
        follows from the time of day
    ptz_channels: the video channels of the PTZ head
    run_dir, run_dir_option: the run folder, by default one that does not exist yet, and the option that names it,
        None for no option
    options: further command-line options
    producers: the contents of producers.conf at the start, None for no file
    environment: additional variables
    sanitizer_options: additional options of the address sanitizer
    umask, user: the daemon's umask and user; the user in the form of Popen's arguments
    wrapper: converts the daemon's command line and environment to those of a command that starts it
    bus_lines: the log lines about the bus
    repeated_lines: lines that may occur any number of times after the start; a test may also take them"""

    def __init__(self, installation, bus, plugins=EVENT_PLUGINS, coordinator_line=NO_COORDINATOR, speed=1,
                 world_seconds=None, ptz_channels=(1,), run_dir=None, run_dir_option="--run-dir", options=(),
                 producers=PRODUCERS, environment=None, sanitizer_options=None, umask=0o022, user=None,
                 wrapper=None, bus_lines=tuple(BUS_LINES), repeated_lines=()):
        self.plugins = plugins
        self.folder = installation.workspace.folder()
        self.run_dir = self.folder / "run" if run_dir is None else pathlib.Path(run_dir)
        self.socket_path = self.run_dir / "metadata"
        self.producers_conf = self.folder / "producers.conf"
        if producers is not None:
            self._write_producers(producers)
        self.log = Log(self.folder / "log")
        self.stdout_path = self.folder / "stdout"
        self.stderr_path = self.folder / "stderr"
        self.command = [str(installation.tessard), *options]
        if run_dir_option:
            self.command += [run_dir_option, str(self.run_dir)]
        self.start_lines = start_lines(plugins, coordinator_line)
        self.bus_lines = bus_lines
        self.repeated_lines = repeated_lines
        self.stderr_taken = 0
        self.stderr_allowed = []
        self.idle_descriptors = None
        self.ended = False
        self.environment = {
            "PATH": os.environ["PATH"],
            "LC_ALL": "C",
            "DBUS_SYSTEM_BUS_ADDRESS": bus.address,
            "LD_PRELOAD": str(installation.testhost),
            "TESTHOST_SYSLOG": self.log.path,
            "TESSARD_SIM_CONFIG": self._write_simulation(speed, world_seconds, ptz_channels),
            **installation.plugin_environment(plugins),
            **installation.sanitizer_environment(sanitizer_options),
            **(environment or {}),
        }
        self.start_arguments = (wrapper or plain, umask, unprivileged() if user is None else user)
        self._start(*self.start_arguments)

    def _write_simulation(self, speed, world_seconds, ptz_channels):
        lines = ["[World]", f"speed={speed}"]
        if world_seconds is not None:
            # In whole seconds.
            epoch = time.gmtime(int(time.time() - world_seconds / speed))
            lines.append(time.strftime("epoch=%Y-%m-%dT%H:%M:%SZ", epoch))
        lines += ["[PTZ]", f"channels={';'.join(map(str, ptz_channels))}"]
        path = self.folder / "simulation.conf"
        path.write_text("".join(f"{line}\n" for line in lines), encoding="ascii")
        return str(path)

    def _write_producers(self, text):
        self.producers_conf.write_text(text, encoding="utf-8")
        if run_by_root():
            shutil.chown(self.producers_conf, UNPRIVILEGED_USER, UNPRIVILEGED_GROUP)

    def _start(self, wrapper, umask, user):
        command, environment = wrapper(self.command, self.environment)
        with open(self.stdout_path, "wb") as stdout, open(self.stderr_path, "wb") as stderr:
            self.process = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL, stdout=stdout,
                                            stderr=stderr, cwd=self.folder, umask=umask, **user)

    # Life

    def wait_until_started(self):
        """Waits until the daemon replies to a request; its start is complete then."""
        wait_until(self._replies, "the daemon replies")
        lines = [*self.start_lines, *self.bus_lines]
        wait_until(lambda: len(self._without_repeated(self.log.lines)) >= len(lines), f"{lines} are logged")
        assert self._without_repeated(self.log.take()) == lines

    def wait_until_ready(self):
        """Waits for the daemon's start and the end of the first request. There must be no other client."""
        self.wait_until_started()
        wait_until(lambda: not self._has_clients(), "the daemon has closed the connection")
        self.idle_descriptors = self.descriptors()

    def _without_repeated(self, lines):
        return [line for line in lines if line not in self.repeated_lines]

    def _has_clients(self):
        """Whether the daemon has a connected socket at its path."""
        connected = "03"
        sockets = (line.split() for line in pathlib.Path("/proc/net/unix").read_text(encoding="utf-8").splitlines())
        return any(fields[5] == connected and fields[7:] == [str(self.socket_path)] for fields in sockets)

    def _replies(self):
        assert self.process.poll() is None, f"the daemon ended: {self.take_stderr()} {self.log.lines}"
        try:
            with Client(self.socket_path) as client:
                return client.request("") == NOTHING_REQUESTED
        except (FileNotFoundError, ConnectionRefusedError, ConnectionEnded):
            return False

    def wait(self):
        """Waits for the daemon to end by itself and returns its status."""
        status = self.process.wait(BOUND_SECONDS)
        self.ended = True
        return status

    def end(self, number=signal.SIGTERM):
        """Ends the daemon by a signal and returns its status."""
        self.process.send_signal(number)
        return self.wait()

    def start_again(self):
        """Starts the daemon again in the same folder, after its end."""
        assert self.ended
        assert self._unexpected_on_stderr() == []
        self.stderr_taken = 0
        self.ended = False
        self._start(*self.start_arguments)

    def finish(self):
        """Ends the daemon if the test has not, and fails if log or standard error have unexpected lines."""
        try:
            if not self.ended:
                assert self.process.poll() is None, f"the daemon ended: {self.take_stderr()}"
                assert self.end() == -signal.SIGTERM
            left = [line for line in self.log.take() if not self.log.is_count_of_taken(line)]
        finally:
            self.process.kill()
            self.process.wait(BOUND_SECONDS)
            self.log.close()
        assert self._without_repeated(left) == []
        assert self._unexpected_on_stderr() == []

    def client(self):
        return Client(self.socket_path)

    def expect_stream(self, header="event=1\n"):
        """Expects that a client of its own gets a document."""
        with self.client() as client:
            client.start(header).next_document()

    def expect_reply(self, header="", reply=NOTHING_REQUESTED):
        """Expects this reply to a request of its own client."""
        with self.client() as client:
            assert client.request(header) == reply

    # Output

    def stdout(self):
        return self.stdout_path.read_text(encoding="utf-8")

    def take_stderr(self):
        """The text that has not been taken yet."""
        text = self.stderr_path.read_text(encoding="utf-8", errors="backslashreplace")[self.stderr_taken:]
        self.stderr_taken += len(text)
        return text

    def allow_on_stderr(self, text):
        """Allows, but does not require, lines that contain `text`."""
        self.stderr_allowed.append(text)

    def _unexpected_on_stderr(self):
        return [line for line in self.take_stderr().splitlines()
                if line and not any(text in line for text in self.stderr_allowed)]

    # Resources

    @property
    def proc(self):
        return pathlib.Path("/proc", str(self.process.pid))

    def status_field(self, name):
        (value,) = re.findall(rf"^{name}:\s*(.*)$", (self.proc / "status").read_text(encoding="ascii"),
                              re.MULTILINE)
        return value

    def descriptors(self):
        return len(os.listdir(self.proc / "fd"))

    def wait_until_idle(self):
        """Waits until it has only the descriptors of an idle daemon."""
        wait_until(lambda: self.descriptors() == self.idle_descriptors, "the clients' descriptors are closed")

    def expect_idle_and_no_log(self):
        self.wait_until_idle()
        assert self.log.take() == []

    def open_files(self):
        """The target of each descriptor, by number."""
        folder = self.proc / "fd"
        return {int(number): os.readlink(folder / number) for number in os.listdir(folder)}

    def limit_descriptors(self, limit):
        """Sets the running daemon's limit of descriptors."""
        # Root itself is not allowed to in some containers, the daemon's user is.
        subprocess.run(["prlimit", f"--pid={self.process.pid}", f"--nofile={limit}:"], check=True, cwd="/",
                       **unprivileged())

    def leave_descriptors(self, count, at_least=0):
        """Lets the running daemon open `count` more descriptors, or more if the limit would be below `at_least`."""
        taken = set(map(int, os.listdir(self.proc / "fd")))
        free = (number for number in itertools.count() if number not in taken)
        self.limit_descriptors(max(at_least, next(itertools.islice(free, count, None))))

    def threads(self):
        return int(self.status_field("Threads"))

    def processor_seconds(self):
        return processor_seconds(self.process.pid)

    def is_idle_for(self, seconds):
        """Whether no thread runs, or waits for a processor, for this time."""
        end = time.monotonic() + seconds
        wait_until(lambda: self._runs() or time.monotonic() >= end, "the time has passed")
        return time.monotonic() >= end and not self._runs()

    def _runs(self):
        return any(state != "S" for state in self._thread_states())

    def _thread_states(self):
        for task in (self.proc / "task").iterdir():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                yield (task / "stat").read_text(encoding="utf-8").rpartition(")")[2].split()[0]

    def processor_share(self, seconds):
        """The share of one core that the daemon uses during this time."""
        before = self.processor_seconds()
        end = time.monotonic() + seconds
        wait_until(lambda: time.monotonic() >= end, "the time has passed")
        return (self.processor_seconds() - before) / seconds

    def private_bytes(self):
        """Its own memory. Clean pages of files do not count: they become private and shared as other daemons end and
        start."""
        rollup = (self.proc / "smaps_rollup").read_text(encoding="ascii")
        (kib,) = re.findall(r"^Private_Dirty: +(\d+) kB$", rollup, re.MULTILINE)
        return 1024 * int(kib)

    def resident_bytes(self):
        return int(self.status_field("VmRSS").split()[0]) * 1024


def processor_seconds(pid):
    # The fields after the name, which may contain any character.
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def plain(command, environment):
    """The wrapper that changes nothing."""
    return command, environment
