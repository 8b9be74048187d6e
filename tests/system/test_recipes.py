# SPDX-License-Identifier: MIT
"""The recipes in packaging/ agree with Meson, the licence, the units and the users of the tree, and with each other."""

import fnmatch
import hashlib
import json
import re
import shutil
import subprocess

import pytest

from installation import TREE, build_folder, build_option
from recipes import (LAYER, PACKAGE, PROVIDERS, TOOL_RECIPES, Assignments, BoardConfiguration, BuildrootPackage,
                     SyntaxFault, YoctoRecipe, accepts, described, options_in, project_options, sysusers)

# The options that a recipe leaves to Meson's default.
LEFT_OPTIONS = {"fuzz_seconds", "systemdsystemunitdir"}
# Modules of the tests, and one whose recipe depends on a class or on another package of the board.
OTHER_MODULES = {"", "gtest", "gstreamer-check-1.0", "gobject-introspection-1.0"}

GATEWAY_NEEDS = ("plugins", "tools")
SERVICES = {"": "tessard", "receiver": "tessard-receiver", "rtsp": "tessard-rtsp", "mqtt": "tessard-mqtt",
            "view": "tessard-view"}
# Those for which a board asks; Yocto has more, which Buildroot decides by itself.
FEATURES = ("plugins", "library", "receiver", "tools", "rtsp", "mqtt", "view")
FEATURE_SETS = [(), ("plugins",), ("library",), ("receiver",), ("tools",), ("plugins", "library"),
                ("rtsp", *GATEWAY_NEEDS), ("mqtt", *GATEWAY_NEEDS), ("view", *GATEWAY_NEEDS)]


@pytest.fixture(name="recipe", scope="module")
def make_recipe():
    return YoctoRecipe()


def digest(algorithm):
    return hashlib.new(algorithm, (TREE / "LICENSE").read_bytes()).hexdigest()


def test_versions_are_those_of_the_tree(recipe):
    version = described("projectinfo")["version"]

    assert recipe.version == version
    assert BuildrootPackage(()).version == version


def test_licence_files_are_the_ones_of_the_tree(recipe):
    assert recipe.assignments.value("LIC_FILES_CHKSUM") == f"file://LICENSE;md5={digest('md5')}"
    assert BuildrootPackage(()).licence == "LICENSE"
    assert f"sha256  {digest('sha256')}  LICENSE" in (PACKAGE / "tessard.hash").read_text(encoding="utf-8").split("\n")


def test_source_is_the_tree_around_the_recipe(recipe):
    up, = re.findall(r"'\$\{THISDIR\}/([./]+)'", recipe.assignments.value("EXTERNALSRC"))

    assert (recipe.path.parent / up).resolve() == TREE
    assert BuildrootPackage(()).site == str(TREE)
    assert BuildrootPackage(()).site_method == "local"


def test_recipes_set_every_option_to_a_value_that_meson_accepts(recipe):
    options = project_options()
    for name in ("enabled", "disabled"):
        given = recipe.options(recipe.features if name == "enabled" else ())
        assert set(given) | recipe.class_options() | LEFT_OPTIONS == set(options)
        assert [option for option, value in given.items() if not accepts(options[option], value)] == []
    for features in (FEATURES, ()):
        given = BuildrootPackage(features).options
        assert set(given) | LEFT_OPTIONS == set(options)
        assert [option for option, value in given.items() if not accepts(options[option], value)] == []


def test_every_feature_option_of_meson_can_be_chosen(recipe):
    choices = {name for name, option in project_options().items() if option["type"] in ("combo", "boolean")}
    chosen = set().union(*(options_in(enabled) for enabled, _, _ in recipe.features.values()))

    assert choices - chosen == {"introspection", "sim", "tests", "benchmarks", "fuzz"}
    assert all(BuildrootPackage((name,)).options[name] in ("true", "enabled") for name in FEATURES)
    assert BuildrootPackage(FEATURES, ["BR2_PACKAGE_GOBJECT_INTROSPECTION=y"]).options["introspection"] == "enabled"


