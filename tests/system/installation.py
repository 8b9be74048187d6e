"""The staged installation under test, and what stands around it: the user that the daemon runs as, folders that this
user can reach, GStreamer plug-ins by choice and a private system bus."""

import functools
import grp
import json
import math
import os
import pathlib
import pwd
import re
import shutil
import subprocess
import tempfile

import gi

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

from waiting import BOUND_SECONDS  # noqa: E402

TREE = pathlib.Path(__file__).resolve().parents[2]

# Whether the installed programs have the address sanitizer, which is slow and brings an allocator of its own.
SANITIZED = "ASAN_OPTIONS" in os.environ

UNPRIVILEGED_USER = "nobody"
UNPRIVILEGED_GROUP = "nogroup"

# What GStreamer itself brings to the daemon's pipelines; all else on the machine stays out of sight.
STANDARD_PLUGINS = ("coreelements", "gdp", "app")

EVENT_PLUGIN = "onvifeventsrc"
PTZ_PLUGIN = "statuscacheptz"
SCENE_PLUGIN = "scene"
RADAR_PLUGIN = "radarscene"
JSON_PLUGIN = "json2xml"
DOCUMENT_PLUGIN = "onvifxmlmetadatastreamdoc"
SIMULATED_PLUGINS = (EVENT_PLUGIN, PTZ_PLUGIN, SCENE_PLUGIN, RADAR_PLUGIN, JSON_PLUGIN, DOCUMENT_PLUGIN)

# What a client that asks for events needs.
EVENT_PLUGINS = (EVENT_PLUGIN, DOCUMENT_PLUGIN)

# What one that asks for PTZ needs.
PTZ_PLUGINS = (PTZ_PLUGIN, DOCUMENT_PLUGIN)

# What one that asks for scenes or radar scenes needs: no analytics at all without the converter of external producers.
SCENE_PLUGINS = (SCENE_PLUGIN, JSON_PLUGIN, DOCUMENT_PLUGIN)
RADAR_PLUGINS = (RADAR_PLUGIN, JSON_PLUGIN, DOCUMENT_PLUGIN)

BUS_CONFIGURATION = TREE / "scripts/private-bus.conf.in"

# Whom the installed bus policy names, each once.
DAEMON_USER = "tessard"
ADMIN_GROUP = "tessard-admin"


def run_by_root():
    return os.geteuid() == 0


def build_folder():
    """The build folder of the installation under test."""
    return pathlib.Path(os.environ.get("TESSARD_BUILD", TREE / "build-desk")).resolve()


@functools.cache
def build_option(name):
    """The value of an option that the build folder is configured with."""
    options = json.loads((build_folder() / "meson-info/intro-buildoptions.json").read_text(encoding="utf-8"))
    return next(option["value"] for option in options if option["name"] == name)


def staged_prefix(stage):
    """The folder of a staged installation that the prefix became."""
    return stage / pathlib.PurePath(build_option("prefix")).relative_to("/")


def unprivileged():
    """Arguments for subprocess that drop a root's privileges; others run things as themselves."""
    if not run_by_root():
        return {}
    return {"user": UNPRIVILEGED_USER, "group": UNPRIVILEGED_GROUP, "extra_groups": []}


def testing_user():
    return pwd.getpwuid(os.geteuid()).pw_name


# GLib's names for a time in microseconds.
TIME_SPANS = {"G_TIME_SPAN_MILLISECOND": 1000, "G_TIME_SPAN_SECOND": 1000 * 1000}


def value_of(expression, names=None):
    """The value of a number, or of a sum of products of numbers and names."""
    names = TIME_SPANS | (names or {})

    def value_of_factor(text):
        return names[text] if text in names else int(text)

    return sum(math.prod(value_of_factor(factor.strip()) for factor in product.split("*"))
               for product in expression.strip("()").split("+"))


def defined_limits(header):
    """The numbers that a header defines, by name. Texts, types and macros with arguments are left out; a number that
    is written in any other way than as a sum is an error."""
    numbers = {}
    for name, value in re.findall(r"^#define (\w+) +([^\n]+)$", header.read_text(encoding="utf-8"), re.MULTILINE):
        if '"' not in value and not re.search(r"\w\(", value):
            numbers[name] = value_of(value, numbers)
    return numbers


def documented_limit(header, name):
    """The value of a constant that a header of the daemon defines. The tests of the documentation compare it with
    what is told there."""
    return defined_limits(TREE / "src" / header)[name]


class Workspace:
    """A folder of this session's own, which the daemon's user can enter wherever the tree itself is kept."""

    def __init__(self):
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="tessard-test-", dir="/tmp"))
        self.path.chmod(0o755)
        self.count = 0

    def folder(self, mode=0o755):
        """A new folder that belongs to the daemon's user. Its path is short, as a socket's has to be."""
        self.count += 1
        path = self.path / str(self.count)
        path.mkdir()
        path.chmod(mode)
        if run_by_root():
            shutil.chown(path, UNPRIVILEGED_USER, UNPRIVILEGED_GROUP)
        return path

    def remove(self):
        shutil.rmtree(self.path)


