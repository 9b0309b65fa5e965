"""The sticks of the focus point."""

import itertools
import struct
import time

import pytest

from harness.duml import camera
from harness.piloting import CYCLE, FOCUS, INF, NAN, NOTHING, REST, STEERED
from harness.region import DisplayRegion
from harness.timing import limit, wait_until

pytest_plugins = ["harness.commanding", "harness.piloting"]


def focus_point(x, y):
    """What is said and sent for a point of the region. The picture's vertical axis points down."""
    x, y = struct.unpack("<2f", struct.pack("<2f", x, 1.0 - y))
    return ["Camera set focus type afs\n", camera(0x24, "01"),
            f"Camera set focus point {x:.6f},{y:.6f}\n",
            camera(0x30, struct.pack("<2f", x, y).hex())]


def focus_moves(value, percent, start=0.5):
    """Where one coordinate of the point is after 0, 1, 2... cycles."""
    while True:
        yield start
        start = max(0.0, min(start + value * 0.0005 * percent, 1.0))


@pytest.mark.timing
def test_first_focus_point(cockpit):
    """Sent once when both functions have their channels, and as soon as it has rested."""
    cockpit.check(NOTHING)
    assigned = time.time()
    cockpit.rc.assign(*FOCUS)
    cockpit.await_exactly(focus_point(0.5, 0.5))
    kind, point = cockpit.frames()[-2:]
    assert REST < kind.time - assigned < limit(REST + 0.15)
    assert 0.02 <= point.time - kind.time < limit(0.07)
    time.sleep(2 * REST)
    cockpit.check(NOTHING)
    assert cockpit.focus_point() == (0.5, 0.5)


@pytest.mark.parametrize("point, sent", [((0.0, 0.0), False), ((0.0, 0.5), True),
                                         ((0.5, 0.0), True)])
def test_first_focus_point_that_another_process_moved(cockpit, point, sent):
    """Zero counts as sent already, in each coordinate."""
    cockpit.region.write(DisplayRegion.FOCUS_POINT_X, struct.pack("<2d", *point))
    cockpit.rc.assign(*FOCUS)
    if sent:
        cockpit.await_exactly(focus_point(*point))
    time.sleep(2 * REST)
    cockpit.check(NOTHING)


@pytest.mark.parametrize("assigned", FOCUS)
def test_focus_point_takes_both_functions(cockpits, assigned):
    cockpit = cockpits(STEERED)
    for function in FOCUS:
        cockpit.rc.hold(function, 1.0)
    cockpit.rc.assign(assigned)
    time.sleep(2 * REST)
    cockpit.check(NOTHING)
    assert cockpit.focus_point() == (0.5, 0.5)


@pytest.mark.parametrize("percent, x, y", [
    pytest.param((100, 100), 1.0, -1.0, id="full"),
    pytest.param((70, 30), 0.29, 0.57, id="by the percentages of pan and tilt"),
    pytest.param((13, -7), -0.77, 0.91, id="negative percentage"),
])
def test_focus_point_moves_by_the_cycle(cockpits, percent, x, y):
    """Each cycle adds its share, from left to right, until the edge; seen are exact values of that
    walk only. The point that is reached is sent."""
    cockpit = cockpits(f"rc_input_speed_pan={percent[0]}\nrc_input_speed_tilt={percent[1]}\n")
    edges = tuple(float(value * number > 0) for value, number in zip((x, y), percent))
    walks = [list(itertools.takewhile(lambda place, edge=edge: place != edge,
                                      focus_moves(value, number))) + [edge]
             for value, number, edge in zip((x, y), percent, edges)]
    cockpit.rc.hold("focus-pan", x)
    cockpit.rc.hold("focus-tilt", y)
    cockpit.rc.assign(*FOCUS)
    seen = [set(), set()]
    deadline = time.monotonic() + limit(30)
    while (point := cockpit.focus_point()) != edges:
        assert time.monotonic() < deadline, point
        for places, place in zip(seen, point):
            places.add(place)
        time.sleep(0.002)
    for places, walk in zip(seen, walks):
        assert places <= set(walk)
        assert len(places) > 5
    cockpit.await_last(focus_point(*edges))
    # At the edge a stick moves nothing any more.
    time.sleep(2 * REST)
    cockpit.check(NOTHING)
    assert cockpit.focus_point() == edges


