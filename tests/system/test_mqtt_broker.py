# SPDX-License-Identifier: MIT
"""tessard-mqtt with a broker that ends, comes back, is away for long, or accepts only some: no event is lost at QoS 1,
retained states are complete again, and what waits is bounded."""

import re
import signal
import threading

import pytest

from broker import SECRET, Certificates, Subscriber
from gatewayprocess import only_long
from installation import TREE, run_by_root
from mqttdocuments import LATER, alarm, crossing, events, frame
from mqttgateway import ALARMS, CROSSINGS, EVENTS_ALONE, FRAMES, LIMITS, PREFIX, STATUS
from waiting import BOUND_SECONDS, wait_until, wait_until_settled

SESSION = "session"

# The exit status.
USAGE = 2

# What fills the time before and after a restart, and the pause after each document.
SERIES_EVENTS = 300
EVENTS_PER_DOCUMENT = 5
PAUSE_SECONDS = 0.005

STATES = 100


def numbers(messages):
    """The numbers of crossings in the order in which they came first."""
    found = (int(re.search(r'"ObjectId":"(\d+)"', message.payload)[1]) for message in messages)
    return list(dict.fromkeys(found))


def numbered(first, count=EVENTS_PER_DOCUMENT):
    return events(*(crossing(number) for number in range(first, first + count)))


class Series:
    """Numbered events, which a thread sends until it is stopped."""

    def __init__(self, feed):
        self.feed = feed
        self.sent = 0
        self.stopped = threading.Event()
        self.thread = threading.Thread(target=self._run)
        self.thread.start()

    def _run(self):
        while not self.stopped.wait(PAUSE_SECONDS):
            self.feed.send(numbered(self.sent))
            self.sent += EVENTS_PER_DOCUMENT

    def wait_for_more(self):
        sent = self.sent
        wait_until(lambda: self.sent >= sent + SERIES_EVENTS, "further events are sent")

    def stop(self):
        """Ends the series; returns its numbers."""
        self.stopped.set()
        self.thread.join(BOUND_SECONDS)
        return list(range(self.sent))


@pytest.fixture(name="persistent")
def make_persistent(start_broker):
    """A broker that keeps states and sessions, and a session at it."""
    broker = start_broker(persistent=True)
    Subscriber(broker, session=SESSION).close()
    return broker


@pytest.fixture(name="series")
def make_series(feed):
    started = []

    def start():
        started.append(Series(feed))
        return started[-1]

    yield start
    for series in started:
        series.stop()


# The broker ends and comes back


@pytest.mark.parametrize("restarts", [1, pytest.param(3, marks=only_long)])
def test_no_event_is_lost_when_the_broker_restarts(feed, series, persistent, start_mqtt, restarts):
    gateway = start_mqtt(feed.daemon.path, persistent, **EVENTS_ALONE)
    with Subscriber(persistent, session=SESSION) as subscriber:
        subscriber.wait_for_topic(STATUS)
        sending = series()
        for _ in range(restarts):
            sending.wait_for_more()
            persistent.end()
            sending.wait_for_more()
            persistent.start()
            wait_until(lambda: numbers(subscriber.of(CROSSINGS))[-1] >= sending.sent - 100, "new events arrive")
        sent = sending.stop()
        wait_until(lambda: len(numbers(subscriber.of(CROSSINGS))) >= len(sent), "all events")

        assert numbers(subscriber.of(CROSSINGS)) == sent
    assert gateway.take_warnings()


def test_no_event_is_lost_for_a_client_that_is_away(feed, series, persistent, start_mqtt):
    gateway = start_mqtt(feed.daemon.path, persistent, **EVENTS_ALONE)
    sending = series()
    sending.wait_for_more()
    persistent.end()
    sending.wait_for_more()
    persistent.start()
    sent = sending.stop()
    with Subscriber(persistent, session=SESSION) as subscriber:
        wait_until(lambda: len(numbers(subscriber.of(CROSSINGS))) >= len(sent), "all events")

        assert numbers(subscriber.of(CROSSINGS)) == sent
    assert gateway.take_warnings()


