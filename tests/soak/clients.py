# SPDX-License-Identifier: MIT
"""Clients of every kind: correct ones, with the metadata that they must receive, and ones that violate the protocol."""

import asyncio
import contextlib
import re
import socket
import time

from client import REPLY_MAX_BYTES, header
from daemon import NOTHING_REQUESTED
from documents import Document
from external import NUMBER, SOURCE
from fakedaemon import GDP_BUFFER, GDP_HEADER_BYTES, GDP_LENGTH, GDP_TYPE
from installation import documented_limit
from load import MISSING, REFUSED, WRONG, Failed, readable
from refusals import INVALID_ANALYTICS, INVALID_EVENT

READ_BYTES = 65536
RETRY_SECONDS = 0.02

# The video channels, by the producers that are enabled on them.
VIDEO_CHANNEL, RADAR_CHANNEL, EXTERNAL_CHANNEL, FULL_CHANNEL, SPARE_CHANNEL = CHANNELS = (1, 2, 3, 4, 5)

# The configuration names of correct producers; each of their streams has the numbers from 0 on.
CORRECT = ("Good1", "Good2")

# One document in this many is parsed and validated.
CHECKED = 50

# The count of numbers of each producer that a client waits for.
NUMBERS = 3

# The time limit of a message. A message beyond the client's memory limit delays the client's other producers meanwhile.
MESSAGE_SECONDS = documented_limit("externalsourcesocket.h", "EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS") / 1000

DOCUMENT_START = re.compile(rb"(?:<\?xml[^>]*\?>\s*)?<tt:MetadataStream\b")
DOCUMENT_END = b"</tt:MetadataStream>"
EVENT_STATE, PTZ_STATUS = b'PropertyOperation="Initialized"', b"<tt:PTZStatus"
VIDEO_FRAME, RADAR_FRAME = b'Source="video"', b'Source="radar"'


class Waived(Exception):
    """A client cannot be served, because the receiver of its producers is disturbed."""


class Kind:
    """A request and the metadata that it must yield: marks, which are bytes at the start and after each sync point, and
    the numbers of correct producers.

    pauses_seconds: the time for which long messages of the same client may delay its numbers"""

    def __init__(self, marks=(), numbers=False, pauses_seconds=0, **fields):
        self.request = f"OPEN\n{header(**fields)}\n".encode()
        self.marks = frozenset(marks)
        self.numbers = numbers
        self.pauses_seconds = pauses_seconds


KINDS = {
    "events": Kind([EVENT_STATE], event=1),
    "filtered events": Kind([EVENT_STATE], event=1, event_topic="tns1:Device//."),
    "PTZ": Kind([PTZ_STATUS], ptz=1),
    "scenes": Kind([VIDEO_FRAME], analytics=2, video_channel=VIDEO_CHANNEL),
    "radar scenes": Kind([RADAR_FRAME], analytics=1, video_channel=RADAR_CHANNEL),
    "external producers": Kind(numbers=True, analytics=1, video_channel=EXTERNAL_CHANNEL),
    "everything": Kind([EVENT_STATE, PTZ_STATUS, VIDEO_FRAME, RADAR_FRAME], numbers=True,
                       pauses_seconds=NUMBERS * MESSAGE_SECONDS, event=1, ptz=1, analytics=2,
                       video_channel=FULL_CHANNEL),
}


class StreamCheck:
    """Checks each document of a stream, and has the marks and numbers that are missing."""

    def __init__(self, kind):
        self.kind = kind
        self.count = 0
        self.missing = set(kind.marks)
        self.next_numbers = {source.encode(): 0 for source in CORRECT}

    def look(self, document):
        if not (DOCUMENT_START.match(document) and document.rstrip().endswith(DOCUMENT_END)):
            raise Failed(WRONG, f"not a document: {document[:80]!r}...{document[-40:]!r}")
        if self.count % CHECKED == 0:
            Document(document)
        self.count += 1
        self.missing -= {mark for mark in self.missing if mark in document}
        self._count_numbers(document)

    def _count_numbers(self, document):
        source = SOURCE.search(document)
        if source is None or source.group(1) not in self.next_numbers:
            return
        expected = self.next_numbers[source.group(1)]
        found = [int(number) for number in NUMBER.findall(document)]
        if found != [expected]:
            raise Failed(WRONG, f"{source.group(1)} sent {found[:5]}, expected {expected}")
        self.next_numbers[source.group(1)] = expected + 1

    def has_numbers(self):
        return not self.kind.numbers or min(self.next_numbers.values()) >= NUMBERS

    def expect_marks_again(self):
        self.missing = set(self.kind.marks)


