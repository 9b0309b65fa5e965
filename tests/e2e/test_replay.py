"""Recordings: what is captured, what a replay makes of it, and what comes of the library in
tests/recordings."""

import contextlib
import hashlib
import os
import pathlib
import pty
import re
import shlex
import signal
import socket
import subprocess
import threading
import time

import pytest

from harness import captures
from harness.captures import (
    COOKED_1, COOKED_2, DATA, ETHERNET, LIBRARY, RAW, VIDEO, Packet, ip, udp, wrapped)
from harness.console import Console
from harness.making import making
from harness.service import EMULATOR, wait_for_ports
from harness.timing import limit, wait_until
from harness.udp import udp_socket

ROOT = pathlib.Path(__file__).resolve().parents[2]
ENDED = re.compile(r"(\d+) frames received, \d+ bad, (\d+) bytes of video sent; "
                   r"replayed: (\d+) data, (\d+) video, (\d+) incomplete\n")


class Replays:
    """nimbus-sim --replay, as a person runs it."""

    def __init__(self, binary):
        self.binary = str(binary)

    def run(self, path, *arguments, **options):
        return subprocess.run([*EMULATOR, self.binary, "--replay", path, *map(str, arguments)],
                              capture_output=True, text=True, timeout=limit(90), check=False,
                              **options)

    def __call__(self, path, *arguments):
        """The numbers of a run that ends well: data, video, incomplete."""
        done = self.run(path, *arguments)
        assert done.returncode == 0, done
        return tuple(map(int, ENDED.fullmatch(done.stdout).groups()[2:]))

    def fails(self, path, *arguments):
        done = self.run(path, *arguments)
        assert done.returncode == 1, done
        line = done.stderr.splitlines()[-1]
        assert line.startswith("nimbus-sim: "), done
        return line[len("nimbus-sim: "):]


@pytest.fixture
def replay(build):
    return Replays(build / "nimbus-sim")


class Listener:
    """Takes the service's place: what comes to its two links, with the time of each."""

    def __init__(self, host="127.0.0.1"):
        self.heard = []  # (time, port, payload)
        self._sockets = [udp_socket(host, port) for port in (DATA, VIDEO)]
        self._threads = [threading.Thread(target=self._receive, args=link, daemon=True)
                         for link in zip(self._sockets, (DATA, VIDEO))]
        for thread in self._threads:
            thread.start()

    def _receive(self, one, port):
        while True:
            try:
                payload = one.recv(65536)
            except OSError:
                return
            self.heard.append((time.monotonic(), port, payload))

    def payloads(self, count, port):
        def there():
            return len([1 for _, to, _ in self.heard if to == port]) >= count

        wait_until(there, 5, f"{count} datagrams to {port}")
        return [payload for _, to, payload in self.heard if to == port]

    def close(self):
        for one in self._sockets:
            with contextlib.suppress(OSError):  # it wakes who waits, but says that it is not connected
                one.shutdown(socket.SHUT_RDWR)
            one.close()
        # A socket that is still being read from keeps its port.
        for thread in self._threads:
            thread.join()


@pytest.fixture
def listeners():
    """listeners(host="127.0.0.1") makes a Listener that is closed at the end of the test."""
    with making(Listener) as make:
        yield make


@pytest.fixture
def listener(listeners):
    return listeners()


def recording(tmp_path, packets, layer=ETHERNET, form=captures.pcap, **options):
    path = tmp_path / "recording"
    path.write_bytes(form(layer, packets, **options))
    return path


def simple(count=3, layer=ETHERNET, port=VIDEO, step=0.01):
    return [Packet(n * step, wrapped(layer, ip(udp(bytes([n]) * (n + 1), port)))) for n in range(count)]


# --- The library ---------------------------------------------------------------------------------

# What the service says by its own clock, not by what it is sent.
BY_CLOCK = {5, 6, 10, 11, 15}


def line_of(payload):
    return f"{payload[0]:2} {payload[1:].hex(' ')}"


