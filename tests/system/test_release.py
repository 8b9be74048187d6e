# SPDX-License-Identifier: MIT
"""scripts/release, and the form of CHANGELOG.md, which it reads."""

import hashlib
import os
import re
import shutil
import subprocess
import tarfile

import pytest

from installation import TREE
from waiting import BOUND_SECONDS

USAGE = 2

CHANGELOG = "# Changelog\n\n## [Unreleased]\n\n## [1.2.3] - 2026-11-23\n\n### Added\n\n- Something.\n"
MESON = "project('tessard', 'c',\n  version: '{}',\n  license: 'MIT')\n"

DEBIAN = "debian/changelog"
BUILDROOT = "packaging/buildroot/package/tessard/tessard.mk"
YOCTO = "packaging/yocto/recipes-multimedia/tessard/tessard_1.2.3.bb"
PACKAGES = {
    DEBIAN: "tessard ({}) unstable; urgency=medium\n\n  * Something.\n",
    BUILDROOT: "TESSARD_VERSION = {}\nTESSARD_LICENSE = MIT\n",
    YOCTO: 'LICENSE = "MIT"\n',
}

KINDS = ["Added", "Changed", "Deprecated", "Removed", "Fixed", "Security"]


class Repository:
    """A small tree of its own with the script."""

    def __init__(self, path):
        self.path = path
        self.out = path.parent / "out"
        self.out.mkdir()
        (path / "scripts").mkdir(parents=True)
        for name in ("release", "common.sh"):
            shutil.copy(TREE / "scripts" / name, path / "scripts" / name)
        self.write("meson.build", MESON.format("1.2.3"))
        self.write("CHANGELOG.md", CHANGELOG)
        for name, text in PACKAGES.items():
            (path / name).parent.mkdir(parents=True)
            self.write(name, text.format("1.2.3"))
        self.git("init", "--quiet")
        self.commit()

    def write(self, name, text):
        (self.path / name).write_text(text, encoding="utf-8")

    def git(self, *words):
        names = {f"GIT_{role}_{field}": value for role in ("AUTHOR", "COMMITTER")
                 for field, value in (("NAME", "Anna"), ("EMAIL", "anna@example.org"))}
        subprocess.run(["git", *words], cwd=self.path, env=os.environ | names | {"GIT_CONFIG_GLOBAL": "/dev/null"},
                       check=True, capture_output=True, timeout=BOUND_SECONDS)

    def commit(self):
        self.git("add", "--all")
        self.git("commit", "--quiet", "--message", "tree: change")

    def release(self, *words):
        result = subprocess.run([self.path / "scripts/release", *words], capture_output=True, text=True, check=False,
                                timeout=BOUND_SECONDS)
        return result.returncode, result.stdout, result.stderr

    def expect_refused(self, reason, tag="v1.2.3"):
        assert self.release(tag, self.out) == (1, "", f"release: {reason}\n")
        assert list(self.out.iterdir()) == []


@pytest.fixture
def repository(tmp_path):
    return Repository(tmp_path / "tree")


def test_archive_has_the_tree_of_the_tag_and_its_sum(repository):
    repository.git("tag", "v1.2.3")
    status, out, err = repository.release("v1.2.3", repository.out)

    archive = repository.out / "tessard-1.2.3.tar.xz"
    line = f"{hashlib.sha256(archive.read_bytes()).hexdigest()}  tessard-1.2.3.tar.xz\n"
    assert (status, out, err) == (0, line, "")
    assert (repository.out / "tessard-1.2.3.tar.xz.sha256sum").read_text(encoding="ascii") == line
    with tarfile.open(archive) as content:
        files = {member.name: member.mode for member in content if member.isfile()}
    assert files == {f"tessard-1.2.3/{name}": 0o644 for name in ("CHANGELOG.md", "meson.build", *PACKAGES)} | {
        "tessard-1.2.3/scripts/common.sh": 0o644, "tessard-1.2.3/scripts/release": 0o755}


def test_archive_of_a_tag_has_the_same_bytes_each_time(repository):
    repository.git("tag", "--annotate", "--message", "1.2.3", "v1.2.3")
    sums = [repository.release("v1.2.3", repository.out) for _ in range(2)]

    assert sums[0][0] == 0 and sums[0] == sums[1]


