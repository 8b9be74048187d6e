# SPDX-License-Identifier: MIT
"""The element tessardsrc, with the daemon: gst-launch-1.0, and a program that reports each buffer and each complaint."""

import json
import queue
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

import pytest
from lxml import etree

from daemon import NOTHING_REQUESTED
from installation import SOURCE_PLUGIN
from scenes import BUSY_SECONDS, VIDEO
from waiting import BOUND_SECONDS

ENDED = "The daemon ended the stream."
DOCUMENT = re.compile(rb"<\?xml .*?</tt:MetadataStream>", re.DOTALL)

# Runs a pipeline whose sink is named "sink", and prints a line for each buffer and each complaint, until its input
# ends. A line "SYNC" sends a key unit request, and a line with a state changes it.
READER = """\
import json, sys
import gi
gi.require_version("Gst", "1.0")
from gi.repository import GLib, Gst

def report(**line):
    print(json.dumps(line), flush=True)

def on_buffer(pad, info):
    buffer = info.get_buffer()
    meta = buffer.get_reference_timestamp_meta(Gst.Caps.from_string("timestamp/x-unix"))
    report(text=buffer.extract_dup(0, buffer.get_size()).decode(), pts=buffer.pts,
           discont=buffer.has_flags(Gst.BufferFlags.DISCONT), unix=meta.timestamp if meta else None)
    return Gst.PadProbeReturn.OK

def on_message(bus, message):
    if message.src == source and message.type in (Gst.MessageType.ERROR, Gst.MessageType.WARNING):
        error, _ = (message.parse_error if message.type == Gst.MessageType.ERROR else message.parse_warning)()
        report(complaint=message.type.first_value_nick, domain=error.domain, code=error.code, message=error.message)

def on_line(channel, condition):
    line = sys.stdin.readline().strip()
    if not line:
        loop.quit()
        return False
    if line == "SYNC":
        event = Gst.Event.new_custom(Gst.EventType.CUSTOM_UPSTREAM, Gst.Structure.new_empty("GstForceKeyUnit"))
        report(sent=pad.push_event(event))
    else:
        report(state=pipeline.set_state(getattr(Gst.State, line)).value_nick)
    return True

Gst.init(None)
pipeline = Gst.parse_launch(sys.argv[1])
source = pipeline.get_by_name("source")
pad = pipeline.get_by_name("sink").get_static_pad("sink")
pad.add_probe(Gst.PadProbeType.BUFFER, on_buffer)
bus = pipeline.get_bus()
bus.add_signal_watch()
bus.connect("message", on_message)
GLib.io_add_watch(0, GLib.IO_IN | GLib.IO_HUP, on_line)
loop = GLib.MainLoop()
pipeline.set_state(Gst.State.PLAYING)
loop.run()
pipeline.set_state(Gst.State.NULL)
"""


