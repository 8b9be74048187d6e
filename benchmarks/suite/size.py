# SPDX-License-Identifier: MIT
"""The memory, threads and descriptors of the daemon, idle, with clients of each kind, and after they have gone, and the
size of the installation. Every row has a daemon of its own. With "own" plug-ins the daemon sees tessard's converter,
document element and event source and the three of GStreamer that it needs; with "all" those of the system and the
simulated camera's sources too.

Private memory is what no other process maps. Its clean part, pages of files, becomes shared when another program uses
the same library; the dirty part does not depend on others. The idle daemon of the goals is therefore alone on its bus.
Beside it stands a program with the same libraries that only initialises GStreamer and connects to the bus.

The first client loads the plug-ins of its pipeline, which all others use. The memory of a client is therefore what each
further one adds."""

import os
import re

import figures
from plots import Chart
from stage import KINDS, Bus, Commanded, accepts, daemon_with_camera, pause, running, started_daemon, wait_until
from tables import Fit, Goal, Table

NAME = "size"
OWN, ALL = "own", "all"
KINDS_OF = {OWN: ("events", "detections"), ALL: tuple(KINDS)}
CLIENTS = (1, 10, 50, 100)
IDLE, GONE = "idle", "gone"
STARTS = 5
SAMPLE_CLIENTS = 50

# A figure is settled when it has been the same for this time; after clients have gone memory is returned for longer.
SETTLED_SECONDS = 0.3
RETURNED_SECONDS = 2.5
MAX_SETTLING_SECONDS = 8

MIB = 1024 * 1024
PRIVATE_GOAL, RESIDENT_GOAL, CLIENT_GOAL = 3.5, 9.5, 100


def usage(pid):
    """The memory in bytes, and the numbers of threads and descriptors."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="utf-8") as file:
        fields = {name: 1024 * int(size) for name, size in re.findall(r"^(\w+): +(\d+) kB$", file.read(), re.MULTILINE)}
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        threads = int(re.search(r"^Threads:\s*(\d+)$", file.read(), re.MULTILINE)[1])
    return {"private": fields["Private_Clean"] + fields["Private_Dirty"], "dirty": fields["Private_Dirty"],
            "resident": fields["Rss"], "proportional": fields["Pss"], "threads": threads,
            "descriptors": len(os.listdir(f"/proc/{pid}/fd"))}


def settled_usage(pid, seconds):
    """The usage when its memory has been the same for this time, or after a longer one."""
    found, same, whole = usage(pid), 0, 0
    while same < seconds and whole < MAX_SETTLING_SECONDS:
        pause(SETTLED_SECONDS / 3)
        whole += SETTLED_SECONDS / 3
        now = usage(pid)
        same = same + SETTLED_SECONDS / 3 if now["private"] == found["private"] else 0
        found = now
    return found


def clients_of(stage, daemon):
    return running(Commanded(stage, "benchclients", [daemon.socket_path], dict(os.environ)))


def measure_kind(stage, plugins, kind, counts):
    """The usage at each number of clients and after they have gone."""
    with daemon_with_camera(stage, plugins) as (_, daemon), clients_of(stage, daemon) as clients:
        found = {IDLE: settled_usage(daemon.pid, SETTLED_SECONDS)}
        if kind == "detections":
            wait_until(lambda: accepts(daemon.socket_path, KINDS[kind]), "the daemon lists the producer")
        opened = 0
        for count in counts:
            clients.tell("open", count - opened, KINDS[kind])
            opened = count
            found[str(count)] = settled_usage(daemon.pid, SETTLED_SECONDS)
        clients.tell("close")
        found[GONE] = settled_usage(daemon.pid, RETURNED_SECONDS)
        return found


def measure_libraries(stage, plugins):
    """The usage of a program with the daemon's libraries that does nothing with them, alone on its bus."""
    with running(Bus(stage)) as bus:
        environment = plugins.environment("benchlibraries") | {"DBUS_SYSTEM_BUS_ADDRESS": bus.address}
        with running(Commanded(stage, "benchlibraries", ["bus"], environment)) as program:
            program.read_words()
            return settled_usage(program.pid, SETTLED_SECONDS)


def measure_start(stage, plugins, further_clients):
    """The usage of an idle daemon, and its private memory for the first client for events and for each further one."""
    with started_daemon(stage, plugins) as (_, daemon):
        found = {IDLE: settled_usage(daemon.pid, SETTLED_SECONDS)}
        with clients_of(stage, daemon) as clients:
            private = []
            for count in (0, 1, further_clients):
                if count:
                    clients.tell("open", count, KINDS["events"])
                private.append(settled_usage(daemon.pid, SETTLED_SECONDS)["private"])
    none, first, all_of_them = private
    return found | {"first client": first - none, "client": (all_of_them - first) / further_clients}


