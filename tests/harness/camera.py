"""The camera behind its bridge: what it is sent, and what the service says meanwhile."""

import dataclasses
import os
import socket
import struct
import threading

from harness.bridge import Bridge
from harness.timing import limit, patience
from harness.udp import DATA_PORT, udp_socket


@dataclasses.dataclass(frozen=True)
class Event:
    """One datagram at the camera's socket, with the time at which the kernel took it in: seconds of
    the wall clock, free of what this process does to wake up and read it."""

    data: bytes
    time: float
    source: tuple  # host and port
    is_frame: bool  # else a text that the service wrote on its console

    @property
    def text(self):
        return self.data.decode("utf-8", "surrogateescape")


class Camera(Bridge):
    """The camera behind its bridge. Collects what it is sent, and the texts on the console of a
    service that was started with `take_console`."""

    _SO_TIMESTAMPNS = 64  # the one with 64-bit seconds on every machine

    def __init__(self, host="127.0.0.1"):
        super().__init__(DATA_PORT, host)
        self.socket.setsockopt(socket.SOL_SOCKET, self._SO_TIMESTAMPNS, 1)
        self._console = udp_socket("127.0.0.1")
        self._console.connect(self.address)
        self._events = []
        self._condition = threading.Condition()
        threading.Thread(target=self._receive, daemon=True).start()

    def _receive(self):
        console = self._console.getsockname()
        while not self._stop.is_set():
            try:
                data, extras, _, source = self.socket.recvmsg(65536, 64)
            except OSError:
                return
            if not extras:  # woken by close()
                return
            seconds, nanoseconds = struct.unpack("qq", extras[0][2])
            with self._condition:
                self._events.append(Event(data, seconds + nanoseconds / 1e9, source,
                                          source != console))
                self._condition.notify_all()

    def take_console(self):
        """Makes the camera's socket the standard error of the process that calls this."""
        os.dup2(self._console.fileno(), 2)

    def events(self, start=0):
        with self._condition:
            return self._events[start:]

    def count(self):
        """How many events there are."""
        with self._condition:
            return len(self._events)

    def frames(self, start=0):
        """The frames among the events."""
        return [event for event in self.events(start) if event.is_frame]

    def console(self):
        """Everything that was said on the console."""
        return "".join(event.text for event in self.events() if not event.is_frame)

    def wait(self, condition, seconds=5, what="the event", start=0):
        """Waits until condition(events from index `start` on) is true and returns its value."""
        with self._condition:
            for step in patience(seconds):
                if value := condition(self._events[start:]):
                    return value
                self._condition.wait(step)
        raise AssertionError(f"{what} did not come within {limit(seconds)} s")

    def wait_text(self, text, seconds=5, start=0):
        """Waits until exactly that text has been written on the console."""
        return self.wait(lambda events: [event for event in events
                                         if not event.is_frame and event.text == text],
                         seconds, f"the text {text!r}", start)[0]

    def wait_frames(self, count, seconds=5, start=0):
        """Waits for that many frames; returns all that came."""

        def enough(events):
            frames = [event for event in events if event.is_frame]
            return frames if len(frames) >= count else None

        return self.wait(enough, seconds, f"{count} frames", start)

    def introduce(self):
        """Says a word to the service, which thereby knows the camera's address."""
        start = self.count()
        self.send(b"\0")
        self.wait_text("Data found\n", start=start)

    def close(self):
        if self._stop.is_set():
            return
        self._stop.set()
        self._console.sendto(b"", self.address)  # wakes the receive thread, which closing would not
        self._console.close()
        super().close()
