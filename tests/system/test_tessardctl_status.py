# SPDX-License-Identifier: MIT
"""tessardctl status: its table, JSON and metrics, with a fake daemon."""

import json
import re

import pytest
from gi.repository import GLib

import openmetrics
from controlclient import STATUS_PATH
from fakeservice import CLIENT_VALUES, LIMITS, SOURCE_VALUES, STATUS_VALUES, status
from installation import TREE, documented_limit
from tessardctl import MALFORMED, REFUSED, SUCCESS, failure

MAX_ENTRIES = documented_limit("../tools/daemonstatus.h", "DAEMON_STATUS_MAX_ENTRIES")

SECOND = 1_000_000

# A user without a name.
STRANGER = 4_242_424

FIRST_CLIENT = {"Id": 11, "Pid": 4711, "Uid": 0, "Request": {"event": "1", "video_channel": "1"}, "Documents": 3000,
                "Bytes": 4 << 20, "Age": 120 * SECOND, "LastDocumentAge": 4000}
LAST_CLIENT = {"Id": 12, "Pid": 12, "Uid": STRANGER, "Request": {"analytics": "1"}, "Documents": 200,
               "Bytes": 1 << 20, "QueueItems": 200, "QueueBytes": 1_181_116, "Age": 39 * SECOND,
               "LastDocumentAge": 31_260_000}
GATE = {"Source": "gate", "Streams": 1, "Messages": 880, "Bytes": 417_000, "Dropped": 1}

# Some texts of a source, and what the table and the metrics show.
TEXTS = [
    ("a\nb", "a\\u000ab"), ("\x1b[2Ja", "\\u001b[2Ja"), ("\u009b1m", "\\u009b1m"), ("\u202etxt", "\\u202etxt"),
    ("100 %s%n", "100 %s%n"), ('say "x"', 'say "x"'), ("摄像机 é", "摄像机 é"), ("", ""), ("a,b}", "a,b}"),
]


@pytest.fixture
def serve(fake_service):
    """Starts a daemon with these clients and sources; other values by their names."""

    def start(clients=(), sources=(), **changes):
        fake_service.statuses = [status(clients, sources, **changes)]
        fake_service.start()
        return fake_service

    return start


def printed(result):
    assert (result.status, result.err) == (SUCCESS, b"")
    # GLib separates a number and its unit by a blank that breaks no line.
    return result.out.decode().replace("\u00a0", " ")


# The table


def test_table_without_clients(run_on_bus, serve):
    serve()
    assert printed(run_on_bus("status")) == (
        "tessard 1.2.3, up 2 h 5 min\n"
        "Clients: 0 of 256, 12 since the start\n"
        "Documents: 5031, 7.3 MiB\n"
        "Messages of producers: 890, 412.0 KiB; 1 dropped; 2.0 KiB of 128.0 MiB wait\n"
        "Descriptors: 31 of 4096\n")


def test_table_with_the_rates_between_two_readings(run_on_bus, fake_service):
    later = 7_500 * SECOND + 2 * SECOND
    fake_service.statuses = [
        status([FIRST_CLIENT], [GATE]),
        status([FIRST_CLIENT | {"Documents": 3020, "Bytes": (4 << 20) + 2048}, LAST_CLIENT],
               [GATE | {"Messages": 890, "Bytes": 417_000 + 1024}], Uptime=later)]
    fake_service.start()

    tables = printed(run_on_bus("status")).split("\n\n")[1:]
    assert tables == [
        "CLIENT   PID  USER     DOCUMENTS     RATE    BYTES         RATE        QUEUED        AGE    LAST  REQUEST\n"
        "    11  4711  root          3020   10.0/s  4.0 MiB    1.0 KiB/s    0, 0 bytes  2 min 0 s   0.0 s  "
        "events, channel 1\n"
        "    12    12  4242424        200  100.0/s  1.0 MiB  512.0 KiB/s  200, 1.1 MiB       39 s  31.2 s  "
        "objects with boxes",
        "STREAMS  MESSAGES   RATE      BYTES       RATE  DROPPED  SOURCE\n"
        "      1       890  5.0/s  408.2 KiB  0.5 KiB/s        1  gate\n"]
    assert [call[1] for call in fake_service.calls] == ["GetStatus", "GetStatus"]


