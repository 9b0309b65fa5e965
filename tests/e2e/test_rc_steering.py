"""The pilot's sticks and the gimbal's speed: percentages, assignments, other speeds."""

import itertools
import math
import statistics
import struct

import pytest

from harness.piloting import CYCLE, INF, NAN, NOTHING, STEERED, STREAM_PERIOD, speeds_of
from harness.timing import limit

pytest_plugins = ["harness.commanding", "harness.piloting"]


def signed_word(number):
    """The low 16 bits of an integer, as a signed number."""
    return struct.unpack("<h", struct.pack("<I", number & 0xFFFFFFFF)[:2])[0]


def wire(product):
    """A speed as the gimbal gets it: thousandths, truncated, saturated to 32 bits, cut to 16."""
    thousandths = product * 1000.0
    if math.isnan(thousandths):
        return 0
    return signed_word(int(max(min(thousandths, 0x7FFFFFFF), -0x80000000)))


def stick(value, percent):
    """From left to right."""
    return wire(value * 0.01 * percent)


def sensitive(percent):
    """Stick values whose speed depends on the order of the multiplications."""
    values = [hundredth / 100 for hundredth in range(1, 101)]
    return [value for value in values
            if stick(value, percent) not in (wire(value * (0.01 * percent)),
                                             wire(value * percent * 0.01),
                                             wire(value * percent / 100))]


# Three percentages a run, each with stick values whose speed depends on the order.
@pytest.mark.parametrize("percent", [(70, 35, 55), (80, 85, 10)])
def test_speed_by_percent(cockpits, percent):
    cockpit = cockpits("".join(f"rc_input_speed_{axis}={number}\n"
                               for axis, number in zip(("pan", "tilt", "dutch"), percent)))
    cockpit.rc.assign("pan", "tilt", "dutch")
    assert all(map(sensitive, percent)), "no value tells the orders apart"
    axes = [[1.0, -1.0, 0.5, -0.25, 0.001, *sensitive(number)[:5]] for number in percent]
    for pan, tilt, dutch in itertools.zip_longest(*axes, fillvalue=-0.125):
        cockpit.steer((stick(pan, percent[0]), stick(dutch, percent[2]), stick(tilt, percent[1])),
                      pan=pan, tilt=tilt, dutch=dutch)


# Percentages are not held to any range. What leaves 32 bits saturates, and 16 bits go out.
@pytest.mark.parametrize("percent, words", [
    (0, (0, 0, 0)), (150, (1500, 1500, -1500)), (-50, (-500, -500, 500)),
    (5000, (-15536, -15536, 15536)), (2147483647, (-1, -1, 0)), (-2147483648, (0, 0, -1)),
])
def test_odd_percent(cockpits, percent, words):
    cockpit = cockpits("".join(f"rc_input_speed_{axis}={percent}\n"
                               for axis in ("pan", "tilt", "dutch")))
    cockpit.rc.assign("pan", "tilt", "dutch")
    cockpit.steer(words, pan=1.0, dutch=1.0, tilt=-1.0)


@pytest.mark.parametrize("assigned", [["pan"], ["tilt"], ["dutch"], ["pan", "dutch"],
                                      ["tilt", "dutch"], []])
def test_pan_and_tilt_steer_together_or_not_at_all(cockpits, assigned):
    cockpit = cockpits(STEERED)
    for function in ("pan", "tilt", "dutch"):
        cockpit.rc.hold(function, 1.0)
    cockpit.rc.assign(*assigned)
    for _ in range(3):
        cockpit.check(NOTHING)


@pytest.mark.parametrize("value", [1, 0x0100, 0x8000, 0xFFFF])
def test_any_word_but_zero_assigns(cockpits, value):
    cockpit = cockpits(STEERED)
    cockpit.rc.assign("pan", "tilt", value=value)
    cockpit.steer((500, 0, 0), pan=0.5)


def test_absolute_positions_do_not_steer(cockpits):
    cockpit = cockpits(STEERED + "rc_input_abs=1\n")
    cockpit.rc.hold("pan", 1.0)
    cockpit.rc.assign("pan", "tilt", "dutch")
    for _ in range(3):
        cockpit.check(NOTHING)


