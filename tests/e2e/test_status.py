"""The status loop: what every viewer is told once a second, and the probe for the access point."""

import contextlib
import itertools
import struct
import threading
import time

import pytest

from harness.console import BANNER, connected, events, lost, removed
from harness.timing import limit, wait_until
from harness.udp import datagrams_sent
from harness.viewer import StampedViewer

# The messages of a pass, less what varies: type byte, then six values.
CAMERA_DATA = b"\x05\x00\x00\x00\x00\x00\x00"
VIDEO = b"\x05\x01\x00\x00\x00\x00\x00"
FLAGS = b"\x06\x01\x01\x00\x00\x00\x00"  # one viewer, counted when the pass began
VERSION = b"\x0b\x00\x03\x07\x02\x00\x00"
PASS = [CAMERA_DATA, VIDEO, FLAGS, VERSION]

ACCESS_POINT_BIT = 1 << 1
HDMI_BIT = 1 << 2
CAMERA_DATA_BIT = 1 << 4


def is_first(frame):
    """Whether a frame is the first of a pass."""
    return frame.payload[:2] == CAMERA_DATA[:2]


def header(counter):
    return b"\x42\x00\x00\x00" + struct.pack("<I", counter) + bytes(4)


def whole_passes(viewer, count):
    """The frames of the first `count` passes that the viewer sees from their start."""
    viewer.keep_alive()
    viewer.wait_count(is_first, count + 1, count + 5)
    frames = itertools.dropwhile(lambda frame: not is_first(frame), list(viewer.frames))
    return list(itertools.islice(frames, count * len(PASS)))


@pytest.fixture
def stamped():
    """stamped(service) makes a registered viewer whose frames carry the kernel's time of their
    sending, in nanoseconds."""
    with contextlib.ExitStack() as viewers:

        def make(service):
            viewer = viewers.enter_context(contextlib.closing(StampedViewer()))
            viewer.register()
            service.err.wait(connected(viewer))
            return viewer

        yield make


@contextlib.contextmanager
def fed(*bridges):
    """The bridges send without a pause that would count as silence."""
    stop = threading.Event()

    def feed():
        while not stop.wait(0.1):
            for bridge in bridges:
                bridge.send(b"\0")

    feeder = threading.Thread(target=feed)
    feeder.start()
    try:
        yield
    finally:
        stop.set()
        feeder.join()


# --- The messages --------------------------------------------------------------------------------


def test_messages_of_a_pass(viewer):
    """Four messages in this order, pass after pass, numbered without a gap, and nothing else."""
    frames = whole_passes(viewer, 3)
    assert [frame.payload for frame in frames] == PASS * 3
    first = frames[0].counter
    assert first % len(PASS) == 0
    assert [frame.header for frame in frames] == [header(first + n) for n in range(len(frames))]


def test_order_around_the_probe(held, access_point, join):
    """The sources come before the probe, the flags and the version after it."""
    viewer = join(held)
    access_point.answer(1)
    access_point.wait_probe()
    viewer.wait_count(lambda frame: True, 4)
    types = [frame.payload[:2] for frame in viewer.frames]
    assert types == [FLAGS[:2], VERSION[:2], CAMERA_DATA[:2], VIDEO[:2]]


def test_messages_are_numbered_without_viewers(held, access_point, join):
    """Every broadcast counts, also those that nobody received: four in each pass."""
    for _ in range(2):
        access_point.answer(1)
    access_point.wait_probe()
    viewer = join(held)
    access_point.answer(1)
    assert viewer.message(FLAGS[0]).header == header(2 * len(PASS) + 2)


@pytest.mark.parametrize("bytes_of_region, states", [((0, 1), (0, 2)), ((1, 0), (2, 0)),
                                                     ((2, 255), (2, 2))])
def test_states_of_the_sources(held, access_point, join, region, bytes_of_region, states):
    """They are what the region says, whoever wrote it there."""
    viewer = join(held)
    region.write(region.DATA_CONNECTED, bytes(bytes_of_region))
    access_point.answer(1)
    frames = viewer.wait_count(lambda frame: frame.payload[0] == 5, 2)
    assert [frame.payload for frame in frames] == [
        bytes([5, source, state, 0, 0, 0, 0]) for source, state in enumerate(states)]


def test_states_follow_the_sources(steady, join, data, video):
    viewer = join(steady)
    viewer.keep_alive()

    def wait_state(source, state, start=0):
        payload = bytes([5, source, state, 0, 0, 0, 0])
        viewer.wait(lambda frame: frame.payload == payload, what=f"{payload}", start=start)

    with fed(data, video):
        wait_state(0, 2)
        wait_state(1, 2)
    end = len(viewer.frames)
    wait_state(0, 0, end)
    wait_state(1, 0, end)


