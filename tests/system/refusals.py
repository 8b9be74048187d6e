# SPDX-License-Identifier: MIT
"""The replies to requests with wrong values, character for character."""

from client import header
from daemon import WARNING

# docs/compatibility.md, "blanks in texts".
RUN = " " * 9

INVALID_EVENT = "Invalid value of 'event' parameter: '{}'."
INVALID_ANALYTICS = "Invalid value of 'analytics' parameter: '{}'."
INVALID_CHANNEL = f"Invalid value of 'channel'{RUN}  parameter: '{{}}'."
CHANNEL_OUT_OF_BOUNDS = f"Value out of bounds for 'channel'{RUN}parameter: '{{}}'."
INVALID_PTZ = f"Invalid value of 'ptz'{RUN}parameter: '{{}}'."
PTZ_OUT_OF_BOUNDS = f"Value out of bounds for 'ptz'{RUN}parameter: '{{}}'."
INVALID_PAN_TILT_SPACE = f"Invalid value of{RUN}'ptz pantilt coordinate space' parameter: '{{}}'."
PAN_TILT_SPACE_OUT_OF_BOUNDS = (f"Value out of bounds for{RUN}'ptz pantilt coordinate space' "
                                "parameter: '{}'.")
INVALID_ZOOM_SPACE = f"Invalid value of 'ptz zoom coordinate space'{RUN}parameter: '{{}}'."
ZOOM_SPACE_OUT_OF_BOUNDS = f"Value out of bounds for{RUN}'ptz zoom coordinate space' parameter: '{{}}'."

# Keys with refused values, and the texts of the refusals.
WRONG_CHANNELS = [
    *[("video_channel", value, INVALID_CHANNEL)
      for value in ("x", "-1", "+1", " 1", "1a", "0x1", "1.0", "1 1", "\N{ARABIC-INDIC DIGIT ONE}")],
    *[("video_channel", value, CHANNEL_OUT_OF_BOUNDS) for value in ("99999999999", "9" * 400)],
]
WRONG_PTZ = [
    *[("ptz", value, INVALID_PTZ) for value in ("", "10", "x", "-1", " 1", "01", "%s")],
    *[("ptz", value, PTZ_OUT_OF_BOUNDS) for value in ("4", "9")],
]
WRONG_SPACES = [
    *[("ptz_pantilt_coordinate_space", value, INVALID_PAN_TILT_SPACE) for value in ("", "a", "-1", "00")],
    *[("ptz_pantilt_coordinate_space", value, PAN_TILT_SPACE_OUT_OF_BOUNDS) for value in ("3", "9")],
    *[("ptz_zoom_coordinate_space", value, INVALID_ZOOM_SPACE) for value in ("", "a", "-1", "00")],
    *[("ptz_zoom_coordinate_space", value, ZOOM_SPACE_OUT_OF_BOUNDS) for value in ("3", "5")],
]
WRONG_ANALYTICS = [("analytics", value, INVALID_ANALYTICS)
                   for value in ("", "3", "01", " 1", "yes", "1.0", "%n")]


def expect_refused(daemon, fields, text):
    """Sends a request, and expects this text as the reason of its refusal and as the only line in the log."""
    with daemon.client() as client:
        assert client.request(header(**fields)) == f"FAIL\nUnable to create source: {text}."
        assert client.read_to_end() == b""
    assert daemon.log.take() == [(WARNING, text)]
