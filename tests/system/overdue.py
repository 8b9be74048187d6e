# SPDX-License-Identifier: MIT
"""Operations that only a time-out ends: incomplete requests, a start whose call of the PTZ coordinator gets no reply, a
metadata receiver that is silent for long, and tessardctl's calls of a daemon that never replies."""

import json
import select
import socket
import threading
import time

from client import Client, ConnectionEnded
from daemon import Daemon, no_move_capabilities, start_lines
from external import DETECTOR, EXTERNAL_PLUGINS, wait_until_listed
from fakereceiver import FakeReceiver
from fakeservice import FakeService, properties
from installation import PTZ_PLUGINS, Bus, documented_limit, user_of_tests
from simcamera import PTZ, SimulatedCamera
from tessardctl import Tessardctl
from controlclient import ControlClient, path_of
from waiting import wait_until

TIMEOUT_SECONDS = documented_limit("server.h", "SERVER_REQUEST_TIMEOUT_MS") / 1000

# The daemon's time-out for a reply on the bus, which is GDBus's default.
PATIENCE_SECONDS = 25

# tessardctl's time-out for the bus and for a reply, and the additional time for each change.
CALL_SECONDS = documented_limit("../tools/producerbus.h", "PRODUCER_BUS_TIMEOUT_SECONDS")
CHANGE_SECONDS = documented_limit("../tools/producerbus.h", "PRODUCER_BUS_SECONDS_PER_CHANGE")

# The delay of a time-out that is allowed on a busy machine.
TOLERANCE_SECONDS = 10


class OverdueRequest(threading.Thread):
    """Sends the beginning of a request and then, optionally, repeated bytes, until there is a reply."""

    def __init__(self, path, first, trickle=b"", pause_seconds=1):
        super().__init__(daemon=True)
        self.began = time.monotonic()
        self.client = Client(path)
        self.client.socket.settimeout(TIMEOUT_SECONDS + TOLERANCE_SECONDS)
        self.first = first
        self.trickle = trickle
        self.pause_seconds = pause_seconds
        self.reply = None
        self.seconds = None
        self.start()

    def run(self):
        try:
            self.client.send(self.first)
            while self.trickle and not select.select([self.client.socket], [], [], self.pause_seconds)[0]:
                self.client.send(self.trickle)
            self.reply = self.client.read_reply().decode()
        except (ConnectionEnded, OSError) as end:
            self.reply = repr(end)
        self.seconds = time.monotonic() - self.began

    def wait(self):
        self.join(TIMEOUT_SECONDS + TOLERANCE_SECONDS)
        assert not self.is_alive()

    def give_up(self):
        self.client.socket.shutdown(socket.SHUT_RDWR)
        self.wait()
        self.client.close()


class OverdueRequests:
    """One request of each kind; neither delays other clients."""

    def __init__(self, daemon):
        self.daemon = daemon
        self.silent = OverdueRequest(daemon.socket_path, b"")
        self.trickling = OverdueRequest(daemon.socket_path, b"OPEN\nevent=", b"1")

    def close(self):
        for request in (self.silent, self.trickling):
            request.give_up()


class OverdueStart:
    """A daemon on a bus where the PTZ coordinator never replies."""

    def __init__(self, installation):
        self.bus = Bus(installation)
        self.camera = SimulatedCamera(installation, self.bus, "--fault", "ptz=never", producers="")
        self.camera.wait_until_ready()
        self.began = time.time()
        self.daemon = Daemon(installation, self.bus, plugins=PTZ_PLUGINS)
        self.daemon.start_lines = start_lines(PTZ_PLUGINS, no_move_capabilities("Timeout was reached"))
        self.over = False
        wait_until(lambda: self.camera.calls(PTZ) == 1, "the coordinator has been called")

    def has_socket(self):
        return self.daemon.socket_path.exists()

    def wait(self):
        """Waits until the daemon is ready and has logged the time-out; returns the duration of its start."""
        wait_until(self.has_socket, "the daemon's call has timed out", PATIENCE_SECONDS + TOLERANCE_SECONDS)
        self.daemon.wait_until_ready()
        self.over = True
        return self.daemon.socket_path.stat().st_mtime - self.began

    def close(self):
        if not self.over:
            self.daemon.log.take()
        self.daemon.finish()
        self.camera.finish()
        self.bus.stop()


