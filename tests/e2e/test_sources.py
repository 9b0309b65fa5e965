"""Camera data on UDP port 5000 and video on 5001: found and lost, in the display region, on the
console and at the viewers."""

import contextlib
import struct
import threading
import time

import pytest

from harness.board_tools import wait_round
from harness.console import events
from harness.region import DisplayRegion
from harness.timing import limit, wait_until
from harness.udp import DATA_PORT, socket_queue

# Long enough for a loss to be noticed, on a busy machine too; test_time_to_loss is the strict one.
LOSS_SECONDS = 6

# Of the display region, from its start: splash, connection state, camera timer.
NETWORK_BYTES = DisplayRegion.TIMER_ELAPSED_MS + 4
STALE = 0xA5  # what an earlier run has left in all of them
DATA_CONNECTED = DisplayRegion.DATA_CONNECTED
VIDEO_CONNECTED = DisplayRegion.VIDEO_CONNECTED
PRODUCT_NAME = DisplayRegion.PRODUCT_NAME[0]
VERSION_TEXT = DisplayRegion.VERSION_TEXT[0]
TELEMETRY_TEXT = DisplayRegion.TELEMETRY_STATUS_TEXT[0]
VIDEO_TEXT = DisplayRegion.VIDEO_STATUS_TEXT[0]
TIMER_STATE = DisplayRegion.TIMER_STATE
TIMER_START = DisplayRegion.TIMER_START_MS
TIMER_ELAPSED = DisplayRegion.TIMER_ELAPSED_MS


@pytest.fixture(params=["Data", "Video"])
def source(request, data, video):
    """Either source: its name on the console, and its sender."""
    return request.param, {"Data": data, "Video": video}[request.param]


@pytest.fixture
def other(source, data, video):
    """The other source."""
    return ("Video", video) if source[0] == "Data" else ("Data", data)


class Expected:
    """The network side's bytes of the display region as they must be."""

    def __init__(self, region):
        self._region = region
        self._bytes = bytearray([STALE]) * NETWORK_BYTES

    def put(self, offset, content):
        """Expects a byte or a text with its NUL there; what lies behind it stays."""
        content = bytes([content]) if isinstance(content, int) else content + b"\0"
        self._bytes[offset:offset + len(content)] = content

    def run_timer(self):
        """Lets the camera timer stand, as camera reports do."""
        self._set_timer(7, 0x11223344, 0x55667788)
        for offset, length in ((TIMER_STATE, 1), (TIMER_START, 8)):
            self._region.write(offset, bytes(self._bytes[offset:offset + length]))

    def reset_timer(self):
        self._set_timer(0, 0, 0)

    def _set_timer(self, state, start, elapsed):
        self._bytes[TIMER_STATE] = state
        struct.pack_into("<I", self._bytes, TIMER_START, start)
        struct.pack_into("<I", self._bytes, TIMER_ELAPSED, elapsed)

    def wait(self):
        try:
            wait_until(lambda: self._region.bytes(0, NETWORK_BYTES) == self._bytes, LOSS_SECONDS)
        except AssertionError:
            assert self._region.bytes(0, NETWORK_BYTES) == bytes(self._bytes)
            raise


def expect_start(expected, region):
    expected.put(PRODUCT_NAME, b"Tervado Nimbus")
    expected.put(VERSION_TEXT, b"v.0.3.7")
    expected.put(region.VIEWER_COUNT, 0)
    expected.put(DATA_CONNECTED, 0)
    expected.put(VIDEO_CONNECTED, 0)
    expected.put(TELEMETRY_TEXT, b"telemetry disconnected")
    expected.put(VIDEO_TEXT, b"video disconnected")
    expected.reset_timer()
    expected.wait()


def expect_video(expected, service, video):
    """It comes, goes on, and is lost."""
    expected.run_timer()
    video.send(b"video")
    expected.put(VIDEO_CONNECTED, 1)
    expected.put(VIDEO_TEXT, b"")
    expected.wait()
    video.send(b"more video")
    service.err.wait("Video lost\n", LOSS_SECONDS)
    expected.put(VIDEO_CONNECTED, 0)
    expected.put(VIDEO_TEXT, b"video disconnected")
    expected.wait()


