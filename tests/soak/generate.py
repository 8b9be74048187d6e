#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""The load of a soak, one process: SOCKET BUS-ADDRESS SEED PATIENCE [warm-up].

It runs until its standard input ends, and prints a report once a second, as JSON. With "warm-up" it runs one client of
each kind instead of the load."""

import asyncio
import contextlib
import json
import pathlib
import sys
import types

sys.path.insert(1, str(pathlib.Path(__file__).resolve().parents[1] / "system"))
sys.dont_write_bytecode = True

from clients import KINDS, WEIGHTS, receive_shortly, run_client, run_clients, title  # noqa: E402
from criteria import MAX_CLIENTS  # noqa: E402
from load import Failed, Load  # noqa: E402
from producerload import ProducerLoad  # noqa: E402
from switching import Switcher  # noqa: E402

REPORT_SECONDS = 1

LEAVES, RESTARTS, HANGS = "receiver leaves and returns", "receiver restarts", "receiver hangs"

# All parts of the load, each of which must occur.
PARTS = (*map(title, WEIGHTS), LEAVES, RESTARTS, HANGS, "storms of switches", "producers added",
         "producers removed", "messages of correct producers", "messages of any length", "unfinished messages",
         "garbage", "messages cut short")


def print_report(load):
    print(json.dumps(load.take_report()), flush=True)


async def print_reports(load):
    while True:
        await asyncio.sleep(REPORT_SECONDS)
        print_report(load)


async def repeat(load, work, shortest, longest):
    """Calls work() repeatedly, with pauses."""
    while True:
        await load.pause(shortest, longest)
        await work()


async def disturb(load, producers):
    """Runs the receiver's disturbances in turn, and adds and removes producers between them."""
    disturbances = {LEAVES: producers.leave_and_return, HANGS: producers.hang, RESTARTS: producers.restart}
    while True:
        for name, disturbance in disturbances.items():
            for _ in range(load.random.randrange(4, 12)):
                await load.pause(0.5, 2)
                await producers.add_or_remove()
            with load.disturbance(name):
                try:
                    await disturbance()
                except Failed as failed:
                    load.fail(name, failed)
            load.done[name] += 1


async def input_ends():
    loop = asyncio.get_running_loop()
    ended = loop.create_future()
    loop.add_reader(sys.stdin.fileno(), lambda: ended.done() or ended.set_result(None))
    await ended
    loop.remove_reader(sys.stdin.fileno())


async def generate(load, producers):
    """Runs the whole load until the input ends, or until a part fails."""
    load.done.update(dict.fromkeys(PARTS, 0))
    load.served.update(dict.fromkeys(KINDS, 0))
    with contextlib.closing(Switcher(load)) as switcher:
        works = [print_reports(load), disturb(load, producers), repeat(load, switcher.storm, 1, 8),
                 *(run_clients(load) for _ in range(MAX_CLIENTS))]
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
        await run_client(load, receive_shortly, name)


async def main():
    socket_path, address, seed, patience, *words = sys.argv[1:]
    load = Load(socket_path, types.SimpleNamespace(address=address), int(seed), float(patience))
    with contextlib.closing(ProducerLoad(load)) as producers:
        await producers.start()
        try:
            await (warm_up(load) if words else generate(load, producers))
        finally:
            await producers.stop()
    print_report(load)


if __name__ == "__main__":
    asyncio.run(main())
