# SPDX-License-Identifier: MIT
"""The staged installation under test and its environment: the daemon's user, folders that this user can access,
selected GStreamer plug-ins and a private system bus."""

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
import pytest

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

from waiting import BOUND_SECONDS  # noqa: E402

TREE = pathlib.Path(__file__).resolve().parents[2]

UNPRIVILEGED_USER = "nobody"
UNPRIVILEGED_GROUP = "nogroup"

# GStreamer's own plug-ins that the daemon needs; no other plug-in of the machine is visible.
STANDARD_PLUGINS = ("coreelements", "gdp", "app")

EVENT_PLUGIN = "onvifeventsrc"
PTZ_PLUGIN = "statuscacheptz"
SCENE_PLUGIN = "scene"
RADAR_PLUGIN = "radarscene"
JSON_PLUGIN = "json2xml"
DOCUMENT_PLUGIN = "onvifxmlmetadatastreamdoc"
SOURCE_PLUGIN = "tessard"

# tessard's own event source, whose file has the same name as the simulated one.
OWN_EVENT_PLUGIN = "own onvifeventsrc"

# The plug-ins of the simulated camera, and those of tessard's own that the daemon uses.
SIMULATED_PLUGINS = (EVENT_PLUGIN, PTZ_PLUGIN, SCENE_PLUGIN, RADAR_PLUGIN)
OWN_PLUGINS = (JSON_PLUGIN, DOCUMENT_PLUGIN)
SIMCAMERA = "lib*/**/tessard/sim/simcamera"
ALL_PLUGINS = (*SIMULATED_PLUGINS, *OWN_PLUGINS)

# Plug-ins for requests for events.
EVENT_PLUGINS = (EVENT_PLUGIN, DOCUMENT_PLUGIN)

# Plug-ins for requests for PTZ.
PTZ_PLUGINS = (PTZ_PLUGIN, DOCUMENT_PLUGIN)

# Plug-ins for requests for scenes and radar scenes: all analytics needs the converter of external producers.
SCENE_PLUGINS = (SCENE_PLUGIN, JSON_PLUGIN, DOCUMENT_PLUGIN)
RADAR_PLUGINS = (RADAR_PLUGIN, JSON_PLUGIN, DOCUMENT_PLUGIN)

BUS_CONFIGURATION = TREE / "scripts/private-bus.conf.in"

# The user and the group in the installed bus policy, which names each once.
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


# Whether the installed programs have AddressSanitizer, which is slow and has its own allocator. Meson sets its variables
# for every test.
SANITIZED = "address" in build_option("b_sanitize")

# A sanitizer's allocator keeps freed memory.
needs_allocator = pytest.mark.skipif(SANITIZED, reason="a sanitizer's allocator is in use")


def staged_prefix(stage):
    """The prefix within a staged installation."""
    return stage / pathlib.PurePath(build_option("prefix")).relative_to("/")


def unprivileged():
    """Arguments for subprocess that drop root's privileges; empty for other users."""
    if not run_by_root():
        return {}
    return {"user": UNPRIVILEGED_USER, "group": UNPRIVILEGED_GROUP, "extra_groups": []}


def user_of_tests():
    return pwd.getpwuid(os.geteuid()).pw_name


# GLib's names for times, in microseconds.
TIME_SPANS = {"G_TIME_SPAN_MILLISECOND": 1000, "G_TIME_SPAN_SECOND": 1000 * 1000}


def value_of(expression, names=None):
    """The value of a number, or of a sum of products of numbers and names."""
    names = TIME_SPANS | (names or {})

    def value_of_factor(text):
        return names[text] if text in names else int(text)

    return sum(math.prod(value_of_factor(factor.strip()) for factor in product.split("*"))
               for product in expression.strip("()").split("+"))


def defined_limits(header):
    """The numbers that a header defines, by name, without texts, types and macros with arguments. A number must be a
    sum of products."""
    numbers = {}
    for name, value in re.findall(r"^#define (\w+) +([^\n]+)$", header.read_text(encoding="utf-8"), re.MULTILINE):
        if '"' not in value and not re.search(r"\w\(", value):
            numbers[name] = value_of(value, numbers)
    return numbers


