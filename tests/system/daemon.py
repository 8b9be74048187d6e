"""The daemon as shipped, as a process of its own, and all that it tells: its log lines, its standard error, its end.

What a test does not expect is a failure: every log line after the start and everything on standard error has to be
taken by the test, and the daemon has to live until it is told to end."""

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
from installation import (DOCUMENT_PLUGIN, EVENT_PLUGIN, EVENT_PLUGINS, JSON_PLUGIN, PTZ_PLUGIN, RADAR_PLUGIN,
                          SCENE_PLUGIN, UNPRIVILEGED_GROUP, UNPRIVILEGED_USER, documented_limit, run_by_root,
                          unprivileged)
from waiting import BOUND_SECONDS, wait_until

ERROR = 3
WARNING = 4
INFO = 6

VIDEO_TRACKER, RADAR_TRACKER = "VideoMotionTracker", "RadarMotionTracker"


def producers_enabled(names):
    """A producers' file: both built-in trackers support the first two channels, and are enabled on those that
    `names` has, under the names there: {(VIDEO_TRACKER, 1): "Front"}."""
    supported = {(tracker, channel): "" for tracker in (VIDEO_TRACKER, RADAR_TRACKER) for channel in (1, 2)}
    file = GLib.KeyFile()
    for (tracker, channel), name in (supported | names).items():
        file.set_string(f"Producers.{channel - 1}.{tracker}", "Name", name)
    text, _ = file.to_data()
    return text


def stored_names(path):
    """What a producers' file says: the configuration name of each producer and channel, empty where disabled."""
    file = GLib.KeyFile()
    assert file.load_from_file(str(path), GLib.KeyFileFlags.NONE)
    groups, _ = file.get_groups()
    names = {}
    for group in groups:
        _, index, producer = group.split(".", 2)
        names[producer, int(index) + 1] = file.get_string(group, "Name")
    return names


PRODUCERS = producers_enabled({})

# What the daemon says of each kind of metadata when its plug-in is installed, and when it is not.
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


# The last line of a start. What the daemon says of the bus comes after it, and the server was started before.
STARTED_LINE = (INFO, "Setting up D-Bus client.")


def missing_elements(*names):
    return (WARNING, f"GStreamer elements are missing, and requests that need them fail: {', '.join(names)}.")


def missing_lines(plugins):
    """What it says at its start of elements that plug-ins do not bring: the converter is needed for analytics."""
    needed = {DOCUMENT_PLUGIN}
    if {SCENE_PLUGIN, RADAR_PLUGIN} & set(plugins):
        needed.add(JSON_PLUGIN)
    names = [name for name in (DOCUMENT_PLUGIN, JSON_PLUGIN) if name in needed - set(plugins)]
    return [missing_elements(*names)] if names else []


def start_lines(plugins, coordinator_line=NO_COORDINATOR):
    """What a daemon logs at its start with these plug-ins. The coordinator's line tells why the head's move
    capabilities are not known; it is None where they are."""
    lines = [(INFO, "Starting."), (INFO, "Setting up D-Bus server.")]
    for plugin, (adding, missing) in KIND_LINES.items():
        lines.append((INFO, adding if plugin in plugins else missing))
        if plugin == PTZ_PLUGIN and plugin in plugins and coordinator_line:
            lines.append(coordinator_line)
    return lines + [(INFO, "Adding external source factory."), *missing_lines(plugins), STARTED_LINE]


START_LINES = start_lines(EVENT_PLUGINS)
START_LINES_UP_TO_SERVER = START_LINES[:START_LINES.index(STARTED_LINE)]

# What the daemon says of the bus after its start: it has its name there, there is no bus, the policy refuses the name.
BUS_ACQUIRED_LINE = (INFO, "Bus acquired")
NAME_ACQUIRED_LINE = (INFO, "DBus-name acquired")
NAME_LOST_LINE = (INFO, "DBus-name was lost")
BUS_LINES = [BUS_ACQUIRED_LINE, NAME_ACQUIRED_LINE]


def unavailable(reason):
    """Why the daemon has no control service on the bus."""
    return (WARNING, f"The control service is unavailable: {reason}.")


NO_CONNECTION_LINES = [NAME_LOST_LINE, unavailable("there is no connection to the system bus")]
NAME_REFUSED_LINES = [BUS_ACQUIRED_LINE, NAME_LOST_LINE,
                      unavailable("the bus policy does not let this user own the name com.quon.MetadataServer1")]


