"""The simulated camera: a service beside it sees a camera, a bridge and a receiver, and it sees
every command of the service."""

import contextlib
import json
import os
import pathlib
import random
import re
import signal
import socket
import subprocess
import time

import pytest

from harness import duml
from harness.console import Console
from harness.duml import camera, command
from harness.region import FIELDS, REGION_SIZE, TEXTS, place
from harness.service import EMULATOR
from harness.timing import limit, wait_until
from harness.udp import DATA_PORT, VIDEO_PORT, udp_socket
from harness.values import decode

ROOT = pathlib.Path(__file__).resolve().parents[2]
MANUAL = ROOT / "docs" / "man" / "nimbus-sim.1"
NOISE = random.Random(5001).randbytes(400_000)
SUMMARY = re.compile(r"(\d+) frames received, (\d+) bad, (\d+) bytes of video sent.*\n")


class Simulator:
    """One run of the simulated camera."""

    def __init__(self, binary, arguments, **popen):
        streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE,
                   "stderr": subprocess.PIPE, **popen}
        self.process = subprocess.Popen([*EMULATOR, binary, *map(str, arguments)],
                                        **streams)
        if self.process.stdout:
            self.out = Console(self.process.stdout)
        self.err = Console(self.process.stderr)

    def frames(self, start=0):
        """What was said of each frame, without time and number."""
        lines = self.out.text()[start:].split("\n")[:-1]
        return [line.split("#", 1)[1].split(" ", 1)[1] for line in lines if "#" in line]

    def wait_frames(self, texts, start=0, seconds=5):
        """Waits until these frames were shown, in this order, others among them or not."""

        def shown():
            frames = iter(self.frames(start))
            return all(text in frames for text in texts)

        try:
            wait_until(shown, seconds, f"{texts}")
        except AssertionError as error:
            raise AssertionError(f"{error}: {self.frames(start)}") from None

    def wait_end(self, seconds=10):
        """The exit status, once it has ended by itself and said everything."""
        status = self.process.wait(limit(seconds))
        for console in (self.out, self.err):
            console.wait_closed()
        return status

    def end(self, signum=signal.SIGTERM):
        """Ends it; returns the numbers of its summary. It must have had no problem."""
        self.process.send_signal(signum)
        return self.summary()

    def summary(self):
        """Waits for the end; returns frames, bad ones and bytes of video."""
        assert self.wait_end() == 0
        assert self.err.text() == ""
        match = SUMMARY.fullmatch(self.out.text().splitlines(keepends=True)[-1])
        assert match, self.out.text()
        return tuple(map(int, match.groups()))


@pytest.fixture
def sim(build):
    """sim(argument, ...) runs the simulated camera."""
    runs = []

    def run(*arguments, **popen):
        one = Simulator(build / "nimbus-sim", arguments, **popen)
        runs.append(one)
        return one

    yield run
    for one in runs:
        one.process.kill()
        one.process.wait()


@pytest.fixture
def verbose(sim, service):
    """A camera beside the service, which has been found."""
    one = sim("--verbose")
    service.err.wait("Data found\n")
    return one


def send(viewer, *words):
    viewer.command(json.dumps(command(*words)))


def field(region, name):
    kind = FIELDS[name][1]
    data = bytes(region.memory[place(name)])
    return data.split(b"\0")[0].decode() if name in TEXTS else decode(kind, data)


def wait_fields(region, values, seconds=5):
    """Waits until all of these fields hold these values."""
    found = {}

    def right():
        found.update({name: field(region, name) for name in values})
        return found == values

    try:
        wait_until(right, seconds, f"{values}")
    except AssertionError as error:
        raise AssertionError(f"{error}: {found}") from None


# --- Commands ------------------------------------------------------------------------------------

