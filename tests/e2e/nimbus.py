"""The service and its neighbours, as the end-to-end tests see them.

Everything here works on the outside of the real binary: its console, its UDP ports, its shared
memory and the board tools that it runs. The tests run inside the sandbox (tools/sandbox/enter), one
service at a time.
"""

import contextlib
import ctypes
import dataclasses
import mmap
import os
import pathlib
import signal
import socket
import struct
import subprocess
import threading
import time

VIEWER_PORT = 4242
DATA_PORT = 5000
VIDEO_PORT = 5001
PORTS = (VIEWER_PORT, DATA_PORT, VIDEO_PORT)

BANNER = b"\x1b[1;37mTervado Nimbus v.0.3.7\x1b[0m\n"
READY = "Init control\n"

# Sanitized and emulated runs stretch every time limit (never a lower bound).
TIME_SCALE = float(os.environ.get("NIMBUS_TIME_SCALE", "1"))

# What runs a binary of another processor.
EMULATOR = os.environ.get("NIMBUS_EMULATOR", "").split()

# The service's sockets: one for each port, and one to send to each viewer (an emulator cannot).
SOCKETS = len(PORTS) + (0 if EMULATOR else 10)


def limit(seconds):
    """A time limit, stretched for slow builds."""
    return seconds * TIME_SCALE


def wait_until(condition, seconds, what="the condition"):
    """Waits until condition() is true and returns its value; fails after the limit."""
    deadline = time.monotonic() + limit(seconds)
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < deadline, f"{what} did not come true within {limit(seconds)} s"
        time.sleep(0.002)


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
        deadline = time.monotonic() + limit(seconds)
        with self._condition:
            while True:
                so_far = b"".join(data for _, data in self.pieces).decode("utf-8", "replace")
                if so_far.count(text) >= count:
                    return so_far
                rest = deadline - time.monotonic()
                assert rest > 0 and not self._closed, f"no {text!r} (x{count}) in {so_far!r}"
                self._condition.wait(rest)

    def wait_closed(self, seconds=5):
        self._thread.join(limit(seconds))
        assert not self._thread.is_alive(), "the stream is still open"


class Service:
    """One run of the service. `folder` is its working directory, `wrapper` a command that runs the
    command behind it."""

    def __init__(self, binary, folder, conf=None, env=None, wrapper=(), wait_ready=True, **popen):
        if conf is not None:
            data = conf if isinstance(conf, bytes) else conf.encode()
            (folder / "tervado.conf").write_bytes(data)
        self.started = time.monotonic()
        self.process = subprocess.Popen(
            [*wrapper, *EMULATOR, str(binary)], cwd=folder, env={**os.environ, **(env or {})},
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **popen)
        self.out = Console(self.process.stdout)
        self.err = Console(self.process.stderr)
        if wait_ready:
            self.err.wait(READY, 10)

    @property
    def pid(self):
        return self.process.pid

    def running(self):
        return self.process.poll() is None

    def wait_exit(self, seconds=5):
        """The exit status, once the process has ended by itself and its console is complete."""
        status = self.process.wait(limit(seconds))
        self.out.wait_closed()
        self.err.wait_closed()
        return status

    def stop(self):
        """Ends the service, which must still be running."""
        assert self.running(), f"the service ended: {self.process.returncode} {self.err.text()}"
        self.kill()

    def kill(self, signum=signal.SIGKILL):
        if self.running():
            self.process.send_signal(signum)
        self.process.wait()


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


def udp_socket(host, port=0, receive_buffer=32 * 1024 * 1024):
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        sock.setsockopt(socket.SOL_SOCKET, 33, receive_buffer)  # SO_RCVBUFFORCE
    except PermissionError:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    sock.bind((host, port))
    return sock


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
        deadline = time.monotonic() + limit(seconds)
        with self._condition:
            while True:
                for frame in self.frames[start:]:
                    if condition(frame):
                        return frame
                rest = deadline - time.monotonic()
                assert rest > 0, f"{what} did not arrive within {limit(seconds)} s"
                self._condition.wait(rest)

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


