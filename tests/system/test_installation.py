# SPDX-License-Identifier: MIT
"""The contents of an installation."""

import json
import subprocess

import pytest

from installation import TREE, build_folder

SMALLEST = ["-Dtests=false", "-Dsim=false", "-Dtools=false", "-Ddocs=false"]
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
