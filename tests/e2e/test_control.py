"""The control threads: the command mailbox, the RC report, telemetry that stops coming, and what
start-up says and sets for them."""

import itertools
import os
import random
import struct
import time

import pytest

from harness.duml import camera, command, parse, speed
from harness.region import DisplayRegion
from harness.timing import limit, now_ms, wait_until

pytest_plugins = ["harness.commanding"]

FOCUS_POINT = DisplayRegion.FOCUS_POINT_X  # two doubles
# Where the time of the last report stands.
TELEMETRY = {"Tracking": DisplayRegion.TRACKING_MS, "Histogram": DisplayRegion.HISTOGRAM_MS}

MAILBOX, MAILBOX_SIZE = DisplayRegion.COMMAND_MAILBOX
MAILBOX_PERIOD = 0.050
LOOKS = 4 * MAILBOX_PERIOD  # long enough for some looks at the mailbox

SHOT = ["Camera shot\n", camera(0x01, "01")]
EXPOSURE_POINT = command("exposure", "point", "7")  # holds it for 200 ms


def put(region, data):
    """Fills the mailbox from its start as another process does: what is looked at goes last."""
    region.write(MAILBOX + 1, data[1:])
    region.write(MAILBOX, data[:1])


def mailbox(region):
    return bytes(region.bytes(MAILBOX, MAILBOX_SIZE))


def is_empty(region):
    return not any(mailbox(region))


# --- Start-up ------------------------------------------------------------------------------------


def test_control_starts_behind_the_sources(service):
    """Its line is the last of a start, and comes once."""
    text = service.err.wait("Init control\n")
    assert text.endswith("Init video source... done\nInit control\n")
    assert text.count("Init control\n") == 1


@pytest.mark.parametrize("before", [None, b"\0", b"\xff"], ids=["new", "zeros", "ones"])
def test_the_focus_point_starts_in_the_middle(stations, region, before):
    """Also in a region of an earlier run."""
    if before is not None:
        region.create(before * region.size)
        region.write(MAILBOX, bytes(MAILBOX_SIZE))
        region.write(region.ORIENTATION_LOCK, b"\0")  # no locked orientation
    station = stations(introduce=False)
    station.fence()
    middle = struct.pack("<2d", 0.5, 0.5)
    assert region.bytes(FOCUS_POINT, len(middle)) == middle
    if before is not None:
        assert region.bytes(FOCUS_POINT - 8, 8) == before * 8
        assert region.bytes(FOCUS_POINT + len(middle), 8) == before * 8


def test_a_command_that_waits_at_the_start_is_done(stations, region):
    region.create()
    put(region, b'{"cmd":"gimbal","param":"mode","value1":"early"}')
    stations().camera.wait_text("Gimbal set mode early\n")
    assert is_empty(region)


# --- The mailbox ---------------------------------------------------------------------------------


WRITTEN = {
    b'{"cmd":"shot"}': SHOT,
    # A viewer's command begins with its brace; what others write need not.
    b' \t\r\n{"cmd":"shot"}': SHOT,
    b'[{"cmd":"shot"}]': [],
    b'["cmd","shot"]': [],
    b'"shot"': [],
    b"shot": [],
    b"null": [],
    b"1e999": [],
    b" ": [],
}


def test_any_process_may_write_a_command(station):
    for text, effects in WRITTEN.items():
        put(station.region, text + b"\0")
        wait_until(lambda: is_empty(station.region), 5, "the look at the mailbox")
        _, last = station.fence()
        assert station.effects() == [*station.numbered(effects), *last], text


def test_the_mailbox_is_looked_at_every_50_ms(station):
    """At most one command is taken at a look, however fast the next one follows."""
    count = 20
    taken = []
    for _ in range(count):
        wait_until(lambda: is_empty(station.region), 5, "the look at the mailbox")
        taken.append(time.monotonic())
        put(station.region, b"x")
    # The first is taken at any moment of a period.
    lasted = (taken[-1] - taken[1]) / (count - 2)
    assert MAILBOX_PERIOD * 0.95 < lasted
    # A busy machine stretches some of them.
    assert min(after - before for before, after in itertools.pairwise(taken[1:])) < limit(
        MAILBOX_PERIOD * 1.1)


def test_all_of_the_mailbox_is_cleared_before_the_command_is_done(station):
    """What lies behind the text is cleared with it, and is no part of it."""
    text = b'{"cmd":"exposure","param":"center"}\0'
    behind = b'{"cmd":"shot"}' * MAILBOX_SIZE
    put(station.region, (text + behind)[:MAILBOX_SIZE])
    station.camera.wait_text("Camera set auto exposure lock to 0\n")
    assert is_empty(station.region)
    station.camera.wait_text("Camera set exposure to center\n")
    station.fence()
    assert "Camera shot\n" not in station.effects()


