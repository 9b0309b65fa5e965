"""The gimbal's speed: what viewers and commands ask for, summed and streamed to the gimbal every
30 ms, and stopped with one frame of zeros."""

import contextlib
import itertools
import json
import random
import statistics
import struct
import threading
import time

import pytest

from harness.camera import Camera
from harness.duml import command, parse, speed
from harness.timing import limit, wait_until
from harness.udp import VIEWER_PORT, datagrams_refused, socket_queue

pytest_plugins = ["harness.commanding"]

PERIOD = 0.030
STOP = speed(0, 0, 0)
HOLD = speed(pan=1, roll=0, tilt=0)  # keeps a locked orientation
SILENCE = 10 * PERIOD


def said(events):
    """What the frames among the events say."""
    return [parse(event.data)[0] for event in events if event.is_frame]


def runs(events):
    """What the frames say, and how often one after the other."""
    return [(one, len(list(equals))) for one, equals in itertools.groupby(said(events))]


def last(events, count=1):
    """What the last frames say."""
    return said([event for event in events if event.is_frame][-count:])


@contextlib.contextmanager
def changes_to(station, new, *, count=3):
    """Passes if what is done inside leads from the present stream straight to that one."""
    camera = station.camera
    start = camera.count()
    before = last(camera.events())
    yield
    camera.wait(lambda events: said(events).count(new) >= count, 5, f"the stream of {new}", start)
    changes = [one for one, _ in runs(camera.events(start))]
    assert changes in ([new], [*before, new])


@contextlib.contextmanager
def changes_nothing(station):
    """Passes if the stream, or the silence, is not changed by what is done inside, which ends when
    its effects could be seen."""
    camera = station.camera
    start = camera.count()
    before = last(camera.events())
    yield
    if before in ([], [STOP]):
        time.sleep(SILENCE)
        assert said(camera.events(start)) == []
    else:
        camera.wait_frames(3, start=camera.count())
        assert [one for one, _ in runs(camera.events(start))] == before


def stops(station, stop):
    """Passes if stop() ends the stream with a frame of zeros, and then there is silence. Returns
    how many such frames there were: one; or two, because the stream was just sending the old speed
    and had to take it back."""
    start = station.camera.count()
    moving = last(station.camera.events())
    stop()
    station.camera.wait(lambda events: STOP in said(events), 5, "the stop", start)
    time.sleep(SILENCE)
    ended = runs(station.camera.events(start))
    (ending, count) = ended[-1]
    assert ending == STOP and count <= 2
    assert [one for one, _ in ended] in ([STOP], [*moving, STOP], [STOP, *moving, STOP])
    return count


def move(*values):
    """The command for a relative move: its tilt is turned, its unit a viewer's."""
    return command("position", "moverel", *values)


# --- One speed -----------------------------------------------------------------------------------


def test_nothing_is_sent_without_a_speed(station):
    time.sleep(SILENCE)
    assert station.camera.frames() == []


def test_a_speed_is_streamed_until_it_is_zero(station):
    station.viewer.speed(1, 4000, 0, 0)
    station.camera.wait_frames(20)
    stops(station, lambda: station.viewer.speed(1, 0, 0, 0))
    assert last(station.camera.events()[:20]) == [speed(pan=1000, roll=0, tilt=0)]
    numbers = [parse(event.data)[1] for event in station.camera.frames()]
    assert numbers == list(range(len(numbers)))


def test_a_stop_is_one_frame(station):
    """But for those that meet the stream at work, which most of them do not."""
    counts = []
    for _ in range(5):
        station.viewer.speed(1, 4000, 0, 0)
        station.camera.wait_frames(2, start=station.camera.count())
        time.sleep(PERIOD / 3)
        counts.append(stops(station, lambda: station.viewer.speed(1, 0, 0, 0)))
    assert counts.count(1) >= 3, counts


# A quarter of what the viewer says, truncated; the roll goes before the tilt.
SPEEDS = {
    (4000, 0, 0): speed(pan=1000, roll=0, tilt=0),
    (0, 4000, 0): speed(pan=0, roll=0, tilt=1000),
    (0, 0, 4000): speed(pan=0, roll=1000, tilt=0),
    (4, 40, 400): speed(pan=1, roll=100, tilt=10),
    (-4, -40, -400): speed(pan=-1, roll=-100, tilt=-10),
    (-4000, 8000, -12000): speed(pan=-1000, roll=-3000, tilt=2000),
    (7, -7, 3): speed(pan=1, roll=0, tilt=-1),
    (32767, -32768, 32767): speed(pan=8191, roll=8191, tilt=-8192),
    (-32768, 32767, -32768): speed(pan=-8192, roll=-8192, tilt=8191),
    # Too slow for the wire, and a speed nevertheless.
    (1, 0, 0): STOP,
    (0, -3, 0): STOP,
    (0, 0, 2): STOP,
}


