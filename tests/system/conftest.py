# SPDX-License-Identifier: MIT
"""The fixtures of the system tests.

The daemon comes from a staged installation: TESSARD_STAGE names its root; without it the tests stage the build folder
that TESSARD_BUILD names (default: build-desk/). TESSARD_PLAIN_STAGE names an installation without a sanitizer, if the
first one has one. The build folder has the tests' own libraries. Each daemon has its producers.conf in its working
folder: if the option producers_conf is an absolute path, the tests use a second daemon that differs in this path only.
With ONVIF_SCHEMA_DIR each received document is validated against the official schemas."""

import contextlib
import functools
import os
import pathlib
import signal

import pytest

pytest.register_assert_rewrite("broker", "busclient", "chromium", "client", "controlclient", "crowd", "daemon",
                               "documents", "eventapplication", "external", "fakedaemon", "fakereceiver",
                               "fakeservice", "gatewayprocess", "installation", "libraryprogram", "mqttdocuments",
                               "mqttfeed", "mqttgateway", "openmetrics", "overdue", "promptness", "receiverclient",
                               "receiverprocess", "refusals", "rtspclient", "rtspgateway", "scenes", "simcamera",
                               "tessardctl", "users", "viewgateway", "waiting")

import documents  # noqa: E402  (prepares libxml2 before anything else uses it)

import gi

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

from broker import Broker, Subscriber  # noqa: E402
from controlclient import ControlClient, path_of  # noqa: E402
from daemon import RADAR_TRACKER, VIDEO_TRACKER, Daemon  # noqa: E402
from eventapplication import EventApplication  # noqa: E402
from external import BOTH_ENABLED, COUNTER, DETECTOR, EXTERNAL_PLUGINS, wait_until_listed  # noqa: E402
from fakedaemon import FakeDaemon, GdpStream  # noqa: E402
from fakereceiver import FakeReceiver  # noqa: E402
from fakeservice import FakeService, properties  # noqa: E402
from installation import Bus, Installation, Workspace, make_stage, user_of_tests  # noqa: E402
from libraryprogram import Program, needs_introspection  # noqa: E402
from mqttfeed import Feed  # noqa: E402
from mqttgateway import STATUS, MqttGateway  # noqa: E402
from overdue import OverdueCalls, OverdueReceiver, OverdueRequests, OverdueStart  # noqa: E402
from receiverclient import ReceiverClient, Watcher  # noqa: E402
from receiverprocess import Application, Receiver  # noqa: E402
from rtspgateway import SMALL_VIDEO, Gateway  # noqa: E402
from simcamera import SimulatedCamera  # noqa: E402
from tessardctl import NO_CONNECTION, Tessardctl  # noqa: E402
from viewgateway import View  # noqa: E402
from waiting import wait_until_settled  # noqa: E402


# nohup makes programs ignore it, and those that the tests start would inherit that.
signal.signal(signal.SIGHUP, signal.SIG_DFL)

# The files that take longest. They run first, so that none of them is left for one session at the end.
LONGEST = ("test_external_storms", "test_external_streams", "test_shortage", "test_scenes", "test_tidy", "test_saving",
           "test_tessardctl_produce", "test_external_receiver", "test_tessardctl_completion", "test_demo")


def pytest_collection_modifyitems(items):
    items.sort(key=lambda item: LONGEST.index(item.path.stem) if item.path.stem in LONGEST else len(LONGEST))


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
    """Requests that are never finished. They start with the session's first daemon, so that their long time-out elapses
    while other tests run. Their daemon has a bus of its own, because the daemons of other tests own the same name."""
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
    """A daemon whose start takes long. The first test that uses it starts it; another test waits for its end."""
    with contextlib.closing(OverdueStart(installation)) as start:
        yield start


@pytest.fixture(scope="session")
def overdue_receiver(installation):
    """A receiver that sends no reply for long. The first test that uses it starts it; another waits for its end."""
    with contextlib.closing(OverdueReceiver(installation)) as receiver:
        yield receiver


@pytest.fixture
def launch(installation, bus, overdue_requests):
    """Starts a daemon, by default on the session's bus, and waits for nothing; see Daemon for the arguments."""
    with contextlib.ExitStack() as launched:

        def start(on=bus, **arguments):
            daemon = Daemon(installation, on, **arguments)
            launched.callback(daemon.finish)
            return daemon

        yield start


@pytest.fixture
def start_daemon(launch):
    """Starts a daemon and waits until it replies to requests."""

    def start(**arguments):
        daemon = launch(**arguments)
        daemon.wait_until_ready()
        return daemon

    return start


@pytest.fixture
def daemon(start_daemon):
    return start_daemon()


@pytest.fixture
def fast_daemon(start_daemon):
    return start_daemon(speed=100)


@pytest.fixture
def start_camera(installation, bus, request):
    """Starts the simulated camera's services with the given options, by default on the session's bus and without
    external producers; see SimulatedCamera for the arguments."""
    is_subject = request.path.stem.startswith("test_simcamera")
    program = installation.simcamera if is_subject else installation.plain_simcamera
    with contextlib.ExitStack() as started:

        def start(*options, on=bus, producers="", **arguments):
            camera = SimulatedCamera(installation, on, *options, producers=producers, program=program, **arguments)
            started.callback(camera.finish)
            camera.wait_until_ready()
            return camera

        yield start


