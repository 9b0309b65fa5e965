"""Tools of the board that hang, or print without end. Who has called one waits for it, and nobody
else."""

import itertools
import json
import time

import pytest

from harness.config_file import CARD_FILE
from harness.configuring import settings
from harness.console import connected, removed
from harness.duml import command, parse
from harness.growth import GROWTH_BYTES, resources
from harness.receiver import RcReader
from harness.timing import TIME_SCALE, limit, wait_until

SAVE = {"cmd": "updateparam", "name": "video_bitrate", "value": "1"}
SCAN = {"cmd": "wlan", "param": "scan", "value": "1"}
HDMI_MODE = {"cmd": "updateparam", "name": "hdmimode", "value": "default"}

# The tools that the control thread runs, and what makes it do so.
CAUSES = {"mount": SAVE, "umount": SAVE, "killall": SAVE, "tvservice": HDMI_MODE, "iwlist": SCAN}

WATCH_SECONDS = 0.6
STREAM_PERIOD = 0.030


class Hanging:
    """Tools that hang until they are let go, all at once."""

    def __init__(self, standins):
        self._standins = standins

    def hang(self, *tools):
        for tool in tools:
            self._standins.answer(tool, ': >"$NIMBUS_STANDINS/$(basename "$0").hangs"\n'
                                        'while [ ! -e "$NIMBUS_STANDINS/go" ]; do sleep 0.02; done')

    def wait(self, tool):
        """Waits until that tool hangs."""
        wait_until((self._standins.folder / f"{tool}.hangs").exists, 5, f"the call of {tool}")

    def let_go(self):
        (self._standins.folder / "go").touch()


@pytest.fixture
def hanging(standins):
    one = Hanging(standins)
    yield one
    one.let_go()


class Life:
    """What must go on at a station, whatever hangs: video, the gimbal's stream, viewers that come
    and go."""

    def __init__(self, station, viewers, video):
        self.station = station
        self._viewers, self._video = viewers, video
        self._numbers = itertools.count()
        self.viewer = viewers("127.0.0.2")
        self.viewer.keep_alive()
        station.camera.wait_text(connected(self.viewer))
        self.viewer.speed(1, 4000, 0, 0)
        station.camera.wait_frames(1)

    def watch(self):
        """Sees to it for a while. Returns the longest gap of the stream, in seconds."""
        start = self.station.camera.count()
        end = time.monotonic() + WATCH_SECONDS
        while time.monotonic() < end:
            picture = b"picture %d" % next(self._numbers)
            self._video.send(picture)
            self.viewer.wait(lambda frame, picture=picture: frame.payload == picture)
        guest = self._viewers("127.0.0.3")
        guest.register()
        self.station.camera.wait_text(connected(guest))
        guest.leave()
        self.station.camera.wait_text(removed(guest))
        sent = [event.time for event in self.station.camera.frames(start)
                if parse(event.data)[0].id == 0x0C]
        assert len(sent) > 0.3 * WATCH_SECONDS / STREAM_PERIOD / TIME_SCALE
        return max(after - before for before, after in zip(sent, sent[1:]))

    def wait_status(self):
        """Waits for a whole second's status messages."""
        seen = len(self.viewer.frames)
        for kind in (5, 6, 11):
            self.viewer.message(kind, start=seen)


@pytest.fixture
def lively(stations, viewers, video):
    """lively(conf="") is a Life."""
    return lambda conf="": Life(stations(conf=conf), viewers, video)


@pytest.mark.parametrize("tool", CAUSES)
def test_tool_of_a_command_that_hangs(lively, hanging, tool):
    """Commands wait; the last one that came is done afterwards. RC and status go on, too."""
    life = lively("rc_input_enabled=1\n")
    station = life.station
    rc = RcReader(station.region)
    hanging.hang(tool)
    station.post(CAUSES[tool])
    hanging.wait(tool)
    gap = life.watch()
    rc.cycle()
    life.wait_status()
    station.post(command("shot"))
    mailbox = station.region.COMMAND_MAILBOX[0]
    assert station.region.u8(mailbox) == ord("{")
    assert "Camera shot\n" not in station.camera.console()
    hanging.let_go()
    station.camera.wait_text("Camera shot\n", 10)
    print(f"\n{tool} hangs: longest gap of the gimbal stream {1000 * gap:.0f} ms")
    assert gap < limit(2.0)