@pytest.mark.timing
def test_focus_point_is_sent_at_rest_only(cockpits):
    cockpit = cockpits("rc_input_speed_pan=10\nrc_input_speed_tilt=10\n")
    cockpit.rc.assign(*FOCUS)
    cockpit.await_exactly(focus_point(0.5, 0.5))
    moves = [(time.time(), time.time(), 0.5)]  # after when, by when and where to
    looked = time.time()
    found = []

    def follow():
        nonlocal looked
        begin, place = time.time(), cockpit.focus_point()[0]
        if place != moves[-1][2]:
            moves.append((looked, time.time(), place))
        looked = begin
        return place

    def arrived():
        follow()
        found.extend(cockpit.seen())
        return found[-4:] == focus_point(*cockpit.focus_point())

    cockpit.rc.hold("focus-pan", -1.0)
    wait_until(lambda: follow() <= 0.2, 5, "the way")
    cockpit.rc.hold("focus-pan", 0.0)
    wait_until(arrived, 5, "the point")
    pauses = [later[1] - earlier[0] for earlier, later in itertools.pairwise(moves)]
    # A machine that halts the service for so long has the point rest on its way.
    assert found == focus_point(*cockpit.focus_point()) or max(pauses) > REST - 2 * CYCLE
    kind, _ = cockpit.frames()[-2:]
    after, by, _ = moves[-1]
    assert kind.time - after > REST - 0.005 and kind.time - by < limit(REST + 0.15)
    time.sleep(2 * REST)
    cockpit.check(NOTHING)


def test_focus_point_at_the_edges(cockpits):
    cockpit = cockpits(STEERED)
    cockpit.rc.assign(*FOCUS)
    cockpit.await_exactly(focus_point(0.5, 0.5))
    for x, y in ((1.0, 1.0), (-1.0, 1.0), (-1.0, -1.0), (1.0, -1.0)):
        corner = (max(x, 0.0), max(y, 0.0))
        cockpit.rc.hold("focus-pan", x)
        cockpit.rc.hold("focus-tilt", y)
        wait_until(lambda corner=corner: cockpit.focus_point() == corner, 5, "the corner")
        cockpit.await_exactly(focus_point(*corner))


def test_percentage_of_zero_fixes_the_focus_point(cockpit):
    cockpit.rc.assign(*FOCUS)
    cockpit.await_exactly(focus_point(0.5, 0.5))
    for function in FOCUS:
        cockpit.rc.hold(function, 1.0)
    time.sleep(2 * REST)
    cockpit.check(NOTHING)
    assert cockpit.focus_point() == (0.5, 0.5)


@pytest.mark.parametrize("value", [NAN, INF, -INF, 1e300])
def test_odd_focus_stick(cockpits, value):
    """The point stays in the picture, is a point again, and goes on moving."""
    cockpit = cockpits("rc_input_speed_pan=10\nrc_input_speed_tilt=10\n")
    cockpit.rc.assign(*FOCUS)
    cockpit.await_exactly(focus_point(0.5, 0.5))
    for function in FOCUS:
        cockpit.rc.hold(function, value)
    for _ in range(10):
        cockpit.rc.cycle()
        assert all(0.0 <= place <= 1.0 for place in cockpit.focus_point())
    for function in FOCUS:
        cockpit.rc.hold(function, 0.0)
    cockpit.rc.cycle()
    time.sleep(2 * REST)
    cockpit.seen()
    for stick_value, edge in ((1.0, 1.0), (-1.0, 0.0)):
        for function in FOCUS:
            cockpit.rc.hold(function, stick_value)
        wait_until(lambda edge=edge: cockpit.focus_point() == (edge, edge), 10, "the edge")
    cockpit.await_last(focus_point(0.0, 0.0))


@pytest.mark.parametrize("written, kept", [(0.25, 0.25), (7.0, 1.0), (-3.0, 0.0), (INF, 1.0),
                                           (-INF, 0.0), (-0.0, 0.0)])
def test_focus_point_that_another_process_moved(cockpit, written, kept):
    """It is kept within the picture and sent like any other."""
    cockpit.rc.assign(*FOCUS)
    cockpit.await_exactly(focus_point(0.5, 0.5))
    cockpit.region.write(DisplayRegion.FOCUS_POINT_X, struct.pack("<d", written))
    cockpit.await_exactly(focus_point(kept, 0.5))
    assert cockpit.focus_point() == (kept, 0.5)
