# SPDX-License-Identifier: MIT
"""A fake of the platform's metadata receiver, for the system tests and the soak: its producers send the bytes that a
test writes, and the test can replace or delay each reply. Tests that need correct producers only use the simulated
camera."""

import array
import contextlib
import fcntl
import os
import select
import socket
import stat
import termios
import time

from gi.repository import Gio, GLib

from fakeservice import BusService
from receiverclient import LENGTH, NAME, OBJECT_MANAGER, PRODUCER, ROOT, path_of
from waiting import BOUND_SECONDS, wait_until

# A sample frame that can be converted.
SAMPLE = '{"Objects":[{"Id":1,"Type":"Human"}]}'

ROOT_NODE = Gio.DBusNodeInfo.new_for_xml(
    f'<node><interface name="{OBJECT_MANAGER}"><method name="GetManagedObjects">'
    '<arg type="a{oa{sa{sv}}}" direction="out"/></method></interface></node>')
PRODUCER_NODE = Gio.DBusNodeInfo.new_for_xml(
    f'<node><interface name="{PRODUCER}">'
    '<method name="GetSampleFrame"><arg type="s" direction="out"/></method>'
    '<method name="GetStreamFd"><arg type="i" direction="in"/><arg type="h" direction="out"/></method>'
    "</interface></node>")


def message(payload):
    """One message of a stream: the length in the host's byte order, and the payload."""
    data = payload.encode() if isinstance(payload, str) else payload
    return LENGTH.pack(len(data)) + data


class Call:
    """A received method call, for at most one reply."""

    def __init__(self, connection, invocation, arguments):
        self.connection = connection
        self.message = invocation.get_message()
        self.arguments = arguments

    def reply(self, body=None, fds=None):
        """Replies with a body of any type; fds: the descriptor list, which the caller keeps."""
        reply = Gio.DBusMessage.new_method_reply(self.message)
        if body is not None:
            reply.set_body(body)
        if fds is not None:
            descriptors = Gio.UnixFDList.new()
            for fd in fds:
                descriptors.append(fd)
            reply.set_unix_fd_list(descriptors)
        self._send(reply)

    def fail(self, text="The producer fails."):
        self._send(Gio.DBusMessage.new_method_error_literal(self.message, "org.freedesktop.DBus.Error.Failed", text))

    def _send(self, reply):
        self.connection.send_message(reply, Gio.DBusSendMessageFlags.NONE)


class Stream:
    """The write end of one stream. Each write has a time limit."""

    def __init__(self, fd, channel):
        self.fd = fd
        self.channel = channel
        os.set_blocking(fd, False)

    def send(self, *payloads):
        """Writes messages."""
        self.write(b"".join(map(message, payloads)))

    def write(self, data, seconds=BOUND_SECONDS):
        """Writes all of these bytes."""
        assert self.write_until_full(data, seconds) == len(data), f"the stream accepts nothing for {seconds} s"

    def write_until_full(self, data, seconds):
        """Writes until the stream has accepted nothing for this time; returns the number of bytes written."""
        left = memoryview(data)
        deadline = time.monotonic() + seconds
        while left:
            _, writable, _ = select.select([], [self.fd], [], max(0, deadline - time.monotonic()))
            if not writable:
                break
            try:
                left = left[os.write(self.fd, left):]
            except BlockingIOError:
                # A pipe has some room, but too little for a small write, which is atomic.
                continue
            deadline = time.monotonic() + seconds
        return len(data) - len(left)

    def unread(self):
        """The number of bytes that the other end has not read."""
        count = array.array("i", [0])
        fcntl.ioctl(self.fd, termios.TIOCOUTQ if stat.S_ISSOCK(os.fstat(self.fd).st_mode) else termios.FIONREAD, count)
        return count[0]

    def wait_until_taken(self):
        wait_until(lambda: self.unread() == 0, "all data has been read")

    def is_closed(self):
        """Whether the read end is closed."""
        poll = select.poll()
        poll.register(self.fd, 0)
        return any(events & (select.POLLERR | select.POLLHUP) for _, events in poll.poll(0))

    def close(self):
        if self.fd >= 0:
            os.close(self.fd)
        self.fd = -1


