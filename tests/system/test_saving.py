# SPDX-License-Identifier: MIT
"""The producers' file: failed writes, and a daemon that is killed during a storm of changes."""

import concurrent.futures
import contextlib
import random
import signal
import subprocess
import threading
import time

import pytest
from gi.repository import GLib

from daemon import INFO, RADAR_TRACKER, VIDEO_TRACKER, WARNING, Daemon, stored_names
from installation import (RADAR_PLUGINS, SCENE_PLUGINS, UNPRIVILEGED_GROUP, UNPRIVILEGED_USER, Bus, documented_limit,
                          run_by_root)
from controlclient import NAME, ControlClient
from waiting import BOUND_SECONDS, wait_until

PLUGINS = tuple({*SCENE_PLUGINS, *RADAR_PLUGINS})

RETRY_SECONDS = documented_limit("producerconfig.h", "PRODUCER_CONFIG_RETRY_SECONDS")

# The tolerances of a retry: late on a busy machine, early because it occurs at a whole second.
TOLERANCE_SECONDS = 10
EARLY_SECONDS = 2

WRITTEN_LINE = (INFO, "wrote to producerconfig what could not be written before")

TEMPORARY = "producers.conf.tessard-new"

UNCHANGED = {(VIDEO_TRACKER, 1): "", (VIDEO_TRACKER, 2): "", (RADAR_TRACKER, 1): "", (RADAR_TRACKER, 2): ""}
CHANGED = UNCHANGED | {(VIDEO_TRACKER, 1): "left door"}

NO_DISK = "a private file system needs root's rights"

# The rounds of killed daemons, and the number of daemons that run concurrently.
ROUNDS = 200
LANES = 4

# The largest number of calls before a kill.
MAX_CALLS = 20


class Failure:
    """A cause for failed writes. A subclass has the reason in the daemon's warning, and the contents of the file after
    a failed write."""

    reason = None
    stored = UNCHANGED

    def __init__(self, workspace):
        self.faults = workspace.folder()

    def arguments(self):
        """Arguments of the daemon."""
        return {}

    def folder(self, daemon):
        return daemon.folder

    def begin(self, daemon):
        """Makes later saves fail."""

    def end(self, daemon):
        """Makes later saves succeed."""

    def check(self, daemon):
        """Checks the file while saves fail."""
        assert stored_names(self.folder(daemon) / "producers.conf") == self.stored


class ReadOnlyFolder(Failure):
    reason = f"Failed to create '{TEMPORARY}': Permission denied"

    def begin(self, daemon):
        daemon.folder.chmod(0o555)

    def end(self, daemon):
        daemon.folder.chmod(0o755)


class FolderThatCannotBeOpened(ReadOnlyFolder):
    reason = "Failed to open '.': Permission denied"
    stored = CHANGED

    def begin(self, daemon):
        daemon.folder.chmod(0o333)


class FailedRename(Failure):
    """A folder with the file's name."""

    reason = f"Failed to rename '{TEMPORARY}' to 'producers.conf': Is a directory"

    def begin(self, daemon):
        daemon.producers_conf.unlink()
        daemon.producers_conf.mkdir()

    def end(self, daemon):
        daemon.producers_conf.rmdir()

    def check(self, daemon):
        assert list(daemon.producers_conf.iterdir()) == []


class FailedSync(Failure):
    reason = f"Failed to sync '{TEMPORARY}': Input/output error"
    entry = "sync-file"

    def arguments(self):
        return {"environment": {"TESTHOST_FAULTS": str(self.faults)}}

    def begin(self, daemon):
        (self.faults / self.entry).touch()

    def end(self, daemon):
        (self.faults / self.entry).unlink()


class FailedSyncOfTheFolder(FailedSync):
    reason = "Failed to sync '.': Input/output error"
    entry = "sync-folder"
    stored = CHANGED


class FullDisk(Failure):
    """The daemon's working folder is a small private file system, which ends with the daemon."""

    reason = f"Failed to write '{TEMPORARY}': No space left on device"
    MOUNT = ("mkdir disk && mount -t tmpfs -o size=64k,mode=755,uid=$0,gid=$1 tmpfs disk && "
             "cp -p producers.conf disk && cd disk && shift && exec \"$@\"")
    UNSHARE = ("unshare", "--mount", "sh", "-c")

    @classmethod
    def is_possible(cls):
        return run_by_root() and subprocess.run([*cls.UNSHARE, "mount -t tmpfs tmpfs /mnt"], check=False,
                                                stderr=subprocess.DEVNULL).returncode == 0

    def __init__(self, workspace):
        super().__init__(workspace)
        if not self.is_possible():
            pytest.skip(NO_DISK)

    def arguments(self):
        drop = ("setpriv", f"--reuid={UNPRIVILEGED_USER}", f"--regid={UNPRIVILEGED_GROUP}", "--clear-groups")

        def wrap(command, environment):
            return [*self.UNSHARE, self.MOUNT, UNPRIVILEGED_USER, UNPRIVILEGED_GROUP, *drop, *command], environment

        return {"user": {}, "wrapper": wrap}

    def folder(self, daemon):
        return daemon.proc / "cwd"

    def begin(self, daemon):
        with contextlib.suppress(OSError), open(self.folder(daemon) / "filling", "wb", buffering=0) as file:
            while file.write(b"x" * 4096):
                pass

    def end(self, daemon):
        (self.folder(daemon) / "filling").unlink()


FAILURES = [ReadOnlyFolder, FolderThatCannotBeOpened, FailedRename, FailedSync, FailedSyncOfTheFolder, FullDisk]


def temporary_files(folder):
    return list(folder.glob("producers.conf?*"))


