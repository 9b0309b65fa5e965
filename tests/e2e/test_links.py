"""The three UDP links, whatever arrives on them."""

import threading

import pytest

import nimbus
from nimbus import DATA_PORT, PORTS, VIDEO_PORT, VIEWER_PORT, connected, events, limit, wait_until

MAX_PAYLOAD = 65507  # of a UDP datagram


@pytest.fixture
def bridge():
    """bridge(port, host) sends to one of the service's ports."""
    made = []

    def make(port, host="127.0.0.1"):
        made.append(nimbus.Bridge(port, host))
        return made[-1]

    yield make
    for one in made:
        one.close()


@pytest.fixture
def serves(join, bridge):
    """serves(service) passes if the status loop runs and all three links do their work."""

    def check(service):
        viewer = join(service)
        viewer.message(11)
        bridge(DATA_PORT).send(b"data")
        service.err.wait("Data found\n")
        bridge(VIDEO_PORT).send(b"video")
        service.err.wait("Video found\n")
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
    wait_until(lambda: nimbus.socket_queue(port)[0] == 0, 10, "the end of the queue")
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


def test_datagrams_from_the_first_moment_on(start, bridge, serves):
    """A datagram may arrive the instant that its port is open. It is handled or only counts as
    received, and nothing is missing later."""
    links = [bridge(port) for port in PORTS]
    stop = threading.Event()
    volleys = []

    def bombard():
        while not stop.is_set():
            for link in links:
                link.send(b"\x42")
            volleys.append(links)

    thread = threading.Thread(target=bombard)
    thread.start()
    try:
        for _ in range(20):
            service = start(wait_ready=False)
            service.err.wait("Init video source... ", 10)
            service.stop()
            wait_until(lambda: nimbus.bound_ports().isdisjoint(PORTS), 5, "free ports")
        last = start(wait_ready=False)
        last.err.wait("done\n", 10, count=4)
        now = len(volleys)
        wait_until(lambda: len(volleys) > now + 1, 5, "another volley, a whole one")
    finally:
        stop.set()
        thread.join()
    for source in ("Data", "Video"):
        last.err.wait(f"{source} lost\n", 10, count=2)
    serves(last)
