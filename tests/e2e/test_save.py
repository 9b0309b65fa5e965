"""The configuration file, as it is written when the pilot switches the internal camera."""

import os
import pathlib
import subprocess
import time

import pytest

from harness.board_tools import BOARD_TOOL, Standins
from harness.config_file import (
    CARD_FILE, EMPTY_MAP, FLAGS, GOLDEN, KEYS, QUOTED, WORKING_COPY, default_file, values_of,
    with_settings, without_cr)
from harness.duml import camera, command, speed
from harness.receiver import RcReader
from harness.timing import TIME_SCALE, wait_until

pytest_plugins = ["harness.commanding"]

# What a save runs, in order: the partition is made writable, the file written, the partition
# mounted afresh, the working copy made; and then the switch ends the camera.
REMOUNT = ["mount", "-o", "rw,remount", "/boot"]
UMOUNT = ["umount", "/boot"]
MOUNT = ["mount", "/boot"]
CAT = ["cat", "/boot/tervado-nimbus.conf"]
SED = ["sed", "s/\\r$//"]
KILLALL = ["killall", "-q", "raspivid"]
CALLS = [REMOUNT, UMOUNT, MOUNT, CAT, SED, KILLALL]
CALLS_WITHOUT_FILE = [REMOUNT, KILLALL]


# --- Files ---------------------------------------------------------------------------------------


def conf_of(file):
    """What the loader is given for those settings, without comments and in another order."""
    return "".join(f"{key}={value}\n" for key, value in reversed(values_of(file).items()))


# --- The saving service --------------------------------------------------------------------------


class Saver:
    """A running service whose pilot has the switch for the internal camera in hand."""

    def __init__(self, service, region, standins):
        self.service = service
        self._standins = standins
        self._up = False
        self.rc = RcReader(region)
        self.rc.assign("intcamera")
        self.rc.cycle()

    def calls(self):
        """What was run so far, but for the probe of the status loop. The two ends of a pipe start
        in any order."""
        calls = [call for call in self._standins.calls() if call[0] != "pidof"]
        for index in range(len(calls) - 1):
            if calls[index:index + 2] == [SED, CAT]:
                calls[index:index + 2] = [CAT, SED]
        return calls

    def switch(self):
        """Moves the switch, without waiting for anything."""
        self._up = not self._up
        self.rc.hold("intcamera", 1.0 if self._up else -1.0)

    def save(self, seconds=5):
        """Moves the switch and waits for the end of the save. Returns what was run."""
        before = len(self.calls())
        self.switch()
        self.rc.cycle(seconds)
        return self.calls()[before:]


@pytest.fixture
def tools(tmp_path):
    """The environment in which the ordinary tools of a save are recorded, too, and do their
    work."""
    folder = tmp_path / "tools"
    folder.mkdir()
    standin = BOARD_TOOL
    standins = Standins()
    for tool in ("cat", "sed"):
        (folder / tool).symlink_to(standin)
        standins.answer(tool, f'exec /bin/{tool} "$@"')
    return {"PATH": f"{folder}:{os.environ['PATH']}"}


@pytest.fixture
def savers(start, region, standins, tools):
    """savers(conf) makes a Saver. RC input is enabled in addition to `conf`."""

    def make(conf="", **options):
        service = start(f"{conf}rc_input_enabled=1\n", env=tools, **options)
        return Saver(service, region, standins)

    return make


@pytest.fixture
def saver(savers):
    return savers()


def saves(saver):
    """How often the service has said that it saves."""
    return saver.service.err.text().count("Save config\n")


# --- What is written -----------------------------------------------------------------------------


def test_golden_file_is_whole():
    """Nothing is missing in the file that the others are held to."""
    lines = GOLDEN.read_bytes().split(b"\r\n")
    assert lines.pop() == b""
    assert len(lines) == 157
    assert not any(b"\r" in line or b"\n" in line for line in lines)
    assert len(KEYS) == 39
    blanks = {line for line in lines if line.endswith(b" ")}
    assert len(blanks) == 7 and all(line.startswith(b"#") for line in blanks)


