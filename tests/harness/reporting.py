"""A running service whose camera reports what the test wants, seen by a viewer and through the
display region.

Test files that use the fixture say so: pytest_plugins = ["harness.reporting"].
"""

import contextlib
import socket
import struct

import pytest

from harness.console import removed
from harness.messages import assert_messages
from harness.region import (
    FIELDS, NOW, REGION_SIZE, TELEMETRY, TEXTS, VOLATILE, differences, place, stored, text_field)
from harness.reports import HISTOGRAM, TAIL
from harness.timing import now_ms, wait_until
from harness.values import decode, encode
from harness.viewer import Viewer

# What the status loop sends, at moments of its own.
STATUS_LOOP_MESSAGES = (5, 6, 11)

# What a marking histogram begins with.
MARK = bytes.fromhex("0E DE CA FA 00")


class Desk:
    """A running service whose camera reports what the test wants, seen by a viewer and through the
    display region.

    Reports are decoded one after the other, so a histogram that is like no other marks the end of
    those before it. The bridge never falls silent: between the reports it sends a zero byte.
    """

    def __init__(self, service, viewer, bridge, region):
        self.service = service
        self.viewer = viewer
        self.bridge = bridge
        self.region = region
        self.mark = b""  # the datagram that was the last mark
        self._marks = 0
        self._seen = 0  # frames of the viewer that were looked at
        self._said = 0  # characters of the console that were looked at
        wait_until(lambda: (self.value("focus_point_x"), self.value("focus_point_y")) ==
                   (0.5, 0.5), 5, "the end of the start")
        viewer.keep_alive()
        bridge.keep_sending(TAIL, 0.1)
        self.settle()
        self.console()

    # The region

    def memory(self):
        return bytes(self.region.bytes())

    def value(self, name):
        return decode(FIELDS[name][1], self.memory()[place(name)])

    def text(self, name):
        where = place(name)
        return self.region.text(where.start, where.stop - where.start)

    def preset(self, **stores):
        """Writes fields, as another process could."""
        for name, value in stores.items():
            data = text_field(name, value) if name in TEXTS else encode(FIELDS[name][1], value)
            self.region.write(place(name).start, data)

    def scribble(self):
        """Fills the telemetry block with a pattern, but for the times and what depends on them."""
        memory = bytearray(self.memory())
        kept = [place(name) for name in ("timer_state", "timer_start_ms", "timer_elapsed_ms",
                                         "tracking_ms", "histogram_ms")]
        pattern = bytes((37 * offset + 0xA5) % 255 + 1 for offset in range(REGION_SIZE))
        for offset in TELEMETRY:
            if not any(offset in range(REGION_SIZE)[where] for where in kept):
                memory[offset] = pattern[offset]
        self.region.write(TELEMETRY.start, bytes(memory[TELEMETRY.start:TELEMETRY.stop]))

    # The reports

    def send(self, *frames):
        """Sends the frames as one datagram, with something behind the last."""
        self.bridge.send(b"".join(frames) + TAIL)

    def settle(self):
        """Waits until everything that was sent is decoded; returns the messages that it led to,
        those since the last call."""
        self._marks += 1
        mark = (MARK + struct.pack("<I", self._marks)).ljust(65, b"\0")
        self.mark = HISTOGRAM.frame(bins=mark[1:]) + TAIL
        self.bridge.send(self.mark)
        self.viewer.wait(lambda frame: frame.payload == mark, 10, "the mark", self._seen)
        frames = self.viewer.frames[self._seen:]
        end = [frame.payload for frame in frames].index(mark)
        self._seen += end + 1
        return self.messages(frames[:end])

    @staticmethod
    def messages(frames):
        """The messages in a viewer's frames that come from reports, but for the marks."""
        return [frame.payload for frame in frames
                if not frame.video and frame.payload[0] not in STATUS_LOOP_MESSAGES
                and not frame.payload.startswith(MARK)]

    def exchange(self, *frames):
        """Sends the frames as one datagram and returns the messages that it led to."""
        self.send(*frames)
        return self.settle()

    def check(self, *frames, messages=(), **stores):
        """Sends the frames as one datagram. Exactly those messages must reach the viewer, and
        exactly those fields must change in the region; fields with NOW take the time. The
        histogram's own fields are not looked at."""
        before, start = self.memory(), now_ms()
        actual_messages = self.exchange(*frames)
        after, end = self.memory(), now_ms()
        assert_messages(actual_messages, messages)
        for name, value in stores.items():
            if value is NOW:
                stamp = decode("I", after[place(name)])
                assert (stamp - start) % 2**32 <= (end - start) % 2**32, f"{name} is not the time"
                stores[name] = stamp
        expected, behind_texts = stored(before, stores)
        found = differences(expected, after, [*VOLATILE, *behind_texts, place("histogram"),
                                              place("histogram_ms")])
        assert not found, "\n".join(found)

    # What comes back

    def frames(self):
        """The frames that have come back to the bridge since the last call."""
        frames = []
        with contextlib.suppress(BlockingIOError):
            while True:
                frames.append(self.bridge.socket.recv(65536, socket.MSG_DONTWAIT))
        return frames

    def console(self):
        """What the service has said since the last call. What the viewers' link says is left
        out."""
        guest = Viewer("127.0.0.9")
        before = self.service.err.text().count(removed(guest))  # of a guest who had its port
        try:
            guest.register()
            guest.leave()
            said = self.service.err.wait(removed(guest), count=before + 1)
        finally:
            guest.close()
        news, self._said = said[self._said:], len(said)
        return "".join(line for line in news.splitlines(keepends=True)
                       if not line.startswith(("New client connected", "Client ")))


@pytest.fixture
def desk(service, viewer, data, region):
    """A Desk."""
    return Desk(service, viewer, data, region)