def test_no_rates_across_a_restart(run_on_bus, fake_service):
    fake_service.statuses = [status([FIRST_CLIENT]), status([FIRST_CLIENT], StartTime=1_700_000_500, Uptime=SECOND)]
    fake_service.start()
    assert re.search(r"^    11 .* 3000  0\.0/s  4\.0 MiB  0\.0 KiB/s ", printed(run_on_bus("status")), re.MULTILINE)


@pytest.mark.parametrize("request_, words", [
    ({}, ""), ({"event": "1"}, "events"), ({"event": "0", "ptz": "1"}, "PTZ status and position"),
    ({"event": "1", "event_topic": "tns1:Device//.", "event_content": "x"},
     "events, topics 'tns1:Device//.', contents 'x'"),
    ({"analytics": "2", "video_channel": "3"}, "objects with boxes and polygons, channel 3"),
    ({"ptz": "2", "ptz_pantilt_coordinate_space": "1", "ptz_zoom_coordinate_space": "2"},
     "PTZ position, pan and tilt space 1, zoom space 2"),
    ({"ptz": "3", "analytics": "0"}, "PTZ status"),
    ({"event": "1", "event_topic": "\x1b[2J\n%s%n"}, "events, topics '\\u001b[2J\\u000a%s%n'"),
])
def test_request_in_words(run_on_bus, serve, request_, words):
    serve([FIRST_CLIENT | {"Request": request_}])
    assert printed(run_on_bus("status")).splitlines()[-1].endswith(("0.0 s  " + words) if words else "0.0 s  ")


def test_client_without_a_reply_yet(run_on_bus, serve):
    serve([{"Streaming": False, "Request": {"event": "1"}}])
    assert printed(run_on_bus("status")).endswith("  0 s     -  events (not ready)\n")


@pytest.mark.parametrize("us, shown", [
    (0, "0 s"), (59_999_999, "59 s"), (60 * SECOND, "1 min 0 s"), (3599 * SECOND, "59 min 59 s"),
    (3600 * SECOND, "1 h 0 min"), (86_400 * SECOND, "1 d 0 h"), (400 * 86_400 * SECOND, "400 d 0 h"),
])
def test_times(run_on_bus, serve, us, shown):
    serve(Uptime=us)
    assert printed(run_on_bus("status")).startswith(f"tessard 1.2.3, up {shown}\n")


@pytest.mark.parametrize("text, shown", TEXTS)
def test_table_has_no_control_characters(run_on_bus, serve, text, shown):
    serve(sources=[GATE | {"Source": text}])
    lines = printed(run_on_bus("status")).split("\n")
    assert lines[-2].endswith("        1  " + shown) and lines[-1] == ""


# JSON


def expected_json(values, **changes):
    return {key: changes.get(key, value) for key, (_, value) in values.items()}


def test_json(run_on_bus, serve):
    serve([FIRST_CLIENT, LAST_CLIENT], [GATE])
    assert json.loads(printed(run_on_bus("status", "--json"))) == expected_json(STATUS_VALUES) | {
        "Clients": [expected_json(CLIENT_VALUES, **FIRST_CLIENT), expected_json(CLIENT_VALUES, **LAST_CLIENT)],
        "Producers": [expected_json(SOURCE_VALUES, **GATE)],
        "Limits": expected_json(LIMITS)}


def test_json_members_are_documented_in_their_order(run_on_bus, serve):
    serve([FIRST_CLIENT], [GATE])
    members = re.findall(r'"(\w+)" :', printed(run_on_bus("status", "--json")))
    page = (TREE / "docs/status.md").read_text(encoding="utf-8")
    example = re.search(r"^    \{\n(?:    .*\n)+", page, re.MULTILINE)[0]
    assert members == re.findall(r'"(\w+)":', example)
    assert json.loads(example).keys() == set(STATUS_VALUES) | {"Clients", "Producers", "Limits"}


@pytest.mark.parametrize("text", [text for text, _ in TEXTS])
def test_json_keeps_every_text(run_on_bus, serve, text):
    serve([{"Request": {"event_topic": text}}], [{"Source": text}])
    out = printed(run_on_bus("status", "--json"))
    values = json.loads(out)
    assert values["Clients"][0]["Request"] == {"event_topic": text}
    assert values["Producers"][0]["Source"] == text
    assert all(c.isprintable() or c == "\n" for c in out)


