"""Everybody who talks to a running service, all of them busy, for as long as it takes. What they
see is held to account while they see it, so that nothing grows here either."""

import contextlib
import itertools
import json
import random
import selectors
import struct
import threading
import time

from harness.bridge import Bridge
from harness.duml import crc16
from harness.receiver import RcReader
from harness.region import TEXTS, place
from harness.reports import (
    FLAGS_30, FLAG_17, GIMBAL, HISTOGRAM, LENS, RECORDING, SETTINGS, STATUS, TAIL, TRACKING)
from harness.timing import wait_until
from harness.udp import DATA_PORT, VIDEO_PORT, VIEWER_PORT, udp_socket

CONFIGURATION = """rc_input_enabled=1
rc_input_map=pan,tilt,dutch,osd
rc_input_speed_pan=50
rc_input_speed_tilt=50
rc_input_speed_dutch=50
video_bitrate=1000
"""
VIDEO_SIZE = 1400
WINDOW = 8  # video datagrams on their way
SPEED_PERIOD = 0.030
MISSED_SHARE = 0.001  # of the periods, and two: the machine, too, may be late


class Neighbour:
    """Does one step after the other, `period` seconds apart, on a thread of its own, until it is
    told to stop. The first exception ends it and is raised by stop()."""

    def __init__(self, step, period):
        self._step, self._period = step, period
        self._stop = threading.Event()
        self._error = None
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        due = time.monotonic()
        try:
            while not self._stop.is_set():
                self._step()
                due = max(due + self._period, time.monotonic() - self._period)
                self._stop.wait(max(0.0, due - time.monotonic()))
        except BaseException as error:
            self._error = error

    def check(self):
        if self._error:
            raise self._error

    def end(self):
        self._stop.set()
        self._thread.join()

    def stop(self):
        self.end()
        self.check()


class Audience:
    """All viewers of the house. Each must get every video datagram, whole and in order, and every
    second's status messages."""

    def __init__(self, count):
        self._sockets = [udp_socket(f"127.0.1.{n + 1}") for n in range(count)]
        self.video = [0] * count  # datagrams, as each viewer got them
        self.messages = [0] * count
        self.versions = [0] * count  # message 11, which ends the status of a second
        self.reports = 0  # configuration reports
        self._selector = selectors.DefaultSelector()
        for number, sock in enumerate(self._sockets):
            sock.setblocking(False)
            self._selector.register(sock, selectors.EVENT_READ, number)

    def send(self, number, payload):
        self._sockets[number].sendto(b"\x42" + bytes(11) + payload, ("127.0.0.1", VIEWER_PORT))

    def register(self):
        for number in range(len(self._sockets)):
            self.send(number, b"\0\0")

    def listen(self):
        """Takes what has come."""
        for key, _ in self._selector.select(0.05):
            with contextlib.suppress(BlockingIOError):
                while True:
                    self._take(key.data, key.fileobj.recv(65536))

    def _take(self, number, frame):
        assert frame[0] == 0x42 and frame[2:4] + frame[8:12] == bytes(6), frame[:12].hex(" ")
        payload = frame[12:]
        if frame[1] == 1:
            assert payload == video_datagram(self.video[number]), (
                f"viewer {number} got another datagram than number {self.video[number]}")
            self.video[number] += 1
            return
        self.messages[number] += 1
        self.versions[number] += payload[0] == 11
        if payload[:1] == b"{":
            json.loads(payload)
            self.reports += 1

    def close(self):
        for sock in self._sockets:
            sock.close()


def video_datagram(number):
    return struct.pack("<I", number).ljust(VIDEO_SIZE, bytes([number % 251]))


class VideoSource:
    """Sends the next datagram as soon as the slowest viewer has caught up: the most that can be
    relayed."""

    def __init__(self, audience):
        self._audience = audience
        self._bridge = Bridge(VIDEO_PORT)
        self.sent = 0

    def step(self):
        while self.sent - min(self._audience.video) < WINDOW:
            self._bridge.send(video_datagram(self.sent))
            self.sent += 1

    def close(self):
        self._bridge.close()


class CameraEnd:
    """The bridge's end of the camera link: reports go, frames come."""

    # Four reports a datagram; what the camera says most often is nothing that viewers are told.
    ROUND = [[FLAG_17, FLAGS_30, FLAG_17, kind]
             for kind in (GIMBAL, SETTINGS, GIMBAL, STATUS, GIMBAL, LENS, GIMBAL, TRACKING,
                          GIMBAL, RECORDING, GIMBAL, HISTOGRAM)]

    def __init__(self):
        self._bridge = Bridge(DATA_PORT)
        self._bridge.socket.settimeout(0.05)
        self._rounds = itertools.cycle(self.ROUND)
        self._angle = 0
        self.reports = 0
        self.frames = 0
        self.speeds = []  # the time of each speed frame

    def send_reports(self):
        kinds = next(self._rounds)
        self._angle = (self._angle + 10) % 1800
        angles = {"a1": self._angle, "a2": -self._angle, "a3": 7}
        frames = (kind.frame(**(angles if kind is GIMBAL else {})) for kind in kinds)
        self._bridge.send(b"".join(frames) + TAIL)
        self.reports += len(kinds)

    def take_frame(self):
        try:
            frame = self._bridge.socket.recv(65536)
        except TimeoutError:
            return
        assert frame[0] == 0x55 and frame[1] == len(frame), frame.hex(" ")
        assert struct.unpack("<H", frame[-2:])[0] == crc16(frame[:-2]), frame.hex(" ")
        self.frames += 1
        if frame[9:11] == b"\x04\x0c":
            self.speeds.append(time.monotonic())

    def close(self):
        self._bridge.close()


