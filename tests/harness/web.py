"""nimbus-web as programs see it: its process, HTTP, and WebSockets, byte by byte."""

import base64
import http.client
import json
import os
import pathlib
import re
import select
import socket
import ssl
import struct
import subprocess
import threading
import time

from harness.console import Console
from harness.service import EMULATOR
from harness.timing import limit, wait_until

TEXT, BINARY, CLOSE = 1, 2, 8
STREAMS = pathlib.Path(__file__).parents[1] / "unit/streams"


class Place:
    """Where some nimbus-web answers, for those who have not started it."""

    def __init__(self, port, address="127.0.0.1", secure=False):
        self.port = port
        self.address = address
        self.secure = secure
        self.host = f"{address}:{port}"


class Web(Place):
    """A running nimbus-web on a port of its own."""

    def __init__(self, build, *options, port=8080, env=None):
        super().__init__(port, secure="--tls" in options)
        self.killed = False
        self.process = subprocess.Popen(
            [*EMULATOR, build / "nimbus-web", "--listen", self.host, *options],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            env={**os.environ, **(env or {})})
        self.err = Console(self.process.stderr)
        try:
            wait_until(self.answers, 10, "an answer of nimbus-web")
        except AssertionError:
            self.kill()
            raise

    def answers(self):
        assert self.process.poll() is None, self.err.text()
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
            return True
        except OSError:
            return False

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.killed = True

    def stop(self):
        if self.killed:
            return
        if self.process.poll() is None:
            self.process.terminate()
        status = self.process.wait(limit(10))
        assert status == 0, f"{status}: {self.err.text()}"

    def request(self, method, path, body=None, headers=None, secure=False):
        """(status, headers, body) of one request."""
        if secure:
            context = ssl._create_unverified_context()  # its certificate is its own
            connection = http.client.HTTPSConnection("127.0.0.1", self.port, context=context,
                                                     timeout=limit(10))
        else:
            connection = http.client.HTTPConnection("127.0.0.1", self.port,
                                                    timeout=limit(10))
        try:
            connection.request(method, path, body, {"Host": self.host, **(headers or {})})
            answer = connection.getresponse()
            return answer.status, answer.headers, answer.read()
        finally:
            connection.close()

    def get(self, path, **options):
        return self.request("GET", path, **options)

    def state(self):
        status, _, body = self.get("/api/state")
        assert status == 200
        return json.loads(body)

    def raw(self, data, seconds=5, source="127.0.0.1"):
        """What comes back for these bytes, until the connection is closed."""
        with self.connect(source) as connection:
            connection.settimeout(limit(seconds))
            connection.sendall(data)
            answer = b""
            try:
                while piece := connection.recv(65536):
                    answer += piece
            except ConnectionResetError:
                pass
            return answer

    def connect(self, source="127.0.0.1"):
        return socket.create_connection(("127.0.0.1", self.port), limit(5), (source, 0))

    def video(self, form="fmp4", **options):
        return WebSocket(self, f"/ws/video?form={form}", **options)

    def control(self, **options):
        return WebSocket(self, "/ws/control", **options)