@pytest.mark.parametrize("name", sorted(path.name for path in LIBRARY.glob("*.pcap*")))
def test_library(name, replay, service, viewer):
    """The messages that come of each recording are those that a person has looked at.

    NIMBUS_REBUILD=1 in the environment writes them anew."""
    viewer.keep_alive()
    wait_until(lambda: any(f.payload[0] == 11 for f in viewer.frames), 5, "the first status")
    replay(LIBRARY / name, "--speed", 2)
    sent = wait_until(lambda: settled(viewer), 10, "the last message")
    video = b"".join(frame.payload for frame in sent if frame.video)
    lines = [line_of(frame.payload) for frame in sent
             if not frame.video and frame.payload[0] not in BY_CLOCK]
    lines.append(f"video: {len(video)} bytes, {hashlib.sha256(video).hexdigest()}")
    golden = (LIBRARY / name).with_suffix(".txt")
    if os.environ.get("NIMBUS_REBUILD"):
        golden.write_text("\n".join(lines) + "\n")
    assert lines == golden.read_text().splitlines()


def settled(viewer, quiet=0.5):
    """All frames, once none that a camera is the reason of has come for a while."""
    last = [f.time for f in viewer.frames if f.video or f.payload[0] not in BY_CLOCK]
    return last and time.monotonic() - last[-1] > quiet and list(viewer.frames)


def test_library_is_small():
    assert sum(path.stat().st_size for path in LIBRARY.iterdir()) < 300_000


# --- Wrappings -----------------------------------------------------------------------------------


@pytest.mark.parametrize("form", [captures.pcap, captures.pcapng])
@pytest.mark.parametrize("layer", [ETHERNET, RAW, COOKED_1, COOKED_2])
def test_wrappings(layer, form, replay, listener, tmp_path):
    packets = simple(layer=layer, step=0.001)
    assert replay(recording(tmp_path, packets, layer, form)) == (0, 3, 0)
    assert listener.payloads(3, VIDEO) == [b"\0", b"\1\1", b"\2\2\2"]


@pytest.mark.parametrize("tags", [1, 2])
def test_virtual_networks(tags, replay, listener, tmp_path):
    packets = [Packet(0, wrapped(ETHERNET, ip(udp(b"tagged", DATA)), tags))]
    assert replay(recording(tmp_path, packets)) == (1, 0, 0)
    assert listener.payloads(1, DATA) == [b"tagged"]


def test_what_is_of_no_interest(replay, listener, tmp_path):
    """Other protocols, ports and directions are passed over."""
    others = [bytes(60), wrapped(ETHERNET, ip(bytes(20), protocol=6)),
              wrapped(ETHERNET, ip(udp(b"dns", 53))), b"short",
              wrapped(ETHERNET, ip(udp(b"to the camera", 40000, source_port=5000)))]
    packets = [Packet(0, data) for data in others] + simple(1)
    assert replay(recording(tmp_path, packets)) == (0, 1, 0)
    assert listener.payloads(1, VIDEO) == [b"\0"]
    assert len(listener.heard) == 1


def test_fragments(replay, listener):
    assert replay(LIBRARY / "fragments.pcap", "--speed", 10) == (0, 7, 1)
    assert [len(payload) for payload in listener.payloads(7, VIDEO)] == [4000] * 7


def documented_tcpdump():
    """The line for the board, without what makes its reader root."""
    text = (ROOT / "docs/operations.md").read_text()
    return shlex.split(re.search(r"^sudo (tcpdump .*)$", text, re.MULTILINE)[1])


