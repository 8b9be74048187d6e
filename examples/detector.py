#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Detects what moves in a video and prints one JSON item for each frame, for "tessardctl produce".

The source is a GStreamer description that ends with the decoded video of a camera that does not move:

    detector.py                                                                    a test picture with a moving ball
    detector.py v4l2src device=/dev/video0
    detector.py rtspsrc location=rtsp://camera/stream ! decodebin
    detector.py filesrc location=street.mp4 ! decodebin

With --events it also emits events: one for each object that crosses a line, and the state of the motion alarm.
"""
import argparse
import datetime
import json
import math
import os
import signal
import sys

import gi
import numpy as np

gi.require_version("Gst", "1.0")
from gi.repository import GLib, Gst

WIDTH, HEIGHT = 160, 120  # of the analysed picture, in pixels: multiples of CELL
CELL = 4                  # pixels; what moves in cells that touch is one object
THRESHOLD = 30            # the least difference from the background, of 255 grey levels
MIN_PIXELS = 4            # that differ in a cell where something moves
MIN_CELLS = 3             # of an object; less is noise
SAMPLE_EVERY = 8          # frames; the background is the median of the latest samples,
SAMPLES = 31              # so that what stands still for half of their time becomes background
PATIENCE = 15             # frames for which an object can be hidden and keep its id
LINE = -0.25              # where the vertical line is, from -1 at the left to 1 at the right


class Background:
    def __init__(self):
        self.samples, self.picture, self.frames = [], None, 0

    def subtract(self, frame):
        """The pixels where something moves. At first, the place that an object leaves is one of them."""
        if self.frames % SAMPLE_EVERY == 0:
            self.samples = [*self.samples, frame][-SAMPLES:]
            self.picture = np.median(self.samples, axis=0)
        self.frames += 1
        return np.abs(frame - self.picture) > THRESHOLD


def find_boxes(moving):
    """The boxes (left, top, right, bottom) around the pixels in groups of cells that touch."""
    counts = moving.reshape(HEIGHT // CELL, CELL, WIDTH // CELL, CELL).sum(axis=(1, 3))
    cells = set(zip(*np.nonzero(counts >= MIN_PIXELS)))
    while cells:
        group = todo = {cells.pop()}
        while todo:
            todo = {(y + down, x + right) for y, x in todo for down in (-1, 0, 1) for right in (-1, 0, 1)} & cells
            group, cells = group | todo, cells - todo
        if len(group) >= MIN_CELLS:
            (top, left), (bottom, right) = CELL * np.min([*group], axis=0), CELL * np.max([*group], axis=0) + CELL
            ys, xs = np.nonzero(moving[top:bottom, left:right])
            yield left + xs.min(), top + ys.min(), left + xs.max() + 1, top + ys.max() + 1


class Tracker:
    def __init__(self):
        self.known, self.last_id = {}, 0  # known: id -> (box, frames since it was seen)

    def follow(self, boxes):
        """The boxes by id, and the ids of the objects that have left. A box has the id of the nearest object."""
        seen = {}
        for box in boxes:
            distances = {number: math.dist(box, old) for number, (old, _) in self.known.items() if number not in seen}
            number = min(distances, key=distances.get, default=None)
            if number is None or distances[number] > 2 * max(box[2] - box[0], box[3] - box[1]):
                number = self.last_id = self.last_id + 1
            seen[number] = box
        self.known = ({number: (box, frames + 1) for number, (box, frames) in self.known.items()}
                      | {number: (box, 0) for number, box in seen.items()})
        gone = [number for number, (_, frames) in self.known.items() if frames > PATIENCE]
        for number in gone:
            del self.known[number]
        return seen, gone


def item_of(time, seen, gone):
    """The item; its coordinates go from -1 at the left and the bottom to 1 at the right and the top."""
    def box_of(left, top, right, bottom):
        return {"Left": round(2 * left / WIDTH - 1, 4), "Top": round(1 - 2 * top / HEIGHT, 4),
                "Right": round(2 * right / WIDTH - 1, 4), "Bottom": round(1 - 2 * bottom / HEIGHT, 4)}

    return {"UtcTime": time.isoformat(timespec="milliseconds"), "Deleted": gone,
            "Objects": [{"Id": number, "BoundingBox": box_of(*box)} for number, box in seen.items()]}


class Events:
    """Who crosses the line, and whether there is an object, as events for recorders."""

    CROSSED, MOTION = "tns1:RuleEngine/LineDetector/Crossed", "tns1:VideoSource/MotionAlarm"
    RULE = {"VideoSourceConfigurationToken": "1", "VideoAnalyticsConfigurationToken": "1", "Rule": "Line"}

    def __init__(self):
        gi.require_version("Tessard", "1.0")
        from gi.repository import Tessard
        self.sides, self.motion, self.events = {}, None, Tessard.Events()
        self.events.connect("refused", lambda _, topic, reason: print(f"{topic}: {reason}", file=sys.stderr))
        self.events.declare(self.CROSSED, False, [f"{name}:tt:ReferenceToken" for name in self.RULE],
                            ["ObjectId:xs:integer"], None)
        self.events.declare(self.MOTION, True, ["Source:tt:ReferenceToken"], ["State:xs:boolean"], None)

    def follow(self, time, seen, gone):
        microseconds = round(time.timestamp() * 1e6)
        for number, (left, _, right, _) in seen.items():
            side = (left + right) / WIDTH - 1 > LINE
            if self.sides.get(number, side) != side:
                self.events.emit(self.CROSSED, None, self.RULE, {"ObjectId": str(number)}, microseconds)
            self.sides[number] = side
        for number in gone:
            del self.sides[number]
        if self.motion != bool(self.sides):
            self.motion = bool(self.sides)
            self.events.emit(self.MOTION, "Changed", {"Source": "1"}, {"State": str(self.motion).lower()}, microseconds)


def time_of(sample, pipeline):
    """The time of the frame: now, less its age."""
    running = sample.get_segment().to_running_time(Gst.Format.TIME, sample.get_buffer().pts)
    age = pipeline.get_clock().get_time() - pipeline.get_base_time() - running
    return datetime.datetime.now(datetime.timezone.utc) - datetime.timedelta(microseconds=age // 1000)


def detect(pipeline, frames, events):
    background, tracker = Background(), Tracker()
    message = None
    while not message:
        sample = frames.emit("try-pull-sample", Gst.SECOND // 10)
        if sample:
            data = sample.get_buffer().extract_dup(0, WIDTH * HEIGHT)
            moving = background.subtract(np.frombuffer(data, np.uint8).reshape(HEIGHT, WIDTH).astype(float))
            time, (seen, gone) = time_of(sample, pipeline), tracker.follow(find_boxes(moving))
            print(json.dumps(item_of(time, seen, gone)), flush=True)
            if events:
                events.follow(time, seen, gone)
        message = pipeline.get_bus().pop_filtered(Gst.MessageType.ERROR | Gst.MessageType.EOS)
    if message.type == Gst.MessageType.ERROR:
        sys.exit(f"{message.src.name}: {message.parse_error().gerror.message}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--events", action="store_true", help="emit events")
    parser.add_argument("source", nargs=argparse.REMAINDER, help="the video, as gst-launch-1.0 takes it")
    arguments = parser.parse_args()
    source = " ".join(arguments.source) or "videotestsrc is-live=true pattern=ball"
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: sys.exit())
    Gst.init(None)
    try:
        pipeline = Gst.parse_launch(f"{source} ! videoconvert ! videoscale ! appsink name=frames max-buffers=2 "
                                    f"caps=video/x-raw,format=GRAY8,width={WIDTH},height={HEIGHT}")
    except GLib.Error as error:
        parser.error(error.message)
    frames = pipeline.get_by_name("frames")
    # A live video goes on when analysing it takes too long; a file waits.
    frames.props.drop = pipeline.set_state(Gst.State.PAUSED) == Gst.StateChangeReturn.NO_PREROLL
    pipeline.set_state(Gst.State.PLAYING)
    events = Events() if arguments.events else None
    try:
        detect(pipeline, frames, events)
    except BrokenPipeError:  # the reader has closed the pipe
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    finally:
        pipeline.set_state(Gst.State.NULL)
        if events:
            events.events.close()


if __name__ == "__main__":
    main()