class Reader:
    """The program READER with the given settings of tessardsrc."""

    def __init__(self, environment, socket_path, settings):
        pipeline = f"tessardsrc name=source socket-path={socket_path} {settings} ! fakesink name=sink sync=false"
        self.process = subprocess.Popen([sys.executable, "-c", READER, pipeline], env=environment, text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.lines = queue.Queue()
        self.thread = threading.Thread(target=self.__read)
        self.thread.start()

    def __read(self):
        for line in self.process.stdout:
            self.lines.put(json.loads(line))

    def next(self, member):
        """The next line that has this member."""
        while True:
            line = self.lines.get(timeout=BOUND_SECONDS)
            if member in line:
                return line

    def command(self, line):
        self.process.stdin.write(f"{line}\n")
        self.process.stdin.flush()

    def finish(self):
        self.process.stdin.close()
        try:
            assert self.process.wait(BOUND_SECONDS) == 0
        finally:
            self.process.kill()
            self.process.wait()
            self.thread.join(BOUND_SECONDS)
            self.process.stdout.close()


@pytest.fixture(name="environment")
def make_environment(installation):
    return installation.plugin_host_environment() | installation.plugin_environment((SOURCE_PLUGIN,))


@pytest.fixture(name="read")
def make_reader(environment):
    readers = []

    def start(daemon, settings="event=true"):
        readers.append(Reader(environment, daemon.socket_path, settings))
        return readers[-1]

    yield start
    for reader in readers:
        if reader.process.returncode is None:
            reader.finish()


@pytest.fixture(name="launch_pipeline")
def make_pipeline(environment):
    """Runs gst-launch-1.0 to its end and returns its status, output and errors."""

    def run(daemon, description):
        result = subprocess.run([shutil.which("gst-launch-1.0"), "-q", *description.split()],
                                env=environment | {"TESSARD_SOCKET": str(daemon.socket_path)}, capture_output=True,
                                timeout=BOUND_SECONDS, check=False)
        return result.returncode, result.stdout, result.stderr.decode()

    return run


# gst-launch-1.0


def test_documents_with_gst_launch(camera, start_daemon, launch_pipeline):
    daemon = start_daemon(plugins=VIDEO.plugins, speed=4, world_seconds=BUSY_SECONDS, producers=VIDEO.enabled("Front"))
    status, out, err = launch_pipeline(daemon, "tessardsrc analytics=2 num-buffers=5 ! fdsink")
    documents = DOCUMENT.findall(out)
    assert (status, err, len(documents), b"".join(documents)) == (0, "", 5, out)
    for document in documents:
        assert etree.fromstring(document).tag == "{http://www.onvif.org/ver10/schema}MetadataStream"
    daemon.expect_idle_and_no_log()


def test_reason_of_a_refusal(daemon, launch_pipeline):
    status, out, err = launch_pipeline(daemon, "tessardsrc ! fdsink")
    assert (status, out) == (1, b"")
    reason = NOTHING_REQUESTED.removeprefix("FAIL\n")
    assert err.splitlines()[0] == f"ERROR: from element /GstPipeline:pipeline0/TessardSrc:tessardsrc0: {reason}"


def test_inspection(environment):
    result = subprocess.run([shutil.which("gst-inspect-1.0"), "tessardsrc"], env=environment, stdout=subprocess.PIPE,
                            text=True, timeout=BOUND_SECONDS, check=True)
    for text in ("ONVIF metadata source", "Source/Metadata", "application/x-onvif-metadata",
                 "(2): polygons         - Objects with bounding boxes and polygons"):
        assert text in result.stdout
    assert "simula" not in result.stdout.lower()


# Buffers


def test_buffers_have_the_times_of_arrival_and_of_the_document(daemon, read):
    before = time.time_ns()
    reader = read(daemon)
    buffers = [reader.next("text") for _ in range(2)]
    assert [buffer["discont"] for buffer in buffers] == [True, False]
    assert 0 <= buffers[0]["pts"] <= buffers[1]["pts"] <= time.time_ns() - before
    for buffer in buffers:
        time_of_message = re.search(r'UtcTime="([^"]*)"', buffer["text"])[1]
        whole_seconds = time.mktime(time.strptime(time_of_message[:19], "%Y-%m-%dT%H:%M:%S")) - time.timezone
        assert buffer["unix"] // 10**9 == whole_seconds


def test_key_unit_request_is_a_sync_point(daemon, read):
    reader = read(daemon)
    first = reader.next("text")
    assert 'PropertyOperation="Initialized"' in first["text"]
    reader.command("SYNC")
    # The streaming thread can report the state before the other one reports what it has sent.
    awaited = [lambda line: line.get("sent"), lambda line: 'PropertyOperation="Initialized"' in line.get("text", "")]
    while awaited:
        line = reader.lines.get(timeout=BOUND_SECONDS)
        awaited = [condition for condition in awaited if not condition(line)]


def test_pause_ends_the_connection(daemon, read):
    reader = read(daemon)
    reader.next("text")
    reader.command("PAUSED")
    assert reader.next("state")["state"] == "no-preroll"
    daemon.wait_until_idle()
    reader.command("PLAYING")
    assert reader.next("text")["discont"]


# The end of the daemon


def test_end_of_the_daemon_is_an_error(daemon, read):
    reader = read(daemon)
    reader.next("text")
    daemon.end(signal.SIGKILL)
    complaint = reader.next("complaint")
    assert (complaint["complaint"], complaint["domain"], complaint["message"]) == (
        "error", "gst-resource-error-quark", ENDED)
    assert complaint["code"] == 9  # GST_RESOURCE_ERROR_READ


def test_source_goes_on_with_the_next_daemon(daemon, read):
    reader = read(daemon, "event=true reconnect=true")
    assert reader.next("text")["discont"]
    assert not reader.next("text")["discont"]
    daemon.end(signal.SIGKILL)
    complaint = reader.next("complaint")
    assert (complaint["complaint"], complaint["message"]) == ("warning", ENDED)

    daemon.start_again()
    buffer = reader.next("text")
    assert (buffer["discont"], 'PropertyOperation="Initialized"' in buffer["text"]) == (True, True)
    reader.finish()
    daemon.wait_until_ready()