class Bridge:
    """One of the bridge's two senders: camera data (DATA_PORT) or video (VIDEO_PORT)."""

    def __init__(self, port, host="127.0.0.1"):
        self.port = port
        self.socket = udp_socket(host)
        self.address = self.socket.getsockname()
        self._stop = threading.Event()

    def send(self, data):
        self.socket.sendto(data, ("127.0.0.1", self.port))

    def keep_sending(self, data, period):
        """Sends the datagram again and again, from a thread of its own, until close()."""

        def repeat():
            while not self._stop.is_set():
                self.send(data)
                self._stop.wait(period)

        threading.Thread(target=repeat, daemon=True).start()

    def receive(self, seconds=5):
        self.socket.settimeout(limit(seconds))
        return self.socket.recv(65536)

    def close(self):
        self._stop.set()
        self.socket.close()


class SharedMemory:
    """A shared-memory object as a sibling process sees it."""

    def __init__(self, name, size):
        self.path = pathlib.Path("/dev/shm") / name
        self.size = size
        self._map = None

    def create(self, content=None):
        """Creates the object before the service does."""
        self.path.write_bytes(content if content is not None else bytes(self.size))
        self.path.chmod(0o600)

    @property
    def memory(self):
        if self._map is None:
            with self.path.open("r+b") as file:
                self._map = mmap.mmap(file.fileno(), self.size)
        return self._map

    def bytes(self, offset=0, length=None):
        return self.memory[offset:self.size if length is None else offset + length]

    def write(self, offset, data):
        self.memory[offset:offset + len(data)] = data

    def u8(self, offset):
        return self.memory[offset]

    def value(self, kind, offset):
        """One little-endian value, by its struct letter."""
        return struct.unpack_from("<" + kind, self.memory, offset)[0]

    def text(self, offset, size):
        return bytes(self.bytes(offset, size)).split(b"\0")[0].decode()

    def close(self):
        if self._map is not None:
            self._map.close()
            self._map = None


class DisplayRegion(SharedMemory):
    """The display region, by the offsets of its format."""

    PRODUCT_NAME = (0, 128)
    VERSION_TEXT = (286, 76)
    VIEWER_COUNT = 362
    DATA_CONNECTED = 363
    VIDEO_CONNECTED = 364
    TELEMETRY_STATUS_TEXT = (365, 128)
    VIDEO_STATUS_TEXT = (493, 128)
    TIMER_STATE = 634
    TIMER_START_MS = 636
    TIMER_ELAPSED_MS = 640
    TRACKING_MS = 876
    HISTOGRAM_MS = 1012
    OSD_ENABLED = 1017
    INTERNAL_CAMERA_ENABLED = 1018
    INTERNAL_CAMERA_FULLSCREEN = 1019
    RC_STATUS = 1175
    RC_CHANNEL_MAP = (1242, 32)
    COMMAND_MAILBOX = (1858, 512)

    SIZE = 2672

    def __init__(self):
        super().__init__("hud_mem", self.SIZE)


class Standins:
    """The stand-ins for the board's tools."""

    def __init__(self):
        self.folder = pathlib.Path(os.environ["NIMBUS_STANDINS"])

    def clear(self):
        for file in self.folder.iterdir():
            file.unlink()

    def calls(self, name=None):
        """The calls so far as [name, argument...], of all tools or of one."""
        file = self.folder / "calls"
        lines = file.read_text().splitlines() if file.exists() else []
        calls = [line.split("\t") for line in lines]
        return calls if name is None else [call for call in calls if call[0] == name]

    def answer(self, name, script):
        """Makes a tool run that shell script from now on."""
        fresh = self.folder / f".{name}"
        fresh.write_text("#!/bin/sh\n" + script + "\n")
        fresh.chmod(0o755)
        fresh.rename(self.folder / name)

    def reset(self, name):
        (self.folder / name).unlink(missing_ok=True)


def bound_ports():
    """The UDP ports that are bound in the sandbox."""
    rows = pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]
    return {int(row.split()[1].split(":")[1], 16) for row in rows}


def datagrams_sent():
    """How many UDP datagrams have left any socket of the sandbox so far."""
    rows = pathlib.Path("/proc/net/snmp").read_text().splitlines()
    names, values = (row.split() for row in rows if row.startswith("Udp:"))
    return int(values[names.index("OutDatagrams")])