def test_largest_numbers(run_on_bus, serve):
    serve([{"Id": 2**63 - 1, "Pid": 2**32 - 1, "Bytes": 2**64 - 1}], Uptime=2**64 - 1)
    values = json.loads(printed(run_on_bus("status", "--json")))
    assert (values["Clients"][0]["Id"], values["Clients"][0]["Pid"]) == (2**63 - 1, 2**32 - 1)
    assert values["Clients"][0]["Bytes"] == values["Uptime"] == 2**63 - 1


# Metrics


CLIENT_LABELS = (("client", "11"), ("pid", "4711"), ("uid", "0"))
GATE_LABELS = (("source", "gate"),)

METRICS = {
    "tessard_build": {(("version", "1.2.3"),): 1},
    "tessard_start_time_seconds": {(): 1_700_000_000},
    "tessard_uptime_seconds": {(): 7500},
    "tessard_clients": {(): 1},
    "tessard_clients_limit": {(): 256},
    "tessard_accepted_clients": {(): 12},
    "tessard_documents": {(): 5031},
    "tessard_document_bytes": {(): 7_654_321},
    "tessard_messages": {(): 890},
    "tessard_message_bytes": {(): 421_888},
    "tessard_dropped_messages": {(): 1},
    "tessard_held_message_bytes": {(): 2048},
    "tessard_held_message_limit_bytes": {(): 128 << 20},
    "tessard_client_held_message_limit_bytes": {(): 8 << 20},
    "tessard_open_descriptors": {(): 31},
    "tessard_descriptors_limit": {(): 4096},
    "tessard_client_documents": {CLIENT_LABELS: 3000},
    "tessard_client_document_bytes": {CLIENT_LABELS: 4 << 20},
    "tessard_client_queued_documents": {CLIENT_LABELS: 0},
    "tessard_client_queued_bytes": {CLIENT_LABELS: 0},
    "tessard_client_age_seconds": {CLIENT_LABELS: 120},
    "tessard_client_last_document_age_seconds": {CLIENT_LABELS: 0.004},
    "tessard_source_streams": {GATE_LABELS: 1},
    "tessard_source_messages": {GATE_LABELS: 880},
    "tessard_source_message_bytes": {GATE_LABELS: 417_000},
    "tessard_source_dropped_messages": {GATE_LABELS: 1},
}


def test_metrics(run_on_bus, serve):
    serve([FIRST_CLIENT], [GATE])
    out = run_on_bus("status", "--metrics").out
    assert openmetrics.values(out) == METRICS
    assert out.startswith(b"# TYPE tessard_build gauge\n# HELP tessard_build The daemon's version, as a label.\n"
                          b'tessard_build{version="1.2.3"} 1\n# TYPE tessard_start_time_seconds gauge\n'
                          b"# UNIT tessard_start_time_seconds seconds\n")


def test_metrics_without_entries(run_on_bus, serve):
    serve()
    assert {name: labels for name, labels in openmetrics.values(run_on_bus("status", "--metrics").out).items()
            if not name.startswith(("tessard_client_d", "tessard_client_q", "tessard_client_a", "tessard_client_l",
                                    "tessard_source_"))} == {
        name: labels for name, labels in METRICS.items() if () in labels or name == "tessard_build"} | {
        "tessard_clients": {(): 0}}


def test_metrics_are_documented(run_on_bus, serve):
    serve()
    names = {name + openmetrics.SUFFIXES[family.kind]
             for name, family in openmetrics.parse(run_on_bus("status", "--metrics").out).items()}
    page = (TREE / "docs/status.md").read_text(encoding="utf-8")
    assert set(re.findall(r"`(tessard_\w+)`", page)) == names


def test_counters_are_the_only_totals(run_on_bus, serve):
    serve()
    assert {name for name, family in openmetrics.parse(run_on_bus("status", "--metrics").out).items()
            if family.kind == "counter"} == {
        "tessard_accepted_clients", "tessard_documents", "tessard_document_bytes", "tessard_messages",
        "tessard_message_bytes", "tessard_dropped_messages", "tessard_client_documents",
        "tessard_client_document_bytes", "tessard_source_messages", "tessard_source_message_bytes",
        "tessard_source_dropped_messages"}


@pytest.mark.parametrize("text, shown", TEXTS + [("C:\\n", "C:\\\\n"), ("\\u001b", "\\\\u001b"), ("\\", "\\\\")])
def test_labels_have_no_control_characters(run_on_bus, serve, text, shown):
    serve(sources=[GATE | {"Source": text}], Version=text)
    out = run_on_bus("status", "--metrics").out
    samples = openmetrics.values(out)
    assert samples["tessard_source_streams"] == {(("source", shown),): 1}
    assert samples["tessard_build"] == {(("version", shown),): 1}
    assert all(c.isprintable() or c == "\n" for c in out.decode())


