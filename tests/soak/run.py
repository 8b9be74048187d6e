#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Runs a soak over a staged installation (TESSARD_STAGE), or writes the docs from the records of earlier ones; see
docs/soak.md."""

import argparse
import collections
import contextlib
import json
import os
import pathlib
import random
import re
import signal
import subprocess
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(1, str(HERE.parent / "system"))
sys.dont_write_bytecode = True

import gi  # noqa: E402

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

import report  # noqa: E402
from producerload import ENABLED  # noqa: E402
from daemon import RADAR_TRACKER, VIDEO_TRACKER, Daemon, processor_seconds, producers_enabled  # noqa: E402
from idlepeer import NAME as IDLE_PEER_NAME  # noqa: E402
from installation import ALL_PLUGINS, BUS_CONFIGURATION, Bus, Installation, Workspace  # noqa: E402
from criteria import ADDRESS, BUILDS, MAX_KEPT_MIB, NORMAL, SLOWNESS, THREAD, evaluate  # noqa: E402
from load import WRONG  # noqa: E402
from busprobe import PERIOD_MS  # noqa: E402
from records import MIB, RECORD_SECONDS, REPLY, SERIES, Latency, Record, RecordFile, Run, Usage  # noqa: E402
from simcamera import CAPTURE, PTZ, SCENES, SimulatedCamera  # noqa: E402
from clients import (CHANNELS, EXTERNAL_CHANNEL, FULL_CHANNEL, RADAR_CHANNEL, VIDEO_CHANNEL, CORRECT)  # noqa: E402
from waiting import wait_until, wait_until_settled  # noqa: E402

PATIENCE_SECONDS = 20
LOOK_SECONDS = 0.2

# The limit of the service.
DESCRIPTORS = 4096

# The speed of the simulated world.
SPEED = 4

# The free descriptors during shortages (the daemon needs 73 to serve each client), and the times of shortages and of
# pauses between them.
SHORTAGES = (16, 20, 25, 30, 33, 36, 40, 50, 60, 70)
SHORTAGE_SECONDS, PLENTY_SECONDS = (0.5, 3), (8, 20)

# The time before and after a shortage in which it explains refusals.
SHORTAGE_MARGIN_SECONDS = 1.5

# GLib keeps idle threads for about 15 seconds.
IDLE_SECONDS = 18

# The time limit for the release of the load's resources.
QUIET_SECONDS = 120
LEAK_CHECK_SECONDS = 120

PRODUCERS = producers_enabled(
    {(tracker, channel): "" for tracker in (VIDEO_TRACKER, RADAR_TRACKER) for channel in CHANNELS}
    | {(VIDEO_TRACKER, VIDEO_CHANNEL): "video", (VIDEO_TRACKER, FULL_CHANNEL): "video",
       (RADAR_TRACKER, RADAR_CHANNEL): "radar", (RADAR_TRACKER, FULL_CHANNEL): "radar"}
    | {(name, EXTERNAL_CHANNEL): name for name in CORRECT}
    | {(name, FULL_CHANNEL): name for name in ENABLED})

# Added to the installed policy.
IDLE_PEER_POLICY = f"""\
  <policy context="mandatory">
    <allow own="{IDLE_PEER_NAME}"/>
    <allow send_destination="{IDLE_PEER_NAME}"/>
  </policy>