class Connection:
    """One connection."""

    def __init__(self, load):
        self.load = load
        self.loop = asyncio.get_running_loop()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.setblocking(False)
        self.arrived = bytearray()

    async def __aenter__(self):
        self.load.clients += 1
        try:
            async with self.load.step("a connection", REFUSED):
                await self._connect()
        except BaseException:
            await self.__aexit__()
            raise
        return self

    async def __aexit__(self, *exception):
        self.socket.close()
        self.load.clients -= 1

    async def _connect(self):
        """Retries while the backlog is full, which asyncio would treat as a pending connection."""
        while True:
            try:
                return self.socket.connect(self.load.socket_path)
            except BlockingIOError:
                await asyncio.sleep(RETRY_SECONDS)

    async def send(self, data):
        await self.loop.sock_sendall(self.socket, data)

    async def read_some(self, size=READ_BYTES):
        """Receives data; returns false at the end."""
        await readable(self.socket.fileno())
        with contextlib.suppress(ConnectionResetError):
            data = self.socket.recv(size)
            self.arrived += data
            return bool(data)
        return False

    def take(self, size):
        data = bytes(self.arrived[:size])
        del self.arrived[:size]
        return data

    async def reply(self):
        """The text of the reply; the received text at an early end."""
        while (end := self.arrived.find(b"\0")) < 0:
            if len(self.arrived) > REPLY_MAX_BYTES or not await self.read_some():
                return self.take(len(self.arrived)).decode(errors="replace") + " and the end"
        return self.take(end + 1)[:-1].decode(errors="replace")

    async def request(self, request):
        """Returns the reply to a request, which may arrive before all of the request has been sent."""
        requested = time.monotonic()
        async with self.load.step("a reply", REFUSED):
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                await self.send(request)
            reply = await self.reply()
        self.load.replies_ms.append((time.monotonic() - requested) * 1000)
        return reply

    async def start(self, kind):
        """Requests a stream, which must be granted."""
        requested = time.monotonic()
        reply = await self.request(kind.request)
        if reply == NOTHING_REQUESTED and kind.numbers and not self.load.is_steady(requested):
            raise Waived
        if reply != "OK":
            raise Failed(REFUSED, f"reply {reply!r}")

    def _take_packet(self):
        """The next packet, None before it has arrived completely."""
        if len(self.arrived) < GDP_HEADER_BYTES:
            return None
        length = GDP_HEADER_BYTES + int.from_bytes(self.arrived[GDP_LENGTH], "big")
        return self.take(length) if len(self.arrived) >= length else None

    def take_document(self):
        """The next document, None before it has arrived completely."""
        while packet := self._take_packet():
            if packet[GDP_TYPE] == GDP_BUFFER:
                return packet[GDP_HEADER_BYTES:]
        return None

    async def document(self):
        """The next document; None at the end of the stream."""
        while (document := self.take_document()) is None:
            if not await self.read_some():
                return None
        return document

    async def end(self):
        """Waits for the end of the stream, and discards data before it."""
        async with self.load.step("the end"):
            while await self.read_some():
                self.arrived.clear()


# Correct clients


async def receive(load, connection, check, is_enough, what, more_seconds=0):
    """Reads documents until is_enough() is true."""
    async with load.step(what, more_seconds=more_seconds):
        while not is_enough():
            document = await connection.document()
            if document is None:
                raise Failed(MISSING, f"the stream ended before {what}")
            check.look(document)


async def receive_numbers(load, connection, check, requested):
    """Returns whether the numbers arrived; they are required only if the receiver was steady all the time."""
    def is_enough():
        return check.has_numbers() or not load.is_steady(requested)

    try:
        await receive(load, connection, check, is_enough, "the numbers of producers", check.kind.pauses_seconds)
    except Failed as failed:
        # Without documents, is_enough() is not called again.
        if failed.category != MISSING:
            raise
        if load.is_steady(requested):
            # The producers' streams may have arrived late, during a shortage of descriptors.
            failed.until = max(failed.moment, load.reply_due(requested))
            raise
    return check.has_numbers()