def documented_limit(header, name):
    """The value of a constant in a header of the daemon. The tests of the documentation compare it with the docs."""
    return defined_limits(TREE / "src" / header)[name]


def sanitizer_runtimes(plugin):
    """The paths of the sanitizers' runtimes that a plug-in needs."""
    needed = subprocess.run(["ldd", plugin], check=True, capture_output=True, text=True).stdout
    return re.findall(r"^\s*lib[a-z]+san\.so\S* => (\S+)", needed, re.MULTILINE)


class Workspace:
    """A folder of this session, which the daemon's user can enter even if it cannot enter the source tree."""

    def __init__(self):
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="tessard-test-", dir="/tmp"))
        self.path.chmod(0o755)
        self.count = 0

    def folder(self, mode=0o755):
        """A new folder of the daemon's user, with a path that is short enough for sockets."""
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
    """The paths of a staged installation, and of the tests' libraries, which are never installed."""

    def __init__(self, stage, workspace):
        self.workspace = workspace
        self.prefix = staged_prefix(stage)
        self.tessard = self._daemon()
        self.simcamera = self._only(SIMCAMERA)
        # Where the camera is not the subject of a test, a sanitizer in it would only take time.
        plain_stage = os.environ.get("TESSARD_PLAIN_STAGE")
        self.plain_simcamera = only(staged_prefix(pathlib.Path(plain_stage)), SIMCAMERA) if plain_stage else self.simcamera
        self.bus_policy = self.prefix / build_option("datadir") / "dbus-1/system.d/com.quon.MetadataServer1.conf"
        self.testhost = self._test_library("tests/system/preload/libtesthost.so")
        # Only a build with the thread sanitizer has it.
        self.tsan_glib = self._test_library("tests/tsan/libtsan-glib-preload.so")
        self.plugins = {name: self._only(f"lib*/**/tessard/sim/plugins/libgst{name}.so")
                        for name in SIMULATED_PLUGINS}
        self.plugins |= {name: self._only(f"lib*/**/gstreamer-1.0/libgst{name}.so")
                         for name in (*OWN_PLUGINS, SOURCE_PLUGIN)}
        self.plugins[OWN_EVENT_PLUGIN] = self._only(f"lib*/**/gstreamer-1.0/libgst{EVENT_PLUGIN}.so")
        self.plugins |= {name: pathlib.Path(Gst.Registry.get().find_plugin(name).get_filename())
                         for name in STANDARD_PLUGINS}
        self.failing_plugins = {name: self._test_library(f"tests/system/plugins/libgst{name}.so")
                                for name in (EVENT_PLUGIN, JSON_PLUGIN, "platformjson")}
        # Pipelines run as the testing user, which can read the build folder.
        self.detector_folder = workspace.folder()
        (self.detector_folder / "libgstboxes.so").symlink_to(build_folder() / "tests/system/plugins/libgstboxes.so")
        self.plugin_environments = {}

    def _only(self, pattern):
        return only(self.prefix, pattern)

    def _daemon(self):
        """The installed daemon, or the tests' own if the installed one has an absolute path of producers.conf."""
        if os.path.isabs(build_option("producers_conf")):
            return self._readable_copy(build_folder() / "tests/system/tessard", 0o755)
        return self.prefix / "bin/tessard"

    def _test_library(self, name):
        """A copy of a library from the build folder, which the daemon's user can read; None if there is none."""
        original = build_folder() / name
        return self._readable_copy(original) if original.exists() else None

    def new_plugin_folder(self, names, failing=False, without=()):
        """A folder with exactly these plug-ins and GStreamer's own except `without`, and the variables that select it.
        With `failing`, plug-ins that can fail on command replace the simulated ones."""
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
        """The variables for these plug-ins. Daemons with the same plug-ins share a folder."""
        key = frozenset(names)
        if key not in self.plugin_environments:
            _, self.plugin_environments[key] = self.new_plugin_folder(names)
        return self.plugin_environments[key]

    def sanitizer_environment(self, more=None):
        """The session's sanitizer variables with further options, adapted for the daemon: its user can read their
        files, and the preloaded library may precede the sanitizer's runtime."""
        variables = {name: re.sub(r"(?<=\bsuppressions=)[^:]+", self._copy_match, value)
                     for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")}
        options = [variables.get("ASAN_OPTIONS"), "verify_asan_link_order=0", more]
        variables["ASAN_OPTIONS"] = ":".join(filter(None, options))
        return variables

    def plugin_host_environment(self):
        """The variables that a program without instrumentation needs to load the installed plug-ins."""
        return self.sanitizer_environment("detect_leaks=0") | {
            "LD_PRELOAD": ":".join(sanitizer_runtimes(self.plugins[JSON_PLUGIN])), "PATH": "/usr/bin:/bin",
            # For plug-ins that are linked into other folders.
            "LD_LIBRARY_PATH": str(self.plugins[SOURCE_PLUGIN].parents[1])}

    def pipeline_environment(self, bus):
        """The variables for pipelines with the installed elements, the machine's, and the tests' own detector."""
        plugin = self.plugins[SOURCE_PLUGIN]
        return os.environ | self.plugin_host_environment() | {
            "DBUS_SYSTEM_BUS_ADDRESS": bus.address,
            "GST_PLUGIN_PATH": f"{plugin.parent}:{self.detector_folder}",
            "GST_REGISTRY": str(self.workspace.path / "pipeline-registry.bin"),
            "GST_REGISTRY_FORK": "no",
            "PYTHONDONTWRITEBYTECODE": "1",
        }

    def _copy_match(self, match):
        return str(self._readable_copy(pathlib.Path(match.group())))

    def _readable_copy(self, original, mode=0o644):
        copy = self.workspace.path / original.name
        if not copy.exists():
            shutil.copyfile(original, copy)
            copy.chmod(mode)
        return copy


class Bus:
    """A private message bus, used as the system bus, with the installed policy for the daemon's name.

    owner: the user that may own the daemon's name, by default the user of started daemons
    administrators: the administrators' group, by default that of the testing user; root needs none
    text: a configuration instead of the default one; "@socket@" and "@policy@" in it are replaced by the paths"""

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
        """The installed policy with another user and group, because those of an installation may not exist here."""
        text = installation.bus_policy.read_text(encoding="utf-8")
        owner = owner or (UNPRIVILEGED_USER if run_by_root() else user_of_tests())
        if not run_by_root():
            administrators = administrators or grp.getgrgid(os.getegid()).gr_name
        for placeholder, replacement in ((f'user="{DAEMON_USER}"', f'user="{owner}"'),
                                      (f'group="{ADMIN_GROUP}"', f'group="{administrators or ADMIN_GROUP}"')):
            assert text.count(placeholder) == 1
            text = text.replace(placeholder, replacement)
        return text

    def start(self):
        """Starts the bus, after stop() at the same address."""
        self.process = subprocess.Popen(
            ["dbus-daemon", f"--config-file={self.configuration}", "--nofork", "--nopidfile", "--nosyslog",
             "--print-address=1"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, cwd="/", text=True, **unprivileged())
        # Printed when the bus listens. The part after the comma changes with each start.
        self.address, _, _ = self.process.stdout.readline().strip().partition(",")
        assert self.address.startswith("unix:path="), "the private bus did not start"

    def stop(self):
        if self.process:
            self.process.terminate()
            self.process.wait(BOUND_SECONDS)
            self.process.stdout.close()
        self.process = None


def only(prefix, pattern):
    """The one file of an installation that matches the pattern."""
    (path,) = prefix.glob(pattern)
    return path


def make_stage(workspace):
    """Stages the build folder in the workspace."""
    stage = workspace.path / "stage"
    subprocess.run(["meson", "install", "--no-rebuild", "--quiet", "-C", build_folder(), "--destdir", stage],
                   check=True, umask=0o022)
    return stage