def test_golden_file(savers):
    """Every byte of the file, for a record with every setting in it; only the switch's own setting
    was different before."""
    golden = GOLDEN.read_bytes()
    saver = savers(conf_of(with_settings(internal_camera_fullscreen=0)))
    assert saver.save() == CALLS
    assert CARD_FILE.read_bytes() == golden
    assert WORKING_COPY.read_bytes() == without_cr(golden)


def test_default_file(saver):
    """Every byte of the file, for a record with nothing in it."""
    saver.save()
    assert CARD_FILE.read_bytes() == default_file(internal_camera_fullscreen=1)
    assert WORKING_COPY.read_bytes() == without_cr(default_file(internal_camera_fullscreen=1))
    saver.save()
    assert CARD_FILE.read_bytes() == default_file()
    assert WORKING_COPY.read_bytes() == without_cr(default_file())


def test_file_of_a_service_without_one(start, region, standins, tools):
    """A service that found no file has RC input disabled and saves nothing."""
    service = start(conf=None, env=tools)
    rc = RcReader(region)
    rc.assign("intcamera")
    rc.hold("intcamera", 1.0)
    time.sleep(0.2)
    assert "Save config\n" not in service.err.text()
    assert standins.calls("mount") == []


@pytest.mark.parametrize("key", FLAGS[:-1])
def test_each_flag_has_its_line(savers, key):
    """A flag that is set alone shows in its own line alone, as 1."""
    savers("" if key == "rc_input_enabled" else f"{key}=7\n").save()
    assert CARD_FILE.read_bytes() == default_file(**{"internal_camera_fullscreen": 1, key: 1})


@pytest.mark.parametrize("values", [
    pytest.param({key: 255 for key in KEYS if key.startswith("osd_") and key != "osd_enabled"},
                 id="bytes"),
    pytest.param({key: 2147483647 for key in KEYS if key.startswith("video_")
                  and key not in FLAGS}, id="largest"),
    pytest.param({f"rc_input_{word}_{axis}": -2147483648 for word in ("speed", "inverse")
                  for axis in ("pan", "tilt", "dutch")}, id="smallest"),
    pytest.param({"ap_channel": 99, "ap_mode": -7, "video_bitrate": 0}, id="never clamped"),
    pytest.param({"rc_input_mode": "12345", "rc2_input_mode": "abcde", "ap_iface": "123456789",
                  "wifi_iface": "abcdefghi", "camera_iface": "ABCDEFGHI",
                  "ap_country": "987654321"}, id="full texts"),
    pytest.param({key: f'"{number:0180}"' for number, key in enumerate(QUOTED)}, id="long texts"),
    pytest.param({key: f'"%s%n%{number}$s\\r\\n\\0&<>|$HOME`id`"'
                  for number, key in enumerate(QUOTED)}, id="hostile texts"),
    pytest.param({"ap_ssid": '" "', "ap_psk": '"\t x "', "wifi_ssid": '"="', "wifi_psk": '"a;b"',
                  "camera_ssid": '"[x]"', "camera_psk": '"\u20ac\u00df"'}, id="odd texts"),
    pytest.param({"rc_input_map": ",".join(["digital-zoom2"] * 13)}, id="long map"),
    pytest.param({"rc_input_map": "Pan, tilt,nothing"}, id="unknown words"),
])
def test_values(savers, values):
    """Every value is written as it was read."""
    savers("".join(f"{key}={value}\n" for key, value in values.items())).save()
    assert CARD_FILE.read_bytes() == default_file(internal_camera_fullscreen=1, **values)


@pytest.mark.parametrize("key, read, written", [
    ("osd_border_width", "300", "44"), ("osd_border_height", "-1", "255"),
    ("hdmi_enabled", "yes", "0"), ("rc_input_inverse_tilt", "2x", "2"),
    ("video_bitrate", "99999999999", "2147483647"), ("rc_input_mode", "abcdefgh", "abcde"),
    ("wifi_iface", "0123456789", "012345678"), ("ap_ssid", "bare", '"bare"'),
    ("ap_ssid", '"a"b""c"', '"abc"'), ("rc_input_map", "", EMPTY_MAP),
    ("rc_input_inverse_pan", "2", "2"), ("osd_border_width", "200", "200"),
])
def test_value_as_it_was_stored(savers, key, read, written):
    savers(f"{key}={read}\n").save()
    assert CARD_FILE.read_bytes() == default_file(internal_camera_fullscreen=1, **{key: written})


