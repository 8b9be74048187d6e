# SPDX-License-Identifier: MIT
"""Events of applications on a box without a camera's plug-ins: from an application through tessard-receiver and
onvifeventsrc to the clients of the daemon."""

import contextlib
import itertools
import signal
import statistics
import threading
import time

import pytest

from client import header
from daemon import ERROR, NOT_PRODUCED
from eventapplication import ACME, CROSSED, MOTION, NOT_READ, OBJECT, TAMPER
from installation import DOCUMENT_PLUGIN, OWN_EVENT_PLUGIN, SANITIZED
from receiverprocess import LIMITS, Refused
from waiting import BOUND_SECONDS, wait_until

GRACE_SECONDS = LIMITS["RECEIVER_GRACE_SECONDS"]
PLUGINS = (OWN_EVENT_PLUGIN, DOCUMENT_PLUGIN)
EVENT_HEADER = header(event=1)
KILLED = -signal.SIGKILL


@pytest.fixture
def receiver(receiver_process):
    return receiver_process


@pytest.fixture
def emitter(receiver, start_emitter):
    return start_emitter().declare().declare(CROSSED, is_property=False, data=OBJECT)


@pytest.fixture
def daemon(start_daemon):
    return start_daemon(plugins=PLUGINS)


@contextlib.contextmanager
def streaming(daemon, lines=EVENT_HEADER):
    with daemon.client() as client:
        yield client, client.start(lines)


def summary(event):
    (source,) = event.source.values()
    (data,) = event.data.values()
    return event.topic, event.operation, source, data


def summaries(document):
    return [summary(event) for event in document.events]


def take(stream, count):
    """The next events."""
    return [summary(event) for event in itertools.islice(stream.events(), count)]


def motion(operation, source, state):
    return MOTION, operation, source, state


def crossed(number):
    return CROSSED, None, "1", str(number)


def test_first_and_late_client_get_events(daemon, emitter):
    with streaming(daemon) as (_, first):
        assert summaries(first.next_document()) == []
        emitter.alarm("1", True)
        emitter.cross(7)
        emitter.alarm("1", False)
        emitter.alarm("2", True)
        expected = [motion("Initialized", "1", "true"), crossed(7), motion("Changed", "1", "false"),
                    motion("Initialized", "2", "true")]
        assert take(first, 4) == expected

        with streaming(daemon) as (_, late):
            assert summaries(late.next_document()) == [motion("Initialized", "1", "false"),
                                                       motion("Initialized", "2", "true")]
            emitter.cross(8)
            assert take(late, 1) == take(first, 1) == [crossed(8)]


def test_sync_point_shows_all_states(daemon, emitter):
    emitter.alarm("1", True)
    with streaming(daemon) as (client, stream):
        states = summaries(stream.next_document())
        emitter.cross(7)
        assert take(stream, 1) == [crossed(7)]
        client.sync()

        assert states == summaries(stream.next_document()) == [motion("Initialized", "1", "true")]


def test_event_has_its_time_and_namespace(daemon, emitter):
    emitter.declare(TAMPER, namespaces=ACME)
    with streaming(daemon) as (_, stream):
        stream.next_document()
        emitter.emit(TAMPER, "Changed", {"Source": "<1>&\"'"}, {"State": "true"}, 1700000000123456)
        document = stream.next_document()

    assert document.root[0].nsmap["acme"] == ACME["acme"]
    (event,) = document.events
    assert summary(event) == (TAMPER, "Initialized", "<1>&\"'", "true")
    assert event.time.timestamp() == pytest.approx(1700000000.123456)


