# SPDX-License-Identifier: MIT
"""Storms of changes to producers, and the check of the state after each storm."""

import asyncio
import contextlib

from gi.repository import GLib

from daemon import RADAR_TRACKER, VIDEO_TRACKER
from load import WRONG, Failed
from controlclient import NAME, PRODUCER, ControlClient, path_of
from clients import SPARE_CHANNEL

TRACKERS = (VIDEO_TRACKER, RADAR_TRACKER)

# The limits of concurrent calls, and of changes in the longest call.
MOST_CALLS, MOST_CHANGES = 40, 400

# A call waits for those before it.
CALL_SECONDS = 60


class Switcher:
    def __init__(self, load):
        self.load = load
        self.control = ControlClient(load.bus)

    def _start_calls(self):
        for number in range(self.load.random.randrange(MOST_CALLS)):
            changes = [(SPARE_CHANNEL, bool(number % 2), f"storm {number}")]
            self.control.start_call(NAME, path_of(self.load.random.choice(TRACKERS)), PRODUCER, "SetChannelsEnabled",
                                    GLib.Variant("(a(ibs))", (changes,)))

    def _set(self, tracker, changes):
        self.control.call(NAME, path_of(tracker), PRODUCER, "SetChannelsEnabled", GLib.Variant("(a(ibs))", (changes,)),
                          CALL_SECONDS)

    def _storm(self):
        """Makes many calls at once and a long one; returns the trackers whose state is not the last one set."""
        self._start_calls()
        last = f"storm {self.load.random.random()}"
        for tracker in TRACKERS:
            changes = [(SPARE_CHANNEL, True, f"{last}, {number}")
                       for number in range(self.load.random.randrange(1, MOST_CHANGES))]
            self._set(tracker, [*changes, (SPARE_CHANNEL, True, last)])
        return [tracker for tracker in TRACKERS if (SPARE_CHANNEL, True, last) not in self.control.channels(tracker)]

    async def storm(self):
        try:
            wrong = await asyncio.to_thread(self._storm)
        except GLib.Error as error:
            self.load.fail("switches", Failed(WRONG, error.message))
            return
        self.load.done["storms of switches"] += 1
        for tracker in wrong:
            self.load.fail("switches", Failed(WRONG, f"{tracker} does not have the state that was set"))

    def close(self):
        with contextlib.suppress(GLib.Error):
            self.control.close()