@pytest.fixture
def camera(start_camera):
    return start_camera()


@pytest.fixture
def start_full_camera(start_camera):
    """Starts the simulated camera's services with all built-in external producers."""
    return functools.partial(start_camera, producers=None)


@pytest.fixture
def receiver_client(bus):
    with contextlib.closing(ReceiverClient(bus)) as client:
        yield client


@pytest.fixture
def start_receiver_process(installation, bus):
    """Starts metadata receivers."""
    with contextlib.ExitStack() as started:

        def start(on=bus):
            receiver = Receiver(installation, on)
            started.callback(receiver.finish)
            receiver.wait_until_ready()
            return receiver

        yield start


@pytest.fixture
def receiver_process(start_receiver_process):
    """The metadata receiver of the installation."""
    return start_receiver_process()


@pytest.fixture
def start_application(bus):
    """Connects applications of the metadata receiver to the bus."""
    with contextlib.ExitStack() as started:
        yield lambda: started.enter_context(contextlib.closing(Application(bus)))


@pytest.fixture
def application(start_application):
    return start_application()


@pytest.fixture
def start_emitter(bus):
    """Connects applications that emit events to the bus."""
    with contextlib.ExitStack() as started:
        yield lambda: started.enter_context(contextlib.closing(EventApplication(bus)))


@pytest.fixture
def watch(bus):
    """Starts watchers of the metadata receiver's producers."""
    with contextlib.ExitStack() as watchers:
        yield lambda: watchers.enter_context(contextlib.closing(Watcher(bus)))


@pytest.fixture
def record(workspace):
    """Writes a file of lines that the camera can read."""

    def write(*lines):
        path = workspace.folder() / "recording"
        path.write_bytes(b"".join(line + b"\n" for line in lines))
        return str(path)

    return write


@pytest.fixture
def introspection():
    """Skips the test if the library cannot be used from Python."""
    needs_introspection()


@pytest.fixture
def start_program(installation, bus):
    """Starts Python programs that use the library."""
    with contextlib.ExitStack() as started:

        def start(text, *args, on=bus):
            program = Program(installation, on, text, *args)
            started.callback(program.clean_up)
            return program

        yield start


@pytest.fixture
def control(bus):
    """A client of the daemon's control service."""
    with contextlib.closing(ControlClient(bus)) as client:
        yield client


@pytest.fixture
def receiver(bus):
    """A metadata receiver without producers yet."""
    with contextlib.closing(FakeReceiver(bus)) as receiver:
        receiver.start()
        yield receiver


@pytest.fixture
def detector(receiver):
    return receiver.add(DETECTOR)


@pytest.fixture
def counter(receiver):
    return receiver.add(COUNTER)


@pytest.fixture
def start_listing_daemon(receiver, control, start_daemon):
    """Starts a daemon and waits until it lists all producers that the receiver has."""

    def start(**arguments):
        daemon = start_daemon(**{"plugins": EXTERNAL_PLUGINS, "producers": BOTH_ENABLED} | arguments)
        wait_until_listed(control, *(producer.name for producer in receiver.producers))
        # GStreamer threads of the conversions may still close descriptors.
        daemon.idle_descriptors = wait_until_settled(daemon.descriptors, "the descriptors of the start are closed", 0.1)
        return daemon

    return start


@pytest.fixture
def start_bus(installation):
    """Starts a bus for this test alone; see Bus for the arguments."""
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
    """A bus on which this process may own the daemon's name."""
    return start_bus(owner=user_of_tests())


@pytest.fixture
def schema():
    if not documents.SCHEMA_DIR:
        pytest.skip("ONVIF_SCHEMA_DIR does not name the official schemas")
    return documents.schema()


@pytest.fixture(scope="session")
def tessardctl(workspace):
    """Checks that the program exists. Its first run makes GStreamer's registry, for tests with a time limit."""
    if not os.path.isfile(os.environ.get("TESSARDCTL", "")):
        pytest.fail("the environment variable TESSARDCTL must name the program under test")
    assert Tessardctl("stream", "--socket", workspace.path / "nothing").finish().status == NO_CONNECTION


@pytest.fixture(scope="session")
def overdue_calls(tessardctl, installation):
    """Calls of tessardctl that get no reply. They start with the session's first tessardctl, as the overdue requests do
    with the first daemon."""
    with contextlib.closing(OverdueCalls(installation)) as calls:
        yield calls


@pytest.fixture
def start_tessardctl(overdue_calls):
    """Starts tessardctl with these arguments."""
    with contextlib.ExitStack() as started:

        def start(*args, **popen_args):
            command = Tessardctl(*args, **popen_args)
            started.callback(command.clean_up)
            return command

        yield start


@pytest.fixture
def run_tessardctl(start_tessardctl):
    return lambda *args, **popen_args: start_tessardctl(*args, **popen_args).finish()


