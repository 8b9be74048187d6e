#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Measures an installed tessard, prints tables in Markdown, and writes the results as JSON with plots as SVG."""

import argparse
import grp
import json
import os
import pathlib
import pwd
import shutil
import signal
import sys
import tempfile
import time
import typing

sys.dont_write_bytecode = True
# In the tree a part of the plots is there; an installation has it beside this file.
sys.path.append(str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))

import control  # noqa: E402
import growth  # noqa: E402
import latency  # noqa: E402
import machine  # noqa: E402
import plots  # noqa: E402
import relay  # noqa: E402
import request  # noqa: E402
import size  # noqa: E402
import start  # noqa: E402
from stage import Failed, Stage, die_with_parent  # noqa: E402
from tables import goal_table  # noqa: E402

BENCHMARKS = {module.NAME: module for module in (relay, latency, request, start, size, control, growth)}
PAIRS = 15
ENDS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
UNPRIVILEGED_USER, UNPRIVILEGED_GROUP = "nobody", "nogroup"


class Effort(typing.NamedTuple):
    """How much is measured: the number of pairs, the factor of each round's length, and whether of several sizes and
    numbers of clients only the first one is measured."""

    pairs: int
    scale: float
    brief: bool

    def some(self, values):
        return values[:1] if self.brief else values


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("names", nargs="*", metavar="NAME",
                        help=f"benchmarks to run, of {', '.join(BENCHMARKS)} (default: all)")
    parser.add_argument("--out", type=pathlib.Path, default=pathlib.Path("."), help="folder for the results")
    parser.add_argument("--pairs", type=int, default=PAIRS, help=f"measurements of each ratio (default {PAIRS})")
    parser.add_argument("--brief", action="store_true",
                        help="short rounds, and only the first of several sizes and numbers: shows that it works")
    arguments = parser.parse_args()
    unknown = set(arguments.names) - set(BENCHMARKS)
    if unknown or arguments.pairs < 1:
        parser.error(f"unknown benchmark: {', '.join(sorted(unknown))}" if unknown else "--pairs must be at least 1")
    return arguments


def drop_privileges():
    """Becomes a user without files."""
    user, group = pwd.getpwnam(UNPRIVILEGED_USER).pw_uid, grp.getgrnam(UNPRIVILEGED_GROUP).gr_gid
    os.setgroups([])
    os.setgid(group)
    os.setuid(user)
    die_with_parent()


def run_unprivileged(arguments):
    """Measures in a process of another user, because the daemon refuses to run as root, and takes its results."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="tessard-results-", dir="/tmp"))
    shutil.chown(folder, UNPRIVILEGED_USER, UNPRIVILEGED_GROUP)
    child = os.fork()
    if child == 0:
        drop_privileges()
        arguments.out = folder
        sys.exit(run(arguments))
    try:
        status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
        for path in folder.iterdir():
            shutil.copyfile(path, arguments.out / path.name)
    finally:
        shutil.rmtree(folder)
    return status


def all_goals(data):
    """The goals of all benchmarks; those of one that did not run are not measured."""
    return [goal for name, module in BENCHMARKS.items() for goal in module.goals(data.get(name, {}))]


def report(data):
    """The tables in Markdown."""
    tables = [goal_table(all_goals(data))]
    tables += [table for name in data for table in BENCHMARKS[name].tables(data[name])]
    if growth.NAME in data:
        tables.append(growth.fit_table([fit for name in data for fit in BENCHMARKS[name].fits(data[name])]))
    return "\n".join(table.text() for table in tables)


def draw_plots(data):
    """The plots as SVG text, by name."""
    return {name: plots.draw(charts) for benchmark in data
            for name, charts in BENCHMARKS[benchmark].plots(data[benchmark]).items()}


def measure(names, effort):
    """Runs benchmarks one after the other; returns what the result file has."""
    os.umask(0o022)
    stage = Stage()
    results = {"machine": machine.describe(stage), "date": time.strftime("%Y-%m-%d", time.gmtime()),
               "pairs": effort.pairs, "seconds": {}, "benchmarks": {}}
    try:
        for name in names:
            print(f"== {name}", file=sys.stderr, flush=True)
            began = time.monotonic()
            results["benchmarks"][name] = BENCHMARKS[name].measure(stage, effort)
            results["seconds"][name] = round(time.monotonic() - began, 1)
    finally:
        stage.remove()
    return results


def run(arguments):
    """Measures, prints the tables and writes the results; returns the exit status."""
    effort = Effort(arguments.pairs, 0.05 if arguments.brief else 1, arguments.brief)
    try:
        results = measure([name for name in BENCHMARKS if not arguments.names or name in arguments.names], effort)
    except Failed as failure:
        print(f"bench: {failure}", file=sys.stderr)
        return 1
    (arguments.out / "results.json").write_text(json.dumps(results, indent=1) + "\n", encoding="utf-8")
    for name, picture in draw_plots(results["benchmarks"]).items():
        (arguments.out / f"{name}.svg").write_text(picture, encoding="utf-8")
    print(report(results["benchmarks"]), flush=True)
    return 0


def on_end(number, frame):
    """Ends everything that runs. A second signal, to the group for example, does not disturb this."""
    for ending in ENDS:
        signal.signal(ending, signal.SIG_IGN)
    sys.exit(128 + number)


def main():
    for number in ENDS:
        signal.signal(number, on_end)
    arguments = parse_arguments()
    arguments.out.mkdir(parents=True, exist_ok=True)
    return run_unprivileged(arguments) if os.geteuid() == 0 else run(arguments)


if __name__ == "__main__":
    sys.exit(main())
