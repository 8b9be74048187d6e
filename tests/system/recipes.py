# SPDX-License-Identifier: MIT
"""Readers of the recipes in packaging/, for Yocto and for Buildroot, and of what Meson says of the tree."""

import json
import re
import subprocess

from installation import TREE

LAYER = TREE / "packaging/yocto"
EXTERNAL = TREE / "packaging/buildroot"
PACKAGE = EXTERNAL / "package/tessard"

# The recipes that have a module of pkg-config: Yocto's and Buildroot's.
PROVIDERS = {
    "gio-2.0": ("glib-2.0", "libglib2"),
    "gio-unix-2.0": ("glib-2.0", "libglib2"),
    "glib-2.0": ("glib-2.0", "libglib2"),
    "gobject-2.0": ("glib-2.0", "libglib2"),
    "gstreamer-1.0": ("gstreamer1.0", "gstreamer1"),
    "gstreamer-analytics-1.0": ("gstreamer1.0-plugins-bad", "gst1-plugins-bad"),
    "gstreamer-app-1.0": ("gstreamer1.0-plugins-base", "gst1-plugins-base"),
    "gstreamer-base-1.0": ("gstreamer1.0", "gstreamer1"),
    "gstreamer-rtp-1.0": ("gstreamer1.0-plugins-base", "gst1-plugins-base"),
    "gstreamer-rtsp-1.0": ("gstreamer1.0-plugins-base", "gst1-plugins-base"),
    "gstreamer-rtsp-server-1.0": ("gstreamer1.0-rtsp-server", "gst1-rtsp-server"),
    "gstreamer-sdp-1.0": ("gstreamer1.0-plugins-base", "gst1-plugins-base"),
    "gstreamer-video-1.0": ("gstreamer1.0-plugins-base", "gst1-plugins-base"),
    "json-glib-1.0": ("json-glib", "json-glib"),
    "libmosquitto": ("mosquitto", "mosquitto"),
    "libsoup-3.0": ("libsoup", "libsoup3"),
    "libsystemd": ("systemd", "systemd"),
    "libxml-2.0": ("libxml2", "libxml2"),
    "simdjson": ("simdjson", "simdjson"),
}

# Those that only run on the machine that builds.
TOOL_RECIPES = {"glib-2.0-native", "host-pkgconf"}

ASSIGNMENT = re.compile(r'([A-Za-z_][\w:${}-]*)(\[\w+\])? *(\?\?=|\?=|:=|\+=|=\+|\.=|=\.|=) *"((?:[^"\\\n]|\\\n)*)"')
OTHER_LINES = re.compile(r"#.*|inherit( [a-z_-]+)+|(require|include) \S+|export \w+|")


class SyntaxFault(Exception):
    pass


def described(what):
    """What Meson finds in the tree without a build folder."""
    result = subprocess.run(["meson", "introspect", f"--{what}", TREE / "meson.build"], check=True, timeout=60,
                            capture_output=True, text=True)
    return json.loads(result.stdout)


def project_options():
    """The project's options by name, with what Meson accepts as a value."""
    return {option["name"]: option for option in described("buildoptions") if option["section"] == "user"}


def accepts(option, value):
    if option["type"] == "boolean":
        return value in ("true", "false")
    return value in option.get("choices", [value])


def options_in(text):
    """Name and value of each option in arguments of `meson setup`."""
    return dict(re.findall(r"-D(\w+)=([^\s\"',]+)", text))


class Assignments:
    """The assignments of a file of bitbake, in order: name, flag, operator, value with joined lines."""

    def __init__(self, text):
        self.all = []
        self.inherited = []
        line = 1
        while text:
            taken = self._take(text, line)
            line += text.count("\n", 0, taken)
            text = text[taken:]

    def _take(self, text, line):
        found = ASSIGNMENT.match(text)
        if found and text[found.end():found.end() + 1] in ("\n", ""):
            name, flag, operator, value = found.groups()
            self.all.append((name, (flag or "").strip("[]"), operator, value.replace("\\\n", " ")))
            return found.end() + 1
        first = text.split("\n", 1)[0]
        if not OTHER_LINES.fullmatch(first):
            raise SyntaxFault(f"line {line}: {first}")
        self.inherited += first.split()[1:] if first.startswith("inherit ") else []
        return len(first) + 1

    def value(self, name):
        values = [value for found, flag, _, value in self.all if found == name and not flag]
        return " ".join(" ".join(values).split())

    def flags(self, name):
        return {flag: value for found, flag, _, value in self.all if found == name and flag}

    def with_override(self, name):
        """Value by override: of NAME:${PN}-x under the key x, of NAME:${PN} under an empty one."""
        prefix = f"{name}:${{PN}}"
        return {found.removeprefix(prefix).removeprefix("-"): value for found, flag, _, value in self.all
                if found.startswith(prefix) and not flag}