def change_while_saves_fail(failure, daemon, control):
    """Makes a change that succeeds and is in effect, but is not saved."""
    failure.begin(daemon)
    control.set_channels(VIDEO_TRACKER, (1, True, "left door"))
    assert daemon.log.take(1) == [(WARNING, f"could not write name to producerconfig: {failure.reason}")]
    assert control.names(VIDEO_TRACKER, RADAR_TRACKER) == CHANGED
    failure.check(daemon)
    failure.end(daemon)


def expect_stored(failure, daemon, names):
    folder = failure.folder(daemon)
    assert stored_names(folder / "producers.conf") == names
    assert temporary_files(folder) == []


class Retry:
    """A daemon with an unsaved change, which its next retry can save."""

    def __init__(self, kind, installation, workspace):
        self.failure = kind(workspace)
        self.bus = Bus(installation)
        self.daemon = Daemon(installation, self.bus, plugins=PLUGINS, **self.failure.arguments())
        self.control = ControlClient(self.bus)

    def begin(self):
        self.daemon.wait_until_ready()
        self.began = time.monotonic()
        change_while_saves_fail(self.failure, self.daemon, self.control)

    def close(self):
        self.control.close()
        self.daemon.finish()
        self.bus.stop()


@pytest.fixture(scope="module")
def retries(installation, workspace):
    """One retry for each failure that is possible on this machine. All start together and take a minute."""
    with contextlib.ExitStack() as started:
        made = {}
        for kind in FAILURES:
            if kind is FullDisk and not FullDisk.is_possible():
                continue
            made[kind] = Retry(kind, installation, workspace)
            started.callback(made[kind].close)
            made[kind].begin()
        yield made


@pytest.fixture(params=FAILURES, ids=lambda kind: kind.__name__)
def failure(request, workspace):
    return request.param(workspace)


# Tests during the retries, which the first one starts


def test_change_that_cannot_be_saved_is_saved_with_the_next(retries, failure, start_daemon, control):
    daemon = start_daemon(plugins=PLUGINS, **failure.arguments())
    change_while_saves_fail(failure, daemon, control)

    control.set_channels(RADAR_TRACKER, (2, True, "yard"))
    expect_stored(failure, daemon, CHANGED | {(RADAR_TRACKER, 2): "yard"})
    assert daemon.log.take() == []


class Storm(threading.Thread):
    """Changes channels in turn, with both methods in turn, until the daemon ends."""

    def __init__(self, control, names):
        super().__init__(daemon=True)
        self.control = control
        self.acknowledged = dict(names)
        self.sent = dict(names)
        self.calls = 0
        self.start()

    def run(self):
        with contextlib.suppress(GLib.Error):
            while True:
                channel = 1 + self.calls // 2 % 2
                name = f"{time.monotonic_ns()}"
                self.sent[VIDEO_TRACKER, channel] = name
                if self.calls % 2:
                    self.control.set_producers({VIDEO_TRACKER: [(channel, True, name)]})
                else:
                    self.control.set_channels(VIDEO_TRACKER, (channel, True, name))
                self.acknowledged[VIDEO_TRACKER, channel] = name
                self.calls += 1


def kill_in_a_storm(daemon, control, names):
    """Kills the daemon during changes; returns the contents of the file, and whether a save was interrupted."""
    storm = Storm(control, names)
    calls = random.randrange(MAX_CALLS)
    wait_until(lambda: storm.calls >= calls, "the storm continues")
    assert daemon.end(signal.SIGKILL) == -signal.SIGKILL
    storm.join(BOUND_SECONDS)

    stored = stored_names(daemon.producers_conf)
    assert stored in (storm.acknowledged, storm.sent)
    return stored, temporary_files(daemon.folder) != []


def start_again(daemon, control):
    wait_until(lambda: not control.has_owner(NAME), "the daemon has left the bus")
    daemon.start_again()
    daemon.wait_until_ready()


def kill_again_and_again(installation, rounds):
    """Kills a daemon repeatedly; returns the number of interrupted saves."""
    with contextlib.ExitStack() as started:
        bus = Bus(installation)
        started.callback(bus.stop)
        daemon = Daemon(installation, bus, plugins=PLUGINS)
        started.callback(daemon.finish)
        control = ControlClient(bus)
        started.callback(control.close)
        daemon.wait_until_ready()

        names, cut_saves = UNCHANGED, 0
        for _ in range(rounds):
            names, cut_save = kill_in_a_storm(daemon, control, names)
            cut_saves += cut_save
            start_again(daemon, control)
            assert control.names(VIDEO_TRACKER, RADAR_TRACKER) == names
            assert temporary_files(daemon.folder) == []
    return cut_saves


def test_killed_in_a_storm_of_changes(retries, installation):
    with concurrent.futures.ThreadPoolExecutor(LANES) as lanes:
        outcomes = [lanes.submit(kill_again_and_again, installation, ROUNDS // LANES)
                    for _ in range(LANES)]
        cut_saves = sum(outcome.result() for outcome in outcomes)

    assert cut_saves > 0, "no kill interrupted a save"


# Tests after the retries


@pytest.mark.parametrize("kind", FAILURES, ids=lambda kind: kind.__name__)
def test_change_that_cannot_be_saved_is_saved_later(retries, kind):
    if kind not in retries:
        pytest.skip(NO_DISK)
    retry = retries[kind]

    wait_until(lambda: retry.daemon.log.lines, "the file has been written", RETRY_SECONDS + TOLERANCE_SECONDS)
    seconds = time.monotonic() - retry.began
    assert retry.daemon.log.take() == [WRITTEN_LINE]
    assert seconds >= RETRY_SECONDS - EARLY_SECONDS
    expect_stored(retry.failure, retry.daemon, CHANGED)
