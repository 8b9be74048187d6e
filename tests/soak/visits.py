"""Clients of every kind: those that behave, with all that they should get, and those that do not."""

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

# The video channels: what is enabled on each.
VIDEO_CHANNEL, RADAR_CHANNEL, EXTERNAL_CHANNEL, FULL_CHANNEL, SPARE_CHANNEL = CHANNELS = (1, 2, 3, 4, 5)

# The producers that behave, as they are enabled; each stream tells numbers from 0 on.
WELL_BEHAVED = ("Good1", "Good2")

# Of this many documents one is checked in every way.
CHECKED = 50

# How many numbers of each producer a client waits for.
NUMBERS = 3

# How long a message may take. One of more than a client may hold keeps the client's other producers waiting meanwhile.
MESSAGE_SECONDS = documented_limit("externalsourcesocket.h", "EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS") / 1000

DOCUMENT_START = re.compile(rb"(?:<\?xml[^>]*\?>\s*)?<tt:MetadataStream\b")
DOCUMENT_END = b"</tt:MetadataStream>"
EVENT_STATE, PTZ_STATUS = b'PropertyOperation="Initialized"', b"<tt:PTZStatus"
VIDEO_FRAME, RADAR_FRAME = b'Source="video"', b'Source="radar"'


class Waived(Exception):
    """A client wants what nobody could have: its producers' receiver is in trouble."""


class Kind:
    """What a client asks for, and what has to come of it: these bytes, at the start and after each sync point, and the
    numbers of the producers that behave.

    pauses_seconds: for how long its numbers may wait for longer messages of the same client"""

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


class Watch:
    """Looks at each document of a stream, and knows what is still to come."""

    def __init__(self, kind):
        self.kind = kind
        self.count = 0
        self.missing = set(kind.marks)
        self.next_numbers = {source.encode(): 0 for source in WELL_BEHAVED}

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
            raise Failed(WRONG, f"{source.group(1)} told {found[:5]}, expected {expected}")
        self.next_numbers[source.group(1)] = expected + 1

    def has_numbers(self):
        return not self.kind.numbers or min(self.next_numbers.values()) >= NUMBERS

    def expect_marks_again(self):
        self.missing = set(self.kind.marks)


class Visit:
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
        """A full backlog is no connection on its way, as asyncio would take it."""
        while True:
            try:
                return self.socket.connect(self.load.socket_path)
            except BlockingIOError:
                await asyncio.sleep(RETRY_SECONDS)

    async def send(self, data):
        await self.loop.sock_sendall(self.socket, data)

    async def read_some(self, size=READ_BYTES):
        """Takes something more in; false at the end."""
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
        """The text of the reply; what has come at the end if there is none."""
        while (end := self.arrived.find(b"\0")) < 0:
            if len(self.arrived) > REPLY_MAX_BYTES or not await self.read_some():
                return self.take(len(self.arrived)).decode(errors="replace") + " and the end"
        return self.take(end + 1)[:-1].decode(errors="replace")

    async def request(self, request):
        """The reply to a request. A daemon that refuses may do so before all of it has been sent."""
        asked = time.monotonic()
        async with self.load.step("a reply", REFUSED):
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                await self.send(request)
            reply = await self.reply()
        self.load.replies_ms.append((time.monotonic() - asked) * 1000)
        return reply

    async def start(self, kind):
        """Asks for a stream that has to be granted."""
        asked = time.monotonic()
        reply = await self.request(kind.request)
        if reply == NOTHING_REQUESTED and kind.numbers and not self.load.is_steady(asked):
            raise Waived
        if reply != "OK":
            raise Failed(REFUSED, f"reply {reply!r}")

    def _take_packet(self):
        """The next packet if all of it has arrived."""
        if len(self.arrived) < GDP_HEADER_BYTES:
            return None
        length = GDP_HEADER_BYTES + int.from_bytes(self.arrived[GDP_LENGTH], "big")
        return self.take(length) if len(self.arrived) >= length else None

    def take_document(self):
        """The next document if all of it has arrived."""
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
        """Waits for the end of the stream, whatever comes before it."""
        async with self.load.step("the end"):
            while await self.read_some():
                self.arrived.clear()