class OverdueReceiver:
    """A metadata receiver that sends no reply for longer than the daemon's time-out, and a daemon that calls it."""

    SILENT_SECONDS = 28

    def __init__(self, installation):
        self.bus = Bus(installation)
        self.control = ControlClient(self.bus)
        self.receiver = FakeReceiver(self.bus)
        self.receiver.add(DETECTOR)
        self.kept = []
        self.receiver.on_objects = self.kept.append
        self.receiver.start()
        self.began = time.monotonic()
        self.daemon = Daemon(installation, self.bus, plugins=EXTERNAL_PLUGINS)
        wait_until(lambda: self.kept, "the receiver has been called")
        self.timer = threading.Timer(self.SILENT_SECONDS, self._reply)
        self.timer.start()
        self.daemon.wait_until_ready()

    def _reply(self):
        self.receiver.on_objects = self.receiver.send_objects
        for call in self.kept:
            self.receiver.send_objects(call)

    def is_silent(self):
        return self.control.objects() == set()

    def wait_until_listed(self):
        self.timer.join()
        wait_until_listed(self.control, DETECTOR)

    def close(self):
        self.timer.cancel()
        self.control.close()
        self.receiver.close()
        self.daemon.log.take()
        self.daemon.finish()
        self.bus.stop()


class OverdueCall(threading.Thread):
    """One command of tessardctl, from its start to its end."""

    def __init__(self, seconds, *words):
        super().__init__(daemon=True)
        # Before the start: on a busy machine the command may wait long before Popen returns.
        self.began = time.monotonic()
        self.command = Tessardctl(*words)
        self.seconds = None
        self.patience_seconds = seconds + TOLERANCE_SECONDS
        self.start()

    def run(self):
        self.out, self.err = self.command.process.communicate()
        self.seconds = time.monotonic() - self.began

    def wait(self):
        """The status and the output of the command, after its end."""
        self.join(self.patience_seconds)
        assert not self.is_alive()
        return self.command.process.returncode, self.out, self.err


class OverdueCalls:
    """A command for each call of the daemon that gets no reply, and one on a silent bus."""

    CHANGES = 3

    def __init__(self, installation):
        self.folder = installation.workspace.folder()
        self.silent_bus = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.silent_bus.bind(str(self.folder / "silent-bus"))
        self.silent_bus.listen()
        self.buses = [Bus(installation, owner=user_of_tests()) for _ in range(2)]
        self.services = [self._start_service(self.buses[0], "GetManagedObjects"),
                         self._start_service(self.buses[1], "SetChannelsEnabled", "SetProducersEnabled")]
        list_bus, change_bus = (bus.address for bus in self.buses)
        self.calls = {
            "producers": self._start_call(0, list_bus, "producers"),
            "monitor": self._start_call(0, list_bus, "monitor"),
            "enable": self._start_call(1, change_bus, "enable", "a", "1", "name"),
            "disable": self._start_call(1, change_bus, "disable", "a", "1"),
            "apply": self._start_call(self.CHANGES, change_bus, "apply", str(self._write_changes())),
            "connecting": self._start_call(0, f"unix:path={self.folder}/silent-bus", "producers"),
        }

    @staticmethod
    def _start_service(bus, *silent):
        service = FakeService(bus)
        service.producers = {path_of("a"): properties("a")}
        service.silent = set(silent)
        service.start()
        return service

    @staticmethod
    def _start_call(changes, address, *words):
        return OverdueCall(CALL_SECONDS + changes * CHANGE_SECONDS, *words, "--bus", address)

    def _write_changes(self):
        path = self.folder / "changes.json"
        channels = [{"Channel": 1, "Enabled": False}] * self.CHANGES
        path.write_text(json.dumps([{"Name": "a", "Channels": channels}]), encoding="ascii")
        return path

    def close(self):
        for call in self.calls.values():
            call.command.process.kill()
            call.wait()
        for service in self.services:
            service.close()
        for bus in self.buses:
            bus.stop()
        self.silent_bus.close()