def test_what_tcpdump_has_written(replay, links, listeners, processes, tmp_path):
    """The documented line, on a board whose bridge is another machine: large datagrams come in
    pieces, and other traffic does not matter."""
    link = links(1)
    listeners(link.near)
    run = processes(documented_tcpdump(), cwd=tmp_path, stderr=subprocess.PIPE)
    said = Console(run.stderr)
    said.wait("listening on any")
    sent = [bytes([n]) * size for n, size in enumerate((1, 1400, 1500, 9000, 60_000))]
    with link.inside(), udp_socket(link.far) as bridge:
        for datagram in sent:
            bridge.sendto(datagram, (link.near, VIDEO))
            bridge.sendto(b"report", (link.near, DATA))
            bridge.sendto(b"other", (link.near, 5002))
        bridge.sendto(b"the last report", (link.near, DATA))
    path = tmp_path / "bridge.pcap"
    wait_until(lambda: path.exists() and b"the last report" in path.read_bytes(), 5, "all of it")
    run.send_signal(signal.SIGINT)
    run.wait(limit(5))
    said.wait("\n0 packets dropped by kernel\n")
    listener = listeners()
    assert replay(path) == (len(sent) + 1, len(sent), 0)
    assert listener.payloads(len(sent), VIDEO) == sent
    assert listener.payloads(len(sent) + 1, DATA)[:-1] == [b"report"] * len(sent)


def test_cut_packets_are_not_sent(replay, listener, tmp_path):
    packets = simple(2) + [Packet(0.1, wrapped(ETHERNET, ip(udp(bytes(500), VIDEO)))[:96], 542)]
    assert replay(recording(tmp_path, packets)) == (0, 2, 1)


# --- Time ----------------------------------------------------------------------------------------


@pytest.mark.timing
@pytest.mark.parametrize("speed", [0.5, 1, 4])
def test_recorded_timing(speed, replay, listener, tmp_path):
    """Each datagram comes when it did, and a late one makes none behind it late."""
    moments = [0.0, 0.001, 0.05, 0.051, 0.052, 0.2, 0.21, 0.4, 0.405, 0.6]
    packets = [Packet(at, wrapped(ETHERNET, ip(udp(bytes([n]), DATA))))
               for n, at in enumerate(moments)]
    replay(recording(tmp_path, packets), "--speed", speed)
    listener.payloads(len(moments), DATA)
    times = [when for when, _, _ in listener.heard]
    for at, when in zip(moments, times):
        late = when - times[0] - at / speed
        assert -0.02 <= late <= limit(0.05), (at, late)


@pytest.fixture
def lateness(listener, replay, tmp_path):
    """lateness(SECONDS, SPEED) plays a recording of so long and says how much later than it should
    each tenth of the datagrams has come, in seconds: those of each that came soonest."""

    def measure(seconds, speed, step):
        packets = [Packet(n * step, wrapped(ETHERNET, ip(udp(b"%d" % n, DATA))))
                   for n in range(round(seconds / step) + 1)]
        assert replay(recording(tmp_path, packets), "--speed", speed) == (len(packets), 0, 0)
        assert len(listener.payloads(len(packets), DATA)) == len(packets)
        late = [when - int(payload) * step / speed for when, _, payload in listener.heard]
        tenth = len(late) // 10
        return [min(late[at:at + tenth]) - min(late[:tenth]) for at in range(0, 10 * tenth, tenth)]

    return measure


@pytest.mark.timing
def test_drift(lateness):
    """Ten minutes of a recording in six seconds, 200 datagrams in each of them: waits that add to
    one another would be seconds too long by then."""
    late = lateness(600, 100, 0.5)
    assert max(map(abs, late)) < limit(0.001), late


@pytest.mark.timing
def test_drift_in_a_real_minute(lateness, pytestconfig):
    if not pytestconfig.getoption("--long"):
        pytest.skip("lasts a minute: --long")
    late = lateness(60, 1, 0.004)
    print(f"drift: {1000 * late[-1]:.3f} ms in a minute")
    assert max(map(abs, late)) < limit(0.001), late


def test_a_clock_that_was_set_back(replay, listener, tmp_path):
    packets = [Packet(at, wrapped(ETHERNET, ip(udp(b"x", DATA)))) for at in (0, 0.1, -5000, -4999.9)]
    start = time.monotonic()
    assert replay(recording(tmp_path, packets)) == (4, 0, 0)
    assert 0.2 <= time.monotonic() - start <= limit(2)


def test_parts(replay, listener, tmp_path):
    path = recording(tmp_path, simple(30))
    assert replay(path, "--from", 0.095, "--to", 0.155) == (0, 6, 0)
    assert [payload[0] for payload in listener.payloads(6, VIDEO)] == list(range(10, 16))


