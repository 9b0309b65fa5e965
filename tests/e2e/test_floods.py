"""Floods: whatever arrives on the three ports, and at whatever rate, the service goes on as before
and needs nothing more."""

import itertools
import random
import struct
import time

import pytest

from harness.board_tools import wait_round
from harness.console import connected, events, removed
from harness.duml import sealed
from harness.growth import GROWTH_BYTES, resources
from harness.reports import REPORTS, TAIL, TRACKING
from harness.timing import wait_until
from harness.udp import DATA_PORT, VIDEO_PORT, VIEWER_PORT, socket_queue, udp_socket

MAX_VIEWERS = 10
QUEUE_BYTES = 64 * 1024  # may wait in the service's socket, so that none is lost


class Flood:
    """Datagrams to one port, as fast as the service takes them."""

    def __init__(self, port):
        self._port = port
        self._unchecked = 0

    def send(self, sock, data):
        sock.sendto(data, ("127.0.0.1", self._port))
        self._unchecked += len(data) + 1024  # what the system adds, roughly
        if self._unchecked > QUEUE_BYTES:
            self.wait_handled()

    def wait_handled(self):
        wait_until(lambda: socket_queue(self._port)[0] == 0, 10, "the end of the queue")
        self._unchecked = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.wait_handled()
        assert socket_queue(self._port) == (0, 0)


@pytest.fixture
def unharmed(steady, standins, viewers, data, video):
    """unharmed(flood) floods a service twice: the second time it must need no more memory,
    descriptors or threads than the first, and afterwards do its work. The work needs a free slot:
    what a flood has registered must leave."""

    def check(flood):
        flood()
        wait_round(standins)  # the status loop, too, has done all of its work before
        before = resources(steady)
        begin = time.monotonic()
        flood()
        memory, descriptors, threads = resources(steady)
        print(f"\nflood: {time.monotonic() - begin:.1f} s; by the second one, memory "
              f"{(memory - before[0]) // 1024:+d} KiB")
        assert memory <= before[0] + GROWTH_BYTES
        assert (descriptors, threads) == before[1:]

        last = viewers("127.255.0.1")
        last.register()
        steady.err.wait(connected(last))
        last.message(11, 10)
        data.send(b"data")
        video.send(b"the last one")
        last.wait(lambda f: f.video and f.payload == b"the last one")
        steady.err.wait("Data found\n")
        steady.err.wait("Video found\n")
        last.leave()
        steady.err.wait(removed(last))

    return check


@pytest.fixture
def size(times):
    """The datagrams of a flood."""
    return times(20_000, 100_000)


@pytest.fixture
def sockets():
    """sockets(count) makes that many sockets, on ports of their own and a few hosts."""
    made = []

    def make(count):
        made.extend(udp_socket(f"127.0.{n % 7}.1") for n in range(count))
        return made

    yield make
    for sock in made:
        sock.close()


def random_sizes(chance):
    """Mostly short, for the fields; sometimes anything up to the largest datagram."""
    while True:
        yield chance.randrange(1, 40) if chance.random() < 0.98 else chance.randrange(1, 65508)


@pytest.mark.parametrize("port", [VIEWER_PORT, DATA_PORT, VIDEO_PORT])
def test_random_datagrams(unharmed, sockets, size, port):
    sender, = sockets(1)

    def flood():
        chance = random.Random(port)
        sizes = random_sizes(chance)
        with Flood(port) as datagrams:
            for _ in range(size):
                datagrams.send(sender, chance.randbytes(next(sizes)))
            if port == VIEWER_PORT:  # some of them have registered the sender
                datagrams.send(sender, b"\x42" + bytes(11) + b"\x01")

    unharmed(flood)


VALID_FRAMES = [b"\x42" + bytes(11) + payload
                for payload in (bytes([0, 0]), bytes([0, 1]), b"\x01",
                                struct.pack("<BB3h", 5, 1, 100, -100, 4000),
                                b'{"cmd":"config","param":"request"}',
                                b"{" + b"x" * 511, b"\x0b\x00\x03\x07\x02\x00\x00")]


def mutated(frame, chance):
    """The frame with some bits turned, bytes lost or bytes added."""
    frame = bytearray(frame)
    for _ in range(chance.randrange(3)):
        frame[chance.randrange(len(frame))] ^= 1 << chance.randrange(8)
    if chance.random() < 0.3:
        del frame[chance.randrange(1, len(frame)):]
    elif chance.random() < 0.3:
        frame += chance.randbytes(chance.randrange(600))
    return bytes(frame)


def test_mutated_frames(unharmed, sockets, size):
    senders = sockets(30)

    def flood():
        chance = random.Random(4242)
        with Flood(VIEWER_PORT) as datagrams:
            for _ in range(size):
                datagrams.send(chance.choice(senders), mutated(chance.choice(VALID_FRAMES), chance))
            for sender in senders:
                datagrams.send(sender, b"\x42" + bytes(11) + b"\x01")

    unharmed(flood)


def test_mutated_reports(unharmed, sockets, size):
    """Half of them with the right check for what they have become."""
    sender, = sockets(1)
    # Not one that is tracked: it would be looked for again and again, at the console's expense.
    kinds = [kind for kind in REPORTS.values() if kind is not TRACKING]

    def flood():
        chance = random.Random(5000)
        with Flood(DATA_PORT) as datagrams:
            for _ in range(size):
                frame = mutated(chance.choice(kinds).frame(chance.randbytes(94)), chance)
                if chance.random() < 0.5 and len(frame) > 2:
                    frame = sealed(frame)
                datagrams.send(sender, frame + TAIL)

    unharmed(flood)


def test_registrations_from_hundreds_of_ports(unharmed, steady, sockets, size):
    """The first ten are served; when they have left, the next ten."""
    senders = sockets(400)

    def flood():
        chance = random.Random(10)
        with Flood(VIEWER_PORT) as datagrams:
            for _ in range(size):
                datagrams.send(chance.choice(senders), b"\x42")
            for sender in senders:
                datagrams.send(sender, b"\x42" + bytes(11) + b"\x01")

    unharmed(flood)
    assert events(steady).count("New client") == 2 * MAX_VIEWERS + 1
    assert events(steady).count("removed") == 2 * MAX_VIEWERS + 1


def test_floods_of_all_ports_while_video_is_relayed(unharmed, viewers, sockets, steady):
    """Viewers of a busy service get all of the video, whole."""
    everybody = [viewers() for _ in range(3)]
    bridge, *noise = sockets(3)
    rounds = itertools.count(1)

    def flood():
        chance = random.Random(1)
        number = next(rounds)
        for viewer in everybody:
            viewer.frames.clear()
            viewer.register()
            steady.err.wait(connected(viewer), count=number)
        payloads = [bytes([n]) * chance.randrange(1, 60001) for n in range(100)]
        with Flood(VIDEO_PORT) as to_video, Flood(VIEWER_PORT) as to_viewers, \
                Flood(DATA_PORT) as to_data:
            for n, payload in enumerate(payloads):
                to_video.send(bridge, payload)
                everybody[n % len(everybody)].register()
                for _ in range(100):
                    size = chance.randrange(1, 40)
                    to_viewers.send(noise[0], b"\x41" + chance.randbytes(size))
                    to_data.send(noise[1], chance.randbytes(size))
        for viewer in everybody:
            relayed = viewer.wait_count(lambda f: f.video, len(payloads))
            assert [f.payload for f in relayed] == payloads
            viewer.leave()
            steady.err.wait(removed(viewer), count=number)

    unharmed(flood)
