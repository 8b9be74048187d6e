"""What an installation has, and what it does not."""

import json

from installation import TREE, build_folder


def test_tests_install_nothing(installation):
    info = build_folder() / "meson-info/intro-installed.json"
    installed = json.loads(info.read_text(encoding="utf-8"))

    assert installed
    assert [path for path in installed
            if path.startswith((f"{build_folder()}/tests/", f"{TREE}/tests/"))] == []
    assert list(installation.stage.glob("usr/lib/**/tessard/tests")) == []
