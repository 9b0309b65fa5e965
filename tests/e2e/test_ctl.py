"""The viewer for the terminal, against the real service."""

import json
import os
import pathlib
import signal
import socket
import struct
import subprocess
import time

import pytest

from harness.bridge import Bridge
from harness.configuring import settings
from harness.console import Console
from harness.duml import camera, gimbal, speed
from harness.region import REGION_SIZE
from harness.reports import GIMBAL, HISTOGRAM, LENS, RECORDING, SETTINGS, STATUS, TAIL, TRACKING
from harness.service import EMULATOR
from harness.timing import limit, wait_until
from harness.udp import VIDEO_PORT

pytest_plugins = ["harness.commanding", "harness.configuring", "harness.reporting"]



class Tool:
    """A run of nimbusctl that goes on beside the test."""

    def __init__(self, command):
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE)
        self.out = Console(self.process.stdout)
        self.err = Console(self.process.stderr)

    def messages(self):
        """The whole lines so far, as JSON."""
        return [json.loads(line) for line in self.out.text().split("\n")[:-1]]

    def message(self, **members):
        """Waits for a message with those members."""

        def found():
            return [one for one in self.messages() if members.items() <= one.items()]

        return wait_until(found, 10, f"{members}")[0]

    def interrupt(self):
        """Ctrl-C. Returns the status."""
        self.process.send_signal(signal.SIGINT)
        return self.wait()

    def wait(self, seconds=10):
        status = self.process.wait(limit(seconds))
        self.out.wait_closed()
        self.err.wait_closed()
        return status

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()


class Tools:
    """nimbusctl, as a person runs it."""

    def __init__(self, binary):
        self.binary = str(binary)
        self.running = []

    def command(self, *arguments):
        return [*EMULATOR, self.binary, "--timeout", str(limit(3)), *arguments]

    def run(self, *arguments, input=None, env=None):
        return subprocess.run(self.command(*arguments), capture_output=True, text=True,
                              input=input, env={**os.environ, **(env or {})},
                              timeout=limit(40), check=False)

    def __call__(self, *arguments, **options):
        """What a run that ends well writes."""
        done = self.run(*arguments, **options)
        assert (done.returncode, done.stderr) == (0, ""), (arguments, done)
        return done.stdout

    def fails(self, *arguments, **options):
        """The one line with which a run fails."""
        done = self.run(*arguments, **options)
        assert done.returncode == 1, done
        assert done.stdout == "", done
        assert done.stderr.startswith("nimbusctl: ") and done.stderr.count("\n") == 1, done
        return done.stderr[len("nimbusctl: "):-1]

    def start(self, *arguments):
        """A run beside the test."""
        self.running.append(Tool(self.command(*arguments)))
        return self.running[-1]


@pytest.fixture
def ctl(build):
    tools = Tools(build / "nimbusctl")
    yield tools
    for tool in tools.running:
        tool.close()


# --- Every command in words ----------------------------------------------------------------------

NO_RECTANGLE = "00" * 21

# What is typed, and what the service says and sends for it.
FORMS = {
    "mode photo": ["Camera set mode photo\n", camera(0x10, "00", sender=0x09)],
    "mode video": ["Camera set mode video\n", camera(0x10, "01", sender=0x09)],
    "shot": ["Camera shot\n", camera(0x01, "01")],
    "shotmode jpg+raw": ["Camera set shot mode jpg+raw\n", camera(0x16, "02")],
    "record start": ["Record start\n", camera(0x02, "01")],
    "record stop": ["Record stop\n", camera(0x02, "00")],
    "iso 400": ["Camera set iso 400\n", camera(0x2A, "05")],
    "iso auto": ["Camera set iso 0\n", camera(0x2A, "00")],
    "shutter 1/50": ["Camera set shutter 50\n", camera(0x28, "01 32 80 00")],
    "shutter 1.3s": ["Camera set shutter 1.3s\n", camera(0x28, "01 01 00 03")],
    "aperture 2.8": ["Camera set aperture 2.80\n", camera(0x26, "18 01")],
    "ev -0.3": [camera(0x2E, "0F")],
    "ev +1": [camera(0x2E, "13")],
    "wb cloudy": ["Camera set WB cloudy\n", camera(0x2C, "02 40")],
    "wb custom 5600": ["Camera set WB custom\n", "Camera set WB temperature 5600\n",
                       camera(0x2C, "06 38")],
    "color d-log": ["set color d-log\n", camera(0x42, "17")] * 2,
    "antiflicker 50": ["Camera set anti-flicker 50\n", camera(0x46, "01")],
    "antiflicker off": ["Camera set anti-flicker off\n", camera(0x46, "00")],
    "exposure mode manual": ["Camera set video mode manual\n", camera(0x1E, "04 00")],
    "exposure point 27": ["Camera set auto exposure lock to 0\n", camera(0x68, "00"),
                          "Camera set exposure point 27\n", camera(0x32, "1B"),
                          "Camera set auto exposure lock to 1\n", camera(0x68, "01")],
    "exposure center": ["Camera set auto exposure lock to 0\n", camera(0x68, "00"),
                        "Camera set exposure to center\n", camera(0x22, "00")],
    "exposure lock": ["Camera set auto exposure lock to 1\n", camera(0x68, "01")],
    "exposure unlock": ["Camera set auto exposure lock to 0\n", camera(0x68, "00")],
    "histogram on": ["Camera histogram enable\n", camera(0x60, "01")],
    "histogram off": ["Camera histogram disable\n", camera(0x60, "00")],
    "resolution 1920x1080@30": ["Camera set video resolution 1920x1080@30\n",
                                camera(0x18, "0A 03 00 00 00"), camera(0xAF, "0A 03")],
    "aspect 16:9": ["Camera set image aspect ratio 16:9\n", camera(0x12, "00 01")],
    "focus type afc": ["Camera set focus type afc\n", camera(0x24, "02")],
    "focus 0.5 0.25": ["Camera set focus type afs\n", camera(0x24, "01"),
                       "Camera set focus point 0.500000,0.250000\n",
                       camera(0x30, "00 00 00 3F 00 00 80 3E")],
    "tracking start 0.5 0.25 0.125 1": [
        "Stop tracking\n", camera(0xA6, NO_RECTANGLE),
        "Start tracking 0.5 0.2 0.1 1.0\n",
        camera(0xA6, "01 00 00 0E 00" + struct.pack("<4f", 0.5, 0.25, 0.125, 1).hex())],
    "tracking stop": ["Stop tracking\n", camera(0xA6, NO_RECTANGLE)],
    "gimbal mode fpv": ["Gimbal set mode fpv\n", gimbal(0x4C, "01 00"),
                        gimbal(0x50, "00 04 01 00")],
    "gimbal follow slow": ["Gimbal set follow mode slow\n", gimbal(0x50, "00 05 01 02")],
    "gimbal follow fast": ["Gimbal set follow mode fast\n", gimbal(0x50, "00 05 01 00")],
    "gimbal centre": ["Set position normal\n", "Gimbal set center position\n",
                      gimbal(0x4C, "FE 08")],
    "gimbal selfie": ["Set position selfie\n", "Gimbal set next position\n",
                      gimbal(0x4C, "FE 09")],
    "gimbal calibrate": ["Gimbal calibrate\n", gimbal(0x07, "00"),
                         gimbal(0x01, "00 04 00 04 00 04 80 00", sender=0x09, type=0x20),
                         gimbal(0x08)],
    "gimbal move 0 0": [speed(0, 0, 0)],
    "gimbal move 0 0 0": [speed(0, 0, 0)],
    "gimbal speed 0 0 0": [speed(0, 0, 0)],
    "gimbal goto": [],
    "orientation unlock": ["Set orientation unlock\n"],
    "format-card --yes": ["Format microSD card\n", camera(0x72)],
    "reset-camera --yes": [camera(0x78, "00")],
}

