"""The two-position switches: centre, OSD, internal camera, orientation lock."""

import pathlib
import time

import pytest

from harness.duml import command
from harness.piloting import (
    IDLE, INF, INTERNAL_CAMERA, KEEP_ALIVE, KILLALL, LOCK, NAN, NEXT_POSITION, NOTHING, STEERED,
    UNLOCK, ZERO, above, below)
from harness.region import DisplayRegion
from harness.timing import wait_until

pytest_plugins = ["harness.commanding", "harness.piloting"]

CENTER = {
    "once a movement": [(1.0, NEXT_POSITION), (0.5, NOTHING), (1.0, NOTHING), (0.0, NOTHING),
                        (1.0, NEXT_POSITION), (-1.0, NOTHING), (1.0, NEXT_POSITION)],
    "thresholds": [(0.3, NOTHING), (above(0.3), NEXT_POSITION), (0.3, NOTHING),
                   (above(0.3), NEXT_POSITION)],
    "down": [(-1.0, NOTHING), (0.0, NOTHING)],
    "endless": [(-INF, NOTHING), (INF, NEXT_POSITION), (-INF, NOTHING)],
    # It is neither up nor down.
    "no number": [(NAN, NOTHING), (1.0, NEXT_POSITION), (NAN, NOTHING), (1.0, NOTHING),
                  (0.0, NOTHING), (1.0, NEXT_POSITION)],
}


@pytest.mark.parametrize("script", CENTER.values(), ids=CENTER)
def test_centre(cockpit, script):
    cockpit.rc.assign("center")
    for value, expected in script:
        cockpit.move("center", value, expected)


@pytest.mark.parametrize("value, hidden", [
    (1.0, 0), (above(0.3), 0), (0.3, 0), (below(0.3), 1), (0.0, 1), (-1.0, 1), (INF, 0), (-INF, 1),
    (NAN, 0),
])
def test_osd(cockpit, value, hidden):
    """The flag is written in every cycle, whoever changed it."""
    offset = DisplayRegion.OSD_ENABLED
    cockpit.rc.hold("osd", value)
    for other in (1 - hidden, 0xA5, 1 - hidden):
        cockpit.region.write(offset, bytes([other]))
        wait_until(lambda: cockpit.region.u8(offset) == hidden, 5, "the flag")
    assert cockpit.seen() == NOTHING


def test_osd_flag_is_left_alone(cockpit):
    """Without a channel, and while the RC is not in charge."""
    cockpit.rc.state(0)
    cockpit.await_exactly([ZERO])
    cockpit.region.write(DisplayRegion.OSD_ENABLED, b"\xa5")
    time.sleep(IDLE)
    assert cockpit.region.u8(DisplayRegion.OSD_ENABLED) == 0xA5
    cockpit.rc.drop("osd")
    cockpit.rc.state(6)
    time.sleep(IDLE)
    assert cockpit.region.u8(DisplayRegion.OSD_ENABLED) == 0xA5


def full_screen(cockpit):
    return cockpit.region.u8(DisplayRegion.INTERNAL_CAMERA_FULLSCREEN)


def saved(file="/boot/tervado-nimbus.conf"):
    """The line of the setting in the file."""
    lines = pathlib.Path(file).read_bytes().split(b"\r\n")
    return [line for line in lines if line.startswith(b"internal_camera_fullscreen")]


@pytest.mark.parametrize("conf", ["", "internal_camera_fullscreen=1\n"])
def test_internal_camera_switch(cockpits, standins, conf):
    """It acts when it moves; at start it is taken to be down, whatever the setting says."""
    cockpit = cockpits(conf)
    start = full_screen(cockpit)
    assert start == bool(conf)
    cockpit.rc.assign("intcamera")
    for value, state, moved in [
        (0.0, start, False), (-1.0, start, False), (0.3, start, False), (above(0.3), 1, True),
        (1.0, 1, False), (0.3, 0, True), (-1.0, 0, False), (INF, 1, True), (NAN, 1, False),
        (-INF, 0, True), (NAN, 0, False),
    ]:
        before = len(standins.calls("killall"))
        cockpit.move("intcamera", value, INTERNAL_CAMERA if moved else NOTHING)
        assert full_screen(cockpit) == state
        assert standins.calls("killall")[before:] == [KILLALL] * moved
        if moved:
            assert saved() == [b"internal_camera_fullscreen=%d" % state]


def test_internal_camera_switch_that_is_up_at_start(cockpits, standins):
    cockpit = cockpits(state=0)
    cockpit.rc.hold("intcamera", 1.0)
    cockpit.rc.assign("intcamera")
    cockpit.rc.state(6)
    cockpit.check(INTERNAL_CAMERA)
    assert full_screen(cockpit) == 1
    assert standins.calls("killall") == [KILLALL]