</busconfig>
"""

REPORT = re.compile(r"(?:WARNING: ThreadSanitizer|ERROR: (?:Address|Leak)Sanitizer|: runtime error): ?")
# A stream that arrived when the limit had just been lowered cannot be kept, which the daemon reports with a line in the
# log and a warning about its descriptor.
NO_STREAM = "assertion 'consumer_fd > -1' failed"
COMPLAINT = re.compile(rf"\S+-(?:CRITICAL|WARNING|ERROR) \*\*(?!.*{NO_STREAM})|\*\* \("
                       rf"|(?!{NO_STREAM})assertion '.*' failed")
# A complaint on standard error alone: in the log the daemon's own lines end so.
SHORTAGE = "Too many open files"
LEAK_CHECK = re.compile(r"^leak check: (\d+)$", re.MULTILINE)

NUMBER = re.compile(r"\d+")
MAX_DISTINCT_LINES = 2000
MAX_KEPT_CHARACTERS = 300


class Process:
    """A program of the soak, whose output a thread reads line by line."""

    def __init__(self, name, *arguments, on_line):
        self.process = subprocess.Popen([sys.executable, str(HERE / name), *map(str, arguments)],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.on_line = on_line
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.on_line(line)

    def is_running(self):
        return self.process.poll() is None

    def end(self, number=None):
        """Makes the program end, and expects a successful status."""
        self.process.stdin.close()
        if number is not None:
            self.process.send_signal(number)
        status = self.process.wait(QUIET_SECONDS)
        self.reader.join()
        assert status == 0, f"{self.process.args[1]} ended with status {status}"

    def kill(self):
        self.process.kill()
        self.process.wait()


class Latencies:
    """Latencies of replies: since the last record, and of the whole run."""

    def __init__(self):
        self.lock = threading.Lock()
        self.fresh = {series: [] for series in SERIES}
        self.all = {series: [] for series in SERIES}

    def add(self, values):
        """values: milliseconds, by series"""
        with self.lock:
            for series, found in values.items():
                self.fresh[series] += found
                self.all[series] += found

    def take(self):
        with self.lock:
            taken = {series: Latency.of(values) for series, values in self.fresh.items()}
            self.fresh = {series: [] for series in SERIES}
        return taken

    def in_all(self):
        with self.lock:
            return {series: Latency.of(values) for series, values in self.all.items()}


class Shortages:
    """Causes shortages of the daemon's descriptors, and records their times."""

    def __init__(self, daemon):
        self.daemon = daemon
        self.random = random.Random(1)
        self.windows = []
        self.is_short = False
        self.change_at = time.monotonic() + self.random.uniform(*PLENTY_SECONDS)

    def look(self):
        now = time.monotonic()
        if now < self.change_at:
            return
        if self.is_short:
            self.end()
        else:
            self.windows.append([now, None])
            self._begin()
            self.is_short = True
        self.change_at = now + self.random.uniform(*(SHORTAGE_SECONDS if self.is_short else PLENTY_SECONDS))

    def _begin(self):
        """Sets the limit, but not below the number of descriptors that are open: poll() refuses to wait for more than
        the limit, and a daemon whose limit stands still never has more."""
        self.daemon.leave_descriptors(self.random.choice(SHORTAGES), self.daemon.descriptors() + SHORTAGES[0])

    def end(self):
        if self.is_short:
            self.daemon.limit_descriptors(DESCRIPTORS)
            self.windows[-1][1] = time.monotonic()
            self.is_short = False

    def excuse(self, failure):
        """Whether a shortage explains a client's failure."""
        moment, until = failure["moment"], failure["until"]
        return failure["category"] != WRONG and any(
            began - SHORTAGE_MARGIN_SECONDS <= until and moment <= (ended or moment) + SHORTAGE_MARGIN_SECONDS
            for began, ended in self.windows)


class LoadReports:
    """The reports of the load."""

    def __init__(self, latencies):
        self.latencies = latencies
        self.lock = threading.Lock()
        self.clients = 0
        self.waived = 0
        self.served = {}
        self.done = {}
        self.failures = []
        self.disturbances = []

    def on_line(self, line):
        counters = json.loads(line)
        with self.lock:
            self.clients, self.waived = counters["clients"], counters["waived"]
            self.served, self.done = counters["served"], counters["done"]
            self.failures += counters["failures"]
            self.disturbances += counters["disturbances"]
        self.latencies.add({REPLY: counters["replies_ms"]})


class DaemonLog:
    """The daemon's log, counted by lines that differ in more than numbers, and the time of each line."""

    def __init__(self, daemon, moments):
        """moments: the file that gets each line with its time"""
        self.daemon = daemon
        self.lines = collections.Counter()
        self.moments = moments
        self.stderr = ""

    def look(self):
        now = time.monotonic()
        for priority, text in self.daemon.log.take():
            self.moments.write(f"{now:.1f} <{priority}> {text[:MAX_KEPT_CHARACTERS]!r}\n")
            line = f"<{priority}> {NUMBER.sub('N', text)}"
            if line in self.lines or len(self.lines) < MAX_DISTINCT_LINES:
                self.lines[line] += 1
            else:
                self.lines["others"] += 1
        self.stderr += self.daemon.take_stderr()

    def complaints(self):
        return (sum(count for line, count in self.lines.items() if COMPLAINT.search(line))
                + sum(1 for line in self.stderr.splitlines() if COMPLAINT.search(line) or SHORTAGE in line))

    def reports(self):
        return len(REPORT.findall(self.stderr))

    def save(self, folder):
        (folder / "log").write_text("".join(f"{count:8} {line}\n" for line, count in self.lines.most_common()),
                                    encoding="utf-8")
        (folder / "stderr").write_text(self.stderr, encoding="utf-8")