@pytest.mark.parametrize("former", [b"", b"x" * 100_000, b"# Tervado config file\r\n" * 1000,
                                    b"\0\xff"])
def test_former_content_is_gone(saver, former):
    """Nothing of it is left behind the end, in either file."""
    CARD_FILE.write_bytes(former)
    WORKING_COPY.write_bytes(former)
    saver.save()
    assert CARD_FILE.read_bytes() == default_file(internal_camera_fullscreen=1)
    assert WORKING_COPY.read_bytes() == without_cr(CARD_FILE.read_bytes())


def test_links_and_modes_stay(saver, tmp_path):
    """The working copy is rewritten in place; what the card's file leads to is replaced."""
    target = tmp_path / "card"
    target.write_bytes(b"former")
    target.chmod(0o640)
    CARD_FILE.symlink_to(target)
    WORKING_COPY.write_bytes(b"former")
    WORKING_COPY.chmod(0o604)
    before = [file.stat() for file in (target, WORKING_COPY)]
    saver.save()
    assert CARD_FILE.is_symlink()
    assert target.read_bytes() == default_file(internal_camera_fullscreen=1)
    after = [file.stat() for file in (target, WORKING_COPY)]
    assert [s.st_mode for s in after] == [s.st_mode for s in before]
    assert after[1].st_ino == before[1].st_ino
    assert after[0].st_ino != before[0].st_ino


@pytest.mark.parametrize("umask, mode", [(0o022, 0o644), (0o077, 0o600), (0o000, 0o666)])
def test_new_files_by_umask(savers, umask, mode):
    savers(preexec_fn=lambda: os.umask(umask)).save()
    assert [file.stat().st_mode & 0o777 for file in (CARD_FILE, WORKING_COPY)] == [mode, mode]


def test_nothing_else_is_written(saver, tmp_path):
    def files():
        folders = (CARD_FILE.parent, WORKING_COPY.parent, tmp_path, pathlib.Path("/dev/shm"))
        return {entry for folder in folders for entry in folder.iterdir()}

    before = files()
    for _ in range(3):
        saver.save()
    assert files() == before | {CARD_FILE, WORKING_COPY}


# --- In which order ------------------------------------------------------------------------------


def test_order_of_a_save(saver, standins):
    """The partition is writable before the file changes, and mounted afresh once it is whole; only
    then the working copy changes; and that is whole when the camera is ended."""
    CARD_FILE.write_bytes(b"former card")
    WORKING_COPY.write_bytes(b"former copy")
    keep = f"number=$(ls $NIMBUS_STANDINS/kept.* 2>/dev/null | wc -l)\n" \
           f"/bin/cat {CARD_FILE} {WORKING_COPY} >$NIMBUS_STANDINS/kept.$number"
    for tool in ("mount", "umount", "killall"):
        standins.answer(tool, keep)
    assert saver.save() == CALLS
    kept = [(standins.folder / f"kept.{number}").read_bytes() for number in range(4)]
    file = default_file(internal_camera_fullscreen=1)
    assert kept == [b"former card" + b"former copy", file + b"former copy", file + b"former copy",
                    file + without_cr(file)]


def hold(standins, tool):
    """Has that tool wait for release(); it says that it waits."""
    standins.answer(tool, ': >"$NIMBUS_STANDINS/waits"\n'
                          'while [ ! -e "$NIMBUS_STANDINS/go" ]; do sleep 0.01; done\n'
                          'rm -f "$NIMBUS_STANDINS/waits"')


def release(standins):
    (standins.folder / "go").touch()


def wait_held(standins):
    wait_until((standins.folder / "waits").exists, 5, "the waiting tool")