@pytest.mark.parametrize("filling", [b"x", b"{", b"\xff", b'"', b"["], ids=repr)
def test_a_mailbox_without_an_end(station, filling):
    """No more is read than the mailbox holds: whatever lies behind it is not looked at."""
    before = bytes(station.region.bytes(MAILBOX + MAILBOX_SIZE))
    for _ in range(3):
        put(station.region, filling * MAILBOX_SIZE)
        wait_until(lambda: is_empty(station.region), 5, "the look at the mailbox")
    station.check([(command("shot"), SHOT)])
    assert station.region.bytes(MAILBOX + MAILBOX_SIZE) == before


def test_a_mailbox_whose_first_byte_is_zero_is_empty(station):
    content = b'\0"cmd":"shot"}'.ljust(MAILBOX_SIZE, b"x")
    put(station.region, content)
    time.sleep(LOOKS)
    assert mailbox(station.region) == content
    assert station.effects() == []
    station.check([(command("shot"), SHOT)])
    assert is_empty(station.region)


def test_a_second_command_replaces_the_first(station, standins):
    """Nothing is left of a longer one. Here both come while a third one is done."""
    go = standins.folder / "go"
    standins.answer("iwlist", f"until [ -e {go} ]; do sleep 0.01; done")
    station.send({"cmd": "wlan", "param": "scan", "value": "1"})
    station.camera.wait_text("scan Wi-Fi on wifi0\n")
    station.viewer.command('{"cmd":"gimbal","param":"mode","value1":"' + "long" * 100 + '"}')
    station.viewer.command('{"cmd":"gimbal","param":"mode","value1":"first"}')
    station.post('{"cmd":"shot"}')
    assert mailbox(station.region) == b'{"cmd":"shot"}'.ljust(MAILBOX_SIZE, b"\0")
    go.touch()
    station.camera.wait_text("Camera shot\n")
    station.fence()
    assert not [effect for effect in station.effects() if isinstance(effect, str)
                and ("first" in effect or "long" in effect)]


def test_the_settings_see_a_command_first(start, viewers, cameras):
    """Every command goes to both, and either acts on its own; the console tells the order."""
    camera_ = cameras()

    def one_console():
        camera_.take_console()
        os.dup2(2, 1)

    start(wait_ready=False, preexec_fn=one_console)
    camera_.wait_text("Init control\n", 10)
    first = camera_.count()
    viewers().command('{"cmd":"shot"}')
    camera_.wait_text("Camera shot\n")
    assert [event.text for event in camera_.events(first)] == [
        'config_parse_command {"cmd":"shot"}\n', "Camera shot\n"]


# --- A command that takes its time ---------------------------------------------------------------


def test_the_last_command_of_a_flood_is_done(station):
    """However the flood falls to the looks at the mailbox. (The unit tests have 1,000 of them.)"""
    for number in range(20):
        for size in range(50):
            station.viewer.command('{"cmd":"none","value":"' + "x" * (size * 9) + '"}')
        station.viewer.command(f'{{"cmd":"gimbal","param":"mode","value1":"last {number}"}}')
        station.camera.wait_text(f"Gimbal set mode last {number}\n")


