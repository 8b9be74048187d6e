# SPDX-License-Identifier: MIT
"""The metadata receiver of the soak: correct, faulty and transient producers; restarts and hangs of the receiver."""

import asyncio
import contextlib
import json
import math
import os
import time

from gi.repository import GLib

from clients import CHANNELS, CORRECT
from controlclient import ControlClient, path_of
from external import numbered
from fakereceiver import SAMPLE, FakeReceiver, Producer, message
from installation import documented_limit
from load import MISSING, WRONG, Budget, Failed, writable
from receiverclient import LENGTH

# The rate of all producers together.
BYTES_PER_SECOND = 48 * 1024 * 1024

CHUNK = 65536
SHORTEST_BYTES, LONGEST_BYTES = 10, documented_limit("externalsourcesocket.h", "EXTERNAL_SOURCE_MAX_PAYLOAD")

FILLING = memoryview(b"x" * LONGEST_BYTES)

TRANSIENT = tuple(f"Transient{number}" for number in range(6))

FAULTY = ("Huge", "Unfinished", "Garbage", "Closer")

# The producers of the full channel.
ENABLED = (*CORRECT, *FAULTY, *TRANSIENT)

ON_SOCKETS, NONBLOCKING = ("Good2", "Huge"), ("Garbage",)

# Sample frames. Most are valid; the longest exceeds the limit by a few bytes only, because GDBus keeps a buffer as
# large as the longest message.
SAMPLES = (SAMPLE, SAMPLE, SAMPLE, SAMPLE, "{", '{"Filling":"' + "x" * (1024 * 1024) + '"}')

# The time limit until the correct producers are on the bus again, after all others.
LISTED_SECONDS = 120


def filled(size):
    """The parts of an empty item of about this size."""
    head, tail = b'{"Filling":"', b'"}'
    return head, FILLING[:max(0, size - len(head) - len(tail))], tail


