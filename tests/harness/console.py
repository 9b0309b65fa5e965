"""What the service says on its console, and when."""

import os
import threading
import time

from harness.timing import limit, patience

BANNER = b"\x1b[1;37mTervado Nimbus v.0.3.7\x1b[0m\n"
READY = "Init control\n"

# What a clean start says, in its order: the banner on standard output, the others on standard
# error. Each is one write.
START_TEXTS = (BANNER,
               b"Loading config file... ", b"done\n",
               b"Init network... ", b"done\n",
               b"Data lost\n",
               b"Video lost\n",
               b"Init data source... ", b"done\n",
               b"Init video source... ", b"done\n",
               b"Init control\n")


class Console:
    """What a process writes to one of its standard streams, with the time of each piece."""

    def __init__(self, pipe):
        self.pieces = []  # (monotonic time, bytes)
        self._condition = threading.Condition()
        self._closed = False
        self._thread = threading.Thread(target=self._read, args=(pipe,), daemon=True)
        self._thread.start()

    def _read(self, pipe):
        while data := os.read(pipe.fileno(), 65536):
            with self._condition:
                self.pieces.append((time.monotonic(), data))
                self._condition.notify_all()
        with self._condition:
            self._closed = True
            self._condition.notify_all()

    def bytes(self):
        with self._condition:
            return b"".join(data for _, data in self.pieces)

    def text(self):
        return self.bytes().decode("utf-8", "replace")

    def wait(self, text, seconds=5, count=1):
        """Waits until the text has been written `count` times; returns everything so far."""
        with self._condition:
            for step in patience(seconds):
                so_far = b"".join(data for _, data in self.pieces).decode("utf-8", "replace")
                if so_far.count(text) >= count:
                    return so_far
                if self._closed:
                    break
                self._condition.wait(step)
        raise AssertionError(f"no {text!r} (x{count}) in {so_far!r}")

    def wait_closed(self, seconds=5):
        self._thread.join(limit(seconds))
        assert not self._thread.is_alive(), "the stream is still open"


def connected(viewer, note=" "):
    """What the console says when that viewer is registered."""
    host, port = viewer.address
    return f"New client connected from {host}:{port} {note}\n"


def removed(viewer):
    """What the console says when that viewer leaves."""
    host, port = viewer.address
    return f"Client {host}:{port} removed\n"


def lost(viewer):
    """What the console says when that viewer has fallen silent."""
    host, port = viewer.address
    return f"Client {host}:{port} lost\n"


def events(service):
    """What the console has said since the service was ready."""
    return service.err.text().partition(READY)[2]


def time_of(console, text):
    """When the console had said the text for the first time."""
    said = b""
    for when, piece in list(console.pieces):
        said += piece
        if text.encode() in said:
            return when
    raise AssertionError(f"no {text!r} in {said!r}")
