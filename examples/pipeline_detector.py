#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""detector.py as a part of a pipeline: it attaches boxes to the frames, and tessardproducer follows and sends them."""
import signal
import sys

import gi
import numpy as np
from detector import HEIGHT, WIDTH, Background, find_boxes

gi.require_version("Gst", "1.0")
gi.require_version("GstVideo", "1.0")
from gi.repository import Gst, GstVideo


def on_frame(element, frame):
    picture = np.frombuffer(frame.extract_dup(0, WIDTH * HEIGHT), np.uint8).reshape(HEIGHT, WIDTH).astype(float)
    for left, top, right, bottom in find_boxes(background.subtract(picture)):
        GstVideo.buffer_add_video_region_of_interest_meta_id(frame, 0, left, top, right - left, bottom - top)


signal.signal(signal.SIGINT, signal.SIG_DFL)
Gst.init(None)
background = Background()
source = " ".join(sys.argv[1:]) or "videotestsrc is-live=true pattern=ball"
pipeline = Gst.parse_launch(f"{source} ! videoconvert ! videoscale ! video/x-raw,format=GRAY8,width={WIDTH},"
                            f"height={HEIGHT} ! identity name=detector signal-handoffs=true ! "
                            "tessardproducer producer-name=Detector ! fakesink sync=true")
pipeline.get_by_name("detector").connect("handoff", on_frame)
pipeline.set_state(Gst.State.PLAYING)
message = pipeline.get_bus().timed_pop_filtered(Gst.CLOCK_TIME_NONE, Gst.MessageType.ERROR | Gst.MessageType.EOS)
pipeline.set_state(Gst.State.NULL)
if message.type == Gst.MessageType.ERROR:
    sys.exit(f"{message.src.name}: {message.parse_error().gerror.message}")
