"""Start-up as a person at the console and the sibling processes see it."""

import contextlib
import os
import select
import signal
import socket

import pytest

from harness.console import BANNER, START_TEXTS, connected, removed
from harness.timing import limit, wait_until
from harness.udp import DATA_PORT, VIDEO_PORT, VIEWER_PORT, occupied

PORTS = {VIEWER_PORT: b"Init network... ",
         DATA_PORT: b"Init data source... ",
         VIDEO_PORT: b"Init video source... "}

# What a region holds where the service has not been.
BEFORE = b"\xa5"


class Console:
    """Standard output and standard error of a service in one stream that keeps its writes apart."""

    def __init__(self, launch, conf=""):
        self._socket, end = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._socket.settimeout(limit(5))
        with end:
            self.service = launch(conf, stdout=end, stderr=end, wait_ready=False)

    def next(self, count):
        return tuple(self._socket.recv(4096) for _ in range(count))

    def waiting(self):
        """Whether there is a write that has not been read."""
        return self._socket in select.select([self._socket], [], [], 0)[0]

    def rest(self):
        """What is written until the service has ended."""
        return tuple(iter(lambda: self._socket.recv(4096), b""))


def test_console_of_a_clean_start(start):
    service = start()
    assert service.err.text().encode() == b"".join(START_TEXTS[1:])
    service.out.wait(BANNER.decode())
    assert service.out.bytes() == BANNER


@pytest.mark.parametrize("conf, loaded", [("", b"done\n"), (None, b"failed\n")])
def test_order_of_the_console(launch, passes, conf, loaded):
    """The banner comes first, a missing file does not stop the start, and each text is one write.
    After the start there is silence."""
    console = Console(launch, conf)
    assert console.next(len(START_TEXTS)) == (*START_TEXTS[:2], loaded, *START_TEXTS[3:])
    passes(2)
    assert not console.waiting()


def test_later_texts_are_whole(launch, passes, viewers, data, video):
    """What the service tells while it runs is one write a line, too."""
    console = Console(launch)
    console.next(len(START_TEXTS))
    passes(1)
    viewer = viewers()
    viewer.register()
    assert console.next(1) == (connected(viewer).encode(),)
    viewer.leave()
    assert console.next(1) == (removed(viewer).encode(),)
    data.send(b"\x00")
    assert console.next(1) == (b"Data found\n",)
    video.send(b"\x00")
    assert console.next(1) == (b"Video found\n",)
    assert set(console.next(2)) == {b"Data lost\n", b"Video lost\n"}


@pytest.mark.parametrize("holder", [
    pytest.param({"host": "0.0.0.0"}, id="any"),
    pytest.param({"host": "127.0.0.1"}, id="one-address"),
    pytest.param({"host": "0.0.0.0", "reuse": True}, id="willing-to-share"),
])
@pytest.mark.parametrize("port", PORTS)
def test_busy_port(launch, region, port, holder):
    """The start ends at a port that it cannot have; no later step is taken."""
    region.create(BEFORE * region.SIZE)
    with occupied([port], **holder):
        console = Console(launch, "osd_enabled=1")
        step = START_TEXTS.index(PORTS[port]) + 1
        assert console.rest() == (*START_TEXTS[:step], b"fail\n")
        assert console.service.wait_exit() == 1
        # The others are free, those that the service had opened among them.
        with occupied(PORTS.keys() - {port}):
            pass
    assert region.text(*region.PRODUCT_NAME) == "Tervado Nimbus"
    assert region.u8(region.OSD_ENABLED) == 1
    marked_lost = BEFORE[0] if port == VIEWER_PORT else 0
    assert region.u8(region.DATA_CONNECTED) == marked_lost
    assert region.u8(region.VIDEO_CONNECTED) == marked_lost


@pytest.mark.parametrize("first", PORTS)
def test_first_busy_port_ends_the_start(launch, first):
    """With that port and all later ones busy, only the first is reported."""
    with occupied(port for port in PORTS if port >= first or first == VIEWER_PORT):
        console = Console(launch)
        step = START_TEXTS.index(PORTS[first]) + 1
        assert console.rest() == (*START_TEXTS[:step], b"fail\n")
        assert console.service.wait_exit() == 1


