"""The switches record and record-shot, and the camera mode that they wait for."""

import time

import pytest

from harness.duml import camera, parse, speed
from harness.piloting import (
    IDLE, INF, NAN, NEXT_POSITION, NOTHING, PHOTO, PLAY, SHOT, START, STEERED, STOP, TO_PHOTO,
    TO_VIDEO, VIDEO, ZERO, above, below)
from harness.receiver import FUNCTIONS
from harness.region import DisplayRegion
from harness.timing import TIME_SCALE, limit, wait_until

pytest_plugins = ["harness.commanding", "harness.piloting"]


def play(cockpit, function, script):
    """Every row: the camera's mode, where the switch moves then, and what that leads to."""
    cockpit.camera_mode(script[0][0])
    cockpit.rc.assign(function)
    for mode, value, expected in script:
        cockpit.camera_mode(mode)
        cockpit.move(function, value, expected)


RECORD = {
    "video": [(VIDEO, 1.0, START), (VIDEO, 0.0, STOP), (VIDEO, 1.0, START), (VIDEO, -1.0, STOP)],
    "photo": [(PHOTO, 1.0, SHOT), (PHOTO, 0.0, NOTHING), (PHOTO, 1.0, SHOT)],
    "play": [(PLAY, 1.0, START), (PLAY, 0.0, NOTHING), (PLAY, 1.0, START)],
    "unknown mode": [(255, 1.0, START), (255, 0.0, NOTHING)],
    "down does nothing": [(VIDEO, -1.0, NOTHING), (VIDEO, 0.0, NOTHING), (VIDEO, -1.0, NOTHING)],
    "held up": [(VIDEO, 1.0, START), (VIDEO, 0.75, NOTHING), (VIDEO, above(0.5), NOTHING),
                (VIDEO, 1.0, NOTHING)],
    "thresholds": [(VIDEO, 0.5, NOTHING), (VIDEO, above(0.5), START), (VIDEO, 0.5, STOP),
                   (VIDEO, above(0.5), START), (VIDEO, below(0.5), STOP)],
    "mode changed while recording": [(VIDEO, 1.0, START), (PHOTO, 1.0, NOTHING),
                                     (PHOTO, 0.0, NOTHING), (VIDEO, 0.0, NOTHING)],
    "mode changed after a shot": [(PHOTO, 1.0, SHOT), (VIDEO, 1.0, NOTHING), (VIDEO, 0.0, STOP)],
    "no number": [(VIDEO, NAN, NOTHING), (VIDEO, 1.0, START), (VIDEO, NAN, NOTHING),
                  (VIDEO, 1.0, NOTHING), (VIDEO, 0.0, STOP)],
    "endless": [(VIDEO, INF, START), (VIDEO, -INF, STOP)],
}


@pytest.mark.parametrize("script", RECORD.values(), ids=RECORD)
def test_record(cockpit, script):
    play(cockpit, "record", script)


RECORD_SHOT = {
    "video": [(VIDEO, 1.0, START), (VIDEO, 0.0, STOP), (VIDEO, 1.0, START), (VIDEO, 0.0, STOP)],
    "into video": [(PHOTO, 1.0, TO_VIDEO + START), (VIDEO, 0.0, STOP)],
    "from play into video": [(PLAY, 1.0, TO_VIDEO + START), (VIDEO, 0.0, STOP)],
    "the camera stays in photo": [(PHOTO, 1.0, TO_VIDEO + START), (PHOTO, 0.0, NOTHING)],
    "photo": [(PHOTO, -1.0, SHOT), (PHOTO, 0.0, NOTHING), (PHOTO, -1.0, SHOT)],
    "into photo": [(VIDEO, -1.0, TO_PHOTO + SHOT), (PHOTO, 0.0, NOTHING)],
    "from play into photo": [(PLAY, -1.0, TO_PHOTO + SHOT), (PLAY, 0.0, NOTHING)],
    "the camera stays in video": [(VIDEO, -1.0, TO_PHOTO + SHOT), (VIDEO, 0.0, STOP)],
    "held": [(VIDEO, 1.0, START), (VIDEO, 0.75, NOTHING), (PHOTO, above(0.5), NOTHING)],
    "across the centre unseen": [(VIDEO, 1.0, START), (VIDEO, -1.0, NOTHING),
                                 (VIDEO, 1.0, NOTHING), (VIDEO, 0.0, STOP)],
    "thresholds": [(VIDEO, 0.5, NOTHING), (VIDEO, above(0.5), START), (VIDEO, 0.5, STOP),
                   (PHOTO, -0.5, NOTHING), (PHOTO, below(-0.5), SHOT), (VIDEO, -0.5, STOP)],
    "no number": [(VIDEO, NAN, NOTHING), (VIDEO, 1.0, START), (VIDEO, NAN, NOTHING),
                  (VIDEO, 1.0, NOTHING), (VIDEO, 0.0, STOP)],
    "endless": [(VIDEO, INF, START), (VIDEO, -INF, NOTHING), (VIDEO, 0.0, STOP)],
}


@pytest.mark.parametrize("script", RECORD_SHOT.values(), ids=RECORD_SHOT)
def test_record_shot(cockpit, script):
    play(cockpit, "record-shot", script)


def test_switches_must_be_assigned(cockpit):
    """Of a function without a live channel, no value counts."""
    cockpit.camera_mode(VIDEO)
    for function in FUNCTIONS:
        if function != "osd":
            cockpit.rc.hold(function, 1.0)
            cockpit.rc.place(function, 1.0)
    cockpit.check(NOTHING)


