# SPDX-License-Identifier: MIT
"""The demo: its options, its output, its services for other terminals, and its end, which leaves no process or file."""

import contextlib
import json
import os
import pathlib
import re
import signal
import subprocess
import urllib.request

import pytest

from installation import TREE
from tessardctl import REFUSED
from waiting import wait_until

DEMO = TREE / "demo"

# The demo starts five programs in sequence, and waits 30 s for each.
DEMO_SECONDS = 150
STREAM_SECONDS = 5

ITEM = ('{"Objects": [{"Id": 7, "Type": "Human", '
        '"BoundingBox": {"Left": -0.1, "Top": 0.1, "Right": 0.1, "Bottom": -0.1}}]}')


def processes_of(folder):
    """The processes that have the folder in their command line or environment, by id: the command lines."""
    found = {}
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            command = (process / "cmdline").read_bytes()
            if str(folder).encode() in command + (process / "environ").read_bytes():
                found[int(process.name)] = command.split(b"\0")
    return found


class Demo:
    """A running demo. Its output goes to files, which the tests read."""

    def __init__(self, installation, folder, *args, stdin=subprocess.DEVNULL):
        self.out_path, self.err_path = folder / "out", folder / "err"
        self.stage = installation.tessard.parents[2]
        environment = {name: value for name, value in os.environ.items() if not name.startswith("GST_")}
        with open(self.out_path, "wb") as out, open(self.err_path, "wb") as err:
            self.process = subprocess.Popen(
                [DEMO, *args, "--stage", self.stage], stdin=stdin, stdout=out, stderr=err,
                # The scanner is not instrumented and cannot load plug-ins that are.
                env=environment | installation.sanitizer_environment() | {"GST_REGISTRY_FORK": "no"})

    @property
    def out(self):
        return self.out_path.read_text(encoding="utf-8")

    @property
    def err(self):
        return self.err_path.read_text(encoding="utf-8")

    def wait_for(self, pattern):
        """Waits until the output matches a regular expression, and returns the match."""

        def search():
            match = re.search(pattern, self.out, re.MULTILINE)
            assert match or self.process.poll() is None, f"{self.out}{self.err}"
            return match

        return wait_until(search, pattern, DEMO_SECONDS)

    def work_folder(self):
        return pathlib.Path(self.wait_for(r"socket (/tmp/tessard\.\w+)/run/metadata$")[1])

    def finish(self):
        """Waits for the end, and expects that no file or process is left."""
        status = self.process.wait(DEMO_SECONDS)
        for folder in set(re.findall(r"/tmp/tessard\.\w+", self.out)):
            if self.stage.is_relative_to(folder):
                continue
            assert not pathlib.Path(folder).exists()
            assert processes_of(folder) == {}
        return status

    def end_by(self, number):
        self.process.send_signal(number)
        return self.finish()

    def clean_up(self):
        if self.process.poll() is None:
            self.process.terminate()
            self.process.wait(DEMO_SECONDS)


@pytest.fixture
def start_demo(installation, tmp_path):
    demos = []

    def start(*args, **popen_args):
        demos.append(Demo(installation, tmp_path, *args, **popen_args))
        return demos[-1]

    yield start
    for demo in demos:
        demo.clean_up()


@pytest.fixture
def env_file(tmp_path):
    return tmp_path / "tessard env"


@pytest.fixture
def serving(start_demo, env_file):
    """A demo with --serve."""
    demo = start_demo("--serve", "--env", env_file)
    wait_until(lambda: env_file.exists() or demo.process.poll() is not None, "the demo serves", DEMO_SECONDS)
    assert demo.process.poll() is None, demo.err
    return demo


def in_another_terminal(lines, command):
    """Runs a command after shell lines, in a shell without other variables of the demo."""
    kept = {name: value for name, value in os.environ.items() if name == "PATH" or name.endswith("SAN_OPTIONS")}
    return subprocess.run(["sh", "-c", f"{lines}\n{command}"], env=kept | {"LC_ALL": "C.UTF-8"},
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False, timeout=DEMO_SECONDS)