def test_save_is_announced_first(saver, standins):
    hold(standins, "mount")
    saver.switch()
    wait_held(standins)
    saver.service.err.wait("Save config\n")
    assert saver.service.err.text().endswith("Save config\n")
    assert not CARD_FILE.exists() and not WORKING_COPY.exists()
    release(standins)
    saver.rc.cycle()
    assert CARD_FILE.exists() and WORKING_COPY.exists()


@pytest.mark.parametrize("first", ["save", "recalibration"])
def test_recalibration_and_save_take_turns(saver, viewers, standins, first):
    """None unmounts the card under the other."""
    viewer = viewers()
    begin = {"save": saver.switch,
             "recalibration": lambda: viewer.command('{"cmd":"rc","name":"recalibrate"}')}
    begin["save"]()
    saver.rc.cycle()
    before = len(saver.calls())
    hold(standins, "umount")
    begin.pop(first)()
    wait_held(standins)
    begin.popitem()[1]()
    time.sleep(0.2)  # long enough for a remount
    assert saver.calls()[before:] == [REMOUNT, UMOUNT]
    standins.reset("umount")
    release(standins)
    saver.rc.cycle()
    wait_until(lambda: len(saver.calls()) >= before + len(CALLS) + 4, 5, "both")
    without_killall = [call for call in saver.calls()[before:] if call[0] != "killall"]
    parts = {"save": CALLS[:-1], "recalibration": [REMOUNT, UMOUNT, MOUNT]}
    assert without_killall == parts.pop(first) + parts.popitem()[1]


FAILURES = {"fails": "exit 1", "is killed": "kill -9 $$", "floods": "yes | head -c 100000 >&2",
            "takes long": "sleep 1"}


@pytest.mark.parametrize("tool", ["mount", "umount", "killall"])
@pytest.mark.parametrize("script", FAILURES.values(), ids=FAILURES)
def test_failures_are_not_looked_at(saver, standins, tool, script):
    """Whatever a tool does, the next step follows."""
    standins.answer(tool, script)
    for up in (1, 0):
        assert saver.save(10) == CALLS
        assert CARD_FILE.read_bytes() == default_file(internal_camera_fullscreen=up)
        assert WORKING_COPY.read_bytes() == without_cr(CARD_FILE.read_bytes())
    assert saves(saver) == 2


def test_missing_tools(start, region, standins, tmp_path):
    """A board without any of the tools still gets its file."""
    saver = Saver(start("rc_input_enabled=1\n", env={"PATH": str(tmp_path)}), region, standins)
    saver.save()
    assert CARD_FILE.read_bytes() == default_file(internal_camera_fullscreen=1)
    assert WORKING_COPY.read_bytes() == b""  # made by the shell before it misses its tools


@pytest.mark.parametrize("tool", ["mount", "umount", "killall"])
def test_slow_save_holds_the_rc_alone(stations, standins, tool):
    """Status messages, commands and the speed stream go on; sticks wait until it is over."""
    station = stations(conf="rc_input_enabled=1\n")
    viewer, camera_end = station.viewer, station.camera
    viewer.keep_alive()
    viewer.speed(1, 4000, 0, 0)
    rc = RcReader(station.region)
    rc.assign("intcamera")
    rc.cycle()
    hold(standins, tool)
    rc.hold("intcamera", 1.0)
    wait_held(standins)
    start = camera_end.count()
    first = len(viewer.frames)
    for kind in (5, 6, 11):
        for _ in range(2):
            viewer.message(kind, start=first)
            first = len(viewer.frames)
    station.send(command("resetcamera"))
    moving, reset = speed(1000, 0, 0), camera(0x78, "00")
    wait_until(lambda: {moving.frame(0)[8:-2], reset.frame(0)[8:-2]} <=
               {event.data[8:-2] for event in camera_end.frames(start)}, 5, "the frames")
    with pytest.raises(AssertionError):
        rc.cycle(0.2 / TIME_SCALE)
    release(standins)
    wait_until(lambda: station.region.u8(station.region.OSD_ENABLED) == 1, 5, "the next cycle")


