"""The pilot's sticks and switches, as the RC reader writes them into the display region, and what
becomes of them."""

import itertools
import math
import pathlib
import random
import statistics
import struct
import time

import pytest

from harness.duml import GIMBAL, Command, camera, command, gimbal, parse, speed
from harness.receiver import FUNCTIONS, RcReader
from harness.region import DisplayRegion
from harness.timing import TIME_SCALE, limit, wait_until

pytest_plugins = ["harness.commanding"]

PHOTO, VIDEO, PLAY = 0, 1, 7

NOTHING = []
START = ["Record start\n", camera(0x02, "01")]
STOP = ["Record stop\n", camera(0x02, "00")]
SHOT = ["Camera shot\n", camera(0x01, "01")]
TO_VIDEO = ["Camera set mode video\n", camera(0x10, "01", sender=0x09)]
TO_PHOTO = ["Camera set mode photo\n", camera(0x10, "00", sender=0x09)]
NEXT_POSITION = ["Gimbal set next position\n", gimbal(0x4C, "FE 09")]
LOCK, UNLOCK = ["Set orientation lock\n"], ["Set orientation unlock\n"]
ZERO = speed(0, 0, 0)
KEEP_ALIVE = speed(1, 0, 0)

NAN, INF = math.nan, math.inf

# Several cycles of every thread: time in which nothing may happen.
IDLE = 0.15

CYCLE = 0.02
STREAM_PERIOD = 0.03


def above(value):
    """The next number."""
    return math.nextafter(value, INF)


def below(value):
    return math.nextafter(value, -INF)


# --- The cockpit ---------------------------------------------------------------------------------


def show(effect):
    """A text or a Command, for a person to read."""
    return effect.frame(0).hex(" ") if isinstance(effect, Command) else repr(effect)


def speeds_of(events):
    """The three words of every frame among those events, which must all be speeds."""
    words = []
    for one in (parse(event.data)[0] for event in events if event.is_frame):
        assert (one.set, one.id) == (GIMBAL, 0x0C), f"no speed: {show(one)}"
        assert one.payload[6:] == b"\x90"
        words.append(struct.unpack_from("<3h", one.payload))
    return words


class Cockpit:
    """A running service with its camera, and the pilot's end of it: the RC reader."""

    _MARK = b"everything before was received"

    def __init__(self, station, **reader):
        self.station = station
        self.camera = station.camera
        self.region = station.region
        # The last thing that the start writes, behind the text that the station has waited for.
        wait_until(lambda: self.focus_point() == (0.5, 0.5), 5, "the start of control")
        self.rc = RcReader(station.region, **reader)

    def camera_mode(self, mode):
        self.region.write(self.region.CAMERA_MODE, bytes([mode]))

    def focus_point(self):
        return tuple(self.region.value("d", offset)
                     for offset in (self.region.FOCUS_POINT_X, self.region.FOCUS_POINT_Y))

    def frames(self, start=0):
        """The events that are frames, from event `start` on."""
        return [event for event in self.camera.frames(start) if event.data != self._MARK]

    def wait_frame(self, command, start=0, seconds=5):
        """Waits for the first frame with that Command, from event `start` on."""
        return wait_until(lambda: [event for event in self.frames(start)
                                   if parse(event.data)[0] == command], seconds, show(command))[0]

    def seen(self):
        """What the service has said and sent since the last call: texts and Commands, in order."""
        start = self.camera.count()
        # Behind whatever lies in the camera's socket already.
        self.camera.socket.sendto(self._MARK, self.camera.address)
        self.camera.wait(lambda events: any(event.data == self._MARK for event in events), 5,
                         "the mark", start)
        return [effect if isinstance(effect, str) else parse(effect)[0]
                for effect in self.station.effects() if effect != self._MARK]

    def effects(self):
        """The same, after the RC thread has done what there is to do."""
        self.rc.cycle()
        return self.seen()

    def check(self, expected, why=""):
        """Since the last check these texts and Commands were said and sent, and nothing else."""
        self._compare(self.effects(), expected, why)

    def await_exactly(self, expected, seconds=5):
        """Waits for as many effects as are expected, which must be these, and no more by then."""
        found = []

        def enough():
            found.extend(self.seen())
            return len(found) >= len(expected)

        wait_until(enough, seconds, "the effects")
        self._compare(found, expected, "")

    def await_last(self, expected, seconds=5):
        """Waits until the last effects are these."""
        found = []
        wait_until(lambda: found.extend(self.seen()) or found[-len(expected):] == expected, seconds,
                   "the effects")

    @staticmethod
    def _compare(found, expected, why):
        assert found == expected, (f"{why}\nexpected\n" + "\n".join(map(show, expected)) +
                                   "\nnot\n" + "\n".join(map(show, found)))

    def move(self, function, value, expected):
        """Moves a stick or switch, which leads to exactly that."""
        self.rc.hold(function, value)
        self.check(expected, f"{function} at {value!r}")

    def speeds(self, count):
        """The next `count` speeds on the wire: pan, roll, tilt."""
        self.rc.cycle()
        start = self.camera.count()
        wait_until(lambda: len(self.frames(start)) >= count, 5, f"{count} speeds")
        return speeds_of(self.frames(start))[:count]

    def steer(self, expected, **sticks):
        """Moves sticks; from then on, this speed goes out. What the stream had in hand may go out
        before."""
        for function, value in sticks.items():
            self.rc.hold(function, value)
        wait_until(lambda: self.speeds(3) == [expected] * 3, 5, f"{expected} by {sticks}")


