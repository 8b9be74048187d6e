"""External producers with much to say to several clients, and clients that leave while their streams are still to
come."""

import concurrent.futures
import itertools
import math
import os
import random
import select
import threading

import pytest
from gi.repository import GLib

from client import header
from daemon import NOTHING_ASKED, producers_enabled
from documents import Document
from external import ANALYTICS, COUNTER, DETECTOR, NUMBER, SOURCE, numbered
from fakereceiver import message
from installation import SANITIZED
from receiverclient import LENGTH
from waiting import BOUND_SECONDS, wait_until, wait_until_settled

# Whoever sees something odd once sees it again.
SEED = 2407

# How many messages each producer sends to each client. One in so many has any length up to the longest, the others are
# short; within that, each order of magnitude is as frequent as the next.
# A daemon with a sanitizer takes many times as long for each number.
MESSAGES = 1_000 if SANITIZED else 10_000
ONE_IN_LONG = 100 if SANITIZED else 10
SHORTEST_BYTES, SHORT_BYTES, LONGEST_BYTES = 10, 2_000, 200_000

# What json2xml takes in one item.
MAX_IDS = 1024

# Every so many documents one is checked in every way.
CHECKED = 200

# How long all of them may take. An instrumented daemon needs a good part of it for what one client has waiting, and
# until then takes nothing more for that client.
LOAD_SECONDS = 300

# Who is enabled on each channel, and on which channel each client is.
NAMES = {DETECTOR: "the gate's", COUNTER: "the yard's"}
CHANNELS = {1: (DETECTOR, COUNTER), 2: (DETECTOR,), 3: (COUNTER,)}
CLIENT_CHANNELS = (1, 1, 2, 2, 3)
ENABLED = producers_enabled({(producer, channel): NAMES[producer]
                             for channel, producers in CHANNELS.items() for producer in producers})

RACES = 500
AT_ONCE = 4
LATEST_MILLISECONDS = 30

# How many may still be without their stream when another begins: the bus lets a daemon wait for 128 answers.
MAX_PENDING = 64

# GLib keeps threads that have nothing to do for a while, and so many of them at the most.
SPARE_THREADS = 8

# What the allocators do not give back at once.
RESIDENT_GROWTH = 1.5


def random_size(chance):
    longest = LONGEST_BYTES if chance.randrange(ONE_IN_LONG) == 0 else SHORT_BYTES
    return round(math.exp(chance.uniform(math.log(SHORTEST_BYTES), math.log(longest))))


def ids_of_message(number, count):
    """Numbers that no other message has, of the same length each, but the first one may be short."""
    return [number, *range(10**15 + number * 10**5, 10**15 + number * 10**5 + count - 1)]