def test_viewer_speeds(station):
    for values, expected in SPEEDS.items():
        with changes_to(station, expected):
            station.viewer.speed(1, *values)
    station.viewer.speed(1, 400, 0, 0)
    station.camera.wait(lambda events: last(events) == [speed(100, 0, 0)])
    stops(station, lambda: station.viewer.speed(1, 0, 0, 0))


@pytest.mark.parametrize("mode", [0, 2, 255])
def test_other_modes_change_nothing(station, mode):
    """Neither the stream nor what is stored, which the sum with a command's speed would show."""
    def speeds_of_that_mode():
        for values in ((-8000, 400, 400), (0, 0, 0), (12, 12, 12)):
            station.viewer.speed(mode, *values)
        station.wait_handled()

    with changes_nothing(station):
        speeds_of_that_mode()
    with changes_to(station, speed(pan=1000, roll=0, tilt=-1000)):
        station.send(move("4000", "4000"))
    with changes_to(station, speed(pan=2000, roll=0, tilt=-1000)):
        station.viewer.speed(1, 4000, 0, 0)
    with changes_nothing(station):
        speeds_of_that_mode()
    with changes_to(station, speed(pan=500, roll=0, tilt=0)):
        station.send(move("-2000", "0"))


# What may lie in the buffer that a short datagram is received into.
LONG_DATAGRAM = b"\x42" + b"\xff" * 1000


@pytest.mark.parametrize("length", range(1, 9))
def test_missing_bytes_are_zero(station, length):
    whole = struct.pack("<BB3h", 5, 1, 4001, -4001, 8003)
    values = struct.unpack("<3h", whole[:length].ljust(len(whole), b"\0")[2:])
    station.viewer.speed(1, 400, 0, 0)
    station.camera.wait_frames(1)

    def short():
        station.viewer.send_raw(LONG_DATAGRAM)
        station.viewer.send(whole[:length])
        station.wait_handled()

    if length == 1:  # without its mode, it is no speed
        with changes_nothing(station):
            short()
    elif not any(values):
        stops(station, short)
    else:
        pan, tilt, roll = (int(value / 4) for value in values)
        with changes_to(station, speed(pan, roll, tilt)):
            short()


def test_bytes_behind_a_speed_are_ignored(station):
    with changes_to(station, speed(pan=1, roll=3, tilt=2)):
        station.viewer.send(struct.pack("<BB3h", 5, 1, 4, 8, 12) + b"\xff" * 1000)


# --- Two speeds ----------------------------------------------------------------------------------


def test_speeds_of_a_viewer_and_a_command_add_up(station, viewers):
    # Eighths add up exactly.
    with changes_to(station, speed(pan=1000, roll=375, tilt=250)):
        station.viewer.speed(1, 4000, 1000, 1500)
    with changes_to(station, speed(pan=1125, roll=1125, tilt=-125)):
        station.send(move("500", "1500", "3000"))
    with changes_to(station, speed(pan=-875, roll=1125, tilt=-125)):
        viewers().speed(1, -4000, 1000, 1500)  # viewers share one speed
    with changes_to(station, speed(pan=125, roll=750, tilt=-375)):
        station.viewer.speed(1, 0, 0, 0)
    with changes_to(station, speed(pan=5000, roll=7000, tilt=6000)):
        station.send(command("position", "speed", "5", "6", "7"))
    stops(station, lambda: station.send(command("position", "speed", "0", "0", "0")))


CANCELLING = {
    "pan": ((4000, 0, 0), ("-4000", "0", "0"), speed(pan=1000, roll=0, tilt=0)),
    "tilt": ((0, 4001, 0), ("0", "4001", "0"), speed(pan=0, roll=0, tilt=1000)),
    "roll": ((0, 0, -1), ("0", "0", "1"), STOP),
    "all": ((-32768, 32767, 11), ("32768", "32767", "-11"), speed(pan=-8192, roll=2, tilt=8191)),
}


@pytest.mark.parametrize("viewer_speed, values, moving", CANCELLING.values(), ids=CANCELLING)
def test_speeds_that_cancel_out_stop_the_gimbal(station, viewer_speed, values, moving):
    """Whichever comes second; and either goes on when the other one ends."""
    backwards = speed(*(-value for value in struct.unpack("<3h", moving.payload[:6])))
    with changes_to(station, moving):
        station.viewer.speed(1, *viewer_speed)
    if moving != STOP:
        stops(station, lambda: station.send(move(*values)))
    else:
        station.send(move(*values))
        time.sleep(SILENCE)
    with changes_to(station, backwards):
        station.viewer.speed(1, 0, 0, 0)
    station.viewer.speed(1, *viewer_speed)
    station.wait_handled()
    time.sleep(limit(PERIOD))
    with changes_nothing(station):
        pass
    with changes_to(station, moving):
        station.send(move("0", "0"))


