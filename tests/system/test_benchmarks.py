# SPDX-License-Identifier: MIT
"""The benchmarks' statistics, tables and plots; that each benchmark runs and has its rows; and that the command, the
suite and the docs name the same ones. What they measure is not tested."""

import json
import math
import pathlib
import re
import subprocess
import sys
import xml.etree.ElementTree

import pytest

from installation import TREE

SUITE = TREE / "benchmarks/suite"
sys.path.append(str(SUITE))

import bench  # noqa: E402
import document  # noqa: E402
import figures  # noqa: E402
import plots  # noqa: E402
from tables import Goal, Table, bytes_text, goal_table  # noqa: E402

PAIRS = 15
BOUND_SECONDS = 300

# The tables that a short run of each benchmark has, by the start of their titles.
TITLES = {
    "relay": ["Relay to 1 client", "Relay, processor time of a delivered message by thread", "Relay, deliveries"],
    "latency": ["Latency"],
    "request": ["Requests"],
    "start": ["Start to listening"],
    "size": ["Size of the idle daemon", "Private memory of clients", "Size of the daemon", "Installed size"],
    "control": ["Changes of producers"],
    "growth": ["Share of a core"],
}


def coverage(count, rank):
    """The probability that the median is between the values of this rank from both ends."""
    return 1 - 2 * sum(math.comb(count, below) for below in range(rank)) / 2 ** count


# Statistics

def test_interval_of_the_pairs():
    assert figures.interval_rank(PAIRS) == 4
    assert figures.estimate(range(PAIRS, 0, -1)) == (8, 4, 12)


@pytest.mark.parametrize("count", range(6, 60))
def test_interval_is_the_narrowest_that_has_the_level(count):
    rank = figures.interval_rank(count)
    assert coverage(count, rank) >= figures.LEVEL > coverage(count, rank + 1)


@pytest.mark.parametrize("count", range(1, 6))
def test_interval_of_few_values_is_their_range(count):
    assert figures.estimate(range(count)) == ((count - 1) / 2, 0, count - 1)


def test_ratio_is_that_of_the_pairs():
    # The ratio of the medians would be 1.
    assert figures.ratio([1, 2, 3], [3, 2, 1]).median == 1
    assert figures.ratio([2, 40, 900], [1, 10, 100]) == (4, 2, 9)
    with pytest.raises(ValueError):
        figures.ratio([1, 2], [1])


@pytest.mark.parametrize("percent, value", [(0, 10), (50, 30), (90, 46), (99, 49.6), (100, 50)])
def test_percentile(percent, value):
    assert figures.percentile([50, 10, 40, 20, 30], percent) == pytest.approx(value)


def test_line():
    assert figures.line([(0, 3), (1, 5), (4, 11)]) == pytest.approx((3, 2, 1))
    bent = figures.line([(0, 0), (1, 1), (2, 4), (3, 9)])
    assert bent.fit < 0.95
    assert figures.line([(0, 7), (5, 7)]) == pytest.approx((7, 0, 1))


# Tables and plots

def test_goals():
    met, missed = figures.Estimate(1.049, 1.0, 1.1), figures.Estimate(1.051, 1.0, 1.1)
    table = goal_table([Goal("a", 1.05, met), Goal("b", 1.05, missed), Goal("c", 100, None, "KiB", 0)])
    assert [row[1:] for row in table.rows] == [
        ("at most 1.05", "1.05", "1.00 to 1.10", "met"),
        ("at most 1.05", "1.05", "1.00 to 1.10", "**not met**"),
        ("at most 100 KiB", "not measured", "", ""),
    ]


def test_table():
    assert Table("Title", ("a", "b|c"), [(1, 2)]).text() == \
        "### Title\n\n| a | b\\|c |\n| --- | --- |\n| 1 | 2 |\n"
    assert [bytes_text(size) for size in (50, 1024, 100 * 1024)] == ["50 B", "1 KB", "100 KB"]


def test_every_goal_has_a_row_without_results():
    assert len(bench.all_goals({})) == 2 * 5 + 2 + 1 + 1 + 3 + 2 + 1
    assert all(goal.row()[2] == "not measured" for goal in bench.all_goals({}))


@pytest.mark.parametrize("log_x", [False, True])
def test_plot(log_x):
    charts = [plots.Chart("a & b", "x", "y", {"one": [(50, 1), (102400, 9)], "two": [(50, 3), (102400, 4)]}, log_x),
              plots.Chart("one point", "x", "y", {"one": [(5, 0)]})]
    root = xml.etree.ElementTree.fromstring(plots.draw(charts))
    height = float(root.get("height"))
    circles = root.findall("{http://www.w3.org/2000/svg}circle")
    assert len(circles) == 5
    for circle in circles:
        assert plots.LEFT <= float(circle.get("cx")) <= plots.WIDTH - plots.RIGHT
        assert 0 < float(circle.get("cy")) < height


