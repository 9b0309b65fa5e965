"""The frames to the camera: every byte of them, their numbers, where they go and how soon."""

import random
import time

import pytest

from harness import duml
from harness.duml import camera, command, parse, speed
from harness.timing import limit, wait_until
from harness.udp import DATA_PORT

pytest_plugins = ["harness.commanding"]

SHOT = command("shot")
SHOT_EFFECTS = ["Camera shot\n", camera(0x01, "01")]
CALIBRATE = command("horizont", "calibrate")
RESET = command("resetcamera")

# --- The yardstick -------------------------------------------------------------------------------


def test_checksums_of_known_frames():
    """The tests' own checksums are right."""
    assert duml.crc16(bytes.fromhex("55 0E 04 66 02 01 19 28 40 02 01 01")) == 0x3312
    lengths = {13: 0x33, 14: 0x66, 15: 0xA2, 17: 0x92, 18: 0xC7, 20: 0x6D, 21: 0xA9, 34: 0xEA}
    for length, check in lengths.items():
        assert duml.crc8(bytes([0x55, length, 0x04])) == check


def test_parse_refuses_every_changed_bit():
    """What the tests accept as a frame is sound in every bit."""
    frame = camera(0x26, "18 01").frame(0x1234)
    assert parse(frame) == (camera(0x26, "18 01"), 0x1234)
    for bit in range(8 * len(frame)):
        changed = bytearray(frame)
        changed[bit // 8] ^= 1 << bit % 8
        with pytest.raises(AssertionError):
            parse(bytes(changed))


# --- Whole frames --------------------------------------------------------------------------------

# The first commands after a start, and every byte of the frames that they become.
GOLDEN = [
    (command("shot"), [
        "55 0E 04 66 02 01 00 00 40 02 01 01 60 6E"]),
    (command("formatmicrosd"), [
        "55 0D 04 33 02 01 01 00 40 02 72 65 99"]),
    (command("camera", "mode", "video"), [
        "55 0E 04 66 09 01 02 00 40 02 10 01 13 4D"]),
    (command("horizont", "calibrate"), [
        "55 0E 04 66 02 04 03 00 40 04 07 00 3E 01",
        "55 15 04 A9 09 04 04 00 20 04 01 00 04 00 04 00 04 80 00 3C BB",
        "55 0D 04 33 02 04 05 00 40 04 08 FF 28"]),
    (command("tracking", "start", "0.68", "0.4583", "0.1823", "0.2796"), [
        "55 22 04 EA 02 01 06 00 40 02 A6 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
        "00 00 74 D3",
        "55 22 04 EA 02 01 07 00 40 02 A6 01 00 00 0E 00 7B 14 2E 3F 4C A6 EA 3E DA AC 3A 3E BB 27"
        "8F 3E D0 33"]),
    (command("position", "normal"), [
        "55 0F 04 A2 02 04 08 00 40 04 4C FE 08 BA 2D"]),
    (command("gimbal", "mode", "tiltlocked"), [
        "55 0F 04 A2 02 04 09 00 40 04 4C 02 00 8F EB",
        "55 11 04 92 02 04 0A 00 40 04 50 00 04 01 01 59 18"]),
    (command("video_resolution", "1920x1080@120"), [
        "55 12 04 C7 02 01 0B 00 40 02 18 0A 07 00 00 00 7C 4B",
        "55 0F 04 A2 02 01 0C 00 40 02 AF 0A 07 6D 9B"]),
    (command("focus", "point", "0.5", "0.25"), [
        "55 0E 04 66 02 01 0D 00 40 02 24 01 34 06",
        "55 15 04 A9 02 01 0E 00 40 02 30 00 00 00 3F 00 00 80 3E 8B 5C"]),
    (command("position", "speed", "0", "0", "0"), [
        "55 14 04 6D 02 04 0F 00 40 04 0C 00 00 00 00 00 00 90 C2 E8"]),
]


def test_golden_frames(station):
    """Each frame is one datagram, from the port that the bridge sends to."""
    for what, _ in GOLDEN:
        station.send(what)
    station.fence()
    sent = station.camera.frames()
    assert [event.data for event in sent] == [bytes.fromhex(f) for _, fs in GOLDEN for f in fs]
    assert {event.source[1] for event in sent} == {DATA_PORT}


# --- Numbers -------------------------------------------------------------------------------------


def test_numbers_rise_from_zero(station):
    """Each frame takes the next number, also the second and third of one command."""
    for what in (SHOT, CALIBRATE, SHOT):
        station.send(what)
    station.fence()
    assert [parse(event.data)[1] for event in station.camera.frames()] == [0, 1, 2, 3, 4]


def test_numbers_are_not_kept_across_runs(station, stations):
    station.check([(SHOT, SHOT_EFFECTS)])
    station.service.stop()
    stations().check([(SHOT, SHOT_EFFECTS)])


def test_dropped_frames_take_their_numbers(stations):
    """Before the bridge was heard there is nowhere to send to: the lines are written all the same,
    the frames are lost for ever, and their numbers with them."""
    station = stations(introduce=False)
    for what in (SHOT, CALIBRATE, RESET):
        station.send(what)
    _, last = station.fence()
    assert station.effects() == ["Camera shot\n", "Gimbal calibrate\n", *last]
    station.camera.introduce()
    station.sequence = 5
    station.check([(SHOT, SHOT_EFFECTS)])


def test_numbers_wrap(station):
    """After 65535 comes 0. Every speed of zero is one frame at once, which makes so many cheap."""
    zero = speed(0, 0, 0)
    burst = 1024
    for first in range(0, 0x10000 + burst, burst):
        start = station.camera.count()
        for _ in range(burst):
            station.viewer.speed(1, 0, 0, 0)
        wait_until(lambda: len(station.camera.frames(start)) >= burst, 5, "the frames")
        expected = [zero.frame(number % 0x10000) for number in range(first, first + burst)]
        assert [event.data for event in station.camera.frames(start)] == expected


# --- Where they go -------------------------------------------------------------------------------


def hear(station, one):
    """Has that camera speak, and waits until the frames go there; from then on all do."""
    start = one.count()
    one.send(b"\0")

    def arrives():
        station.viewer.speed(1, 0, 0, 0)
        return one.frames(start)

    wait_until(arrives, 5, "a frame at the last sender")


def shots(one):
    return [event for event in one.frames() if parse(event.data)[0] == camera(0x01, "01")]


def test_frames_follow_the_last_sender(station, cameras):
    """The bridge may come back on another port or address, and go back again."""
    first, second = station.camera, cameras("127.0.0.2")
    for one in (second, first, second):
        hear(station, one)
        station.send(SHOT)
        station.fence()
    wait_until(lambda: len(shots(second)) >= 2, 5, "the frames")
    assert (len(shots(first)), len(shots(second))) == (1, 2)


def test_frames_go_on_when_the_bridge_is_silent(station):
    """The bridge's address outlasts its data."""
    station.camera.wait_text("Data lost\n", start=station.camera.count())
    station.check([(SHOT, SHOT_EFFECTS)])


def test_frames_go_on_after_the_bridge_was_away(station, cameras):
    """While nobody listens at the bridge's address, frames are lost, and nothing else happens."""
    away = cameras("127.0.0.2")
    hear(station, away)
    away.close()
    for _ in range(3):
        station.send(SHOT)
    station.fence()
    assert station.effects().count("Camera shot\n") == 3
    hear(station, station.camera)
    station.send(SHOT)
    station.fence()
    assert len(shots(station.camera)) == 1


# --- How soon ------------------------------------------------------------------------------------


@pytest.mark.timing
def test_command_becomes_frame_within_one_period(station):
    """A command waits for the mailbox to be looked at, every 50 ms, and for nothing else."""
    chance = random.Random(5)
    delays = []
    for _ in range(40):
        start = station.camera.count()
        time.sleep(chance.uniform(0, 0.05))
        sent = time.time()
        station.viewer.command('{"cmd":"resetcamera"}')
        (frame,) = station.camera.wait_frames(1, start=start)
        assert parse(frame.data)[0] == camera(0x78, "00")
        delays.append(frame.time - sent)
    delays.sort()
    # A busy machine may hold up some.
    assert delays[len(delays) * 3 // 4] < limit(0.06), delays