class Installation:
    """Where everything of one staged installation is, and of the tests' libraries, which are never installed."""

    def __init__(self, stage, workspace):
        self.workspace = workspace
        self.prefix = staged_prefix(stage)
        self.tessard = self._daemon()
        self.simcamera = self._only("lib*/**/tessard/sim/simcamera")
        self.bus_policy = self.prefix / build_option("datadir") / "dbus-1/system.d/com.quon.MetadataServer1.conf"
        self.testhost = self._test_library("tests/system/preload/libtesthost.so")
        # Only a build with the thread sanitizer has it.
        self.tsan_glib = self._test_library("tests/tsan/libtsan-glib-preload.so")
        self.plugins = {name: self._only(f"lib*/**/tessard/sim/plugins/libgst{name}.so")
                        for name in SIMULATED_PLUGINS}
        self.plugins |= {name: pathlib.Path(Gst.Registry.get().find_plugin(name).get_filename())
                         for name in STANDARD_PLUGINS}
        self.failing_plugins = {name: self._test_library(f"tests/system/plugins/libgst{name}.so")
                                for name in (EVENT_PLUGIN, JSON_PLUGIN)}
        self.plugin_environments = {}

    def _only(self, pattern):
        (path,) = self.prefix.glob(pattern)
        return path

    def _daemon(self):
        """The installed daemon, or the tests' own if the installed one has its producers in one file of the system."""
        if os.path.isabs(build_option("producers_conf")):
            return self._readable_copy(build_folder() / "tests/system/tessard", 0o755)
        return self.prefix / "bin/tessard"

    def _test_library(self, name):
        """A copy of a library that the build made, which the daemon's user can read; None when the build has none."""
        original = build_folder() / name
        return self._readable_copy(original) if original.exists() else None

    def new_plugin_folder(self, names, failing=False, without=()):
        """A folder with exactly the named plug-ins beside GStreamer's own, and the variables that point to it. Where
        there is a plug-in that fails as its test wishes, `failing` takes that one. `without` leaves some of GStreamer's
        own out."""
        folder = self.workspace.folder()
        plugins = self.plugins | (self.failing_plugins if failing else {})
        for name in (set(STANDARD_PLUGINS) - set(without)) | set(names):
            (folder / plugins[name].name).symlink_to(plugins[name])
        return folder, {
            "GST_PLUGIN_SYSTEM_PATH": "",
            "GST_PLUGIN_PATH": str(folder),
            "GST_REGISTRY": str(folder / "registry.bin"),
            # The scanner is not instrumented and cannot load plug-ins that are.
            "GST_REGISTRY_FORK": "no",
        }

    def plugin_environment(self, names):
        """The same, but one folder for all who ask for the same plug-ins."""
        key = frozenset(names)
        if key not in self.plugin_environments:
            _, self.plugin_environments[key] = self.new_plugin_folder(names)
        return self.plugin_environments[key]

    def sanitizer_environment(self, more=None):
        """The sanitizers' variables of this session with more options, made fit for the daemon: its user can read the
        files that they name, and the preloaded library may come before the sanitizer's own."""
        variables = {name: re.sub(r"(?<=\bsuppressions=)[^:]+", self._copy_match, value)
                     for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")}
        options = [variables.get("ASAN_OPTIONS"), "verify_asan_link_order=0", more]
        variables["ASAN_OPTIONS"] = ":".join(filter(None, options))
        return variables

    def _copy_match(self, match):
        return str(self._readable_copy(pathlib.Path(match.group())))

    def _readable_copy(self, original, mode=0o644):
        copy = self.workspace.path / original.name
        if not copy.exists():
            shutil.copyfile(original, copy)
            copy.chmod(mode)
        return copy


class Bus:
    """A message bus of this session's own, which stands for the system's and has the installed policy for the daemon's
    name.

    owner: the user that stands in for the daemon's, by default the one that daemons are started as
    administrators: the group that stands in for the administrators', by default that of the user who tests; root needs
    none
    text: the bus' configuration, if not the usual one; "@socket@" and "@policy@" in it stand for the paths"""

    def __init__(self, installation, owner=None, administrators=None, text=None):
        folder = installation.workspace.folder()
        policy = folder / "policy.conf"
        policy.write_text(self._policy(installation, owner, administrators), encoding="utf-8")
        text = text or BUS_CONFIGURATION.read_text(encoding="utf-8")
        for placeholder, path in (("@socket@", folder / "socket"), ("@policy@", policy)):
            text = text.replace(placeholder, str(path))
        self.configuration = folder / "bus.conf"
        self.configuration.write_text(text, encoding="utf-8")
        self.address = None
        self.process = None
        self.start()

    @staticmethod
    def _policy(installation, owner, administrators):
        """The installed policy as it is, but for whom it names: they are not there on a machine that only tests."""
        text = installation.bus_policy.read_text(encoding="utf-8")
        owner = owner or (UNPRIVILEGED_USER if run_by_root() else testing_user())
        if not run_by_root():
            administrators = administrators or grp.getgrgid(os.getegid()).gr_name
        for placeholder, stand_in in ((f'user="{DAEMON_USER}"', f'user="{owner}"'),
                                      (f'group="{ADMIN_GROUP}"', f'group="{administrators or ADMIN_GROUP}"')):
            assert text.count(placeholder) == 1
            text = text.replace(placeholder, stand_in)
        return text

    def start(self):
        """Also after stop(), at the same address again."""
        self.process = subprocess.Popen(
            ["dbus-daemon", f"--config-file={self.configuration}", "--nofork", "--nopidfile", "--nosyslog",
             "--print-address=1"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, cwd="/", text=True, **unprivileged())
        # Printed once the bus listens. What follows the comma is new with each start.
        self.address, _, _ = self.process.stdout.readline().strip().partition(",")
        assert self.address.startswith("unix:path="), "the private bus did not start"

    def stop(self):
        if self.process:
            self.process.terminate()
            self.process.wait(BOUND_SECONDS)
            self.process.stdout.close()
        self.process = None


def make_stage(workspace):
    """Installs the build folder below the workspace."""
    stage = workspace.path / "stage"
    subprocess.run(["meson", "install", "--no-rebuild", "--quiet", "-C", build_folder(), "--destdir", stage],
                   check=True, umask=0o022)
    return stage
