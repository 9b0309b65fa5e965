"""A wall clock that is set, as the board's is when it finds a time server.

All time-outs are measured on it, by the unsigned difference of 32-bit milliseconds. So a step back
makes everything old, just as a step forward does: who is silent at that moment is lost at once, and
is back with the next datagram. Nothing ever waits until the old time has come again. The gimbal's
stream and all pauses are on a clock that is never set.
"""

import json
import random
import time

import pytest

from harness.console import connected, events, lost
from harness.duml import command, parse
from harness.receiver import RcReader
from harness.reports import HISTOGRAM, TAIL, TRACKING
from harness.timing import limit, wait_until

HOUR = 3600.0
WRAP = 2**32 / 1000  # seconds until the milliseconds start anew
RC_REPORT = 15

both_ways = pytest.mark.parametrize("step", [HOUR, -HOUR], ids=["forward", "back"])


@pytest.fixture
def timed(start, clock):
    """timed(conf="", stopped=...) is a service on a clock that the test sets."""

    def make(conf="", stopped=None):
        if stopped is not None:
            clock.stop(stopped)
        return start(conf, env=clock.env)

    return make


def wait_messages(viewer, kind, count=3):
    """Waits for that many more messages of a kind."""
    start = len(viewer.frames)
    wait_until(lambda: sum(frame.payload[0] == kind for frame in viewer.frames[start:]) >= count,
               10, f"{count} messages {kind}")


SUBJECT = {"x": 0.25, "y": 0.5}
TRACKED = TRACKING.frame(on_1=1, on_2=1, **SUBJECT) + TAIL
UNTRACKED = TRACKING.frame(**SUBJECT) + TAIL


@both_ways
def test_who_is_silent_is_lost_once_and_returns(timed, clock, join, data, video, region, step):
    """Every link, every viewer and all telemetry: one line each."""
    service = timed(stopped=time.time())
    clock.hurry()
    viewer = join(service)
    for number in (1, 2):
        data.send(HISTOGRAM.frame() + TAIL + TRACKED)
        wait_until(lambda: region.value("I", region.HISTOGRAM_MS) and region.value("I", region.TRACKING_MS), 5,
                   "the telemetry")
        video.send(bytes([number]))
        viewer.wait(lambda frame: frame.video and frame.payload == bytes([number]))
        for found in ("Data found\n", "Video found\n"):
            service.err.wait(found, count=number)
        before = len(service.err.text())
        clock.step(step)
        losses = {lost(viewer), "Data lost\n", "Video lost\n", "Tracking lost\n",
                  "Histogram lost\n"}
        wait_until(lambda: service.err.text()[before:].count("lost\n") == len(losses), 5, "losses")
        # In any order: the clock may be set in the middle of a pass.
        assert set(service.err.text()[before:].splitlines(keepends=True)) == losses
        viewer.register()
        service.err.wait(connected(viewer), count=number + 1)


def test_time_outs_across_the_wrap(timed, clock, join, data, region):
    """Every 49.7 days the milliseconds start anew: an age is an age all the same."""
    begin = 400 * WRAP - 0.3
    service = timed(stopped=begin)
    clock.hurry()
    viewer = join(service)
    data.send(HISTOGRAM.frame() + TAIL)
    wait_until(lambda: region.value("I", region.HISTOGRAM_MS), 5, "the telemetry")
    clock.step(1.0)
    wait_messages(viewer, 11)  # a whole pass, at least
    assert service.err.text().count("Data lost\n") == 1
    clock.step(0.001)
    service.err.wait("Data lost\n", count=2)
    clock.step(3.999)
    wait_messages(viewer, 11)
    assert lost(viewer) not in service.err.text()
    clock.step(0.001)
    service.err.wait(lost(viewer))


@both_ways
def test_tracking_is_restored_at_once(timed, clock, cameras, step):
    """The camera's next word that it has lost its subject seems to come late."""
    camera = cameras()
    service = timed(stopped=time.time())
    camera.send(TRACKED)
    camera.send(UNTRACKED)
    service.err.wait("Waiting restore tracking 0...\n")
    clock.step(step)
    camera.send(UNTRACKED)
    service.err.wait(f"Waiting restore tracking {round(step * 1000)}...\nRestore tracking...\n"
                     "Stop tracking\nStart tracking 0.2 0.5 0.1 0.2\n")
    camera.wait_frames(1)


@both_ways
def test_focus_point_on_its_way_is_sent(timed, clock, region, step):
    """A point that is to rest for a fifth of a second before it is sent does not wait an hour."""
    service = timed("rc_input_enabled=1\nrc_input_speed_pan=100\nrc_input_speed_tilt=100\n",
                    stopped=time.time())
    rc = RcReader(region)
    rc.assign("focus-pan", "focus-tilt")
    rc.hold("focus-pan", 1.0)
    rc.cycle()
    rc.hold("focus-pan", 0.0)
    rc.cycle()
    assert "focus" not in events(service)
    clock.step(step)
    service.err.wait("Camera set focus point")


@both_ways
def test_rc_report_goes_on(timed, clock, join, step):
    """Every half second, whatever the clock says."""
    service = timed("rc_input_enabled=1\n")
    viewer = join(service)
    viewer.keep_alive(0.2)
    viewer.message(RC_REPORT)
    clock.step(step)
    wait_messages(viewer, RC_REPORT)


def speeds(camera):
    """The times of the gimbal stream's frames."""
    return [event.time for event in camera.frames() if parse(event.data)[0].id == 0x0C]


def test_clock_that_is_set_again_and_again(timed, clock, join, cameras, video, region, times):
    """A busy service does not pause: the gimbal is steered, commands are done, the video is
    relayed, and the status messages come, whatever the clock says meanwhile."""
    steps = times(12, 600)
    chance = random.Random(3600)
    camera = cameras()
    service = timed()
    clock.hurry(0.2)
    viewer = join(service)
    viewer.keep_alive(0.05)
    camera.keep_sending(b"\0", 0.02)
    video.keep_sending(b"picture", 0.02)
    service.err.wait("Data found\n")
    viewer.speed(1, 4000, 0, 0)
    camera.wait(lambda events: speeds(camera))
    waits = []
    for number in range(1, steps + 1):
        clock.step(chance.choice((HOUR, -HOUR, 0.9, -0.9, 30 * HOUR * chance.random())))
        begin, seen = time.monotonic(), len(viewer.frames)
        viewer.command(json.dumps(command("iso", "400")))
        service.err.wait("Camera set iso 400\n", count=number)
        viewer.wait(lambda frame: frame.video, start=seen)
        viewer.message(11, start=seen)
        wait_until(lambda: region.u8(region.DATA_CONNECTED) and region.u8(region.VIDEO_CONNECTED),
                   5, "both sources")
        waits.append(time.monotonic() - begin)
    sent = speeds(camera)
    longest = max(after - before for before, after in zip(sent, sent[1:]))
    spurious = service.err.text().count("lost\n") - 2
    print(f"\nclock: set {steps} times; longest gap of the gimbal stream {1000 * longest:.0f} ms; "
          f"everything seen again within {max(waits):.2f} s; {spurious} losses told")
    assert longest < limit(2.0)
    assert max(waits) < limit(6.0)
