"""Who steers: the pilot is in charge while the receiver is live and the menu is closed, and leaves
with one stop."""

import itertools
import statistics
import time

import pytest

from harness.duml import command
from harness.piloting import (
    IDLE, NEXT_POSITION, NOTHING, START, STEERED, VIDEO, ZERO, show, speeds_of)
from harness.receiver import FUNCTIONS, RcReader
from harness.region import DisplayRegion
from harness.timing import limit, wait_until

pytest_plugins = ["harness.commanding", "harness.piloting"]

NOT_LIVE = (0, 1, 5, 7, 0x60, 0x86, 255)
MENU_OPEN = (1, 2, 128, 255)


def test_only_a_live_receiver_is_in_charge(cockpits):
    """Its state is 6, and nothing else."""
    cockpit = cockpits(state=0)
    cockpit.camera_mode(VIDEO)
    cockpit.rc.assign("record")
    cockpit.rc.hold("record", 1.0)
    for state in NOT_LIVE:
        cockpit.rc.state(state)
        time.sleep(IDLE)
        assert cockpit.seen() == NOTHING, state
    cockpit.rc.state(6)
    cockpit.check(START)


def test_open_menu_owns_the_rc(cockpits):
    cockpit = cockpits(state=0)
    cockpit.camera_mode(VIDEO)
    cockpit.rc.menu(1)
    cockpit.rc.state(6)
    cockpit.rc.assign("record")
    cockpit.rc.hold("record", 1.0)
    for flag in MENU_OPEN:
        cockpit.rc.menu(flag)
        time.sleep(IDLE)
        assert cockpit.seen() == NOTHING, flag
    cockpit.rc.menu(0)
    cockpit.check(START)


@pytest.mark.parametrize("conf", ["rc_input_enabled=0\n", "", "rc_input_enabled=x\n"])
def test_rc_input_must_be_enabled(stations, conf):
    station = stations(conf=conf)
    rc = RcReader(station.region)
    rc.assign(*FUNCTIONS)
    for function in FUNCTIONS:
        rc.hold(function, 1.0)
        rc.place(function, 1.0)
    time.sleep(IDLE)
    station.check([])
    assert station.region.u8(DisplayRegion.OSD_ENABLED) == 0


def test_before_it_was_in_charge_there_is_nothing_to_stop(cockpits):
    cockpit = cockpits(state=0)
    time.sleep(IDLE)
    cockpit.rc.menu(1)
    time.sleep(IDLE)
    assert cockpit.seen() == NOTHING


LEAVES = {"receiver": (lambda rc: rc.state(5), lambda rc: rc.state(6)),
          "menu": (lambda rc: rc.menu(1), lambda rc: rc.menu(0))}


@pytest.fixture(params=LEAVES)
def leave_and_return(request):
    return LEAVES[request.param]


def test_leaving_stops_once(cockpit, leave_and_return):
    """One frame of speed zero, whether or not the RC moved the gimbal; and one more the next
    time."""
    leave, come_back = leave_and_return
    for _ in range(5):
        leave(cockpit.rc)
        cockpit.await_exactly([ZERO])
        time.sleep(IDLE)
        assert cockpit.seen() == NOTHING
        come_back(cockpit.rc)
        cockpit.check(NOTHING)


def test_leaving_stops_the_gimbal(cockpits, leave_and_return):
    """At once, by one frame of zero; a speed that the stream had in hand may slip in behind it, and
    is then followed by another."""
    leave, come_back = leave_and_return
    cockpit = cockpits(STEERED)
    cockpit.rc.assign("pan", "tilt")
    delays, stops = [], []
    for _ in range(20):
        come_back(cockpit.rc)
        cockpit.steer((500, 0, 0), pan=0.5)
        start = cockpit.camera.count()
        left = time.time()
        leave(cockpit.rc)
        stop = cockpit.wait_frame(ZERO, start)
        time.sleep(IDLE)
        words = speeds_of(cockpit.frames(start))
        assert set(words) <= {(500, 0, 0), (0, 0, 0)} and words[-1] == (0, 0, 0)
        after = list(itertools.dropwhile(any, words))
        assert after.count((500, 0, 0)) <= 1
        delays.append(stop.time - left)
        stops.append(after.count((0, 0, 0)))
    assert statistics.median(stops) == 1 and max(stops) <= 3, stops
    assert statistics.median(delays) < limit(0.04), delays


def test_leaving_does_not_stop_a_viewer(cockpits, leave_and_return):
    """The RC's share of the speed goes, the viewer's goes on, without a stop in between."""
    leave, _ = leave_and_return
    cockpit = cockpits(STEERED)
    cockpit.rc.assign("pan", "tilt")
    cockpit.station.viewer.speed(1, 4000, 0, 0)
    cockpit.steer((1500, 0, 0), pan=0.5)
    start = cockpit.camera.count()
    leave(cockpit.rc)
    time.sleep(2 * IDLE)
    words = speeds_of(cockpit.frames(start))
    assert len(words) > 3
    assert [word for word, _ in itertools.groupby(words)] in ([(1500, 0, 0), (1000, 0, 0)],
                                                              [(1000, 0, 0)])
    # The viewer's stop is then the gimbal's.
    cockpit.station.viewer.speed(1, 0, 0, 0)
    cockpit.wait_frame(ZERO, start)


def test_leaving_ends_a_commanded_speed(cockpit, leave_and_return):
    """Commands and the RC share one speed; while no stick steers, the commanded one goes on."""
    leave, _ = leave_and_return
    cockpit.station.send(command("position", "speed", "1", "2", "3"))
    cockpit.steer((1000, 3000, 2000))
    start = cockpit.camera.count()
    leave(cockpit.rc)
    cockpit.wait_frame(ZERO, start)
    time.sleep(IDLE)
    assert speeds_of(cockpit.frames(start))[-1] == (0, 0, 0)
    cockpit.seen()
    time.sleep(IDLE)
    assert cockpit.seen() == NOTHING


def enable_rc(cockpit, value):
    """Changes the setting, by a viewer's command."""
    cockpit.station.send({"cmd": "updateparam", "name": "rcin_enabled", "value": value})


def test_disabling_the_rc_stops_once(cockpit, standins):
    """It takes charge from a receiver that is live and stays so, and gives it back. The command
    waits in its save meanwhile: what it does to the receiver's state comes later."""
    standins.answer("mount", 'while [ ! -e "$NIMBUS_STANDINS/go" ]; do sleep 0.01; done')
    cockpit.rc.assign("center")
    enable_rc(cockpit, "0")
    cockpit.wait_frame(ZERO)
    assert cockpit.region.u8(DisplayRegion.RC_STATUS) == RcReader.LIVE
    cockpit.rc.hold("center", 1.0)
    (standins.folder / "go").touch()
    wait_until(lambda: cockpit.region.u8(DisplayRegion.RC_STATUS) == 0, 5, "the command's end")
    cockpit.rc.state(6)
    time.sleep(IDLE)
    assert sorted(map(show, cockpit.seen())) == sorted(map(show, [ZERO, "Save config\n"]))
    enable_rc(cockpit, "1")
    wait_until(lambda: cockpit.region.u8(DisplayRegion.RC_STATUS) == 0, 5, "the command's end")
    cockpit.seen()
    cockpit.rc.hold("center", 0.0)
    cockpit.rc.state(6)
    cockpit.rc.cycle()
    cockpit.seen()
    cockpit.move("center", 1.0, NEXT_POSITION)
