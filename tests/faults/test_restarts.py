"""How the service ends, as its supervisor sees it: status 1 when it cannot start, 3 when it wants
to be started again. Either way nothing must be cleaned up for the next start."""

import signal
import time

import pytest

from harness.console import connected, events, lost
from harness.timing import limit, wait_until
from harness.udp import DATA_PORT, VIDEO_PORT, VIEWER_PORT, occupied

PORTS = (VIEWER_PORT, DATA_PORT, VIDEO_PORT)


def empty_datagram(port):
    return lambda viewer: viewer.send_raw(b"", port)


ENDS = {
    "restart": (lambda viewer: viewer.command('{"cmd":"restart"}'), 3),
    **{f"failure of port {port}": (empty_datagram(port), 3) for port in PORTS},
}


@pytest.mark.parametrize("end, status", ENDS.values(), ids=ENDS)
def test_ends_and_starts_again(start, viewers, data, video, region, times, end, status):
    """At once: the ports are free, and viewer and bridge are served again by their usual words.
    The bridge speaks once the service is ready: what hits the very moment at which a port is opened
    only counts as received, and the source is found after its next silence."""
    rounds = times(3, 100)
    viewer = viewers()
    viewer.keep_alive(0.05)
    waits = []
    for number in range(rounds):
        service = start()
        service.err.wait(connected(viewer))
        for bridge, flag in ((data, region.DATA_CONNECTED), (video, region.VIDEO_CONNECTED)):
            bridge.send(b"%d" % number)
            wait_until(lambda flag=flag: region.u8(flag), 5, "the source")
        viewer.message(11, start=len(viewer.frames))
        waits.append(time.monotonic() - service.started)
        end(viewer)
        assert service.wait_exit() == status
    assert start().running()
    print(f"\nsupervisor: {rounds} ends with status {status}; everybody served again within "
          f"{max(waits):.2f} s")
    assert max(waits) < limit(8)


@pytest.mark.parametrize("port", PORTS)
def test_status_of_a_port_that_is_taken(start, viewers, times, port):
    """Again and again, until the port is free."""
    for _ in range(times(3, 100)):
        with occupied([port]):
            service = start(wait_ready=False)
            assert service.wait_exit() == 1
            assert service.err.text().endswith("fail\n")
    assert start().running()


def test_second_instance(start, viewers, video, times):
    """It ends with status 1; the first one has its ports and goes on."""
    first = start()
    viewer = viewers()
    viewer.keep_alive()
    first.err.wait(connected(viewer))
    for number in range(times(5, 200)):
        second = start(wait_ready=False)
        assert second.wait_exit() == 1
        assert second.err.text() == "Loading config file... done\nInit network... fail\n"
        video.send(b"%d" % number)
        viewer.wait(lambda frame, number=number: frame.payload == b"%d" % number)
    assert lost(viewer) not in events(first)


@pytest.mark.parametrize("size", [0, 2671])
def test_status_of_a_region_that_is_too_short(start, region, times, size):
    """Until somebody removes it."""
    region.create(bytes(size))
    for _ in range(times(3, 100)):
        service = start(wait_ready=False)
        assert service.wait_exit() == 1
        assert service.out.bytes() == b""
    region.path.unlink()
    assert start().running()


@pytest.mark.parametrize("signum", [signal.SIGTERM, signal.SIGHUP, signal.SIGKILL],
                         ids=lambda signum: signum.name)
def test_signals(start, join, signum):
    """The service has no farewell: a signal ends it at once, and the supervisor is told so."""
    service = start()
    viewer = join(service)
    service.process.send_signal(signum)
    assert service.wait_exit() == -signum
    assert events(service) == connected(viewer)
    assert start().running()