@pytest.mark.parametrize("status", [0, 1, 5, 6, 127, 128, 255])
def test_state_of_the_rc_receiver(held, access_point, join, region, status):
    """The RC reader's byte is handed on as it stands."""
    viewer = join(held)
    region.write(region.RC_STATUS, bytes([status]))
    access_point.answer(1)
    assert viewer.message(6).payload == bytes([6, 1, 0, 0, 0, status, 0])
    assert region.u8(region.RC_STATUS) == status


@pytest.mark.parametrize("count", [0, 9, 10, 200])
def test_viewer_count_of_the_region(held, access_point, join, region, count):
    viewer = join(held)
    region.write(region.VIEWER_COUNT, bytes([count]))
    access_point.answer(1)
    assert viewer.message(6).payload == bytes([6, 1, count, 0, 0, 0, 0])


@pytest.mark.parametrize("count", [1, 2, 10])
def test_viewers_are_counted(held, access_point, join, region, count):
    viewers = [join(held) for _ in range(count)]
    for viewer in viewers:
        viewer.keep_alive()
    for _ in range(2):
        access_point.answer(1)
    for viewer in viewers:
        flags = viewer.wait_count(lambda frame: frame.payload[0] == 6, 2)
        assert flags[-1].payload == bytes([6, 1, count, 0, 0, 0, 0])
    assert region.u8(region.VIEWER_COUNT) == count


def test_order_of_the_losses(held, access_point, join, data, region):
    """One pass looks at the viewers, then at the sources, then at the telemetry, and tells what is
    left in its messages."""
    silent = join(held)
    data.send(b"\0")
    held.err.wait("Data found\n")
    time.sleep(5.1)
    witness = join(held)
    region.write(region.TRACKING_MS, b"\x01")
    region.write(region.HISTOGRAM_MS, b"\x01")
    access_point.answer(1)
    assert witness.message(5).payload == CAMERA_DATA
    held.err.wait("Histogram lost\n")
    assert events(held).endswith(
        connected(witness) + lost(silent) +
        "Data lost\nTracking lost\nHistogram lost\n")
    access_point.answer(1)
    assert witness.message(6, start=3).payload == FLAGS
    assert [frame.payload[0] for frame in silent.frames] == [6, 11]


# --- The flags -----------------------------------------------------------------------------------


@pytest.mark.parametrize("camera_data", [0, CAMERA_DATA_BIT])
@pytest.mark.parametrize("hdmi", [0, HDMI_BIT])
@pytest.mark.parametrize("access", [0, ACCESS_POINT_BIT])
def test_flags(start, access_point, join, data, region, access, hdmi, camera_data):
    """Each of the three has a bit of its own."""
    service = start("hdmi_enabled=1" if hdmi else "")
    access_point.wait_probe()
    viewer = join(service)
    if camera_data:
        data.send(b"\0")
        wait_until(lambda: region.text(*region.TELEMETRY_STATUS_TEXT) == "", 5, "data")
    access_point.answer(0 if access else 1)
    assert viewer.message(6).payload[1] == 1 | access | hdmi | camera_data


def test_camera_data_bit_is_the_service_s_own(held, access_point, join, region):
    """A sibling that writes the region's byte does not change the flag."""
    viewer = join(held)
    region.write(region.DATA_CONNECTED, b"\x01")
    access_point.answer(1)
    assert viewer.message(6).payload[1] == 1


def test_video_has_no_bit(held, access_point, join, video, region):
    viewer = join(held)
    video.send(b"\0")
    wait_until(lambda: region.u8(region.VIDEO_CONNECTED), 5, "video")
    access_point.answer(1)
    assert viewer.message(6).payload[1] == 1


def test_lost_camera_data_is_told_at_once(held, access_point, join, data, region):
    """By the pass that finds it lost, in the source's state and in the flags."""
    viewer = join(held)
    viewer.keep_alive()
    data.send(b"\0")
    wait_until(lambda: region.text(*region.TELEMETRY_STATUS_TEXT) == "", 5, "data")
    access_point.answer(1)
    held.err.wait("Data lost\n", count=2)
    access_point.answer(1)
    flags = viewer.wait_count(lambda frame: frame.payload[0] == 6, 2)
    assert [frame.payload[1] for frame in flags] == [1 | CAMERA_DATA_BIT, 1]
    assert viewer.wait(is_first).payload == CAMERA_DATA