@pytest.mark.parametrize("lines, expected", [
    (f"event_topic={MOTION}", [motion("Initialized", "1", "true"), motion("Changed", "1", "false")]),
    ("event_topic=tns1:RuleEngine//.", [crossed(7), crossed(12)]),
    ("event_topic=tns1:Nothing|tns1:RuleEngine/LineDetector/Crossed", [crossed(7), crossed(12)]),
    ('event_content=boolean(//tt:SimpleItem[@Name="ObjectId" and @Value>10])', [crossed(12)]),
    ('event_content=@PropertyOperation="Changed"', [motion("Changed", "1", "false")]),
    (f"event_topic={MOTION}|{CROSSED}\nevent_content=not(//tt:SimpleItem[@Value=\"true\"])",
     [crossed(7), motion("Changed", "1", "false"), crossed(12)]),
])
def test_filters_select_events(daemon, emitter, lines, expected):
    with streaming(daemon, f"event=1\n{lines}\n") as (_, stream):
        assert summaries(stream.next_document()) == []
        emitter.alarm("1", True)
        emitter.cross(7)
        emitter.alarm("1", False)
        emitter.cross(12)
        assert take(stream, len(expected)) == expected


def test_filter_selects_among_present_states(daemon, emitter):
    emitter.alarm("1", True)
    emitter.alarm("2", False)
    with streaming(daemon, 'event=1\nevent_content=//tt:SimpleItem[@Value="true"]\n') as (client, stream):
        assert summaries(stream.next_document()) == [motion("Initialized", "1", "true")]
        client.sync()
        assert summaries(stream.next_document()) == [motion("Initialized", "1", "true")]


@pytest.mark.parametrize("line", ["event_topic=|", "event_content=((", "event_content=unknown()"])
def test_malformed_filter_is_refused(daemon, line):
    with daemon.client() as client:
        assert client.request(f"event=1\n{line}\n") == NOT_PRODUCED
    kind = line.partition("=")[0].removeprefix("event_")
    ((priority, text),) = daemon.log.take()
    assert priority == ERROR
    assert text.startswith(
        f"Error in metadata connection manager pipeline: The {kind} filter of the events is malformed: ")


def test_applications_share_a_topic(daemon, emitter, start_emitter):
    other = start_emitter().declare()
    with streaming(daemon) as (_, stream):
        stream.next_document()
        emitter.alarm("1", True)
        other.alarm("2", True)
        assert take(stream, 2) == [motion("Initialized", "1", "true"), motion("Initialized", "2", "true")]


def test_without_a_receiver_a_client_waits(daemon, start_receiver_process, start_emitter):
    """The daemon replies, and sends events when the receiver comes."""
    with streaming(daemon) as (_, stream):
        assert summaries(stream.next_document()) == []
        start_receiver_process()
        emitter = start_emitter().declare()
        emitter.alarm("1", True)
        assert take(stream, 1) == [motion("Initialized", "1", "true")]


def test_receiver_that_vanishes_deletes_properties(daemon, receiver, emitter, start_emitter):
    emitter.alarm("1", True)
    with streaming(daemon) as (_, stream):
        assert summaries(stream.next_document()) == [motion("Initialized", "1", "true")]
        receiver.kill()
        assert take(stream, 1) == [motion("Deleted", "1", "true")]
        receiver.start()
        receiver.wait_until_ready()
        start_emitter().declare().alarm("1", False)
        assert take(stream, 1) == [motion("Initialized", "1", "false")]


def test_properties_are_deleted_after_the_grace_period(daemon, emitter):
    emitter.alarm("1", True)
    with streaming(daemon) as (_, stream):
        stream.next_document()
        began = time.monotonic()
        emitter.close()
        document = stream.next_document(GRACE_SECONDS + BOUND_SECONDS)

        assert GRACE_SECONDS - 1 <= time.monotonic() - began
        assert summaries(document) == [motion("Deleted", "1", "true")]


def test_application_that_restarts_often_keeps_its_property(daemon, receiver, start_emitter):
    """Each time the same user takes the property over; no client is told that it is deleted."""
    with streaming(daemon) as (_, stream):
        stream.next_document()
        for number in range(100):
            emitter = start_emitter().declare()
            # The receiver can detect the end of the previous one later.
            wait_until(lambda: emits(emitter, number), "the property is emitted")  # pylint: disable=cell-var-from-loop
            emitter.close()
        events = take(stream, 100)

    assert [operation for _, operation, *_ in events] == ["Initialized"] + 99 * ["Changed"]


