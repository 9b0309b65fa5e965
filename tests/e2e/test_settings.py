"""Viewers change settings: the record, the file, the region, and the processes that are ended."""

import pathlib

import pytest

from harness.config_file import CARD_FILE, WORKING_COPY
from harness.configuring import SAVE, settings
from harness.region import DisplayRegion
from harness.timing import limit

pytest_plugins = ["harness.configuring"]

END_RCIN = ["killall", "-q", "rcin"]
END_PICTURES = ["killall", "-q", "hud", "usb-receiver", "wireless-receiver", "display"]
END_STREAMS = ["killall", "-q", "rtsp-server", "gst-launch-1.0"]
END_TRANSCODING = [*END_STREAMS, "wireless-receiver", "usb-receiver"]
END_FLIPPED = ["killall", "-q", "display", "usb-receiver", "wireless-receiver"]
END_RASPIVID = ["killall", "-q", "raspivid"]
END_HUD = ["killall", "-q", "hud"]

RC_STATUS = DisplayRegion.RC_STATUS

# name, values, what the file then holds, the tool that is called after the save, whether the
# receiver's state is reset
CHANGES = [
    ("rcin_enabled", ["1"], {"rc_input_enabled": "1"}, END_RCIN, True),
    ("rcin_enabled", ["true"], {"rc_input_enabled": "1"}, END_RCIN, True),
    ("rcin_map", ["pan,tilt,,ev"], {"rc_input_map": "pan,tilt,,ev"}, END_RCIN, True),
    ("rcin_speed", ["10", "20", "30"],
     {"rc_input_speed_pan": "10", "rc_input_speed_tilt": "20", "rc_input_speed_dutch": "30"},
     None, False),
    ("rcin_speed", ["10"], {"rc_input_speed_pan": "10"}, None, False),
    ("rcin_pan", ["150"], {"rc_input_speed_pan": "150"}, None, False),
    ("rcin_tilt", ["-3x"], {"rc_input_speed_tilt": "-3"}, None, False),
    ("rcin_dutch", ["99999999999"], {"rc_input_speed_dutch": "2147483647"}, None, False),
    ("rcin_dutch", ["-99999999999"], {"rc_input_speed_dutch": "-2147483648"}, None, False),
    ("rcin_pan_inv", ["2"], {"rc_input_inverse_pan": "2"}, None, False),
    ("rcin_tilt_inv", ["1"], {"rc_input_inverse_tilt": "1"}, None, False),
    ("rcin_dutch_inv", ["-1"], {"rc_input_inverse_dutch": "-1"}, None, False),
    ("rcin_exp", ["true"], {"rc_input_exp": "1"}, END_RCIN, True),
    ("rcin_abs", ["1"], {"rc_input_abs": "1"}, None, False),
    ("internal_camera_enabled", ["1"], {"internal_camera_enabled": "1"}, END_RASPIVID, False),
    ("internal_camera_fullscreen", ["true"], {"internal_camera_fullscreen": "1"}, END_RASPIVID,
     False),
    ("osd_enabled", ["1"], {"osd_enabled": "1"}, None, False),
    ("osd_borders", ["200", "300"], {"osd_border_width": "200", "osd_border_height": "44"},
     END_PICTURES, False),
    ("osd_offset", ["5", "-1"], {"osd_top_offset": "5", "osd_bottom_offset": "255"},
     END_PICTURES, False),
    ("osd_top_offset", ["7"], {"osd_top_offset": "7"}, END_HUD, False),
    ("osd_bottom_offset", ["8"], {"osd_bottom_offset": "8"}, END_HUD, False),
    ("video_bitrate", ["2000000"], {"video_bitrate": "2000000"}, END_STREAMS, False),
    ("video_transcode_enabled", ["7"], {"video_transcode_enabled": "1"}, END_TRANSCODING, False),
    ("disable_video_stream", ["1"], {"disable_video_stream": "1"}, None, False),
    ("video_hflip", ["1"], {"video_hflip": "1"}, END_FLIPPED, False),
    ("video_vflip", ["-1"], {"video_vflip": "1"}, END_FLIPPED, False),
]

# Settings that take "1" or "true" for yes, and those that take a number: setting, its key.
YES_OR_NO = [("rcin_enabled", "rc_input_enabled"), ("rcin_exp", "rc_input_exp"),
             ("rcin_abs", "rc_input_abs"), ("osd_enabled", "osd_enabled"),
             ("internal_camera_enabled", "internal_camera_enabled"),
             ("internal_camera_fullscreen", "internal_camera_fullscreen"),
             ("hdmi_enabled", "hdmi_enabled")]
NUMBERED_FLAGS = ["video_transcode_enabled", "disable_video_stream", "video_hflip", "video_vflip"]