# A command, the frames that it becomes, and what comes back in the region.
COMMANDS = [
    (("camera", "mode", "photo"), ["camera mode: photo"],
     {"camera_mode": 0, "camera_mode_text": "photo"}),
    (("shot",), ["shot"], {"byte_792": 1, "word_800": 1999}),
    (("shotmode", "raw"), ["photo format: RAW"], {"photo_format": 0, "photo_format_text": "RAW"}),
    (("shotmode", "jpg+raw"), ["photo format: JPG+RAW"], {"photo_format_text": "JPG+RAW"}),
    (("video_aspect", "4:3"), ["aspect ratio: 4:3"], {"byte_789": 0}),
    (("video_aspect", "16:9"), ["aspect ratio: 16:9"], {"byte_789": 1}),
    (("camera", "mode", "video"), ["camera mode: video"],
     {"camera_mode": 1, "camera_mode_text": "video"}),
    (("record", "start"), ["record: start"], {"recording_state": 2, "byte_792": 2}),
    (("record", "stop"), ["record: stop"], {"recording_state": 1, "byte_792": 0}),
    (("exposure", "auto", "lock"), ["exposure lock: on"], {"byte_790": 1}),
    (("exposure", "auto", "unlock"), ["exposure lock: off"], {"byte_790": 0}),
    (("exposure", "point", "77"), ["exposure lock: off", "exposure point: 77", "exposure lock: on"],
     {"byte_790": 1}),
    (("exposure", "center"), ["exposure lock: off", "exposure at the centre"], {"byte_790": 0}),
    (("focus", "type", "afs"), ["focus type: afs"], {"focus_mode": 1}),
    (("focus", "type", "afc"), ["focus type: afc"], {"focus_mode": 2}),
    (("focus", "point", "0.25", "0.75"), ["focus type: afs", "focus point: x 0.2500, y 0.7500"],
     {"focus_mode": 1, "focus_1": 0.25, "focus_2": 0.75}),
    (("gimbal", "mode", "tiltlocked"), ["gimbal mode: follow", "gimbal tilt lock: on"],
     {"byte_631": 1}),
    (("gimbal", "mode", "fpv"), ["gimbal mode: fpv", "gimbal tilt lock: off"], {"byte_631": 0}),
    (("gimbal", "mode", "follow"), ["gimbal mode: follow", "gimbal tilt lock: off"], {}),
    (("gimbal", "follow", "slow"), ["gimbal follow: slow"], {}),
    (("gimbal", "follow", "fast"), ["gimbal follow: fast"], {}),
    (("color", "d-log"), ["colour: d-log", "colour: d-log"],
     {"colour": 23, "colour_text": "d-log"}),
    (("wb", "custom", "5600"), ["white balance: custom, 5600 K"],
     {"white_balance_text": "custom", "temperature": 5600}),
    (("wb", "neon", ""), ["white balance: neon, 2500 K"],
     {"white_balance": 5, "white_balance_text": "neon", "temperature": 2500}),
    (("video_mode", "manual"), ["exposure mode: M"],
     {"exposure_mode": 4, "exposure_mode_text": "M"}),
    (("shutter", "1.67"), ["shutter: 1/1.67 s"], {"shutter": 0x438001, "shutter_text": "1/1.67 "}),
    (("shutter", "1.3s"), ["shutter: 1.3 s"], {"shutter_text": '1.3"'}),
    (("shutter", "8000"), ["shutter: 1/8000 s"], {"shutter_text": "1/8000 "}),
    (("aperture", "4.0"), ["aperture: f/4.00"], {"aperture": 4.0}),
    (("iso", "6400"), ["ISO: 6400"], {"iso_code": 9, "iso": 6400}),
    (("iso", "auto"), ["ISO: auto"], {"iso_code": 0, "iso": 0}),
    (("ev", "-1.7"), ["EV: -1.7"], {"ev_code": 11, "ev": -1.7}),
    (("video_resolution", "4096x2160@24"), ["video format: 4096x2160, 24 frames/s"] * 2,
     {"resolution_text": "4K", "resolution_width": 4096, "resolution_height": 2160,
      "frame_rate": 24}),
    (("video_resolution", "1920x1080@120"), ["video format: 1920x1080, 120 frames/s"] * 2,
     {"resolution_text": "1080p", "frame_rate": 120}),
    (("antiflicker", "60"), ["anti-flicker: 60 Hz"], {"byte_791": 2}),
    (("antiflicker", "off"), ["anti-flicker: off"], {"byte_791": 0}),
    (("resetcamera",), ["reset"],
     {"frame_rate": 30, "ev": 0.0, "colour_text": "none", "exposure_mode_text": "auto",
      "white_balance_text": "auto", "aperture": 280 * 0.01, "shutter_text": "1/50 "}),
    (("formatmicrosd",), ["format card"], {"byte_629": 0, "byte_793": 1}),
    (("position", "selfie"), ["gimbal position: next"], {"gimbal_angle_1": -180}),
    (("position", "selfie"), ["gimbal position: centre"], {"gimbal_angle_1": 0}),
    (("position", "normal"), ["gimbal position: centre"], {"gimbal_angle_1": 0}),
    (("horizont", "calibrate"),
     ["gimbal calibration: step 1", "gimbal calibration: step 2", "gimbal calibration: step 3"],
     {"byte_628": 0}),
]