@pytest.mark.parametrize("name", ["meson.build", "new"])
def test_tree_with_changes_is_refused(repository, name):
    repository.git("tag", "v1.2.3")
    repository.write(name, "changed\n")

    repository.expect_refused("the tree has changes that are not committed")


def test_tag_that_does_not_exist_is_refused(repository):
    repository.expect_refused("there is no tag v1.2.3")


def test_tag_that_is_not_checked_out_is_refused(repository):
    repository.git("tag", "v1.2.3")
    repository.write("new", "new\n")
    repository.commit()

    repository.expect_refused("the tag v1.2.3 is not checked out")


@pytest.mark.parametrize("tag", ["v1.2.4", "1.2.3"])
def test_tag_of_another_version_is_refused(repository, tag):
    repository.git("tag", tag)

    repository.expect_refused(f"the tag {tag} does not match the version in meson.build, 1.2.3", tag)


@pytest.mark.parametrize("text", [CHANGELOG.replace("1.2.3", "1.2.2"), CHANGELOG.replace("1.2.3", "1x2y3"),
                                  CHANGELOG.replace(" - 2026-11-23", "")])
def test_version_that_is_not_in_the_changelog_is_refused(repository, text):
    repository.write("CHANGELOG.md", text)
    repository.commit()
    repository.git("tag", "v1.2.3")

    repository.expect_refused("CHANGELOG.md has no section ## [1.2.3] - YYYY-MM-DD")


@pytest.mark.parametrize("name, reason", [
    (DEBIAN, "debian/changelog has no version 1.2.3"),
    (BUILDROOT, f"{BUILDROOT} has another version than 1.2.3"),
])
@pytest.mark.parametrize("version", ["1.2.4", "1.2.30", "1x2y3"])
def test_packages_of_another_version_are_refused(repository, name, reason, version):
    repository.write(name, PACKAGES[name].format(version))
    repository.commit()
    repository.git("tag", "v1.2.3")

    repository.expect_refused(reason)


def test_recipe_of_another_version_is_refused(repository):
    (repository.path / YOCTO).rename((repository.path / YOCTO).with_name("tessard_1.2.2.bb"))
    repository.commit()
    repository.git("tag", "v1.2.3")

    repository.expect_refused(f"there is no {YOCTO}")


@pytest.mark.parametrize("words", [(), ("a", "b", "c")])
def test_wrong_usage(repository, words):
    status, out, err = repository.release(*words)

    assert (status, out) == (USAGE, "")
    assert err.startswith("Usage: scripts/release TAG [FOLDER]\n")


def test_version_is_found_in_the_tree_itself():
    """The script reads the version by the form of its line."""
    assert len(re.findall(r"^  version: '\d+\.\d+\.\d+',$", (TREE / "meson.build").read_text(encoding="utf-8"),
                          re.MULTILINE)) == 1


def test_changelog_has_the_usual_form():
    text = (TREE / "CHANGELOG.md").read_text(encoding="utf-8")
    versions = re.findall(r"^## (.*)$", text, re.MULTILINE)
    released = [re.fullmatch(r"\[(\d+)\.(\d+)\.(\d+)\] - \d{4}-\d\d-\d\d", version) for version in versions[1:]]

    assert versions[0] == "[Unreleased]"
    assert None not in released
    numbers = [tuple(map(int, match.groups())) for match in released]
    assert numbers == sorted(set(numbers), reverse=True)
    for section in re.split(r"^## .*$", text, flags=re.MULTILINE)[1:]:
        kinds = re.findall(r"^### (.*)$", section, re.MULTILINE)
        assert kinds == [kind for kind in KINDS if kind in kinds] and len(kinds) == len(set(kinds))
        assert re.split(r"^### .*$", section, flags=re.MULTILINE)[0].strip() == "", "each entry has a kind"


def test_packages_of_the_tree_itself_have_its_version():
    version = re.search(r"^  version: '(.*)',$", (TREE / "meson.build").read_text(encoding="utf-8"), re.MULTILINE)[1]

    assert (TREE / DEBIAN).read_text(encoding="utf-8").startswith(f"tessard ({version}) ")
    assert f"TESSARD_VERSION = {version}\n" in (TREE / BUILDROOT).read_text(encoding="utf-8")
    assert (TREE / YOCTO).with_name(f"tessard_{version}.bb").exists()