def changes(before, after):
    return {key: value for key, value in after.items() if before.get(key) != value}


@pytest.fixture(autouse=True)
def no_network_change(clean_board):
    """A board that has just started has no mark of one."""
    pathlib.Path("/run/wlan.update").unlink(missing_ok=True)


@pytest.fixture
def saved(board):
    """A board whose file has been written once, with every setting at zero or empty but the map."""
    board.update("rcin_pan", "0")
    board.calls()
    return board


@pytest.mark.parametrize("name, values, expected, tool, resets", CHANGES)
def test_change(saved, region, name, values, expected, tool, resets):
    before = settings()
    region.write(RC_STATUS, b"\x06")
    out, error = saved.update(name, *values)
    second = values[1] if len(values) > 1 else ""
    assert out == f"Need to update param {name} to {values[0]}, {second}\n"
    assert error == "Save config\n"
    assert saved.calls() == SAVE + ([tool] if tool else [])
    assert changes(before, settings()) == expected
    assert settings(CARD_FILE) == settings()
    assert region.u8(RC_STATUS) == (0 if resets else 6)


@pytest.mark.parametrize("name", ["rcin_enabled", "rcin_mode", "rcin_map", "rcin_exp"])
def test_receiver_is_reset_last(saved, region, standins, name):
    """The reader that is ended may report until its end."""
    region.write(RC_STATUS, b"\x06")
    standins.answer("killall", f'dd if=/dev/shm/hud_mem bs=1 skip={RC_STATUS} count=1 2>/dev/null '
                               f'>"$NIMBUS_STANDINS/status"\n'
                               f'cp {WORKING_COPY} "$NIMBUS_STANDINS/file"')
    saved.update(name, "1", "1")
    assert (standins.folder / "status").read_bytes() == b"\x06"
    assert region.u8(RC_STATUS) == 0
    assert settings(standins.folder / "file") == settings()


@pytest.mark.parametrize("name, key", YES_OR_NO)
def test_yes_or_no(saved, name, key):
    for value, stored in (("1", "1"), ("0", "0"), ("true", "1"), ("TRUE", "0"), ("1 ", "0"),
                          ("2", "0"), ("", "0")):
        saved.update(name, value)
        assert settings()[key] == stored, value


@pytest.mark.parametrize("name", NUMBERED_FLAGS)
def test_flag_from_a_number(saved, name):
    for value, stored in (("7", "1"), ("true", "0"), ("-1", "1"), ("yes", "0"), ("1x", "1")):
        saved.update(name, value)
        assert settings()[name] == stored, value


@pytest.mark.parametrize("name, offset", [
    ("osd_enabled", DisplayRegion.OSD_ENABLED),
    ("internal_camera_enabled", DisplayRegion.INTERNAL_CAMERA_ENABLED),
    ("internal_camera_fullscreen", DisplayRegion.INTERNAL_CAMERA_FULLSCREEN)])
def test_display_follows(board, region, name, offset):
    board.update(name, "1")
    assert region.u8(offset) == 1
    board.update(name, "0")
    assert region.u8(offset) == 0


def test_receiver_modes(saved, region):
    region.write(RC_STATUS, b"\x06")
    out, error = saved.update("rcin_mode", "pwm", "abcdefgh")
    assert out == ("Need to update param rcin_mode to pwm, abcdefgh\n"
                   "Set RC1 mode pwm, RC2 mode abcdefgh\n")
    assert error == "Save config\n"
    assert saved.calls() == [*SAVE, END_RCIN]
    assert settings()["rc_input_mode"] == "pwm"
    assert settings()["rc2_input_mode"] == "abcde"
    assert region.u8(RC_STATUS) == 0


def test_map_is_published(board, region):
    board.update("rcin_map", "tilt,pan,nothing")
    codes = region.bytes(*DisplayRegion.RC_CHANNEL_MAP)
    assert codes == bytes([1, 0]) + b"\xff" * 30


@pytest.mark.parametrize("value, width, height", [
    ("320x240", 320, 240), ("640x480", 640, 480), ("1280x720", 1280, 720), ("800x600", 1280, 720),
    ("", 1280, 720)])
def test_video_resolution(saved, value, width, height):
    out, error = saved.update("video_resolution", value)
    assert out == f"Need to update param video_resolution to {value}, \n"
    assert error == f"set video resolution {width}x{height}\nSave config\n"
    assert saved.calls() == [*SAVE, END_STREAMS]
    assert (settings()["video_width"], settings()["video_height"]) == (str(width), str(height))


@pytest.mark.parametrize("value, on", [("1", "1"), ("true", "1"), ("0", "0"), ("yes", "0")])
def test_hdmi_enabled(saved, value, on):
    assert saved.update("hdmi_enabled", value)[1] == "Save config\n"
    assert saved.calls() == [*SAVE, ["hdmi-change.sh", on], END_PICTURES]
    assert settings()["hdmi_enabled"] == on


