"""Scenes of the video and of the radar: what tells them apart, and how their objects move."""

import itertools

from daemon import RADAR_TRACKER, VIDEO_TRACKER, WARNING, producers_enabled
from installation import RADAR_PLUGIN, RADAR_PLUGINS, SCENE_PLUGIN, SCENE_PLUGINS

# The story's second from which on there is always somebody in the picture for a while.
BUSY_SECONDS = 4

# As far from the edges the picture does not clip an object's centre.
INSIDE = 0.99

# How exactly the places of objects are told, also where they are between two of these.
ROUNDING = 0.0005

# The same for what is told by the radar, in its degrees and metres.
RADAR_ROUNDING = 0.001

NO_ROTATION = (WARNING, "could not get rotation from capt, using rotation 0")


class SceneKind:
    """One of the two kinds of scenes, for tests of what they have in common."""

    def __init__(self, tracker, plugin, plugins, elements):
        self.tracker = tracker
        self.plugin = plugin
        self.plugins = plugins
        self.source, self.converter = elements

    def __repr__(self):
        return self.plugin

    def enabled(self, *names):
        """The producers' file that has this kind alone enabled, on the first channels under these names."""
        return producers_enabled({(self.tracker, channel): name for channel, name in enumerate(names, 1)})


VIDEO = SceneKind(VIDEO_TRACKER, SCENE_PLUGIN, SCENE_PLUGINS, ("scenesrc", "scene2xml"))
RADAR = SceneKind(RADAR_TRACKER, RADAR_PLUGIN, RADAR_PLUGINS, ("radarscenesrc", "radarscene2xml"))


def is_inside(point):
    return all(abs(coordinate) < INSIDE for coordinate in point)


def rotate(point, degrees):
    """Where a point of the picture is when the picture is turned clockwise."""
    x, y = point
    for _ in range(degrees // 90):
        x, y = y, -x
    return x, y


def seen_by_radar(info):
    """Where in the picture that is not turned the radar has an object."""
    return info.angle / 20, (info.range - 20) / 15


def objects_of(frames):
    """The objects of the frames as they come."""
    for frame in frames:
        yield from frame.objects.values()


def interpolate(before, after, time):
    """Where something is at `time` that moves straight at an even speed. `before` and `after` are each a time and the
    coordinates then."""
    (start, first), (end, last) = before, after
    part = (time - start) / (end - start) if end > start else 0
    return tuple(low + (high - low) * part for low, high in zip(first, last))


class Tracks:
    """Where each object has been seen inside the picture."""

    def __init__(self):
        self.seen = {}

    def add(self, frame):
        for found in frame.objects.values():
            if is_inside(found.centre):
                self.seen.setdefault(found.id, []).append((frame.time, found.centre))

    def at(self, name, time):
        """Where the object was then, None if it was not seen both before and after."""
        for before, after in itertools.pairwise(self.seen.get(name, [])):
            if before[0] <= time <= after[0]:
                return interpolate(before, after, time)
        return None

    def direction(self, name):
        """Which way the object goes, in the words of a crossing."""
        places = [place for _, place in self.seen[name]]
        return "LeftToRight" if places[0][0] < places[-1][0] else "RightToLeft"