def test_states_are_complete_after_the_broker_was_killed(feed, start_broker, start_mqtt):
    broker = start_broker()
    gateway = start_mqtt(feed.daemon.path, broker, **EVENTS_ALONE)
    feed.send(events(*(alarm(str(number), "true", "Initialized") for number in range(STATES))))
    wait_until(lambda: len(broker.retained()) == STATES + 1, "all states are at the broker")
    broker.end(signal.SIGKILL)
    # The first one changes and the second one is deleted while the broker is away.
    feed.send(events(alarm("0", "false", time=LATER), alarm("1", "true", "Deleted"),
                     alarm("new", "true", "Initialized")))
    broker.start()

    wait_until(lambda: len(broker.retained()) == STATES + 1, "all states are at the broker again")
    retained = broker.retained()
    left = ["new", "0", *range(2, STATES)]
    assert set(retained) == {STATUS} | {f"{ALARMS}/&{source}" for source in left}
    assert "false" in retained[f"{ALARMS}/&0"] and "true" in retained[f"{ALARMS}/&2"]
    assert retained[STATUS] == "online"
    assert gateway.take_warnings()


def test_state_that_is_deleted_while_a_persistent_broker_is_away(feed, persistent, start_mqtt):
    gateway = start_mqtt(feed.daemon.path, persistent, **EVENTS_ALONE)
    feed.send(events(alarm("1", "true", "Initialized"), alarm("2", "true", "Initialized")))
    wait_until(lambda: len(persistent.retained()) == 3, "the states are at the broker")
    persistent.end()
    feed.send(events(alarm("1", "true", "Deleted")))
    persistent.start()

    wait_until(lambda: set(persistent.retained()) == {STATUS, f"{ALARMS}/&2"}, "the state is deleted")
    assert gateway.take_warnings()


def test_broker_that_is_away_for_long(feed, persistent, start_mqtt):
    most, more = LIMITS["MQTT_EVENTS_MAX"], 500
    gateway = start_mqtt(feed.daemon.path, persistent)
    wait_until(lambda: STATUS in persistent.retained(), "the gateway is connected")
    persistent.end()
    for first in range(0, most + more, 100):
        feed.send(numbered(first, 100))
    for number in range(100):
        feed.send(events(alarm("1", "true" if number % 2 else "false")), frame("A", number), frame("B", number))
    feed.wait_until_read()
    wait_until_settled(gateway.processor_seconds, "the gateway has handled all")
    persistent.start()

    with Subscriber(persistent, session=SESSION) as subscriber:
        wait_until(lambda: numbers(subscriber.of(CROSSINGS))[-1:] == [most + more - 1], "the newest event")
        subscriber.wait_for_topic(FRAMES, 2)
        subscriber.wait_for_topic(ALARMS)
        assert numbers(subscriber.of(CROSSINGS)) == list(range(more, most + more))
        assert ["true" in message.payload for message in subscriber.of(ALARMS)] == [True]
        ids = [payload["Frame"][0]["Object"][0]["@ObjectId"]
               for module in "AB" for payload in subscriber.payloads(f"{FRAMES}/{module}")]
        assert ids == [99, 99]
    assert f"{more} events and 198 frames were dropped." in gateway.take_warnings()


def test_broker_that_comes_later(feed, start_broker, start_mqtt):
    broker = start_broker()
    broker.end()
    gateway = start_mqtt(feed.daemon.path, broker, **EVENTS_ALONE)
    feed.send(events(alarm("1", "true", "Initialized")))
    expect_refusal(gateway, broker, "Connection refused")
    broker.start()

    wait_until(lambda: set(broker.retained()) == {STATUS, f"{ALARMS}/&1"}, "the state is at the broker")


# Who is let in


@pytest.fixture(name="certificates", scope="module")
def make_certificates(workspace):
    return Certificates(workspace.folder())


def expect_connection(broker, gateway):
    wait_until(lambda: broker.retained(STATUS) == {STATUS: "online"}, "the gateway is connected")
    assert gateway.take_warnings() == []


def expect_refusal(gateway, broker, reason):
    """Expects one warning with this reason, and that the gateway goes on."""
    (text,) = gateway.wait_for_warnings()
    assert text.startswith(f"{broker.address}: ") and re.search(reason, text), text
    assert gateway.process.poll() is None


def refused_start(feed, broker, start_mqtt, **keys):
    """Expects that the gateway does not start with these keys of the broker; returns its output."""
    gateway = start_mqtt(feed.daemon.path, broker, Broker=keys)
    out, err = gateway.process.communicate(timeout=BOUND_SECONDS)
    assert (gateway.process.returncode, out) == (USAGE, "")
    return err


