"""What the parts of the load share: its clock, its chance, what it counts, what went wrong, and how it waits."""

import asyncio
import collections
import contextlib
import random
import time

# Why a client that behaves did not get what it should. While descriptors are short a client may be refused, and the
# stream of a producer may be missing; what comes wrongly never may.
REFUSED, MISSING, WRONG = "refused", "missing", "wrong"


# How long the receiver takes to answer when it does not hang.
ANSWER_SECONDS = 1


class Failed(Exception):
    """A client did not get what it should.

    moment: when that was asked for that did not come, or when what came was not right
    until: until when what was asked for may have been on its way"""

    def __init__(self, category, what, moment=None):
        super().__init__(what)
        self.category = category
        self.moment = self.until = time.monotonic() if moment is None else moment


class Load:
    """The load as a whole.

    patience: after how many seconds what has not come counts as missing"""

    def __init__(self, socket_path, bus, seed, patience):
        self.socket_path = socket_path
        self.bus = bus
        self.chance = random.Random(seed)
        self.patience = patience
        self.clients = 0
        self.served = collections.Counter()
        self.waived = 0
        self.done = collections.Counter()
        self.replies_ms = []
        self.failures = []
        self.troubles = []
        # Since when the receiver's producers have been as they should be; None while they are not.
        self.steady_since = None
        # When the receiver hung: began and ended.
        self.hangs = []

    def seconds(self, shortest, longest):
        return self.chance.uniform(shortest, longest)

    async def pause(self, shortest, longest):
        await asyncio.sleep(self.seconds(shortest, longest))

    def is_steady(self, since):
        """Whether all producers that behave have been there since that moment."""
        return self.steady_since is not None and self.steady_since <= since

    def answered_by(self, asked):
        """When the receiver has answered what it was asked at that moment."""
        return max((ended for began, ended in self.hangs if began - ANSWER_SECONDS <= asked <= ended), default=asked)

    def fail(self, who, failed):
        self.failures.append({"who": who, "category": failed.category, "what": str(failed), "moment": failed.moment,
                              "until": failed.until})

    @contextlib.contextmanager
    def trouble(self, name):
        """What is kept to be compared with failures: when it began and ended."""
        began = time.monotonic()
        yield
        self.troubles.append({"trouble": name, "began": began, "ended": time.monotonic()})

    @contextlib.asynccontextmanager
    async def step(self, what, category=MISSING, more_seconds=0):
        """What has to be over before the patience is, and some seconds more."""
        began = time.monotonic()
        seconds = self.patience + more_seconds
        try:
            async with asyncio.timeout(seconds):
                yield
        except TimeoutError:
            raise Failed(category, f"not within {seconds} s: {what}", began) from None

    def take_report(self):
        """Everything counted so far, and what is new since the last time."""
        report = {"clients": self.clients, "served": self.served, "waived": self.waived, "done": self.done,
                  "replies_ms": self.replies_ms, "failures": self.failures, "troubles": self.troubles}
        self.replies_ms, self.failures, self.troubles = [], [], []
        return report


class Budget:
    """How many bytes may go in a second; the load must not be what takes the processors."""

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
    """Waits until there is something to read, or the end. Unlike a read of asyncio's it can be given up, and then loses
    nothing."""
    loop = asyncio.get_running_loop()
    await _ready(fd, loop.add_reader, loop.remove_reader)


async def writable(fd):
    """Waits until the descriptor takes something, or nobody has its other end any more."""
    loop = asyncio.get_running_loop()
    await _ready(fd, loop.add_writer, loop.remove_writer)
