# SPDX-License-Identifier: MIT
"""A broker that does not do what MQTT asks for."""

import contextlib
import random
import socket
import threading

from broker import free_port
from waiting import BOUND_SECONDS

ACCEPTED = bytes([0x20, 2, 0, 0])
REFUSED = bytes([0x20, 2, 0, 5])
PUBLISH = 3
PUBACK = 4


def read_packet(peer):
    """The type and the body of the next packet."""
    first = read(peer, 1)[0]
    length, shift = 0, 0
    while True:
        byte = read(peer, 1)[0]
        length |= (byte & 127) << shift
        shift += 7
        if byte < 128:
            return first >> 4, read(peer, length)


def read(peer, size):
    data = b""
    while len(data) < size:
        chunk = peer.recv(size - len(data))
        if not chunk:
            raise ConnectionError
        data += chunk
    return data


class FakeBroker:
    """A broker that handles each connection with a function of the broker and the connection, until that returns."""

    address_format = "mqtt://127.0.0.1:{}"
    user = certificates = None

    def __init__(self, handle):
        self.handle = handle
        self.port = free_port()
        self.address = self.address_format.format(self.port)
        self.connections = 0
        self.packets = 0
        self.stopped = threading.Event()
        self.listener = socket.create_server(("127.0.0.1", self.port))
        self.threads = [threading.Thread(target=self._accept)]
        self.threads[0].start()

    def _accept(self):
        self.listener.settimeout(0.05)
        while not self.stopped.is_set():
            with contextlib.suppress(TimeoutError):
                peer, _ = self.listener.accept()
                self.connections += 1
                self.threads.append(threading.Thread(target=self._serve, args=(peer,)))
                self.threads[-1].start()

    def _serve(self, peer):
        peer.settimeout(0.05)
        with peer, contextlib.suppress(ConnectionError):
            self.handle(self, peer)

    def close(self):
        self.stopped.set()
        for thread in self.threads:
            thread.join(BOUND_SECONDS)
        self.listener.close()

    # What the functions do

    def next_packet(self, peer):
        """The next packet, or None when the broker is stopped."""
        while not self.stopped.is_set():
            with contextlib.suppress(TimeoutError):
                if peer.recv(1, socket.MSG_PEEK):
                    peer.settimeout(BOUND_SECONDS)
                    packet = read_packet(peer)
                    peer.settimeout(0.05)
                    self.packets += 1
                    return packet
                raise ConnectionError
        return None

    def send_until_stopped(self, peer, make_data):
        while not self.stopped.is_set():
            with contextlib.suppress(TimeoutError):
                peer.sendall(make_data())


def closes(broker, peer):
    pass


def accepts_and_closes(broker, peer):
    broker.next_packet(peer)
    peer.sendall(ACCEPTED)


def is_silent(broker, peer):
    broker.stopped.wait()


def refuses(broker, peer):
    broker.next_packet(peer)
    peer.sendall(REFUSED)


def sends_garbage(broker, peer):
    broker.send_until_stopped(peer, lambda: random.randbytes(1000))


def sends_garbage_later(broker, peer):
    broker.next_packet(peer)
    peer.sendall(ACCEPTED)
    sends_garbage(broker, peer)


def announces_long_packets(broker, peer):
    broker.next_packet(peer)
    peer.sendall(ACCEPTED + bytes([0x30, 0xff, 0xff, 0xff, 0x7f]))
    broker.send_until_stopped(peer, lambda: bytes(65536))


def sends_single_bytes(broker, peer):
    for byte in ACCEPTED:
        peer.sendall(bytes([byte]))
        broker.stopped.wait(0.1)
    while broker.next_packet(peer):
        pass


def floods_with_messages(broker, peer):
    broker.next_packet(peer)
    peer.sendall(ACCEPTED)
    topic = b"\0\x01a"
    broker.send_until_stopped(peer, lambda: bytes([0x30, len(topic) + 100]) + topic + bytes(100))


def never_acknowledges(broker, peer):
    broker.next_packet(peer)
    peer.sendall(ACCEPTED)
    while broker.next_packet(peer):
        pass


def does_not_read(broker, peer):
    broker.next_packet(peer)
    peer.sendall(ACCEPTED)
    broker.stopped.wait()


def acknowledges_everything(broker, peer):
    """Acknowledges messages that it did not get, again and again."""
    broker.next_packet(peer)
    peer.sendall(ACCEPTED)
    broker.send_until_stopped(
        peer, lambda: b"".join(bytes([PUBACK << 4, 2]) + number.to_bytes(2, "big") for number in range(1, 65536, 7)))


# All of them but `closes` and `never_acknowledges`.
HOSTILE = [accepts_and_closes, is_silent, refuses, sends_garbage, sends_garbage_later, announces_long_packets,
           sends_single_bytes, floods_with_messages, does_not_read, acknowledges_everything]
