"""The metadata receiver of the soak: producers that behave, producers that do not, and those that come and go; and how
it restarts and hangs."""

import asyncio
import contextlib
import json
import math
import os
import time

from gi.repository import GLib

from external import numbered
from fakereceiver import SAMPLE, FakeReceiver, Producer, message
from installation import documented_limit
from load import MISSING, WRONG, Budget, Failed, writable
from receiverclient import LENGTH
from controlclient import ControlClient, path_of
from visits import CHANNELS, WELL_BEHAVED

# What all producers together say in a second.
BYTES_PER_SECOND = 48 * 1024 * 1024

CHUNK = 65536
SHORTEST_BYTES, LONGEST_BYTES = 10, documented_limit("externalsourcesocket.h", "EXTERNAL_SOURCE_MAX_PAYLOAD")

FILLING = memoryview(b"x" * LONGEST_BYTES)

COMERS = tuple(f"Comer{number}" for number in range(6))

MISBEHAVED = ("Huge", "Unfinished", "Garbage", "Closer")

# The producers of which a client of the full channel gets a stream.
ENABLED = (*WELL_BEHAVED, *MISBEHAVED, *COMERS)

ON_SOCKETS, NONBLOCKING = ("Good2", "Huge"), ("Garbage",)

# Sample frames. Most are valid; the longest exceeds the limit by a few bytes only, because GDBus keeps a buffer as
# large as the longest message.
SAMPLES = (SAMPLE, SAMPLE, SAMPLE, SAMPLE, "{", '{"Filling":"' + "x" * (1024 * 1024) + '"}')

# How long it may take until the producers that behave are on the bus again, behind all others.
LISTED_SECONDS = 120


def filled(size):
    """The parts of an item of about so many bytes that says nothing."""
    head, tail = b'{"Filling":"', b'"}'
    return head, FILLING[:max(0, size - len(head) - len(tail))], tail