def test_only_one_link(replay, listener, tmp_path):
    path = recording(tmp_path, simple(2, port=DATA) + simple(3, port=VIDEO))
    assert replay(path, "--only", "data") == (2, 0, 0)
    assert replay(path, "--only", "video") == (0, 3, 0)


def test_loop(build, listener, processes, tmp_path):
    path = recording(tmp_path, simple(3))
    run = processes([*EMULATOR, build / "nimbus-sim", "--replay", path, "--loop"],
                    stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    listener.payloads(10, VIDEO)
    run.send_signal(signal.SIGINT)
    out, err = run.communicate(timeout=limit(5))
    assert run.returncode == 0 and ENDED.fullmatch(out.decode())
    assert re.search(r", round \d+\n", err.decode())
    assert [payload for _, _, payload in listener.heard][:6] == [b"\0", b"\1\1", b"\2\2\2"] * 2


# --- What a person sees --------------------------------------------------------------------------


def test_progress(replay, listener, tmp_path):
    done = replay.run(recording(tmp_path, simple(30)), "--speed", 0.25)
    lines = done.stderr.splitlines()
    assert len(lines) >= 2
    assert re.fullmatch(r"0\.0 s \(\d+ %\), packet \d+: 0 data, \d video", lines[0])
    assert lines[-1] == "0.3 s (100 %), packet 30: 0 data, 30 video"


def test_progress_on_a_terminal(replay, listener, processes, tmp_path):
    """One line, written over and over again."""
    ours, theirs = pty.openpty()
    path = recording(tmp_path, simple(60))
    run = processes([*EMULATOR, replay.binary, "--replay", path], stderr=theirs,
                    stdout=subprocess.DEVNULL)
    assert run.wait(limit(10)) == 0
    said = os.read(ours, 65536).decode()
    os.close(ours)
    os.close(theirs)
    assert said.count("\n") == 1 and said.count("\r\x1b[K") >= 3, said


def test_truncated(replay, listener, tmp_path):
    """What is there is played; then one line says where the file ends."""
    path = recording(tmp_path, simple(5))
    path.write_bytes(path.read_bytes()[:-7])
    line = replay.fails(path)
    assert re.fullmatch(rf"{path}, packet 5: truncated dump file.*; expected a recording that is "
                        r"whole, of one kind of packets",
                        line)
    assert len(listener.payloads(4, VIDEO)) == 4


FOREIGN = {
    "empty": (b"", "before packet 1: "),
    "text": (b"This is no recording, but a text of some length.\n" * 3, "before packet 1: "),
    "no packets": (captures.pcap(ETHERNET, []), "nothing to play in 0 packets"),
    "another link": (captures.pcap(105, simple(1)),
                     ", before packet 1: packets of IEEE802_11; expected Ethernet"),
    "an unknown link": (captures.pcap(64_000, simple(1)), "; expected Ethernet"),
    "two kinds of links": (captures.pcapng(ETHERNET, simple(1)) +
                           captures.block(1, bytes([105, 0, 0, 0, 0, 0, 4, 0])) +
                           captures.block(6, bytes([1] + 19 * [0])),
                           ", packet 2: an interface has a type 105 different from"),
    "others only": (captures.pcap(ETHERNET, simple(4, port=53)), "nothing to play in 4 packets"),
}


@pytest.mark.parametrize("what", FOREIGN)
def test_foreign(what, replay, tmp_path):
    content, expected = FOREIGN[what]
    path = tmp_path / "file"
    path.write_bytes(content)
    line = replay.fails(path)
    assert line.startswith(str(path)) and expected in line, line
    assert "; expected" in line


def test_no_such_file(replay):
    assert replay.fails("/none") == "cannot read /none: No such file or directory"


BAD_ARGUMENTS = {
    ("--speed", "0"): "--speed '0'; expected a number from 0.1 to 100",
    ("--speed", "101"): "--speed '101'; expected a number from 0.1 to 100",
    ("--from", "-1"): "--from '-1'; expected seconds from the recording's start",
    ("--to", "x"): "--to 'x'; expected seconds from the recording's start",
    ("--from", "2", "--to", "2"): "--to '2'; expected more than --from",
    ("--only", "sound"): "--only 'sound'; expected data or video",
    ("--video", "file"): "--video excludes --replay; nimbus-sim --help shows what is expected",
}


@pytest.mark.parametrize("arguments", BAD_ARGUMENTS)
def test_bad_arguments(arguments, replay):
    assert replay.fails(LIBRARY / "camera.pcap", *arguments) == BAD_ARGUMENTS[arguments]


# --- Capture -------------------------------------------------------------------------------------


def capture(build, *arguments):
    return subprocess.run([*EMULATOR, build / "nimbusctl", "--timeout", str(limit(3)), "capture",
                           *map(str, arguments)], capture_output=True, timeout=limit(20), check=False)


def test_capture_and_replay(build, replay, service, video, listeners, processes, tmp_path):
    """The video that a viewer has captured goes to another service as the bridge has sent it."""
    path = tmp_path / "viewer.pcapng"
    run = processes([*EMULATOR, build / "nimbusctl", "capture", path], stderr=subprocess.PIPE)
    service.err.wait("New client connected")
    sent = [bytes([n]) * size for n, size in enumerate((1, 1400, 1401, 9000, 60_000))]
    for datagram in sent:
        video.send(datagram)
        time.sleep(0.1)
    wait_until(lambda: path.stat().st_size > sum(map(len, sent)), 5, "the last datagram")
    run.send_signal(signal.SIGINT)
    _, err = run.communicate(timeout=limit(5))
    assert run.returncode == 0
    assert re.fullmatch(rf"\d+ received, \d+ sent, {path.stat().st_size} bytes in {path}\n",
                        err.decode())
    service.err.wait("removed")
    service.kill()
    wait_for_ports()

    listener = listeners()
    assert replay(path, "--speed", 4) == (0, len(sent), 0)
    assert listener.payloads(len(sent), VIDEO) == sent


def test_capture_is_readable(build, service, tmp_path):
    """Both directions stand in the file, with sound checksums, in the words of a reader of its
    own."""
    path = tmp_path / "viewer.pcapng"
    assert capture(build, path, "--seconds", 1.2).returncode == 0
    packets = read_pcapng(path.read_bytes())
    assert all(checksum(packet[:20]) == 0 for packet in packets)
    ports = [(int.from_bytes(p[20:22], "big"), int.from_bytes(p[22:24], "big")) for p in packets]
    assert any(source == 4242 for source, _ in ports)
    assert any(destination == 4242 for _, destination in ports)
    sent = [p[28:] for p, (_, to) in zip(packets, ports) if to == 4242]
    assert sent[0][12] == 0 and sent[-1][12] == 1  # registers first, leaves last
    assert abs(os.stat(path).st_mtime - packets.last) < 5


class Packets(list):
    last = 0.0  # seconds since 1970


def read_pcapng(data):
    found = Packets()
    while data:
        kind, length = (int.from_bytes(data[at:at + 4], "little") for at in (0, 4))
        assert length % 4 == 0 and data[length - 4:length] == data[4:8]
        if kind == 6:
            _, high, low, size, whole = (int.from_bytes(data[at:at + 4], "little")
                                         for at in range(8, 28, 4))
            assert size == whole
            found.append(data[28:28 + size])
            found.last = (high << 32 | low) / 1e9
        data = data[length:]
    return found


def checksum(header):
    total = sum(int.from_bytes(header[at:at + 2], "big") for at in range(0, len(header), 2))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return total ^ 0xFFFF


def test_capture_to_a_pipe(build, service):
    done = capture(build, "-", "--seconds", 0.5)
    assert done.returncode == 0 and read_pcapng(done.stdout)


@pytest.mark.parametrize("path,why", [("/none/file", "cannot open /none/file: No such file"),
                                      ("/dev/full", "cannot write /dev/full: No space left")])
def test_capture_fails(path, why, build, service):
    done = capture(build, path, "--seconds", 1)
    assert done.returncode == 1
    assert done.stderr.decode().startswith(f"nimbusctl: {why}")
    assert done.stderr.count(b"\n") == 1