def make_payload(number, size):
    """A message of exactly this size and the numbers in it. One that is too short for its number is without any, and is
    known by its place."""
    filler = len(f",{10**15}")
    # A little less than what fits, for each item has some bytes of its own.
    ids = ids_of_message(number, max(1, size * 9 // 10 // filler))
    items = [numbered(*ids[start:start + MAX_IDS]) for start in range(0, len(ids), MAX_IDS)]
    text = ",".join(items)
    if len(text) > size:
        text, ids = "{" + " " * (size - 2) + "}", []
    return text.ljust(size).encode(), ids


class Script:
    """What one producer says to everybody: its bytes, and the numbers of each message as they arrive."""

    def __init__(self, seed):
        chance = random.Random(seed)
        sizes = [SHORTEST_BYTES, LONGEST_BYTES, *(random_size(chance) for _ in range(MESSAGES - 2))]
        payloads = [make_payload(number, size) for number, size in enumerate(sizes)]
        assert [len(payload) for payload, _ in payloads] == sizes
        self.data = b"".join(message(payload) for payload, _ in payloads)
        self.expected = [[str(number).encode() for number in ids] for _, ids in payloads]


def speak_at_once(producer, script, writers):
    """Has the producer say everything on each stream as soon as it is asked for it."""

    def give(call):
        producer.give_stream(call)
        writers.append(threading.Thread(target=producer.streams[-1].write, args=(script.data, LOAD_SECONDS)))
        writers[-1].start()

    producer.on_stream = give


def receive_all(daemon, channel, scripts):
    """Receives everything of the producers of a channel, each in its order and nothing else."""
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


@pytest.fixture
def detector(receiver):
    return receiver.add(DETECTOR)


@pytest.fixture
def counter(receiver):
    return receiver.add(COUNTER)


def test_each_client_gets_all_of_its_channel_in_order(detector, counter, start_listing_daemon):
    counter.use_sockets()
    scripts = {DETECTOR: Script(SEED), COUNTER: Script(SEED + 1)}
    writers = []
    speak_at_once(detector, scripts[DETECTOR], writers)
    speak_at_once(counter, scripts[COUNTER], writers)
    daemon = start_listing_daemon(producers=ENABLED, sanitizer_options="quarantine_size_mb=16")

    with concurrent.futures.ThreadPoolExecutor(len(CLIENT_CHANNELS)) as clients:
        received = list(clients.map(lambda channel: receive_all(daemon, channel, scripts), CLIENT_CHANNELS,
                                    timeout=LOAD_SECONDS))

    assert received == [MESSAGES * len(CHANNELS[channel]) for channel in CLIENT_CHANNELS]
    for writer in writers:
        writer.join(BOUND_SECONDS)
    wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors, "the clients' descriptors are closed")
    assert daemon.log.take() == []


class LateStreams:
    """Has a producer give its streams some time after they were asked for, each with messages already in it."""

    def __init__(self, producer, context):
        self.chance = random.Random(SEED)
        self.context = context
        self.asked = 0
        self.given = 0
        self.kept = []
        producer.on_stream = self.answer

    def pending(self):
        return self.asked - self.given

    def answer(self, call):
        self.asked += 1
        timer = GLib.timeout_source_new(self.chance.randrange(LATEST_MILLISECONDS))
        timer.set_callback(lambda _: self.give(call))
        timer.attach(self.context)

    def give(self, call):
        read_fd, write_fd = os.pipe()
        os.write(write_fd, message(numbered(1)) * 10 + LENGTH.pack(100))
        call.reply(GLib.Variant("(h)", (0,)), [read_fd])
        os.close(read_fd)
        if self.chance.randrange(2):
            os.close(write_fd)
        else:
            self.kept.append(write_fd)
        self.given += 1
        return False

    def close(self):
        for write_fd in self.kept:
            os.close(write_fd)


def leave_somewhere(daemon, late_streams, number):
    """Asks for a stream, and leaves at any moment."""
    wait_until(lambda: late_streams.pending() < MAX_PENDING, "earlier streams have been given")
    chance = random.Random(number)
    with daemon.client() as client:
        client.request(ANALYTICS)
        for _ in range(chance.randrange(4)):
            select.select([client.socket], [], [], chance.randrange(LATEST_MILLISECONDS) / 1000)
            if client.is_answered():
                client.read_exactly(1)
    # A request whose client has gone waits for its turn all the same, and only so many may wait.
    with daemon.client() as client:
        assert client.ask("") == NOTHING_ASKED


def run_races(daemon, late_streams, numbers):
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as clients:
        list(clients.map(lambda number: leave_somewhere(daemon, late_streams, number), numbers, timeout=LOAD_SECONDS))


def test_clients_that_leave_before_their_streams_come_leave_nothing_behind(receiver, detector, start_listing_daemon):
    late_streams = LateStreams(detector, receiver.context)
    daemon = start_listing_daemon(sanitizer_options="quarantine_size_mb=1")
    threads = daemon.threads()
    run_races(daemon, late_streams, range(RACES // 5))
    wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors, "the first clients' descriptors are closed")
    resident = wait_until_settled(daemon.resident_bytes, "the memory that is always used is in use")

    run_races(daemon, late_streams, range(RACES // 5, RACES))
    wait_until(lambda: late_streams.pending() == 0, "every stream that was asked for has been given")
    # Nothing is asked for a client that has gone before its turn.
    assert RACES // 10 < late_streams.given <= RACES

    wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors, "the clients' descriptors are closed")
    wait_until(lambda: daemon.threads() <= threads + SPARE_THREADS, "their threads have ended")
    wait_until(lambda: daemon.resident_bytes() <= resident * RESIDENT_GROWTH, "their memory is free")
    late_streams.close()
    assert daemon.log.take() == []
