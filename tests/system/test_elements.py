# SPDX-License-Identifier: MIT
"""tessard's own GStreamer elements: their files, their descriptions, and their replacement by a platform's elements."""

import json
import pathlib
import subprocess
import sys

import pytest

from installation import (DOCUMENT_PLUGIN, EVENT_PLUGIN, JSON_PLUGIN, OWN_PLUGINS, SANITIZED, SIMULATED_PLUGINS,
                          SOURCE_PLUGIN, build_option)
from waiting import BOUND_SECONDS

# Prints from GStreamer's registry the plug-ins, and the file, the rank and the texts of each element in the arguments.
REGISTRY = """\
import json, sys
import gi
gi.require_version("Gst", "1.0")
from gi.repository import Gst
Gst.init(None)
factories = {name: Gst.ElementFactory.find(name) for name in sys.argv[1:]}
print(json.dumps({
    "plugins": {plugin.get_name(): plugin.get_description() for plugin in Gst.Registry.get().get_plugin_list()},
    "elements": {name: {"file": factory.get_plugin().get_filename(), "rank": factory.get_rank(),
                        "texts": [factory.get_metadata(key) for key in factory.get_metadata_keys()]}
                 for name, factory in factories.items() if factory},
}))
"""

# The names of a platform's plug-in with an element "json2xml": that of tessard's plug-in, or another one.
SAME_FILE_NAME, OTHER_FILE_NAME = JSON_PLUGIN, "platformjson"

# Whether GStreamer reads new plug-ins in a separate process. That process is not instrumented, so it cannot read
# instrumented plug-ins.
FORKS = ["no"] if SANITIZED else ["no", "yes"]


class Elements:
    """Folders with plug-ins, and the elements that GStreamer finds in them. All reads share one registry."""

    def __init__(self, installation, workspace, fork):
        self.installation = installation
        self.workspace = workspace
        self.environment = installation.plugin_host_environment() | {
            "GST_PLUGIN_SYSTEM_PATH": "",
            "GST_REGISTRY": str(workspace.folder() / "registry.bin"),
            "GST_REGISTRY_FORK": fork,
        }
        self.own = self.folder_with(*(installation.plugins[name] for name in OWN_PLUGINS))

    def folder_with(self, *plugins):
        folder = self.workspace.folder()
        for plugin in plugins:
            (folder / plugin.name).symlink_to(plugin)
        return folder

    def platform(self, name):
        """A folder with a platform's "json2xml" in a plug-in of this name."""
        return self.folder_with(self.installation.failing_plugins[name])

    def read(self, *folders):
        result = subprocess.run([sys.executable, "-c", REGISTRY, *OWN_PLUGINS],
                                env=self.environment | {"GST_PLUGIN_PATH": ":".join(map(str, folders))}, check=True,
                                stdout=subprocess.PIPE, text=True, timeout=BOUND_SECONDS)
        return json.loads(result.stdout)

    def folder_of(self, element, *folders):
        """The folder whose file provides an element."""
        return pathlib.Path(self.read(*folders)["elements"][element]["file"]).parent


@pytest.fixture(name="elements", params=FORKS, ids=lambda fork: f"fork_{fork}")
def make_elements(installation, workspace, request):
    return Elements(installation, workspace, request.param)


def test_elements_are_installed_in_the_plugin_folder_of_gstreamer(installation):
    folder = installation.prefix / build_option("libdir") / "gstreamer-1.0"

    assert sorted(path.name for path in folder.iterdir()) == sorted(
        f"libgst{name}.so" for name in (*OWN_PLUGINS, EVENT_PLUGIN, SOURCE_PLUGIN))


def test_own_folder_has_no_plugin_of_the_platform(elements):
    found = elements.read(elements.own)

    assert {name: pathlib.Path(element["file"]).name for name, element in found["elements"].items()} == {
        name: f"libgst{name}.so" for name in OWN_PLUGINS}
    assert set(OWN_PLUGINS) <= set(found["plugins"])
    assert not set(SIMULATED_PLUGINS) & set(found["plugins"])


def test_texts_do_not_mention_the_simulated_camera(elements):
    found = elements.read(elements.own)
    texts = [found["plugins"][name] for name in OWN_PLUGINS]
    for element in found["elements"].values():
        assert element["rank"] == 0
        texts += element["texts"]

    assert len(texts) >= 5 * len(OWN_PLUGINS)
    assert [text for text in texts if not text or "simula" in text.lower()] == []


def test_first_folder_provides_files_of_the_same_name(elements):
    platform = elements.platform(SAME_FILE_NAME)

    assert elements.folder_of(JSON_PLUGIN, platform, elements.own) == platform
    assert elements.folder_of(JSON_PLUGIN, elements.own, platform) == elements.own
    assert elements.folder_of(JSON_PLUGIN, platform, elements.own) == platform


@pytest.mark.parametrize("platform_first", [True, False])
def test_element_of_the_platform_in_another_file_is_used(elements, platform_first):
    platform = elements.platform(OTHER_FILE_NAME)
    folders = (platform, elements.own) if platform_first else (elements.own, platform)

    # First from the files, then from the registry.
    for _ in range(2):
        assert elements.folder_of(JSON_PLUGIN, *folders) == platform
        assert elements.folder_of(DOCUMENT_PLUGIN, *folders) == elements.own


def test_element_of_the_platform_is_used_when_it_is_installed_later(elements):
    platform = elements.platform(OTHER_FILE_NAME)

    assert elements.folder_of(JSON_PLUGIN, elements.own) == elements.own
    assert elements.folder_of(JSON_PLUGIN, platform, elements.own) == platform