# --- HDMI modes ----------------------------------------------------------------------------------

HDMI_MODES = {
    "640x480@60p CEA": ("CEA", 1), "1280x720@50p CEA": ("CEA", 19), "1280x720@60p CEA": ("CEA", 4),
    "1920x1080@50i CEA": ("CEA", 20), "1920x1080@50p CEA": ("CEA", 31),
    "1920x1080@60i CEA": ("CEA", 5), "1920x1080@60p CEA": ("CEA", 16),
    "1920x1080@24p CEA": ("CEA", 32), "1920x1080@25p CEA": ("CEA", 33),
    "1920x1080@30p CEA": ("CEA", 34),
    "640x480@60p DMT": ("DMT", 4), "640x480@75p DMT": ("DMT", 6), "800x600@60p DMT": ("DMT", 9),
    "800x600@75p DMT": ("DMT", 11), "1024x768@60p DMT": ("DMT", 16),
    "1024x768@75p DMT": ("DMT", 18), "1152x864@75p DMT": ("DMT", 21),
    "1280x1024@60p DMT": ("DMT", 35), "1280x1024@75p DMT": ("DMT", 36),
    "1920x1080@60p DMT": ("DMT", 82),
}


@pytest.mark.parametrize("name", HDMI_MODES)
def test_hdmi_mode(board, standins, name):
    group, mode = HDMI_MODES[name]
    standins.answer("tvservice", "echo it runs >&2")
    _, error = board.update("hdmimode", name, "1")
    assert error == f"set HDMI mode to {group} {mode}\nit runs\n"
    boot_group = {"CEA": "1", "DMT": "2"}[group]
    assert board.calls() == [["tvservice", "-e", f"{group} {mode}"],
                             ["hdmi-mode.sh", boot_group, str(mode)], END_PICTURES]
    assert not CARD_FILE.exists()


@pytest.mark.parametrize("at_boot", ["", "0", "2", "TRUE"])
def test_hdmi_mode_until_the_next_boot(board, at_boot):
    board.update("hdmimode", "1280x720@60p CEA", at_boot)
    assert board.calls() == [["tvservice", "-e", "CEA 4"], END_PICTURES]


@pytest.mark.parametrize("name", ["1920x1080@60p DMT", "default"])
def test_hdmi_mode_settles_before_the_pictures_end(board, standins, name):
    for tool in ("tvservice", "killall"):
        standins.answer(tool, f'date +%s.%N >"$NIMBUS_STANDINS/{tool}.time"')
    board.update("hdmimode", name, "1")
    changed, ended = (float((standins.folder / f"{tool}.time").read_text())
                      for tool in ("tvservice", "killall"))
    assert 1.0 <= ended - changed < limit(3)


@pytest.mark.parametrize("name", ["default", "", "1280X720@60p CEA", "1280x720@60p  CEA",
                                  "$(reboot)", "'; reboot; '"])
@pytest.mark.parametrize("at_boot", ["0", "true"])
def test_default_hdmi_mode(board, standins, name, at_boot):
    standins.answer("tvservice", "echo it runs >&2")
    _, error = board.update("hdmimode", name, at_boot)
    assert error == "set default HDMI mode\nit runs\n"
    script = [["hdmi-mode.sh"]] if at_boot == "true" else []
    assert board.calls() == [["tvservice", "-p"], *script, END_PICTURES]
    assert not CARD_FILE.exists()


# --- Wi-Fi ---------------------------------------------------------------------------------------

WIFI = {"value": "1", "value2": "cam ssid", "value3": "cam psk",
        "value4": "2", "value5": "net ssid", "value6": "net psk",
        "value7": "2", "value8": "ap ssid", "value9": "ap psk",
        "value10": "5", "value11": "36", "value12": "US"}


def test_wifi(saved, standins):
    """The mark comes behind the new settings, for those who wait for it."""
    mark = pathlib.Path("/run/wlan.update")
    mark.unlink(missing_ok=True)
    standins.answer("mount", f"[ ! -e {mark} ] || echo too early >&2")
    before, copy = settings(), WORKING_COPY.stat()
    out, error = saved.send({"cmd": "updateparam", "name": "wifi", **WIFI})
    assert out == ("Need to update param wifi to 1, cam ssid\n"
                   "\nnetwork iface 2 ssid net ssid pass net psk\n"
                   "AP iface 2 ssid ap ssid pass ap psk mode 5 channel 36 country US\n\n")
    assert error == "Save config\n"
    assert saved.calls() == SAVE
    assert mark.stat().st_mtime_ns >= WORKING_COPY.stat().st_mtime_ns > copy.st_mtime_ns
    assert changes(before, settings()) == {
        "camera_iface": "wifi0", "camera_ssid": '"cam ssid"', "camera_psk": '"cam psk"',
        "wifi_iface": "wlan0", "wifi_ssid": '"net ssid"', "wifi_psk": '"net psk"',
        "ap_iface": "wlan0", "ap_ssid": '"ap ssid"', "ap_psk": '"ap psk"', "ap_mode": "5",
        "ap_channel": "36", "ap_country": "US"}


