"""The fixtures of the system tests.

The daemon comes from a staged installation: TESSARD_STAGE names its root, or else one is made from the build folder
that TESSARD_BUILD names (build-desk/ by default), which has the tests' own libraries in any case. Each daemon keeps its
producers in the folder that it is started in: if the option producers_conf is an absolute path, the tests use a daemon
of their own, which differs from the installed one in that path only. With ONVIF_SCHEMA_DIR every document received is
validated against the official schemas."""

import contextlib
import os
import pathlib

import pytest

pytest.register_assert_rewrite("busclient", "client", "crowd", "daemon", "documents", "external", "fakereceiver",
                               "fakeservice", "installation", "overdue", "promptness", "receiver", "refusals", "scenes",
                               "simcamera", "tessardctl", "tool", "waiting")

import documents  # noqa: E402  (prepares libxml2 before anything else uses it)

import gi

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

from daemon import Daemon  # noqa: E402
from external import BOTH_ENABLED, EXTERNAL_PLUGINS, wait_until_listed  # noqa: E402
from fakereceiver import FakeReceiver  # noqa: E402
from installation import Bus, Installation, Workspace, make_stage, testing_user  # noqa: E402
from overdue import OverdueCalls, OverdueReceiver, OverdueRequests, OverdueStart  # noqa: E402
from simcamera import SimulatedCamera  # noqa: E402
from tessardctl import NO_CONNECTION, Tessardctl  # noqa: E402
from tool import Tool  # noqa: E402
from waiting import wait_until_settled  # noqa: E402


@pytest.fixture(scope="session")
def workspace():
    made = Workspace()
    yield made
    made.remove()


@pytest.fixture(scope="session")
def installation(workspace):
    os.environ.setdefault("GST_REGISTRY", str(workspace.path / "client-registry.bin"))
    Gst.init(None)
    stage = os.environ.get("TESSARD_STAGE")
    return Installation(pathlib.Path(stage).resolve() if stage else make_stage(workspace), workspace)


@pytest.fixture(scope="session")
def bus(installation):
    started = Bus(installation)
    yield started
    started.stop()


@pytest.fixture(scope="session")
def overdue_requests(installation):
    """Requests that are never finished. They come with the first daemon, so that their long time-out passes while
    other tests run. It is on a bus of its own, for the daemons of those tests want its name."""
    own_bus = Bus(installation)
    daemon = Daemon(installation, own_bus)
    try:
        daemon.wait_until_ready()
        requests = OverdueRequests(daemon)
        yield requests
        requests.close()
    finally:
        daemon.finish()
        own_bus.stop()


@pytest.fixture(scope="session")
def overdue_start(installation):
    """A daemon whose start takes long. The test that needs it first begins it; another waits for its end."""
    start = OverdueStart(installation)
    yield start
    start.close()


@pytest.fixture(scope="session")
def overdue_receiver(installation):
    """A receiver that is silent for long. The test that needs it first begins it; another waits for its end."""
    receiver = OverdueReceiver(installation)
    yield receiver
    receiver.close()


@pytest.fixture
def launch(installation, bus, overdue_requests):
    """Starts a daemon, by default on the session's bus, and does not wait for anything; see Daemon for the
    arguments."""
    with contextlib.ExitStack() as launched:

        def start(on=bus, **arguments):
            daemon = Daemon(installation, on, **arguments)
            launched.callback(daemon.finish)
            return daemon

        yield start


@pytest.fixture
def start_daemon(launch):
    """Starts a daemon and waits until it answers."""

    def start(**arguments):
        daemon = launch(**arguments)
        daemon.wait_until_ready()
        return daemon

    return start


@pytest.fixture
def daemon(start_daemon):
    return start_daemon()


@pytest.fixture
def start_camera(installation, bus):
    """Starts the simulated camera's services with the given options, by default on the session's bus and without
    external producers; see SimulatedCamera for the arguments."""
    with contextlib.ExitStack() as started:

        def start(*options, on=bus, producers="", **arguments):
            camera = SimulatedCamera(installation, on, *options, producers=producers, **arguments)
            started.callback(camera.finish)
            camera.wait_until_ready()
            return camera

        yield start


@pytest.fixture
def camera(start_camera):
    return start_camera()


@pytest.fixture
def tool(bus):
    """Somebody who switches producers."""
    made = Tool(bus)
    yield made
    made.close()


@pytest.fixture
def receiver(bus):
    """A metadata receiver without producers yet."""
    made = FakeReceiver(bus)
    made.start()
    yield made
    made.close()


@pytest.fixture
def start_listing_daemon(receiver, tool, start_daemon):
    """Starts a daemon and waits until it lists all producers that the receiver has."""

    def start(**arguments):
        daemon = start_daemon(**{"plugins": EXTERNAL_PLUGINS, "producers": BOTH_ENABLED} | arguments)
        wait_until_listed(tool, *(producer.name for producer in receiver.producers))
        # Of the conversions, threads of GStreamer's may still be letting go.
        daemon.idle_descriptors = wait_until_settled(daemon.descriptors, "nothing is left of the start", 0.1)
        return daemon

    return start


@pytest.fixture
def start_bus(installation):
    """Starts a bus that nobody else is on; see Bus for the arguments."""
    with contextlib.ExitStack() as started:

        def start(**arguments):
            bus = Bus(installation, **arguments)
            started.callback(bus.stop)
            return bus

        yield start


@pytest.fixture
def own_bus(start_bus):
    return start_bus()


@pytest.fixture
def stand_in_bus(start_bus):
    """A bus where this process stands for the daemon."""
    return start_bus(owner=testing_user())


@pytest.fixture
def schema():
    if not documents.SCHEMA_DIR:
        pytest.skip("ONVIF_SCHEMA_DIR does not name the official schemas")
    return documents.schema()


@pytest.fixture(scope="session")
def tool_under_test(workspace):
    """Finds the tool, and lets GStreamer look at its plug-ins once, before a test with a time limit does."""
    if not os.path.isfile(os.environ.get("TESSARDCTL", "")):
        pytest.fail("the environment variable TESSARDCTL must name the tool under test")
    assert Tessardctl("stream", "--socket", workspace.path / "nothing").finish().status == NO_CONNECTION


@pytest.fixture(scope="session")
def overdue_calls(tool_under_test, installation):
    """tessardctl's calls that have no reply. They come with the first tool, as overdue requests do with the first
    daemon."""
    calls = OverdueCalls(installation)
    yield calls
    calls.close()


@pytest.fixture
def start(overdue_calls):
    """Starts tools, and leaves none behind."""
    tools = []

    def start_tool(*args, **popen_args):
        tools.append(Tessardctl(*args, **popen_args))
        return tools[-1]

    yield start_tool
    for tool in tools:
        tool.clean_up()


@pytest.fixture
def run(start):
    return lambda *args, **popen_args: start(*args, **popen_args).finish()