def test_commands(viewer, verbose, region):
    """Every command arrives by its name, and what it sets comes back."""
    viewer.keep_alive()
    for words, frames, fields in COMMANDS:
        start = len(verbose.out.text())
        send(viewer, *words)
        verbose.wait_frames(frames, start)
        wait_fields(region, fields)
    wait_fields(region, {"byte_628": 1, "byte_629": 1})
    assert verbose.end()[1] == 0
    assert "ignored" not in verbose.out.text()


def test_speeds(viewer, verbose, region):
    """The gimbal turns while it is told to, up to its limits."""
    viewer.keep_alive()
    send(viewer, "position", "moverel", "4000", "-2000", "1000")
    verbose.wait_frames(["gimbal speed: pan 1.000, tilt 0.500, roll 0.250"])
    wait_fields(region, {"gimbal_angle_1": 320, "gimbal_angle_2": 60, "gimbal_angle_3": 45}, 10)
    send(viewer, "position", "speed", "-2", "0", "0")
    verbose.wait_frames(["gimbal speed: pan -2.000, tilt 0.000, roll 0.000"])
    wait_until(lambda: field(region, "gimbal_angle_1") < 200, 5, "the turn")
    send(viewer, "position", "speed", "0", "0", "0")
    verbose.wait_frames(["gimbal speed: pan 0.000, tilt 0.000, roll 0.000"])
    send(viewer, "orientation", "lock")
    verbose.wait_frames(["gimbal speed: pan 0.001, tilt 0.000, roll 0.000"])
    assert field(region, "orientation_lock") == 1
    send(viewer, "orientation", "unlock")
    wait_fields(region, {"orientation_lock": 0})
    assert verbose.end()[1] == 0
    # Equal ones are shown once.
    assert re.search(r" gimbal speed: the last one \d+ more times\n", verbose.out.text())


def test_recording_time(viewer, verbose, region):
    """The service measures how long a recording was."""
    viewer.keep_alive()
    before = time.monotonic()
    send(viewer, "record", "start")
    wait_until(lambda: field(region, "word_808") >= 2, 10, "two seconds")
    send(viewer, "record", "stop")
    wait_until(lambda: field(region, "timer_elapsed_ms"), 5, "the recording's length")
    assert 1000 < field(region, "timer_elapsed_ms") <= (time.monotonic() - before) * 1000
    viewer.wait(lambda f: f.payload[:1] == b"\x13" and f.triple() >= (1, 0, 1), 5, "its message")


def test_histogram(service, viewer, verbose):
    """It comes until it is switched off, and again when it is switched on."""
    viewer.keep_alive()
    assert max(viewer.message(14).payload[1:]) > 200
    send(viewer, "hystogram", "0")
    verbose.wait_frames(["histogram: off"])
    service.err.wait("Histogram lost\n", 10)
    start = len(viewer.frames)
    send(viewer, "hystogram", "1")
    verbose.wait_frames(["histogram: on"])
    viewer.message(14, start=start)