class TestUsage:
    def run(self, *args):
        return subprocess.run([DEMO, *args], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
                              timeout=DEMO_SECONDS)

    def test_help(self):
        result = self.run("--help")
        assert (result.returncode, result.stderr) == (0, "")
        assert result.stdout.startswith("Usage: ./demo ")
        assert re.findall(r"^  (--[a-z]+)", result.stdout, re.MULTILINE) == [
            "--seconds", "--live", "--video", "--producer", "--serve", "--view", "--env", "--stage", "--help"]

    @pytest.mark.parametrize("args, message", [
        (["--nonsense"], "unknown argument: --nonsense"),
        (["--seconds"], "--seconds needs a number"),
        (["--seconds", "0"], "not a number of seconds from 1 to 99999: 0"),
        (["--seconds=1s"], "not a number of seconds from 1 to 99999: 1s"),
        (["--env", "file"], "--env needs --serve or --view"),
        (["--serve", "--env"], "--env needs FILE"),
        (["--serve", "--seconds", "5"], "--serve and --view stream nothing, so --seconds has no meaning"),
        (["--view", "--seconds=5"], "--serve and --view stream nothing, so --seconds has no meaning"),
        (["--serve", "--env", "/dev/null"], "not a regular file: /dev/null"),
        (["--serve", "--env", "/nonexistent/file"], "cannot write to the folder of: /nonexistent/file"),
        (["--video"], "--video needs SOURCE"),
        (["--video", "videotestsrc"], "--video needs --live"),
        (["--live", "--producer", "Mine=-"], "--producer needs the simulated camera, which --live does without"),
        (["--stage", "/nonexistent"], "no installation with prefix /usr below: /nonexistent"),
        (["--producer", "Mine"], "not NAME=FILE with a name of letters, digits and underscores: Mine"),
        (["--producer", "a b=-"], "not NAME=FILE with a name of letters, digits and underscores: a b=-"),
        (["--producer", "PersonDetector=-"], "the demo has a producer PersonDetector already"),
        (["--producer", "Mine=/nonexistent"], "not a file that can be read, or empty: /nonexistent"),
    ])
    def test_wrong_usage(self, args, message):
        result = self.run(*args)
        assert (result.returncode, result.stdout) == (2, "")
        assert result.stderr.startswith(f"demo: {message}\nUsage: ./demo ")


def test_stream_with_a_producer_of_standard_input(start_demo):
    detections = f"while echo '{ITEM}' && echo nonsense; do sleep 0.2; done"
    with subprocess.Popen(["sh", "-c", detections], stdout=subprocess.PIPE) as detector:
        demo = start_demo("--seconds", str(STREAM_SECONDS), "--producer", "Mine=-", stdin=detector.stdout)
        detector.stdout.close()
        status = demo.finish()
    assert (status, demo.err) == (0, ""), demo.out
    for name in ("VideoMotionTracker", "RadarMotionTracker", "PersonDetector", "Mine"):
        assert re.search(rf"^{name} .* enabled ", demo.out, re.MULTILINE)
    assert len(re.findall(r"^tessard: Warning from json2xml in .*malformed", demo.out, re.MULTILINE)) == 1
    summary = demo.out.splitlines()[-1]
    assert re.match(r"\d+ documents, \d+ bytes in \d+ s: ", summary)
    for kind in ("events", "PTZ", "video scenes of Entrance", "radar scenes of Forecourt", "detections of Persons",
                 "detections of Mine"):
        assert re.search(rf"\b[1-9]\d* {kind}\b", summary)


class TestServe:
    def test_environment_file_works_in_another_terminal(self, serving, env_file):
        names = [line.split("=")[0] for line in env_file.read_text(encoding="utf-8").splitlines()]
        assert names == [f"export {name}" for name in
                         ("DBUS_SYSTEM_BUS_ADDRESS", "TESSARD_SOCKET", "GST_PLUGIN_PATH", "PATH")]

        def run(command):
            return in_another_terminal(f'. "{env_file}"', command)

        listed = run("tessardctl list --names").stdout.split()
        assert {"PersonDetector", "RadarMotionTracker", "VideoMotionTracker"} <= set(listed)
        assert run("tessardctl disable PersonDetector 1").stderr == ""
        assert run("tessardctl stream --event --count 1").stdout.count("</tt:MetadataStream>") == 1
        folders = [pathlib.Path(folder) for folder in run('printf %s "$GST_PLUGIN_PATH"').stdout.split(":")]
        for plugin in ("onvifeventsrc", "json2xml", "onvifxmlmetadatastreamdoc"):
            assert any((folder / f"libgst{plugin}.so").is_file() for folder in folders)

        # Later log lines of the daemon are printed.
        assert run("tessardctl stream --analytics 9").returncode == REFUSED
        serving.wait_for(r"^tessard: Invalid value of 'analytics' parameter: '9'\.$")
        assert "Starting." not in serving.out

        assert serving.end_by(signal.SIGINT) == 130
        assert serving.err == ""
        assert not env_file.exists()

    def test_without_a_file_the_lines_are_printed(self, start_demo):
        demo = start_demo("--serve")
        demo.wait_for(r"^export PATH=.*\n")
        lines = "\n".join(line for line in demo.out.splitlines() if line.startswith("export "))
        assert "PersonDetector" in in_another_terminal(lines, "tessardctl producers").stdout
        assert demo.end_by(signal.SIGTERM) == 143

    def test_demo_ends_with_the_daemon(self, serving, env_file):
        folder = serving.work_folder()
        daemons = [process for process, command in processes_of(folder).items() if command[0].endswith(b"/bin/tessard")]
        assert len(daemons) == 1
        os.kill(daemons[0], signal.SIGKILL)
        assert serving.finish() == 1
        assert serving.err == "demo: ended by itself: the daemon\n"
        assert not env_file.exists()