@pytest.mark.parametrize("member, key", [("value", "camera_iface"), ("value4", "wifi_iface"),
                                         ("value7", "ap_iface")])
def test_wifi_interfaces(saved, member, key):
    for code, name in (("1", "wifi0"), ("3", "wifi0"), ("2", "wlan0"), ("", "wlan0"), ("0", "")):
        saved.send({"cmd": "updateparam", "name": "wifi", member: code})
        assert settings()[key] == name, code


def test_access_point_band(saved):
    for value, band in (("5", "5"), ("2", "5"), ("2.4", "2"), ("", "2")):
        saved.send({"cmd": "updateparam", "name": "wifi", "value10": value})
        assert settings()["ap_mode"] == band, value


def test_wifi_texts_keep_their_quotes(saved):
    """They are lost at the next start only."""
    saved.send({"cmd": "updateparam", "name": "wifi", "value2": 'a"b', "value9": '"'})
    assert (settings()["camera_ssid"], settings()["ap_psk"]) == ('"a"b"', '"""')
    report = saved.request({"cmd": "configrequest"})
    assert b'"cam_ssid":"a"b",' in report and b'"ap_psk":"""' in report


# --- Hostile values ------------------------------------------------------------------------------

HOSTILE = ["$(touch /run/owned)`touch /run/owned`'; touch /run/owned; '\"; touch /run/owned; \"",
           "%n%s%1000000d", "a\nb=c\x7f\t\x01" + "\u00e9" * 60]


@pytest.mark.parametrize("value", HOSTILE)
def test_hostile_values_stay_values(saved, value):
    names = [row[0] for row in CHANGES] + ["hdmimode", "rcin_mode", "video_resolution", "wifi", "x"]
    for name in dict.fromkeys(names):
        out, _ = saved.update(name, value, value)
        assert out.startswith(f"Need to update param {name} to {value}, {value}\n")
    saved.send({"cmd": "wlan", "param": "scan", "value": value})
    assert not pathlib.Path("/run/owned").exists()
    assert saved.service.running()
    assert not any(value in argument for call in saved.calls() for argument in call)


@pytest.mark.parametrize("members, key, size", [
    ({"name": "rcin_mode"}, "rc_input_mode", 6),
    ({"name": "wifi", "of": "value12"}, "ap_country", 10),
    ({"name": "wifi", "of": "value2"}, "camera_ssid", 256)])
def test_long_values_are_cut(saved, members, key, size):
    members = dict(members)
    member = members.pop("of", "value")
    neighbours = {k: v for k, v in settings().items() if k != key}
    saved.send({"cmd": "updateparam", member: "x" * 400, **members})
    assert settings()[key].strip('"') == "x" * (size - 1)
    changed = changes(neighbours, {k: v for k, v in settings().items() if k != key})
    assert not changed


def test_unknown_settings_change_nothing(board):
    for name in ("", "Rcin_enabled", "rcin_paninv", "osd", "hdmi_mode"):
        out, error = board.update(name, "1")
        assert (out, error) == (f"Need to update param {name} to 1, \n", "")
    assert board.calls() == []
    assert not CARD_FILE.exists()
    assert not WORKING_COPY.exists()


# --- Line ends in values -------------------------------------------------------------------------


@pytest.mark.parametrize("end", ["\n", "\r", "\r\n"], ids=repr)
def test_no_value_begins_a_line(board, end):
    """It ends there in the file; the record, and what is said, have it as it came."""
    name = f"Studio{end}hdmi_enabled=7{end}ap_mode=9"
    board.update("wifi", *["0"] * 7, name, name, "", "", "US")
    report = board.request({"cmd": "configrequest"}).decode()
    assert f'"ap_ssid":"{name}"' in report.replace(" ", "")
    saved = settings(CARD_FILE)
    assert (saved["ap_ssid"], saved["ap_psk"]) == ('"Studio"', '"Studio"')
    for file in (CARD_FILE, WORKING_COPY):
        lines = file.read_bytes().replace(b"\r\n", b"\n").split(b"\n")
        assert len(lines) == 157 + 1 and b"hdmi_enabled=7" not in lines and b"ap_mode=9" not in lines
        assert not any(b"\r" in line for line in lines)
