# SPDX-License-Identifier: MIT
"""The common part of the load: random numbers, counters, failures, and waiting."""

import asyncio
import collections
import contextlib
import random
import time

# The kinds of failures of correct clients. During a shortage of descriptors a client may be refused, and a producer's
# stream may be missing; wrong metadata is always a failure.
REFUSED, MISSING, WRONG = "refused", "missing", "wrong"



# The receiver's time to a reply when it does not hang.
REPLY_SECONDS = 1


class Failed(Exception):
    """A client was not served correctly.

    moment: the time of the request without a result, or of the wrong result
    until: the time until which the result was due"""

    def __init__(self, category, what, moment=None):
        super().__init__(what)
        self.category = category
        self.moment = self.until = time.monotonic() if moment is None else moment


class Load:
    """The load as a whole.

    patience: the time limit, in seconds, after which a result counts as missing"""

    def __init__(self, socket_path, bus, seed, patience):
        self.socket_path = socket_path
        self.bus = bus
        self.random = random.Random(seed)
        self.patience = patience
        self.clients = 0
        self.served = collections.Counter()
        self.waived = 0
        self.done = collections.Counter()
        self.replies_ms = []
        self.failures = []
        self.disturbances = []
        # The time since which all correct producers have been listed; None while they are not.
        self.steady_since = None
        # Beginning and end of each hang of the receiver.
        self.hangs = []

    def seconds(self, shortest, longest):
        return self.random.uniform(shortest, longest)

    async def pause(self, shortest, longest):
        await asyncio.sleep(self.seconds(shortest, longest))

    def is_steady(self, since):
        """Whether all correct producers have been listed since this time."""
        return self.steady_since is not None and self.steady_since <= since

    def reply_due(self, called):
        """The time at which the receiver has replied to a call of this time."""
        return max((ended for began, ended in self.hangs if began - REPLY_SECONDS <= called <= ended), default=called)

    def fail(self, who, failed):
        self.failures.append({"who": who, "category": failed.category, "what": str(failed), "moment": failed.moment,
                              "until": failed.until})

    @contextlib.contextmanager
    def disturbance(self, name):
        """Records beginning and end of a disturbance, to compare them with failures."""
        began = time.monotonic()
        yield
        self.disturbances.append({"disturbance": name, "began": began, "ended": time.monotonic()})

    @contextlib.asynccontextmanager
    async def step(self, what, category=MISSING, more_seconds=0):
        """Limits the time of a step to the patience and some seconds more."""
        began = time.monotonic()
        seconds = self.patience + more_seconds
        try:
            async with asyncio.timeout(seconds):
                yield
        except TimeoutError:
            raise Failed(category, f"not within {seconds} s: {what}", began) from None

    def take_report(self):
        """All counters, and the items since the last report."""
        report = {"clients": self.clients, "served": self.served, "waived": self.waived, "done": self.done,
                  "replies_ms": self.replies_ms, "failures": self.failures, "disturbances": self.disturbances}
        self.replies_ms, self.failures, self.disturbances = [], [], []
        return report


class Budget:
    """A limit of bytes per second, so that the load does not use all processor time."""

    def __init__(self, bytes_per_second):
        self.rate = bytes_per_second
        self.free_at = time.monotonic()

    async def take(self, count):
        now = time.monotonic()
        self.free_at = max(self.free_at, now) + count / self.rate
        if self.free_at > now:
            await asyncio.sleep(self.free_at - now)


async def _ready(fd, add, remove):
    ready = asyncio.get_running_loop().create_future()
    add(fd, lambda: ready.done() or ready.set_result(None))
    try:
        await ready
    finally:
        remove(fd)


async def readable(fd):
    """Waits for data or the end. Unlike a read by asyncio it can be cancelled without a loss of data."""
    loop = asyncio.get_running_loop()
    await _ready(fd, loop.add_reader, loop.remove_reader)


async def writable(fd):
    """Waits until the descriptor is writable, or its other end is closed."""
    loop = asyncio.get_running_loop()
    await _ready(fd, loop.add_writer, loop.remove_writer)
