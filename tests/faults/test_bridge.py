"""A bridge that comes and goes: each time it is another process on another port."""

import json
import time

from harness.bridge import Bridge
from harness.console import connected, events
from harness.duml import camera, command, parse
from harness.region import DisplayRegion
from harness.timing import limit, wait_until
from harness.udp import DATA_PORT, VIDEO_PORT, datagrams_sent

TIMEOUT = 1.0  # a source without a datagram for longer is lost
SPLASH = (DisplayRegion.PRODUCT_NAME, DisplayRegion.VERSION_TEXT)
TIMER = ((DisplayRegion.TIMER_STATE, 1), (DisplayRegion.TIMER_START_MS, 8))
SHOT = camera(0x01, "01")


def connections(region):
    """Flag and text of camera data, then of video."""
    return (region.u8(region.DATA_CONNECTED), region.text(*region.TELEMETRY_STATUS_TEXT),
            region.u8(region.VIDEO_CONNECTED), region.text(*region.VIDEO_STATUS_TEXT))


def scribble(region, *fields):
    for offset, size in fields:
        region.write(offset, b"x" * size)


def timer_is_zero(region):
    return not any(any(region.bytes(*field)) for field in TIMER)


FOUND = (1, "", 1, "")
LOST = (0, "telemetry disconnected", 0, "video disconnected")


def expect_found(service, region, viewer, number, data, video):
    """The bridge comes for so many times now."""
    scribble(region, *SPLASH, *TIMER)
    data.send(b"\0")
    service.err.wait("Data found\n", count=number)
    picture = b"%d" % number
    video.send(picture)
    service.err.wait("Video found\n", count=number)
    viewer.wait(lambda frame: frame.payload == picture)
    wait_until(lambda: connections(region) == FOUND, 5, "the connection")
    wait_until(lambda: timer_is_zero(region), 5, "the camera's timer")
    assert [region.text(*field) for field in SPLASH] == ["", ""]


def expect_lost(service, region, clock, number):
    """It says nothing more: for a second, and a moment longer."""
    clock.step(TIMEOUT)
    sent = datagrams_sent()  # four in a pass
    wait_until(lambda: datagrams_sent() > sent + 8, 5, "two passes of the status loop")
    assert connections(region) == FOUND
    scribble(region, *TIMER)
    clock.step(0.001)
    service.err.wait("Video lost\n", count=number + 1)
    wait_until(lambda: connections(region) == LOST, 5, "the loss")
    assert timer_is_zero(region)


def test_bridge_comes_and_goes(start, clock, region, viewers, times):
    """Each time: one line and the fields of the region for found and for lost, the splash is wiped,
    the camera's timer starts anew, and what is sent to the camera goes to the newest bridge. A
    silence of exactly a second is none."""
    rounds = times(20, 200)
    clock.stop()
    service = start(env=clock.env)
    clock.hurry()
    viewer = viewers()
    viewer.register()
    service.err.wait(connected(viewer))
    begin = time.monotonic()
    for number in range(1, rounds + 1):
        viewer.register()  # or it would be lost, too
        data, video = (Bridge(port, f"127.0.{number}.1") for port in (DATA_PORT, VIDEO_PORT))
        expect_found(service, region, viewer, number, data, video)
        viewer.command(json.dumps(command("shot")))
        assert parse(data.receive()) == (SHOT, number - 1)
        expect_lost(service, region, clock, number)
        data.close()
        video.close()
    passed = time.monotonic() - begin
    print(f"\nbridge: came and went {rounds} times, {1000 * passed / rounds:.0f} ms each")
    told = [line for line in events(service).splitlines() if not line.startswith("New")]
    assert told == ["Data found", "Video found", "Camera shot", "Data lost", "Video lost"] * rounds
    assert passed < limit(1.0) * rounds
