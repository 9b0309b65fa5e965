"""The scripts of the installation, on the sandbox's own /boot and /run."""

import json
import os
import pathlib
import subprocess

import pytest

from harness.config_file import without_cr
from harness.timing import wait_until

INSTALL = pathlib.Path(__file__).resolve().parents[2] / "install"
DEFAULTS = (INSTALL / "tervado-nimbus.conf").read_bytes()

BOOT = pathlib.Path("/boot")
CARD_FILE = BOOT / "tervado-nimbus.conf"
WORKING_COPY = pathlib.Path("/run/tervado.conf")
GOOD_COPY = BOOT / "tervado-nimbus.conf.good"
KEPT_COPY = BOOT / "tervado-nimbus.conf.kept"
CARD_UNREAD = pathlib.Path("/run/tervado.card-unread")
CONFIG_TXT = BOOT / "config.txt"


def run(script, *arguments, **environment):
    return subprocess.run([INSTALL / script, *arguments], cwd=INSTALL, capture_output=True,
                          text=True, env={**os.environ, **environment}, timeout=60)


def real(command):
    subprocess.run(command, shell=True, check=True, env={**os.environ, "PATH": "/usr/sbin:/usr/bin"})


def assert_one_line(text):
    assert text.count("\n") == 1 and text.endswith("\n"), text


@pytest.fixture(autouse=True)
def board(clean_board, standins):
    """A board with a working mount, that has just been switched on."""
    # Of an ordinary user's own file systems, only the mount can be made read-only.
    standins.answer("mount", 'case $2 in\n'
                             '  remount,*) exec /usr/bin/mount -o "remount,bind,${2#*,}" "$3" ;;\n'
                             '  *) exec /usr/bin/mount "$@" ;;\n'
                             'esac')


@pytest.fixture
def read_only():
    """read_only() makes the card read-only, as it is between two saves."""
    yield lambda: real("mount -o remount,bind,ro /boot")
    real("mount -o remount,bind,rw /boot")


@pytest.fixture
def full():
    """full() leaves no room on the card."""
    stuffing = BOOT / "stuffing"

    def fill():
        with stuffing.open("wb", buffering=0) as file:
            try:
                while True:
                    file.write(bytes(1 << 20))
            except OSError:
                pass

    yield fill
    stuffing.unlink(missing_ok=True)


@pytest.fixture
def fstab(tmp_path):
    """fstab(text) is what should be mounted."""
    mounted = []

    def make(text):
        file = tmp_path / "fstab"
        file.write_text(text)
        real(f"mount --bind {file} /etc/fstab")
        mounted.append(file)

    yield make
    for _ in mounted:
        real("umount /etc/fstab")


def is_read_only(folder):
    return bool(os.statvfs(folder).f_flag & os.ST_RDONLY)


def leftovers():
    return {file.name for file in BOOT.iterdir()} - {CARD_FILE.name, CONFIG_TXT.name, "stuffing"}


# --- Before the start ----------------------------------------------------------------------------


def before_start(**environment):
    result = run("scripts/before-start.sh", **environment)
    assert result.returncode == 0
    assert result.stdout == ""
    return result.stderr


def test_card_without_a_file():
    assert_one_line(before_start())
    assert CARD_FILE.read_bytes() == DEFAULTS
    assert WORKING_COPY.read_bytes() == without_cr(DEFAULTS)


def test_read_only_card_without_a_file(read_only):
    read_only()
    before_start()
    assert CARD_FILE.read_bytes() == DEFAULTS
    assert WORKING_COPY.read_bytes() == without_cr(DEFAULTS)
    assert is_read_only(BOOT)


@pytest.mark.parametrize("content", [
    b"osd_enabled=0\r\nap_ssid=\"x\"\r\n", b"osd_enabled=0\n", b"a=1\r\nb=2\nc=\r3\r\r\n", b"x" * 99,
    b"\xef\xbb\xbfosd_enabled=1\r\n", b"wifi_ssid=\"\xc3\xa9 \xff\"\r\n"])