def expect_data(expected, service, data):
    """The same of the camera's."""
    data.send(b"data")
    expected.put(DATA_CONNECTED, 1)
    expected.put(TELEMETRY_TEXT, b"")
    expected.put(PRODUCT_NAME, b"")
    expected.put(VERSION_TEXT, b"")
    expected.reset_timer()
    expected.wait()
    expected.run_timer()
    data.send(b"more data")
    expected.wait()
    service.err.wait("Data lost\n", LOSS_SECONDS, count=2)
    expected.put(DATA_CONNECTED, 0)
    expected.put(TELEMETRY_TEXT, b"telemetry disconnected")
    expected.reset_timer()
    expected.wait()


def test_display_region(start, passes, data, video, region):
    """Each event changes its own bytes and no others: behind a text's NUL, in reserved bytes and in
    the fields of the other source everything stays."""
    region.create(bytes([STALE]) * NETWORK_BYTES + bytes(region.SIZE - NETWORK_BYTES))
    service = start()
    passes(1)
    expected = Expected(region)
    expect_start(expected, region)
    expect_video(expected, service, video)
    expect_data(expected, service, data)
    assert events(service) == "Video found\nVideo lost\nData found\nData lost\n"


@pytest.mark.parametrize("conf", ["", "disable_video_stream=1\n"], ids=["relayed", "disabled"])
def test_every_video_datagram_tells_the_display(start, passes, video, region, conf):
    """Also one that is not the first, and is not relayed: a display that was told otherwise
    recovers at once."""
    service = start(conf)
    passes(1)
    video.send(b"video")
    service.err.wait("Video found\n")
    wait_until(lambda: region.u8(VIDEO_CONNECTED) == 1 and region.u8(VIDEO_TEXT) == 0, 5)
    region.write(VIDEO_CONNECTED, b"\0")
    region.write(VIDEO_TEXT, b"video disconnected\0")
    video.send(b"video")
    wait_until(lambda: region.u8(VIDEO_CONNECTED) == 1 and region.u8(VIDEO_TEXT) == 0, 0.9)
    assert region.bytes(VIDEO_TEXT, 19) == b"\0ideo disconnected\0"
    assert events(service) == "Video found\n"


def test_further_camera_data_leaves_the_display_alone(steady, data, region):
    """Only the first datagram after silence is an event."""
    written = {PRODUCT_NAME: b"product", VERSION_TEXT: b"version", TELEMETRY_TEXT: b"telemetry",
               TIMER_STATE: b"\x05", TIMER_START: b"\1\2\3\4", TIMER_ELAPSED: b"\5\6\7\x08"}

    def write():
        for offset, content in written.items():
            region.write(offset, content)

    write()
    data.send(b"data")
    wait_until(lambda: all(region.u8(offset) == 0 for offset in written), 5, "the first event")
    write()
    for _ in range(20):
        data.send(b"data")
    wait_until(lambda: socket_queue(DATA_PORT)[0] == 0, 0.5)
    for offset, content in written.items():
        assert region.bytes(offset, len(content)) == content
    steady.err.wait("Data lost\n", LOSS_SECONDS, count=2)
    for offset in (PRODUCT_NAME, VERSION_TEXT):
        assert region.bytes(offset, 7) == written[offset]


def test_found_once(steady, standins, source):
    """However many datagrams follow, until the source has been lost."""
    name, sender = source
    for _ in range(50):
        sender.send(b"x")
    steady.err.wait(f"{name} lost\n", LOSS_SECONDS, count=2)
    wait_round(standins)  # a datagram in the middle of the loss would not be the first
    sender.send(b"x")
    steady.err.wait(f"{name} found\n", count=2)
    assert events(steady) == f"{name} found\n{name} lost\n{name} found\n"


@contextlib.contextmanager
def steady_traffic(sender, period):
    """Sends a datagram every `period` seconds. Yields the list of their times."""
    times = []
    stop = threading.Event()

    def send():
        while True:
            times.append(time.monotonic())
            sender.send(b"steady")
            if stop.wait(period):
                return

    thread = threading.Thread(target=send)
    thread.start()
    try:
        yield times
    finally:
        stop.set()
        thread.join()


def test_steady_source_beside_a_silent_one(steady, source, other):
    """Half a second between datagrams is no silence, and the sources do not affect each other."""
    name, sender = source
    silent_name, silent = other
    silent.send(b"x")
    steady.err.wait(f"{silent_name} found\n")
    with steady_traffic(sender, 0.5):
        time.sleep(4)
        assert events(steady) == f"{silent_name} found\n{name} found\n{silent_name} lost\n"


