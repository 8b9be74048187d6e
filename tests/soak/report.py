# SPDX-License-Identifier: MIT
"""The output of a soak: its summary, its plot, and the figures of the docs."""

import pathlib

import plot
from producerload import ENABLED
from criteria import BUILDS, NORMAL, evaluate
from records import SERIES, Run, triple

RUN_FILE = "run.json"

DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs"
TEXT, PICTURE = DOCS / "soak.md", DOCS / "soak.svg"
PICTURE_LINK = f"![The figures of that run over its time]({PICTURE.name})\n"
BEGIN, END = "<!-- figures -->\n", "<!-- end of figures -->\n"


def picture(run):
    return plot.draw(run, f"{run.minutes:g} minutes of load, {run.build} build")


def verdict(criteria):
    return "passed" if all(criterion.passed for criterion in criteria) else "FAILED"


def summary(run, criteria):
    lines = ["", *(criterion.line() for criterion in criteria), ""]
    lines += [f"{name}: {count}" for name, count in sorted({**run.done, **run.served}.items())]
    lines += [f"{series}: {triple(run.latencies.get(series))} ms (median, 99th percentile, worst)" for series in SERIES]
    lines += [f"excused by a shortage of descriptors: {run.excused}", f"waived during disturbances: {run.waived}",
              f"soak, {run.build} build, {run.minutes:g} minutes: {verdict(criteria)}"]
    return "\n".join(lines)


def table(run):
    """The figures of a run in Markdown."""
    criteria = evaluate(run, len(ENABLED))
    rows = [f"### {run.build.capitalize()} build, {run.minutes:g} minutes: {verdict(criteria)}", "",
            "| criterion | figure | bound |", "|---|---|---|",
            *(f"| {criterion.name} | {criterion.figure} | {criterion.bound} |" for criterion in criteria),
            f"| clients that got all that they should | {sum(run.served.values())} | |"]
    rows += [f"| {series}: median, 99th percentile, worst | {triple(run.latencies.get(series))} ms | |"
             for series in SERIES]
    return "\n".join(rows) + "\n"


def document(folder):
    """Writes the figures of each build with records in the folder to the docs, and the plot of the normal build."""
    runs = [Run.load(path) for build in BUILDS if (path := folder / build / RUN_FILE).exists()]
    if not runs:
        return f"no records in {folder}"
    head, rest = TEXT.read_text(encoding="utf-8").split(BEGIN)
    _, tail = rest.split(END)
    parts = []
    for run in runs:
        parts.append(table(run))
        if run.build == NORMAL:
            PICTURE.write_text(picture(run), encoding="utf-8")
            parts.append(PICTURE_LINK)
    TEXT.write_text(head + BEGIN + "\n" + "\n".join(parts) + "\n" + END + tail, encoding="utf-8")
    return 0
