# SPDX-License-Identifier: MIT
"""External producers with many messages to several clients, and clients that leave before their streams arrive."""

import concurrent.futures
import itertools
import math
import os
import random
import select
import threading

from gi.repository import GLib

from client import header
from daemon import SPARE_THREADS, producers_enabled
from documents import Document
from external import ANALYTICS, COUNTER, DETECTOR, NUMBER, SOURCE, numbered
from fakereceiver import message
from installation import SANITIZED
from receiverclient import LENGTH
from waiting import BOUND_SECONDS, wait_until, wait_until_settled

# A fixed seed, so that a failure can be repeated.
SEED = 2407

# The number of messages of each producer to each client. One in ONE_IN_LONG has any length up to the longest, the
# others are short; lengths are distributed logarithmically. A daemon with a sanitizer is many times slower.
MESSAGES = 1_000 if SANITIZED else 10_000
ONE_IN_LONG = 100 if SANITIZED else 10
SHORTEST_BYTES, SHORT_BYTES, LONGEST_BYTES = 10, 2_000, 200_000

# json2xml's limit of ids in one item.
MAX_IDS = 1024

# One document in this many is parsed and validated.
CHECKED = 200

# The time limit for all messages. An instrumented daemon needs much of it to convert the queue of one client, and reads
# nothing more for that client meanwhile.
LOAD_SECONDS = 300

# The enabled producers of each channel, and the channel of each client.
NAMES = {DETECTOR: "the gate's", COUNTER: "the yard's"}
CHANNELS = {1: (DETECTOR, COUNTER), 2: (DETECTOR,), 3: (COUNTER,)}
CLIENT_CHANNELS = (1, 1, 2, 2, 3)
ENABLED = producers_enabled({(producer, channel): NAMES[producer]
                             for channel, producers in CHANNELS.items() for producer in producers})

RACES = 500
AT_ONCE = 4
LATEST_MILLISECONDS = 30

# The number of clients that may wait for their streams when another one begins: the bus allows 128 pending replies.
MAX_PENDING = 64

# Memory that the allocators do not release at once.
RESIDENT_GROWTH = 1.5


def random_size(chance):
    longest = LONGEST_BYTES if chance.randrange(ONE_IN_LONG) == 0 else SHORT_BYTES
    return round(math.exp(chance.uniform(math.log(SHORTEST_BYTES), math.log(longest))))


def ids_of_message(number, count):
    """Numbers that no other message has. All but the first one have the same length."""
    return [number, *range(10**15 + number * 10**5, 10**15 + number * 10**5 + count - 1)]