def test_tracking(service, viewer, verbose, region):
    """A subject is tracked until that is stopped."""
    viewer.keep_alive()
    send(viewer, "tracking", "start", "0.5", "0.25", "0.125", "0.5")
    verbose.wait_frames(
        ["tracking: stop",
         "tracking: start at x 0.5000, y 0.2500, width 0.1250, height 0.5000"])
    wait_fields(region, {"tracking_on": 1, "tracking_width": 0.125, "tracking_height": 0.5})
    assert abs(field(region, "tracking_x") - 0.5) < 0.06
    viewer.message(21)
    send(viewer, "tracking", "stop")
    service.err.wait("Tracking lost\n", 10)
    assert "restore" not in service.err.text()


def test_lost_subject(service, viewer, sim):
    """A subject that the camera loses is tracked again."""
    one = sim("--verbose", "--lose-subject", "0.5")
    service.err.wait("Data found\n")
    viewer.keep_alive()
    send(viewer, "tracking", "start", "0.5", "0.5", "0.3", "0.3")
    service.err.wait("Restore tracking...\n", 10)
    wait_until(lambda: any(re.match(r"tracking: start .* width 0\.1000, height 0\.2000$", frame)
                           for frame in one.frames()), 5, "the restart")


def test_refused(viewer, verbose):
    """What a camera cannot do now is ignored, with the reason."""
    send(viewer, "shot")
    verbose.wait_frames(["shot (ignored: the camera is not in photo mode)"])
    send(viewer, "shutter", "7")
    verbose.wait_frames(["shutter: unknown code 00 00 00 (ignored: no such code)"])


def test_every_message(viewer, verbose):
    """A viewer receives every kind of message that reports become."""
    viewer.keep_alive()
    send(viewer, "tracking", "start", "0.5", "0.5", "0.3", "0.3")
    for kind in (0, 2, 7, 8, 10, 13, 14, 16, 19, 20, 21):
        viewer.message(kind)


# --- Video ---------------------------------------------------------------------------------------


def video_of(viewer):
    return [frame.payload for frame in list(viewer.frames) if frame.video]


def wait_video(viewer, content):
    """Waits until the viewer has as many bytes; they must be the content."""
    wait_until(lambda: sum(map(len, video_of(viewer))) >= len(content), 10, "the video")
    assert b"".join(video_of(viewer)) == content


def picture(size, key=False):
    """A picture of so many bytes that holds no start of another."""
    return b"\0\0\0\1" + (b"\x65" if key else b"\x41") + b"\x88" + b"\xAA" * (size - 6)


def test_video_by_bitrate(viewer, sim, tmp_path):
    """A file arrives byte for byte, in datagrams of the size asked for, and no faster."""
    viewer.keep_alive()
    file = tmp_path / "noise"
    file.write_bytes(NOISE)
    before = time.monotonic()
    one = sim("--video", file, "--bitrate", "4e6", "--datagram", 1000, "--once")
    assert one.summary()[2] == len(NOISE)
    assert time.monotonic() - before >= (len(NOISE) - 1000) * 8 / 4e6
    wait_video(viewer, NOISE)
    assert {len(payload) for payload in video_of(viewer)} == {1000}


def test_video_by_frames(viewer, sim, tmp_path):
    """The pictures of a file arrive at their rate, none in a datagram with another."""
    viewer.keep_alive()
    pictures = [picture(5000, True)] + [picture(500 + 100 * n) for n in range(15)]
    file = tmp_path / "video.h264"
    file.write_bytes(b"".join(pictures))
    before = time.monotonic()
    one = sim("--video", file, "--fps", 20, "--once")
    assert one.summary()[2] == sum(map(len, pictures))
    assert time.monotonic() - before >= 15 / 20
    wait_video(viewer, b"".join(pictures))
    assert [len(payload) for payload in video_of(viewer)][:5] == [1400, 1400, 1400, 800, 500]


