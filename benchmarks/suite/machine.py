# SPDX-License-Identifier: MIT
"""The machine and the versions of a run."""

import os
import pathlib
import platform
import re
import subprocess

from relay import broker_program


def first_match(path, pattern):
    """The text of a pattern's group in a file, "unknown" without one."""
    try:
        match = re.search(pattern, pathlib.Path(path).read_text(encoding="utf-8"), re.MULTILINE)
    except OSError:
        match = None
    return match[1] if match else "unknown"


def output(command):
    """What a program prints, as one line; empty if it is not there."""
    try:
        done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=20)
    except OSError:
        return ""
    return " ".join((done.stdout + done.stderr).split())


def broker_version():
    """The version of mosquitto, "not installed" without it."""
    found = re.search(r"mosquitto version (\S+)", output([broker_program(), "-h"]) if broker_program() else "")
    return found[1] if found else "not installed"


def describe(stage):
    """What the results depend on."""
    return {
        "processor": first_match("/proc/cpuinfo", r"^(?:model name|Model|Hardware)\s*:\s*(.*)$"),
        "cores": len(os.sched_getaffinity(0)),
        "architecture": platform.machine(),
        "memory": first_match("/proc/meminfo", r"^MemTotal:\s*(.*)$"),
        "kernel": platform.release(),
        "system": first_match("/etc/os-release", r'^PRETTY_NAME="?([^"\n]*)'),
        "load at the start": f"{os.getloadavg()[0]:.2f}",
        "tessard": output([stage.tessard, "--version"]),
        "mosquitto": broker_version(),
        "python": platform.python_version(),
    }
