"""A stand-in for the platform's metadata receiver: its producers say byte for byte what a test writes, and answer as
wrongly and as late as it wants. For producers that behave there is the simulated camera."""

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

from fakeservice import StandIn
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
    """One message of a stream: the length in the machine's byte order, and the payload."""
    data = payload.encode() if isinstance(payload, str) else payload
    return LENGTH.pack(len(data)) + data


class Call:
    """A method call that has come, for exactly one answer or none."""

    def __init__(self, connection, invocation, arguments):
        self.connection = connection
        self.message = invocation.get_message()
        self.arguments = arguments

    def reply(self, body=None, fds=None):
        """Replies with any body, whatever its type; fds: the descriptor list, which the caller keeps."""
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
    """The end of one stream that is written to. Every write has a bound."""

    def __init__(self, fd, channel):
        self.fd = fd
        self.channel = channel
        os.set_blocking(fd, False)

    def send(self, *payloads):
        """Writes messages."""
        self.write(b"".join(map(message, payloads)))

    def write(self, data, seconds=BOUND_SECONDS):
        """Writes bytes as they are, all of them."""
        assert self.write_until_full(data, seconds) == len(data), f"the stream takes nothing for {seconds} s"

    def write_until_full(self, data, seconds):
        """Writes until the stream has taken nothing for so long; how many bytes it took."""
        left = memoryview(data)
        deadline = time.monotonic() + seconds
        while left:
            _, writable, _ = select.select([], [self.fd], [], max(0, deadline - time.monotonic()))
            if not writable:
                break
            try:
                left = left[os.write(self.fd, left):]
            except BlockingIOError:
                # A pipe has some room, but not for the whole of so small a write.
                continue
            deadline = time.monotonic() + seconds
        return len(data) - len(left)

    def unread(self):
        """How many bytes the other end has not taken."""
        count = array.array("i", [0])
        fcntl.ioctl(self.fd, termios.TIOCOUTQ if stat.S_ISSOCK(os.fstat(self.fd).st_mode) else termios.FIONREAD, count)
        return count[0]

    def wait_until_taken(self):
        wait_until(lambda: self.unread() == 0, "everything has been taken")

    def is_closed(self):
        """Whether nobody has the other end any more."""
        poll = select.poll()
        poll.register(self.fd, 0)
        return any(events & (select.POLLERR | select.POLLHUP) for _, events in poll.poll(0))

    def close(self):
        if self.fd >= 0:
            os.close(self.fd)
        self.fd = -1


class Producer:
    """One announced object.

    properties: what is announced of it
    sample: its sample frame
    on_sample, on_stream: take a Call in place of the right answer, in the thread of the receiver
    make_pair: makes the two ends of a stream; what is read from comes first
    nonblocking: whether the end that is given away is in that mode
    streams: those that have been given away
    kept: calls to be answered later, if keep() is what takes them"""

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
        self.on_sample = self.tell_sample
        self.on_stream = self.give_stream
        self.make_pair = os.pipe
        self.nonblocking = False
        self.streams = []
        self.kept = []

    def on_call(self, method, call):
        (self.on_sample if method == "GetSampleFrame" else self.on_stream)(call)

    def keep(self, call):
        self.kept.append(call)

    def tell_sample(self, call):
        call.reply(GLib.Variant("(s)", (self.sample,)))

    def give_stream(self, call):
        """Answers with the descriptor of a new stream, and keeps the end to write to."""
        read_fd, write_fd = self.make_pair()
        os.set_blocking(read_fd, not self.nonblocking)
        self.streams.append(Stream(write_fd, *call.arguments))
        call.reply(GLib.Variant("(h)", (0,)), [read_fd])
        os.close(read_fd)

    def use_sockets(self):
        self.make_pair = make_sockets

    def wait_for_stream(self, count=1):
        """Waits until so many streams have been given away, and returns the last one."""
        wait_until(lambda: len(self.streams) >= count, f"{count} streams of {self.path}")
        return self.streams[count - 1]

    def close(self):
        while self.streams:
            self.streams.pop().close()


def make_sockets():
    return tuple(end.detach() for end in socket.socketpair())


class FakeReceiver(StandIn):
    """The owner of the receiver's name. Producers may come and go before it has started, while it is there and while
    it has left.

    on_objects: takes a Call for all objects in place of the right answer, in the thread of the receiver"""

    def __init__(self, bus):
        super().__init__(bus, NAME)
        self.producers = []
        self.gone = []
        self.on_objects = self.tell_objects
        self.answering = {}
        self.present = False

    def _register_all(self):
        self.client.connection.register_object(ROOT, ROOT_NODE.interfaces[0], self._on_objects, None, None)
        for producer in self.producers:
            self._register(producer)

    def _on_objects(self, connection, sender, path, interface, method, arguments, invocation):
        self.on_objects(Call(connection, invocation, ()))

    def tell_objects(self, call):
        objects = {producer.path: producer.interfaces for producer in self.producers}
        call.reply(GLib.Variant("(a{oa{sa{sv}}})", (objects,)))

    def _register(self, producer):
        """Has calls to its path answered by this producer, also those that come after it has been removed."""
        is_new = producer.path not in self.answering
        self.answering[producer.path] = producer
        if is_new:
            self.client.connection.register_object(producer.path, PRODUCER_NODE.interfaces[0], self._on_call, None,
                                                   None)

    def _on_call(self, connection, sender, path, interface, method, arguments, invocation):
        self.answering[path].on_call(method, Call(connection, invocation, arguments.unpack()))

    def _in_thread(self, work):
        """Has something done by the thread that answers, and waits for it."""
        done = []
        self.context.invoke_full(GLib.PRIORITY_DEFAULT, lambda: done.append(work()) and False)
        wait_until(lambda: done, "the receiver's thread has done it")

    def start(self):
        super().start()
        self.present = True

    def add(self, name, *args, **kwargs):
        return self.announce(Producer(name, *args, **kwargs))

    def announce(self, producer):
        self.producers.append(producer)
        if self.present:
            self._in_thread(lambda: self._register(producer))
            self.emit(ROOT, OBJECT_MANAGER, "InterfacesAdded",
                      GLib.Variant("(oa{sa{sv}})", (producer.path, producer.interfaces)))
        return producer

    def remove(self, producer):
        """Takes a producer's object away; its streams stay."""
        self.producers.remove(producer)
        self.gone.append(producer)
        self.emit(ROOT, OBJECT_MANAGER, "InterfacesRemoved",
                  GLib.Variant("(oas)", (producer.path, list(producer.interfaces))))

    def leave(self):
        """Gives up the name; the streams stay."""
        self.client.give_up(NAME)
        self.present = False

    def come_back(self):
        self.client.own(NAME)
        self.present = True

    def close(self):
        super().close()
        for producer in self.producers + self.gone:
            producer.close()


@contextlib.contextmanager
def all_connected(bus):
    """For the start of a daemon, all of which has its connection to the bus at the end."""
    receiver = FakeReceiver(bus)
    asked = []
    receiver.on_objects = asked.append
    receiver.start()
    try:
        yield
        wait_until(lambda: asked, "all of the daemon has the connection")
    finally:
        receiver.close()