def test_password(feed, start_broker, start_mqtt):
    broker = start_broker(users=["anna"])
    expect_connection(broker, start_mqtt(feed.daemon.path, broker))


def test_password_of_a_file(feed, start_broker, start_mqtt, workspace):
    broker = start_broker(users=["anna"])
    path = workspace.folder() / "password"
    path.write_text(f"{SECRET}\n", encoding="utf-8")
    expect_connection(broker, start_mqtt(feed.daemon.path, broker, Broker={"password": None, "password-file": path}))


@pytest.mark.parametrize("keys", [{"password": "wrong"}, {"user": "eve"}, {"user": None, "password": None}],
                         ids=["password", "user", "nothing"])
def test_wrong_password(feed, start_broker, start_mqtt, keys):
    broker = start_broker(users=["anna"])
    gateway = start_mqtt(feed.daemon.path, broker, Broker=keys)
    expect_refusal(gateway, broker, "not authorised")
    assert SECRET not in broker.log()


@pytest.mark.skipif(not run_by_root(), reason="only root can make a file that the gateway's user cannot read")
def test_password_file_that_cannot_be_read(feed, broker, start_mqtt, workspace):
    path = workspace.folder() / "password"
    path.write_text(SECRET, encoding="utf-8")
    path.chmod(0o600)
    text = refused_start(feed, broker, start_mqtt, **{"user": "anna", "password-file": path})
    assert text.splitlines()[0] == f"tessard-mqtt: {path}: Permission denied"


def lines_of_the_page(name):
    """The lines of a file that the page about fleets shows."""
    page = (TREE / "docs/fleet.md").read_text(encoding="utf-8")
    (block,) = re.findall(rf"^`{re.escape(name)}`:\n\n((?:(?:    .*)?\n)+)", page, re.MULTILINE)
    return [line.strip() for line in block.splitlines()]


@pytest.fixture(name="fleet_broker")
def make_fleet_broker(start_broker, workspace):
    """A broker with the access control of the page about fleets."""
    path = workspace.folder() / "acl"
    path.write_text("\n".join(lines_of_the_page("/etc/mosquitto/fleet.acl")), encoding="utf-8")
    path.chmod(0o644)
    return start_broker("log_type all", f"acl_file {path}", users=["viewer", PREFIX, "site/camera2", "site1"])


def test_camera_of_a_fleet_has_its_own_prefix(feed, fleet_broker, start_mqtt):
    with Subscriber(fleet_broker) as viewer:
        start_mqtt(feed.daemon.path, fleet_broker, Broker={"user": PREFIX}, **EVENTS_ALONE)
        feed.send(events(crossing(1)))
        viewer.wait_for_topic(STATUS)
        viewer.wait_for_topic(CROSSINGS)


def test_camera_of_a_fleet_has_no_other_prefix(feed, fleet_broker, start_mqtt):
    with Subscriber(fleet_broker) as viewer:
        gateway = start_mqtt(feed.daemon.path, fleet_broker, Broker={"user": "site/camera2"}, **EVENTS_ALONE)
        feed.send(events(crossing(1)))
        wait_until(lambda: f"Denied PUBLISH from {PREFIX}" in fleet_broker.log(), "the broker refuses a message")
        # This broker also ends the connection.
        assert gateway.wait_for_warnings()
        wait_until(lambda: fleet_broker.log().count("Denied PUBLISH") >= 2, "the gateway tries again")
        assert viewer.messages == []
        gateway.end()
        gateway.take_warnings()


def test_lines_of_the_page_about_fleets(start_broker):
    """The broker knows the settings that need no file, and none of them is one of Debian's that can stand once."""
    lines = [line for line in lines_of_the_page("/etc/mosquitto/conf.d/fleet.conf")
             if line and not re.match(r"listener|\w+file|\w+_file", line)]
    assert len(lines) == 2
    start_broker(*lines)


