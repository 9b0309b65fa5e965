"""Viewers: what they send, and every frame that they are sent."""

import dataclasses
import socket
import struct
import threading
import time

from harness.timing import limit, patience, wait_until
from harness.udp import VIEWER_PORT, udp_socket


@dataclasses.dataclass(frozen=True)
class Frame:
    """A datagram from the service, with the time of its receipt."""

    data: bytes
    time: float

    @property
    def header(self):
        return self.data[:12]

    @property
    def video(self):
        return self.data[1] == 1

    @property
    def counter(self):
        return struct.unpack_from("<I", self.data, 4)[0]

    @property
    def payload(self):
        return self.data[12:]

    def triple(self):
        """The three values of a triple message."""
        return struct.unpack("<3h", self.payload[1:])


class Viewer:
    """A viewer on 127.0.0.x. Collects every frame that it is sent."""

    def __init__(self, host="127.0.0.1", port=0):
        self.socket = udp_socket(host, port)
        self.address = self.socket.getsockname()
        self.frames = []
        self._condition = threading.Condition()
        self._stop = threading.Event()
        threading.Thread(target=self._receive, daemon=True).start()

    def _receive(self):
        while not self._stop.is_set():
            try:
                data = self.socket.recv(65536)
            except OSError:
                return
            with self._condition:
                self.frames.append(Frame(data, time.monotonic()))
                self._condition.notify_all()

    def send_raw(self, data, port=VIEWER_PORT):
        self.socket.sendto(data, ("127.0.0.1", port))

    def send(self, payload):
        """Sends a frame with that payload."""
        self.send_raw(b"\x42" + bytes(11) + payload)

    def register(self, mode=0):
        self.send(bytes([0, mode]))

    def leave(self):
        self.send(b"\x01")

    def speed(self, mode, pan, tilt, roll):
        self.send(struct.pack("<BB3h", 5, mode, pan, tilt, roll))

    def command(self, text):
        self.send(text.encode() if isinstance(text, str) else text)

    def keep_alive(self, period=1.0):
        """Registers again and again, from a thread of its own, until close()."""

        def repeat():
            while not self._stop.is_set():
                try:
                    self.register()
                except OSError:
                    return
                self._stop.wait(period)

        threading.Thread(target=repeat, daemon=True).start()

    def wait(self, condition, seconds=5, what="the frame", start=0):
        """Waits for the first frame, from index `start` on, that fulfils the condition."""
        with self._condition:
            for step in patience(seconds):
                for frame in self.frames[start:]:
                    if condition(frame):
                        return frame
                self._condition.wait(step)
        raise AssertionError(f"{what} did not arrive within {limit(seconds)} s")

    def wait_count(self, condition, count, seconds=5):
        """Waits until `count` frames fulfil the condition; returns all that do."""

        def chosen():
            with self._condition:
                return [frame for frame in self.frames if condition(frame)]

        wait_until(lambda: len(chosen()) >= count, seconds, f"{count} frames")
        return chosen()

    def message(self, kind, seconds=5, start=0):
        """Waits for a data frame whose payload starts with that type byte."""
        return self.wait(lambda f: not f.video and f.payload[:1] == bytes([kind]), seconds,
                         f"message {kind}", start)

    def close(self):
        self._stop.set()
        # Wakes the receive thread, which closing alone would not.
        try:
            self.socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.socket.close()


class StampedViewer(Viewer):
    """A viewer whose frames carry the time at which the kernel was handed them: nanoseconds of the
    wall clock, free of what this process does to wake up and read them."""

    _SO_TIMESTAMPNS = 64  # the one with 64-bit seconds on every machine

    def _receive(self):
        while not self._stop.is_set():
            try:
                data, extras, _, _ = self.socket.recvmsg(65536, 64)
            except OSError:
                return
            if not extras:  # no datagram: the socket was shut down
                return
            seconds, nanoseconds = struct.unpack("qq", extras[0][2])
            with self._condition:
                self.frames.append(Frame(data, seconds * 1_000_000_000 + nanoseconds))
                self._condition.notify_all()

    def register(self, mode=0):
        self.socket.setsockopt(socket.SOL_SOCKET, self._SO_TIMESTAMPNS, 1)
        super().register(mode)