def name_taken_lines(owner):
    """What it says when the connection `owner` has its name."""
    return [BUS_ACQUIRED_LINE, NAME_LOST_LINE, unavailable(f"{owner} has the name com.quon.MetadataServer1")]


NO_BUS_LINE = (WARNING,
               "Failed to connect to metadata-receiver over DBus: Could not connect: No such file or directory")

NOTHING_ASKED = "FAIL\nBad request, no metadata can be produced."
NOT_PRODUCED = "FAIL\nCould not produce metadata, Internal server error."

# How many lines of its own, each of which names something else, it writes before it counts them, and for how long it
# counts.
LOG_BURST = documented_limit("ratelimitedlog.h", "RATE_LIMITED_LOG_BURST")
LOG_SECONDS = documented_limit("ratelimitedlog.h", "RATE_LIMITED_LOG_INTERVAL_US") / 1e6

LOGGED_TEXT_BYTES = documented_limit("logtext.h", "LOG_TEXT_MAX_BYTES")


def with_count(line, count):
    """The last line of those that were left out, which tells of so many others."""
    priority, text = line
    return (priority, f"{text} ({count} more since the last such line)")


def clipped(text):
    """What a line has of a longer text of one-byte characters."""
    return f"{text[:LOGGED_TEXT_BYTES]}... ({len(text) - LOGGED_TEXT_BYTES} bytes left out)"


COUNTED = re.compile(r"(.*) \(\d+ more since the last such line\)", re.DOTALL)

# The warning about a sync point that was asked for before the reply.
EARLY_SYNC_WARNING = "assertion 'conn->priv->status == CONNECTION_MANAGER_STATUS_STARTED' failed"


class Log:
    """Takes in the lines that the preloaded library sends, as (priority, text)."""

    LINE_MAX_BYTES = 64 * 1024
    MARK = b"the line up to which all have arrived"

    def __init__(self, path):
        self.path = str(path)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.path)
        os.chmod(self.path, 0o666)
        self.lines = []
        self.taken = set()
        self.marks = 0
        self.changed = threading.Condition()
        # The kernel keeps few datagrams, so that somebody has to read them all the time.
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        while datagram := self.socket.recv(self.LINE_MAX_BYTES):
            with self.changed:
                if datagram == self.MARK:
                    self.marks += 1
                else:
                    priority, text = re.fullmatch(r"<(\d+)>(.*)", datagram.decode(), re.DOTALL).groups()
                    self.lines.append((int(priority), text))
                self.changed.notify_all()

    def _send(self, datagram):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.settimeout(BOUND_SECONDS)
            sender.sendto(datagram, self.path)

    def wait_for(self, count):
        """Waits until there are so many lines that nobody took, and leaves them."""
        with self.changed:
            arrived = self.changed.wait_for(lambda: len(self.lines) >= count, BOUND_SECONDS)
            assert arrived, f"{count} log lines expected, got {self.lines}"

    def take(self, count=0):
        """Takes all lines sent so far, but first waits until there are at least so many."""
        self.wait_for(count)
        with self.changed:
            marks = self.marks
        self._send(self.MARK)
        with self.changed:
            assert self.changed.wait_for(lambda: self.marks > marks, BOUND_SECONDS)
            lines, self.lines = self.lines, []
        self.taken.update(lines)
        return lines

    def is_count_of_taken(self, line):
        """Whether it only counts lines that were left out since one that was taken. It comes at the end of an interval,
        so a test may be over before it."""
        priority, text = line
        match = COUNTED.fullmatch(text)
        return match is not None and (priority, match[1]) in self.taken

    def close(self):
        self._send(b"")
        self.reader.join(BOUND_SECONDS)
        self.socket.close()


