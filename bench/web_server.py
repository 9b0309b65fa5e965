"""Measures nimbus-web without a browser: its share of the way of a picture, what it costs with
nobody there, and with a hundred readers of whom twenty do not read, beside a bare loop of send over
as many connections. Prints rows of the table that all benchmarks share; runs in the sandbox. Fails
when a limit is missed.

usage: bench/web_server.py --build FOLDER [--seconds N]"""

import argparse
import contextlib
import multiprocessing
import os
import pathlib
import re
import selectors
import socket
import statistics
import struct
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests"))

from harness.web import STREAMS, Web, WebSocket  # noqa: E402
from rows import print_row  # noqa: E402

READERS, STALLED = 100, 20
PICTURE = 5000  # bytes: 1 Mbit/s at 25 a second
PERIOD = 0.04
DATAGRAM = 1400

# What nimbus-web must hold.
SHARE = 2.0  # ms
IDLE_CPU = 0.3  # percent of a core
IDLE_MEMORY = 10.0  # MiB
READERS_CPU = 3.0  # times the bare loop's
READERS_MEMORY = 40.0  # MiB


def row(what, figure, unit, limit, beside="", ratio="", judged=None):
    """Prints a row; returns whether its limit holds, for the figure or for what is judged
    instead."""
    if judged is None:
        return print_row(what, f"{figure:.2f} {unit}", beside, ratio, f"{limit:g} {unit}",
                         figure <= limit)
    return print_row(what, f"{figure:.2f} {unit}", beside, ratio, f"{limit:g}", judged <= limit)


def pictures():
    """A recorded stream whose pictures are made as long as those of a stream of 1 Mbit/s."""
    data = (STREAMS / "zerolatency.h264").read_bytes()
    starts = [m.start() for m in re.finditer(
        rb"\x00\x00\x00\x01\x67|\x00\x00\x00?\x01[\x41\x61\x01](?=[\x80-\xff])", data)]
    found = []
    for begin, end in zip(starts, starts[1:] + [len(data)]):
        size = PICTURE - 7 - (end - begin)
        found.append(b"\0\0\0\1\x06\x05" + b"\x40" * size + b"\x80" + data[begin:end])
    return found


class Service:
    """Stands in for the service: one viewer, and nothing but video, with a message now and then."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 4242))
        self.number = 0
        self.viewer = None
        self.sent = 0
        self._end = threading.Event()

    def wait(self):
        self.socket.settimeout(10)
        _, self.viewer = self.socket.recvfrom(2048)
        self.socket.settimeout(0)

    def send(self, payload, video=1):
        header = struct.pack("<BBHIHH", 0x42, video, 0, self.number, 0, 0)
        self.number += 1
        self.socket.sendto(header + payload, self.viewer)

    def picture(self, data):
        for at in range(0, len(data), DATAGRAM):
            self.send(data[at:at + DATAGRAM])
        self.sent += 1

    def run(self, seconds):
        """Pictures for so long, and as many messages as a camera's reports bring."""
        film = pictures()
        due = time.monotonic()
        end = due + seconds
        count = 0
        while time.monotonic() < end:
            self.picture(film[count % len(film)])
            self.send(struct.pack("<B3h", 10, count % 360, 0, 0), 0)
            if count % 25 == 0:
                self.send(b"\x06\x11\x01\0\0\0\0", 0)
            count += 1
            due += PERIOD
            time.sleep(max(0, due - time.monotonic()))
        with contextlib.suppress(BlockingIOError):
            while True:
                self.socket.recv(2048)
        return count


