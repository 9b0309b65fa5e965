"""The levers that step through a setting: ISO, shutter, exposure mode."""

import pytest

from harness.piloting import (
    INF, NAN, NOTHING, PHOTO, PLAY, SHUTTER, STEPS, VIDEO, above, below, shutter)

pytest_plugins = ["harness.commanding", "harness.piloting"]

FILM = SHUTTER.index("25")  # the slowest shutter while filming


def push(cockpit, function, direction, expected):
    """Pushes a lever and lets it come back."""
    cockpit.move(function, direction, expected)
    cockpit.move(function, 0.0, NOTHING)


def assign_stepped(cockpit, *functions):
    """Assigns them with their levers at rest."""
    for function in functions:
        cockpit.rc.assign(function)
        cockpit.check(STEPS[function][0])


@pytest.mark.parametrize("function", STEPS)
def test_every_step(cockpit, function):
    """One step for each push; at the ends nothing is left to step to."""
    steps = STEPS[function]
    assign_stepped(cockpit, function)
    push(cockpit, function, -1.0, NOTHING)
    for expected in steps[1:]:
        push(cockpit, function, 1.0, expected)
    for _ in range(3):
        push(cockpit, function, 1.0, NOTHING)
    for expected in reversed(steps[:-1]):
        push(cockpit, function, -1.0, expected)
    for _ in range(3):
        push(cockpit, function, -1.0, NOTHING)
    push(cockpit, function, 1.0, steps[1])


@pytest.mark.parametrize("function", STEPS)
def test_first_step_is_sent_once(cockpit, function):
    """Also if its lever is pushed then: the first step that was seen is the one that counts."""
    cockpit.rc.hold(function, 1.0)
    cockpit.rc.assign(function)
    cockpit.check(STEPS[function][1])
    cockpit.check(NOTHING)


@pytest.mark.parametrize("function", STEPS)
def test_step_thresholds(cockpit, function):
    """A push goes beyond 0.3 and is over within 0.1 of the centre, neither of them included."""
    steps = STEPS[function]
    assign_stepped(cockpit, function)
    for value, expected in [
        (0.3, NOTHING), (above(0.3), steps[1]), (1.0, NOTHING), (0.1, NOTHING), (1.0, NOTHING),
        (-0.1, NOTHING), (1.0, NOTHING), (-1.0, NOTHING), (0.2, NOTHING), (1.0, NOTHING),
        (below(0.1), NOTHING), (1.0, steps[2]), (above(-0.1), NOTHING),
        (-0.3, NOTHING), (below(-0.3), steps[1]), (-1.0, NOTHING), (-0.1, NOTHING),
        (-1.0, NOTHING), (0.0, NOTHING), (-INF, steps[0]), (-0.0, NOTHING), (INF, steps[1]),
        (0.2, NOTHING), (NAN, NOTHING), (1.0, NOTHING), (0.0, NOTHING), (NAN, NOTHING),
        (1.0, steps[2]),
    ]:
        cockpit.move(function, value, expected)


def test_settings_step_by_themselves(cockpit):
    """Each has its own lever, latch and step."""
    assign_stepped(cockpit, *STEPS)
    cockpit.move("iso", 1.0, STEPS["iso"][1])
    cockpit.move("shutter", 1.0, STEPS["shutter"][1])
    cockpit.move("iso", 0.0, NOTHING)
    cockpit.move("videomode", 1.0, STEPS["videomode"][1])
    cockpit.move("shutter", 0.0, NOTHING)
    cockpit.move("iso", 1.0, STEPS["iso"][2])
    cockpit.move("shutter", -1.0, STEPS["shutter"][0])
    cockpit.move("videomode", 0.0, NOTHING)
    cockpit.move("videomode", -1.0, STEPS["videomode"][0])


@pytest.mark.parametrize("function", STEPS)
def test_steps_outlast_the_receiver(cockpit, function):
    """Nothing is sent again after a loss, and the next push goes on from there."""
    steps = STEPS[function]
    assign_stepped(cockpit, function)
    push(cockpit, function, 1.0, steps[1])
    cockpit.lose_receiver()
    cockpit.rc.drop(function)
    cockpit.move(function, 1.0, NOTHING)
    cockpit.move(function, 0.0, NOTHING)
    cockpit.rc.assign(function)
    cockpit.check(NOTHING)
    push(cockpit, function, 1.0, steps[2])


def test_latch_outlasts_the_receiver(cockpit):
    assign_stepped(cockpit, "iso")
    cockpit.move("iso", 1.0, STEPS["iso"][1])
    cockpit.lose_receiver()
    cockpit.move("iso", 0.0, NOTHING)
    cockpit.move("iso", 1.0, STEPS["iso"][2])


def shutter_at(cockpit, step):
    """Brings the shutter to that step, in photo mode."""
    cockpit.camera_mode(PHOTO)
    assign_stepped(cockpit, "shutter")
    for expected in STEPS["shutter"][1:step + 1]:
        push(cockpit, "shutter", 1.0, expected)


def test_first_shutter_while_filming(cockpit):
    cockpit.camera_mode(VIDEO)
    cockpit.rc.assign("shutter")
    cockpit.check(shutter("25"))


def test_push_up_from_a_slow_shutter_while_filming(cockpit):
    """From step 10 up it is "25", not step 11."""
    shutter_at(cockpit, 10)
    cockpit.rc.drop("shutter")
    cockpit.rc.cycle()
    cockpit.camera_mode(VIDEO)
    cockpit.rc.hold("shutter", 1.0)
    cockpit.rc.assign("shutter")
    cockpit.check(shutter("25"))
    cockpit.move("shutter", 0.0, NOTHING)
    push(cockpit, "shutter", 1.0, STEPS["shutter"][FILM + 1])


def test_slow_shutter_gives_way_to_filming(cockpit):
    """Without any push; and it does not come back with photo mode, but can be stepped to."""
    shutter_at(cockpit, 2)
    cockpit.camera_mode(VIDEO)
    cockpit.check(shutter("25"))
    push(cockpit, "shutter", -1.0, NOTHING)
    push(cockpit, "shutter", 1.0, STEPS["shutter"][FILM + 1])
    push(cockpit, "shutter", -1.0, STEPS["shutter"][FILM])
    push(cockpit, "shutter", -1.0, NOTHING)
    cockpit.camera_mode(PHOTO)
    cockpit.check(NOTHING)
    push(cockpit, "shutter", -1.0, STEPS["shutter"][FILM - 1])


@pytest.mark.parametrize("mode", [PLAY, 2, 255])
def test_slow_shutter_stays_in_other_modes(cockpit, mode):
    shutter_at(cockpit, 2)
    cockpit.camera_mode(mode)
    cockpit.check(NOTHING)
    push(cockpit, "shutter", 1.0, STEPS["shutter"][3])


def test_slow_shutter_stays_while_its_lever_is_pushed(cockpit):
    """A latched lever is left alone until the cycle after its return."""
    shutter_at(cockpit, 2)
    cockpit.move("shutter", 1.0, STEPS["shutter"][3])
    cockpit.camera_mode(VIDEO)
    for value in (1.0, 0.2, -1.0, 0.1):
        cockpit.move("shutter", value, NOTHING)
    cockpit.move("shutter", 0.0, shutter("25"))


def test_filming_limits_the_shutter_only(cockpit):
    cockpit.camera_mode(VIDEO)
    for function in ("iso", "videomode"):
        assign_stepped(cockpit, function)
        push(cockpit, function, 1.0, STEPS[function][1])