class TestView:
    @pytest.fixture(autouse=True)
    def needs_view(self, installation):
        if not (installation.prefix / "bin/tessard-view").exists():
            pytest.skip("tessard-view is not built")

    def test_it_prints_the_address(self, start_demo):
        """The page is there, streams frames of every producer, and its switches work."""
        demo = start_demo("--view")
        address = demo.wait_for(r"^== in a browser: (http://127\.0\.0\.1:\d+/)#token=([0-9a-f]{64})$")
        demo.wait_for(r"^== serving until Ctrl-C; in another terminal:$")
        with urllib.request.urlopen(address[1], timeout=DEMO_SECONDS) as reply:
            assert b"<title>tessard view</title>" in reply.read()
        missing = {"Entrance", "Forecourt", "Persons"}
        with urllib.request.urlopen(f"{address[1]}stream?channel=1", timeout=DEMO_SECONDS) as stream:
            for line in stream:
                if line.startswith(b'data: {"Frame":'):
                    missing.discard(json.loads(line.removeprefix(b"data: "))["Frame"][0].get("@Source"))
                if not missing:
                    break
        assert not missing
        change = json.dumps({"producer": "PersonDetector", "channel": 1, "enabled": False}).encode()
        request = urllib.request.Request(f"{address[1]}producers", change, {
            "Content-Type": "application/json", "Authorization": f"Bearer {address[2]}", "Origin": address[1][:-1]})
        with urllib.request.urlopen(request, timeout=DEMO_SECONDS) as reply:
            assert reply.status == 204
        assert demo.end_by(signal.SIGINT) == 130
        assert demo.err == ""


@pytest.mark.usefixtures("introspection")
class TestLive:
    def test_detections_are_shown_and_nothing_is_simulated(self, start_demo):
        demo = start_demo("--live", "--seconds", str(STREAM_SECONDS))
        status = demo.finish()
        assert (status, demo.err) == (0, ""), demo.out
        assert re.search(r"^Detector .* enabled ", demo.out, re.MULTILINE)
        assert "simulated" not in demo.out
        summary = demo.out.splitlines()[-1]
        assert re.match(r"\d+ documents, \d+ bytes in \d+ s: ", summary)
        assert re.search(r"\b[1-9]\d* detections of Detector\b", summary)
        # The ball, from the first second on.
        assert re.search(r"^\d\d:\d\d:\d\d\.\d+ +detections of Detector +object \d+ at x=", demo.out, re.MULTILINE)

    def test_it_serves_other_terminals(self, start_demo, env_file):
        demo = start_demo("--live", "--serve", "--env", env_file)
        wait_until(lambda: env_file.exists() or demo.process.poll() is not None, "the demo serves", DEMO_SECONDS)
        documents = in_another_terminal(f'. "{env_file}"', "tessardctl stream --analytics 2 --count 3").stdout
        assert documents.count("</tt:MetadataStream>") == 3
        assert documents.count('Source="Detector"') >= 1
        assert demo.end_by(signal.SIGINT) == 130
        assert demo.err == ""

    def test_it_ends_with_the_detector(self, start_demo):
        demo = start_demo("--live", "--serve", "--video", "videotestsrc is-live=true num-buffers=150")
        assert demo.finish() == 1
        assert demo.err == "demo: ended by itself: the detector\n"

    def test_a_wrong_video_is_named(self, start_demo):
        demo = start_demo("--live", "--video", "nonexistentsrc")
        assert demo.finish() == 1
        assert 'no element "nonexistentsrc"' in demo.err
        assert demo.err.endswith("the lines above are the logs of the detector and the receiver\n")
