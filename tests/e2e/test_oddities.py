"""Oddities that two modules make together. The others are tested with theirs."""

import struct

import pytest

from harness.duml import parse
from harness.receiver import RcReader
from harness.reports import TRACKING
from harness.timing import wait_until

pytest_plugins = ["harness.commanding", "harness.reporting"]


@pytest.mark.timing
def test_centred_sticks_stop_beside_the_orientation_lock(stations):
    """A frame of zeros every 20 ms, also between those that hold the gimbal every 30 ms."""
    station = stations(conf="rc_input_enabled=1\n")
    rc = RcReader(station.region)
    rc.assign("pan", "tilt")
    station.region.write(station.region.ORIENTATION_LOCK, b"\1")
    rc.cycle()
    frames = station.camera.wait_frames(50, start=station.camera.count())[:50]
    words = [struct.unpack_from("<3h", parse(event.data)[0].payload) for event in frames]
    assert set(words) == {(0, 0, 0), (1, 0, 0)}
    # 33 frames a second hold it, 50 a second stop it.
    assert 10 <= words.count((1, 0, 0)) <= 30


def test_tracking_that_was_stopped_comes_back(desk):
    """The camera reports no subject then, which is taken for a loss."""
    desk.exchange(TRACKING.frame(on_1=1, on_2=1, x=0.5, y=0.5))
    desk.viewer.command('{"cmd":"tracking","param":"stop"}')
    said = ""

    def restored():
        nonlocal said
        desk.exchange(TRACKING.frame(x=0.5, y=0.5))
        said += desk.console()
        return "Restore tracking...\nStop tracking\nStart tracking 0.5 0.5 0.1 0.2\n" in said

    wait_until(restored, 5, "the restored tracking")
    assert said.index("Stop tracking\n") < said.index("Restore tracking...\n")