async def receive_kind(load, name, stay):
    """Requests one kind and receives all its metadata, then requests sync points for `stay` seconds."""
    kind, check = KINDS[name], StreamCheck(KINDS[name])
    requested = time.monotonic()
    async with Connection(load) as connection:
        await connection.start(kind)
        leave_at = time.monotonic() + stay
        await receive(load, connection, check, lambda: not check.missing, "the requested metadata")
        complete = await receive_numbers(load, connection, check, requested)
        while True:
            await connection.send(b"SYNC\n")
            check.expect_marks_again()
            await receive(load, connection, check, lambda: not check.missing, "the metadata of a sync point")
            if time.monotonic() >= leave_at:
                break
            with contextlib.suppress(TimeoutError):
                async with asyncio.timeout(load.seconds(1, 5)):
                    while document := await connection.document():
                        check.look(document)
                    raise Failed(MISSING, "the stream ended while the client stayed")
    return complete


async def receive_shortly(load, name):
    return await receive_kind(load, name, 0)


async def receive_for_long(load, name):
    return await receive_kind(load, name, load.seconds(15, 90))


async def read_slowly(load, name):
    """Reads small pieces; all documents must be complete."""
    check = StreamCheck(KINDS[name])
    async with Connection(load) as connection:
        await connection.start(KINDS[name])
        leave_at = time.monotonic() + load.seconds(5, 20)
        while time.monotonic() < leave_at:
            await connection.send(b"SYNC\n")
            with contextlib.suppress(TimeoutError):
                async with asyncio.timeout(load.seconds(0.5, 2)):
                    if not await connection.read_some(512):
                        raise Failed(MISSING, "the stream of a slow reader ended")
            while document := connection.take_document():
                check.look(document)
            await load.pause(0.02, 0.3)
        check.expect_marks_again()
        await connection.send(b"SYNC\n")
        await receive(load, connection, check, lambda: not check.missing, "a slow reader's metadata of a sync point")
    return True


# Clients that violate the protocol or leave early

NOT_OPEN, NO_VALUE, TOO_LONG = b"open\n", b"OPEN\nno value\n\n", b"OPEN\n" + b"a=b\n" * 20000
MALFORMED = [
    (NOT_OPEN, "FAIL\nUnknown: request: open\n (5)"),
    (b"\xff\xfe\n", "FAIL\nUnknown: request: "),
    (NO_VALUE, "FAIL\nUnable to parse header line: no value."),
    (b"OPEN\n\n", NOTHING_REQUESTED),
    (b"OPEN\nevent=2\n\n", f"FAIL\nUnable to create source: {INVALID_EVENT.format('2')}."),
    (b"OPEN\nanalytics=9\n\n", f"FAIL\nUnable to create source: {INVALID_ANALYTICS.format('9')}."),
    (TOO_LONG, "FAIL\nCould not read request header from socket: "),
]


async def send_malformed_request(load, name):
    """Expects the reply to a malformed request, and then the end."""
    request, expected = load.random.choice(MALFORMED)
    async with Connection(load) as connection:
        reply = await connection.request(request)
        if not reply.startswith(expected):
            raise Failed(REFUSED, f"reply {reply!r} to {request[:40]!r}")
        await connection.end()


async def hang_up_at_once(load, name):
    async with Connection(load):
        pass


async def hang_up_within_the_request(load, name):
    async with Connection(load) as connection:
        await connection.send(KINDS[name].request[:load.random.randrange(1, 12)])
        await load.pause(0, 0.2)


async def hang_up_before_the_reply(load, name):
    async with Connection(load) as connection:
        await connection.send(KINDS[name].request)
        await load.pause(0, 0.05)


async def hang_up_after_the_reply(load, name):
    async with Connection(load) as connection:
        await connection.start(KINDS[name])


async def hang_up_within_a_document(load, name):
    async with Connection(load) as connection:
        await connection.start(KINDS[name])
        # The first document may have arrived with the reply, without a second one after it.
        if not connection.arrived:
            async with load.step("data to read"):
                await connection.read_some(load.random.randrange(1, 400))