def test_everything_hangs(lively, hanging):
    """The status loop, the control thread and the RC thread all wait for their tools; video, stream
    and viewers do not. Afterwards all go on."""
    life = lively("rc_input_enabled=1\n")
    station = life.station
    rc = RcReader(station.region)
    rc.assign("intcamera")
    rc.cycle()
    hanging.hang("pidof", "iwlist", "mount")
    station.post(SCAN)
    rc.hold("intcamera", 1.0)
    for tool in ("pidof", "iwlist", "mount"):
        hanging.wait(tool)
    gap = life.watch()
    with pytest.raises(AssertionError):
        rc.cycle(0.2 / TIME_SCALE)
    hanging.let_go()
    rc.cycle()
    life.wait_status()
    station.post(command("shot"))
    station.camera.wait_text("Camera shot\n")
    print(f"\neverything hangs: longest gap of the gimbal stream {1000 * gap:.0f} ms")
    assert gap < limit(2.0)


def test_hanging_tool_does_not_keep_the_successor(start, standins, hanging, join):
    """A service that is killed while a tool hangs leaves nothing that its successor needs."""
    hanging.hang("iwlist")
    first = start()
    viewer = join(first)
    viewer.command('{"cmd":"wlan","param":"scan","value":"1"}')
    hanging.wait("iwlist")
    first.kill()
    second = start()
    viewer = join(second)
    viewer.command('{"cmd":"shot"}')
    second.err.wait("Camera shot\n")
    standins.reset("iwlist")


# --- Tools that print without end ----------------------------------------------------------------

LINES = "yes 'ESSID:\"0123456789\"' | head -c {size}"
ONE_LINE = "head -c {size} /dev/zero | tr '\\0' '\"'"
NUL = "head -c {size} /dev/zero"


@pytest.mark.parametrize("print_all", [LINES, ONE_LINE, NUL], ids=["lines", "one line", "NUL"])
def test_scan_that_prints_megabytes(unsanitized, steady, viewers, standins, times, print_all):
    """It is read to its end; the answer is a datagram, and nothing grows."""
    size = times(5, 200) * 1_000_000
    viewer = viewers()
    viewer.keep_alive()

    def scan():
        seen = len(viewer.frames)
        viewer.command('{"cmd":"wlan","param":"scan","value":"1"}')
        return viewer.wait(lambda frame: frame.payload.startswith(b'{"cmd":"wlanscan"'), 60,
                           "the answer", seen).payload

    standins.answer("iwlist", LINES.format(size=200_000))
    scan()  # every page of the buffers has been used before
    before = resources(steady)
    standins.answer("iwlist", print_all.format(size=size))
    begin = time.monotonic()
    assert len(scan()) < 60_000
    passed = time.monotonic() - begin
    after = resources(steady)
    print(f"\nscan: {size / 1e6:.0f} MB in {passed:.2f} s; "
          f"memory {(after[0] - before[0]) // 1024:+d} KiB")
    assert after[0] <= before[0] + GROWTH_BYTES
    assert after[1:] == before[1:]
    assert passed < size / 1e6


def test_tools_that_fill_the_console(unsanitized, launch, tmp_path, viewers, standins, times):
    """What the tools of a save print goes where the service's own texts go. The save is whole."""
    size = times(2, 100) * 1_000_000
    console = tmp_path / "console"
    with console.open("wb") as stderr:
        service = launch(stderr=stderr)
    viewer = viewers()
    viewer.keep_alive()
    viewer.command(json.dumps(SAVE))
    wait_until(lambda: standins.calls("killall"), 5, "a save of the ordinary kind")
    viewer.message(11)
    before = resources(service)
    for tool in ("mount", "umount", "killall"):
        standins.answer(tool, f"yes {tool} | head -c {size} >&2; exit 7")
    begin = time.monotonic()
    viewer.command(json.dumps({**SAVE, "value": "2"}))
    # Two mounts, the umount and the killall.
    wait_until(lambda: console.stat().st_size >= 4 * size, 60, "the end of the save")
    viewer.message(11, start=len(viewer.frames))
    viewer.command('{"cmd":"shot"}')
    wait_until(lambda: tail(console).endswith(b"Camera shot\n"), 60, "the next command")
    passed = time.monotonic() - begin
    after = resources(service)
    print(f"\nconsole: {4 * size / 1e6:.0f} MB in {passed:.2f} s; "
          f"memory {(after[0] - before[0]) // 1024:+d} KiB")
    assert settings(CARD_FILE)["video_bitrate"] == "2"
    assert after[0] <= before[0] + GROWTH_BYTES
    assert after[1:] == before[1:]


def tail(file):
    """The last kilobyte of a file."""
    with file.open("rb") as opened:
        opened.seek(max(0, file.stat().st_size - 1024))
        return opened.read()
