#!/usr/bin/python3
"""The load of a soak, one process: SOCKET BUS-ADDRESS SEED PATIENCE [warm-up].

It goes on until its standard input ends, and prints once a second what it has counted, as JSON. With the last word,
each kind of client comes once in place of the load."""

import asyncio
import contextlib
import json
import pathlib
import sys
import types

sys.path.insert(1, str(pathlib.Path(__file__).resolve().parents[1] / "system"))
sys.dont_write_bytecode = True

from announcements import Announcements  # noqa: E402
from judge import MAX_CLIENTS  # noqa: E402
from load import Failed, Load  # noqa: E402
from switching import Switcher  # noqa: E402
from visits import KINDS, WEIGHTS, behave_shortly, keep_a_place, make_visit, title  # noqa: E402

TELL_SECONDS = 1

LEAVES, RESTARTS, HANGS = "receiver leaves and comes back", "receiver restarts", "receiver hangs"

# Everything that a whole load does; where one of them never happened, it was none.
PARTS = (*map(title, WEIGHTS), LEAVES, RESTARTS, HANGS, "storms of switches", "producers that come",
         "producers that go", "messages of producers that behave", "messages of any length", "unfinished messages",
         "garbage", "messages cut short")


def tell(load):
    print(json.dumps(load.take_report()), flush=True)


async def tell_regularly(load):
    while True:
        await asyncio.sleep(TELL_SECONDS)
        tell(load)


async def repeat(load, work, shortest, longest):
    """Does something again and again, with pauses."""
    while True:
        await load.pause(shortest, longest)
        await work()


async def disturb(load, announcements):
    """The receiver's own troubles, one after the other, and between them producers that come and go."""
    troubles = {LEAVES: announcements.leave_and_come_back, HANGS: announcements.hang, RESTARTS: announcements.restart}
    while True:
        for name, trouble in troubles.items():
            for _ in range(load.chance.randrange(4, 12)):
                await load.pause(0.5, 2)
                await announcements.come_or_go()
            with load.trouble(name):
                try:
                    await trouble()
                except Failed as failed:
                    load.fail(name, failed)
            load.done[name] += 1


async def input_ends():
    loop = asyncio.get_running_loop()
    ended = loop.create_future()
    loop.add_reader(sys.stdin.fileno(), lambda: ended.done() or ended.set_result(None))
    await ended
    loop.remove_reader(sys.stdin.fileno())


async def generate(load, announcements):
    """The whole load, until the input ends. What breaks it ends it with an error."""
    load.done.update(dict.fromkeys(PARTS, 0))
    load.served.update(dict.fromkeys(KINDS, 0))
    with contextlib.closing(Switcher(load)) as switcher:
        works = [tell_regularly(load), disturb(load, announcements), repeat(load, switcher.storm, 1, 8),
                 *(keep_a_place(load) for _ in range(MAX_CLIENTS))]
        tasks = [asyncio.create_task(work) for work in works]
        stop = asyncio.create_task(input_ends())
        done, _ = await asyncio.wait([stop, *tasks], return_when=asyncio.FIRST_COMPLETED)
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
        for task in done:
            task.result()


async def warm_up(load):
    for name in KINDS:
        await make_visit(load, behave_shortly, name)


async def main():
    socket_path, address, seed, patience, *words = sys.argv[1:]
    load = Load(socket_path, types.SimpleNamespace(address=address), int(seed), float(patience))
    with contextlib.closing(Announcements(load)) as announcements:
        await announcements.start()
        try:
            await (warm_up(load) if words else generate(load, announcements))
        finally:
            await announcements.stop()
    tell(load)


if __name__ == "__main__":
    asyncio.run(main())