# These have tests of their own.
OTHER_FORMS = {"orientation lock", "channels", "recalibrate", "restart", "reboot", "shutdown"}


@pytest.fixture
def live(stations):
    """A station whose camera reports all the time, so that a viewer hears at once."""
    station = stations()
    station.camera.keep_sending(GIMBAL.frame() + TAIL, 0.02)
    return station


@pytest.mark.parametrize("word", sorted({form.split()[0] for form in FORMS}))
def test_form(live, ctl, word):
    rows = {form: effects for form, effects in FORMS.items() if form.split()[0] == word}
    for form, effects in rows.items():
        assert ctl(*form.split()) == ""
        live.wait_handled()
        live.wait_taken()
        _, fence = live.fence()
        assert live.effects() == live.numbered([*effects, *fence]), form


def forms_in_help(ctl):
    """Every form that the help of any command tells of, without the names of values."""
    words = [line.split()[0] for line in ctl("--help").split("Subcommands:\n")[1].splitlines()
             if line.startswith("  ")]
    found = set()
    for word in words:
        _, _, forms = ctl(word, "--help").partition("Forms:\n")
        found |= {" ".join(part for part in line.split() if part.strip("[]").lower() == part)
                  for line in forms.splitlines()
                  if line.startswith("  ") and not line.startswith("   ")}
    return found


def test_every_form_has_a_test(ctl):
    forms = forms_in_help(ctl)
    assert len(forms) > 40
    tested = {form for form in forms
              if any(f"{typed} ".startswith(f"{form} ") for typed in FORMS)}
    assert forms - tested == OTHER_FORMS


def test_every_command_has_an_example(ctl):
    for line in ctl("--help").split("Subcommands:\n")[1].splitlines():
        if line.startswith("  "):
            word = line.split()[0]
            assert f"nimbusctl {word}" in ctl(word, "--help").split("Example: ")[1]


def test_orientation(live, ctl, region):
    ctl("orientation", "lock")
    wait_until(lambda: region.u8(region.ORIENTATION_LOCK) == 1, 5, "orientation lock")
    live.camera.wait_text("Set orientation lock\n")
    ctl("orientation", "unlock")
    wait_until(lambda: region.u8(region.ORIENTATION_LOCK) == 0, 5, "orientation unlock")


def test_channels(live, ctl, region):
    ctl("channels", "on")
    wait_until(lambda: region.u8(region.SHOW_CHANNELS) == 1, 5, "channels on")
    ctl("channels", "off")
    wait_until(lambda: region.u8(region.SHOW_CHANNELS) == 0, 5, "channels off")


@pytest.mark.parametrize("typed, expected", [
    ("gimbal move 4000 4000", speed(pan=1000, roll=0, tilt=-1000)),
    ("gimbal move 4000 2000 -4000", speed(pan=1000, roll=-1000, tilt=-500)),
    ("gimbal speed 1 -2 3", speed(pan=1000, roll=3000, tilt=-2000)),
])
def test_lasting_speed(live, ctl, typed, expected):
    start = live.camera.count()
    ctl(*typed.split())
    frames = live.camera.wait_frames(3, start=start)
    assert frames[2].data == expected.frame(struct.unpack_from("<H", frames[2].data, 6)[0])