class Producer:
    """One announced object.

    properties: its announced properties
    sample: its sample frame
    on_sample, on_stream: handle a Call instead of the correct reply, in the receiver's thread
    make_pair: makes the read end and the write end of a stream
    nonblocking: whether the read end is non-blocking
    streams: the streams sent so far
    kept: calls for a later reply, if keep() is their handler"""

    def __init__(self, name, channels=(1, 2, 3), element=None, sample=SAMPLE):
        self.name = name
        self.path = path_of(element or name)
        self.properties = {
            "Name": GLib.Variant("s", name),
            "NiceName": GLib.Variant("s", f"The {name[:32]}"),
            "SupportedChannels": GLib.Variant("au", channels),
        }
        self.interfaces = {PRODUCER: self.properties}
        self.sample = sample
        self.on_sample = self.send_sample
        self.on_stream = self.give_stream
        self.make_pair = os.pipe
        self.nonblocking = False
        self.streams = []
        self.kept = []

    def on_call(self, method, call):
        (self.on_sample if method == "GetSampleFrame" else self.on_stream)(call)

    def keep(self, call):
        self.kept.append(call)

    def send_sample(self, call):
        call.reply(GLib.Variant("(s)", (self.sample,)))

    def give_stream(self, call):
        """Replies with the descriptor of a new stream, and keeps the write end."""
        read_fd, write_fd = self.make_pair()
        os.set_blocking(read_fd, not self.nonblocking)
        self.streams.append(Stream(write_fd, *call.arguments))
        call.reply(GLib.Variant("(h)", (0,)), [read_fd])
        os.close(read_fd)

    def use_sockets(self):
        self.make_pair = make_sockets

    def wait_for_stream(self, count=1):
        """Waits until `count` streams have been sent, and returns the last one of these."""
        wait_until(lambda: len(self.streams) >= count, f"{count} streams of {self.path}")
        return self.streams[count - 1]

    def close(self):
        while self.streams:
            self.streams.pop().close()


def make_sockets():
    return tuple(end.detach() for end in socket.socketpair())


class FakeReceiver(BusService):
    """The owner of the receiver's name. Producers can be added and removed at any time, also without the name.

    on_objects: handles a Call for all objects instead of the correct reply, in the receiver's thread"""

    def __init__(self, bus):
        super().__init__(bus, NAME)
        self.producers = []
        self.gone = []
        self.on_objects = self.send_objects
        self.answering = {}
        self.present = False

    def _register_all(self):
        self.client.connection.register_object(ROOT, ROOT_NODE.interfaces[0], self._on_objects, None, None)
        for producer in self.producers:
            self._register(producer)

    def _on_objects(self, connection, sender, path, interface, method, arguments, invocation):
        self.on_objects(Call(connection, invocation, ()))

    def send_objects(self, call):
        objects = {producer.path: producer.interfaces for producer in self.producers}
        call.reply(GLib.Variant("(a{oa{sa{sv}}})", (objects,)))

    def _register(self, producer):
        """Makes this producer handle calls to its path, also after its removal."""
        is_new = producer.path not in self.answering
        self.answering[producer.path] = producer
        if is_new:
            self.client.connection.register_object(producer.path, PRODUCER_NODE.interfaces[0], self._on_call, None,
                                                   None)

    def _on_call(self, connection, sender, path, interface, method, arguments, invocation):
        self.answering[path].on_call(method, Call(connection, invocation, arguments.unpack()))

    def _in_thread(self, work):
        """Calls a function in the receiver's thread, and waits for its end."""
        done = []
        self.context.invoke_full(GLib.PRIORITY_DEFAULT, lambda: done.append(work()) and False)
        wait_until(lambda: done, "the receiver's thread has called it")

    def start(self):
        super().start()
        self.present = True

    def add(self, name, *args, **kwargs):
        return self.announce(Producer(name, *args, **kwargs))

    def announce(self, producer):
        self.producers.append(producer)
        if self.present:
            self._in_thread(lambda: self._register(producer))
            self.emit_added(ROOT, producer.path, producer.interfaces)
        return producer

    def remove(self, producer):
        """Removes a producer's object; its streams stay open."""
        self.producers.remove(producer)
        self.gone.append(producer)
        self.emit_removed(ROOT, producer.path, producer.interfaces)

    def release_name(self):
        """Releases the name; the streams stay open."""
        self.client.release(NAME)
        self.present = False

    def take_name(self):
        self.client.own(NAME)
        self.present = True

    def close(self):
        super().close()
        for producer in self.producers + self.gone:
            producer.close()


@contextlib.contextmanager
def all_connected(bus):
    """Around the start of a daemon: returns when each part of the daemon has its bus connection."""
    receiver = FakeReceiver(bus)
    calls = []
    receiver.on_objects = calls.append
    receiver.start()
    try:
        yield
        wait_until(lambda: calls, "the daemon calls the receiver")
    finally:
        receiver.close()