def test_video_loops(viewer, sim, tmp_path):
    viewer.keep_alive()
    file = tmp_path / "video.h264"
    file.write_bytes(picture(3000, True) + picture(100))
    one = sim("--video", file, "--fps", 50)
    wait_until(lambda: len(video_of(viewer)) >= 12, 10, "several rounds")
    assert b"".join(video_of(viewer)[:12]) == file.read_bytes() * 3
    assert one.end()[2] >= 3 * 3100


def test_video_of_standard_input(viewer, sim):
    """It is sent as it comes; its end ends the simulator."""
    viewer.keep_alive()
    one = sim("--video", "-", stdin=subprocess.PIPE)
    one.process.stdin.write(b"first")
    one.process.stdin.flush()
    wait_video(viewer, b"first")
    one.process.stdin.write(NOISE[:100_000])
    one.process.stdin.close()
    assert one.summary()[2] == 100_005
    wait_video(viewer, b"first" + NOISE[:100_000])
    assert max(map(len, video_of(viewer))) == 1400


# --- Faults --------------------------------------------------------------------------------------


def test_faults(service, viewer, sim, region):
    """The service takes nothing but sound frames, and goes on."""
    viewer.keep_alive()
    one = sim("--verbose", "--seconds", 4, "--seed", 7, "--faults",
              "drop=0.1,corrupt=0.3,truncate=0.3,repeat=0.3")
    # Whatever is stored must be what the camera says, or what was there before its first report.
    right = {"resolution_text": ("", "1080p"), "shutter": (0, 0x8032), "gimbal_angle_1": (0,),
             "frame_rate": (0, 30), "camera_mode": (0, 1), "word_796": (0, 2000)}
    seen = {name: set() for name in right}
    while one.process.poll() is None:
        for name, values in seen.items():
            values.add(field(region, name))
        time.sleep(0.01)
    assert one.summary()[1] == 0
    for name, values in seen.items():
        assert right[name][-1] in values <= set(right[name]), name
    counts = re.search(r"reports: (\d+) dropped, (\d+) corrupted, (\d+) truncated, (\d+) repeated",
                       one.out.text())
    assert all(int(count) > 0 for count in counts.groups())
    assert service.running()


# --- Receiver ------------------------------------------------------------------------------------


def test_receiver(start, sim, region, tmp_path):
    """Channels and functions of a script stand in the region and turn the gimbal; in the end the
    receiver is off."""
    service = start("rc_input_enabled=1\nrc_input_map=pan,tilt,,ev\n"
                    "rc_input_speed_pan=100\nrc_input_speed_tilt=100\n")
    script = tmp_path / "sticks.rc"
    script.write_text("channel 1 = 1500\n"
                      "channel 2 = 1500\n"
                      "channel 3 = 1900  # drives nothing\n"
                      "at 0.5 channel 1 = 1750\n"
                      "channel 4 = 2000\n"
                      "wait 0.5\n"
                      "function pan = -1\n")
    one = sim("--verbose", "--rc", script)
    service.err.wait("Data found\n")
    one.wait_frames(["gimbal speed: pan 0.000, tilt 0.000, roll 0.000",
                     "gimbal speed: pan 0.500, tilt 0.000, roll 0.000",
                     "gimbal speed: pan -1.000, tilt 0.000, roll 0.000"])
    one.wait_frames(["EV: +3.0"])
    wait_fields(region, {"gimbal_angle_1": -320, "ev": 3.0}, 10)
    assert region.u8(region.RC_STATUS) == 6
    assert [region.value("H", region.RC_CHANNEL_VALUES[0] + 2 * n) for n in range(5)] == [1750, 1500, 1900, 2000, 0]
    assert [region.value("H", region.RC_ASSIGNED[0] + 2 * n) for n in (0, 1, 2, 5)] == [1, 1, 0, 1]
    assert one.end()[1] == 0
    assert region.u8(region.RC_STATUS) == 0
    assert region.value("H", region.RC_ASSIGNED[0]) == 0