class Announcements:
    """All producers and their receiver, and the tasks that tell what the producers say."""

    def __init__(self, load):
        self.load = load
        self.loop = asyncio.get_running_loop()
        self.budget = Budget(BYTES_PER_SECOND)
        self.control = ControlClient(load.bus)
        self.receiver = None
        self.comers = {}
        self.telling = set()
        # What is asked while the receiver hangs, as functions that answer.
        self.hanging = False
        self.kept = []
        self.misbehaved = dict(zip(MISBEHAVED, (self._tell_huge, self._tell_unfinished, self._tell_garbage,
                                                self._tell_and_close)))

    # The receiver

    def _make_receiver(self):
        receiver = FakeReceiver(self.load.bus)
        receiver.on_objects = lambda call: self._answer(lambda: receiver.send_objects(call))
        for name, tell in (dict.fromkeys(WELL_BEHAVED, self._tell_numbers) | self.misbehaved).items():
            producer = receiver.add(name, channels=CHANNELS)
            producer.nonblocking = name in NONBLOCKING
            if name in ON_SOCKETS:
                producer.use_sockets()
            self._set_answers(producer, tell)
        return receiver

    def _set_answers(self, producer, tell):
        """Has the producer's streams told by this coroutine."""
        producer.on_stream = lambda call: self._answer(lambda: self._give(producer, tell, call))
        producer.on_sample = lambda call: self._answer(lambda: producer.send_sample(call))

    def _answer(self, answer):
        """Answers a call, or keeps it. The receiver may have left the bus meanwhile."""
        if self.hanging:
            self.kept.append(answer)
            return
        with contextlib.suppress(GLib.Error):
            answer()

    def _give(self, producer, tell, call):
        producer.give_stream(call)
        self.loop.call_soon_threadsafe(self._start_telling, tell, producer.streams.pop())

    def _start_telling(self, tell, stream):
        task = self.loop.create_task(self._tell(tell, stream))
        self.telling.add(task)
        task.add_done_callback(self.telling.discard)

    async def _tell(self, tell, stream):
        """Whatever is told, the daemon may close its end at any time."""
        try:
            await tell(stream)
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
        return {path_of(name) for name in WELL_BEHAVED} <= self.control.objects()

    async def _wait_until_listed(self):
        try:
            async with asyncio.timeout(LISTED_SECONDS):
                while not await asyncio.to_thread(self._are_listed):
                    await asyncio.sleep(0.2)
        except (TimeoutError, GLib.Error) as error:
            raise Failed(MISSING, f"producers that behave are not listed: {error!r}") from None
        self.load.steady_since = time.monotonic()

    async def leave_and_come_back(self):
        """Streams stay."""
        self.load.steady_since = None
        await asyncio.to_thread(self.receiver.release_name)
        await self.load.pause(0, 2)
        await asyncio.to_thread(self.receiver.take_name)
        await self._wait_until_listed()

    async def restart(self):
        """As a process of its own would: all streams end with it."""
        await self.stop()
        await self.load.pause(0, 2)
        await self.start()

    async def hang(self):
        """Nothing is answered for a while; then all is."""
        began = time.monotonic()
        self.hanging = True
        await self.load.pause(2, 8)
        self.hanging = False
        self.load.hangs.append((began, time.monotonic()))
        kept, self.kept = self.kept, []
        for answer in kept:
            self._answer(answer)

    async def stop(self):
        self.load.steady_since = None
        self.comers.clear()
        for task in list(self.telling):
            task.cancel()
        await asyncio.gather(*self.telling, return_exceptions=True)
        await asyncio.to_thread(self.receiver.close)
        self.kept.clear()

    def close(self):
        self.control.close()

    # What producers say

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

    async def _tell_numbers(self, stream):
        """Numbers from 0 on, now and then in a long message."""
        number = 0
        while True:
            longest = 100_000 if self.load.chance.random() < 0.02 else 1000
            await self._write(stream, message(numbered(number).ljust(self.load.chance.randrange(longest))))
            self.load.done["messages of producers that behave"] += 1
            number += 1
            await self.load.pause(0.2, 1.5)

    def _random_size(self, longest):
        return round(math.exp(self.load.seconds(math.log(SHORTEST_BYTES), math.log(longest))))

    async def _tell_huge(self, stream):
        """Whole messages of any length."""
        while True:
            parts = filled(self._random_size(LONGEST_BYTES))
            await self._write(stream, LENGTH.pack(sum(map(len, parts))), *parts)
            self.load.done["messages of any length"] += 1
            await self.load.pause(0.1, 2)

    async def _tell_unfinished(self, stream):
        """A message that never comes to its end."""
        size = self._random_size(LONGEST_BYTES)
        await self._write(stream, message(numbered(1)), LENGTH.pack(size), FILLING[:size * 2 // 3])
        self.load.done["unfinished messages"] += 1
        await self.load.pause(5, 15)

    async def _tell_garbage(self, stream):
        """Lengths and texts that are none."""
        while True:
            size = self.load.chance.randrange(1, 4096)
            await self._write(stream, self.load.chance.choice([
                self.load.chance.randbytes(size),
                message(self.load.chance.randbytes(size)),
                message(json.dumps([size] * 10)),
                message("]},{"),
                message(""),
                LENGTH.pack(LONGEST_BYTES + size),
                LENGTH.pack(2 ** 32 - 1),
            ]))
            self.load.done["garbage"] += 1
            await self.load.pause(0.2, 2)

    async def _tell_and_close(self, stream):
        """Closes the stream at any place of a message."""
        whole = message(numbered(*range(100)))
        await self._write(stream, whole * self.load.chance.randrange(4), whole[:self.load.chance.randrange(len(whole))])
        self.load.done["messages cut short"] += 1
        await self.load.pause(0, 2)

    # Producers that come and go

    def _tell_some_sample(self, producer, call):
        """A sample frame that is right, or wrong in one of many ways."""
        way = self.load.chance.randrange(8)
        if way == 0:
            call.fail()
        elif way == 1:
            call.reply(GLib.Variant("(i)", (1,)))
        else:
            producer.sample = self.load.chance.choice(SAMPLES)
            producer.send_sample(call)

    def _give_somehow(self, producer, tell, call):
        """A stream, or something else, or a stream later."""
        way = self.load.chance.randrange(10)
        if way == 0:
            call.fail()
        elif way == 1:
            call.reply(GLib.Variant("(h)", (0,)))
        elif way == 2:
            call.reply(GLib.Variant("(i)", (0,)))
        elif way == 3:
            self.loop.call_soon_threadsafe(self.loop.call_later, self.load.seconds(1, 4), self._answer,
                                           lambda: self._give(producer, tell, call))
        else:
            self._give(producer, tell, call)

    def _announce_comer(self, name):
        tell = self.load.chance.choice(list(self.misbehaved.values()))
        producer = Producer(name, channels=CHANNELS)
        producer.on_sample = lambda call: self._answer(lambda: self._tell_some_sample(producer, call))
        producer.on_stream = lambda call: self._answer(lambda: self._give_somehow(producer, tell, call))
        return self.receiver.announce(producer)

    async def come_or_go(self):
        """One producer more, or one less."""
        name = self.load.chance.choice(COMERS)
        if name in self.comers:
            await asyncio.to_thread(self.receiver.remove, self.comers.pop(name))
            self.load.done["producers that go"] += 1
        else:
            self.comers[name] = await asyncio.to_thread(self._announce_comer, name)
            self.load.done["producers that come"] += 1