@pytest.fixture
def cockpits(stations):
    """cockpits(conf="", state=LIVE) makes a Cockpit with RC input enabled, the only one of a test.
    `conf` is added to its configuration."""

    def make(conf="", state=RcReader.LIVE):
        return Cockpit(stations(conf="rc_input_enabled=1\n" + conf), state=state)

    return make


@pytest.fixture
def cockpit(cockpits):
    """A Cockpit with the RC in charge."""
    one = cockpits()
    one.rc.cycle()
    return one


# --- Who is in charge ----------------------------------------------------------------------------

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


STEERED = "rc_input_speed_pan=100\nrc_input_speed_tilt=100\nrc_input_speed_dutch=100\n"


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


# --- Steering ------------------------------------------------------------------------------------


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


# --- Record --------------------------------------------------------------------------------------


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
    cockpit.rc.state(0)
    cockpit.await_exactly([ZERO])
    cockpit.rc.state(6)
    cockpit.check(NOTHING)
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


# --- Exposure compensation -----------------------------------------------------------------------

EV_STEPS = 19


def ev(index):
    """The frame of a step, 0 to 18. It goes without a word."""
    return [camera(0x2E, f"{7 + index:02X}")]


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
    cockpit.rc.state(0)
    cockpit.await_exactly([ZERO])
    cockpit.rc.state(6)
    cockpit.check(NOTHING)


# --- Focus point ---------------------------------------------------------------------------------

REST = 0.2  # after which a moved point is sent
FOCUS = ("focus-pan", "focus-tilt")


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


def test_focus_point_is_sent_at_rest_only(cockpits):
    cockpit = cockpits("rc_input_speed_pan=10\nrc_input_speed_tilt=10\n")
    cockpit.rc.assign(*FOCUS)
    cockpit.await_exactly(focus_point(0.5, 0.5))
    cockpit.rc.hold("focus-pan", -1.0)
    last, moved, slowest = 0.5, time.monotonic(), 0.0
    while cockpit.focus_point()[0] > 0.2:
        now = time.monotonic()
        if cockpit.focus_point()[0] != last:
            last, slowest, moved = cockpit.focus_point()[0], max(slowest, now - moved), now
        time.sleep(0.001)
    # A machine that halts the service for so long has the point rest.
    assert cockpit.seen() == NOTHING or slowest > REST - 2 * CYCLE
    cockpit.rc.hold("focus-pan", 0.0)
    cockpit.rc.cycle()
    rested = time.time()
    cockpit.await_exactly(focus_point(*cockpit.focus_point()))
    kind, _ = cockpit.frames()[-2:]
    assert REST - 2 * limit(CYCLE) < kind.time - rested < limit(REST + 0.15)
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


# --- Stepped settings ----------------------------------------------------------------------------

ISO = {0: 0, 100: 3, 200: 4, 400: 5, 800: 6, 1600: 7, 3200: 8, 6400: 9}
SHUTTER = """
    30s 25s 20s 15s 10s 9s 8s 7s 6s 5s 4s 3.2s 3s 2.5s 2s 1.6s 1.3s 1s 1.25 1.67 2 2.5 3 4 5 6.25 8
    10 12.5 15 20 25 30 40 50 60 80 100 120 160 200 240 320 400 500 640 800 1000 1250 1600 2000 2500
    3200 4000 5000 6400 8000
    """.split()
EXPOSURE_MODES = {"auto": 1, "manual": 4, "shutter": 2, "aperture": 3}


def shutter(text):
    """The whole part, with the highest bit set for fractions of a second, and the decimals."""
    whole, _, decimals = text.rstrip("s").partition(".")
    word = int(whole) | (0 if text.endswith("s") else 0x8000)
    payload = struct.pack("<BHB", 0x01, word, int(decimals or "0"))
    return [f"Camera set shutter {text}\n", camera(0x28, payload.hex())]


# What each step of a setting leads to.
STEPS = {
    "iso": [[f"Camera set iso {iso}\n", camera(0x2A, f"{code:02X}")] for iso, code in ISO.items()],
    "shutter": [shutter(text) for text in SHUTTER],
    "videomode": [[f"Camera set video mode {mode}\n", camera(0x1E, f"{code:02X} 00")]
                  for mode, code in EXPOSURE_MODES.items()],
}
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
    cockpit.rc.state(0)
    cockpit.await_exactly([ZERO])
    cockpit.rc.state(6)
    cockpit.check(NOTHING)
    cockpit.rc.drop(function)
    cockpit.move(function, 1.0, NOTHING)
    cockpit.move(function, 0.0, NOTHING)
    cockpit.rc.assign(function)
    cockpit.check(NOTHING)
    push(cockpit, function, 1.0, steps[2])


def test_latch_outlasts_the_receiver(cockpit):
    assign_stepped(cockpit, "iso")
    cockpit.move("iso", 1.0, STEPS["iso"][1])
    cockpit.rc.state(0)
    cockpit.await_exactly([ZERO])
    cockpit.rc.state(6)
    cockpit.check(NOTHING)
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


# --- Positions and two-position switches ---------------------------------------------------------

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
def test_center(cockpit, script):
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


KILLALL = ["killall", "-q", "raspivid"]
INTERNAL_CAMERA = ["Save config\n"]


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
    cockpit.rc.state(0)
    cockpit.await_exactly([ZERO])
    cockpit.rc.state(6)
    cockpit.check(NOTHING)
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


# --- All of them ---------------------------------------------------------------------------------


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
