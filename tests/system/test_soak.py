# SPDX-License-Identifier: MIT
"""The evaluation of a soak: each criterion can fail, and the records are saved and drawn correctly. The soak itself
runs by hand."""

import io
import pathlib
import random
import sys
import time
import types
import xml.etree.ElementTree

import pytest

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / "soak"))

import plot  # noqa: E402
import report  # noqa: E402
import run as program  # noqa: E402
from criteria import (ADDRESS, BUILDS, MAX_GROWTH_MIB, MAX_KEPT_MIB, MAX_P99_MS, MAX_PRIVATE_MIB,  # noqa: E402
                      MAX_TIMES_IDLE_PEER, MAX_WORST_MS, NORMAL, SLOWNESS, THREAD, growth, evaluate, slope)
from load import MISSING, REFUSED, WRONG, Failed, Load  # noqa: E402
from records import (CALL, DAEMON, IDLE_PEER, PING, PROBES, RECORD_SECONDS, SERIES, Latency, Record,  # noqa: E402
                     RecordFile, Run, Usage, series_name)
from clients import DOCUMENT_END, EVENT_STATE, KINDS, NUMBERS, CORRECT, StreamCheck  # noqa: E402
from waiting import BOUND_SECONDS  # noqa: E402

MINUTES = 10
PRODUCERS = 12


def make_record(number):
    return Record(seconds=(number + 1) * RECORD_SECONDS, usage=Usage(300, 100, 80.0 + number % 7), clients=50,
                  served=100 * number, failures=0, daemon_share=0.2, load_share=0.1,
                  latencies={series: Latency(200, 1.0, 20.0, 80.0) for series in SERIES})