@pytest.mark.parametrize("protected", [False, True])
def test_existing_file_is_never_touched(read_only, content, protected):
    CARD_FILE.write_bytes(content)
    os.utime(CARD_FILE, (1, 1))
    if protected:
        read_only()
    assert before_start() == ""
    assert CARD_FILE.read_bytes() == content
    assert CARD_FILE.stat().st_mtime == 1
    assert WORKING_COPY.read_bytes() == without_cr(content)
    assert is_read_only(BOOT) == protected


def test_working_copy_is_root_s_alone(start, viewers):
    """Also after the first save: it holds pass phrases."""
    before_start()
    assert WORKING_COPY.stat().st_mode & 0o777 == 0o600
    assert CARD_FILE.stat().st_mode & 0o777 == 0o644  # of a card, the mount decides
    start("rc_input_map=\n")
    viewer = viewers()
    viewer.register()
    viewer.command('{"cmd":"updateparam","name":"rcin_pan","value":"7"}')
    wait_until(lambda: b"speed_pan=7\n" in WORKING_COPY.read_bytes(), 5, "the save")
    assert WORKING_COPY.stat().st_mode & 0o777 == 0o600


def test_working_copy_is_made_afresh():
    CARD_FILE.write_bytes(b"osd_enabled=0\r\n")
    WORKING_COPY.write_bytes(b"x" * 5000)
    before_start()
    assert WORKING_COPY.read_bytes() == b"osd_enabled=0\n"


@pytest.mark.parametrize("former, expected", [(None, without_cr(DEFAULTS)), (b"a=1\n", b"a=1\n")],
                         ids=["first start", "later start"])
def test_card_that_cannot_be_written(read_only, standins, former, expected):
    """The service then starts with the settings of the last start, or with the defaults."""
    standins.answer("mount", "exit 32")
    if former:
        WORKING_COPY.write_bytes(former)
    read_only()
    before_start()
    assert not CARD_FILE.exists()
    assert WORKING_COPY.read_bytes() == expected


def test_full_card(full):
    full()
    before_start()
    assert not CARD_FILE.exists() and leftovers() == set()
    assert WORKING_COPY.read_bytes() == without_cr(DEFAULTS)


def test_full_card_with_a_file(full):
    CARD_FILE.write_bytes(b"osd_enabled=0\r\n")
    full()
    assert before_start() == ""
    assert WORKING_COPY.read_bytes() == b"osd_enabled=0\n"


def test_file_that_is_empty():
    """The board lost its power while the file was written: nothing in it counts."""
    CARD_FILE.write_bytes(b"")
    assert_one_line(before_start())
    assert CARD_FILE.read_bytes() == b""
    assert WORKING_COPY.read_bytes() == without_cr(DEFAULTS)


def test_folder_in_the_place_of_the_file():
    CARD_FILE.mkdir()
    assert_one_line(before_start())
    assert CARD_FILE.is_dir()
    assert WORKING_COPY.read_bytes() == without_cr(DEFAULTS)


# A root with everything but /boot, and the installation in it.
WITHOUT_BOOT = """
for folder in bin sbin lib lib64 usr etc proc sys dev run install; do
  if [ -L "/$folder" ]; then cp -d "/$folder" "$ROOT/$folder"; continue; fi
  mkdir "$ROOT/$folder"
  source=/$folder
  [ "$folder" != install ] || source=$INSTALL
  [ ! -d "$source" ] || /usr/bin/mount --rbind "$source" "$ROOT/$folder"
done
exec chroot "$ROOT" /install/scripts/before-start.sh
"""


def test_no_boot_at_all(tmp_path):
    root = tmp_path / "root"
    root.mkdir()
    result = subprocess.run(["unshare", "--mount", "sh", "-ec", WITHOUT_BOOT], capture_output=True,
                            text=True, timeout=60,
                            env={**os.environ, "ROOT": str(root), "INSTALL": str(INSTALL)})
    assert result.returncode == 0
    assert result.stderr.splitlines() == [
        f"before-start.sh: there is no {CARD_FILE}, and it cannot be written",
        f"before-start.sh: {CARD_FILE} cannot be used; the settings are the defaults"]
    assert WORKING_COPY.read_bytes() == without_cr(DEFAULTS)


