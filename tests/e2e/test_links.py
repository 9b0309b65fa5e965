"""The three UDP links, whatever arrives on them."""

import contextlib
import pathlib
import re
import socket
import subprocess
import threading

import pytest

from harness.bridge import Bridge
from harness.console import connected, events, removed
from harness.making import making
from harness.reports import GIMBAL, TAIL
from harness.service import SOCKETS
from harness.timing import limit, wait_until
from harness.udp import DATA_PORT, PORTS, VIDEO_PORT, VIEWER_PORT, bound_ports, socket_queue

MAX_PAYLOAD = 65507  # of a UDP datagram


@pytest.fixture
def bridge():
    """bridge(port, host="127.0.0.1") sends to one of the service's ports."""
    with making(Bridge) as make:
        yield make


@pytest.fixture
def serves(join, bridge):
    """serves(service) passes if the status loop runs and all three links do their work."""

    def check(service):
        viewer = join(service)
        viewer.message(11)
        bridge(DATA_PORT).send(GIMBAL.frame() + TAIL)
        viewer.message(0)
        bridge(VIDEO_PORT).send(b"video")
        viewer.wait(lambda f: f.video and f.payload == b"video")

    return check


@pytest.mark.parametrize("port", PORTS)
@pytest.mark.parametrize("host", ["127.0.0.1", "127.9.8.7"])
def test_empty_datagram_ends_the_service(held, start, bridge, serves, standins, port, host):
    """With its own line and status, and with all ports free for the successor, although a command
    of the service is still running."""
    bridge(port, host).send(b"")
    held.err.wait("UDP read failed\n")
    assert held.process.wait(limit(5)) == 3
    assert events(held) == "UDP read failed\n"
    standins.reset("pidof")
    serves(start())


@pytest.mark.parametrize("port", PORTS)
def test_empty_datagram_among_others(held, bridge, port):
    """It ends the service after what came before it was handled, and what follows has no effect."""
    link = bridge(port)
    for data in (b"\x42", b"x", b"", b"y", b""):
        link.send(data)
    held.err.wait("UDP read failed\n")
    assert held.process.wait(limit(5)) == 3
    first = {VIEWER_PORT: "New client connected from {}:{}  \n", DATA_PORT: "Data found\n",
             VIDEO_PORT: "Video found\n"}[port].format(*link.address)
    assert events(held) == first + "UDP read failed\n"


@pytest.mark.parametrize("port", PORTS)
@pytest.mark.parametrize("fill", [b"\0", b"\x42", b"{", b"\x55", b"\xff"], ids=lambda b: b.hex())
def test_other_datagrams_never_end_the_service(steady, bridge, serves, port, fill):
    """Whatever their length, up to the longest that there is."""
    link = bridge(port)
    for length in (1, 2, 11, 12, 13, 14, 19, 20, 21, 523, 524, 525, 1400, 59999, 60000, 60001,
                   65535 - 28 - 12, MAX_PAYLOAD):
        link.send(fill * length)
    wait_until(lambda: socket_queue(port)[0] == 0, 10, "the end of the queue")
    serves(steady)


def test_closed_viewers_do_not_disturb(steady, viewers, serves):
    """The system answers a frame to a closed port with an error; nobody minds."""
    gone = [viewers(f"127.0.0.{n}") for n in range(1, 10)]
    for viewer in gone:
        viewer.register()
        steady.err.wait(connected(viewer))
        viewer.close()
    serves(steady)
    viewers(*gone[0].address).message(11)


class Barrage:
    """Datagrams to all three ports, whether open or not, as fast as they can be sent."""

    def __init__(self, links):
        self._links = links
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._send)

    def _send(self):
        while not self._stop.is_set():
            for link in self._links:
                with contextlib.suppress(ConnectionRefusedError):
                    link.send(b"\x42")

    def __enter__(self):
        self._thread.start()

    def __exit__(self, *_):
        self._stop.set()
        self._thread.join()


START_LINES = ("Loading config file... done\nInit network... done\nData lost\nVideo lost\n"
               "Init data source... done\nInit video source... done\nInit control\n")


def test_start_in_the_middle_of_a_stream(start, bridge, region, serves):
    """Whatever arrives from the instant on that a port is open: both sources are found, and said to
    be, and the lines of the start stay whole and in their order."""
    starts = 200
    with Barrage([bridge(port) for port in PORTS]):
        for number in range(starts):
            service = start()
            for line in ("Data found\n", "Video found\n", "New client connected"):
                service.err.wait(line)
            wait_until(lambda: region.u8(region.DATA_CONNECTED)
                       and region.u8(region.VIDEO_CONNECTED), 5, "both sources")
            said = service.err.text()
            for line in ("Data found\n", "Video found\n"):
                assert said.count(line) == 1, f"start {number}: {said}"
                assert said.index(line) > said.rindex("done\n"), f"start {number}: {said}"
                said = said.replace(line, "")
            # Viewers register as soon as their port is open, also in the middle of a line.
            assert re.sub(r"New client connected from .*\n", "", said) == START_LINES
            service.stop()
            wait_until(lambda: bound_ports().isdisjoint(PORTS), 5, "free ports")
    print(f"\nstarts in the middle of a stream: {starts}, each found both sources")
    serves(start())


def test_the_viewers_port_is_nobody_elses(steady):
    """Ten sockets have it that send to viewers. Nobody comes to share it, be it by the same option
    and of the same user, or by another one."""
    for option in (0, socket.SO_REUSEADDR, socket.SO_REUSEPORT):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            if option:
                other.setsockopt(socket.SOL_SOCKET, option, 1)
            with pytest.raises(OSError, match="in use"):
                other.bind(("0.0.0.0", VIEWER_PORT))


def test_second_instance_does_not_start(steady, launch, tmp_path, serves):
    """It says so, and the first one goes on with all of its datagrams."""
    folder = tmp_path / "second"
    folder.mkdir()
    second = launch(folder=folder, wait_ready=False, stderr=subprocess.PIPE)
    assert second.wait_exit() == 1
    assert second.err.wait("fail\n").endswith("Init network... fail\n")
    serves(steady)


def test_broadcast_registration_is_heard_once(steady, viewers):
    """A viewer that does not know the service's address asks everybody. That is one datagram,
    though eleven sockets are on the port, and none of it stays in the others."""
    viewer = viewers()
    viewer.socket.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    viewer.socket.sendto(b"\x42" + bytes(13), ("127.255.255.255", VIEWER_PORT))
    steady.err.wait(connected(viewer))
    viewer.message(11)
    viewer.leave()
    steady.err.wait(removed(viewer))
    rows = pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]
    queues = [row.split()[4] for row in rows if row.split()[1].endswith(f":{VIEWER_PORT:04X}")]
    assert len(queues) == 1 + SOCKETS - len(PORTS)
    assert {queue.split(":")[1] for queue in queues} == {"00000000"}
