# SPDX-License-Identifier: MIT
"""The daemon's start and end: identity, options, run folder, log and signals."""

import contextlib
import os
import pathlib
import pty
import signal
import socket
import stat
import subprocess

import pytest

from daemon import (ERROR, INFO, NOT_PRODUCED, START_LINES_UP_TO_SERVER, STARTED_LINE, missing_elements,
                    start_lines)
from installation import (DOCUMENT_PLUGIN, EVENT_PLUGIN, JSON_PLUGIN, RADAR_PLUGIN, SCENE_PLUGIN, run_by_root,
                          unprivileged)

ROOT_REFUSAL = (
    "Don't run as root. To start as non root use:\n"
    'su -c "env GST_REGISTRY=/etc/gstreamer/registry.bin /usr/bin/tessard" -s /bin/sh metadata\n')

UNKNOWN_ARGUMENT = ("tessard: unknown argument: wrong\n"
                    "Usage: tessard [--run-dir=DIRECTORY] [--version] [GStreamer options]\n")

HELP_HINT = "Try -? or --help for more information.\n"

DEFAULT_RUN_DIR = "/run/tessard"
CANNOT_MAKE_DEFAULT_RUN_DIR = (ERROR, f"could not create directory '{DEFAULT_RUN_DIR}': Permission denied")

CANNOT_START = (ERROR, "Could not start server.")

# The length of the longest socket path that the daemon binds as a whole.
SOCKET_PATH_MAX = 106

USER_ID_ZERO = {"environment": {"TESTHOST_UID": "0"}}
GROUP_ID_ZERO = {"environment": {"TESTHOST_GID": "0"}}
BOTH_IDS_ZERO = {"environment": {"TESTHOST_UID": "0", "TESTHOST_GID": "0"}}
ROOT_ITSELF = {"user": {}}


def mode_of_run_dir(daemon):
    return stat.S_IMODE(daemon.run_dir.stat().st_mode)


def expect_failed_server(daemon, reason):
    """Waits for a start that fails at the server, with exactly this additional log line."""
    assert daemon.wait() == 1
    assert daemon.log.take() == START_LINES_UP_TO_SERVER + [(ERROR, reason), CANNOT_START]
    assert daemon.stdout() == ""


def run_dir_for_socket_path_of(workspace, length):
    """The path of a missing run folder whose socket has a path of this length."""
    parent = workspace.folder()
    return parent / ("d" * (length - len(f"{parent}//metadata")))


# Identity


@pytest.mark.parametrize("identity", [USER_ID_ZERO, GROUP_ID_ZERO, BOTH_IDS_ZERO]
                         + ([ROOT_ITSELF] if run_by_root() else []))
@pytest.mark.parametrize("options", [(), ("--version",), ("--wrong",)])
def test_root_is_refused_first(launch, identity, options):
    daemon = launch(options=options, **identity)

    assert daemon.wait() == 1
    assert daemon.take_stderr() == ROOT_REFUSAL
    assert daemon.stdout() == ""
    assert daemon.log.take() == []
    assert not daemon.run_dir.exists()


# Options


@pytest.mark.parametrize("option", ["--version", "-V"])
def test_version_prints_two_lines(launch, option):
    daemon = launch(options=[option])

    assert daemon.wait() == 0
    own, gstreamer = daemon.stdout().splitlines(keepends=True)
    assert own == "tessard version 0.0.0\n"
    assert gstreamer.startswith("GStreamer 1.") and gstreamer.endswith("\n")
    assert daemon.log.take() == []
    assert not daemon.run_dir.exists()


@pytest.mark.parametrize("options, message", [
    (["--wrong"], "Unknown option --wrong"),
    (["-x"], "Unknown option -x"),
    (["--run-dir"], "Missing argument for --run-dir"),
    (["-d"], "Missing argument for -d"),
])
def test_wrong_options_are_refused_with_a_hint(launch, options, message):
    daemon = launch(options=options, run_dir_option=None)

    assert daemon.wait() == 1
    assert daemon.take_stderr() == f"{message}\n{HELP_HINT}"
    assert daemon.stdout() == ""
    assert daemon.log.take() == []
    assert not daemon.run_dir.exists()