def test_working_copy_that_cannot_be_made():
    CARD_FILE.write_bytes(b"osd_enabled=0\r\n")
    WORKING_COPY.mkdir()
    CARD_UNREAD.touch()
    assert_one_line(before_start())
    assert CARD_UNREAD.exists()


def test_card_that_a_save_left_unmounted(fstab):
    """What is seen below the mount point is not the card."""
    card = BOOT / "firmware"
    card.mkdir()
    fstab(f"tmpfs {card} tmpfs size=1m 0 0\n")
    try:
        before_start()
        assert card.is_mount()
    finally:
        real(f"umount {card}")


def test_card_that_cannot_be_mounted(fstab, standins):
    (BOOT / "firmware").mkdir()
    fstab("/dev/nothing /boot/firmware vfat ro 0 0\n")
    standins.answer("mount", "echo mount: no such device >&2; exit 32")
    WORKING_COPY.write_bytes(b"a=1\n")
    assert before_start().startswith("before-start.sh: the card cannot be mounted\n")
    assert not CARD_FILE.exists()
    assert WORKING_COPY.read_bytes() == b"a=1\n"


def test_card_that_is_not_there_and_need_not_be(fstab, standins):
    """With nofail, mount says that all is well."""
    card = BOOT / "firmware"
    card.mkdir()
    fstab("PARTUUID=12345678-01 /boot/firmware vfat nofail 0 0\n")
    standins.answer("mount", "exec /usr/bin/mount \"$@\"")
    assert "before-start.sh: the card cannot be mounted\n" in before_start()
    assert CARD_UNREAD.exists()
    assert list(card.iterdir()) == []


@pytest.fixture
def firmware(tmp_path):
    """The card is mounted at /boot/firmware, and /boot is a folder like any other."""
    folder = tmp_path / "mountpoints"
    folder.mkdir()
    tool = folder / "mountpoint"
    tool.write_text('#!/bin/sh\n[ "$2" = /boot/firmware ]\n')
    tool.chmod(0o755)
    card = BOOT / "firmware"
    card.mkdir()
    return card, {"PATH": f"{folder}:{os.environ['PATH']}"}


def test_card_at_boot_firmware(firmware, start):
    """A link brings the saves to the card."""
    card, environment = firmware
    before_start(**environment)
    assert os.readlink(CARD_FILE) == f"firmware/{CARD_FILE.name}"
    assert (card / CARD_FILE.name).read_bytes() == DEFAULTS
    assert WORKING_COPY.read_bytes() == without_cr(DEFAULTS)
    assert before_start(**environment) == ""


def test_file_on_a_card_at_boot_firmware(firmware):
    card, environment = firmware
    (card / CARD_FILE.name).write_bytes(b"osd_enabled=0\r\n")
    assert before_start(**environment) == ""
    assert CARD_FILE.is_symlink()
    assert WORKING_COPY.read_bytes() == b"osd_enabled=0\n"


def test_file_in_boot_beside_boot_firmware(firmware):
    """It was there before, and stays what counts."""
    _, environment = firmware
    CARD_FILE.write_bytes(b"osd_enabled=0\r\n")
    assert before_start(**environment) == ""
    assert not CARD_FILE.is_symlink()
    assert WORKING_COPY.read_bytes() == b"osd_enabled=0\n"


# --- A spoilt file -------------------------------------------------------------------------------

