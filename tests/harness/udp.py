"""The ports of the service, and the UDP sockets of the sandbox."""

import contextlib
import pathlib
import socket
import struct

VIEWER_PORT = 4242
DATA_PORT = 5000
VIDEO_PORT = 5001
PORTS = (VIEWER_PORT, DATA_PORT, VIDEO_PORT)


def udp_socket(host, port=0, receive_buffer=32 * 1024 * 1024):
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        sock.setsockopt(socket.SOL_SOCKET, 33, receive_buffer)  # SO_RCVBUFFORCE
    except PermissionError:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    sock.bind((host, port))
    return sock


def forge(source, data, port=VIEWER_PORT, host="127.0.0.1"):
    """Sends a datagram to that host that seems to come from `source`, a (host, port) pair."""
    datagram = struct.pack(">4H", source[1], port, 8 + len(data), 0) + data  # 0: no checksum
    packet = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(datagram), 0, 0, 64,
                         socket.IPPROTO_UDP, 0, socket.inet_aton(source[0]),
                         socket.inet_aton(host)) + datagram
    with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW) as raw:
        raw.sendto(packet, (host, 0))


def bound_ports():
    """The UDP ports that are bound in the sandbox."""
    rows = pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]
    return {int(row.split()[1].split(":")[1], 16) for row in rows}


def udp_count(name):
    """A counter of the sandbox's UDP sockets together (RFC 4113, and the kernel's own)."""
    rows = pathlib.Path("/proc/net/snmp").read_text().splitlines()
    names, values = (row.split() for row in rows if row.startswith("Udp:"))
    return int(values[names.index(name)])


def datagrams_sent():
    """How many UDP datagrams have left any socket of the sandbox so far."""
    return udp_count("OutDatagrams")


def datagrams_refused():
    """How many UDP datagrams have found the queue of their socket full so far."""
    return udp_count("RcvbufErrors")


def socket_queue(port):
    """How many bytes wait in the sockets bound to that port, and how many datagrams they have
    lost."""
    rows = map(str.split, pathlib.Path("/proc/net/udp").read_text().splitlines()[1:])
    queues = [(int(row[4].split(":")[1], 16), int(row[-1])) for row in rows
              if row[1] == f"00000000:{port:04X}"]
    assert queues, f"nobody has bound port {port}"
    return tuple(map(sum, zip(*queues)))


@contextlib.contextmanager
def occupied(ports, host="0.0.0.0", reuse=False):
    """Somebody else has those ports."""
    with contextlib.ExitStack() as sockets:
        for port in ports:
            holder = sockets.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
            for option in (socket.SO_REUSEADDR, socket.SO_REUSEPORT):
                holder.setsockopt(socket.SOL_SOCKET, option, reuse)
            holder.bind((host, port))
        yield