# Clients that behave


async def receive(load, visit, watch, is_enough, what, more_seconds=0):
    """Reads documents until there is enough."""
    async with load.step(what, more_seconds=more_seconds):
        while not is_enough():
            document = await visit.document()
            if document is None:
                raise Failed(MISSING, f"the stream ended before {what}")
            watch.look(document)


async def receive_numbers(load, visit, watch, asked):
    """Whether the numbers came; they need not where the receiver has not been as it should be all the time."""
    def is_enough():
        return watch.has_numbers() or not load.is_steady(asked)

    try:
        await receive(load, visit, watch, is_enough, "the numbers of producers", watch.kind.pauses_seconds)
    except Failed as failed:
        # A stream that has fallen silent brings no document to look again at.
        if failed.category != MISSING:
            raise
        if load.is_steady(asked):
            # The producers' streams may have come late, and without a descriptor for them.
            failed.until = max(failed.moment, load.answered_by(asked))
            raise
    return watch.has_numbers()


async def behave(load, name, stay):
    """Asks for one kind and gets all of it, then for as long as it stays a sync point now and then."""
    kind, watch = KINDS[name], Watch(KINDS[name])
    asked = time.monotonic()
    async with Visit(load) as visit:
        await visit.start(kind)
        leave_at = time.monotonic() + stay
        await receive(load, visit, watch, lambda: not watch.missing, "what was asked for")
        complete = await receive_numbers(load, visit, watch, asked)
        while True:
            await visit.send(b"SYNC\n")
            watch.expect_marks_again()
            await receive(load, visit, watch, lambda: not watch.missing, "what a sync point brings")
            if time.monotonic() >= leave_at:
                break
            with contextlib.suppress(TimeoutError):
                async with asyncio.timeout(load.seconds(1, 5)):
                    while document := await visit.document():
                        watch.look(document)
                    raise Failed(MISSING, "the stream ended while the client stayed")
    return complete


async def behave_shortly(load, name):
    return await behave(load, name, 0)


async def behave_for_long(load, name):
    return await behave(load, name, load.seconds(15, 90))


async def read_slowly(load, name):
    """A little at a time, and whole documents all the same."""
    watch = Watch(KINDS[name])
    async with Visit(load) as visit:
        await visit.start(KINDS[name])
        leave_at = time.monotonic() + load.seconds(5, 20)
        while time.monotonic() < leave_at:
            await visit.send(b"SYNC\n")
            with contextlib.suppress(TimeoutError):
                async with asyncio.timeout(load.seconds(0.5, 2)):
                    if not await visit.read_some(512):
                        raise Failed(MISSING, "the stream of a slow reader ended")
            while document := visit.take_document():
                watch.look(document)
            await load.pause(0.02, 0.3)
        watch.expect_marks_again()
        await visit.send(b"SYNC\n")
        await receive(load, visit, watch, lambda: not watch.missing, "what a sync point brings a slow reader")
    return True


# Clients that do not

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
    """What is malformed is told so, and then the end comes."""
    request, expected = load.chance.choice(MALFORMED)
    async with Visit(load) as visit:
        reply = await visit.request(request)
        if not reply.startswith(expected):
            raise Failed(REFUSED, f"reply {reply!r} to {request[:40]!r}")
        await visit.end()


async def hang_up_at_once(load, name):
    async with Visit(load):
        pass


async def hang_up_within_the_request(load, name):
    async with Visit(load) as visit:
        await visit.send(KINDS[name].request[:load.chance.randrange(1, 12)])
        await load.pause(0, 0.2)


async def hang_up_before_the_reply(load, name):
    async with Visit(load) as visit:
        await visit.send(KINDS[name].request)
        await load.pause(0, 0.05)


async def hang_up_after_the_reply(load, name):
    async with Visit(load) as visit:
        await visit.start(KINDS[name])


