# SPDX-License-Identifier: MIT
"""What each user can do on a bus with the installed policies of the receiver and of the simulated camera."""

import pytest

from eventapplication import EVENTS, EVENTS_PATH
from installation import BUS_CONFIGURATION, UNPRIVILEGED_USER, Bus, build_option, run_by_root
from receiverclient import NAME, OBJECT_MANAGER, PRODUCER, ROOT, path_of
from receiverprocess import ERROR_PREFIX, REGISTRY, REGISTRY_PATH, Application, Receiver
from simcamera import SimulatedCamera
from users import ADMINISTRATOR, REFUSED, ROOT_USER, STAND_IN_GROUP, STRANGER, call

# Users that replace those of the policies; every Debian has them. ADMINISTRATOR is in STAND_IN_GROUP.
DAEMON_USER, RECEIVER_USER = "man", UNPRIVILEGED_USER
DAEMON = {"user": DAEMON_USER, "group": "daemon", "extra_groups": []}
APPLICATION = ADMINISTRATOR
RECEIVER = {"user": RECEIVER_USER, "group": "daemon", "extra_groups": []}

MINE = "Mine"

pytestmark = pytest.mark.skipif(not run_by_root(), reason="only root can be several users")


def policed(installation, workspace, policy, **stand_ins):
    """A bus with an installed policy, and without the private bus' own rules for the same names."""
    text = (installation.prefix / build_option("datadir") / "dbus-1/system.d" / policy).read_text(encoding="utf-8")
    for placeholder, stand_in in stand_ins.items():
        kind, _, name = placeholder.partition("_")
        name = name.replace("_", "-")
        assert f'{kind}="{name}"' in text
        text = text.replace(f'{kind}="{name}"', f'{kind}="{stand_in}"')
    path = workspace.folder() / policy
    path.write_text(text, encoding="utf-8")
    lines = BUS_CONFIGURATION.read_text(encoding="utf-8").splitlines(keepends=True)
    kept = "".join(line for line in lines if "com.quon." not in line and "SimulatedCamera1" not in line)
    return Bus(installation, text=kept.replace("</busconfig>", f"  <include>{path}</include>\n</busconfig>"))


@pytest.fixture(scope="module")
def receiver_bus(installation, workspace):
    made = policed(installation, workspace, "com.quon.MetadataReceiver1.conf", **{
        "user_tessard": DAEMON_USER, "user_tessard_receiver": RECEIVER_USER, "group_tessard_producer": STAND_IN_GROUP})
    yield made
    made.stop()


@pytest.fixture
def receiver(installation, receiver_bus):
    """A receiver with one producer, which root has registered."""
    started = Receiver(installation, receiver_bus)
    application = None
    try:
        started.wait_until_ready()
        application = Application(receiver_bus).register(MINE)
        yield started
    finally:
        if application is not None:
            application.close()
        started.finish()


def own_name(bus, user):
    return call(bus, user, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
                f"('{NAME}', uint32 0)")


def register(bus, user, descriptors=0):
    return call(bus, user, NAME, REGISTRY_PATH, REGISTRY, "RegisterProducer",
                "('Other', '', [uint32 1], '{}', @a{sv} {})", descriptors)


def open_stream(bus, user, descriptors=0):
    return call(bus, user, NAME, path_of(MINE), PRODUCER, "GetStreamFd", "(1,)", descriptors)


def fetch_sample(bus, user, descriptors=0):
    return call(bus, user, NAME, path_of(MINE), PRODUCER, "GetSampleFrame", "()", descriptors)


def declare_topic(bus, user, descriptors=0):
    return call(bus, user, NAME, EVENTS_PATH, EVENTS, "DeclareTopic",
                "('tns1:A', false, @a(ss) [], @a(ss) [], @a{ss} {})", descriptors)


def emit_undeclared(bus, user, descriptors=0):
    return call(bus, user, NAME, EVENTS_PATH, EVENTS, "Emit", "('tns1:B', '', @a{ss} {}, @a{ss} {}, int64 0)",
                descriptors)