class ProducerLoad:
    """All producers and their receiver, and the tasks that send the producers' messages."""

    def __init__(self, load):
        self.load = load
        self.loop = asyncio.get_running_loop()
        self.budget = Budget(BYTES_PER_SECOND)
        self.control = ControlClient(load.bus)
        self.receiver = None
        self.transient = {}
        self.sending = set()
        # Calls during a hang of the receiver, as functions that reply.
        self.hanging = False
        self.kept = []
        self.faulty = dict(zip(FAULTY, (self._send_huge, self._send_unfinished, self._send_garbage,
                                        self._send_and_close)))

    # The receiver

    def _make_receiver(self):
        receiver = FakeReceiver(self.load.bus)
        receiver.on_objects = lambda call: self._reply(lambda: receiver.send_objects(call))
        for name, send in (dict.fromkeys(CORRECT, self._send_numbers) | self.faulty).items():
            producer = receiver.add(name, channels=CHANNELS)
            producer.nonblocking = name in NONBLOCKING
            if name in ON_SOCKETS:
                producer.use_sockets()
            self._set_replies(producer, send)
        return receiver

    def _set_replies(self, producer, send):
        """Makes this coroutine write the producer's streams."""
        producer.on_stream = lambda call: self._reply(lambda: self._open_stream(producer, send, call))
        producer.on_sample = lambda call: self._reply(lambda: producer.send_sample(call))

    def _reply(self, reply):
        """Replies to a call, or keeps it during a hang. The receiver may have left the bus meanwhile."""
        if self.hanging:
            self.kept.append(reply)
            return
        with contextlib.suppress(GLib.Error):
            reply()

    def _open_stream(self, producer, send, call):
        producer.give_stream(call)
        self.loop.call_soon_threadsafe(self._start_sending, send, producer.streams.pop())

    def _start_sending(self, send, stream):
        task = self.loop.create_task(self._send(send, stream))
        self.sending.add(task)
        task.add_done_callback(self.sending.discard)

    async def _send(self, send, stream):
        """Writes a stream, whose read end the daemon may close at any time."""
        try:
            await send(stream)
        except (BrokenPipeError, ConnectionResetError):
            pass
        except (OSError, ValueError) as error:
            self.load.fail("a producer", Failed(WRONG, repr(error)))
        finally:
            stream.close()

    async def start(self):
        self.receiver = self._make_receiver()
        await asyncio.to_thread(self.receiver.start)
        await self._wait_until_listed()

    def _are_listed(self):
        return {path_of(name) for name in CORRECT} <= self.control.objects()

    async def _wait_until_listed(self):
        try:
            async with asyncio.timeout(LISTED_SECONDS):
                while not await asyncio.to_thread(self._are_listed):
                    await asyncio.sleep(0.2)
        except (TimeoutError, GLib.Error) as error:
            raise Failed(MISSING, f"correct producers are not listed: {error!r}") from None
        self.load.steady_since = time.monotonic()

    async def leave_and_return(self):
        """Releases the name for a time. Streams stay open."""
        self.load.steady_since = None
        await asyncio.to_thread(self.receiver.release_name)
        await self.load.pause(0, 2)
        await asyncio.to_thread(self.receiver.take_name)
        await self._wait_until_listed()

    async def restart(self):
        """Restarts the receiver like a process: all its streams end."""
        await self.stop()
        await self.load.pause(0, 2)
        await self.start()

    async def hang(self):
        """Delays all replies for a time."""
        began = time.monotonic()
        self.hanging = True
        await self.load.pause(2, 8)
        self.hanging = False
        self.load.hangs.append((began, time.monotonic()))
        kept, self.kept = self.kept, []
        for reply in kept:
            self._reply(reply)

    async def stop(self):
        self.load.steady_since = None
        self.transient.clear()
        for task in list(self.sending):
            task.cancel()
        await asyncio.gather(*self.sending, return_exceptions=True)
        await asyncio.to_thread(self.receiver.close)
        self.kept.clear()

    def close(self):
        self.control.close()

    # Streams

    async def _write(self, stream, *parts):
        for part in parts:
            left = memoryview(part)
            while left:
                try:
                    written = os.write(stream.fd, left[:CHUNK])
                except BlockingIOError:
                    await writable(stream.fd)
                    continue
                left = left[written:]
                await self.budget.take(written)

    async def _send_numbers(self, stream):
        """Sends the numbers from 0 on, some in long messages."""
        number = 0
        while True:
            longest = 100_000 if self.load.random.random() < 0.02 else 1000
            await self._write(stream, message(numbered(number).ljust(self.load.random.randrange(longest))))
            self.load.done["messages of correct producers"] += 1
            number += 1
            await self.load.pause(0.2, 1.5)

    def _random_size(self, longest):
        return round(math.exp(self.load.seconds(math.log(SHORTEST_BYTES), math.log(longest))))

    async def _send_huge(self, stream):
        """Sends whole messages of any length."""
        while True:
            parts = filled(self._random_size(LONGEST_BYTES))
            await self._write(stream, LENGTH.pack(sum(map(len, parts))), *parts)
            self.load.done["messages of any length"] += 1
            await self.load.pause(0.1, 2)

    async def _send_unfinished(self, stream):
        """Sends a message without its end."""
        size = self._random_size(LONGEST_BYTES)
        await self._write(stream, message(numbered(1)), LENGTH.pack(size), FILLING[:size * 2 // 3])
        self.load.done["unfinished messages"] += 1
        await self.load.pause(5, 15)

    async def _send_garbage(self, stream):
        """Sends invalid lengths and texts."""
        while True:
            size = self.load.random.randrange(1, 4096)
            await self._write(stream, self.load.random.choice([
                self.load.random.randbytes(size),
                message(self.load.random.randbytes(size)),
                message(json.dumps([size] * 10)),
                message("]},{"),
                message(""),
                LENGTH.pack(LONGEST_BYTES + size),
                LENGTH.pack(2 ** 32 - 1),
            ]))
            self.load.done["garbage"] += 1
            await self.load.pause(0.2, 2)

    async def _send_and_close(self, stream):
        """Closes the stream at a random position of a message."""
        whole = message(numbered(*range(100)))
        await self._write(stream, whole * self.load.random.randrange(4), whole[:self.load.random.randrange(len(whole))])
        self.load.done["messages cut short"] += 1
        await self.load.pause(0, 2)

    # Transient producers

    def _send_some_sample(self, producer, call):
        """Replies with a valid sample frame, or wrongly in one of several ways."""
        way = self.load.random.randrange(8)
        if way == 0:
            call.fail()
        elif way == 1:
            call.reply(GLib.Variant("(i)", (1,)))
        else:
            producer.sample = self.load.random.choice(SAMPLES)
            producer.send_sample(call)

    def _reply_somehow(self, producer, send, call):
        """Replies with a stream, with something else, or with a stream later."""
        way = self.load.random.randrange(10)
        if way == 0:
            call.fail()
        elif way == 1:
            call.reply(GLib.Variant("(h)", (0,)))
        elif way == 2:
            call.reply(GLib.Variant("(i)", (0,)))
        elif way == 3:
            self.loop.call_soon_threadsafe(self.loop.call_later, self.load.seconds(1, 4), self._reply,
                                           lambda: self._open_stream(producer, send, call))
        else:
            self._open_stream(producer, send, call)

    def _announce_transient(self, name):
        send = self.load.random.choice(list(self.faulty.values()))
        producer = Producer(name, channels=CHANNELS)
        producer.on_sample = lambda call: self._reply(lambda: self._send_some_sample(producer, call))
        producer.on_stream = lambda call: self._reply(lambda: self._reply_somehow(producer, send, call))
        return self.receiver.announce(producer)

    async def add_or_remove(self):
        """Adds or removes one producer."""
        name = self.load.random.choice(TRANSIENT)
        if name in self.transient:
            await asyncio.to_thread(self.receiver.remove, self.transient.pop(name))
            self.load.done["producers removed"] += 1
        else:
            self.transient[name] = await asyncio.to_thread(self._announce_transient, name)
            self.load.done["producers added"] += 1