def test_receiver_loops(service, sim, region, tmp_path):
    """Another state and the way back, again and again."""
    script = tmp_path / "flicker.rc"
    script.write_text("state = 6\nwait 0.2\nstate = 2\nwait 0.2\nloop\n")
    sim("--rc", script)
    for _ in range(3):
        for state in (6, 2):
            wait_until(lambda: region.u8(region.RC_STATUS) == state, 5, f"state {state}")


# --- The bridge ----------------------------------------------------------------------------------


def test_no_reports(service, viewer, sim, region):
    """Without reports, commands come all the same."""
    one = sim("--verbose", "--no-reports")
    service.err.wait("Data found\n")
    send(viewer, "iso", "800")
    one.wait_frames(["ISO: 800"])
    assert field(region, "resolution_text") == ""
    assert one.end()[1] == 0


def test_bad_frames_are_counted(sim):
    """What is no sound frame, or no known one, is counted and shown with what is wrong with it."""
    sound = camera(0x2A, "05").frame(7)
    with udp_socket("127.0.0.1", DATA_PORT) as service:
        with udp_socket("127.0.0.1", VIDEO_PORT):
            service.settimeout(limit(5))
            one = sim("--verbose")
            address = service.recvfrom(2048)[1]
            damaged = bytearray(sound)
            damaged[-1] ^= 1
            strange = duml.Command(0x02, 0x99, b"\0").frame(1)
            for frame in (sound, bytes(damaged), sound[:5], strange, b""):
                service.sendto(frame, address)
            one.out.wait("bad frame", count=4)
            assert one.end() == (5, 4, 0)
    said = one.out.text()
    assert "#7 ISO: 400\n" in said
    assert "bad frame: frame check " in said
    assert "bad frame: 5 bytes, expected at least 13: 55 0e 04 66 02\n" in said
    assert "bad frame: no command has receiver 1, set 2, id 99 and 1 bytes: " in said