def list_topics(bus, user, descriptors=0):
    return call(bus, user, NAME, EVENTS_PATH, EVENTS, "GetTopics", "()", descriptors)


def open_events(bus, user, descriptors=0):
    return call(bus, user, NAME, EVENTS_PATH, EVENTS, "GetEventStream", "()", descriptors)


def list_producers(bus, user, descriptors=0):
    return call(bus, user, NAME, ROOT, OBJECT_MANAGER, "GetManagedObjects", "()", descriptors)


def test_only_the_receivers_user_can_own_the_name(receiver_bus):
    assert own_name(receiver_bus, RECEIVER) == ""
    for user in (STRANGER, APPLICATION, DAEMON, ROOT_USER):
        assert own_name(receiver_bus, user) == REFUSED


def test_members_of_the_group_can_register(receiver, receiver_bus):
    assert register(receiver_bus, APPLICATION) == ""
    for user in (STRANGER, DAEMON):
        assert register(receiver_bus, user) == REFUSED


def test_root_can_register(receiver, receiver_bus):
    assert register(receiver_bus, ROOT_USER) == ""


@pytest.mark.parametrize("ask", [open_stream, fetch_sample])
def test_the_daemon_and_root_can_get_streams_and_samples(receiver, receiver_bus, ask):
    for user in (DAEMON, ROOT_USER):
        assert ask(receiver_bus, user) == ""
    for user in (STRANGER, APPLICATION):
        assert ask(receiver_bus, user) == REFUSED


def test_members_of_the_group_and_root_can_emit_events(receiver, receiver_bus):
    for user in (APPLICATION, ROOT_USER):
        assert declare_topic(receiver_bus, user) == ""
        assert emit_undeclared(receiver_bus, user) == f"{ERROR_PREFIX}UnknownTopic"
    for user in (STRANGER, DAEMON):
        assert declare_topic(receiver_bus, user) == REFUSED
        assert emit_undeclared(receiver_bus, user) == REFUSED


def test_the_daemon_and_root_can_read_events(receiver, receiver_bus):
    for user in (DAEMON, ROOT_USER):
        assert open_events(receiver_bus, user) == ""
    for user in (STRANGER, APPLICATION):
        assert open_events(receiver_bus, user) == REFUSED


def test_any_user_can_list_topics(receiver, receiver_bus):
    for user in (STRANGER, APPLICATION, DAEMON, ROOT_USER):
        assert list_topics(receiver_bus, user) == ""


def test_any_user_can_list_producers(receiver, receiver_bus):
    for user in (STRANGER, APPLICATION, DAEMON, ROOT_USER):
        assert list_producers(receiver_bus, user) == ""


@pytest.mark.parametrize("ask", [list_producers, fetch_sample, open_stream, register, declare_topic, list_topics])
def test_no_user_can_send_descriptors(receiver, receiver_bus, ask):
    assert ask(receiver_bus, ROOT_USER, 1) == REFUSED


def test_simulated_camera_can_run_on_a_bus_with_its_policy(installation, workspace):
    """An administrator runs it; any user can call its services."""
    bus = policed(installation, workspace, "tessard.SimulatedCamera1.conf", group_tessard_admin="nogroup")
    camera = SimulatedCamera(installation, bus)
    try:
        camera.wait_until_ready()
        assert call(bus, STRANGER, NAME, path_of("PersonDetector"), PRODUCER, "GetSampleFrame") == ""
        assert call(bus, STRANGER, "tessard.SimulatedCamera1", "/tessard/SimulatedCamera1", "tessard.SimulatedCamera1",
                    "Tell", "(['calls', 'receiver'],)") == REFUSED
        assert own_name(bus, STRANGER) == REFUSED
        assert camera.tell("calls", "receiver") == "1\n"
    finally:
        camera.finish()
        bus.stop()
