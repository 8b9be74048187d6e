"""A metadata receiver that says nothing when the daemon starts. The daemon waits for it as long as for anything on the
bus, which is why this is on its own."""

import time

from daemon import BUS_LINES, NOTHING_ASKED, WARNING
from external import ANALYTICS, EXTERNAL_PLUGINS
from overdue import PATIENCE_SECONDS, TOLERANCE_SECONDS


def test_silent_receiver_delays_the_first_answers_and_nothing_else(receiver, launch):
    receiver.on_objects = lambda call: None
    began = time.monotonic()
    daemon = launch(plugins=EXTERNAL_PLUGINS)
    daemon.log.wait_for(len(daemon.start_lines))
    with daemon.client() as client:
        # The server has been started.
        client.socket.settimeout(PATIENCE_SECONDS + TOLERANCE_SECONDS)
        assert client.ask(ANALYTICS) == NOTHING_ASKED
    assert PATIENCE_SECONDS - 1 < time.monotonic() - began < PATIENCE_SECONDS + TOLERANCE_SECONDS

    daemon.bus_lines = [(WARNING, "Failed to connect to metadata-receiver over DBus: Timeout was reached"), *BUS_LINES]
    daemon.wait_until_ready()