def test_speed_for_a_while(live, ctl):
    """The gimbal moves for as long as was asked, and stands still at the end."""
    start = live.camera.count()
    begin = time.monotonic()
    assert ctl("speed", "4000", "-2000", "400", "--for", "500ms") == ""
    assert time.monotonic() - begin >= 0.5
    live.fence()
    payloads = [event.data[11:17] for event in live.camera.frames(start)]
    moving, still = (struct.pack("<3h", *words) for words in ((1000, 100, -500), (0, 0, 0)))
    assert payloads.count(moving) >= 3
    assert payloads[-1] == still
    assert set(payloads) == {moving, still}


@pytest.mark.parametrize("lasting", [[], ["--for", "9999999999"]], ids=["no end", "ages"])
def test_speed_stops_at_ctrl_c(live, ctl, lasting):
    start = live.camera.count()
    tool = ctl.start("speed", "4000", "0", "0", *lasting)
    frames = live.camera.wait_frames(3, start=start)
    assert frames[2].data[11:17] == struct.pack("<3h", 1000, 0, 0)
    assert tool.interrupt() == 0
    live.fence()
    assert live.camera.frames(start)[-1].data[11:17] == bytes(6)


def test_send(live, ctl):
    texts = [json.dumps({"cmd": "gimbal", "param": "mode", "value1": f"text {n}"})
             for n in range(6)]
    ctl("send", *texts[:3], "-", input="\n".join(texts[3:]) + "\n")
    live.fence()
    assert [text for text in live.camera.console().splitlines() if "text" in text] == [
        f"Gimbal set mode text {n}" for n in range(6)]


def test_force(live, ctl):
    ctl("gimbal", "mode", "other", "--force")
    live.camera.wait_text("Gimbal set mode other\n")


# --- The board -----------------------------------------------------------------------------------

DANGEROUS = ["format-card", "reset-camera", "recalibrate", "restart", "reboot", "shutdown"]


@pytest.mark.parametrize("word", DANGEROUS)
def test_asks_first(ctl, word):
    assert "--yes" in ctl.fails(word)


@pytest.mark.parametrize("word", ["reboot", "shutdown"])
def test_end_of_the_board(service, standins, ctl, word):
    ctl(word, "--yes")
    wait_until(lambda: standins.calls(word), 5, "the call")
    assert standins.calls(word) == [[word]]


def test_restart(service, ctl):
    ctl("restart", "--yes")
    assert service.wait_exit() == 3


def test_recalibration(service, standins, ctl):
    pathlib.Path("/boot/rcin.cal").touch()
    ctl("recalibrate", "--yes")
    wait_until(lambda: standins.calls("killall"), 5, "the end of the RC reader")
    assert not pathlib.Path("/boot/rcin.cal").exists()


# --- Watching ------------------------------------------------------------------------------------

BINS = bytes(range(64))
REPORTS = {
    "gimbal": GIMBAL.frame(a1=-1795, a2=12, a3=900),
    "tracking": TRACKING.frame(on_1=1, on_2=1, x=0.25, y=0.5, width=0.1, height=1.0),
    "recording": RECORDING.frame(state=1, reset=1),
    "lens": LENS.frame(state=0x86, base=200, value=300, zoom=1.5, focus_1=0.5, focus_2=-0.25,
                       flag=1, byte_42=7),
    "status": STATUS.frame(mode=1, byte_11=2, word_20=70000, word_40=9),
    "histogram": HISTOGRAM.frame(bins=BINS),
    "settings": SETTINGS.frame(iso=5, ev=15, exposure_mode=4, white_balance=2, temperature=56,
                               colour=23, resolution=10, frame_rate=3, aperture=280,
                               shutter=bytes([50, 0x80, 0]), photo_format=2, word_54=0x1234),
}

# What is shown of them: the members of the JSON object, the text behind the number.
SHOWN = [
    ({"message": "gimbal_attitude", "angle_1": 90, "angle_2": -179, "angle_3": 1},
     "gimbal attitude: angle 1 90°, angle 2 -179°, angle 3 1°"),
    ({"message": "gimbal_angles", "angle_1": 90, "angle_2": -179, "angle_3": 1},
     "gimbal angles: angle 1 90°, angle 2 -179°, angle 3 1°"),
    ({"message": "orientation", "locked": False}, "orientation: locked no"),
    ({"message": "tracking", "on": True, "x": 0.25, "y": 0.5, "width": 0.1, "height": 1},
     "tracking: on yes, x 0.25, y 0.5, width 0.1, height 1"),
    ({"message": "recording_timer", "state": 1, "reset": True, "seconds": 0},
     "recording timer: state 1, reset yes, seconds 0 s"),
    ({"message": "lens_flag", "lens_flag": True}, "lens flag: lens flag yes"),
    ({"message": "zoom", "focus_mode": 2, "ratio": 150, "zoom": 1.5},
     "zoom: focus mode 2, ratio 150 %, zoom 1.5"),
    ({"message": "focus_values", "focus_1": 0.5, "focus_2": -0.25, "focus_3": 7},
     "focus values: focus 1 0.5, focus 2 -0.25, focus 3 7"),
    ({"message": "camera_status", "camera_mode": "video", "status_792": 2, "status_796": 70000,
      "status_808": 9}, "camera status: camera mode video, status 792 2"),
    ({"message": "histogram", "bins": list(BINS)},
     "histogram: bins " + " ".join(map(str, BINS))),
    ({"message": "camera_settings", "exposure_mode": "M", "iso": "400", "shutter": "1/50 s",
      "aperture": 2.8, "ev": -0.3, "white_balance": "cloudy", "colour_temperature": 5600,
      "colour": "d-log", "resolution": "1920x1080", "frame_rate": 30, "photo_format": "JPG+RAW",
      "settings_728": 0x1234},
     "camera settings: exposure mode M, iso 400, shutter 1/50 s, aperture 2.8, ev -0.3, "
     "white balance cloudy, colour temperature 5600 K, colour d-log, resolution 1920x1080, "
     "frame rate 30 fps, photo format JPG+RAW"),
    ({"message": "connection", "source": "video", "connected": False},
     "connection: source video, connected no"),
    ({"message": "flags", "access_point": True, "hdmi": False, "camera_data": True,
      "rc_status": 0}, "flags: access point yes, hdmi no, camera data yes, viewers "),
    ({"message": "version", "version": "0.3.7", "variant": 2}, "version: version 0.3.7, variant 2"),
]


