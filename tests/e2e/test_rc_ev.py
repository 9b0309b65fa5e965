"""The stick of the exposure compensation."""

import itertools
import math

import pytest

from harness.piloting import EV_STEPS, INF, NAN, NOTHING, above, below, ev

pytest_plugins = ["harness.commanding", "harness.piloting"]


def test_every_ev_step(cockpit):
    cockpit.rc.assign("ev")
    cockpit.check(ev(0))
    for index in [*range(1, EV_STEPS), *reversed(range(EV_STEPS - 1))]:
        cockpit.rc.place("ev", (index + 0.5) / EV_STEPS)
        cockpit.check(ev(index))


def test_ev_by_position(cockpit):
    """A step is sent when it changes, the first of all always."""
    edges = [edge / EV_STEPS for edge in range(EV_STEPS + 1)]
    values = [0.0, 0.5, 1.0, 0.5, -1.0, 2.0, -0.0, INF, -INF, 1e300, -1e300, NAN, 1.0, NAN, 0.0,
              0.49, 0.5, 0.52, 0.53, 5e-324, 1e9, 2147483648.0 / 19, -1e9,
              *itertools.chain.from_iterable((below(edge), edge, above(edge)) for edge in edges)]
    cockpit.rc.place("ev", values[0])
    cockpit.rc.assign("ev")
    last = None
    for value in values:
        index = 0 if math.isnan(value) else int(max(0.0, min(value * 19.0, 18.0)))
        cockpit.rc.place("ev", value)
        cockpit.check(NOTHING if index == last else ev(index), value)
        last = index


@pytest.mark.parametrize("position, index", [(0.0, 0), (0.5, 9), (1.0, 18), (NAN, 0)])
def test_first_ev_is_sent(cockpit, position, index):
    cockpit.rc.place("ev", position)
    cockpit.rc.assign("ev")
    cockpit.check(ev(index))
    cockpit.check(NOTHING)


def test_ev_is_not_sent_again(cockpit):
    """Neither for the centred value nor because the channel or the receiver was away."""
    cockpit.rc.place("ev", 0.7)
    cockpit.rc.assign("ev")
    cockpit.check(ev(13))
    cockpit.move("ev", -1.0, NOTHING)
    cockpit.rc.drop("ev")
    cockpit.rc.place("ev", 0.1)
    cockpit.check(NOTHING)
    cockpit.rc.place("ev", 0.7)
    cockpit.rc.assign("ev")
    cockpit.check(NOTHING)
    cockpit.lose_receiver()
