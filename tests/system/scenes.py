# SPDX-License-Identifier: MIT
"""Scenes of the video and of the radar: their differences, and the movement of their objects."""

import itertools

from daemon import RADAR_TRACKER, VIDEO_TRACKER, WARNING, producers_enabled
from installation import RADAR_PLUGIN, RADAR_PLUGINS, SCENE_PLUGIN, SCENE_PLUGINS

# From this second of the simulation's cycle the picture has objects for some time.
BUSY_SECONDS = 4

# Within this distance from the middle, the picture's edges do not clip an object's centre.
INSIDE = 0.99

# The precision of positions, and of positions between two of them.
ROUNDING = 0.0005

# The precision of the radar's degrees and metres.
RADAR_ROUNDING = 0.001

NO_ROTATION = (WARNING, "could not get rotation from capt, using rotation 0")


class SceneKind:
    """One of the two kinds of scenes, for tests that both have in common."""

    def __init__(self, tracker, plugin, plugins, elements):
        self.tracker = tracker
        self.plugin = plugin
        self.plugins = plugins
        self.source, self.converter = elements

    def __repr__(self):
        return self.plugin

    def enabled(self, *names):
        """A producers' file with this kind alone enabled, on the first channels with these names."""
        return producers_enabled({(self.tracker, channel): name for channel, name in enumerate(names, 1)})


VIDEO = SceneKind(VIDEO_TRACKER, SCENE_PLUGIN, SCENE_PLUGINS, ("scenesrc", "scene2xml"))
RADAR = SceneKind(RADAR_TRACKER, RADAR_PLUGIN, RADAR_PLUGINS, ("radarscenesrc", "radarscene2xml"))


def is_inside(point):
    return all(abs(coordinate) < INSIDE for coordinate in point)


def rotate(point, degrees):
    """A point of the picture after a clockwise rotation."""
    x, y = point
    for _ in range(degrees // 90):
        x, y = y, -x
    return x, y


def seen_by_radar(info):
    """The radar's position of an object, in the picture without rotation."""
    return info.angle / 20, (info.range - 20) / 15


def objects_of(frames):
    """Yields the objects of the frames."""
    for frame in frames:
        yield from frame.objects.values()


def interpolate(before, after, time):
    """The position at `time` of a linear movement. `before` and `after` are each a time and the coordinates."""
    (start, first), (end, last) = before, after
    part = (time - start) / (end - start) if end > start else 0
    return tuple(low + (high - low) * part for low, high in zip(first, last))


class Tracks:
    """The positions of each object inside the picture."""

    def __init__(self):
        self.seen = {}

    def add(self, frame):
        for found in frame.objects.values():
            if is_inside(found.centre):
                self.seen.setdefault(found.id, []).append((frame.time, found.centre))

    def at(self, name, time):
        """The position of the object at this time, None without a position before and after it."""
        for before, after in itertools.pairwise(self.seen.get(name, [])):
            if before[0] <= time <= after[0]:
                return interpolate(before, after, time)
        return None

    def direction(self, name):
        """The object's direction, as a crossing reports it."""
        places = [place for _, place in self.seen[name]]
        return "LeftToRight" if places[0][0] < places[-1][0] else "RightToLeft"