def test_watch_every_report(start, standins, data, ctl):
    standins.answer("pidof", "exit 0")
    service = start()
    data.keep_sending(TAIL, 0.1)
    service.err.wait("Data found")
    tools = [ctl.start("watch", "--json"), ctl.start("watch")]
    for tool in tools:
        tool.out.wait("version", 10)
    for frame in REPORTS.values():
        data.send(frame + TAIL)
    for members, text in SHOWN:
        tools[0].message(**members)
        tools[1].out.wait(f"  {text}", 10)
    assert [tool.interrupt() for tool in tools] == [0, 0]
    summary = tools[0].messages()[-1]
    assert summary["message"] == "summary"
    assert summary["counts"]["camera_settings"] == 1
    assert summary["frames"] == len(tools[0].messages()) - 1
    assert "frame counter: " in tools[1].out.text()
    service.err.wait("removed\n", count=2)


def test_watch_the_receiver(start, region, ctl):
    start("rc_input_enabled=1\n")
    region.write(region.RC_CHANNEL_VALUES[0], struct.pack("<32H", *range(1000, 1032)))
    region.write(region.RC_STATUS, b"\x06")
    tool = ctl.start("watch", "--json")
    tool.message(message="rc_channels", rc_status=6, channels=list(range(1000, 1032)))


def test_watch_json_texts(service, standins, ctl):
    standins.answer("iwlist", """echo '  ESSID:"one \x07"'; echo '  ESSID:"two"'""")
    tools = [ctl.start("watch", "--json"), ctl.start("watch")]
    for tool in tools:
        tool.out.wait("version", 10)
    ctl("config")
    report = tools[0].message(message="report")
    assert report["content"]["app"] == "nimbus"
    assert 'report: {"app":"nimbus",' in tools[1].out.wait("report: ")
    # Names of networks come from anybody, and a terminal must not obey them.
    assert ctl("wifi", "scan") == "one ?\ntwo\n"
    assert tools[0].message(message="wifi_scan")["content"]["value"] == "one \x07,two"
    assert "one ?,two" in tools[1].out.wait("wifi scan: ")


def test_watch_video(service, video, ctl):
    tool = ctl.start("watch", "--json")
    tool.out.wait("version", 10)
    for size in (100, 1400, 1):
        video.send(bytes(size))
    first = tool.message(message="video")
    seen = [one for one in tool.messages() if one["message"] == "video"]
    wait_until(lambda: sum(one["datagrams"] for one in tool.messages()
                           if one["message"] == "video") == 3, 5, "all video")
    assert first["bytes"] <= 1501 and seen
    assert tool.interrupt() == 0
    assert tool.messages()[-1]["counts"]["video"] == 3


def test_watch_for_a_time(service, ctl):
    begin = time.monotonic()
    lines = ctl("watch", "--seconds", "1.5").splitlines()
    assert time.monotonic() - begin >= 1.5
    assert any("version 0.3.7" in line for line in lines)
    assert any(line.startswith("frame counter: 0 gap(s), 0 missing") for line in lines)


def test_watch_stays_registered(service, ctl):
    tool = ctl.start("watch", "--seconds", "7")
    assert tool.wait(20) == 0
    said = service.err.text()
    assert said.count("New client") == 1 and "lost\n" not in said.split("Init control")[1]