def test_other_host(sim):
    """The service may run on another host, given by its name or address."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as service:
        service.bind(("127.0.0.9", DATA_PORT))
        service.settimeout(limit(5))
        sim("--host", "127.0.0.9")
        assert service.recv(2048)[0] == 0x55


def test_no_service(sim, start, viewers):
    """It says once that nobody listens, and goes on until somebody does."""
    problem = "nimbus-sim: no service listens on 127.0.0.1, UDP 5000 and 5001; waiting for it\n"
    one = sim("--verbose")
    one.err.wait(problem)
    service = start()
    service.err.wait("Data found\n")
    viewer = viewers()
    viewer.register()
    service.err.wait("New client connected")
    send(viewer, "iso", "1600")
    one.wait_frames(["ISO: 1600"])
    one.process.terminate()
    assert one.wait_end() == 0
    assert one.err.text() == problem


# --- Its end -------------------------------------------------------------------------------------


@pytest.mark.parametrize("signum", [signal.SIGINT, signal.SIGTERM])
def test_signals(service, sim, signum):
    """Both end it with a summary."""
    one = sim()
    service.err.wait("Data found\n")
    assert one.end(signum) == (0, 0, 0)
    assert SUMMARY.fullmatch(one.out.text())


def test_seconds(service, sim):
    before = time.monotonic()
    assert sim("--seconds", "0.5").summary() == (0, 0, 0)
    assert time.monotonic() - before >= 0.5


@pytest.mark.parametrize("arguments", [(), ("--verbose",)])
def test_closed_output(service, sim, arguments):
    """Nobody reads what it says: that is its end, and no problem."""
    end, output = os.pipe()
    one = sim(*arguments, stdout=output)
    os.close(output)
    service.err.wait("Data found\n")
    os.close(end)
    assert one.process.wait(limit(5)) == 0
    one.err.wait_closed()
    assert one.err.text() == ""


def test_unread_output(service, viewer, sim):
    """A reader that does not read does not hold up the end."""
    end, output = os.pipe()
    os.set_blocking(output, False)
    try:
        while os.write(output, bytes(4096)):
            pass
    except BlockingIOError:
        os.set_blocking(output, True)
    one = sim("--verbose", stdout=output)
    os.close(output)
    service.err.wait("Data found\n")
    viewer.speed(1, 4000, 0, 0)
    service.err.wait("Data lost\n", 10, count=2)  # it waits for the reader
    one.process.terminate()
    assert one.process.wait(limit(5)) == 0
    os.close(end)


@pytest.mark.skipif(bool(EMULATOR), reason="the emulator needs them")
def test_no_standard_streams(service, build):
    """They may be closed from the start."""
    process = subprocess.Popen(f"exec '{build}/nimbus-sim' --verbose --video - <&- >&- 2>&-",
                               shell=True)
    assert process.wait(limit(5)) == 0
    process = subprocess.Popen(f"exec '{build}/nimbus-sim' --verbose --seconds 1 <&- >&- 2>&-",
                               shell=True)
    service.err.wait("Data found\n")
    assert process.wait(limit(5)) == 0


def test_closed_input(service, sim):
    one = sim("--video", "-", stdin=subprocess.PIPE)
    one.process.stdin.close()
    assert one.summary()[2] == 0


def test_input_that_cannot_be_read(service, sim):
    with contextlib.closing(socket.socket()) as unconnected:
        one = sim("--video", "-", stdin=unconnected)
        assert one.wait_end() == 1
    assert one.err.text().startswith("nimbus-sim: cannot read standard input: ")


def test_video_for_nobody(sim):
    """It is said once for both links, however long it lasts."""
    one = sim("--video", "-", stdin=subprocess.PIPE)
    with one.process.stdin as video:
        for _ in range(30):
            video.write(bytes(1000))
            video.flush()
            time.sleep(0.1)
        one.process.terminate()
        assert one.wait_end() == 0
    assert one.err.text().count("no service listens") == 1
    assert SUMMARY.fullmatch(one.out.text()).group(1, 2) == ("0", "0")


# --- Arguments -----------------------------------------------------------------------------------

BAD_ARGUMENTS = [
    (["--video", "nowhere.h264"], "cannot read nowhere.h264: No such file"),
    (["--video", "/"], "cannot read /: Is a directory"),
    (["--video", "/dev/null"], "/dev/null is empty; expected"),
    (["--video", "script"], "script: no pictures found; expected"),
    (["--video", "script", "--datagram", "0"], "--datagram '0'; expected a whole number from 1"),
    (["--video", "script", "--datagram", "60001"], "--datagram '60001'; expected"),
    (["--video", "script", "--fps", "0"], "--fps '0'; expected a number above 0"),
    (["--video", "script", "--fps", "nan"], "--fps 'nan'; expected"),
    (["--video", "script", "--bitrate", "1M"], "--bitrate '1M'; expected"),
    (["--video", "script", "--bitrate", "9", "--fps", "9"], "--fps excludes --bitrate"),
    (["--fps", "25"], "--fps requires --video"),
    (["--rc", "nowhere.rc"], "cannot read nowhere.rc: No such file"),
    (["--rc", "script"], "script:2: unknown function 'pann'; expected one of pan, tilt,"),
    (["--faults", "drop=1.5"], "--faults: 'drop=1.5' has no rate; expected a number from 0 to 1"),
    (["--faults", "lose=0.5"], "--faults: 'lose=0.5' is no fault; expected drop=RATE"),
    (["--faults", "drop=0.5", "--seed", "x"], "--seed 'x'; expected a whole number"),
    (["--seed", "7"], "--seed requires --faults"),
    (["--seconds", "-1"], "--seconds '-1'; expected a number above 0"),
    (["--lose-subject", "soon"], "--lose-subject 'soon'; expected"),
    (["--host", "192.0.2.1"], "cannot reach 192.0.2.1: Network is unreachable"),
    (["--host", "nowhere.invalid"], "no host 'nowhere.invalid'; expected"),
    (["--nonsense"], "--nonsense"),
    (["nonsense"], "nonsense"),
]


@pytest.mark.parametrize("arguments,text", BAD_ARGUMENTS)
def test_bad_arguments(sim, tmp_path, arguments, text):
    """One line says what was wrong and what is expected."""
    (tmp_path / "script").write_text("state = 6\nfunction pann = 0\n")
    one = sim(*arguments, cwd=tmp_path)
    assert one.wait_end() == 1
    assert one.out.text() == ""
    said = one.err.text()
    assert said.startswith("nimbus-sim: ") and said.count("\n") == 1 and text in said, said


def test_region_too_short(sim, region, tmp_path):
    (tmp_path / "script").write_text("state = 6\n")
    region.create(b"short")
    one = sim("--rc", tmp_path / "script")
    assert one.wait_end() == 1
    assert one.err.text() == (
        f"Cannot map shared memory /hud_mem: it has 5 bytes, expected at least {REGION_SIZE}\n")


# --- The picture that follows the gimbal ---------------------------------------------------------


def pictures(frames):
    """The pictures in the video of these frames: luma of 64x36 points each."""
    stream = b"".join(frame.payload for frame in frames if frame.video)
    done = subprocess.run(
        ["ffmpeg", "-loglevel", "quiet", "-f", "h264", "-i", "-", "-vf", "scale=64:36,format=gray",
         "-f", "rawvideo", "-"], input=stream, capture_output=True, timeout=limit(30), check=False)
    return [done.stdout[at:at + 2304] for at in range(0, len(done.stdout), 2304)]


def difference(first, second):
    return sum(abs(a - b) for a, b in zip(first, second)) / len(first)


def test_the_picture_follows_the_gimbal(sim, service, viewer):
    viewer.keep_alive()
    one = sim("--scene")

    def whole(start, count):
        return wait_until(lambda: viewer_has(start, count), 20, f"{count} pictures")

    def viewer_has(start, count):
        frames = list(viewer.frames)[start:]
        if sum(len(f.payload) for f in frames if f.video) < 5000:
            return None
        found = pictures(frames)
        time.sleep(0.2)  # decoding them again and again would keep the camera from its work
        return found if len(found) >= count else None

    still = whole(0, 30)
    assert difference(still[-10], still[-1]) < 8  # but for the ball
    start = time.monotonic()
    while time.monotonic() - start < 1:
        viewer.speed(1, 4000, 0, 0)
        time.sleep(0.1)
    viewer.speed(1, 0, 0, 0)
    place = len(viewer.frames)
    turned = whole(place, 30)
    assert difference(still[-1], turned[-1]) > 20
    send(viewer, "ev", "-3")
    time.sleep(0.3)
    place = len(viewer.frames)
    dark = whole(place, 30)
    assert sum(dark[-1]) < 0.75 * sum(turned[-1])
    one.end()


def test_no_coder(sim, tmp_path):
    one = sim("--scene", env={**os.environ, "PATH": str(tmp_path)})
    assert one.wait_end() == 1
    assert one.err.text() == ("nimbus-sim: cannot run ffmpeg: No such file or directory; "
                              "expected it to be installed\n")


def test_coder_that_ends(sim, tmp_path):
    (tmp_path / "ffmpeg").write_text("#!/bin/sh\nexit 1\n")
    (tmp_path / "ffmpeg").chmod(0o755)
    one = sim("--scene", env={**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"})
    assert one.wait_end() == 1
    # A slow machine says before that nobody listens.
    assert one.err.text().endswith("nimbus-sim: ffmpeg made no panorama; expected one with its own "
                                   "sources\n")


def test_help_and_manual(sim):
    """Both tell of every option."""
    one = sim("--help")
    assert one.wait_end() == 0
    assert one.err.text() == ""
    manual = MANUAL.read_text().replace("\\-", "-")
    for option in set(re.findall(r"--[a-z-]+", one.out.text())):
        assert option in manual, option
    version = sim("--version")
    assert version.wait_end() == 0
    assert version.out.text() == "nimbus-sim 0.3.7\n"