def test_internal_camera_ends_after_its_setting_is_saved(cockpits, standins):
    """The region says so first, then the file, and the camera that starts again finds both."""
    standins.answer("mount", f'od -An -tu1 -j{DisplayRegion.INTERNAL_CAMERA_FULLSCREEN} -N1 '
                             '/dev/shm/hud_mem >>"$NIMBUS_STANDINS/region"')
    standins.answer("killall", 'cp /run/tervado.conf "$NIMBUS_STANDINS/file"')
    cockpit = cockpits()
    cockpit.rc.assign("intcamera")
    cockpit.move("intcamera", 1.0, INTERNAL_CAMERA)
    assert (standins.folder / "region").read_text().split() == ["1", "1"]
    assert b"\ninternal_camera_fullscreen=1\n" in (standins.folder / "file").read_bytes()
    assert standins.calls("killall") == [KILLALL]


@pytest.mark.parametrize("function, up, down", [("center", NEXT_POSITION, NOTHING),
                                                ("intcamera", INTERNAL_CAMERA, INTERNAL_CAMERA)])
def test_switches_outlast_the_receiver(cockpit, function, up, down):
    """One that stayed up does nothing when it is back; one that moved meanwhile acts then."""
    cockpit.rc.assign(function)
    cockpit.move(function, 1.0, up)
    cockpit.lose_receiver()
    cockpit.rc.drop(function)
    cockpit.move(function, 0.0, NOTHING)
    cockpit.rc.assign(function)
    cockpit.check(down)
    cockpit.move(function, 1.0, up)


def lock(cockpit):
    return cockpit.region.u8(DisplayRegion.ORIENTATION_LOCK)


def test_orientation_lock(cockpit):
    """While it is locked, the stream keeps the gimbal where it is."""
    cockpit.rc.assign("orient-lock")
    for value in (0.0, -1.0, 0.3):
        cockpit.move("orient-lock", value, NOTHING)
    for _ in range(3):
        cockpit.rc.hold("orient-lock", above(0.3))
        assert cockpit.speeds(10) == [(1, 0, 0)] * 10
        assert lock(cockpit) == 1
        cockpit.rc.hold("orient-lock", 1.0)
        cockpit.rc.cycle()
        cockpit.rc.hold("orient-lock", 0.3)
        cockpit.rc.cycle()
        assert lock(cockpit) == 0
        time.sleep(IDLE)
        first, *held = cockpit.seen()
        assert [first] == LOCK
        # The stream may have had one more in hand.
        assert UNLOCK[0] in held[-2:]
        held.remove(UNLOCK[0])
        assert set(held) == {KEEP_ALIVE}
        cockpit.check(NOTHING)


def test_orientation_lock_that_is_up_at_start(cockpits):
    cockpit = cockpits(state=0)
    cockpit.rc.hold("orient-lock", 1.0)
    cockpit.rc.assign("orient-lock")
    cockpit.rc.state(6)
    found = cockpit.effects()
    assert found[:1] == LOCK
    assert set(found[1:]) <= {KEEP_ALIVE}
    assert lock(cockpit) == 1


def test_orientation_lock_that_is_no_number(cockpit):
    """It is neither up nor down: the switch stays where it is."""
    cockpit.rc.assign("orient-lock")
    cockpit.move("orient-lock", NAN, NOTHING)
    cockpit.rc.hold("orient-lock", 1.0)
    cockpit.rc.cycle()
    for value, state in ((NAN, 1), (0.0, 0), (-NAN, 0)):
        cockpit.rc.hold("orient-lock", value)
        cockpit.rc.cycle()
        assert lock(cockpit) == state
    found = cockpit.effects()
    assert [effect for effect in found if effect != KEEP_ALIVE] == LOCK + UNLOCK


def test_orientation_lock_by_command_and_by_switch(cockpit):
    """A command does not move the switch: it acts when it moves."""
    cockpit.rc.assign("orient-lock")
    cockpit.rc.hold("orient-lock", 1.0)
    cockpit.rc.cycle()
    cockpit.station.send(command("orientation", "unlock"))
    wait_until(lambda: lock(cockpit) == 0, 5, "the command")
    cockpit.rc.cycle()
    assert lock(cockpit) == 0
    cockpit.rc.hold("orient-lock", 0.0)
    cockpit.rc.cycle()
    assert lock(cockpit) == 0
    assert cockpit.camera.console().count(LOCK[0]) == 1
    wait_until(lambda: cockpit.camera.console().count(UNLOCK[0]) == 2, 5, "both texts")


def test_locked_gimbal_moves_by_its_stick(cockpits):
    """The frame that holds it goes out while there is no speed."""
    cockpit = cockpits(STEERED)
    cockpit.rc.assign("orient-lock", "pan", "tilt")
    cockpit.rc.hold("orient-lock", 1.0)
    cockpit.steer((500, 0, 0), pan=0.5)
    cockpit.rc.hold("pan", 0.0)
    wait_until(lambda: set(cockpit.speeds(10)) == {(0, 0, 0), (1, 0, 0)}, 5, "the held gimbal")