@pytest.mark.parametrize("options", [["wrong"], ["--version", "wrong"], ["wrong", "other"], ["--", "wrong"]])
def test_unknown_arguments_are_refused(launch, options):
    daemon = launch(options=options, run_dir_option=None)

    assert daemon.wait() == 2
    assert daemon.take_stderr() == UNKNOWN_ARGUMENT
    assert daemon.stdout() == ""
    assert daemon.log.take() == []


@pytest.mark.parametrize("option", ["--help", "-?"])
def test_help_lists_the_options_and_those_of_gstreamer(launch, option):
    daemon = launch(options=[option])

    assert daemon.wait() == 0
    lines = [" ".join(line.split()) for line in daemon.stdout().splitlines()]
    assert "-d, --run-dir Run directory" in lines
    assert "-V, --version Print version information and exit" in lines
    assert "--help-gst Show GStreamer Options" in lines
    assert daemon.log.take() == []


def test_help_on_gstreamer_lists_its_options(launch):
    daemon = launch(options=["--help-gst"])

    assert daemon.wait() == 0
    assert "--gst-version" in daemon.stdout()


def test_run_dir_has_a_short_option(start_daemon):
    daemon = start_daemon(run_dir_option="-d")

    assert daemon.run_dir.is_dir()


def test_default_run_dir(launch):
    # Only root can write there, so the start fails and changes nothing on the machine.
    installed = pathlib.Path(DEFAULT_RUN_DIR).exists()
    daemon = launch(run_dir_option=None)

    assert daemon.wait() == 1
    lines = daemon.log.take()
    assert lines[0] == (INFO, "Starting.")
    assert lines[-1] == (CANNOT_START if installed else CANNOT_MAKE_DEFAULT_RUN_DIR)


# Run folder


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077])
def test_run_dir_has_its_mode_for_every_umask(start_daemon, umask):
    daemon = start_daemon(umask=umask)

    assert mode_of_run_dir(daemon) == 0o771
    assert daemon.status_field("Umask") == "0002"


def test_run_dir_is_made_with_its_parents(start_daemon, workspace):
    parent = workspace.folder()
    daemon = start_daemon(run_dir=parent / "one" / "two")

    assert mode_of_run_dir(daemon) == 0o771
    assert stat.S_IMODE((parent / "one").stat().st_mode) == 0o771


@pytest.mark.parametrize("mode", [0o700, 0o755])
def test_run_dir_that_exists_keeps_its_mode(start_daemon, workspace, mode):
    daemon = start_daemon(run_dir=workspace.folder(mode))

    assert mode_of_run_dir(daemon) == mode


def test_run_dir_that_cannot_be_made(launch, workspace):
    file = workspace.folder() / "file"
    file.touch()
    daemon = launch(run_dir=file / "run")

    assert daemon.wait() == 1
    assert daemon.log.take() == [
        (INFO, "Starting."),
        (ERROR, f"could not create directory '{file}/run': Not a directory"),
    ]


# Installed plug-ins


@pytest.mark.parametrize("plugins", [[EVENT_PLUGIN, DOCUMENT_PLUGIN], [EVENT_PLUGIN], [DOCUMENT_PLUGIN], [],
                                     [SCENE_PLUGIN, DOCUMENT_PLUGIN], [RADAR_PLUGIN, JSON_PLUGIN]])
def test_start_logs_what_is_installed(launch, plugins):
    daemon = launch(plugins=plugins)
    daemon.start_lines = start_lines(plugins)

    daemon.wait_until_ready()


def test_missing_gstreamer_elements_are_named(launch, installation):
    _, environment = installation.new_plugin_folder([EVENT_PLUGIN, DOCUMENT_PLUGIN], without=["gdp", "app"])
    daemon = launch(environment=environment)
    daemon.start_lines = START_LINES_UP_TO_SERVER + [missing_elements("gdppay", "appsrc", "appsink"), STARTED_LINE]

    daemon.wait_until_ready()
    daemon.expect_reply("event=1\n", NOT_PRODUCED)
    assert daemon.log.take(1) == [(ERROR, "Could not create gdppay.")]


def test_server_replies_without_plugins(start_daemon):
    daemon = start_daemon(plugins=[])

    daemon.expect_reply("event=1\n")


# Socket


def test_socket_is_for_user_and_group(daemon):
    status = daemon.socket_path.stat()

    assert stat.S_ISSOCK(status.st_mode)
    assert stat.S_IMODE(status.st_mode) == 0o660


