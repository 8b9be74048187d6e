# SPDX-License-Identifier: MIT
"""The daemon of the system tests, with its bus and the simulated camera, for measurements.

TESSARD_STAGE names a staged installation; without it the build folder that TESSARD_BUILD names (default: build-desk/)
is staged. The build folder has the tests' own libraries."""

import contextlib
import os
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/system"))
sys.dont_write_bytecode = True

import gi  # noqa: E402

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

from daemon import Daemon  # noqa: E402
from installation import ALL_PLUGINS, Bus, Installation, Workspace, make_stage  # noqa: E402
from simcamera import SimulatedCamera  # noqa: E402


@contextlib.contextmanager
def installed():
    """Yields the staged installation."""
    workspace = Workspace()
    os.environ.setdefault("GST_REGISTRY", str(workspace.path / "client-registry.bin"))
    Gst.init(None)
    try:
        stage = os.environ.get("TESSARD_STAGE")
        yield Installation(pathlib.Path(stage).resolve() if stage else make_stage(workspace), workspace)
    finally:
        workspace.remove()


@contextlib.contextmanager
def running_daemon_of(installation, producers, *camera_options, verbs=()):
    """Yields a ready daemon of the installation with every plug-in and these contents of producers.conf, and its bus.
    The camera gets the verbs before the daemon starts."""
    with contextlib.ExitStack() as running:
        bus = Bus(installation)
        running.callback(bus.stop)
        camera = SimulatedCamera(installation, bus, *camera_options)
        running.callback(camera.finish)
        camera.wait_until_ready()
        for verb in verbs:
            camera.tell(*verb)
        daemon = Daemon(installation, bus, plugins=ALL_PLUGINS, producers=producers, coordinator_line=None)
        running.callback(daemon.finish)
        daemon.wait_until_ready()
        yield daemon, bus