def make_payload(number, size):
    """A message of exactly this size, and the numbers in it. A message that is too short for its number has none."""
    filler = len(f",{10**15}")
    # A little less than fits, because each item has some bytes besides its numbers.
    ids = ids_of_message(number, max(1, size * 9 // 10 // filler))
    items = [numbered(*ids[start:start + MAX_IDS]) for start in range(0, len(ids), MAX_IDS)]
    text = ",".join(items)
    if len(text) > size:
        text, ids = "{" + " " * (size - 2) + "}", []
    return text.ljust(size).encode(), ids


class Script:
    """The messages of one producer to each client: their bytes, and the numbers of each message as they arrive."""

    def __init__(self, seed):
        chance = random.Random(seed)
        sizes = [SHORTEST_BYTES, LONGEST_BYTES, *(random_size(chance) for _ in range(MESSAGES - 2))]
        payloads = [make_payload(number, size) for number, size in enumerate(sizes)]
        assert [len(payload) for payload, _ in payloads] == sizes
        self.data = b"".join(message(payload) for payload, _ in payloads)
        self.expected = [[str(number).encode() for number in ids] for _, ids in payloads]


def send_at_once(producer, script, writers):
    """Makes the producer send all messages on each stream as soon as the stream is requested."""

    def give(call):
        producer.give_stream(call)
        writers.append(threading.Thread(target=producer.streams[-1].write, args=(script.data, LOAD_SECONDS)))
        writers[-1].start()

    producer.on_stream = give


def receive_all(daemon, channel, scripts):
    """Receives all messages of a channel's producers, in the order of each producer and without others."""
    left = {NAMES[producer].encode(): iter(scripts[producer].expected) for producer in CHANNELS[channel]}
    missing = MESSAGES * len(left)
    with daemon.client() as client:
        stream = client.start(header(analytics=1, video_channel=channel))
        for count in itertools.count():
            data = stream.next_data()
            if count % CHECKED == 0:
                Document(data)
            source = SOURCE.search(data)
            if source is None:
                assert count == 0, "only the first document has no source"
                continue
            assert NUMBER.findall(data) == next(left[source.group(1)])
            missing -= 1
            if missing == 0:
                break
    return count


def test_each_client_gets_all_of_its_channel_in_order(detector, counter, start_listing_daemon):
    counter.use_sockets()
    scripts = {DETECTOR: Script(SEED), COUNTER: Script(SEED + 1)}
    writers = []
    send_at_once(detector, scripts[DETECTOR], writers)
    send_at_once(counter, scripts[COUNTER], writers)
    daemon = start_listing_daemon(producers=ENABLED, sanitizer_options="quarantine_size_mb=16")

    with concurrent.futures.ThreadPoolExecutor(len(CLIENT_CHANNELS)) as clients:
        received = list(clients.map(lambda channel: receive_all(daemon, channel, scripts), CLIENT_CHANNELS,
                                    timeout=LOAD_SECONDS))

    assert received == [MESSAGES * len(CHANNELS[channel]) for channel in CLIENT_CHANNELS]
    for writer in writers:
        writer.join(BOUND_SECONDS)
    daemon.expect_idle_and_no_log()


class LateStreams:
    """Makes a producer send its streams some time after their requests, each with messages already in it."""

    def __init__(self, producer, context):
        self.chance = random.Random(SEED)
        self.context = context
        self.requested = 0
        self.sent = 0
        self.kept = []
        producer.on_stream = self.reply_later

    def pending(self):
        return self.requested - self.sent

    def reply_later(self, call):
        self.requested += 1
        timer = GLib.timeout_source_new(self.chance.randrange(LATEST_MILLISECONDS))
        timer.set_callback(lambda _: self.reply(call))
        timer.attach(self.context)

    def reply(self, call):
        read_fd, write_fd = os.pipe()
        os.write(write_fd, message(numbered(1)) * 10 + LENGTH.pack(100))
        call.reply(GLib.Variant("(h)", (0,)), [read_fd])
        os.close(read_fd)
        if self.chance.randrange(2):
            os.close(write_fd)
        else:
            self.kept.append(write_fd)
        self.sent += 1
        return False

    def close(self):
        for write_fd in self.kept:
            os.close(write_fd)


def leave_somewhere(daemon, late_streams, number):
    """Requests a stream, and leaves at a random time."""
    wait_until(lambda: late_streams.pending() < MAX_PENDING, "earlier streams have been sent")
    chance = random.Random(number)
    with daemon.client() as client:
        client.send_request(ANALYTICS)
        for _ in range(chance.randrange(4)):
            select.select([client.socket], [], [], chance.randrange(LATEST_MILLISECONDS) / 1000)
            if client.has_input():
                client.read_exactly(1)
    # The request of a client that has left still waits for its turn, and the number of waiting requests is limited.
    daemon.expect_reply()


def run_races(daemon, late_streams, numbers):
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as clients:
        list(clients.map(lambda number: leave_somewhere(daemon, late_streams, number), numbers, timeout=LOAD_SECONDS))


def test_clients_that_leave_before_their_streams_arrive_leak_nothing(receiver, detector, start_listing_daemon):
    late_streams = LateStreams(detector, receiver.context)
    daemon = start_listing_daemon(sanitizer_options="quarantine_size_mb=1")
    threads = daemon.threads()
    run_races(daemon, late_streams, range(RACES // 5))
    daemon.wait_until_idle()
    resident = wait_until_settled(daemon.resident_bytes, "the memory that stays in use has been allocated")

    run_races(daemon, late_streams, range(RACES // 5, RACES))
    wait_until(lambda: late_streams.pending() == 0, "every requested stream has been sent")
    # No stream is requested for a client that left before its turn.
    assert RACES // 10 < late_streams.sent <= RACES

    daemon.wait_until_idle()
    wait_until(lambda: daemon.threads() <= threads + SPARE_THREADS, "their threads have ended")
    wait_until(lambda: daemon.resident_bytes() <= resident * RESIDENT_GROWTH, "their memory is free")
    late_streams.close()
    assert daemon.log.take() == []
