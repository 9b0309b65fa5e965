"""Hosts that have no business with the board, and try all the time."""

import contextlib
import socket
import struct
import threading
import time

from machine import BOARD, HOSTS

VIEWERS, BRIDGE = (4242,), (5000, 5001)


def ipv4(source, target, payload, fragment=0, number=0, protocol=17):
    """A datagram's IP packet, or a fragment of one: `fragment` is its flags and offset."""
    head = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), number & 0xFFFF, fragment, 64,
                       protocol, 0, socket.inet_aton(source), socket.inet_aton(target))
    return head + payload


def udp(source_port, port, payload):
    """Without a checksum, which IPv4 allows."""
    return struct.pack("!HHHH", source_port, port, 8 + len(payload), 0) + payload


MORE = 0x2000
REPORT = b"\x55" * 100
REGISTER = b"\x42" + bytes(13)
OUTSIDE = "203.0.113.7"  # of a network that no viewer is in


class Strangers:
    """Try each of these ways again and again."""

    # Which ports a way is tried at, and what it brings about on a board without a filter, whose
    # kernel itself refuses its own addresses from outside.
    WAYS = {
        "empty": (VIEWERS + BRIDGE, "UDP read failed"),
        "report": (BRIDGE, "Data found"),
        "forged": (BRIDGE, "UDP read failed"),
        "fragments": (BRIDGE, "Data found"),
        "outside": (VIEWERS, f"New client connected from {OUTSIDE}"),
        "own": (VIEWERS + BRIDGE, None),
    }

    def __init__(self, ways, period=0.004):
        self.sent = 0
        self._tries = [(getattr(self, f"_{way}"), port) for way in ways
                       for port in self.WAYS[way][0]]
        self._period = period
        self._plain = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._plain.bind((HOSTS[-1], 0))
        self._raw = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW)
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _from(self, source, port, payload):
        self._raw.sendto(ipv4(source, BOARD, udp(5000, port, payload)), (BOARD, 0))

    def _empty(self, port):
        self._plain.sendto(b"", (BOARD, port))

    def _report(self, port):
        self._plain.sendto(REPORT, (BOARD, port))

    def _forged(self, port):
        self._from(HOSTS[5], port, b"")
        self._from(HOSTS[5], port, REPORT)

    def _own(self, port):
        for source in (BOARD, "127.0.0.1"):
            self._from(source, port, b"")
            self._from(source, port, REPORT)

    def _outside(self, port):
        self._from(OUTSIDE, port, REGISTER)

    def _fragments(self, port):
        whole = udp(5000, port, REPORT)
        for place in range(0, len(whole), 8):
            more = MORE if place + 8 < len(whole) else 0
            self._raw.sendto(ipv4(HOSTS[6], BOARD, whole[place:place + 8], more | place // 8,
                                  self.sent), (BOARD, 0))

    def _run(self):
        while not self._stop.is_set():
            for way, port in self._tries:
                with contextlib.suppress(OSError):  # the board is off at the moment
                    way(port)
                    self.sent += 1
                time.sleep(self._period)

    def stop(self):
        self._stop.set()
        self._thread.join()
        self._plain.close()
        self._raw.close()


@contextlib.contextmanager
def strangers(*ways):
    """Strangers who try those ways, or all."""
    some = Strangers(ways or Strangers.WAYS)
    try:
        yield some
    finally:
        some.stop()


# What only a stranger can have brought about: the end of the service, a camera, a viewer.
TRACES = ("UDP read failed", "Data found", "Video found", f"connected from {OUTSIDE}", "status=3")


def let_through(said):
    """Those traces in what the service has said."""
    return [text for text in TRACES if text in said]