def test_port_free_again(launch, start):
    """What was busy at one start does not hinder the next."""
    with occupied([VIDEO_PORT]):
        assert launch(wait_ready=False).wait_exit() == 1
    assert start().running()


def test_banner_in_a_pipe(start):
    """The banner is seen while the service runs, though nothing follows it."""
    service = start()
    service.out.wait(BANNER.decode())
    assert service.running()
    service.kill()
    service.out.wait_closed()
    assert service.out.bytes() == BANNER


@pytest.mark.parametrize("signum", [signal.SIGKILL, signal.SIGTERM])
def test_banner_in_a_file(launch, tmp_path, signum):
    """The banner stands in a file before the service has ended, however it ends."""
    file = tmp_path / "output"
    with file.open("wb") as output:
        service = launch(stdout=output)
    assert file.read_bytes() == BANNER
    service.kill(signum)
    assert file.read_bytes() == BANNER


@pytest.mark.parametrize("port", PORTS)
def test_banner_of_a_failed_start(launch, tmp_path, port):
    file = tmp_path / "output"
    with occupied([port]), file.open("wb") as output:
        assert launch(stdout=output, wait_ready=False).wait_exit() == 1
    assert file.read_bytes() == BANNER


def test_splash(service, region):
    assert region.text(*region.PRODUCT_NAME) == "Tervado Nimbus"
    assert region.text(*region.VERSION_TEXT) == "v.0.3.7"


def test_splash_comes_before_the_settings(launch, region, tmp_path):
    """The display has something to show while they are being read."""
    region.create(BEFORE * region.SIZE)
    settings = tmp_path / "tervado.conf"
    os.mkfifo(settings)
    service = launch(conf=None, wait_ready=False)
    version, _ = region.VERSION_TEXT
    wait_until(lambda: region.bytes(version, 8) == b"v.0.3.7\0", 5, "the splash")
    assert region.text(*region.PRODUCT_NAME) == "Tervado Nimbus"
    assert region.u8(region.OSD_ENABLED) == BEFORE[0]

    def opened():
        with contextlib.suppress(OSError):  # nobody reads it yet
            return os.open(settings, os.O_WRONLY | os.O_NONBLOCK)

    pipe = wait_until(opened, 5, "the reader of the settings")
    os.write(pipe, b"osd_enabled=1\n")
    os.close(pipe)
    wait_until(lambda: region.u8(region.OSD_ENABLED) == 1, 5, "the settings")
    assert service.running()


def test_sources_are_lost_at_the_start(start, region):
    region.create(BEFORE * region.SIZE)
    start()
    assert region.u8(region.DATA_CONNECTED) == 0
    assert region.u8(region.VIDEO_CONNECTED) == 0
    assert region.text(*region.TELEMETRY_STATUS_TEXT) == "telemetry disconnected"
    assert region.text(*region.VIDEO_STATUS_TEXT) == "video disconnected"


@pytest.mark.parametrize("conf, copies", [
    ("", (0, 0, 0)),
    (None, (0, 0, 0)),
    ("osd_enabled=1", (1, 0, 0)),
    ("internal_camera_enabled=1", (0, 1, 0)),
    ("internal_camera_fullscreen=1", (0, 0, 1)),
    ("osd_enabled=1\ninternal_camera_enabled=1\ninternal_camera_fullscreen=1", (1, 1, 1)),
])
def test_settings_for_the_display(start, region, conf, copies):
    """The display finds three of the settings in the region."""
    region.create(BEFORE * region.SIZE)
    start(conf)
    assert (region.u8(region.OSD_ENABLED), region.u8(region.INTERNAL_CAMERA_ENABLED),
            region.u8(region.INTERNAL_CAMERA_FULLSCREEN)) == copies


def test_settings_are_handed_over_once(start, region, standins, passes):
    """What the display makes of its fields afterwards is left alone."""
    start("osd_enabled=1")
    others = {region.OSD_ENABLED: b"\x05\x06\x07", region.PRODUCT_NAME[0]: b"another\0",
              region.VERSION_TEXT[0]: b"text\0"}
    for offset, value in others.items():
        region.write(offset, value)
    standins.clear()
    passes(2)
    for offset, value in others.items():
        assert region.bytes(offset, len(value)) == value
