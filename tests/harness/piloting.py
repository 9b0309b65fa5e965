"""A running service with its camera and the pilot's end of it: the RC reader.

Test files that use the fixtures say so: pytest_plugins = ["harness.commanding",
"harness.piloting"].
"""

import math
import struct

import pytest

from harness.duml import GIMBAL, Command, camera, gimbal, parse, speed
from harness.receiver import RcReader
from harness.timing import wait_until

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

    def lose_receiver(self):
        """The receiver falls silent, which stops the gimbal, and is live again, which alone does
        nothing."""
        self.rc.state(0)
        self.await_exactly([ZERO])
        self.rc.state(RcReader.LIVE)
        self.check(NOTHING)

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


# --- What sticks and switches lead to ------------------------------------------------------------

STEERED = "rc_input_speed_pan=100\nrc_input_speed_tilt=100\nrc_input_speed_dutch=100\n"
REST = 0.2  # after which a moved point is sent
FOCUS = ("focus-pan", "focus-tilt")
EV_STEPS = 19


def ev(index):
    """The frame of a step, 0 to 18. It goes without a word."""
    return [camera(0x2E, f"{7 + index:02X}")]


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
KILLALL = ["killall", "-q", "raspivid"]
INTERNAL_CAMERA = ["Save config\n"]