def emits(emitter, number):
    try:
        emitter.alarm("1", number % 2 == 0)
    except Exception as refused:  # pylint: disable=broad-except
        assert refused.args[0] == "NotOwner"
        return False
    return True


def test_application_that_dies_before_it_emits_changes_nothing(daemon, receiver, start_emitter):
    with streaming(daemon) as (_, stream):
        stream.next_document()
        for number in range(20):
            start_emitter().declare(f"tns1:T{number}").close()
        last = start_emitter().declare()
        last.alarm("1", True)
        assert take(stream, 1) == [motion("Initialized", "1", "true")]


def test_undeclared_events_do_not_arrive(daemon, emitter, start_emitter):
    with streaming(daemon) as (_, stream):
        stream.next_document()
        stranger = start_emitter()
        for _ in range(100):
            stranger.send_alarm("1", "true")
            emitter.send_alarm("1", "maybe")
        emitter.cross(1)
        assert take(stream, 1) == [crossed(1)]


def test_flood_ends_with_the_present_state(daemon, receiver, emitter):
    """A client that reads gets the last state, also when others were refused, or dropped by a slow machine."""
    with streaming(daemon) as (client, stream):
        stream.next_document()
        for number in range(5 * LIMITS["RECEIVER_EVENT_BURST"]):
            emitter.send_alarm("1", "true" if number % 2 else "false")
        wait_until(lambda: emits_last(emitter), "the rate allows an event")
        # When events are dropped, the states come again.
        wait_until_state(stream, motion("Changed", "last", "false"), motion("Initialized", "last", "false"))
        client.sync()
        wait_until_state(stream, motion("Initialized", "last", "false"))
    warnings = receiver.take_warnings()
    assert warnings[:1] in ([], [NOT_READ]) and all("messages were dropped" in text for _, text in warnings[1::2])


def emits_last(emitter):
    try:
        emitter.alarm("last", True)
        emitter.alarm("last", False)
    except Exception as refused:  # pylint: disable=broad-except
        assert refused.args[0] == "RateExceeded"
        return False
    return True


def wait_until_state(stream, *expected):
    """Reads up to one of these events."""
    for event in stream.events():
        if summary(event) in expected:
            return


def test_many_states_arrive(daemon, receiver, start_emitter):
    """More than fit in one document."""
    applications = [start_emitter().declare() for _ in range(2)]
    expected = set()
    for application, number in itertools.product(applications, range(900)):
        source = f"{applications.index(application)}.{number}"
        application.alarm(source, True)
        expected.add(source)
    with streaming(daemon) as (client, stream):
        assert {source for _, operation, source, _ in take(stream, 1800) if operation == "Initialized"} == expected
        client.sync()
        assert {source for _, _, source, _ in take(stream, 1800)} == expected


def test_longest_properties_leave_others_their_events(daemon, receiver, emitter, start_emitter):
    """The daemon has room for all properties that the receiver takes."""
    emitter.alarm("1", False)
    with streaming(daemon) as (_, stream):
        stream.next_document()
        while add_longest_properties(start_emitter()):
            pass
        emitter.alarm("1", True)
        found = []
        while not found or found[-1][2] != {"State": "true"}:
            found += [(event.operation, event.source, event.data) for event in stream.next_document().events
                      if event.topic == MOTION]
    assert {operation for operation, _, _ in found} <= {"Initialized", "Changed"}
    assert set(receiver.take_warnings()[:1]) <= {NOT_READ}