class BareService(Service):
    """A run of the service whose standard streams are the test's own; /dev/null, if it names none.
    `conf` must be None where `folder` cannot be written."""

    def __init__(self, binary, folder, conf="", env=None, wrapper=(), wait_ready=True, **popen):
        if conf is not None:
            data = conf if isinstance(conf, bytes) else conf.encode()
            (folder / "tervado.conf").write_bytes(data)
        streams = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.DEVNULL)
        self.process = subprocess.Popen([*wrapper, *EMULATOR, str(binary)], cwd=folder,
                                        env={**os.environ, **(env or {})}, **{**streams, **popen})
        if self.process.stderr:
            self.err = Console(self.process.stderr)
        if wait_ready:
            self._wait_ready()

    def _wait_ready(self):
        try:
            wait_until(lambda: VIDEO_PORT in bound_ports() or not self.running(), 10, "the start")
            assert self.running(), f"the service ended: {self.process.returncode}"
        except AssertionError:
            self.kill()
            raise

    def wait_exit(self, seconds=5):
        return self.process.wait(limit(seconds))

    def stop(self):
        assert self.running(), f"the service ended: {self.process.returncode}"
        self.kill()

    def descriptors(self):
        """What its descriptors stand for, by their numbers."""
        folder = pathlib.Path(f"/proc/{self.pid}/fd")
        return {int(fd.name): os.readlink(fd) for fd in folder.iterdir()}

    def threads(self):
        return len(list(pathlib.Path(f"/proc/{self.pid}/task").iterdir()))


class AccessPoint:
    """The access-point daemon, as the service's probe for it finds it. Every probe waits for the
    test's answer, and with it the status loop, between its second and its third message."""

    def __init__(self, standins):
        self._standins = standins
        standins.answer("pidof", 'probe="$NIMBUS_STANDINS/probe.$$"\n'
                                 'mkfifo "$probe"\n'
                                 '[ -e "$0" ] || exit 1\n'  # close() has been here before
                                 'read -r answer <"$probe"\n'
                                 'eval "$answer"')

    def _probes(self):
        return list(self._standins.folder.glob("probe.*"))

    def wait_probe(self, seconds=5):
        """Waits until the status loop stands at a probe."""
        return wait_until(self._probes, seconds, "a probe for hostapd")[0]

    def answer(self, status, seconds=5):
        """Ends the probe with that status, or by that shell command."""
        probe = self.wait_probe(seconds)
        with open(wait_until(lambda: self._open(probe), seconds, "the probe's wait"), "w") as pipe:
            probe.unlink()
            pipe.write(f"exit {status}\n" if isinstance(status, int) else f"{status}\n")

    @staticmethod
    def _open(probe):
        try:
            return os.open(probe, os.O_WRONLY | os.O_NONBLOCK)
        except OSError:  # nobody reads it yet
            return None

    def close(self):
        """Ends what still waits."""
        self._standins.reset("pidof")
        for probe in self._probes():
            with contextlib.suppress(ProcessLookupError):
                os.kill(int(probe.suffix[1:]), signal.SIGKILL)


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


def forge(source, data, port=VIEWER_PORT):
    """Sends a datagram to 127.0.0.1 that seems to come from `source`, a (host, port) pair."""
    datagram = struct.pack(">4H", source[1], port, 8 + len(data), 0) + data  # 0: no checksum
    packet = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(datagram), 0, 0, 64,
                         socket.IPPROTO_UDP, 0, socket.inet_aton(source[0]),
                         socket.inet_aton("127.0.0.1")) + datagram
    with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW) as raw:
        raw.sendto(packet, ("127.0.0.1", 0))


def socket_queue(port):
    """How many bytes wait in the socket bound to that port, and how many datagrams it has lost."""
    for row in pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]:
        fields = row.split()
        if fields[1] == f"00000000:{port:04X}":
            return int(fields[4].split(":")[1], 16), int(fields[-1])
    raise AssertionError(f"nobody has bound port {port}")


def wait_round(standins):
    """Waits until the status loop has looked at viewers and sources once more, a second before it
    does so again."""
    rounds = len(standins.calls("pidof"))
    wait_until(lambda: len(standins.calls("pidof")) > rounds, 5, "another round")


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


@contextlib.contextmanager
def frozen(service):
    """Holds all threads of the service where they are, but for its main thread."""
    ptrace = ctypes.CDLL(None, use_errno=True).ptrace
    ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
    seize, interrupt, detach, wait_all = 0x4206, 0x4207, 17, 0x40000000
    threads = [int(entry) for entry in os.listdir(f"/proc/{service.pid}/task")]
    threads.remove(service.pid)
    for thread in threads:
        assert ptrace(seize, thread, None, None) == 0, os.strerror(ctypes.get_errno())
        assert ptrace(interrupt, thread, None, None) == 0, os.strerror(ctypes.get_errno())
        os.waitpid(thread, wait_all)
    try:
        yield
    finally:
        for thread in threads:
            ptrace(detach, thread, None, None)