def test_a_long_command_holds_nothing_but_the_mailbox(station, viewers):
    """Commands that take 200 ms each, one after the other: the stream keeps its period, and the
    status loop its own."""
    viewer = viewers()
    viewer.keep_alive()
    viewer.message(11)
    viewer.speed(1, 4000, 0, 0)
    station.camera.wait_frames(1)
    start, first = station.camera.count(), len(viewer.frames)
    begin = time.monotonic()
    for _ in range(15):
        station.send(EXPOSURE_POINT)
    station.fence()
    lasted = time.monotonic() - begin
    assert lasted > 15 * 0.2

    said = [(event.time, parse(event.data)[0]) for event in station.camera.frames(start)]
    times = [when for when, what in said if what == speed(pan=1000, roll=0, tilt=0)]
    gaps = sorted(after - before for before, after in zip(times, times[1:]))
    assert gaps[len(gaps) // 2] < limit(0.035)
    assert len(times) > lasted / 0.030 / limit(1.5)
    statuses = [frame for frame in viewer.frames[first:] if frame.payload[:1] == b"\x0b"]
    assert len(statuses) >= int(lasted / limit(1.3))


def test_a_stop_gets_through_while_a_long_command_is_done(station):
    station.viewer.speed(1, 4000, 0, 0)
    station.camera.wait_frames(1)
    start = station.camera.count()
    station.post(EXPOSURE_POINT)
    station.camera.wait_text("Camera set auto exposure lock to 0\n")
    station.viewer.speed(1, 0, 0, 0)
    station.camera.wait_text("Camera set auto exposure lock to 1\n")
    said = [event.text if not event.is_frame else parse(event.data)[0]
            for event in station.camera.events(start)]
    assert speed(0, 0, 0) in said[:said.index("Camera set auto exposure lock to 1\n")]


# --- The RC report -------------------------------------------------------------------------------

RC_REPORT = 15
RC_REPORT_SIZE = 67
RC_PERIOD = 0.5
RC_CONF = "rc_input_enabled=1\n"


def is_report(frame):
    return not frame.video and frame.payload[:1] == bytes([RC_REPORT])


def reports(viewer):
    return [frame for frame in list(viewer.frames) if is_report(frame)]


def set_receiver(region, state, channels):
    region.write(region.RC_CHANNEL_VALUES[0], struct.pack("<32H", *channels))
    region.write(DisplayRegion.RC_STATUS, bytes([state]))


def test_rc_report(start, viewers, region):
    """The receiver's state and all channels as they are now, to every viewer."""
    start(RC_CONF)
    chance = random.Random(3)
    everyone = [viewers(f"127.0.0.{n}") for n in range(1, 5)]
    for number, viewer in enumerate(everyone):
        viewer.register(number % 2)  # also to those that want data only
    # Not the state 6, in which the RC drives the gimbal.
    for state in (0, 1, 5, 7, 0xA5, 255):
        channels = [chance.randrange(0x10000) for _ in range(32)]
        set_receiver(region, state, channels)
        expected = struct.pack("<3B32H", RC_REPORT, state, 32, *channels)
        assert len(expected) == RC_REPORT_SIZE
        for viewer in everyone:
            viewer.register()
            # One that was put together before may still be on its way.
            first = len(viewer.frames)
            viewer.wait(lambda frame: is_report(frame) and frame.payload == expected, 5,
                        "the report", first)
    for viewer in everyone:
        assert {len(frame.payload) for frame in reports(viewer)} == {RC_REPORT_SIZE}
        assert {frame.data[1] for frame in reports(viewer)} == {0}


def test_period_of_the_rc_report(start, viewers):
    """Sent at the first look at the clock that finds more than 500 ms gone, every 50 ms."""
    start(RC_CONF)
    viewer = viewers()
    viewer.keep_alive()
    times = [frame.time for frame in viewer.wait_count(is_report, 8, 10)]
    periods = len(times) - 1
    # A reader that was held up at the first of them sees all others early.
    assert periods * RC_PERIOD - limit(0.15) < times[-1] - times[0] < periods * limit(0.62)


@pytest.mark.parametrize("conf", ["", "rc_input_enabled=0\n"])
def test_without_the_rc_input_there_is_no_report(start, viewers, region, conf):
    start(conf)
    set_receiver(region, 5, range(32))
    viewer = viewers()
    viewer.keep_alive()
    viewer.message(11)
    time.sleep(4 * RC_PERIOD)
    assert reports(viewer) == []


# --- Telemetry that stops coming -----------------------------------------------------------------

TIMEOUT = 3.0
CHECK_PERIOD = 1.0


def stamp(region, kind, when_ms):
    region.write(TELEMETRY[kind], struct.pack("<I", when_ms % 2 ** 32))


def lost_texts(station):
    return [effect for effect in station.effects() if effect in
            [f"{kind} lost\n" for kind in TELEMETRY]]


@pytest.mark.timing
@pytest.mark.parametrize("kind, other", [tuple(TELEMETRY), tuple(TELEMETRY)[::-1]])
def test_telemetry_that_stops_is_reported_once(station, kind, other):
    """3 seconds after its last report, at the status loop's next pass; one that goes on is not."""
    region, camera_ = station.region, station.camera
    begin = now_ms()
    stamp(region, kind, begin)

    def refreshed_until(condition, seconds):
        def check():
            stamp(region, other, now_ms())
            return condition()
        wait_until(check, seconds, "the loss")

    refreshed_until(lambda: region.value("I", TELEMETRY[kind]) == 0, 6)
    lost = camera_.wait_text(f"{kind} lost\n")
    after = (int(lost.time * 1000) - begin) % 2 ** 32 / 1000
    assert TIMEOUT < after < TIMEOUT + limit(CHECK_PERIOD + 0.2)
    end = time.monotonic() + 2.2 * CHECK_PERIOD
    refreshed_until(lambda: time.monotonic() > end, 10)
    assert lost_texts(station) == [f"{kind} lost\n"]

    last = region.value("I", TELEMETRY[other])
    assert last != 0
    lost = camera_.wait_text(f"{other} lost\n")
    wait_until(lambda: region.value("I", TELEMETRY[other]) == 0, 1, "the cleared stamp")
    after = (int(lost.time * 1000) - last) % 2 ** 32 / 1000
    assert TIMEOUT < after < TIMEOUT + limit(CHECK_PERIOD + 0.2)
    assert lost_texts(station) == [f"{other} lost\n"]


@pytest.mark.timing
@pytest.mark.parametrize("kind", TELEMETRY)
@pytest.mark.parametrize("age_ms", [-60_000, 60_000, 2 ** 31])
def test_an_old_stamp_is_reported_at_the_next_check(station, kind, age_ms):
    """One from the future is as old as can be."""
    begin = time.time()
    stamp(station.region, kind, now_ms() - age_ms)
    lost = station.camera.wait_text(f"{kind} lost\n")
    assert lost.time - begin < limit(2 * CHECK_PERIOD)  # the check itself runs a tool
    assert station.region.value("I", TELEMETRY[kind]) == 0
    time.sleep(1.2 * CHECK_PERIOD)
    assert lost_texts(station) == [f"{kind} lost\n"]


def test_telemetry_that_never_came_is_not_lost(station):
    time.sleep(TIMEOUT + 1.5 * CHECK_PERIOD)
    assert lost_texts(station) == []