def cpu_of(pid):
    """Seconds of a core that a process has used."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def memory_of(pid):
    """MiB that are resident."""
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"VmRSS:\s+(\d+)", text)[1]) / 1024


def measure_idle(service, web, seconds):
    service.run(2)
    before = cpu_of(web.process.pid)
    service.run(seconds)
    percent = 100 * (cpu_of(web.process.pid) - before) / seconds
    return [row("nimbus-web, nobody there: CPU", percent, "%", IDLE_CPU),
            row("nimbus-web, nobody there: memory", memory_of(web.process.pid), "MiB", IDLE_MEMORY)]


def measure_share(service, web):
    """From the last datagram of a picture to its bytes at a browser."""
    film = pictures()
    times = []
    with web.video("raw") as browser:
        for count in range(150):
            data = film[count % len(film)]
            pieces = [data[at:at + DATAGRAM] for at in range(0, len(data), DATAGRAM)]
            for piece in pieces[:-1]:
                service.send(piece)
                time.sleep(0.001)
            while browser.waits():
                browser.read()
            started = time.monotonic()
            service.send(pieces[-1])
            browser.read()
            times.append(1000 * (time.monotonic() - started))
            time.sleep(0.02)
    # The first ones teach it how the bridge cuts pictures.
    return [row("nimbus-web, last datagram to WebSocket", statistics.median(times[50:]), "ms", SHARE)]


def count_messages(data):
    """How many WebSocket messages begin in the bytes, and what is left of the last."""
    count = 0
    while len(data) >= 4:
        size = data[1] & 0x7F
        head = 2
        if size == 126:
            size, head = struct.unpack_from(">H", data, 2)[0], 4
        elif size == 127:
            if len(data) < 10:
                break
            size, head = struct.unpack_from(">Q", data, 2)[0], 10
        if len(data) < head + size:
            break
        if data[0] & 15 == 2 and data[head] == 2:
            count += 1
        data = data[head + size:]
    return count, data


def read_on(sockets, counts, end):
    """Reads all connections until `end` is set, and counts their pictures."""
    selector = selectors.DefaultSelector()
    for index, one in enumerate(sockets):
        one.setblocking(False)
        selector.register(one, selectors.EVENT_READ, [index, b""])
    while not end.is_set():
        for key, _ in selector.select(0.2):
            index, rest = key.data
            data = key.fileobj.recv(1 << 16)
            if not data:
                selector.unregister(key.fileobj)
                continue
            if counts is not None:
                count, key.data[1] = count_messages(rest + data)
                counts[index] += count


@contextlib.contextmanager
def reading(sockets, counts):
    """Another process reads meanwhile."""
    end = multiprocessing.Event()
    reader = multiprocessing.Process(target=read_on, args=(sockets, counts, end))
    reader.start()
    try:
        yield
    finally:
        end.set()
        reader.join()


def address_of(index):
    return f"127.0.{1 + index // 10}.{1 + index % 10}"


def crowd(service, web, seconds):
    """(CPU in seconds, memory, whether each reader got every picture) with the readers."""
    service.run(1)
    readers = [WebSocket(web, "/ws/video?form=raw", source=address_of(i))
               for i in range(READERS - STALLED)]
    for one in readers:
        one.pictures(1)
    stalled = [WebSocket(web, "/ws/video", source=address_of(READERS + i), receive_buffer=4096)
               for i in range(STALLED)]
    counts = multiprocessing.Array("L", len(readers), lock=False)
    with reading([one.socket for one in readers], counts):
        service.run(1)
        before, pictures_before, start = cpu_of(web.process.pid), list(counts), service.sent
        service.run(seconds)
        spent, memory = cpu_of(web.process.pid) - before, memory_of(web.process.pid)
        sent = service.sent - start
        time.sleep(0.5)
        got = [after - was for after, was in zip(counts, pictures_before)]
    for one in (*readers, *stalled):
        one.socket.close()
    return spent, memory, min(got) >= sent - 1 and max(got) <= sent + 1


def bare_loop(build, seconds):
    """CPU in seconds of the bare loop for the same."""
    loop = subprocess.Popen([build / "bench/bare_send", "8081", str(READERS)], stdin=subprocess.PIPE)
    time.sleep(0.3)
    connections = []
    for index in range(READERS):
        one = socket.socket()
        if index >= READERS - STALLED:
            one.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        one.connect(("127.0.0.1", 8081))
        connections.append(one)
    message = struct.pack("<I", PICTURE + 20) + bytes(PICTURE + 20)
    with reading(connections[:READERS - STALLED], None):
        time.sleep(0.5)
        before = cpu_of(loop.pid)
        due = time.monotonic()
        for _ in range(int(seconds / PERIOD)):
            loop.stdin.write(message)
            loop.stdin.flush()
            due += PERIOD
            time.sleep(max(0, due - time.monotonic()))
        spent = cpu_of(loop.pid) - before
    loop.stdin.close()
    loop.wait()
    for one in connections:
        one.close()
    return spent


def measure_crowd(service, web, build, seconds):
    spent, memory, complete = crowd(service, web, seconds)
    bare = bare_loop(build, seconds)
    percent, bare_percent = 100 * spent / seconds, 100 * bare / seconds
    if not complete:
        print("a reader has missed pictures while others stood still", file=sys.stderr)
    ratio = spent / bare
    return [complete,
            row("nimbus-web, 100 readers, 20 stalled: CPU", percent, "%", READERS_CPU,
                f"{bare_percent:.2f} %, bare send", f"{ratio:.2f}", judged=ratio),
            row("nimbus-web, 100 readers: memory", memory, "MiB", READERS_MEMORY)]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--seconds", type=float, default=10)
    options = parser.parse_args()
    service = Service()
    web = Web(options.build.resolve(), "--passwords", "/nonexistent")
    try:
        service.wait()
        held = measure_idle(service, web, options.seconds)
        held += measure_share(service, web)
        held += measure_crowd(service, web, options.build.resolve(), options.seconds)
    finally:
        web.stop()
    return 0 if all(held) else 1


if __name__ == "__main__":
    sys.exit(main())