class FakeService:
    """A service whose frames the test makes."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.socket.settimeout(limit(10))
        self.port = str(self.socket.getsockname()[1])
        self.viewer = None

    def receive(self):
        """The payload of the next datagram, whose header must be as it is agreed."""
        data, self.viewer = self.socket.recvfrom(65536)
        assert data[:12] == b"\x42" + bytes(11)
        return data[12:]

    def send(self, number, payload=b"\x0B\x00\x03\x07\x02\x00\x00", kind=0):
        frame = struct.pack("<BBHIHH", 0x42, kind, 0, number, 0xBEEF, 0) + payload
        self.socket.sendto(frame, self.viewer)

    def close(self):
        self.socket.close()


@pytest.fixture
def fake():
    one = FakeService()
    yield one
    one.close()


def test_gaps(fake, ctl):
    tool = ctl.start("--port", fake.port, "watch", "--json")
    assert fake.receive() == b"\x00\x00"
    for number in (2**32 - 2, 2**32 - 1, 0, 1, 4, 4, 3, 5, 105):
        fake.send(number)
    fake.send(106, b"\x63unknown")
    fake.send(107, b"\x0B\x00")
    wait_until(lambda: len(tool.messages()) == 11, 10, "all messages")
    assert tool.interrupt() == 0
    *messages, summary = tool.messages()
    assert [one["number"] for one in messages][:4] == [2**32 - 2, 2**32 - 1, 0, 1]
    assert messages[-2]["message"] == messages[-1]["message"] == "unknown"
    assert messages[-1]["hex"] == "0b 00"
    assert (summary["gaps"], summary["missing"], summary["late"]) == (2, 101, 2)
    while (last := fake.receive()) == b"\x00\x00":
        pass
    assert last == b"\x01"


def test_foreign_datagrams_are_no_answer(fake, ctl):
    tool = ctl.start("--port", fake.port, "--timeout", "0.5", "watch")
    fake.receive()
    for data in (b"", b"\x42", b"B" * 11, b"hello, this is not a frame"):
        fake.socket.sendto(data, fake.viewer)
    assert tool.wait() == 1


@pytest.mark.parametrize("ages", ["9999999999", f"{'9' * 306}h"], ids=["seconds", "hours"])
@pytest.mark.parametrize("typed", ["--timeout {} watch", "watch --seconds {}"])
def test_more_time_than_the_clock_counts(fake, ctl, typed, ages):
    """It is not over at once."""
    tool = ctl.start("--port", fake.port, *typed.format(ages).split())
    assert fake.receive() == b"\x00\x00"
    for number in range(3):
        fake.send(number)
    tool.out.wait("#2 ")
    assert tool.process.poll() is None
    assert tool.interrupt() == 0


def test_hardly_any_time(fake, ctl):
    """It is no 0, which would be no end."""
    tool = ctl.start("--port", fake.port, "watch", "--seconds", "0.0000001")
    fake.receive()
    fake.send(0)
    assert tool.wait() == 0


def test_silence(fake, ctl):
    tool = ctl.start("--port", fake.port, "watch")
    fake.receive()
    fake.send(0)
    tool.out.wait("silence: ", 10)


# --- Settings ------------------------------------------------------------------------------------

# What is typed behind "config set", what it prints, what the file then holds.
CHANGES = {
    "rcin_enabled on": ("rc_input_enabled: 0 -> 1", {"rc_input_enabled": "1"}),
    "rcin_mode pwm sbus": ("rc_input_mode: (empty) -> pwm\nrc2_input_mode: (empty) -> sbus",
                           {"rc_input_mode": "pwm", "rc2_input_mode": "sbus"}),
    "rcin_map pan,tilt,,ev": (f"rc_input_map: {31 * ','} -> pan,tilt,,ev",
                              {"rc_input_map": "pan,tilt,,ev"}),
    "rcin_speed 10 20 30": ("rc_input_speed_pan: 0 -> 10\nrc_input_speed_tilt: 0 -> 20\n"
                            "rc_input_speed_dutch: 0 -> 30",
                            {"rc_input_speed_pan": "10", "rc_input_speed_tilt": "20",
                             "rc_input_speed_dutch": "30"}),
    "rcin_pan 150": ("rc_input_speed_pan: 10 -> 150", {"rc_input_speed_pan": "150"}),
    "rcin_tilt -3": ("rc_input_speed_tilt: 20 -> -3", {"rc_input_speed_tilt": "-3"}),
    "rcin_dutch 5": ("rc_input_speed_dutch: 30 -> 5", {"rc_input_speed_dutch": "5"}),
    "rcin_pan_inv 2": ("rc_input_inverse_pan: 0 -> 2", {"rc_input_inverse_pan": "2"}),
    "rcin_tilt_inv 1": ("rc_input_inverse_tilt: 0 -> 1", {"rc_input_inverse_tilt": "1"}),
    "rcin_dutch_inv -1": ("rc_input_inverse_dutch: 0 -> -1", {"rc_input_inverse_dutch": "-1"}),
    "rcin_exp yes": ("rc_input_exp: 0 -> 1", {"rc_input_exp": "1"}),
    "rcin_abs true": ("rc_input_abs: 0 -> 1", {"rc_input_abs": "1"}),
    "internal_camera_enabled 1": ("internal_camera_enabled: 0 -> 1",
                                  {"internal_camera_enabled": "1"}),
    "internal_camera_fullscreen on": ("internal_camera_fullscreen: 0 -> 1",
                                      {"internal_camera_fullscreen": "1"}),
    "osd_enabled on": ("osd_enabled: 0 -> 1", {"osd_enabled": "1"}),
    "hdmi_enabled on": ("hdmi_enabled: 0 -> 1", {"hdmi_enabled": "1"}),
    "osd_borders 200 100": ("osd_border_width: 0 -> 200\nosd_border_height: 0 -> 100",
                            {"osd_border_width": "200", "osd_border_height": "100"}),
    "osd_offset 5 6": ("osd_top_offset: 0 -> 5\nosd_bottom_offset: 0 -> 6",
                       {"osd_top_offset": "5", "osd_bottom_offset": "6"}),
    "osd_top_offset 7": ("osd_top_offset: 5 -> 7", {"osd_top_offset": "7"}),
    "osd_bottom_offset 8": ("osd_bottom_offset: 6 -> 8", {"osd_bottom_offset": "8"}),
    "video_bitrate 2000000": ("video_bitrate: 0 -> 2000000", {"video_bitrate": "2000000"}),
    "video_transcode_enabled on": ("video_transcode_enabled: 0 -> 1",
                                   {"video_transcode_enabled": "1"}),
    "disable_video_stream on": ("disable_video_stream: 0 -> 1", {"disable_video_stream": "1"}),
    "video_hflip on": ("video_hflip: 0 -> 1", {"video_hflip": "1"}),
    "video_vflip on": ("video_vflip: 0 -> 1", {"video_vflip": "1"}),
    "video_resolution 640x480": ("video_width: 0 -> 640\nvideo_height: 0 -> 480",
                                 {"video_width": "640", "video_height": "480"}),
    "video_hflip off": ("video_hflip: 1 -> 0", {"video_hflip": "0"}),
}


def test_config_set(board, data, ctl):
    data.keep_sending(GIMBAL.frame() + TAIL, 0.02)
    for typed, (printed, kept) in CHANGES.items():
        assert ctl("config", "set", *typed.split()) == printed + "\n", typed
        assert kept.items() <= settings().items(), typed
    assert ctl("config", "set", "rcin_pan", "150") == "nothing changed: rcin_pan was so already\n"


def test_every_setting_has_a_test(ctl):
    listed = ctl("config", "set", "--help").partition("Settings:\n")[2].partition("\n\n")[0]
    names = {line.split()[0] for line in listed.splitlines() if not line.startswith("   ")}
    assert names == {typed.split()[0] for typed in CHANGES} | {"hdmimode", "wifi"}


def test_config_set_wifi(board, ctl):
    out = ctl("config", "set", "wifi", "ap_ssid=Nimbus one", "ap_psk=a=b", "ap_mode=5",
              "ap_channel=36", "ap_country=DE", "lan_iface=wifi0", "cam_iface=2")
    assert out == ("ap_ssid: (empty) -> Nimbus one\nap_psk: (empty) -> a=b\nap_mode: 0 -> 5\n"
                   "ap_channel: 0 -> 36\nap_country: (empty) -> DE\n"
                   "wifi_iface: none -> wifi0\ncamera_iface: none -> wlan0\n")
    # What is not named stays.
    assert ctl("config", "set", "wifi", "lan_iface=none", "cam_ssid=C") == (
        "wifi_iface: wifi0 -> none\ncamera_ssid: (empty) -> C\n")
    assert settings()["ap_ssid"] == '"Nimbus one"'


def test_config_set_hdmi_mode(board, ctl):
    out = ctl("config", "set", "hdmimode", "1280x720@60p CEA", "on")
    assert out == "hdmimode was sent; the report does not show it\n"
    assert ["tvservice", "-e", "CEA 4"] in board.calls()


def test_config(start, ctl):
    start('video_bitrate=2000000\nap_iface=wlan0\nap_ssid="Nimbus"\n')
    rows = [line.split() for line in ctl("config").splitlines()]
    assert ["video_bitrate", "vbitrate", "2000000"] in rows
    assert ["ap_iface", "ap_iface", "wlan0"] in rows
    assert ["ap_ssid", "ap_ssid", "Nimbus"] in rows
    assert ["service", "version", "0.3.7"] in rows
    assert json.loads(ctl("config", "--json"))["vbitrate"] == 2000000


def test_config_that_is_no_json(service, ctl):
    ctl("send", json.dumps({"cmd": "updateparam", "name": "wifi", "value8": 'a"b'}))
    assert "no JSON" in ctl.fails("config")
    assert '"ap_ssid":"a"b"' in ctl("config", "--json")


def test_config_that_does_not_come(fake, ctl):
    """Somebody is there, but answers no command."""
    tool = ctl.start("--port", fake.port, "config")
    fake.receive()
    fake.send(0)
    assert tool.wait(20) == 1
    assert tool.err.text() == (
        'nimbusctl: the service does not answer the command {"cmd":"configrequest"}; expected an '
        "answer within 10 s\n")


@pytest.fixture
def asking(fake, ctl):
    """A run that has asked for the report."""
    tool = ctl.start("--port", fake.port, "config")
    fake.receive()
    fake.send(0)
    while not fake.receive().startswith(b"{"):
        pass
    return tool


def test_config_that_is_waited_for(asking):
    """Ctrl-C ends the wait, and says nothing."""
    assert asking.interrupt() == 130
    assert asking.err.text() == ""


def test_addresses(asking, fake):
    fake.send(1, json.dumps({"app": "nimbus", "ifaces": [
        {"name": "eth0", "addr": "192.168.1.5"}, {"name": "wlan0", "addr": "10.0.0.1"}]}).encode())
    assert asking.wait() == 0
    rows = [line.split(maxsplit=2) for line in asking.out.text().splitlines()]
    assert ["addresses", "ifaces", "eth0 192.168.1.5, wlan0 10.0.0.1"] in rows


def test_wifi_scan(service, standins, ctl):
    standins.answer("iwlist", """echo '  ESSID:"one"'; echo '  ESSID:"two words"'""")
    assert ctl("wifi", "scan", "wifi0") == "one\ntwo words\n"
    assert standins.calls("iwlist") == [["iwlist", "wifi0", "scan"]]
    assert ctl("wifi", "scan") == "one\ntwo words\n"
    assert standins.calls("iwlist")[-1] == ["iwlist", "wlan0", "scan"]
    standins.answer("iwlist", "true")
    assert ctl("wifi", "scan") == "no networks on wlan0\n"
    standins.answer("iwlist", """echo '  ESSID:"a"b"'""")
    assert "the scan's reply is no JSON" in ctl.fails("wifi", "scan")


# --- Video ---------------------------------------------------------------------------------------


def test_video(service, video, ctl):
    tool = ctl.start("video")
    service.err.wait("New client")
    pieces = [os.urandom(size) for size in (1, 1400, 188, 60000, 1316)]
    for piece in pieces:
        video.send(piece)
    wait_until(lambda: tool.out.bytes() == b"".join(pieces), 10, "the video")
    assert tool.interrupt() == 0
    service.err.wait("removed\n")


def test_video_for_a_time(service, ctl):
    assert ctl("video", "--seconds", "200ms") == ""


def test_no_video(service, ctl):
    tool = ctl.start("video")
    tool.err.wait("no video yet", 10)


@pytest.mark.parametrize("arguments", [["video"], ["watch"], ["watch", "--json"],
                                       ["hud", "--follow"]])
def test_closed_pipe(service, viewer, ctl, arguments):
    bridge = Bridge(VIDEO_PORT)
    bridge.keep_sending(bytes(1000), 0.02)
    tool = subprocess.Popen(ctl.command(*arguments), stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE)
    try:
        assert tool.stdout.read(10)
        tool.stdout.close()
        assert tool.wait(limit(10)) == 0
        assert tool.stderr.read() == b""
    finally:
        tool.kill()
        tool.stderr.close()
        bridge.close()


def test_full_disk(service, ctl):
    with open("/dev/full", "wb") as full:
        done = subprocess.run(ctl.command("config"), stdout=full, stderr=subprocess.PIPE, text=True,
                              check=False)
    assert (done.returncode, done.stderr) == (
        1, "nimbusctl: cannot write: No space left on device\n")


def test_output_that_does_not_wait(service, video, ctl):
    """A pipe whose reader has set it so, and reads only later: nothing is lost."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    tool = subprocess.Popen(ctl.command("video"), stdout=writer, stderr=subprocess.PIPE)
    os.close(writer)
    service.err.wait("New client")
    pieces = [os.urandom(50_000) for _ in range(4)]  # twice what a pipe holds
    for piece in pieces:
        video.send(piece)
    time.sleep(0.5)
    with open(reader, "rb") as output:
        assert output.read(200_000) == b"".join(pieces)
        tool.send_signal(signal.SIGINT)
        assert tool.wait(limit(10)) == 0
        tool.stderr.close()


