#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Prints the daemon's documents, one a line. The arguments are properties of tessardsrc, by default analytics=2:

    client.py analytics=1 video-channel=1 event=true
"""
import signal
import sys

import gi

gi.require_version("Gst", "1.0")
from gi.repository import Gst

signal.signal(signal.SIGINT, signal.SIG_DFL)
signal.signal(signal.SIGPIPE, signal.SIG_DFL)
Gst.init(None)
pipeline = Gst.parse_launch(f"tessardsrc {' '.join(sys.argv[1:]) or 'analytics=2'} ! appsink name=documents sync=false")
documents = pipeline.get_by_name("documents")
bus = pipeline.get_bus()
pipeline.set_state(Gst.State.PLAYING)

message = None
while not message:
    sample = documents.emit("try-pull-sample", Gst.SECOND // 10)
    if sample:
        buffer = sample.get_buffer()
        document = buffer.extract_dup(0, buffer.get_size())
        print(document.decode().replace("\n", " "), flush=True)
    message = bus.pop_filtered(Gst.MessageType.ERROR | Gst.MessageType.EOS)
pipeline.set_state(Gst.State.NULL)

if message.type == Gst.MessageType.ERROR:
    sys.exit(f"client.py: {message.parse_error().gerror.message}")
