"""A cycle of the RC thread as a whole: its order, and what it makes of anything at all."""

import random
import struct
import time

import pytest

from harness.piloting import (
    FOCUS, IDLE, INF, INTERNAL_CAMERA, KEEP_ALIVE, KILLALL, LOCK, NAN, NEXT_POSITION, PHOTO, PLAY,
    REST, START, STEERED, STEPS, VIDEO, ZERO, ev, shutter)
from harness.receiver import FUNCTIONS, RcReader
from harness.region import DisplayRegion
from harness.timing import wait_until

pytest_plugins = ["harness.commanding", "harness.piloting"]


def test_order_of_a_cycle(cockpits, standins):
    """Everything that happens in one cycle, in its order."""
    cockpit = cockpits(STEERED, state=0)
    cockpit.camera_mode(VIDEO)
    cockpit.rc.assign(*(function for function in FUNCTIONS if not function.startswith("focus-")))
    for function in ("record", "iso", "shutter", "videomode", "center", "intcamera", "orient-lock"):
        cockpit.rc.hold(function, 1.0)
    cockpit.rc.drop("record-shot")
    cockpit.rc.place("ev", 0.5)
    cockpit.rc.state(6)
    expected = ([ZERO] + START + ev(9) + STEPS["iso"][1] + shutter("25") + STEPS["videomode"][1] +
                NEXT_POSITION + INTERNAL_CAMERA + LOCK)
    found = cockpit.effects()
    assert found[:len(expected)] == expected
    assert set(found[len(expected):]) <= {ZERO, KEEP_ALIVE}
    assert standins.calls("killall") == [KILLALL]


def test_no_numbers_anywhere(cockpits):
    """The first value of each setting is sent, and nothing moves; later on, everything works."""
    cockpit = cockpits(STEERED, state=0)
    cockpit.camera_mode(VIDEO)
    others = [function for function in FUNCTIONS if function != "osd"]
    for function in others:
        cockpit.rc.hold(function, NAN)
        cockpit.rc.place(function, NAN)
    cockpit.rc.assign(*others)
    cockpit.rc.state(6)
    for _ in range(10):
        cockpit.rc.cycle()
    found = [effect for effect in cockpit.effects()
             if isinstance(effect, str) or effect.id != 0x0C]
    assert found == ev(0) + STEPS["iso"][0] + shutter("25") + STEPS["videomode"][0]
    assert all(0.0 <= place <= 1.0 for place in cockpit.focus_point())
    cockpit.rc.drop("record-shot", *FOCUS)
    for function in others:
        cockpit.rc.hold(function, 0.0)
    cockpit.steer((0, 0, 0))
    cockpit.rc.drop("pan", "tilt")
    cockpit.rc.cycle()
    time.sleep(2 * REST)
    cockpit.seen()
    cockpit.move("record", 1.0, START)


BLOCK = (DisplayRegion.RC_STATUS, DisplayRegion.MENU_ACTIVE + 1)  # from the receiver's state to the menu flag


def garbage(rng):
    """The whole block, as no reader would write it: mostly live, so that it counts."""
    first, end = BLOCK
    block = bytearray(rng.randbytes(end - first))
    odd = (0.0, 0.3, -0.3, 0.5, -0.5, 0.1, 1.0, -1.0, NAN, INF, -INF, 1e308, -1e308, 5e-324, 1e9)
    for offset in range(DisplayRegion.RC_CENTRED[0], DisplayRegion.MENU_ACTIVE, 8):
        kind = rng.randrange(4)
        if kind > 0:
            value = rng.choice(odd) if kind == 1 else rng.uniform(-1.2, 1.2)
            block[offset - first:offset - first + 8] = struct.pack("<d", value)
    if rng.random() < 0.9:
        block[0] = RcReader.LIVE
    if rng.random() < 0.9:
        block[DisplayRegion.MENU_ACTIVE - first] = 0
    return block


@pytest.mark.parametrize("seed", range(4))
def test_garbage(cockpits, seed):
    """Whatever stands in the block, the service serves its viewers, and the pilot afterwards."""
    rng = random.Random(seed)
    percent = rng.choice([100, -100, 2147483647, -2147483648])
    cockpit = cockpits("".join(f"rc_input_speed_{axis}={percent}\n"
                               for axis in ("pan", "tilt", "dutch")))
    viewer = cockpit.station.viewer
    viewer.keep_alive()
    deadline = time.monotonic() + 3
    while time.monotonic() < deadline:
        block = garbage(rng)
        if seed % 2:  # a save takes far longer than all the rest
            offset = DisplayRegion.RC_ASSIGNED[0] + 2 * FUNCTIONS.index("intcamera") - BLOCK[0]
            block[offset:offset + 2] = bytes(2)
        cockpit.region.write(BLOCK[0], bytes(block))
        cockpit.camera_mode(rng.choice([PHOTO, VIDEO, PLAY, rng.randrange(256)]))
        time.sleep(rng.uniform(0, 0.03))
    for kind in (5, 6, 11):
        status = [frame for frame in viewer.frames if frame.payload[:1] == bytes([kind])]
        assert len(status) >= 2, kind
    cockpit.station.fence()
    assert all(0.0 <= place <= 1.0 for place in cockpit.focus_point())
    cockpit.region.write(BLOCK[0], bytes(BLOCK[1] - BLOCK[0]))
    cockpit.camera_mode(VIDEO)
    cockpit.rc.assign("osd", "record", "pan", "tilt")
    cockpit.rc.state(RcReader.LIVE)
    for _ in range(2):  # the clock was garbage, too
        cockpit.rc.cycle(10)
    cockpit.rc.drop("pan", "tilt")
    wait_until(lambda: time.sleep(IDLE) or set(cockpit.seen()) <= {KEEP_ALIVE}, 5, "the rest")
    cockpit.rc.hold("record", 1.0)
    cockpit.rc.cycle()
    assert [effect for effect in cockpit.seen() if effect != KEEP_ALIVE] == START