# --- The display region --------------------------------------------------------------------------


def test_hud(start, region, ctl):
    service = start("rc_input_map=pan,,focus-tilt\nosd_enabled=1\n")
    rows = dict(line.split(maxsplit=1) for line in ctl("hud").splitlines() if " " in line.strip())
    assert rows["product_name"] == "Tervado Nimbus"
    assert rows["osd_enabled"] == "yes"
    assert rows["rc_channel_map"].startswith("pan,-,focus-tilt,-")
    assert rows["telemetry_status_text"] == "telemetry disconnected"
    shown = json.loads(ctl("hud", "--json"))
    assert shown["version_text"] == "v.0.3.7"
    assert shown["focus_point_x"] == 0.5
    assert len(shown["rc_channel_values"]) == 32
    assert service.running()


def test_hud_follows(service, region, ctl):
    tool = ctl.start("hud", "--follow", "--json")
    wait_until(tool.messages, 10, "the first line")
    region.write(region.GIMBAL_ANGLE_1, struct.pack("<h", -180))
    tool.message(gimbal_angle_1=-180)
    region.write(region.EV, struct.pack("<d", float("nan")))
    tool.message(ev=None)
    assert len(tool.messages()) == 3
    assert tool.interrupt() == 0


def test_no_region(ctl):
    assert "/hud_mem: No such file" in ctl.fails("hud")