@pytest.fixture
def start_on_bus(start_tessardctl, stand_in_bus):
    """Starts tessardctl with the bus of the test as the system bus."""

    def start(*args, env=None, **popen_args):
        bus = {"DBUS_SYSTEM_BUS_ADDRESS": stand_in_bus.address}
        return start_tessardctl(*args, env=bus | (env or {}), **popen_args)

    return start


@pytest.fixture
def run_on_bus(start_on_bus, tmp_path):
    """Runs tessardctl on the bus of the test with a text as its standard input."""

    def run(*args, stdin="[]", **popen_args):
        path = tmp_path / "stdin"
        path.write_text(stdin, encoding="utf-8")
        with open(path, "rb") as file:
            return start_on_bus(*args, stdin=file, **popen_args).finish()

    return run


@pytest.fixture
def make_fake_service(stand_in_bus):
    """Makes fake control services, which the test starts."""
    with contextlib.ExitStack() as made:

        def make():
            service = FakeService(stand_in_bus)
            made.callback(service.close)
            return service

        yield make


@pytest.fixture
def fake_service(make_fake_service):
    """A fake control service with the two trackers, not started yet."""
    service = make_fake_service()
    service.producers = {
        path_of(VIDEO_TRACKER): properties(VIDEO_TRACKER, "Quon video motion tracker",
                                           [(2, False, ""), (1, True, "profile1")]),
        path_of(RADAR_TRACKER): properties(RADAR_TRACKER, "Quon radar motion tracker", [(1, False, "")]),
    }
    return service


@pytest.fixture
def started_service(fake_service):
    fake_service.start()
    return fake_service


@pytest.fixture
def fake_daemon(tmp_path):
    with contextlib.closing(FakeDaemon(tmp_path / "metadata")) as daemon:
        yield daemon


@pytest.fixture
def reachable_daemon(workspace):
    """A fake daemon whose socket the gateways' user can open."""
    with contextlib.closing(FakeDaemon(workspace.folder() / "metadata")) as daemon:
        os.chmod(daemon.path, 0o777)
        yield daemon


@pytest.fixture
def start_broker(workspace):
    """Starts brokers; see Broker for the arguments."""
    with contextlib.ExitStack() as started:

        def start(*options, **more):
            broker = Broker(workspace, *options, **more)
            started.callback(broker.finish)
            return broker

        yield start


@pytest.fixture
def broker(start_broker):
    return start_broker()


@pytest.fixture
def start_mqtt(installation, bus):
    """Starts tessard-mqtt with a daemon's socket, a broker and the keys of each group of its key file."""
    if not (installation.prefix / "bin/tessard-mqtt").exists():
        pytest.skip("tessard-mqtt is not built")
    with contextlib.ExitStack() as started:

        def start(socket_path, broker, **groups):
            gateway = MqttGateway(installation, bus, socket_path, broker, **groups)
            started.callback(gateway.finish)
            return gateway

        yield start


@pytest.fixture
def feed(reachable_daemon):
    with contextlib.closing(Feed(reachable_daemon)) as fed:
        yield fed


@pytest.fixture
def subscriber(broker):
    with Subscriber(broker) as client:
        yield client


@pytest.fixture
def start_fed(feed, broker, subscriber, start_mqtt):
    """Starts a gateway with a fake daemon."""

    def start(**groups):
        gateway = start_mqtt(feed.daemon.path, broker, **groups)
        subscriber.wait_for_topic(STATUS)
        return gateway

    return start


@pytest.fixture
def serve(installation, bus):
    """Starts tessard-rtsp with a daemon's socket; without options it serves events and a small picture."""
    if not (installation.prefix / "bin/tessard-rtsp").exists():
        pytest.skip("tessard-rtsp is not built")
    with contextlib.ExitStack() as started:

        def start(socket_path, *options, **more):
            gateway = Gateway(installation, bus, socket_path, *(options or ("--event", "--video", SMALL_VIDEO)), **more)
            started.callback(gateway.finish)
            return gateway

        yield start


@pytest.fixture
def view(installation, bus):
    """Starts tessard-view with a daemon's socket, by default on the session's bus."""
    if not (installation.prefix / "bin/tessard-view").exists():
        pytest.skip("tessard-view is not built")
    with contextlib.ExitStack() as started:

        def start(socket_path, *options, on=bus, **more):
            gateway = View(installation, on, socket_path, *options, **more)
            started.callback(gateway.finish)
            return gateway

        yield start


@pytest.fixture
def gdp():
    with contextlib.closing(GdpStream()) as stream:
        yield stream


@pytest.fixture
def start_stream(start_tessardctl, fake_daemon):
    """Starts "tessardctl stream" with the fake daemon's socket."""
    return lambda *args, **popen_args: start_tessardctl("stream", "--socket", fake_daemon.path, *args, **popen_args)


@pytest.fixture
def open_stream(start_stream, fake_daemon):
    """Starts "tessardctl stream", whose request the fake daemon grants; returns the client and its connection."""
    return lambda *args, **popen_args: (start_stream(*args, **popen_args), fake_daemon.accept_stream())