def test_bridge_of_the_page_about_fleets(feed, start_broker, start_mqtt):
    central = start_broker()
    lines = [line.replace("site1/", "site/") for line in lines_of_the_page("/etc/mosquitto/conf.d/central.conf")
             if re.match("connection|cleansession|topic", line)]
    site = start_broker(lines[0], f"address 127.0.0.1:{central.port}", *lines[1:])
    with Subscriber(central) as subscriber:
        start_mqtt(feed.daemon.path, site)
        feed.send(frame("A"), events(alarm("1", "true", "Initialized"), crossing(1)))
        for topic in (STATUS, ALARMS, CROSSINGS):
            subscriber.wait_for_topic(topic)
        assert subscriber.of(FRAMES) == []


@only_long
def test_tls(feed, start_broker, start_mqtt, certificates):
    broker = start_broker(certificates=certificates)
    expect_connection(broker, start_mqtt(feed.daemon.path, broker))


@only_long
def test_authority_that_did_not_sign(feed, start_broker, start_mqtt, certificates):
    broker = start_broker(certificates=certificates)
    gateway = start_mqtt(feed.daemon.path, broker, Broker={"ca-file": certificates.other})
    expect_refusal(gateway, broker, "certificate verify failed")
    assert broker.retained() == {}


@only_long
def test_certificate_of_another_host(feed, start_broker, start_mqtt, certificates):
    broker = start_broker(certificates=certificates)
    gateway = start_mqtt(feed.daemon.path, broker, Broker={"address": f"mqtts://localhost:{broker.port}"})
    (text,) = gateway.wait_for_warnings()
    assert text.startswith(f"mqtts://localhost:{broker.port}: "), text
    assert broker.retained() == {}


@only_long
def test_client_certificate(feed, start_broker, start_mqtt, certificates):
    broker = start_broker("require_certificate true", "use_identity_as_username true", certificates=certificates)
    certificate, key = certificates.client
    expect_connection(broker, start_mqtt(feed.daemon.path, broker, Broker={"certificate": certificate, "key": key}))
    assert "u'client'" in broker.log()


@only_long
def test_client_certificate_is_missing(feed, start_broker, start_mqtt, certificates):
    broker = start_broker("require_certificate true", certificates=certificates)
    expect_refusal(start_mqtt(feed.daemon.path, broker), broker, "certificate required|require another certificate")


@only_long
@pytest.mark.parametrize("speaks_tls", [True, False])
def test_tls_on_one_side_alone(feed, start_broker, start_mqtt, certificates, speaks_tls):
    broker = start_broker(certificates=certificates if speaks_tls else None)
    address = f"{'mqtt' if speaks_tls else 'mqtts'}://127.0.0.1:{broker.port}"
    gateway = start_mqtt(feed.daemon.path, broker, Broker={"address": address, "ca-file": None})
    (text,) = gateway.wait_for_warnings()
    assert text.startswith(f"{address}: "), text


@only_long
@pytest.mark.parametrize("name", ["ca-file", "certificate"])
def test_file_that_is_no_certificate(feed, start_broker, start_mqtt, certificates, name):
    broker = start_broker(certificates=certificates)
    _, key = certificates.client
    keys = {name: broker.configuration} | ({"key": key} if name == "certificate" else {})
    expect_refusal(start_mqtt(feed.daemon.path, broker, Broker=keys), broker, str(broker.configuration))


@only_long
def test_tls_and_passwords_when_the_broker_restarts(feed, series, start_broker, start_mqtt, certificates):
    broker = start_broker(persistent=True, certificates=certificates, users=["anna"])
    Subscriber(broker, session=SESSION).close()
    test_no_event_is_lost_when_the_broker_restarts(feed, series, broker, start_mqtt, 2)


# Many documents


@only_long
def test_ten_thousand_documents(feed, start_broker, start_mqtt):
    broker = start_broker()
    gateway = start_mqtt(feed.daemon.path, broker)
    with Subscriber(broker) as subscriber:
        subscriber.wait_for_topic(STATUS)
        for number in range(10_000):
            feed.send(numbered(number, 1), frame("A", number))
            # The gateway drops frames and events of a client that is faster than the broker.
            wait_until(lambda: len(subscriber.messages) > 2 * number - 40, "the messages arrive")
        wait_until(lambda: len(subscriber.messages) == 20_001, "all messages")

        assert numbers(subscriber.of(CROSSINGS)) == list(range(10_000))
        assert [payload["Frame"][0]["Object"][0]["@ObjectId"] for payload in subscriber.payloads(f"{FRAMES}/A")] == [
            *range(10_000)]
    assert gateway.take_warnings() == []
