"""What never comes to an end by itself, and how the daemon ends it: requests that are never finished, and a start whose
question to the PTZ coordinator is never answered."""

import select
import socket
import threading
import time

from client import Client, ConnectionEnded
from daemon import Daemon, no_move_capabilities, start_lines
from installation import PTZ_PLUGINS, Bus, documented_limit
from simcamera import PTZ, SimulatedCamera
from waiting import wait_until

TIMEOUT_SECONDS = documented_limit("server.h", "SERVER_REQUEST_TIMEOUT_MS") / 1000

# How long the daemon waits for an answer on the bus; GDBus's default.
PATIENCE_SECONDS = 25

# How much later than its time-out an answer may come on a busy machine.
TOLERANCE_SECONDS = 10


class OverdueRequest(threading.Thread):
    """Sends a first piece of a request and, if wanted, one more byte now and then, until there is an answer."""

    def __init__(self, path, first, trickle=b"", pause_seconds=1):
        super().__init__(daemon=True)
        self.began = time.monotonic()
        self.client = Client(path)
        self.client.socket.settimeout(TIMEOUT_SECONDS + TOLERANCE_SECONDS)
        self.first = first
        self.trickle = trickle
        self.pause_seconds = pause_seconds
        self.answer = None
        self.seconds = None
        self.start()

    def run(self):
        try:
            self.client.send(self.first)
            while self.trickle and not select.select([self.client.socket], [], [], self.pause_seconds)[0]:
                self.client.send(self.trickle)
            self.answer = self.client.read_reply().decode()
        except (ConnectionEnded, OSError) as end:
            self.answer = repr(end)
        self.seconds = time.monotonic() - self.began

    def wait(self):
        self.join(TIMEOUT_SECONDS + TOLERANCE_SECONDS)
        assert not self.is_alive()

    def give_up(self):
        self.client.socket.shutdown(socket.SHUT_RDWR)
        self.wait()
        self.client.close()


class OverdueRequests:
    """One of each kind; they take both of the daemon's request threads."""

    def __init__(self, daemon):
        self.daemon = daemon
        self.silent = OverdueRequest(daemon.socket_path, b"")
        self.trickling = OverdueRequest(daemon.socket_path, b"OPEN\nevent=", b"1")

    def close(self):
        for request in (self.silent, self.trickling):
            request.give_up()


class OverdueStart:
    """A daemon on a bus where the PTZ coordinator never answers."""

    def __init__(self, installation, workspace):
        self.bus = Bus(workspace)
        self.camera = SimulatedCamera(installation, self.bus, "--misbehave", "ptz=never")
        self.camera.wait_until_ready()
        self.began = time.time()
        self.daemon = Daemon(installation, self.bus, plugins=PTZ_PLUGINS)
        self.daemon.start_lines = start_lines(PTZ_PLUGINS, no_move_capabilities("Timeout was reached"))
        self.over = False
        wait_until(lambda: self.camera.calls(PTZ) == 1, "the coordinator has been asked")

    def has_socket(self):
        return self.daemon.socket_path.exists()

    def wait(self):
        """Waits until the daemon answers, having said why it does not know; how long its start took."""
        wait_until(self.has_socket, "the daemon has lost its patience", PATIENCE_SECONDS + TOLERANCE_SECONDS)
        self.daemon.wait_until_ready()
        self.over = True
        return self.daemon.socket_path.stat().st_mtime - self.began

    def close(self):
        if not self.over:
            self.daemon.log.take()
        self.daemon.finish()
        self.camera.finish()
        self.bus.stop()