# --- Inversion -----------------------------------------------------------------------------------

AXES = ("pan", "tilt", "dutch")


@pytest.mark.parametrize("axes, value", [
    *(([axis], value) for axis in AXES for value in ("1", "-1", "256")),
    (AXES, "2"),
    (AXES, "99999999999"),
    (AXES, "0"),
    (AXES, "no"),
], ids=lambda value: value if isinstance(value, str) else "+".join(value))
def test_inversion(stations, axes, value):
    """Each axis has a setting, which turns around the speeds of both sources, each once."""
    station = stations(conf="".join(f"rc_input_inverse_{axis}={value}\n" for axis in axes))
    turns = value not in ("0", "no")

    def turned(pan, tilt, roll):
        pan, tilt, roll = (-speed_of_axis if turns and axis in axes else speed_of_axis
                           for axis, speed_of_axis in zip(AXES, (pan, tilt, roll)))
        return speed(pan, roll, tilt)

    with changes_to(station, turned(pan=1000, tilt=-500, roll=250)):
        station.viewer.speed(1, 4000, -2000, 1000)
    with changes_to(station, turned(pan=1125, tilt=-875, roll=875)):
        station.send(move("500", "1500", "2500"))
    with changes_to(station, turned(pan=125, tilt=-375, roll=625)):
        station.viewer.speed(1, 0, 0, 0)
    with changes_to(station, turned(pan=1000, tilt=2000, roll=3000)):
        station.send(command("position", "speed", "1", "2", "3"))
    stops(station, lambda: station.send(command("position", "speed", "0", "0", "0")))


# --- The locked orientation ----------------------------------------------------------------------


@pytest.mark.parametrize("lock", [1, 2, 255])
def test_a_locked_orientation_is_held_while_there_is_no_speed(station, lock):
    station.region.write(station.region.ORIENTATION_LOCK, bytes([lock]))
    events = station.camera.wait_frames(40)
    assert PERIOD * 0.9 < period_of(events) < limit(PERIOD * 1.5)
    assert set(said(events)) == {HOLD}

    with changes_to(station, speed(pan=100, roll=300, tilt=200)):
        station.viewer.speed(1, 400, 800, 1200)
    start = station.camera.count()
    station.viewer.speed(1, 0, 0, 0)
    station.camera.wait(lambda events: said(events).count(HOLD) >= 3, start=start)
    *_, stopped, held = [one for one, _ in runs(station.camera.events(start))]
    assert (stopped, held) == (STOP, HOLD)

    station.region.write(station.region.ORIENTATION_LOCK, b"\0")
    time.sleep(limit(2 * PERIOD))
    start = station.camera.count()
    time.sleep(SILENCE)
    assert said(station.camera.events(start)) == []
    assert last(station.camera.events()) == [HOLD], "the end of the lock is not announced"


def test_an_orientation_that_was_locked_before_the_start_is_held(region, stations):
    region.create()
    region.write(region.ORIENTATION_LOCK, b"\1")
    assert set(said(stations().camera.wait_frames(5))) == {HOLD}


# --- The period ----------------------------------------------------------------------------------


def period_of(events):
    """The time from one frame to the next, seconds. The median of longer spans: a moment in which
    the whole machine stood still does not count."""
    span = 15
    times = [event.time for event in events if event.is_frame]
    return statistics.median(after - before for before, after in zip(times, times[span:])) / span


def assert_no_drift(station):
    """Less than a millisecond a second, in one measurement of some: the machine may be too busy."""
    drifts = []
    while len(drifts) < 4:
        events = station.camera.wait_frames(120, 15, station.camera.count())
        drifts.append(period_of(events) / PERIOD - 1)
        if abs(drifts[-1]) < 0.001:
            return
    assert False, f"drifts of {drifts}"


def test_the_stream_does_not_drift(station):
    station.viewer.speed(1, 4000, 0, 0)
    assert_no_drift(station)


class Flood:
    """Repeats send(number) as fast as it can, from a thread of its own."""

    def __init__(self, send):
        self._stop = threading.Event()
        self._send = send
        self._done = 0
        self._thread = threading.Thread(target=self._run)

    def _run(self):
        for number in itertools.count():
            if self._stop.is_set():
                return
            self._send(number)
            self._done = number + 1

    def wait_round(self):
        """Waits for one that begins and ends from now on."""
        done = self._done
        wait_until(lambda: self._done > done + 1, 5, "a round of the flood")

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._stop.set()
        self._thread.join()