def test_every_dependency_of_meson_has_a_recipe_and_none_is_left(recipe):
    modules = {dependency["name"] for dependency in described("scan-dependencies")} - OTHER_MODULES
    unknown = modules - set(PROVIDERS)
    yocto, buildroot = (set(recipes) for recipes in zip(*PROVIDERS.values()))

    assert unknown == set()
    assert recipe.depends(recipe.features) - TOOL_RECIPES == yocto
    assert BuildrootPackage(FEATURES).depends - TOOL_RECIPES == buildroot


@pytest.mark.parametrize("features", FEATURE_SETS, ids=lambda features: "-".join(features) or "none")
def test_both_recipes_configure_the_same_and_name_what_meson_uses(recipe, tmp_path, features):
    package = BuildrootPackage(features)
    options = recipe.options(features)
    # The machine of the test decides whether GStreamer has analytics.
    package.options["analytics"] = "disabled"
    package.options["introspection"] = "disabled"
    package.options["docs"] = options["docs"]
    options |= {"introspection": "disabled", "producers_conf": package.options["producers_conf"]}
    assert options == package.options

    subprocess.run(["meson", "setup", "--prefix=/usr", *(f"-D{name}={value}" for name, value in options.items()),
                    tmp_path / "build", TREE], stdin=subprocess.DEVNULL, capture_output=True, timeout=300, check=True)
    used = json.loads((tmp_path / "build/meson-info/intro-dependencies.json").read_text(encoding="utf-8"))
    modules = {dependency["name"] for dependency in used} & set(PROVIDERS)
    yocto, buildroot = (set(recipes) for recipes in zip(*(PROVIDERS[module] for module in modules)))
    analytics = {"gst1-plugins-bad"} if {"plugins", "library"} <= set(features) else set()
    assert recipe.depends(features) - TOOL_RECIPES == yocto
    assert package.depends - TOOL_RECIPES == buildroot | analytics


def test_yocto_packages_have_the_units_and_users_of_the_tree(recipe):
    units = recipe.assignments.with_override("SYSTEMD_SERVICE")
    users = recipe.assignments.with_override("USERADD_PARAM")
    groups = recipe.assignments.with_override("GROUPADD_PARAM")

    assert {"systemd", "useradd"} <= set(recipe.assignments.inherited)
    assert set(units) == set(users) == set(groups) == set(SERVICES)
    for package, service in SERVICES.items():
        expected = f"{service}.service" if package else "tessard.socket tessard.service"
        made_users, made_groups, members = sysusers(service)
        assert units[package] == expected
        assert {users[package].split()[-1]} == made_users
        assert set(groups[package].split()[1:]) == made_groups
        assert set(re.findall(r"--groups (\S+) (\S+)", users[package])) == {(group, user) for user, group in members}


def test_yocto_variables_name_packages_that_exist(recipe):
    packages = set(recipe.assignments.value("PACKAGE_BEFORE_PN").split()) | {"${PN}", "${PN}-dev"}
    named = {name.split(":", 1)[1] for name, _, _, _ in recipe.assignments.all if ":${PN}" in name}

    assert named <= packages
    assert {f"${{PN}}-{name}" for name in FEATURES} <= packages


# What bitbake puts into the main, the development and the documentation package by itself.
USUAL_FILES = ["${sysconfdir}", "${includedir}", "${libdir}/*.so", "${libdir}/pkgconfig", "${datadir}/pkgconfig", "${mandir}"]