class YoctoRecipe:
    def __init__(self):
        self.path, = LAYER.glob("recipes-*/tessard/tessard_*.bb")
        self.version = self.path.stem.removeprefix("tessard_")
        self.text = self.path.read_text(encoding="utf-8")
        self.assignments = Assignments(self.text)
        self.features = {}
        for name, value in self.assignments.flags("PACKAGECONFIG").items():
            enabled, disabled, *depends = value.split(",")
            self.features[name] = (enabled, disabled, set(" ".join(depends).split()))

    def depends(self, features):
        """What the tree needs at build time with these features."""
        needed = set(self.assignments.value("DEPENDS").split())
        return needed.union(*(self.features[name][2] for name in features))

    def options(self, features):
        """The options of `meson setup` with these features, but for those that a class sets."""
        chosen = " ".join(values[0 if name in features else 1] for name, values in self.features.items())
        return options_in(f"{chosen} {self.assignments.value('EXTRA_OEMESON')}")

    def class_options(self):
        return {self.assignments.value("GIR_MESON_OPTION")}


class BuildrootPackage:
    """What make finds in tessard.mk. The stubs stand for Buildroot: they print what it would use."""

    STUBS = """
qstrip = $(strip $(subst ",,$(1)))
meson-package = $(eval PACKAGES += meson)
include {package}
print:
\t@printf '%s\\n' '$(PACKAGES)' '$(strip $(TESSARD_CONF_OPTS))' '$(strip $(TESSARD_DEPENDENCIES))' \\
\t  '$(TESSARD_VERSION)' '$(TESSARD_SITE)' '$(TESSARD_SITE_METHOD)' '$(TESSARD_LICENSE_FILES)'
\t@printf '%s\\n' "$$USERS"
\t@printf 'init: %s\\n' "$$INIT"
export USERS = $(TESSARD_USERS)
export INIT = $(TESSARD_INSTALL_INIT_SYSTEMD)
"""

    def __init__(self, features, settings=()):
        variables = [f"BR2_PACKAGE_TESSARD_{name.upper()}=y" for name in features]
        result = subprocess.run(
            ["make", "--warn-undefined-variables", "-f", "-", f"BR2_EXTERNAL_TESSARD_PATH={EXTERNAL}",
             "BR2_PACKAGE_TESSARD_PRODUCERS_CONF=\"/etc/tessard/producers.conf\"", "TARGET_DIR=/target", *variables,
             *settings, "print"], input=self.STUBS.format(package=PACKAGE / "tessard.mk"), check=True, timeout=60,
            capture_output=True, text=True, cwd="/")
        infrastructure, options, depends, self.version, self.site, self.site_method, self.licence, *rest = (
            result.stdout.split("\n"))
        assert infrastructure.split() == ["meson"]
        end = next(index for index, line in enumerate(rest) if line.startswith("init: "))
        self.users = [line.split() for line in rest[:end] if line.strip()]
        self.init = "\n".join(rest[end:])
        self.options = options_in(options)
        self.depends = set(depends.split())


class BoardConfiguration:
    """What kconfig makes of lines of a configuration with Config.in: the symbols that are on, and warnings. Every
    symbol of Buildroot is a stub, which is on if the package only depends on it."""

    SYMBOL = re.compile(r"BR2_[A-Z]\w*")

    def __init__(self, folder, lines):
        text = (PACKAGE / "Config.in").read_text(encoding="utf-8")
        own = set(re.findall(r"^config (\w+)$", text, re.MULTILINE))
        selected = set(re.findall(r"^\tselect (\w+)", text, re.MULTILINE))
        external = sorted(set(self.SYMBOL.findall(text)) - own)
        stubs = [f"config {name}\n\tbool\n" + ("" if name in selected else "\tdefault y\n") for name in external]
        folder.joinpath("Kconfig").write_text(
            'mainmenu "board"\nconfig BR2_EXTERNAL_TESSARD_PATH\n\tstring\n'
            f'\toption env="BR2_EXTERNAL_TESSARD_PATH"\n{"".join(stubs)}source "{EXTERNAL}/Config.in"\n',
            encoding="utf-8")
        folder.joinpath(".config").write_text("".join(f"{line}\n" for line in lines), encoding="utf-8")
        result = subprocess.run(
            ["kconfig-conf", "--olddefconfig", "Kconfig"], cwd=folder, check=True, timeout=60, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True,
            env={"BR2_EXTERNAL_TESSARD_PATH": str(EXTERNAL), "CONFIG_": "", "KCONFIG_CONFIG": ".config"})
        self.warnings = [line for line in result.stdout.splitlines() if "warning" in line]
        lines = folder.joinpath(".config").read_text(encoding="utf-8").splitlines()
        self.on = {line.removesuffix("=y") for line in lines if line.endswith("=y")}


def sysusers(name):
    """Users, groups and members that an entry of sysusers makes."""
    lines = (TREE / f"data/{name}.sysusers.conf").read_text(encoding="utf-8").splitlines()
    entries = [line.split() for line in lines if line and not line.startswith("#")]
    return ({entry[1] for entry in entries if entry[0] == "u"}, {entry[1] for entry in entries if entry[0] == "g"},
            {(entry[1], entry[2]) for entry in entries if entry[0] == "m"})