def test_different_names_stay_different(run_on_bus, serve):
    serve(sources=[{"Source": text} for text in ("\x1b", "\\u001b", "\\\\u001b")])
    assert len(openmetrics.values(run_on_bus("status", "--metrics").out)["tessard_source_streams"]) == 3


# Faults


@pytest.mark.parametrize("error", ["UnknownMethod", "UnknownInterface", "UnknownObject"])
def test_daemon_without_the_interface(run_on_bus, fake_service, error):
    fake_service.errors["GetStatus"] = (f"org.freedesktop.DBus.Error.{error}", "No such thing")
    fake_service.start()
    assert run_on_bus("status", "--json") == failure(
        REFUSED, "The daemon does not tell its status: it is older than this tessardctl.")


def test_daemon_without_the_object(run_on_bus, fake_service):
    fake_service.absent.add("GetStatus")
    fake_service.start()
    assert run_on_bus("status", "--metrics") == failure(
        REFUSED, "The daemon does not tell its status: it is older than this tessardctl.")


def test_refusal_of_the_policy(run_on_bus, fake_service):
    fake_service.errors["GetStatus"] = ("org.freedesktop.DBus.Error.AccessDenied", "Rejected")
    fake_service.start()
    assert run_on_bus("status") == failure(
        REFUSED, "The bus policy refused the call: it does not let this user read the daemon's status.")


@pytest.mark.parametrize("key", [*STATUS_VALUES, "Clients", "Producers", "Limits"])
def test_missing_value(run_on_bus, serve, key):
    del serve([FIRST_CLIENT], [GATE]).statuses[0][key]
    assert run_on_bus("status", "--json") == failure(MALFORMED, f"The daemon's status has no {key}.")


@pytest.mark.parametrize("key", [*STATUS_VALUES, "Clients", "Producers", "Limits"])
def test_value_of_another_type(run_on_bus, serve, key):
    values = serve().statuses[0]
    expected = values[key].get_type_string()
    values[key] = GLib.Variant("n", 1)
    assert run_on_bus("status", "--metrics") == failure(
        MALFORMED, f"What the daemon sent for {key} has the type 'n', not '{expected}'.")


@pytest.mark.parametrize("place, entry", [("Clients", CLIENT_VALUES), ("Producers", SOURCE_VALUES)])
def test_entry_without_its_values(run_on_bus, serve, place, entry):
    serve().statuses[0][place] = GLib.Variant("aa{sv}", [{}])
    result = run_on_bus("status")
    assert result.status == MALFORMED
    assert result.err.decode().removesuffix(".\n").removeprefix("tessardctl: The daemon's status has no ") in entry


def test_later_daemon_with_more_values(run_on_bus, serve):
    serve().statuses[0]["Later"] = GLib.Variant("(su)", ("x", 1))
    assert "Later" not in json.loads(printed(run_on_bus("status", "--json")))


@pytest.mark.parametrize("place", ["Clients", "Producers"])
@pytest.mark.parametrize("count", [MAX_ENTRIES, MAX_ENTRIES + 1])
def test_number_of_entries_is_bounded(run_on_bus, serve, place, count):
    clients = [{"Id": number} for number in range(count)] if place == "Clients" else []
    sources = [{"Source": str(number)} for number in range(count)] if place == "Producers" else []
    serve(clients, sources)
    result = run_on_bus("status", "--json")
    if count == MAX_ENTRIES:
        assert len(json.loads(result.out)[place]) == count
    else:
        assert result == failure(MALFORMED, f"The daemon's status has more than {MAX_ENTRIES} entries in {place}.")


@pytest.mark.parametrize("clients, sources", [([{}, {}], []), ([], [{}, {}])])
def test_entry_that_is_there_twice(run_on_bus, serve, clients, sources):
    serve(clients, sources)
    assert run_on_bus("status", "--metrics") == failure(
        MALFORMED, "The daemon's status has a client or a source twice.")


def test_call_is_for_the_object_of_the_status(run_on_bus, serve):
    service = serve()
    run_on_bus("status", "--json")
    assert service.calls == [(STATUS_PATH, "GetStatus", ())]