def test_short_region(ctl):
    pathlib.Path("/dev/shm/hud_mem").write_bytes(bytes(100))
    assert f"it has 100 bytes, not {REGION_SIZE}" in ctl.fails("hud")


# --- What goes wrong -----------------------------------------------------------------------------

BAD = {
    "": "no command; expected discover, watch, top, ",
    "dance": "no command 'dance'; expected discover, watch, ",
    "watch now": "unexpected 'now'",
    "watch --loud": "unexpected '--loud'",
    "watch --seconds": "--seconds",
    "watch --seconds soon": "'soon' is no time; expected such as 2, 2s or 500ms",
    "watch --seconds -1": "is no time",
    "watch --seconds 0": "'0' is no time",
    "--port 0 watch": "--port: Value 0 not in range 1 to 65535",
    "--port x watch": "--port",
    "--timeout never watch": "'never' is no time",
    "iso": "iso has 0 value(s); expected ISO",
    "iso 125": "iso: ISO cannot be '125'; expected auto, 100, 200, 400, ",
    "iso 100 200": "iso has 2 value(s); expected ISO",
    "shutter 50": "shutter: TIME cannot be '50'; expected 30s, ",
    "ev 0.4": "expected -3, -2.7, ",
    "ev x": "ev: EV cannot be 'x'",
    "aperture f/2": "expected an f-number",
    "aperture nan": "expected an f-number",
    "wb": "wb has 0 value(s); expected NAME",
    "wb moonlight": "expected auto, sunny, cloudy, incandescent, neon",
    "wb custom 1000": "expected an integer from 2000 to 25599",
    "color blue": "expected none, art, black white, ",
    "gimbal": "gimbal needs a word; expected mode, follow, ",
    "gimbal spin": "gimbal knows no 'spin'; expected mode, ",
    "gimbal mode sport": "expected tiltlocked, fpv, follow",
    "gimbal move 1": "gimbal move has 1 value(s); expected PAN TILT [ROLL]",
    "gimbal move 1 x": "TILT cannot be 'x'; expected an integer",
    "focus 0.5 2": "expected a number from 0 to 1",
    "record": "record needs a word; expected start, stop",
    "record start now": "record start has 1 value(s); expected none",
    "resolution 1080p": "expected 4096x2160@25, ",
    "speed 1 2": "ROLL",
    "speed 1 2 99999": "ROLL",
    "send": "TEXT",
    "send hello": "'hello' is no JSON object; expected one such as",
    "send [1]": "is no JSON object",
    "config set": "NAME",
    "config get": "unexpected 'get'",
    "config set volume 3": "no setting 'volume'; expected rcin_enabled, ",
    "config set osd_borders 3": "osd_borders has 1 value(s); expected WIDTH HEIGHT",
    "config set osd_borders 3 256": "expected an integer from 0 to 255",
    "config set video_hflip maybe": "expected on, off",
    "config set rcin_map pan,jump": "expected up to 32 words",
    "config set wifi": "expected NAME=VALUE with one of cam_iface, ",
    "config set wifi ssid=x": "wifi takes no 'ssid=x'; expected NAME=VALUE with one of cam_iface, ",
    "config set wifi ap_iface=eth0": "expected none, wifi0, wlan0",
    "config set hdmimode huge": "expected default, 640x480@60p CEA, ",
    "config set wifi ap_mode=3": "expected 2.4, 5",
    "--host 192.0.2.1 shot": "cannot reach 192.0.2.1: Network is unreachable",
    "wifi": "wifi needs a word; expected scan",
    "wifi scan eth0": "no interface 'eth0'; expected wifi0 or wlan0",
    "--host no.such.host.invalid shot": "no host 'no.such.host.invalid'",
}