def part_of(path):
    """The part of the installation to which a file belongs, None for what is not part of the product."""
    if any(part in path.parts for part in ("benchmarks", "sim")) or path.name.startswith("tessard.SimulatedCamera"):
        return None
    if path.parent.name == "bin":
        return path.name
    if path.suffix == ".so" and path.parent.name == "gstreamer-1.0":
        return f"plug-in {path.stem.removeprefix('libgst')}"
    return "library and its headers" if "libtessard" in path.name or "include" in path.parts else "other files"


def installed_sizes(stage):
    """The bytes of each part of the installation. A link has none."""
    sizes = {}
    for path in stage.prefix.rglob("*"):
        part = part_of(path.relative_to(stage.prefix)) if path.is_file() and not path.is_symlink() else None
        if part:
            sizes[part] = sizes.get(part, 0) + path.stat().st_size
    return dict(sorted(sizes.items()))


def measure(stage, effort):
    own = stage.product(stage.own_plugin("onvifeventsrc"))
    sets = {OWN: own, ALL: stage.every_kind(all_of_system=True)}
    counts = effort.some(CLIENTS)
    starts = min(STARTS, effort.pairs)
    # The first start of each writes its registry.
    for plugins in sets.values():
        with started_daemon(stage, plugins):
            pass
    return {
        "libraries": [measure_libraries(stage, own) for _ in range(starts)],
        "starts": [measure_start(stage, own, SAMPLE_CLIENTS if not effort.brief else 1) for _ in range(starts)],
        "kinds": {name: {kind: measure_kind(stage, plugins, kind, counts) for kind in effort.some(KINDS_OF[name])}
                  for name, plugins in sets.items()},
        "installed": installed_sizes(stage),
    }


def memory_texts(found):
    return (f"{found[name] / MIB:.1f}" for name in ("private", "dirty", "proportional", "resident"))


def row_of(plugins, kind, moment, found):
    return (plugins, kind, moment, *memory_texts(found), found["threads"], found["descriptors"])


def medians(samples):
    return {name: figures.estimate([sample[name] for sample in samples]).median for name in samples[0]}


def idle_table(data):
    rows = [("the daemon's libraries, GStreamer initialised, on the bus", medians(data["libraries"])),
            ("the idle daemon", medians([start[IDLE] for start in data["starts"]]))]
    return Table("Size of the idle daemon, with own plug-ins and alone, and of its libraries",
                 ("program", "private, MiB", "of it dirty, MiB", "proportional, MiB", "resident, MiB"),
                 [(name, *memory_texts(found)) for name, found in rows])


def client_table(data):
    first, further = (figures.estimate([start[name] / 1024 for start in data["starts"]])
                      for name in ("first client", "client"))
    return Table("Private memory of clients for events", ("client", "KiB", "interval"),
                 [("the first, with the plug-ins that it loads", first.text(0), first.interval_text(0)),
                  (f"each of {SAMPLE_CLIENTS} further ones", further.text(0), further.interval_text(0))])


def tables(data):
    rows = [row_of(plugins, kind, moment, found) for plugins, kinds in data["kinds"].items()
            for kind, moments in kinds.items() for moment, found in moments.items()]
    sizes = data["installed"]
    return [idle_table(data), client_table(data),
            Table("Size of the daemon", ("plug-ins", "kind", "clients", "private, MiB", "of it dirty, MiB",
                                         "proportional, MiB", "resident, MiB", "threads", "descriptors"), rows),
            Table("Installed size, stripped", ("part", "KiB"),
                  [(part, f"{size / 1024:.0f}") for part, size in (sizes | {"all": sum(sizes.values())}).items()])]


def goals(data):
    def measured(value):
        return figures.estimate([value(start) for start in data["starts"]]) if data else None

    text = "memory of the idle daemon with document element, json2xml and event source alone"
    return [Goal(f"private {text}", PRIVATE_GOAL, measured(lambda start: start[IDLE]["private"] / MIB), "MiB"),
            Goal(f"resident {text}", RESIDENT_GOAL, measured(lambda start: start[IDLE]["resident"] / MIB), "MiB"),
            Goal("private memory of each further streaming client", CLIENT_GOAL,
                 measured(lambda start: start["client"] / 1024), "KiB", 0)]


def points_of(moments, leave_out=(GONE,)):
    return [(0 if moment == IDLE else int(moment), found["private"] / 1024)
            for moment, found in moments.items() if moment not in leave_out]


def plots(data):
    return {"size": [Chart(f"Private memory, {plugins} plug-ins", "clients", "KiB",
                           {kind: points_of(moments) for kind, moments in kinds.items()})
                     for plugins, kinds in data["kinds"].items()]}


def fits(data):
    """From the first client on, which loads the plug-ins."""
    return [Fit(f"private memory, {kind}, {plugins} plug-ins", "clients, from the first on", "KiB",
                points_of(moments, (IDLE, GONE)), "memory is counted in pages, and free blocks lie between used ones")
            for plugins, kinds in data["kinds"].items() for kind, moments in kinds.items()]
