"""Hosts that have no business with the board, and try all the time."""

import contextlib
import socket
import struct
import threading
import time

from machine import BOARD, HOSTS

PORTS = (4242, 5000, 5001)


def ipv4(source, target, payload, fragment=0, number=0, protocol=17):
    """A datagram's IP packet, or a fragment of one: `fragment` is its flags and offset."""
    head = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), number & 0xFFFF, fragment, 64,
                       protocol, 0, socket.inet_aton(source), socket.inet_aton(target))
    return head + payload


def udp(source_port, port, payload):
    """Without a checksum, which IPv4 allows."""
    return struct.pack("!HHHH", source_port, port, 8 + len(payload), 0) + payload


MORE = 0x2000


class Strangers:
    """Send empty datagrams to every port of the board, what a camera would say to those of the
    bridge, the same in fragments, and the same under the board's own addresses, again and again."""

    def __init__(self, period=0.004):
        self.sent = 0
        self._period = period
        self._plain = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._plain.bind((HOSTS[-1], 0))
        self._raw = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW)
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _attempts(self):
        for port in PORTS:
            yield lambda port=port: self._plain.sendto(b"", (BOARD, port))
            for source in (BOARD, "127.0.0.1", HOSTS[5]):
                yield lambda port=port, source=source: self._raw.sendto(
                    ipv4(source, BOARD, udp(port, port, b"")), (BOARD, 0))
        for port in PORTS[1:]:
            report = b"\x55" * 100
            yield lambda port=port: self._plain.sendto(report, (BOARD, port))
            for source in (BOARD, "127.0.0.1"):
                yield lambda port=port, source=source: self._raw.sendto(
                    ipv4(source, BOARD, udp(5000, port, report)), (BOARD, 0))
            yield lambda port=port: self._in_fragments(port, report)

    def _in_fragments(self, port, payload):
        whole = udp(5000, port, payload)
        for place in range(0, len(whole), 8):
            more = MORE if place + 8 < len(whole) else 0
            self._raw.sendto(ipv4(HOSTS[6], BOARD, whole[place:place + 8], more | place // 8,
                                  self.sent), (BOARD, 0))

    def _run(self):
        while not self._stop.is_set():
            for attempt in self._attempts():
                with contextlib.suppress(OSError):  # the board is off at the moment
                    attempt()
                    self.sent += 1
                time.sleep(self._period)

    def stop(self):
        self._stop.set()
        self._thread.join()
        self._plain.close()
        self._raw.close()


@contextlib.contextmanager
def strangers():
    some = Strangers()
    try:
        yield some
    finally:
        some.stop()