@pytest.mark.parametrize("typed", BAD)
def test_bad_command_line(ctl, typed):
    assert BAD[typed] in ctl.fails(*typed.split())


def test_long_command(service, ctl):
    text = json.dumps({"cmd": "x" * 511})
    assert f"a command of {len(text)} bytes; expected at most 511" in ctl.fails("send", text)


@pytest.mark.parametrize("typed", ["watch", "video", "config", "shot", "speed 1 1 1", "wifi scan",
                                   'send {"cmd":"shot"}', "config set video_hflip on"])
def test_nobody_answers(ctl, typed):
    begin = time.monotonic()
    line = ctl.fails("--timeout", "300ms", *typed.split())
    assert line.startswith("nobody answers at 127.0.0.1:4242 within 0.3 s; expected a running")
    assert 0.3 <= time.monotonic() - begin < limit(5)


def test_nothing_is_sent_to_nobody(fake, ctl):
    """A command goes out only when somebody is there to obey it."""
    assert ctl.run("--port", fake.port, "--timeout", "1s", "shot").returncode == 1
    fake.socket.settimeout(limit(0.2))
    payloads = []
    with pytest.raises(TimeoutError):
        while True:
            payloads.append(fake.receive())
    assert set(payloads) == {b"\x00\x00", b"\x01"}


def test_host(service, ctl):
    # A name that every system knows, also one without /etc/hosts.
    assert "version" in ctl("--host", "127.1", "watch", "--seconds", "1.3")
    assert "no host" in ctl.fails("shot", env={"NIMBUS_HOST": "no.such.host.invalid"})
    assert ctl("video", "--seconds", "0.1", "--host", "127.0.0.1",
               env={"NIMBUS_HOST": "no.such.host.invalid"}) == ""


def test_ctrl_c_while_nobody_answers(fake, ctl):
    tool = ctl.start("--port", fake.port, "--timeout", "1min", "shot")
    fake.receive()
    assert tool.interrupt() == 130
    assert tool.err.text() == ""


def test_version(ctl):
    assert ctl("--version") == "nimbusctl 0.3.7\n"


# --- Completion ----------------------------------------------------------------------------------

COMPLETED = {
    "": {"watch", "record", "shutdown"},
    "w": {"watch", "wifi", "wb"},
    "record ": {"start", "stop"},
    "gimbal mode f": {"fpv", "follow"},
    "--host board iso 1": {"100", "1600"},
    "aspect 16:": {"9"},
    "resolution 1280x720@2": {"25", "24"},
    "ev -2": {"-2", "-2.3", "-2.7"},
    "config set video_b": {"video_bitrate"},
    "config set --force wifi ap_ssid=x cam_": {"cam_iface=", "cam_ssid=", "cam_psk="},
    "wifi scan w": {"wifi0", "wlan0"},
    "watch --s": {"--seconds"},
    "reboot --y": {"--yes"},
    "--ver": {"--version"},
    "shot ": set(),
    "nonsense ": set(),
}


@pytest.mark.parametrize("typed", COMPLETED)
def test_completion(build, typed):
    file = pathlib.Path(__file__).resolve().parents[2] / "tools" / "ctl" / "nimbusctl.bash"
    script = (f'. "{file}"; COMP_LINE="nimbusctl $1"; COMP_POINT=${{#COMP_LINE}}; _nimbusctl; '
              'printf "%s\\n" "${COMPREPLY[@]}"')
    done = subprocess.run(["bash", "-c", script, "bash", typed], capture_output=True, text=True,
                          check=True, env={**os.environ, "PATH": f"{build}:{os.environ['PATH']}"})
    assert done.stderr == ""
    found = set(done.stdout.split())
    assert found >= COMPLETED[typed] if typed == "" else found == COMPLETED[typed]