def add_longest_properties(application):
    """Adds as many properties as an application can have; returns whether there is room for further ones."""
    namespaces = {f"p{number:02}": f"urn:{number}:".ljust(LIMITS["RECEIVER_MAX_NAMESPACE_BYTES"], "x")
                  for number in range(LIMITS["RECEIVER_MAX_NAMESPACES"])}
    topic = "/".join(f"{prefix}:T" for prefix in namespaces)
    names = [f"N{number}".ljust(LIMITS["RECEIVER_MAX_ITEM_NAME_BYTES"], "x")
             for number in range(LIMITS["RECEIVER_MAX_EVENT_ITEMS"])]
    items = [(name, "xs:string") for name in names]
    application.declare(topic, source=items, data=items, namespaces=namespaces)
    for number in range(LIMITS["RECEIVER_MAX_APPLICATION_PROPERTIES"]):
        values = dict.fromkeys(names, "")
        source = values | {names[0]: f"{application.connection.get_unique_name()} {number}"}
        refusal = wait_until(lambda: emit_or_refusal(application, topic, source, values), "the rate allows an event")
        if refusal != "taken":
            assert refusal == "LimitExceeded"
            return False
    return True


def emit_or_refusal(application, topic, source, data):
    """None if the application has to wait."""
    try:
        application.emit(topic, "Changed", source, data)
    except Refused as refused:
        return None if refused.args[0] == "RateExceeded" else refused.args[0]
    return "taken"


def test_receiver_restarts_under_load(daemon, receiver, start_emitter):
    """Clients stay, and end with the present state."""
    stop = threading.Event()

    def emit():
        while not stop.is_set():
            with contextlib.suppress(Exception):
                application = start_emitter().declare()
                while not stop.is_set():
                    application.alarm("load", True)
                    application.alarm("load", False)
            stop.wait(0.01)

    thread = threading.Thread(target=emit)
    with streaming(daemon) as (_, first), streaming(daemon) as (_, second):
        thread.start()
        try:
            for _ in range(5):
                wait_until_operation(first, "Initialized")
                receiver.kill()
                wait_until_operation(first, "Deleted")
                receiver.start()
                receiver.wait_until_ready()
        finally:
            stop.set()
            thread.join(BOUND_SECONDS)
        start_emitter().declare().alarm("end", True)
        for stream in (first, second):
            wait_until_state(stream, motion("Initialized", "end", "true"))


def wait_until_operation(stream, operation):
    for event in stream.events():
        if event.operation == operation:
            return


def test_clients_share_one_stream(daemon, receiver, emitter):
    """The daemon reads the receiver's events once."""
    before = receiver.descriptors()
    with contextlib.ExitStack() as stack:
        streams = [stack.enter_context(streaming(daemon))[1] for _ in range(10)]
        for stream in streams:
            stream.next_document()
        assert receiver.descriptors() == before + 1
        emitter.alarm("1", True)
        for stream in streams:
            assert take(stream, 1) == [motion("Initialized", "1", "true")]
    wait_until(lambda: receiver.descriptors() == before, "the stream is closed")


@pytest.mark.skipif(SANITIZED, reason="measures time")
def test_event_arrives_promptly(daemon, emitter):
    times = []
    with streaming(daemon) as (_, stream):
        stream.next_document()
        for number in range(50):
            began = time.monotonic()
            emitter.cross(number)
            assert take(stream, 1) == [crossed(number)]
            times.append(time.monotonic() - began)

    print(f"median {statistics.median(times) * 1000:.2f} ms, longest {max(times) * 1000:.2f} ms")
    assert statistics.median(times) < 0.2


def test_hung_receiver_delays_no_client(daemon, receiver, emitter):
    """The reply comes without the states, which follow; a client's end does not wait."""
    receiver.process.send_signal(signal.SIGSTOP)
    try:
        with streaming(daemon) as (_, stream):
            assert summaries(stream.next_document()) == []
        with streaming(daemon) as (_, stream):
            assert summaries(stream.next_document()) == []
            receiver.process.send_signal(signal.SIGCONT)
            emitter.alarm("1", True)
            assert take(stream, 1) == [motion("Initialized", "1", "true")]
    finally:
        receiver.process.send_signal(signal.SIGCONT)