class Operator:
    """A viewer that commands, now the camera, now the board. One command waits at a time."""

    COMMANDS = [
        {"cmd": "record", "param": "start"}, {"cmd": "iso", "param": "400"},
        {"cmd": "shutter", "param": "50"}, {"cmd": "ev", "param": "-0.3"},
        {"cmd": "wb", "param": "sunny"}, {"cmd": "aperture", "param": "2.8"},
        {"cmd": "gimbal", "param": "mode", "value1": "follow"}, {"cmd": "shot"},
        {"cmd": "orientation", "param": "lock"}, {"cmd": "record", "param": "stop"},
        {"cmd": "color", "param": "art"}, {"cmd": "orientation", "param": "unlock"},
        {"cmd": "configrequest"}, {"cmd": "hystogram", "param": "1"}, {"no": "command"},
    ]
    SETTING = "video_bitrate"

    def __init__(self, audience, region, number=0, save_each=150):
        """The viewer of that number. One command of so many is a save; none, if 0."""
        self._audience, self._region = audience, region
        self._number, self._save_each = number, save_each
        self._commands = itertools.cycle(self.COMMANDS)
        self.sent = 0
        self.asked = 0
        self.saved = []  # the values that were given to SETTING

    def step(self):
        if self._region.u8(self._region.COMMAND_MAILBOX[0]) != 0:
            return
        what = next(self._commands)
        if self._save_each and (self.sent + 1) % self._save_each == 0:
            self.saved.append(1000 + self.sent)
            what = {"cmd": "updateparam", "name": self.SETTING, "value": str(self.saved[-1])}
        self.asked += what.get("cmd") == "configrequest"
        self._audience.send(self._number, json.dumps(what).encode())
        self.sent += 1


class RcPilot:
    """The RC reader: sticks that never come to rest, on live channels."""

    def __init__(self, region):
        self._reader = RcReader(region)
        self._region = region
        self._chance = random.Random(3)
        self._reader.assign("pan", "tilt", "dutch")

    def step(self):
        for stick in ("pan", "tilt", "dutch"):
            self._reader.hold(stick, 0.2 + 0.6 * self._chance.random())
        channels = struct.pack("<32H", *(self._chance.randrange(1000, 2000) for _ in range(32)))
        self._region.write(self._region.RC_CHANNEL_VALUES[0], channels)


class Display:
    """The display process: reads what it draws, 25 times a second."""

    def __init__(self, region, viewer_count):
        self._region, self._viewer_count = region, viewer_count
        self.drawn = 0

    def step(self):
        region = self._region
        assert region.u8(region.VIEWER_COUNT) == self._viewer_count
        assert (region.u8(region.DATA_CONNECTED), region.u8(region.VIDEO_CONNECTED)) == (1, 1)
        assert (region.text(*region.TELEMETRY_STATUS_TEXT), region.text(*region.VIDEO_STATUS_TEXT)) == (
            "", "")
        assert region.value("h", region.GIMBAL_ANGLE_1) == 0  # seven tenths of a degree
        assert abs(region.value("h", region.GIMBAL_ANGLE_2)) < 180
        for name in TEXTS:
            assert 0 in region.memory[place(name)], f"{name} has no end"
        self.drawn += 1


class House:
    """A service and all of its neighbours. `viewers` at most ten."""

    def __init__(self, service, region, viewers):
        self.service = service
        self.audience = Audience(viewers)
        self.video = VideoSource(self.audience)
        self.camera = CameraEnd()
        self.operator = Operator(self.audience, region)
        self.pilot = RcPilot(region)
        self.display = Display(region, viewers)
        self._region, self._viewers = region, viewers
        self._busy = []

    def move_in(self):
        """Everybody starts; returns when the service knows them all."""
        self.audience.register()
        wait_until(lambda: self._region.u8(self._region.VIEWER_COUNT) == self._viewers, 5,
                   "all viewers")
        for step, period in ((self.audience.listen, 0), (self.audience.register, 1),
                             (self.video.step, 0.002), (self.camera.send_reports, 0.04),
                             (self.camera.take_frame, 0), (self.pilot.step, 0.02)):
            self._busy.append(Neighbour(step, period))
        wait_until(self._all_in, 5, "everybody is in")
        self._busy.append(Neighbour(self.operator.step, 0.1))
        self._busy.append(Neighbour(self.display.step, 0.04))

    def _all_in(self):
        for neighbour in self._busy:
            neighbour.check()
        try:
            self.display.step()
        except AssertionError:
            return False
        return True

    def live(self, seconds):
        """Waits, as long as everybody is content."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            time.sleep(min(1.0, max(0.0, end - time.monotonic())))
            for neighbour in self._busy:
                neighbour.check()
            assert self.service.running(), f"the service ended: {self.service.process.returncode}"

    def move_out(self):
        """Everybody stops; what is on its way arrives."""
        sources, listeners = self._busy[1:4] + self._busy[5:], [self._busy[0], self._busy[4]]
        for neighbour in sources:
            neighbour.stop()
        wait_until(lambda: min(self.audience.video) == self.video.sent, 10, "the last video")
        for neighbour in listeners:
            neighbour.stop()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for neighbour in self._busy:
            neighbour.end()
        for part in (self.audience, self.video, self.camera):
            part.close()


def periods(times):
    """What the gimbal stream's frames tell: how many periods passed, how many had no frame, and the
    longest gap."""
    count = round((times[-1] - times[0]) / SPEED_PERIOD)
    gaps = [after - before for before, after in zip(times, times[1:])]
    return count, max(0, count - len(gaps)), max(gaps)