def leave_socket(path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as stale:
        stale.bind(str(path))


def leave_file(path):
    path.write_text("left", encoding="ascii")


def leave_dangling_link(path):
    path.symlink_to("nowhere")


@pytest.mark.parametrize("leave", [leave_socket, leave_file, leave_dangling_link])
def test_leftover_at_the_socket_path_is_replaced(start_daemon, workspace, leave):
    run_dir = workspace.folder()
    leave(run_dir / "metadata")
    daemon = start_daemon(run_dir=run_dir)

    assert stat.S_ISSOCK(daemon.socket_path.lstat().st_mode)


def test_socket_that_cannot_be_removed(launch, workspace):
    run_dir = workspace.folder()
    (run_dir / "metadata").mkdir()
    daemon = launch(run_dir=run_dir)

    expect_failed_server(daemon, f"Could not unlink '{run_dir}/metadata': Is a directory")


def test_socket_that_cannot_be_bound(launch, workspace):
    daemon = launch(run_dir=workspace.folder(0o555))

    expect_failed_server(daemon, "Failed to bind metadata server socket: Permission denied")


def test_longest_socket_path(start_daemon, workspace):
    run_dir = run_dir_for_socket_path_of(workspace, SOCKET_PATH_MAX)
    daemon = start_daemon(run_dir=run_dir)

    assert len(str(daemon.socket_path)) == SOCKET_PATH_MAX
    assert stat.S_IMODE(daemon.socket_path.stat().st_mode) == 0o660


def test_socket_path_too_long(launch, workspace):
    run_dir = run_dir_for_socket_path_of(workspace, SOCKET_PATH_MAX + 1)
    daemon = launch(run_dir=run_dir)

    expect_failed_server(daemon, "Could not set permissions on metadata server socket: No such file or directory")
    assert [path.name for path in run_dir.iterdir()] == ["metadat"]


# Standard error


def run_to_failed_start(installation, workspace, **streams):
    """Runs a daemon whose run folder cannot be made, with the system's log; returns the folder and the process."""
    file = workspace.folder() / "file"
    file.touch()
    environment = {"PATH": os.environ["PATH"], "LC_ALL": "C", **installation.plugin_environment([]),
                   **installation.sanitizer_environment()}
    process = subprocess.run([installation.tessard, "--run-dir", file / "run"], env=environment, cwd="/", check=False,
                             stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, **streams, **unprivileged())
    assert process.returncode == 1
    return file / "run", process


def read_terminal(fd):
    """Reads all data of a terminal whose other end is closed."""
    text = b""
    with contextlib.suppress(OSError):
        while data := os.read(fd, 4096):
            text += data
    return text.decode()


def test_log_is_on_standard_error_when_that_is_a_terminal(installation, workspace):
    user_side, daemon_side = pty.openpty()
    run_dir, _ = run_to_failed_start(installation, workspace, stderr=daemon_side)
    os.close(daemon_side)

    assert read_terminal(user_side) == ("tessard: Starting.\r\n"
                                        f"tessard: could not create directory '{run_dir}': Not a directory\r\n")
    os.close(user_side)


def test_log_is_not_on_standard_error_when_that_is_a_pipe(installation, workspace):
    _, process = run_to_failed_start(installation, workspace, stderr=subprocess.PIPE)

    assert process.stderr == b""


# Signals


def test_broken_pipes_are_ignored(daemon):
    ignored = int(daemon.status_field("SigIgn"), 16)

    assert ignored & 1 << (signal.SIGPIPE - 1)


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_signals_end_the_daemon_by_their_default_action(start_daemon, number):
    daemon = start_daemon()

    assert daemon.end(number) == -number
    assert daemon.log.take() == []
    assert daemon.socket_path.is_socket()


def test_signal_ends_the_daemon_while_clients_stream(start_daemon):
    daemon = start_daemon()
    with daemon.client() as client:
        stream = client.start_reading()

        assert daemon.end() == -signal.SIGTERM
        stream.read_to_end()


def test_start_replaces_the_socket_of_a_killed_daemon(start_daemon):
    killed = start_daemon()
    killed.end(signal.SIGKILL)

    start_daemon(run_dir=killed.run_dir)