async def hang_up_after_a_sync_point(load, name):
    async with Connection(load) as connection:
        await connection.start(KINDS[name])
        await connection.send(b"SYNC\n" * load.random.randrange(1, 20))


async def close_half_of_a_stream(load, name):
    async with Connection(load) as connection:
        await connection.start(KINDS[name])
        connection.socket.shutdown(socket.SHUT_WR)
        await connection.end()


async def close_half_of_a_request(load, name):
    async with Connection(load) as connection:
        await connection.send(b"OPEN\nevent=1\n")
        connection.socket.shutdown(socket.SHUT_WR)
        reply = await connection.request(b"")
        if not reply.startswith("FAIL\n"):
            raise Failed(REFUSED, f"reply {reply!r} to half a request")
        await connection.end()


async def send_invalid_utf8(load, name):
    async with Connection(load) as connection:
        await connection.start(KINDS[name])
        await connection.send(b"\xff")
        await connection.end()


async def flood_with_sync_points(load, name):
    check = StreamCheck(KINDS[name])
    async with Connection(load) as connection:
        await connection.start(KINDS[name])
        async with load.step("room for sync points"):
            await connection.send(b"SYNC\n" * 5000)
        await receive(load, connection, check, lambda: check.count >= 3, "documents of a flood")


async def stay_silent(load, name):
    async with Connection(load) as connection:
        with contextlib.suppress(TimeoutError):
            async with asyncio.timeout(load.seconds(2, 12)):
                await connection.reply()


async def drip(load, name):
    """Sends single bytes, which never complete a request."""
    async with Connection(load) as connection:
        leave_at = time.monotonic() + load.seconds(2, 12)
        for byte in b"OPEN\n" + b"a=b\n" * 1000:
            if time.monotonic() >= leave_at:
                break
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                await connection.send(bytes([byte]))
            await load.pause(0.1, 0.5)


async def read_nothing(load, name):
    async with Connection(load) as connection:
        await connection.start(KINDS[name])
        leave_at = time.monotonic() + load.seconds(3, 20)
        while time.monotonic() < leave_at:
            with contextlib.suppress(BlockingIOError, BrokenPipeError, ConnectionResetError):
                connection.socket.send(b"SYNC\n" * 8)
            await load.pause(0.2, 1)


RECEIVING = (receive_shortly, receive_for_long, read_slowly)

# The relative frequency of each behaviour.
WEIGHTS = {
    receive_shortly: 460,
    receive_for_long: 15,
    read_slowly: 15,
    send_malformed_request: 150,
    hang_up_at_once: 60,
    hang_up_within_the_request: 60,
    hang_up_before_the_reply: 60,
    hang_up_after_the_reply: 50,
    hang_up_within_a_document: 50,
    hang_up_after_a_sync_point: 40,
    close_half_of_a_stream: 40,
    close_half_of_a_request: 20,
    send_invalid_utf8: 20,
    flood_with_sync_points: 10,
    stay_silent: 10,
    drip: 10,
    read_nothing: 20,
}


def title(behaviour):
    return behaviour.__name__.replace("_", " ")


async def run_client(load, behaviour, name):
    """Runs one client and counts its outcome."""
    try:
        complete = await behaviour(load, name)
    except Failed as failed:
        load.fail(f"{title(behaviour)}, {name}", failed)
    except Waived:
        load.waived += 1
    except ConnectionError as error:
        load.fail(f"{title(behaviour)}, {name}", Failed(REFUSED, repr(error)))
    except (AssertionError, OSError, ValueError) as error:
        load.fail(f"{title(behaviour)}, {name}", Failed(WRONG, repr(error)))
    else:
        load.done[title(behaviour)] += 1
        if behaviour in RECEIVING and complete:
            load.served[name] += 1
        elif behaviour in RECEIVING:
            load.waived += 1


async def run_clients(load):
    """Runs one client after another."""
    behaviours, weights = zip(*WEIGHTS.items())
    names = list(KINDS)
    while True:
        await load.pause(0, 1)
        (behaviour,) = load.random.choices(behaviours, weights)
        await run_client(load, behaviour, load.random.choice(names))