OWN = DEFAULTS.replace(b'wifi_ssid=""', b'wifi_ssid="home"')
HALF = OWN[:len(OWN) // 2]

# What a board that loses its power while the file is written may leave, what the line says, and
# whether somebody's settings are in it.
SPOILT = {
    "empty": (b"", "is empty", False),
    "zeros": (bytes(len(OWN)), "holds zeros", False),
    "zeros at its end": (HALF + bytes(len(OWN) - len(HALF)), "holds zeros", False),
    "half": (HALF, "lacks its last key, internal_camera_fullscreen", True),
    "all but the last value": (OWN.rstrip()[:-1],
                               "lacks its last key, internal_camera_fullscreen", True),
}


def switch_off_and_on():
    WORKING_COPY.unlink()
    CARD_UNREAD.unlink(missing_ok=True)


@pytest.mark.parametrize("protected", [False, True])
def test_good_copy_is_kept(read_only, protected):
    """And written only when it changes."""
    for content in (OWN, DEFAULTS):
        real("mount -o remount,bind,rw /boot")
        CARD_FILE.write_bytes(content)
        if protected:
            read_only()
        assert before_start() == ""
        assert GOOD_COPY.read_bytes() == content
        assert GOOD_COPY.stat().st_mode & 0o777 in (0o600, 0o644)
        former = GOOD_COPY.stat().st_ino
        assert before_start() == ""
        assert GOOD_COPY.stat().st_ino == former
        assert is_read_only(BOOT) == protected
    assert leftovers() == {GOOD_COPY.name}


@pytest.mark.parametrize("content, fault, unread", SPOILT.values(), ids=SPOILT)
def test_spoilt_file_with_a_good_copy(content, fault, unread):
    CARD_FILE.write_bytes(OWN)
    assert before_start() == ""
    CARD_FILE.write_bytes(content)
    switch_off_and_on()
    assert before_start() == (f"before-start.sh: {CARD_FILE} {fault}; "
                              f"the settings are those of the last good copy, {GOOD_COPY}\n")
    assert WORKING_COPY.read_bytes() == without_cr(OWN)
    assert (CARD_FILE.read_bytes(), GOOD_COPY.read_bytes()) == (content, OWN)
    assert CARD_UNREAD.exists() == unread


@pytest.mark.parametrize("content, fault, settings", [
    (SPOILT[name][0], SPOILT[name][1], SPOILT[name][0] if SPOILT[name][2] else DEFAULTS)
    for name in SPOILT], ids=SPOILT)
def test_spoilt_file_without_a_good_copy(content, fault, settings):
    CARD_FILE.write_bytes(content)
    line = before_start()
    assert_one_line(line)
    assert line.startswith(f"before-start.sh: {CARD_FILE} {fault}; the settings are ")
    assert WORKING_COPY.read_bytes() == without_cr(settings)
    assert not GOOD_COPY.exists()


@pytest.mark.parametrize("content, fault, unread", SPOILT.values(), ids=SPOILT)
def test_spoilt_file_of_a_board_that_stayed_on(content, fault, unread):
    """What was saved since is in the working copy."""
    CARD_FILE.write_bytes(DEFAULTS)
    before_start()
    WORKING_COPY.write_bytes(without_cr(OWN))
    CARD_FILE.write_bytes(content)
    assert before_start() == (f"before-start.sh: {CARD_FILE} {fault}; "
                              "the settings are those of the last start\n")
    assert WORKING_COPY.read_bytes() == without_cr(OWN)
    assert GOOD_COPY.read_bytes() == DEFAULTS
    assert CARD_UNREAD.exists() == unread


def test_good_copy_that_is_spoilt_too():
    CARD_FILE.write_bytes(b"")
    GOOD_COPY.write_bytes(HALF)
    assert_one_line(before_start())
    assert WORKING_COPY.read_bytes() == without_cr(DEFAULTS)


def test_file_that_was_removed():
    """That is the way back to the defaults."""
    CARD_FILE.write_bytes(OWN)
    before_start()
    CARD_FILE.unlink()
    switch_off_and_on()
    assert_one_line(before_start())
    assert CARD_FILE.read_bytes() == GOOD_COPY.read_bytes() == DEFAULTS


def test_good_copy_at_boot_firmware(firmware):
    card, environment = firmware
    (card / CARD_FILE.name).write_bytes(OWN)
    assert before_start(**environment) == ""
    (card / CARD_FILE.name).write_bytes(b"")
    switch_off_and_on()
    assert str(card / GOOD_COPY.name) in before_start(**environment)
    assert WORKING_COPY.read_bytes() == without_cr(OWN)


def test_full_card_has_no_good_copy(full):
    CARD_FILE.write_bytes(OWN)
    full()
    assert before_start() == ""
    assert leftovers() == set()
    assert WORKING_COPY.read_bytes() == without_cr(OWN)


def test_card_is_unread_until_it_can_be_mounted(fstab, standins):
    (BOOT / "firmware").mkdir()
    fstab("/dev/nothing /boot/firmware vfat ro 0 0\n")
    standins.answer("mount", "exit 32")
    before_start()
    assert CARD_UNREAD.exists()
    standins.answer("mount", "exec /usr/bin/mount -t tmpfs card /boot/firmware")
    CARD_FILE.write_bytes(OWN)
    try:
        before_start()
        assert not CARD_UNREAD.exists()
    finally:
        real("umount /boot/firmware")


@pytest.mark.parametrize("start_step", ["has marked the card", "could do nothing"])
def test_save_over_settings_that_were_not_read(start, viewers, tmp_path, start_step):
    """The service runs on the defaults, and the card is there again."""
    if start_step == "has marked the card":
        CARD_UNREAD.touch()
        WORKING_COPY.write_bytes(without_cr(DEFAULTS))
    (tmp_path / "tervado.conf").symlink_to(WORKING_COPY)
    start(conf=None)
    CARD_FILE.write_bytes(OWN)
    viewer = viewers()
    viewer.register()
    for pan in (b"7", b"8"):
        viewer.command(f'{{"cmd":"updateparam","name":"rcin_pan","value":"{pan.decode()}"}}')
        wait_until(lambda: WORKING_COPY.exists() and
                   b"speed_pan=" + pan in WORKING_COPY.read_bytes(), 5, "the save")
        assert b"speed_pan=" + pan in CARD_FILE.read_bytes()
        assert KEPT_COPY.read_bytes() == OWN


# --- The service on it ---------------------------------------------------------------------------


def test_defaults_are_written_as_the_service_writes(start, viewers, tmp_path):
    """A save of a service that runs on the defaults brings them back, byte for byte."""
    before_start()
    CARD_FILE.unlink()
    (tmp_path / "tervado.conf").symlink_to(WORKING_COPY)
    service = start(conf=None)
    assert "Loading config file... done\n" in service.err.text()
    viewer = viewers()
    viewer.register()
    viewer.command('{"cmd":"updateparam","name":"rcin_pan","value":"100"}')
    wait_until(lambda: CARD_FILE.exists() and CARD_FILE.read_bytes() == DEFAULTS, 5,
               "the same file")


# --- config.txt ----------------------------------------------------------------------------------

SAMPLE = b"""# For more options see the documentation
#hdmi_mode=1
disable_overscan=1
hdmi_group=2
  hdmi_mode = 82
hdmi_drive=2
hdmi_mode=4
hdmi_mode:1=9

[pi4]
hdmi_mode=16
[all]
dtparam=audio=on
gpu_mem=128
"""


def config_txt(text, script, *arguments):
    """What becomes of that config.txt, and of it once more."""
    CONFIG_TXT.write_bytes(text)
    results = []
    for _ in range(2):
        result = run(f"scripts/{script}", *arguments)
        assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
        results.append(CONFIG_TXT.read_bytes())
        assert leftovers() == set()
    assert results[0] == results[1]
    return results[0]


def crlf(text):
    return text.replace(b"\n", b"\r\n")


@pytest.mark.parametrize("ends", [bytes, crlf])
def test_hdmi_mode(ends):
    expected = SAMPLE.replace(b"hdmi_group=2", b"hdmi_group=1") \
        .replace(b"  hdmi_mode = 82", b"hdmi_mode=32").replace(b"=2\nhdmi_mode=4\n", b"=2\n")
    assert config_txt(ends(SAMPLE), "hdmi-mode.sh", "1", "32") == ends(expected)


@pytest.mark.parametrize("ends", [bytes, crlf])
def test_default_hdmi_mode(ends):
    expected = SAMPLE.replace(b"hdmi_group=2\n  hdmi_mode = 82\n", b"") \
        .replace(b"=2\nhdmi_mode=4\n", b"=2\n")
    assert config_txt(ends(SAMPLE), "hdmi-mode.sh") == ends(expected)


@pytest.mark.parametrize("before, after", [
    (b"", b"hdmi_group=2\nhdmi_mode=9\n"),
    (b"a=1\n", b"a=1\nhdmi_group=2\nhdmi_mode=9\n"),
    (b"a=1", b"a=1\nhdmi_group=2\nhdmi_mode=9\n"),
    (b"a=1\r\n", b"a=1\r\nhdmi_group=2\r\nhdmi_mode=9\r\n"),
    (b"[pi3]\nhdmi_mode=1\n", b"[pi3]\nhdmi_mode=1\n[all]\nhdmi_group=2\nhdmi_mode=9\n"),
    (b"[pi3]\na=1\n[all]\n", b"[pi3]\na=1\n[all]\nhdmi_group=2\nhdmi_mode=9\n"),
    (b"\xff\xfe weird \xc3\xa9\n", b"\xff\xfe weird \xc3\xa9\nhdmi_group=2\nhdmi_mode=9\n"),
])
def test_hdmi_mode_in_a_file_without_one(before, after):
    assert config_txt(before, "hdmi-mode.sh", "2", "9") == after


@pytest.mark.parametrize("before, to_hdmi, to_tv", [
    (b"", b"hdmi_force_hotplug=1\n", b"hdmi_ignore_hotplug=1\nsdtv_mode=0\n"),
    (b"a=1\nsdtv_mode=2\n", b"a=1\nsdtv_mode=2\nhdmi_force_hotplug=1\n",
     b"a=1\nsdtv_mode=2\nhdmi_ignore_hotplug=1\n"),
    (b"hdmi_ignore_hotplug=1\nhdmi_force_hotplug=0\na=1\n", b"hdmi_force_hotplug=1\na=1\n",
     b"hdmi_ignore_hotplug=1\na=1\nsdtv_mode=0\n"),
    (b"a=1\r\n", b"a=1\r\nhdmi_force_hotplug=1\r\n",
     b"a=1\r\nhdmi_ignore_hotplug=1\r\nsdtv_mode=0\r\n"),
])
def test_hdmi_change(before, to_hdmi, to_tv):
    assert config_txt(before, "hdmi-change.sh", "1") == to_hdmi
    assert config_txt(before, "hdmi-change.sh", "0") == to_tv


def test_there_and_back():
    hdmi = config_txt(SAMPLE, "hdmi-change.sh", "1")
    tv = config_txt(hdmi, "hdmi-change.sh", "0")
    assert config_txt(tv, "hdmi-change.sh", "1").replace(b"sdtv_mode=0\n", b"") == hdmi


def test_read_only_card(read_only, standins):
    """It is made writable for the change and read-only again, and not at all for no change."""
    CONFIG_TXT.write_bytes(SAMPLE)
    read_only()
    assert run("scripts/hdmi-mode.sh", "1", "4").returncode == 0
    assert b"hdmi_group=1\n" in CONFIG_TXT.read_bytes()
    assert is_read_only(BOOT)
    standins.clear()
    standins.answer("mount", "exit 1")
    assert run("scripts/hdmi-mode.sh", "1", "4").returncode == 0
    assert standins.calls("mount") == []


def test_config_txt_that_cannot_be_written(read_only, standins):
    CONFIG_TXT.write_bytes(SAMPLE)
    standins.answer("mount", "echo mount: denied >&2; exit 32")
    read_only()
    result = run("scripts/hdmi-mode.sh", "1", "4")
    assert result.returncode != 0
    assert_one_line(result.stderr)
    assert CONFIG_TXT.read_bytes() == SAMPLE


def test_config_txt_on_a_full_card(full):
    CONFIG_TXT.write_bytes(SAMPLE)
    full()
    result = run("scripts/hdmi-mode.sh", "1", "4")
    assert result.returncode != 0
    assert_one_line(result.stderr)
    assert CONFIG_TXT.read_bytes() == SAMPLE and leftovers() == set()


def test_config_txt_at_boot_firmware(firmware):
    card, environment = firmware
    CONFIG_TXT.write_bytes(b"DO NOT EDIT THIS FILE\n")
    (card / "config.txt").write_bytes(b"a=1\n")
    assert run("scripts/hdmi-change.sh", "1", **environment).returncode == 0
    assert (card / "config.txt").read_bytes() == b"a=1\nhdmi_force_hotplug=1\n"
    assert CONFIG_TXT.read_bytes() == b"DO NOT EDIT THIS FILE\n"


def test_card_whose_files_are_somebody_s(tmp_path):
    """Mounted with uid=, for one: the service may write there, but not change modes."""
    chmod = tmp_path / "chmod"
    chmod.write_text("#!/bin/sh\necho chmod: Operation not permitted >&2\nexit 1\n")
    chmod.chmod(0o755)
    path = f"{tmp_path}:{os.environ['PATH']}"
    CONFIG_TXT.write_text("a=1\n")
    result = run("scripts/hdmi-mode.sh", "2", "82", PATH=path)
    assert (result.returncode, result.stderr) == (0, "")
    assert CONFIG_TXT.read_text() == "a=1\nhdmi_group=2\nhdmi_mode=82\n"


def test_mode_of_the_file_is_kept():
    CONFIG_TXT.write_bytes(SAMPLE)
    CONFIG_TXT.chmod(0o640)
    run("scripts/hdmi-mode.sh", "1", "4")
    assert CONFIG_TXT.stat().st_mode & 0o777 == 0o640


@pytest.mark.parametrize("command", [
    ("scripts/hdmi-change.sh",), ("scripts/hdmi-change.sh", "2"),
    ("scripts/hdmi-change.sh", "1", "1"), ("scripts/hdmi-change.sh", ""),
    ("scripts/hdmi-mode.sh", "1"), ("scripts/hdmi-mode.sh", "0", "4"),
    ("scripts/hdmi-mode.sh", "3", "4"), ("scripts/hdmi-mode.sh", "1", "0"),
    ("scripts/hdmi-mode.sh", "1", "1000"), ("scripts/hdmi-mode.sh", "1", "4x"),
    ("scripts/hdmi-mode.sh", "1", "4", "5"), ("scripts/hdmi-mode.sh", "", ""),
    ("scripts/system-rules.sh", "a", "b"),
    ("bin/wlanstatus",), ("bin/wlanstatus", ""), ("bin/wlanstatus", "nosuch0"),
    ("bin/wlanstatus", "../lo"), ("bin/wlanstatus", "lo", "lo"), ("bin/wlanstatus", "-i")])
def test_bad_arguments(command):
    CONFIG_TXT.write_bytes(SAMPLE)
    result = run(*command)
    assert result.returncode != 0 and result.stdout == ""
    assert_one_line(result.stderr)
    assert CONFIG_TXT.read_bytes() == SAMPLE


@pytest.mark.parametrize("script", [("hdmi-change.sh", "1"), ("hdmi-mode.sh",)])
def test_no_config_txt(script):
    result = run(f"scripts/{script[0]}", *script[1:])
    assert result.returncode != 0
    assert_one_line(result.stderr)
    assert not CONFIG_TXT.exists()


# --- wlanstatus ----------------------------------------------------------------------------------

STATUS = """bssid=00:11:22:33:44:55
freq=2437
ssid={ssid}
id=0
mode=station
wpa_state={state}
ip_address=192.168.1.7
"""
SIGNAL = "RSSI=-52\nLINKSPEED=65\nNOISE=9999\nFREQUENCY=2437\n"
WIRELESS = """Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE
 face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22
    lo: 0000   61.  -49.  -256        0      0      0      0    167        0
 wlan9: 0000   11.  -99.  -256        0      0      0      0    167        0
"""


@pytest.fixture
def wlan_status(standins, tmp_path):
    """wlan_status(ssid, ...) is what is told of a connection, lines and members."""

    def ask(ssid="", state="COMPLETED", signal=SIGNAL, wireless=""):
        for name, text in (("status", STATUS.format(ssid=ssid, state=state)),
                           ("signal_poll", signal)):
            (standins.folder / f"{name}.text").write_text(text)
        standins.answer("wpa_cli", '[ "$1 $2" = "-i lo" ] && cat "$NIMBUS_STANDINS/$3.text"')
        file = tmp_path / "wireless"
        file.write_text(wireless)
        result = run("bin/wlanstatus", "lo", NIMBUS_WIRELESS=str(file))
        assert result.returncode == 0, result.stderr
        lines = result.stdout.encode().splitlines(keepends=True)
        # The reader's buffer holds no more.
        assert all(len(line) <= 98 for line in lines)
        members = {}
        for line in lines:
            members.update(json.loads(line))
        return lines, members

    return ask


def test_connection(wlan_status):
    lines, members = wlan_status("Studio 1")
    assert lines == [b'{"ssid":"Studio 1","freq":2437,"quality":58,"quality_max":70,'
                     b'"signal":-52}\n']
    assert list(members) == ["ssid", "freq", "quality", "quality_max", "signal"]


def test_figures_of_the_kernel(wlan_status):
    _, members = wlan_status("x", wireless=WIRELESS)
    assert (members["quality"], members["signal"]) == (61, -49)


@pytest.mark.parametrize("rssi, quality", [(-30, 70), (-40, 70), (-41, 69), (-109, 1), (-110, 0),
                                           (-128, 0), (0, 0)])
def test_quality(wlan_status, rssi, quality):
    _, members = wlan_status("x", signal=f"RSSI={rssi}\n")
    assert (members["signal"], members["quality"]) == (rssi, quality)


@pytest.mark.parametrize("escaped, ssid", [
    ('a\\"b', 'a"b'), ("back\\\\slash", "back\\slash"), ("a=b", "a=b"), ("{}", "{}"),
    ("tab\\tend", "tab\tend"), ("\\e[1m", "\x1b[1m"), ("\\x00\\x01\\x7f", "\0\x01\x7f"),
    ("caf\\xc3\\xa9", "caf\u00e9"), ("\\xe2\\x82\\xac", "\u20ac"), ("caf\\xe9", "caf"),
    ("\\n\\r", "\n\r"), ("$(id) `id` %s%n", "$(id) `id` %s%n"), (" x ", " x "),
    ("\\\\x41", "\\x41"), ("x" * 32, "x" * 32), ('\\"' * 32, '"' * 32),
    ("\\xf0\\x9f\\x98\\x80" * 8, "\U0001f600" * 8)])
def test_name(wlan_status, escaped, ssid):
    _, members = wlan_status(escaped)
    assert members == {"ssid": ssid, "freq": 2437, "quality": 58, "quality_max": 70, "signal": -52}


@pytest.mark.parametrize("state", ["DISCONNECTED", "SCANNING", "INACTIVE", "4WAY_HANDSHAKE"])
def test_no_connection(wlan_status, state):
    _, members = wlan_status("x", state=state)
    assert members == {"ssid": "", "freq": 0, "quality": 0, "quality_max": 70, "signal": 0}


def test_no_daemon(standins):
    standins.answer("wpa_cli", "echo Failed to connect >&2; exit 255")
    result = run("bin/wlanstatus", "lo")
    assert (result.returncode, result.stderr) == (0, "")
    assert json.loads(result.stdout)["ssid"] == ""


def test_texts_of_the_daemon_that_are_no_numbers(wlan_status):
    _, members = wlan_status("x", signal="RSSI=x\nFREQUENCY=\n=\nno\n")
    assert members["signal"] == 0