def test_flag_of_camera_data_outlasts_the_video(steady, counted, data, video):
    viewer = counted()
    video.send(b"x")
    with steady_traffic(data, 0.2):
        steady.err.wait("Data found\n")
        steady.err.wait("Video lost\n", LOSS_SECONDS)
        assert round_after(viewer) == status_messages(True, False)


def test_data_is_reported_lost_before_video(steady, standins, data, video):
    """When one round finds both silent, whichever fell silent first."""
    wait_round(standins)
    time.sleep(0.5)  # far from the round before which the one is too old, and the other not yet
    video.send(b"x")
    data.send(b"x")
    steady.err.wait("Video lost\n", LOSS_SECONDS, count=2)
    said = events(steady)
    assert said.endswith("Data lost\nVideo lost\n")
    assert sorted(said.splitlines()) == ["Data found", "Data lost", "Video found", "Video lost"]


def next_round(viewer):
    """The status messages of the next round of the status loop."""
    first = viewer.wait(lambda f: f.payload[:2] == b"\x05\0", start=len(viewer.frames))
    last = viewer.message(11, start=viewer.frames.index(first))
    return [f.payload for f in viewer.frames
            if not f.video and first.counter <= f.counter <= last.counter]


def round_after(viewer):
    """The one behind the next: that may have begun before what has just happened."""
    next_round(viewer)
    return next_round(viewer)


def status_messages(data_connected, video_connected):
    return [bytes([5, 0, 2 * data_connected, 0, 0, 0, 0]),
            bytes([5, 1, 2 * video_connected, 0, 0, 0, 0]),
            bytes([6, 1 | data_connected << 4, 1, 0, 0, 0, 0]),
            bytes([11, 0, 3, 7, 2, 0, 0])]


@pytest.fixture
def counted(viewers, region):
    """counted() makes a viewer that stays, and that the status loop knows of."""

    def make():
        viewer = viewers()
        viewer.keep_alive()
        wait_until(lambda: region.u8(region.VIEWER_COUNT) == 1, 5, "the viewer's count")
        return viewer

    return make


def test_viewers_are_told(steady, counted, source):
    """By the states of both sources and a flag for camera data."""
    name, sender = source
    viewer = counted()
    connected = status_messages(name == "Data", name == "Video")
    assert next_round(viewer) == status_messages(False, False)
    with steady_traffic(sender, 0.2):
        steady.err.wait(f"{name} found\n")
        assert round_after(viewer) == connected
        assert next_round(viewer) == connected
    steady.err.wait(f"{name} lost\n", LOSS_SECONDS, count=2)
    assert round_after(viewer) == status_messages(False, False)


@pytest.mark.parametrize("seconds_after_a_round", [0.1, 0.7])
def test_time_to_loss(steady, standins, counted, source, seconds_after_a_round):
    """A source is lost in the first round more than a second after its last datagram."""
    name, sender = source
    viewer = counted()
    wait_round(standins)
    time.sleep(seconds_after_a_round)
    sent = time.monotonic()
    sender.send(b"x")
    steady.err.wait(f"{name} found\n")
    first = len(viewer.frames)
    steady.err.wait(f"{name} lost\n", LOSS_SECONDS, count=2)
    said = next(when for when, piece in reversed(steady.err.pieces)
                if f"{name} lost\n".encode() in piece)
    assert said - sent > 1
    next_round(viewer)
    for frame in viewer.frames[first:]:
        age = frame.time - sent
        if frame.payload[:2] == bytes([5, name == "Video"]):
            # What is on its way for longer than the margin is told too late to be judged.
            assert frame.payload[2] == 2 or age > 1
            assert frame.payload[2] == 0 or age < 1 + limit(0.25)


def test_camera_data_is_not_relayed(steady, counted, data):
    viewer = counted()
    with steady_traffic(data, 0.01):
        steady.err.wait("Data found\n")
        assert round_after(viewer) == status_messages(True, False)
    assert {f.payload[0] for f in viewer.frames} <= {5, 6, 11}


def test_disabled_video_stream(start, counted, video, region):
    """Keeps the video source connected, but no viewer gets a frame of it."""
    service = start("disable_video_stream=1\n")
    viewer = counted()
    with steady_traffic(video, 0.1):
        service.err.wait("Video found\n")
        assert round_after(viewer) == status_messages(False, True)
        assert region.u8(VIDEO_CONNECTED) == 1
        assert region.text(*region.VIDEO_STATUS_TEXT) == ""
        assert next_round(viewer) == status_messages(False, True)
    assert not any(frame.video for frame in viewer.frames)
