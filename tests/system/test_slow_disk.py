# SPDX-License-Identifier: MIT
"""Other clients are served while a call waits for a disk whose syncs take 300 ms each."""

import threading
import time

import pytest
from gi.repository import GLib

from busclient import BusClient
from daemon import VIDEO_TRACKER, stored_names
from installation import DOCUMENT_PLUGIN, EVENT_PLUGIN, SCENE_PLUGIN
from promptness import expect_prompt, times
from controlclient import MANAGER, NAME, PRODUCER, ROOT, path_of
from waiting import BOUND_SECONDS

PLUGINS = (EVENT_PLUGIN, SCENE_PLUGIN, DOCUMENT_PLUGIN)

TUPLES = 20

PRODUCERS = "".join(f"[Producers.{index}.{VIDEO_TRACKER}]\nName=\n" for index in range(TUPLES))

# A save syncs the file and its folder.
LEAST_SECONDS = TUPLES * 2 * 0.3


@pytest.fixture
def daemon(start_daemon, workspace):
    faults = workspace.folder()
    (faults / "sync-slowly").touch()
    return start_daemon(plugins=PLUGINS, producers=PRODUCERS, environment={"TESTHOST_FAULTS": str(faults)})


class Change(threading.Thread):
    """One call with all tuples, on its own connection."""

    def __init__(self, bus, *call):
        super().__init__(daemon=True)
        self.client = BusClient(bus)
        self.arguments = call
        self.began = time.monotonic()
        self.seconds = None
        self.start()

    def run(self):
        reply = self.client.call(NAME, *self.arguments, seconds=10 * BOUND_SECONDS)
        assert reply.unpack() == ()
        self.seconds = time.monotonic() - self.began

    def finish(self):
        """Returns its duration."""
        self.join(10 * BOUND_SECONDS)
        assert self.seconds is not None, "the call failed"
        self.client.close()
        return self.seconds


TUPLES_OF_CALL = [(channel, True, f"name {channel}") for channel in range(1, TUPLES + 1)]

CALLS = {
    "SetChannelsEnabled": (path_of(VIDEO_TRACKER), PRODUCER, "SetChannelsEnabled",
                           GLib.Variant("(a(ibs))", (TUPLES_OF_CALL,))),
    "SetProducersEnabled": (ROOT, MANAGER, "SetProducersEnabled",
                            GLib.Variant("(a{sa(ibs)})", ({VIDEO_TRACKER: TUPLES_OF_CALL},))),
}


@pytest.mark.parametrize("call", CALLS)
def test_others_are_served_while_a_call_waits_for_the_disk(bus, daemon, control, call):
    def start_client():
        daemon.expect_reply("event=1\n", "OK")

    # GDBus replies to a D-Bus ping on the connection's own thread, to a request for a property on the main loop.
    def ping():
        control.get(NAME, path_of(VIDEO_TRACKER), PRODUCER, "Name")

    undisturbed_pings, undisturbed_starts = times(ping), times(start_client)
    change = Change(bus, *CALLS[call])
    pings, starts = times(ping), times(start_client)
    expect_prompt(pings, undisturbed_pings, "pings")
    expect_prompt(starts, undisturbed_starts, "the OK of clients of events")
    assert change.is_alive(), "the call outlasted all tries"

    assert change.finish() >= LEAST_SECONDS
    names = {(VIDEO_TRACKER, channel): name for channel, _, name in TUPLES_OF_CALL}
    assert control.names(VIDEO_TRACKER) == names
    assert stored_names(daemon.producers_conf) == names