def test_dutch_steers_unassigned(cockpits):
    """Its value is whatever the reader left."""
    cockpit = cockpits(STEERED)
    cockpit.rc.assign("pan", "tilt")
    cockpit.steer((0, -500, 0), dutch=-0.5)


def test_position_values_do_not_steer(cockpits):
    cockpit = cockpits(STEERED)
    for function in ("pan", "tilt", "dutch"):
        cockpit.rc.place(function, 1.0)
    cockpit.rc.assign("pan", "tilt", "dutch")
    assert cockpit.speeds(10) == [(0, 0, 0)] * 10


@pytest.mark.parametrize("axis, words", [("pan", (-500, 250, 125)), ("tilt", (500, 250, -125)),
                                         ("dutch", (500, -250, 125))])
@pytest.mark.parametrize("inverse", [1, 2, -1])
def test_inversion_of_one_axis(cockpits, axis, inverse, words):
    """Applied once, by any number but 0."""
    cockpit = cockpits(STEERED + f"rc_input_inverse_{axis}={inverse}\n")
    cockpit.rc.assign("pan", "tilt")
    cockpit.steer(words, pan=0.5, dutch=0.25, tilt=0.125)


def test_centred_sticks_stop_in_every_cycle(cockpits):
    """A sum of zero goes out as often as it is set: after every pause of 20 ms."""
    cockpit = cockpits(STEERED)
    cockpit.rc.assign("pan", "tilt")
    frames = cockpit.camera.wait_frames(50, start=cockpit.camera.count())
    assert set(speeds_of(frames)) == {(0, 0, 0)}
    gaps = [later.time - earlier.time for earlier, later in zip(frames, frames[1:])]
    assert statistics.mean(gaps) >= CYCLE
    assert statistics.median(gaps) < limit(CYCLE + 0.005), gaps


def test_speed_is_streamed(cockpits):
    """However often the sticks are read, only the stream sends them."""
    cockpit = cockpits(STEERED)
    cockpit.rc.assign("pan", "tilt")
    cockpit.steer((1000, 0, 0), pan=1.0)
    frames = cockpit.camera.wait_frames(50, start=cockpit.camera.count())
    assert set(speeds_of(frames)) == {(1000, 0, 0)}
    assert frames[-1].time - frames[0].time > 0.9 * STREAM_PERIOD * (len(frames) - 1)


def test_speed_follows_the_stick(cockpits):
    cockpit = cockpits(STEERED)
    cockpit.rc.assign("pan", "tilt")
    for hundredth in range(-100, 101, 10):
        cockpit.steer((stick(hundredth / 100, 100), 0, 0), pan=hundredth / 100)


def test_stick_and_viewer_add_up(cockpits):
    cockpit = cockpits(STEERED)
    cockpit.rc.assign("pan", "tilt")
    cockpit.station.viewer.speed(1, 4000, 4000, 0)
    cockpit.steer((500, 0, 1000), pan=-0.5)
    cockpit.steer((0, 0, 0), pan=-1.0, tilt=-1.0)


def test_a_lost_channel_keeps_the_last_speed(cockpits):
    """With one of the two gone, the RC sets no speed any more, not even zero."""
    cockpit = cockpits(STEERED)
    cockpit.rc.assign("pan", "tilt")
    cockpit.steer((500, 0, 0), pan=0.5)
    cockpit.rc.drop("tilt")
    cockpit.rc.cycle()
    cockpit.rc.hold("pan", 0.0)
    assert cockpit.speeds(10) == [(500, 0, 0)] * 10
    cockpit.rc.assign("tilt")
    cockpit.steer((0, 0, 0))


@pytest.mark.parametrize("value, word", [(NAN, 0), (-NAN, 0), (INF, -1), (-INF, 0), (1e300, -1),
                                         (5e-324, 0)])
def test_odd_stick(cockpits, value, word):
    """It harms no other axis, and nothing once it is gone."""
    cockpit = cockpits(STEERED)
    cockpit.rc.assign("pan", "tilt")
    cockpit.steer((word, 0, 500), pan=value, tilt=0.5)
    cockpit.steer((250, 0, 500), pan=0.25)
    cockpit.steer((word, 0, 0), pan=value, tilt=0.0)
    cockpit.steer((0, 0, 0), pan=0.0)