async def hang_up_within_a_document(load, name):
    async with Visit(load) as visit:
        await visit.start(KINDS[name])
        # The first document may have come together with the reply, and be all that there is.
        if not visit.arrived:
            async with load.step("something to read"):
                await visit.read_some(load.chance.randrange(1, 400))


async def hang_up_after_a_sync_point(load, name):
    async with Visit(load) as visit:
        await visit.start(KINDS[name])
        await visit.send(b"SYNC\n" * load.chance.randrange(1, 20))


async def close_half_of_a_stream(load, name):
    async with Visit(load) as visit:
        await visit.start(KINDS[name])
        visit.socket.shutdown(socket.SHUT_WR)
        await visit.end()


async def close_half_of_a_request(load, name):
    async with Visit(load) as visit:
        await visit.send(b"OPEN\nevent=1\n")
        visit.socket.shutdown(socket.SHUT_WR)
        reply = await visit.request(b"")
        if not reply.startswith("FAIL\n"):
            raise Failed(REFUSED, f"reply {reply!r} to half a request")
        await visit.end()


async def say_what_is_no_text(load, name):
    async with Visit(load) as visit:
        await visit.start(KINDS[name])
        await visit.send(b"\xff")
        await visit.end()


async def flood_with_sync_points(load, name):
    watch = Watch(KINDS[name])
    async with Visit(load) as visit:
        await visit.start(KINDS[name])
        async with load.step("room for sync points"):
            await visit.send(b"SYNC\n" * 5000)
        await receive(load, visit, watch, lambda: watch.count >= 3, "documents of a flood")


async def stay_silent(load, name):
    async with Visit(load) as visit:
        with contextlib.suppress(TimeoutError):
            async with asyncio.timeout(load.seconds(2, 12)):
                await visit.reply()


async def drip(load, name):
    """A byte now and then, which never makes a whole request."""
    async with Visit(load) as visit:
        leave_at = time.monotonic() + load.seconds(2, 12)
        for byte in b"OPEN\n" + b"a=b\n" * 1000:
            if time.monotonic() >= leave_at:
                break
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                await visit.send(bytes([byte]))
            await load.pause(0.1, 0.5)


async def read_nothing(load, name):
    async with Visit(load) as visit:
        await visit.start(KINDS[name])
        leave_at = time.monotonic() + load.seconds(3, 20)
        while time.monotonic() < leave_at:
            with contextlib.suppress(BlockingIOError, BrokenPipeError, ConnectionResetError):
                visit.socket.send(b"SYNC\n" * 8)
            await load.pause(0.2, 1)


BEHAVED = (behave_shortly, behave_for_long, read_slowly)

# How often each is chosen, of their sum.
WEIGHTS = {
    behave_shortly: 460,
    behave_for_long: 15,
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
    say_what_is_no_text: 20,
    flood_with_sync_points: 10,
    stay_silent: 10,
    drip: 10,
    read_nothing: 20,
}


def title(visit):
    return visit.__name__.replace("_", " ")


async def make_visit(load, visit, name):
    """One visit from its beginning to its end; whatever is wrong with it is counted."""
    try:
        complete = await visit(load, name)
    except Failed as failed:
        load.fail(f"{title(visit)}, {name}", failed)
    except Waived:
        load.waived += 1
    except ConnectionError as error:
        load.fail(f"{title(visit)}, {name}", Failed(REFUSED, repr(error)))
    except (AssertionError, OSError, ValueError) as error:
        load.fail(f"{title(visit)}, {name}", Failed(WRONG, repr(error)))
    else:
        load.done[title(visit)] += 1
        if visit in BEHAVED and complete:
            load.served[name] += 1
        elif visit in BEHAVED:
            load.waived += 1


async def keep_a_place(load):
    """One place of a client, which somebody takes again and again."""
    visits, weights = zip(*WEIGHTS.items())
    names = list(KINDS)
    while True:
        await load.pause(0, 1)
        (visit,) = load.chance.choices(visits, weights)
        await make_visit(load, visit, load.chance.choice(names))