# --- The probe for the access point --------------------------------------------------------------


@pytest.mark.parametrize("answer, flag", [
    pytest.param(0, ACCESS_POINT_BIT, id="runs"),
    pytest.param(1, 0, id="does-not-run"),
    pytest.param(2, 0, id="status-2"),
    pytest.param(127, 0, id="status-127"),
    pytest.param(255, 0, id="status-255"),
    pytest.param("kill -KILL $$", 0, id="killed"),
    pytest.param("kill -INT $$", 0, id="interrupted"),
])
def test_answers_of_the_probe(held, access_point, join, answer, flag):
    """Only status 0 means that the access point runs."""
    viewer = join(held)
    access_point.answer(answer)
    assert viewer.message(6).payload[1] == 1 | flag


def test_access_point_bit_follows(held, access_point, join):
    """The flag is that of the same pass, in both directions."""
    viewer = join(held)
    viewer.keep_alive()
    answers = [1, 0, 1, 0]
    for answer in answers:
        access_point.answer(answer)
    flags = viewer.wait_count(lambda frame: frame.payload[0] == 6, len(answers))
    assert [frame.payload[1] for frame in flags] == [1, 3, 1, 3]


def test_command_of_the_probe(start, standins, passes):
    """One call a pass, of this tool only, with its output thrown away."""
    standins.answer("pidof", 'output=$(readlink /proc/$$/fd/1)\n'
                             'echo "$output" >>"$NIMBUS_STANDINS/outputs"\n'
                             'echo 42')
    service = start()
    passes(3)
    service.stop()
    service.out.wait_closed()
    calls = standins.calls()
    assert calls == [["pidof", "hostapd"]] * len(calls)
    assert set((standins.folder / "outputs").read_text().split()) == {"/dev/null"}
    assert service.out.bytes() == BANNER
    assert events(service) == ""


def test_probe_that_hangs(held, join, video, region):
    """The status stops, and nothing else: viewers come and go, and video is relayed."""
    first = join(held)
    second = join(held)
    second.leave()
    held.err.wait(removed(second))
    for number in range(3):
        video.send(bytes([number]))
        assert first.wait(lambda frame, n=number: frame.payload == bytes([n])).video
    assert region.u8(region.VIDEO_CONNECTED) == 1
    assert [frame.video for frame in first.frames] == [True] * 3
    assert second.frames == []


@pytest.mark.parametrize("path", ["/nonexistent", ""])
def test_probe_that_cannot_run(start, join, path):
    """Without the tool, the access point counts as not running."""
    service = start(env={"PATH": path})
    viewer = join(service)
    assert [frame.payload for frame in whole_passes(viewer, 2)] == PASS * 2


# --- Time ----------------------------------------------------------------------------------------

SECOND = 1_000_000_000


def pauses(viewer, count):
    """The nanoseconds from the last message of a pass to the first of the next."""
    frames = whole_passes(viewer, count + 1)
    times = [frame.time for frame in frames]
    return [times[n + 1] - times[n] for n in range(3, len(times) - 1, len(PASS))]


def test_pause_between_passes(service, stamped):
    """A second after the last message, and the millisecond that follows every send."""
    found = pauses(stamped(service), 3)
    for pause in found:
        assert 1.001 * SECOND <= pause < (1.001 + limit(0.3)) * SECOND
    # A busy machine stretches some of them.
    assert min(found) < (1.001 + limit(0.04)) * SECOND


def test_work_is_added_to_the_period(start, standins, stamped):
    """A pass that takes long delays the next one: the pause between them stays a second."""
    work = 0.4
    standins.answer("pidof", f"sleep {work}\nexit 1")
    viewer = stamped(start())
    frames = whole_passes(viewer, 3)
    starts = [frame.time for frame in frames if is_first(frame)]
    for begin, following in zip(starts, starts[1:]):
        assert following - begin >= (1 + work) * SECOND
    for pause in pauses(viewer, 1):
        assert pause >= 1.001 * SECOND


# --- Silence -------------------------------------------------------------------------------------


def test_nothing_is_sent_without_viewers(service, passes):
    passes(1)
    before = datagrams_sent()
    passes(3)
    assert datagrams_sent() == before


def test_nothing_is_sent_after_the_last_viewer(held, access_point, join, video):
    """Neither status nor video, once everybody has left."""
    viewer = join(held)
    access_point.answer(1)
    access_point.wait_probe()
    viewer.leave()
    held.err.wait(removed(viewer))
    before = datagrams_sent()
    for _ in range(2):
        access_point.answer(1)
        access_point.wait_probe()
    assert datagrams_sent() == before
