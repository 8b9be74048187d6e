# SPDX-License-Identifier: MIT
"""The contents of an installation."""

import json
import os
import pathlib
import re
import subprocess

import pytest

from controlclient import NAME
from installation import TREE, build_folder, build_option

SMALLEST = ["-Dtests=false", "-Dplugins=false", "-Dreceiver=false", "-Dsim=false", "-Dtools=false", "-Ddocs=false"]
PLUGINS_ONLY = [option.replace("plugins=false", "plugins=true") for option in SMALLEST]
UNREAD_PLUGINS = ("WARNING: GStreamer does not read plug-ins in {} unless GST_PLUGIN_PATH names it; configure with "
                  "--prefix and --libdir like those of GStreamer.")
UNREAD_POLICY = ("WARNING: The system bus does not read policies in {}/share/dbus-1/system.d and will refuse the "
                 "daemon its name; configure with --prefix=/usr.")


def test_tests_install_nothing(installation):
    info = build_folder() / "meson-info/intro-installed.json"
    installed = json.loads(info.read_text(encoding="utf-8"))

    assert installed
    assert [path for path in installed
            if path.startswith((f"{build_folder()}/tests/", f"{TREE}/tests/"))] == []
    assert list(installation.prefix.glob("**/tessard/tests")) == []


@pytest.mark.parametrize("prefix, warned", [("/usr", False), ("/usr/local", True), ("/opt/tessard", True)])
def test_warning_about_a_prefix_whose_policies_the_bus_does_not_read(tmp_path, prefix, warned):
    setup = subprocess.run(["meson", "setup", f"--prefix={prefix}", *SMALLEST, tmp_path / "build", TREE],
                           stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True)

    assert (UNREAD_POLICY.format(prefix) in setup.stdout) is warned


def install_new(stage, content):
    """Installs a file like `meson install` does, and returns its content then."""
    shipped = stage / "shipped"
    shipped.write_text(content, encoding="utf-8")
    subprocess.run([TREE / "data/install-new", shipped, "/state/producers.conf"], check=True,
                   env={"PATH": "/usr/bin:/bin", "DESTDIR": str(stage)}, stdin=subprocess.DEVNULL)
    return (stage / "state/producers.conf").read_text(encoding="utf-8")


def test_installing_again_keeps_what_the_daemon_has_written(tmp_path):
    assert install_new(tmp_path, "first") == "first"

    (tmp_path / "state/producers.conf").write_text("changed", encoding="utf-8")
    assert install_new(tmp_path, "second") == "changed"


def gstreamer_plugin_folder():
    return subprocess.run(["pkg-config", "--variable=pluginsdir", "gstreamer-1.0"], check=True, capture_output=True,
                          text=True).stdout.strip()


@pytest.mark.parametrize("prefix, warned", [("/usr", False), ("/opt/tessard", True)])
def test_plugin_folder_that_gstreamer_does_not_read_is_warned_of(tmp_path, prefix, warned):
    libdir = pathlib.Path(gstreamer_plugin_folder()).parent.relative_to("/usr")
    setup = subprocess.run(["meson", "setup", f"--prefix={prefix}", f"--libdir={libdir}", *PLUGINS_ONLY,
                            tmp_path / "build", TREE], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                           check=True)

    assert (UNREAD_PLUGINS.format(f"{prefix}/{libdir}/gstreamer-1.0") in setup.stdout) is warned


@pytest.fixture
def pkg_config(installation):
    """Asks for the installed tessard.pc, as the build of another program does."""
    environment = os.environ | {"PKG_CONFIG_PATH": str(installation.prefix / build_option("datadir") / "pkgconfig")}

    def ask(option):
        return subprocess.run(["pkg-config", option, "tessard"], env=environment, check=True, capture_output=True,
                              text=True).stdout.strip()

    return ask


@pytest.fixture
def packaged(pkg_config):
    return lambda name: pkg_config(f"--variable={name}")


def test_package_has_the_clients_socket(packaged):
    main = (TREE / "src/main.cpp").read_text(encoding="utf-8")
    unit = (TREE / "data/tessard.socket").read_text(encoding="utf-8")
    (run_dir,) = re.findall(r'DEFAULT_RUN_DIR = "(.*)";', main)

    assert packaged("socket") == f"{run_dir}/metadata"
    assert f"\nListenStream={packaged('socket')}\n" in unit


def test_package_has_the_bus_name_and_its_interfaces(installation, packaged):
    prefix, folder = build_option("prefix"), packaged("interfaces_dir")
    described = installation.prefix / pathlib.PurePath(folder).relative_to(prefix) / f"{packaged('bus_name')}.xml"

    assert packaged("bus_name") == NAME
    assert f'<interface name="{NAME}.Producer">' in described.read_text(encoding="utf-8")


def test_package_has_the_producers_file(packaged):
    option = build_option("producers_conf")

    assert packaged("producers_conf") == (option if os.path.isabs(option) else "/etc/tessard/producers.conf")


def test_package_has_the_version(pkg_config):
    project = json.loads((build_folder() / "meson-info/intro-projectinfo.json").read_text(encoding="utf-8"))

    assert pkg_config("--modversion") == project["version"]
    assert pkg_config("--libs") == ""