class Soak:
    """One run, from its first process to its result."""

    def __init__(self, build, minutes, out):
        self.build = build
        self.minutes = minutes
        self.out = out
        self.records = []
        self.stack = contextlib.ExitStack()

    def _start(self, moments):
        workspace = Workspace()
        self.stack.callback(workspace.remove)
        os.environ.setdefault("GST_REGISTRY", str(workspace.path / "client-registry.bin"))
        Gst.init(None)
        installation = Installation(pathlib.Path(os.environ["TESSARD_STAGE"]).resolve(), workspace)
        text = BUS_CONFIGURATION.read_text(encoding="utf-8").replace("</busconfig>\n", IDLE_PEER_POLICY)
        self.bus = Bus(installation, text=text)
        self.stack.callback(self.bus.stop)
        camera = SimulatedCamera(installation, self.bus, "--channels", str(len(CHANNELS)), "--services",
                                 f"{PTZ},{CAPTURE},{SCENES}")
        self.stack.callback(camera.finish)
        camera.wait_until_ready()
        self._start_daemon(installation)
        self.log = DaemonLog(self.daemon, moments)

    def _start_daemon(self, installation):
        preloaded = [installation.testhost]
        environment = {"G_SLICE": "always-malloc"} if self.build != NORMAL else {}
        if self.build == THREAD:
            preloaded.append(installation.tsan_glib)
        if self.build == ADDRESS:
            environment["TESTHOST_LEAK_CHECK"] = "1"
        environment["LD_PRELOAD"] = ":".join(map(str, preloaded))
        self.daemon = Daemon(installation, self.bus, plugins=ALL_PLUGINS, producers=PRODUCERS,
                             coordinator_line=None, speed=SPEED, ptz_channels=CHANNELS, environment=environment)
        self.stack.callback(self._end_daemon)
        self.daemon.wait_until_ready()
        self.daemon.limit_descriptors(DESCRIPTORS)

    def _end_daemon(self):
        """Ends the daemon after all its output has been counted."""
        self.log.look()
        self.daemon.allow_on_stderr("")
        if self.daemon.process.poll() is not None:
            self.daemon.ended = True
        self.daemon.finish()

    def _start_process(self, name, *arguments, on_line=lambda line: None):
        process = Process(name, *arguments, on_line=on_line)
        self.stack.callback(process.kill)
        return process

    def _start_load(self, reports, *more):
        return self._start_process("generate.py", self.daemon.socket_path, self.bus.address, 1,
                                   PATIENCE_SECONDS * SLOWNESS[self.build], *more, on_line=reports.on_line)

    def _warm_up(self):
        """Makes the daemon allocate what it keeps, which does not count as growth."""
        reports = LoadReports(Latencies())
        self._start_load(reports, "warm-up").end()
        assert not reports.failures, f"before the load: {reports.failures}"
        assert sum(reports.served.values()) > 0, "no client was served before the load"

    def _usage(self):
        return Usage(self.daemon.descriptors(), self.daemon.threads(), self.daemon.private_bytes() / MIB)

    def _settle(self):
        wait_until_settled(lambda: (self.daemon.descriptors(), self.daemon.threads()), "the daemon is idle",
                           IDLE_SECONDS, QUIET_SECONDS)
        return self._usage()

    def _is_alive(self):
        return self.daemon.process.poll() is None

    def _add_record(self, seconds, since, processors):
        """processors: processor time of the daemon and the load at the last record."""
        now = (self.daemon.processor_seconds(), processor_seconds(self.load.process.pid))
        shares = [(later - earlier) / since for earlier, later in zip(processors, now)]
        with self.reports.lock:
            failures = [failure for failure in self.reports.failures if not self.shortages.excuse(failure)]
            record = Record(round(seconds, 1), self._usage(), self.reports.clients,
                            sum(self.reports.served.values()), len(failures), *shares, self.latencies.take())
        for failure in failures[self.records[-1].failures if self.records else 0:]:
            print(f"failed at {failure['moment']:.1f}: {failure['who']}: {failure['what']}", flush=True)
        self.records.append(record)
        self.record_file.add(record)
        print(record.line(), flush=True)
        return now

    def _run_load(self):
        """Runs until the time is over, or until a process has ended early."""
        began = recorded = time.monotonic()
        processors = (self.daemon.processor_seconds(), processor_seconds(self.load.process.pid))
        while (now := time.monotonic()) < began + self.minutes * 60:
            if not (self._is_alive() and self.load.is_running() and self.probe.is_running()):
                break
            self.shortages.look()
            self.log.look()
            if now >= recorded + RECORD_SECONDS:
                processors = self._add_record(now - began, now - recorded, processors)
                recorded = now
            time.sleep(LOOK_SECONDS)
        if self._is_alive():
            self.shortages.end()

    def _quiet_down(self, idle):
        """Waits until the daemon has released the load's resources, up to a time limit; returns its resources then."""
        def is_back():
            self.log.look()
            usage = self._usage()
            is_small = self.build != NORMAL or usage.private_mib <= idle.private_mib + MAX_KEPT_MIB
            return is_small and usage.descriptors <= idle.descriptors and usage.threads <= idle.threads

        deadline = time.monotonic() + QUIET_SECONDS
        while time.monotonic() < deadline and not is_back():
            time.sleep(LOOK_SECONDS)
        return self._usage()

    def _check_leaks(self):
        """The number of leaks that the sanitizer reports."""
        self.daemon.process.send_signal(signal.SIGUSR2)

        def verdict():
            self.log.look()
            return LEAK_CHECK.search(self.log.stderr)

        return int(wait_until(verdict, "the leak check is over", LEAK_CHECK_SECONDS).group(1))

    def _soak(self):
        print("warming up", flush=True)
        self._warm_up()
        idle = self._settle()
        print(f"idle: {idle}", flush=True)
        self.latencies, self.shortages = Latencies(), Shortages(self.daemon)
        self.reports = LoadReports(self.latencies)
        self._start_process("idlepeer.py", self.bus.address)
        self.probe = self._start_process("busprobe.py", self.bus.address,
                                         on_line=lambda line: self.latencies.add(json.loads(line)))
        self.load = self._start_load(self.reports)
        self._run_load()
        ended = None if self._is_alive() else f"ended with {self.daemon.process.poll()}"
        self.probe.end(signal.SIGTERM)
        self.load.end()
        leaks, final = None, Usage(0, 0, 0)
        if ended is None:
            print("waiting until all resources are released", flush=True)
            final = self._quiet_down(idle)
            leaks = self._check_leaks() if self.build == ADDRESS else None
        self.log.look()
        excused = [failure for failure in self.reports.failures if self.shortages.excuse(failure)]
        done = self.reports.done | {"descriptors run out": len(self.shortages.windows)}
        run = Run(build=self.build, minutes=self.minutes, idle=idle, final=final, records=self.records,
                  latencies=self.latencies.in_all(), expected_probes=int(self.minutes * 60 * 1000 / PERIOD_MS),
                  done=done, served=self.reports.served, failures=len(self.reports.failures) - len(excused),
                  excused=len(excused), waived=self.reports.waived, complaints=self.log.complaints(),
                  reports=self.log.reports(), leaks=leaks, ended=ended)
        self._save_failures()
        if ended is None:
            self._save_what_stays()
        return run

    def _save_what_stays(self):
        """Saves the descriptors and memory mappings at the end, to find leaks."""
        (self.out / "descriptors").write_text("".join(f"{number} {target}\n" for number, target in
                                                      sorted(self.daemon.open_files().items())), encoding="utf-8")
        (self.out / "smaps").write_bytes((self.daemon.proc / "smaps").read_bytes())

    def _save_failures(self):
        failures = [failure | {"excused": self.shortages.excuse(failure)} for failure in self.reports.failures]
        shortages = [{"disturbance": "too few descriptors", "began": began, "ended": ended}
                     for began, ended in self.shortages.windows]
        disturbances = sorted(self.reports.disturbances + shortages, key=lambda disturbance: disturbance["began"])
        for name, found in (("failures", failures), ("disturbances", disturbances)):
            (self.out / name).write_text("".join(json.dumps(one) + "\n" for one in found), encoding="utf-8")

    def run(self):
        self.record_file = RecordFile(self.out / "records.csv")
        with self.stack:
            self.stack.callback(self.record_file.close)
            self._start(self.stack.enter_context(open(self.out / "lines", "w", encoding="utf-8")))
            try:
                return self._soak()
            finally:
                self.log.save(self.out)


def soak(arguments):
    """Returns the exit status."""
    arguments.out.mkdir(parents=True, exist_ok=True)
    run = Soak(arguments.build, arguments.minutes, arguments.out).run()
    run.save(arguments.out / report.RUN_FILE)
    (arguments.out / "soak.svg").write_text(report.picture(run), encoding="utf-8")
    criteria = evaluate(run, len(ENABLED))
    print(report.summary(run, criteria))
    return 0 if all(criterion.passed for criterion in criteria) else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", choices=BUILDS, default=NORMAL)
    parser.add_argument("--out", type=pathlib.Path, help="folder for the records")
    parser.add_argument("--document", type=pathlib.Path, metavar="FOLDER",
                        help="write the docs from the records of the builds in this folder")
    parser.add_argument("minutes", type=float, nargs="?", default=30)
    arguments = parser.parse_args()
    if arguments.document:
        return report.document(arguments.document)
    # Runs all clean-up at this signal too.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    return soak(arguments)


if __name__ == "__main__":
    sys.exit(main())