def test_functions_of_other_processes(cockpits):
    """Nothing comes of those that the service has no part in."""
    cockpit = cockpits(STEERED)
    others = ("menu", "zoom", "focus", "digital-zoom", "digital-zoom2", "aperture",
              "custom-focus-assistant")
    cockpit.rc.assign(*others)
    for value in (1.0, -1.0):
        for function in others:
            cockpit.rc.hold(function, value)
            cockpit.rc.place(function, value)
        cockpit.check(NOTHING)


def test_recording_outlasts_the_receiver(cockpit):
    """A switch that moved meanwhile acts when the receiver is back."""
    play(cockpit, "record", [(VIDEO, 1.0, START)])
    cockpit.lose_receiver()
    cockpit.rc.state(0)
    cockpit.await_exactly([ZERO])
    cockpit.rc.hold("record", 0.0)
    time.sleep(IDLE)
    assert cockpit.seen() == NOTHING
    cockpit.rc.state(6)
    cockpit.check(STOP)


@pytest.mark.parametrize("up, centred", [("record", "record-shot"), ("record-shot", "record")])
def test_record_and_record_shot_share_their_latch(cockpit, up, centred):
    """Each takes the other's movement for its own: one up and one centred record in fits."""
    cockpit.camera_mode(VIDEO)
    cockpit.rc.assign(up)
    cockpit.move(up, 1.0, START)
    cockpit.rc.assign(centred)
    fits = 5
    wait_until(lambda: cockpit.camera.console().count("Record start\n") > fits, 5, "the fits")
    cockpit.rc.drop(centred)
    found = cockpit.effects()
    assert len(found) >= 4 * fits
    assert found == (STOP + START) * (len(found) // 4)


def test_record_and_record_shot_up_record_once(cockpit):
    cockpit.camera_mode(VIDEO)
    cockpit.rc.hold("record-shot", 1.0)
    cockpit.rc.hold("record", 1.0)
    cockpit.rc.assign("record", "record-shot")
    for _ in range(3):
        cockpit.effects()
    assert cockpit.camera.console().count("Record start\n") == 1
    assert "Record stop\n" not in cockpit.camera.console()


def test_record_comes_before_record_shot(cockpits):
    """Of both switches up in photo mode, the first takes a picture, and the second, whose latch is
    the same, does not change the mode."""
    cockpit = cockpits(STEERED, state=0)
    cockpit.camera_mode(PHOTO)
    cockpit.rc.hold("record-shot", 1.0)
    cockpit.rc.hold("record", 1.0)
    cockpit.rc.assign("record-shot", "record")
    cockpit.rc.state(6)
    cockpit.check(SHOT)
    cockpit.check(NOTHING)


# Into video the camera gets 200 ms, into photo 500 ms.
WAITS = {"video": (PHOTO, 1.0, TO_VIDEO + START, 0.2), "photo": (VIDEO, -1.0, TO_PHOTO + SHOT, 0.5)}


@pytest.mark.parametrize("mode, value, expected, wait", WAITS.values(), ids=WAITS)
def test_wait_for_the_camera_mode(cockpit, mode, value, expected, wait):
    cockpit.camera_mode(mode)
    cockpit.rc.assign("record-shot")
    start = cockpit.camera.count()
    cockpit.move("record-shot", value, expected)
    changed, acted = cockpit.frames(start)
    assert wait <= acted.time - changed.time < wait + limit(0.15)


@pytest.mark.timing
def test_no_wait_in_the_right_mode(cockpit):
    """The next switch of the cycle acts right behind the recording."""
    cockpit.camera_mode(VIDEO)
    cockpit.rc.state(0)
    cockpit.await_exactly([ZERO])
    for function in ("record-shot", "center"):
        cockpit.rc.assign(function)
        cockpit.rc.hold(function, 1.0)
    start = cockpit.camera.count()
    cockpit.rc.state(6)
    cockpit.check(START + NEXT_POSITION)
    recorded, moved = cockpit.frames(start)
    assert moved.time - recorded.time < limit(0.1)


def test_wait_holds_the_rc_alone(cockpit):
    """While the camera gets ready, the stream and the commands go on; sticks wait."""
    station = cockpit.station
    station.viewer.speed(1, 4000, 0, 0)
    cockpit.steer((1000, 0, 0))
    cockpit.camera_mode(VIDEO)
    start = cockpit.camera.count()
    cockpit.rc.hold("record-shot", -1.0)
    cockpit.rc.assign("record-shot")
    cockpit.camera.wait_text(TO_PHOTO[0], start=start)
    waiting = cockpit.camera.count()
    station.viewer.command('{"cmd":"resetcamera"}')
    before = cockpit.region.u8(DisplayRegion.OSD_ENABLED)
    with pytest.raises(AssertionError):
        cockpit.rc.cycle(0.2 / TIME_SCALE)
    assert cockpit.region.u8(DisplayRegion.OSD_ENABLED) == before
    cockpit.camera.wait_text(SHOT[0], start=waiting)
    said = [parse(event.data)[0] if event.is_frame else event.text
            for event in cockpit.camera.events(waiting)]
    meanwhile = said[:said.index(SHOT[0])]
    assert camera(0x78, "00") in meanwhile
    assert meanwhile.count(speed(1000, 0, 0)) > 8 / TIME_SCALE
    wait_until(lambda: cockpit.region.u8(DisplayRegion.OSD_ENABLED) != before, 5, "the next cycle")
