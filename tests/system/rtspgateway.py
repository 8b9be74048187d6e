# SPDX-License-Identifier: MIT
"""tessard-rtsp of the installation as a process."""

from daemon import INFO
from gatewayprocess import GatewayProcess
from installation import TREE, defined_limits
from rtspclient import RtspClient

# A test picture that costs little.
SMALL_VIDEO = "videotestsrc is-live=true ! video/x-raw,format=I420,width=64,height=48,framerate=25/1 ! jpegenc"

# What a daemon must not send as a document.
MALFORMED = [b"<tt:MetadataStream>", b"\0\xff<?xml", b"</a><b>&c;]]>", b"<" * 100000, b"\x1f\x8b\x08\0",
             b"RTSP/1.0 200 OK\r\n\r\n$\0\0\4"]

LIMITS = defined_limits(TREE / "gateways/rtsp/rtsplimits.h")


def is_state(document):
    """Whether the document has the present state of a property."""
    return any(event.operation == "Initialized" for event in document.events)


class Gateway(GatewayProcess):
    """One tessard-rtsp at a free port."""

    def __init__(self, installation, bus, socket_path, *options, **more):
        super().__init__(installation, bus, "tessard-rtsp", "--port", 0, "--socket", socket_path, *options, **more)
        priority, text = self.log.take_first()
        assert priority == INFO and text.startswith("Ready at "), text
        url = text.removeprefix("Ready at ").removesuffix(".") + "1"
        assert self.url in (None, url)
        self.url = url
        self.port = int(url.split(":")[2].partition("/")[0])

    def client(self, **options):
        return RtspClient(self.port, **options)
