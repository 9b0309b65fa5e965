"""Everybody who talks to service and nimbus-web, at once: what each does, and what he is given."""

import bisect
import contextlib
import json
import struct
import time
import zlib

from harness.far_network import FarViewer, Link
from harness.udp import VIEWER_PORT, udp_socket
from harness.web import Place, WebSocket
from film import DATAGRAM, VideoBridge


class CountingBridge(VideoBridge):
    """Remembers what it has sent, and when."""

    def __init__(self):
        super().__init__()
        self.times = []
        self._numbers = {}

    def take(self, data):
        for at in range(0, len(data), DATAGRAM):
            piece = data[at:at + DATAGRAM]
            self._numbers[zlib.crc32(piece)] = len(self.times)
            self.times.append(time.monotonic())
            self.socket.sendto(piece, self.address)

    def number(self, datagram):
        """The how manieth it was."""
        return self._numbers[zlib.crc32(datagram)]


class Audience:
    """Viewers on this machine. Each knows which of the bridge's datagrams he was not given."""

    def __init__(self, bridge, count):
        self._bridge = bridge
        self._sockets = [udp_socket(f"127.0.1.{n + 1}") for n in range(count)]
        for sock in self._sockets:
            sock.settimeout(0.2)
        self.next = [None] * count  # the number that comes next, once one has come
        self.missed = [[] for _ in range(count)]
        self.settings = []  # configuration reports, as the first is told

    def __len__(self):
        return len(self._sockets)

    def send(self, number, payload):
        self._sockets[number].sendto(b"\x42" + bytes(11) + payload, ("127.0.0.1", VIEWER_PORT))

    def register(self):
        for number in range(len(self)):
            self.send(number, b"\0\0")

    def listener(self, number):
        """What takes what comes next to him."""

        def listen():
            with contextlib.suppress(TimeoutError):
                self._take(number, self._sockets[number].recv(65536))

        return listen

    def _take(self, number, frame):
        assert frame[0] == 0x42, frame[:12].hex(" ")
        payload = frame[12:]
        if frame[1] == 1:
            got = self._bridge.number(payload)
            due = self.next[number] if self.next[number] is not None else got
            assert got >= due, f"viewer {number} got {got} behind {due - 1}"
            self.missed[number] += range(due, got)
            self.next[number] = got + 1
        elif payload[:1] == b"{" and number == 0:
            self.settings.append(json.loads(payload))

    def missed_outside(self, spans):
        """How many each has missed that were not sent within those times, from one to the next."""
        edges = [edge for span in spans for edge in span]

        def outside(datagram):
            return bisect.bisect(edges, self._bridge.times[datagram]) % 2 == 0

        return [sum(map(outside, missed)) for missed in self.missed]

    def close(self):
        for sock in self._sockets:
            sock.close()


class Far:
    """A viewer in a network of his own, who says every second that he is there, if he can."""

    def __init__(self, number):
        self.link = Link(number)
        self._viewer = FarViewer(self.link, self.link.far)
        self.video = 0

    def step(self):
        with contextlib.suppress(OSError):  # the link is down
            self._viewer.register()
        frames, self._viewer.frames = self._viewer.frames, []
        self.video += sum(frame.video for frame in frames)

    def close(self):
        self._viewer.close()
        self.link.close()


class Vanishing(Far):
    """His link goes down each minute, for half of it, and he says no word before."""

    PERIOD = 60.0

    def __init__(self, number):
        super().__init__(number)
        self._begin = None
        self._here = True
        self.vanished = 0

    def step(self):
        self._begin = self._begin or time.monotonic()
        here = (time.monotonic() - self._begin) % self.PERIOD < self.PERIOD / 2
        if here != self._here:
            (self.link.mend if here else self.link.break_off)()
            self._here = here
            self.vanished += not here
        super().step()


class Stalling:
    """Browsers that ask for the picture and read nothing. Each comes again after a while, as
    somebody does who sees nothing."""

    def __init__(self, port, count):
        self._place = Place(port)
        self._count = count
        self._sockets = []

    def step(self):
        self.close()
        self._sockets = [WebSocket(self._place, "/ws/video", source=f"127.0.3.{n + 1}",
                                   receive_buffer=4096) for n in range(self._count)]
        assert all(one.status == 101 for one in self._sockets), "a browser was refused"

    def close(self):
        for one in self._sockets:
            one.socket.close()


class Receiver:
    """Whoever nimbus-web hands the picture on to (RFC 3550)."""

    def __init__(self, port):
        self._socket = udp_socket("127.0.0.1", port)
        self._socket.settimeout(0.2)
        self._last = None
        self.packets = 0
        self.lost = 0

    def step(self):
        try:
            number, = struct.unpack_from(">H", self._socket.recv(2048), 2)
        except TimeoutError:
            return
        if self._last is not None:
            self.lost += (number - self._last - 1) % 2**16
        self._last = number
        self.packets += 1

    def close(self):
        self._socket.close()