# Names

def test_the_command_and_the_docs_name_the_same_benchmarks():
    printed = subprocess.run([TREE / "bench", "--help"], check=True, capture_output=True, text=True).stdout
    text = (TREE / "docs/performance.md").read_text(encoding="utf-8")
    assert re.findall(r"^  ([a-z]+) {2,}", printed, re.MULTILINE) == list(bench.BENCHMARKS)
    assert re.findall(r"^\| `([a-z]+)` \|", text, re.MULTILINE) == list(bench.BENCHMARKS)
    assert list(TITLES) == list(bench.BENCHMARKS)


@pytest.mark.parametrize("arguments", [["--what"], ["--pairs"], ["--pairs", "0"]])
def test_wrong_options_are_refused(arguments):
    refused = subprocess.run([TREE / "bench", *arguments], check=False, capture_output=True, text=True)
    assert refused.returncode == 2
    assert refused.stderr.startswith("bench: ")


def test_an_unknown_benchmark_is_refused():
    refused = subprocess.run([sys.executable, SUITE / "bench.py", "relay", "nothing"], check=False, capture_output=True,
                             text=True)
    assert refused.returncode == 2
    assert "unknown benchmark: nothing" in refused.stderr


# Runs

@pytest.fixture(scope="module")
def installed_suite(installation):
    found = list(installation.prefix.glob("lib*/**/tessard/benchmarks/suite/bench.py"))
    if not found:
        pytest.skip("the build folder is configured without -Dbenchmarks=true")
    return found[0]


def run_briefly(suite, name, out):
    """The results of a short run with one pair, and what it printed."""
    done = subprocess.run(["/usr/bin/python3", suite, "--brief", "--pairs", "1", "--out", out, name], check=False,
                          capture_output=True, text=True, timeout=BOUND_SECONDS)
    assert done.returncode == 0, done.stderr
    return json.loads((out / "results.json").read_text(encoding="utf-8")), done.stdout


@pytest.mark.parametrize("name", TITLES)
def test_benchmark_runs(installed_suite, tmp_path, name):
    results, printed = run_briefly(installed_suite, name, tmp_path)
    data = results["benchmarks"][name]
    tables = bench.BENCHMARKS[name].tables(data)

    assert [table.title.startswith(title) for table, title in zip(tables, TITLES[name], strict=True)] == \
        [True] * len(tables)
    for table in tables:
        assert table.rows and all(len(row) == len(table.columns) for row in table.rows)
        assert table.text() in printed
    assert results["pairs"] == 1 and results["machine"]["tessard"]
    for pictures in bench.draw_plots({name: data}).values():
        xml.etree.ElementTree.fromstring(pictures)


def test_nothing_is_left_by_a_run_that_is_ended(installed_suite, tmp_path):
    before = set(pathlib.Path("/tmp").glob("tessard-bench-*"))
    process = subprocess.Popen(["/usr/bin/python3", installed_suite, "--out", tmp_path, "latency"],
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, start_new_session=True)
    assert process.stderr.readline() == "== latency\n"
    process.terminate()
    _, errors = process.communicate(timeout=BOUND_SECONDS)
    assert (process.returncode, errors) == (143, "")
    assert {path for path in pathlib.Path("/tmp").glob("tessard-bench-*") if path not in before} == set()


def test_results_are_written_into_the_docs(installed_suite, tmp_path):
    results, _ = run_briefly(installed_suite, "relay", tmp_path)
    text = tmp_path / document.TEXT
    text.write_text(f"before\n{document.BEGIN}old\n{document.END}after\n", encoding="utf-8")

    document.write(results, tmp_path)
    written = text.read_text(encoding="utf-8")
    assert written.startswith(f"before\n{document.BEGIN}") and written.endswith(f"{document.END}after\n")
    assert "old" not in written
    assert "### Goals" in written and "### Relay to 1 client" in written and "](performance-relay.svg)" in written
    assert (tmp_path / "performance-relay.svg").read_text(encoding="utf-8").startswith("<svg")


def test_the_page_has_the_places_for_the_results():
    text = (TREE / "docs" / document.TEXT).read_text(encoding="utf-8")
    assert text.count(document.BEGIN) == 1 and text.count(document.END) == 1