# --- What stands in the way ----------------------------------------------------------------------


def assert_refused(saver):
    """Nothing of a save happens but its announcement and the remount; the switch ends the camera
    all the same."""
    WORKING_COPY.write_bytes(b"former copy")
    for count in (1, 2):
        assert saver.save() == CALLS_WITHOUT_FILE
        assert saves(saver) == count
    assert saver.service.err.text().endswith("Save config\n" * 2)
    assert WORKING_COPY.read_bytes() == b"former copy"


OBSTACLES = {
    "folder": lambda: CARD_FILE.mkdir(),
    "endless link": lambda: CARD_FILE.symlink_to(CARD_FILE),
    "link to nowhere": lambda: CARD_FILE.symlink_to("/boot/missing/file"),
}


@pytest.mark.parametrize("place", OBSTACLES.values(), ids=OBSTACLES)
def test_file_cannot_be_opened(saver, place):
    place()
    assert_refused(saver)


def test_file_can_be_opened_again(saver):
    CARD_FILE.mkdir()
    assert_refused(saver)
    CARD_FILE.rmdir()
    assert saver.save() == CALLS
    assert CARD_FILE.read_bytes() == default_file(internal_camera_fullscreen=1)


@pytest.fixture
def partition():
    """partition(options) mounts a boot partition with those options."""
    mounted = []

    def make(options):
        # By their paths: the names are those of the stand-ins.
        subprocess.run(["/bin/mount", "-t", "tmpfs", "-o", options, "test", "/boot"], check=True)
        mounted.append(options)

    yield make
    for _ in mounted:
        subprocess.run(["/bin/umount", "/boot"], check=True)


def test_partition_stays_read_only(saver, partition):
    partition("ro")
    assert_refused(saver)


def test_full_partition(saver, partition):
    """A write that fails goes unnoticed: the former settings stay, and the next save is whole."""
    partition("size=8k")
    CARD_FILE.write_bytes(GOLDEN.read_bytes())
    filler = CARD_FILE.with_name("filler")
    filler.write_bytes(bytes(4096))
    assert saver.save() == CALLS
    assert CARD_FILE.read_bytes() == GOLDEN.read_bytes()
    assert WORKING_COPY.read_bytes() == without_cr(GOLDEN.read_bytes())
    filler.unlink()
    assert saver.save() == CALLS
    assert CARD_FILE.read_bytes() == default_file()


def test_working_copy_cannot_be_made(saver):
    """The file on the card is written all the same."""
    WORKING_COPY.mkdir()
    calls = saver.save()
    assert calls[:3] == CALLS[:3] and calls[-1] == KILLALL
    assert CARD_FILE.read_bytes() == default_file(internal_camera_fullscreen=1)


# --- And back ------------------------------------------------------------------------------------


@pytest.mark.parametrize("file", [GOLDEN.read_bytes(),
                                  default_file(internal_camera_fullscreen=1)],
                         ids=["golden", "default"])
def test_round_trip(savers, start, region, standins, tools, tmp_path, file):
    """A service that starts from the working copy has the same record: it saves the same file."""
    first = savers(conf_of(file))
    first.save()
    assert CARD_FILE.read_bytes() == file
    first.service.stop()
    CARD_FILE.unlink()
    (tmp_path / "tervado.conf").unlink()
    (tmp_path / "tervado.conf").symlink_to(WORKING_COPY)
    second = Saver(start(conf=None, env=tools), region, standins)
    second.save()
    assert CARD_FILE.read_bytes() == file


def test_many_saves(saver):
    """Again and again, as fast as the switch can be moved: no descriptor and no child is left."""
    descriptors = pathlib.Path(f"/proc/{saver.service.pid}/fd")
    saver.save()
    before = len(list(descriptors.iterdir()))
    for _ in range(20):
        assert saver.save() == CALLS
    assert len(list(descriptors.iterdir())) == before
    threads = descriptors.with_name("task")
    wait_until(lambda: not any(one.read_text() for one in threads.glob("*/children")), 5,
               "the end of all children")