class WebSocket:
    """A browser's end."""

    def __init__(self, place, path, source="127.0.0.1", headers=None, receive_buffer=None):
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.bind((source, 0))
        self.socket.settimeout(limit(5))
        self.socket.connect((place.address, place.port))
        if place.secure:
            self.socket = ssl._create_unverified_context().wrap_socket(self.socket)
        lines = {"Host": place.host, "Upgrade": "websocket", "Connection": "Upgrade",
                 "Sec-WebSocket-Version": "13",
                 "Sec-WebSocket-Key": base64.b64encode(os.urandom(16)).decode(), **(headers or {})}
        self.socket.sendall((f"GET {path} HTTP/1.1\r\n" + "".join(
            f"{name}: {value}\r\n" for name, value in lines.items()) + "\r\n").encode())
        self.buffer = b""
        while b"\r\n\r\n" not in self.buffer:
            piece = self.socket.recv(65536)
            assert piece, self.buffer
            self.buffer += piece
        head, _, self.buffer = self.buffer.partition(b"\r\n\r\n")
        self.status = int(head.split()[1])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send_frame(self, opcode, payload, masked=True):
        head = bytes([0x80 | opcode])
        bit = 0x80 if masked else 0
        if len(payload) < 126:
            head += bytes([bit | len(payload)])
        elif len(payload) < 65536:
            head += bytes([bit | 126]) + struct.pack(">H", len(payload))
        else:
            head += bytes([bit | 127]) + struct.pack(">Q", len(payload))
        mask = os.urandom(4) if masked else b""
        data = bytes(b ^ mask[i % 4] for i, b in enumerate(payload)) if masked else payload
        self.socket.sendall(head + mask + data)

    def send(self, **message):
        self.send_frame(TEXT, json.dumps(message).encode())

    def _take(self, size):
        while len(self.buffer) < size:
            piece = self.socket.recv(65536)
            if not piece:
                raise EOFError
            self.buffer += piece
        data, self.buffer = self.buffer[:size], self.buffer[size:]
        return data

    def read(self, seconds=5):
        """(opcode, payload) of the next message."""
        self.socket.settimeout(limit(seconds))
        first, second = self._take(2)
        size = second & 0x7F
        if size == 126:
            size, = struct.unpack(">H", self._take(2))
        elif size == 127:
            size, = struct.unpack(">Q", self._take(8))
        return first & 15, self._take(size)

    def message(self, kind, /, seconds=5, **members):
        """The next text of that type that has these members; others are dropped."""
        deadline = time.monotonic() + limit(seconds)
        while time.monotonic() < deadline:
            opcode, payload = self.read(seconds)
            if opcode != TEXT:
                continue
            message = json.loads(payload)
            if message["type"] == kind and members.items() <= message.items():
                return message
        raise AssertionError(f"no {kind} {members}")

    def closed(self, seconds=5):
        """The code with which the server closes; None when it just ends."""
        try:
            while True:
                opcode, payload = self.read(seconds)
                if opcode == CLOSE:
                    return struct.unpack(">H", payload[:2])[0] if payload else None
        except (EOFError, ConnectionError):
            return None

    def pictures(self, count, seconds=10):
        """So many pictures: (flags, number, bytes). Initialisation segments come as number None."""
        got = []
        while sum(number is not None for _, number, _ in got) < count:
            opcode, payload = self.read(seconds)
            if opcode != BINARY:
                continue
            what, flags, _, number, _ = struct.unpack_from("<BBHIQ", payload)
            got.append((flags, number if what == 2 else None, payload[16:]))
        return got

    def waits(self):
        """Whether anything has come that was not read."""
        return bool(self.buffer) or bool(select.select([self.socket], [], [], 0)[0])


def drive(browser):
    """Takes the lease."""
    browser.send(type="take")
    browser.message("lease", you=True)


class Film:
    """A bridge that sends a recorded stream, 25 pictures a second, until it is closed."""

    def __init__(self, bridge, name="zerolatency.h264", datagram=1400, padding=0):
        data = (STREAMS / name).read_bytes()
        starts = [m.start() for m in re.finditer(
            rb"\x00\x00\x00\x01[\x67\x27]|\x00\x00\x00?\x01[\x41\x61\x01](?=[\x80-\xff])", data)]
        # Supplemental information makes pictures as long as those of a large picture.
        extra = b"\0\0\0\1\x06\x05" + b"\x40" * padding + b"\x80" if padding else b""
        self.pictures = [extra + data[a:b] for a, b in zip(starts, starts[1:] + [len(data)])]
        self._bridge, self._datagram = bridge, datagram
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._send, daemon=True)
        self._thread.start()

    def _send(self):
        due = time.monotonic()
        while True:
            for picture in self.pictures:
                for at in range(0, len(picture), self._datagram):
                    self._bridge.send(picture[at:at + self._datagram])
                due += 0.04
                if self._end.wait(max(0, due - time.monotonic())):
                    return

    def close(self):
        self._end.set()
        self._thread.join()
