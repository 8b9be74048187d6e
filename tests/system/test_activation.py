# SPDX-License-Identifier: MIT
"""Listening sockets of systemd's socket activation."""

import os
import pathlib
import re
import stat
import sys

import pytest

from daemon import ERROR, START_LINES_UP_TO_SERVER, plain

# Passed as text, because the daemon's user may be unable to read the tree.
ACTIVATION = pathlib.Path(__file__).with_name("activation.py").read_text(encoding="utf-8")


def variables(environment):
    return [f"{name}={value}" for name, value in environment.items()]


def by_systemd(socket_path):
    """Listens like a socket unit, and starts the daemon for the first client."""

    def wrap(command, environment):
        settings = [f"--setenv={variable}" for variable in variables(environment)]
        return (["systemd-socket-activate", f"--listen={socket_path}", *settings, *command],
                {"PATH": os.environ["PATH"]})

    return wrap


def with_sockets(*paths):
    """Passes a listening socket for each path."""

    def wrap(command, environment):
        return ([sys.executable, "-c", ACTIVATION, ",".join(map(str, paths)), *variables(environment), "--",
                 *command], {"PATH": os.environ["PATH"]})

    return wrap


@pytest.fixture
def run_dir(workspace):
    return workspace.folder()


def test_activated_socket_keeps_its_mode(start_daemon, run_dir):
    path = run_dir / "metadata"
    daemon = start_daemon(run_dir=run_dir, wrapper=by_systemd(path))
    for line in ("Listening on", "Communication attempt on fd", "Execing", "Spawned"):
        daemon.allow_on_stderr(line)

    # A socket of the daemon's own would have this mode.
    assert stat.S_IMODE(path.stat().st_mode) != 0o660
    daemon.expect_stream()


def test_only_socket_of_the_path_is_used(start_daemon, run_dir):
    own = run_dir / "metadata"
    daemon = start_daemon(run_dir=run_dir, wrapper=with_sockets(run_dir / "other", own, run_dir / "another"))

    assert stat.S_IMODE(own.stat().st_mode) != 0o660
    daemon.expect_stream()


def test_daemon_makes_its_socket_without_an_activated_one_for_its_path(start_daemon, run_dir):
    daemon = start_daemon(run_dir=run_dir, wrapper=with_sockets(run_dir / "other"))

    assert stat.S_IMODE(daemon.socket_path.stat().st_mode) == 0o660
    daemon.expect_stream()


@pytest.mark.parametrize("count", [2, 3])
def test_more_than_one_socket_of_the_path_is_refused(launch, run_dir, count):
    path = run_dir / "metadata"
    daemon = launch(run_dir=run_dir, wrapper=with_sockets(*[path] * count))

    assert daemon.wait() == 1
    lines = daemon.log.take()
    begun = len(START_LINES_UP_TO_SERVER)
    assert lines[:begun] == START_LINES_UP_TO_SERVER
    (priority, text), *rest = lines[begun:]
    assert priority == ERROR
    assert re.fullmatch(f"More than one file descriptor received for '{path}': .+", text)
    # The first socket is closed once for each of them; only the first close succeeds, unless the thread of the bus
    # connection opens a descriptor with the same number in between.
    *failed_closes, last = rest
    assert last == (ERROR, "Could not start server.")
    assert len(failed_closes) < count
    assert set(failed_closes) <= {(ERROR, "Could not close metadata server socket: Bad file descriptor")}


def test_sockets_for_another_process_are_not_used(start_daemon, run_dir):
    daemon = start_daemon(run_dir=run_dir, environment={"LISTEN_FDS": "1", "LISTEN_PID": "1"}, wrapper=plain)

    assert stat.S_IMODE(daemon.socket_path.stat().st_mode) == 0o660