class Daemon:
    """One daemon; the fixtures `daemon`, `start_daemon` and `launch` make one and clean up after it.

    plugins: what the simulated camera has installed
    coordinator_line: what it logs about the PTZ coordinator, None where that answers as it should
    speed: how much faster than the clock the simulated world goes
    world_seconds: how far the simulated world's story has come at the start, or up to one second of the clock
        further; None for as far as the time of day has it
    ptz_channels: which video channels look through the PTZ head
    run_dir, run_dir_option: the run folder, by default one that does not exist yet, and the option that names it,
        None to leave it out
    options: what else stands on the daemon's command line
    producers: what is in the daemon's producers.conf at its start, None for no such file
    environment: variables on top of the usual ones
    sanitizer_options: options of the address sanitizer on top of the session's
    umask, user: with which the daemon starts; the user in the form of Popen's arguments
    wrapper: makes the command line that starts the daemon and that command's own environment of the daemon's
    bus_lines: what the daemon says of the bus
    repeated_lines: what it may say again and again, at any time after its start; a test may take them all the same"""

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
            # Told in whole seconds.
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

    def wait_until_ready(self):
        """Waits until the daemon answers a request, so that nothing of its start is left to do."""
        wait_until(self._answers, "the daemon answers")
        lines = [*self.start_lines, *self.bus_lines]
        wait_until(lambda: len(self._without_repeated(self.log.lines)) >= len(lines), f"{lines} are logged")
        assert self._without_repeated(self.log.take()) == lines
        wait_until(lambda: not self._has_clients(), "the daemon has closed the connection")
        self.idle_descriptors = self.descriptors()

    def _without_repeated(self, lines):
        return [line for line in lines if line not in self.repeated_lines]

    def _has_clients(self):
        """Whether the daemon has a connected socket at its path."""
        connected = "03"
        sockets = (line.split() for line in pathlib.Path("/proc/net/unix").read_text(encoding="utf-8").splitlines())
        return any(fields[5] == connected and fields[7:] == [str(self.socket_path)] for fields in sockets)

    def _answers(self):
        assert self.process.poll() is None, f"the daemon ended: {self.take_stderr()} {self.log.lines}"
        try:
            with Client(self.socket_path) as client:
                return client.ask("") == NOTHING_ASKED
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
        """Starts the daemon once more where it was, after it has ended."""
        assert self.ended
        assert self._unexpected_on_stderr() == []
        self.stderr_taken = 0
        self.ended = False
        self._start(*self.start_arguments)

    def finish(self):
        """Ends the daemon if it should still run, and fails when there was anything that nobody expected."""
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

    # What it tells

    def stdout(self):
        return self.stdout_path.read_text(encoding="utf-8")

    def take_stderr(self):
        """What nobody took yet."""
        text = self.stderr_path.read_text(encoding="utf-8", errors="backslashreplace")[self.stderr_taken:]
        self.stderr_taken += len(text)
        return text

    def allow_on_stderr(self, text):
        """Lines that hold `text` may come or not."""
        self.stderr_allowed.append(text)

    def _unexpected_on_stderr(self):
        return [line for line in self.take_stderr().splitlines()
                if line and not any(text in line for text in self.stderr_allowed)]

    # What it takes of the machine

    @property
    def proc(self):
        return pathlib.Path("/proc", str(self.process.pid))

    def status_field(self, name):
        (value,) = re.findall(rf"^{name}:\s*(.*)$", (self.proc / "status").read_text(encoding="ascii"),
                              re.MULTILINE)
        return value

    def descriptors(self):
        return len(os.listdir(self.proc / "fd"))

    def open_files(self):
        """What each of its descriptors is, by number."""
        folder = self.proc / "fd"
        return {int(number): os.readlink(folder / number) for number in os.listdir(folder)}

    def limit_descriptors(self, limit):
        """Lets the running daemon open no number from this one on, until it is let again."""
        # Root itself may not everywhere, but the daemon's own user.
        subprocess.run(["prlimit", f"--pid={self.process.pid}", f"--nofile={limit}:"], check=True, cwd="/",
                       **unprivileged())

    def leave_descriptors(self, count, at_least=0):
        """Lets the running daemon open only so many descriptors more, until it is let again; or some more, so that the
        limit is not below `at_least`."""
        taken = set(map(int, os.listdir(self.proc / "fd")))
        free = (number for number in itertools.count() if number not in taken)
        self.limit_descriptors(max(at_least, next(itertools.islice(free, count, None))))

    def threads(self):
        return int(self.status_field("Threads"))

    def processor_seconds(self):
        return processor_seconds(self.process.pid)

    def is_at_rest(self, seconds):
        """Whether none of its threads runs, or waits for a processor, during so many seconds."""
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
        """How much of one core the daemon takes during so many seconds."""
        before = self.processor_seconds()
        end = time.monotonic() + seconds
        wait_until(lambda: time.monotonic() >= end, "the time has passed")
        return (self.processor_seconds() - before) / seconds

    def private_bytes(self):
        """What it alone has in memory."""
        rollup = (self.proc / "smaps_rollup").read_text(encoding="ascii")
        return 1024 * sum(map(int, re.findall(r"^Private_(?:Clean|Dirty): +(\d+) kB$", rollup, re.MULTILINE)))

    def resident_bytes(self):
        return int(self.status_field("VmRSS").split()[0]) * 1024


def processor_seconds(pid):
    # Behind the name, which may hold anything.
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def plain(command, environment):
    """The wrapper that is none."""
    return command, environment