def make_run(build=NORMAL):
    """A run that passes."""
    return Run(build=build, minutes=MINUTES, idle=Usage(10, 5, 4.0), final=Usage(10, 5, 5.0),
               records=[make_record(number) for number in range(MINUTES * 60 // RECORD_SECONDS)],
               latencies={series: Latency(12_000, 1.0, 20.0, 80.0) for series in SERIES}, expected_probes=12_000,
               done={"storms": 100, "restarts": 20}, served={"events": 900, "PTZ": 800}, failures=0, excused=3,
               waived=4, complaints=0, reports=0, leaks=0 if build == ADDRESS else None)


def failed(run):
    return {criterion.name for criterion in evaluate(run, PRODUCERS) if not criterion.passed}


def rise(run):
    """Adds a leak that stays within all other limits."""
    for number, record in enumerate(run.records):
        record.usage.private_mib += 3 * MAX_GROWTH_MIB * number / len(run.records)


def set_peak(name, value):
    def change(run):
        setattr(run.records[7].usage, name, value)
    return change


def set_end(name, value):
    def change(run):
        setattr(run.final, name, value)
    return change


def set_value(name, value):
    def change(run):
        setattr(run, name, value)
    return change


def set_latency(probe, name, value):
    def change(run):
        setattr(run.latencies[series_name(DAEMON, probe)], name, value)
    return change


def lose_replies(run):
    run.latencies[series_name(IDLE_PEER, CALL)].count = 100


def lose_series(run):
    run.latencies[series_name(DAEMON, PING)] = None


def keep_records(count):
    def change(run):
        del run.records[count:]
    return change


LATENCY_NAMES = [f"bus {probe}, {name}" for probe in PROBES for name in ("99 of 100", "worst")]

# Changes of a run, the criteria that they fail, and the builds.
FAULTS = [
    (set_value("ended", "ended with -11"), {"the daemon lived"}, BUILDS),
    (set_value("reports", 1), {"sanitizer reports"}, BUILDS),
    (set_value("complaints", 1), {"complaints of GLib and GStreamer"}, BUILDS),
    (set_value("leaks", 1), {"leaks at the end"}, [ADDRESS]),
    (set_value("leaks", -1), {"leaks at the end"}, [ADDRESS]),
    (set_value("leaks", None), {"leaks at the end"}, [ADDRESS]),
    (set_value("failures", 1), {"clients that did not get what they should"}, BUILDS),
    (set_value("served", {"events": 900, "PTZ": 0}), {"kinds of clients that were never served"}, BUILDS),
    (set_value("served", {}), {"kinds of clients that were never served"}, BUILDS),
    (set_end("descriptors", 11), {"descriptors at the end"}, BUILDS),
    (set_end("threads", 6), {"threads at the end"}, BUILDS),
    (set_peak("descriptors", 60 * 2 * (5 + PRODUCERS) + 65), {"most descriptors"}, BUILDS),
    (set_peak("threads", 60 * 2 * 7 + 33), {"most threads"}, BUILDS),
    (set_end("private_mib", 4.0 + MAX_KEPT_MIB + 0.1), {"private memory kept at the end"}, [NORMAL]),
    (rise, {"growth of private memory in the second half"}, [NORMAL]),
    (set_peak("private_mib", MAX_PRIVATE_MIB + 1), {"most private memory"}, [NORMAL]),
    *[(set_latency(probe, "p99", 10 * MAX_P99_MS + 1), {f"bus {probe}, 99 of 100"}, BUILDS)
      for probe in PROBES],
    *[(set_latency(probe, "worst", 10 * MAX_WORST_MS + 1), {f"bus {probe}, worst"}, BUILDS)
      for probe in PROBES],
    (set_value("done", {"storms": 1, "restarts": 0}), {"parts of the load that never came"}, BUILDS),
    (set_value("done", {}), {"parts of the load that never came"}, BUILDS),
    (keep_records(MINUTES * 5), {"records"}, BUILDS),
    (lose_replies, {"probes of each kind over the bus"}, BUILDS),
    (lose_series, {"probes of each kind over the bus", *LATENCY_NAMES[:2]}, BUILDS),
]


@pytest.mark.parametrize("build", BUILDS)
def test_run_without_a_fault_passes(build):
    assert failed(make_run(build)) == set()


@pytest.mark.parametrize("change, names, builds", FAULTS)
def test_each_fault_fails_its_criterion(change, names, builds):
    for build in builds:
        run = make_run(build)
        change(run)
        assert failed(run) == names


@pytest.mark.parametrize("build", BUILDS)
def test_every_criterion_can_fail(build):
    named = set().union(*(names for _, names, builds in FAULTS if build in builds))
    assert named == {criterion.name for criterion in evaluate(make_run(build), PRODUCERS)}


def test_run_without_records_fails_each_criterion_about_records():
    run = make_run()
    run.records = []
    assert failed(run) == {"most descriptors", "most threads", "most private memory", "records",
                           "growth of private memory in the second half"}


@pytest.mark.parametrize("build", [ADDRESS, THREAD])
def test_memory_of_an_instrumented_build_has_no_criterion(build):
    run = make_run(build)
    rise(run)
    run.final.private_mib = 2000.0
    assert failed(run) == set()


@pytest.mark.parametrize("build", BUILDS)
@pytest.mark.parametrize("name, bound, criterion", [("p99", MAX_P99_MS, "99 of 100"), ("worst", MAX_WORST_MS, "worst")])
def test_latency_of_the_idle_peer_raises_the_bound(build, name, bound, criterion):
    run = make_run(build)
    setattr(run.latencies[series_name(IDLE_PEER, CALL)], name, float(bound))
    setattr(run.latencies[series_name(DAEMON, CALL)], name, MAX_TIMES_IDLE_PEER * bound * SLOWNESS[build] - 0.1)
    assert failed(run) == set()
    setattr(run.latencies[series_name(DAEMON, CALL)], name, MAX_TIMES_IDLE_PEER * bound * SLOWNESS[build] + 0.1)
    assert failed(run) == {f"bus {CALL}, {criterion}"}


# Growth


def test_slope_ignores_single_peaks():
    points = [(second, 2.0 * second + (500 if second % 5 == 0 else 0)) for second in range(60)]
    assert slope(points) == pytest.approx(2.0, abs=0.2)


def test_too_few_points_have_no_slope():
    assert slope([]) is None and slope([(1, 1)]) is None


def test_growth_is_that_of_the_second_half():
    noise = random.Random(7)
    records = [make_record(number) for number in range(120)]
    for number, record in enumerate(records):
        record.usage.private_mib = (5.0 * number if number < 60 else 300.0) + noise.uniform(-20, 20)
    assert abs(growth(records)) < 10
    for number, record in enumerate(records[60:]):
        record.usage.private_mib += number
    assert growth(records) == pytest.approx(59, abs=10)


# Excused failures


def failure(category, moment, until=None):
    return {"category": category, "moment": moment, "until": moment if until is None else until}


@pytest.mark.parametrize("of, excused", [
    (failure(REFUSED, 105.0), True), (failure(MISSING, 105.0), True), (failure(WRONG, 105.0), False),
    (failure(REFUSED, 99.0), True), (failure(REFUSED, 98.0), False), (failure(REFUSED, 111.0), True),
    (failure(REFUSED, 112.0), False), (failure(MISSING, 95.0, 99.0), True), (failure(MISSING, 95.0, 98.0), False),
    (failure(MISSING, 95.0, 120.0), True), (failure(MISSING, 112.0, 120.0), False)])
def test_shortage_excuses_failures_near_it(of, excused):
    shortages = program.Shortages(daemon=None)
    shortages.windows = [[20.0, 30.0], [100.0, 110.0]]
    assert shortages.excuse(of) is excused


def test_unfinished_shortage_excuses_failures_within_it():
    shortages = program.Shortages(daemon=None)
    shortages.windows = [[100.0, None]]
    assert shortages.excuse(failure(REFUSED, 150.0))
    assert not shortages.excuse(failure(REFUSED, 90.0))


def test_replies_of_a_hung_receiver_are_due_at_its_end():
    load = Load("socket", None, 1, 20)
    load.hangs = [(20.0, 28.0), (100.0, 107.0)]
    assert [load.reply_due(asked) for asked in (50.0, 98.0, 99.5, 105.0, 107.5)] == [50.0, 98.0, 107.0, 107.0, 107.5]


def test_failure_has_the_time_until_which_its_reply_was_due():
    load = Load("socket", None, 1, 20)
    failed = Failed(MISSING, "it is not there", 100.0)
    failed.until = 107.0
    load.fail("a client", failed)
    assert load.take_report()["failures"] == [{"who": "a client", "category": MISSING, "what": "it is not there",
                                               "moment": 100.0, "until": 107.0}]


# Checks of clients


def document(content):
    return b'<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema">' + content + DOCUMENT_END


def frame(source, *numbers):
    deleted = "".join(f'<tt:Delete ObjectId="{number}"/>' for number in numbers)
    return document(f'<tt:VideoAnalytics><tt:Frame UtcTime="2024-01-01T00:00:00Z" Source="{source}"><tt:ObjectTree>'
                    f"{deleted}</tt:ObjectTree></tt:Frame></tt:VideoAnalytics>".encode())


def make_check(name):
    """A check that does not parse the next document."""
    check = StreamCheck(KINDS[name])
    check.count = 1
    return check


@pytest.mark.parametrize("wrong", [b"", b"text", document(b"")[:-3], b"x" + document(b"")])
def test_malformed_document_fails(wrong):
    with pytest.raises(Failed) as found:
        make_check("events").look(wrong)
    assert found.value.category == WRONG


def test_missing_metadata_is_reported():
    check = make_check("events")
    check.look(document(b""))
    assert check.missing
    check.look(document(EVENT_STATE))
    assert not check.missing
    check.expect_marks_again()
    assert check.missing


def test_numbers_of_each_producer_are_required():
    check = make_check("external producers")
    for number in range(NUMBERS):
        check.look(frame(CORRECT[0], number))
    assert not check.has_numbers()
    for number in range(NUMBERS):
        check.look(frame(CORRECT[1], number))
    assert check.has_numbers()


@pytest.mark.parametrize("numbers", [(1,), (0, 0), (0, 2), (0, 1, 3)])
def test_lost_or_repeated_number_fails(numbers):
    check = make_check("external producers")
    with pytest.raises(Failed) as found:
        for number in numbers:
            check.look(frame(CORRECT[0], number))
    assert found.value.category == WRONG


# The daemon's output


@pytest.mark.parametrize("said, complaints, reports", [
    ("\n", 0, 0),
    ("(tessard:7): GLib-GObject-CRITICAL **: 10:00:00.000: g_object_unref: assertion failed\n", 1, 0),
    ("(tessard:7): GStreamer-WARNING **: 10:00:00.000: something\n", 1, 0),
    ("(tessard:7): tessard-CRITICAL **: 10:00:00.000: f: assertion 'consumer_fd > -1' failed\n", 0, 0),
    ("(tessard:7): tessard-CRITICAL **: 10:00:00.000: f: assertion 'conn != NULL' failed\n", 1, 0),
    ("GLib: Too many open files\n", 1, 0),
    ("==7==ERROR: AddressSanitizer: heap-use-after-free on address 0x1\n", 0, 1),
    ("==7==ERROR: LeakSanitizer: detected memory leaks\nleak check: 1\n", 0, 1),
    ("WARNING: ThreadSanitizer: data race (pid=7)\n" * 2, 0, 2),
    ("../src/server.cpp:7:3: runtime error: signed integer overflow\n", 0, 1),
    ("leak check: 0\n", 0, 0),
])
def test_complaints_and_reports_are_counted(said, complaints, reports):
    daemon = types.SimpleNamespace(log=types.SimpleNamespace(take=lambda: []), take_stderr=lambda: said)
    log = program.DaemonLog(daemon, io.StringIO())
    log.look()
    assert (log.complaints(), log.reports()) == (complaints, reports)


def test_complaint_in_the_system_log_is_counted():
    lines = [(4, "assertion 'object != NULL' failed"), (4, "Invalid value of 'event' parameter: '2'."),
             (4, "could not write name to producerconfig: Failed to open '.': Too many open files"),
             (4, "Failed to parse fd from variant: dup: Too many open files")]
    daemon = types.SimpleNamespace(log=types.SimpleNamespace(take=lambda: lines), take_stderr=lambda: "")
    log = program.DaemonLog(daemon, io.StringIO())
    log.look()
    assert log.complaints() == 1


def test_lines_of_the_daemon_are_kept_with_their_times():
    lines = [(4, "one"), (3, "two\nlines" + "x" * program.MAX_KEPT_CHARACTERS)]
    daemon = types.SimpleNamespace(log=types.SimpleNamespace(take=lambda: lines), take_stderr=lambda: "")
    kept = io.StringIO()
    program.DaemonLog(daemon, kept).look()
    moments, texts = zip(*(line.split(" ", 1) for line in kept.getvalue().splitlines()))
    assert texts == ("<4> 'one'", "<3> 'two\\nlines" + "x" * (program.MAX_KEPT_CHARACTERS - 9) + "'")
    assert all(abs(float(moment) - time.monotonic()) < BOUND_SECONDS for moment in moments)


# Records


def test_run_is_read_as_it_was_saved(tmp_path):
    run = make_run()
    run.latencies[series_name(DAEMON, PING)] = None
    run.save(tmp_path / report.RUN_FILE)
    assert Run.load(tmp_path / report.RUN_FILE) == run


def test_percentiles():
    latency = Latency.of([float(value) for value in range(1, 201)])
    assert (latency.count, latency.median, latency.worst) == (200, 100.5, 200.0)
    assert latency.p99 == pytest.approx(198.0, abs=0.1)
    assert Latency.of([]) is None
    assert Latency.of([7.0]) == Latency(1, 7.0, 7.0, 7.0)


def test_record_file_has_a_row_for_each_record(tmp_path):
    file = RecordFile(tmp_path / "records.csv")
    file.add(make_record(0))
    record = make_record(1)
    record.latencies[series_name(DAEMON, CALL)] = None
    file.add(record)
    file.close()
    heads, first, second = (line.split(",") for line in (tmp_path / "records.csv").read_text().splitlines())
    assert len(heads) == len(first) == len(second) == len(set(heads))
    assert dict(zip(heads, first))["daemon call p99"] == "20.0"
    assert dict(zip(heads, second))["daemon call p99"] == ""


def test_picture_has_a_point_for_each_record():
    run = make_run()
    run.records[3].latencies[series_name(DAEMON, CALL)] = None
    root = xml.etree.ElementTree.fromstring(plot.draw(run, "a & b"))
    lines = [len(line.get("points").split()) for line in root.iter("{http://www.w3.org/2000/svg}polyline")]
    count = len(run.records)
    assert lines == [count] * 3 + [count] * 2 + [3, count - 4, count] + [count]


@pytest.mark.parametrize("top, last", [(1, 1), (7, 8), (80, 80), (81, 100), (0.3, 0.3), (1999, 2000)])
def test_axis_ends_at_a_round_number(top, last):
    ticks = plot.ticks_of(top, plot.TICKS_Y)
    assert ticks[0] == 0 and ticks[-1] == pytest.approx(last)
    assert 3 <= len(ticks) <= 6


def test_docs_get_the_figures_of_all_recorded_builds(tmp_path, monkeypatch):
    text, picture = tmp_path / "soak.md", tmp_path / "soak.svg"
    text.write_text(f"before\n{report.BEGIN}old\n{report.END}after\n")
    monkeypatch.setattr(report, "TEXT", text)
    monkeypatch.setattr(report, "PICTURE", picture)
    for build in (NORMAL, THREAD):
        (tmp_path / build).mkdir()
        run = make_run(build)
        run.failures = 7 if build == THREAD else 0
        run.save(tmp_path / build / report.RUN_FILE)

    assert report.document(tmp_path) == 0
    written = text.read_text()
    assert written.startswith(f"before\n{report.BEGIN}") and written.endswith(f"{report.END}after\n")
    assert "old" not in written
    assert "### Normal build, 10 minutes: passed" in written and "### Thread build, 10 minutes: FAILED" in written
    assert "| clients that did not get what they should | 7 | none |" in written
    assert picture.read_text().startswith("<svg")
    assert "](soak.svg)\n\n### Thread build" in written


def test_docs_stay_unchanged_without_records(tmp_path):
    before = report.TEXT.read_text(encoding="utf-8")
    assert report.document(tmp_path) == f"no records in {tmp_path}"
    assert report.TEXT.read_text(encoding="utf-8") == before