def test_the_stream_keeps_its_period_under_a_flood_of_speeds(station, viewers):
    """Setting a speed sends nothing, however often it is done."""
    one = viewers()
    with Flood(lambda number: one.speed(1, 4000 + 4 * (number % 100), 0, 0)):
        station.camera.wait_frames(1)
        assert_no_drift(station)
        events = station.camera.events()
    assert {one.payload[2:] for one in said(events)} == {speed(0, 0, 0).payload[2:]}
    assert all(1000 <= struct.unpack_from("<h", one.payload)[0] < 1100 for one in said(events))
    station.viewer.speed(1, 4, 8, 12)
    station.camera.wait(lambda events: last(events) == [speed(pan=1, roll=3, tilt=2)])


# --- Before everything is up ---------------------------------------------------------------------


def test_a_speed_that_is_set_before_the_camera_is_heard_is_not_lost(stations):
    station = stations(introduce=False)
    station.viewer.speed(1, 4000, -2000, 1000)
    station.wait_handled()
    time.sleep(SILENCE)
    assert station.camera.frames() == []
    station.camera.introduce()
    events = station.camera.wait_frames(3)
    assert set(said(events)) == {speed(pan=1000, roll=250, tilt=-500)}
    assert parse(events[0].data)[1] > 0, "the frames that nobody got had numbers"


def test_speeds_and_commands_that_come_during_the_start(start, viewers):
    """From before the ports are open on. None of it may be met by something that is not there yet,
    and what comes last counts."""
    one = viewers()

    def send(number):
        one.speed(1, 4000 * (number % 2), 8, 12)
        one.speed(1, 4000, 8000, 12000)
        one.command(json.dumps(move("500", "-1000", "1500")))
        time.sleep(0.0002)

    for _ in range(20):
        refused = datagrams_refused()
        with Flood(send) as flood:
            camera = Camera()
            service = start(wait_ready=False, preexec_fn=camera.take_console)
            camera.wait_text("Init control\n", 10)
            camera.introduce()
            camera.wait_frames(1)
            flood.wait_round()  # what came while the ports were being opened is lost
        if datagrams_refused() > refused:  # the last ones may be among them
            wait_until(lambda: socket_queue(VIEWER_PORT)[0] == 0, 10, "an empty queue")
            send(1)
        camera.wait(lambda events: last(events) == [speed(pan=1125, roll=3375, tilt=2250)])
        service.stop()
        camera.close()


# --- Several at once -----------------------------------------------------------------------------


class Turmoil:
    """Several senders who set and stop speeds as fast as they can."""

    CHANCES = (0, 4000, -4000)

    def __init__(self, station, others):
        self.station = station
        self.senders = [station.viewer, *others]
        self.chance = random.Random(11)

    def any_speed(self):
        return self.chance.choice(self.CHANCES)

    def move_by(self, value):
        self.station.viewer.command(json.dumps(move(str(value), "0")))

    def settle(self):
        mailbox, size = self.station.region.COMMAND_MAILBOX
        self.station.wait_handled()
        wait_until(lambda: not any(self.station.region.bytes(mailbox, size)), 5, "the last command")
        self.station.fence()

    def rage(self):
        """Of all, for a moment."""
        end = time.monotonic() + 0.05
        # As many as wait in the port's queue while the service does not run: no more, or the last
        # ones would be lost.
        for _ in range(500):
            if time.monotonic() > end:
                break
            for sender in self.senders:
                sender.speed(1, self.any_speed(), 0, 0)
            if self.chance.random() < 0.02:
                self.move_by(self.any_speed())
        self.settle()

    def last_words(self):
        """Of one viewer, and of a command; what must be left of them."""
        by_viewer, by_command = self.any_speed(), self.any_speed()
        self.move_by(by_command)
        for _ in range(self.chance.randrange(500)):
            self.station.viewer.speed(1, self.any_speed(), 0, 0)
        self.station.viewer.speed(1, by_viewer, 0, 0)
        self.settle()
        return speed((by_viewer + by_command) // 4, 0, 0)


def test_the_gimbal_is_left_with_the_sum_of_the_last_speeds(station, viewers):
    """Speeds are set and stopped by several senders as fast as they can. Afterwards the stream
    shows the last ones, or ends with a stop."""
    turmoil = Turmoil(station, [viewers(), viewers()])
    for _ in range(40):
        turmoil.rage()
        left = turmoil.last_words()
        start = station.camera.count()
        if left == STOP:
            station.camera.wait(lambda events: last(events) == [STOP])
            time.sleep(limit(PERIOD))
            start = station.camera.count()
            time.sleep(3 * PERIOD)
            assert said(station.camera.events(start)) == []
        else:
            station.camera.wait(lambda events: last(events, 3) == [left] * 3, start=start)
