"""Recordings of a network, made byte by byte: pcap and pcapng, in each wrapping that a replay
takes.

    PYTHONPATH=tests tools/sandbox/enter python3 -m harness.captures BUILD

makes the library in tests/recordings anew, with the simulated camera of that build.
"""

import dataclasses
import pathlib
import random
import socket
import struct
import subprocess
import sys
import tempfile
import time

from harness import duml

LIBRARY = pathlib.Path(__file__).resolve().parents[1] / "recordings"
DATA, VIDEO = 5000, 5001
BRIDGE, BOARD = "192.168.2.1", "192.168.2.20"

ETHERNET, RAW, COOKED_1, COOKED_2 = 1, 101, 113, 276
START = 1_760_000_000.0  # when the recordings of the library begin, seconds since 1970


@dataclasses.dataclass(frozen=True)
class Packet:
    """A packet of a recording."""

    time: float  # seconds since its start
    data: bytes
    size: int = 0  # what it had on the wire; 0: all of it is here


def ip(payload, *, protocol=17, source=BRIDGE, destination=BOARD, number=0, fragment=0):
    head = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), number, fragment, 64, protocol, 0,
                       socket.inet_aton(source), socket.inet_aton(destination))
    return head + payload


def udp(payload, port, source_port=40000):
    return struct.pack(">HHHH", source_port, port, 8 + len(payload), 0) + payload


def pieces(payload, port, size, number):
    """The fragments of a datagram, each of at most `size` bytes behind its IP header."""
    whole = udp(payload, port)
    return [ip(whole[at:at + size], number=number,
               fragment=at // 8 | (0x2000 if at + size < len(whole) else 0))
            for at in range(0, len(whole), size)]


def wrapped(layer, packet, tags=0):
    """An IP packet on a link."""
    if layer == RAW:
        return packet
    if layer == COOKED_1:
        return struct.pack(">HHH8sH", 0, 1, 6, bytes(8), 0x0800) + packet
    if layer == COOKED_2:
        return struct.pack(">HHIHBB8s", 0x0800, 0, 2, 1, 0, 6, bytes(8)) + packet
    tag = struct.pack(">HH", 0x8100, 5) * tags
    # A frame of Ethernet is no shorter than this.
    return (bytes(12) + tag + struct.pack(">H", 0x0800) + packet).ljust(60, b"\0")


def pcap(layer, packets, start=START):
    """A pcap file with nanoseconds."""
    blocks = [struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 262_144, layer)]
    for one in packets:
        moment = round((start + one.time) * 1e6) * 1000
        blocks.append(struct.pack("<IIII", moment // 10**9, moment % 10**9, len(one.data),
                                  one.size or len(one.data)) + one.data)
    return b"".join(blocks)


def block(kind, body):
    body += bytes(-len(body) % 4)
    length = struct.pack("<I", len(body) + 12)
    return struct.pack("<I", kind) + length + body + length


def pcapng(layer, packets, start=START):
    """A pcapng file with microseconds."""
    blocks = [block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1)),
              block(1, struct.pack("<HHI", layer, 0, 262_144))]
    for one in packets:
        moment = round((start + one.time) * 1e6)
        blocks.append(block(6, struct.pack("<IIIII", 0, moment >> 32, moment & 0xFFFFFFFF,
                                           len(one.data), one.size or len(one.data)) + one.data))
    return b"".join(blocks)


# --- The library ---------------------------------------------------------------------------------


# What the service says to the camera meanwhile, and when: the gimbal moves all the time.
SESSION = [(at / 10, duml.speed(300, 40, -200)) for at in range(1, 16)] + [
    (0.25, duml.camera(0x02, "01")),  # record
    (0.45, duml.camera(0x2A, "05")),  # ISO 400
    (0.65, duml.camera(0x2C, "02 40")),  # cloudy
    (0.85, duml.camera(0xA6, "01 00000000" + struct.pack("<4f", 0.4, 0.3, 0.2, 0.1).hex())),
    (1.55, duml.camera(0xA6, "00" * 21)),
    (1.65, duml.camera(0x02, "00")),
]


def heard(build, seconds, *arguments):
    """What the simulated camera sends in such a session: (seconds, port, payload) of each
    datagram."""
    session = [(at, said.frame(n)) for n, (at, said) in enumerate(sorted(SESSION, key=lambda x: x[0]))]
    found = []
    sockets = {}
    for port in (DATA, VIDEO):
        sockets[port] = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sockets[port].bind(("127.0.0.1", port))
        sockets[port].settimeout(0)
    camera = subprocess.Popen([build / "nimbus-sim", "--seconds", str(seconds), *arguments],
                              stdout=subprocess.DEVNULL)
    start = None
    while camera.poll() is None:
        for port, one in sockets.items():
            try:
                payload, source = one.recvfrom(65536)
            except BlockingIOError:
                continue
            now = time.monotonic()
            start = start or now
            found.append((now - start, port, payload))
            if port == DATA and session and session[0][0] <= now - start:
                one.sendto(session.pop(0)[1], source)
        time.sleep(0.0005)
    for one in sockets.values():
        one.close()
    return found


def packets_of(datagrams, layer):
    return [Packet(at, wrapped(layer, ip(udp(payload, port), number=number % 65536)))
            for number, (at, port, payload) in enumerate(datagrams)]


def fragmented(rng):
    """Video in large datagrams: in order, backwards, shuffled, repeated, and one that lacks a
    piece, which a replay cannot send."""
    packets = []
    for number in range(8):
        parts = pieces(rng.randbytes(4000), VIDEO, 1480, number)
        if number % 4 == 1:
            parts.reverse()
        elif number % 4 == 2:
            rng.shuffle(parts)
        elif number % 4 == 3:
            parts.insert(2, parts[1])
        if number == 7:
            del parts[-1]
        packets += [Packet(number * 0.04 + n * 0.0002, wrapped(COOKED_2, part))
                    for n, part in enumerate(parts)]
    return packets


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    rng = random.Random(5001)
    LIBRARY.mkdir(exist_ok=True)
    with tempfile.NamedTemporaryFile() as noise:
        noise.write(rng.randbytes(20_000))
        noise.flush()
        camera = heard(build, 2, "--video", noise.name, "--bitrate", "40000")
    (LIBRARY / "camera.pcap").write_bytes(pcap(ETHERNET, packets_of(camera, ETHERNET)))
    faults = heard(build, 2, "--faults", "drop=0.1,corrupt=0.2,truncate=0.2,repeat=0.1", "--seed", "7")
    (LIBRARY / "faults.pcapng").write_bytes(pcapng(COOKED_1, packets_of(faults, COOKED_1)))
    (LIBRARY / "fragments.pcap").write_bytes(pcap(COOKED_2, fragmented(rng)))


if __name__ == "__main__":
    main()