def test_yocto_packages_take_every_file_that_is_installed(recipe):
    assignments = recipe.assignments
    folders = {"bindir": "/usr/bin", "datadir": "/usr/share", "includedir": "/usr/include", "mandir": "/usr/share/man",
               "nonarch_libdir": "/usr/lib", "sysconfdir": "/etc",
               "libdir": f"/usr/{build_option('libdir')}"}
    patterns = " ".join([*assignments.with_override("FILES").values(), *USUAL_FILES]).split()
    patterns = [re.sub(r"\$\{(\w+)\}", lambda found: folders[found[1]], pattern) for pattern in patterns]
    installed = json.loads((build_folder() / "meson-info/intro-installed.json").read_text(encoding="utf-8")).values()

    def matches(path, pattern):
        return fnmatch.fnmatchcase(path, pattern) or path.startswith(f"{pattern}/")

    left = ("/tessard/sim/", "SimulatedCamera1", "/tessard/benchmarks/")
    product = [path for path in installed if not any(part in path for part in left)]
    assert product
    # The daemon is what is left for the main package's ${bindir}.
    assert {path for path in product if not any(matches(path, pattern) for pattern in patterns)} <= {"/usr/bin/tessard"}


def test_layer_names_the_layers_of_its_dependencies():
    layer = Assignments((LAYER / "conf/layer.conf").read_text(encoding="utf-8"))

    assert layer.value("LAYERDEPENDS_tessard") == "core openembedded-layer networking-layer"
    assert list(LAYER.glob(layer.value("BBFILES").removeprefix("${LAYERDIR}/"))) == [YoctoRecipe().path]


@pytest.mark.parametrize("text", ['A = "1', 'A = "1" B', "A = 1", 'A = "x \\ \n y"\n', 'inherit "meson"', "do_x() {"])
def test_lint_refuses(text):
    with pytest.raises(SyntaxFault):
        Assignments(text)


@pytest.mark.skipif(shutil.which("kconfig-conf") is None, reason="needs kconfig-conf of kconfig-frontends")
@pytest.mark.parametrize("feature", (None, *FEATURES))
def test_buildroot_option_selects_what_the_package_builds_with(tmp_path, feature):
    off = [f"BR2_PACKAGE_TESSARD_{name.upper()}=n" for name in ("plugins", "library") if name != feature]
    chosen = [f"BR2_PACKAGE_TESSARD_{feature.upper()}=y"] if feature else []
    board = BoardConfiguration(tmp_path, ["BR2_PACKAGE_TESSARD=y", *off, *chosen])
    features = [name for name in FEATURES if f"BR2_PACKAGE_TESSARD_{name.upper()}" in board.on]

    assert board.warnings == []
    assert set(features) == ({feature} if feature else set()) | (
        set(GATEWAY_NEEDS) if feature in ("rtsp", "mqtt", "view") else set())
    needed = {"BR2_PACKAGE_" + re.sub("[-.]", "_", name).upper()
              for name in BuildrootPackage(features).depends - TOOL_RECIPES}
    assert needed - board.on == set()


def test_buildroot_users_are_those_of_the_tree():
    lines = BuildrootPackage(FEATURES).users
    users, groups, members = set(), set(), set()
    for service in SERVICES.values():
        found = sysusers(service)
        users, groups, members = users | found[0], groups | found[1], members | found[2]

    assert {line[0] for line in lines if line[0] != "-"} == users
    assert {line[2] for line in lines} == users | groups
    assert {(line[0], line[7]) for line in lines if line[7] != "-"} == members
    assert all(line[1] == line[3] == "-1" and len(line) > 8 for line in lines)
    assert all(line[4] == ("-" if line[0] == "-" else "*") for line in lines)
    assert {line[0] for line in BuildrootPackage(()).users if line[0] != "-"} == {"tessard"}


def test_buildroot_preset_decides_on_every_unit():
    decided = re.findall(r"'(enable|disable) (\S+)'", BuildrootPackage(()).init)

    assert sorted(unit for _, unit in decided) == sorted(
        [f"{service}.service" for service in SERVICES.values()] + ["tessard.socket"])
    assert {unit for state, unit in decided if state == "disable"} == {
        "tessard-rtsp.service", "tessard-mqtt.service", "tessard-view.service"}
