"""The report, the Wi-Fi scan, and the commands that end, restart and recalibrate."""

import json
import pathlib
import subprocess
import time

import pytest

from board import SAVE, WORKING_COPY
from nimbus import DisplayRegion, limit, wait_until

pytest_plugins = ["board", "station"]

MAP = "pan,tilt,record"

# The report's items in their order: name, key, and how it stands there.
REPORT = [
    ("vbitrate", "video_bitrate", 1500000), ("vw", "video_width", 640),
    ("vh", "video_height", 480), ("vte", "video_transcode_enabled", 1),
    ("v_dis", "disable_video_stream", 1), ("v_hf", "video_hflip", 1), ("v_vf", "video_vflip", 1),
    ("rcin_en", "rc_input_enabled", 1), ("rcin_mode", "rc_input_mode", "pwm"),
    ("rcin2_mode", "rc2_input_mode", "sbus"), ("rcin_map", "rc_input_map", MAP),
    ("rcin_pan", "rc_input_speed_pan", 11), ("rcin_tilt", "rc_input_speed_tilt", 12),
    ("rcin_dutch", "rc_input_speed_dutch", -13), ("rcin_paninv", "rc_input_inverse_pan", 1),
    ("rcin_tiltinv", "rc_input_inverse_tilt", 2), ("rcin_dutchinv", "rc_input_inverse_dutch", 3),
    ("rcin_exp", "rc_input_exp", 1), ("rcin_abs", "rc_input_abs", 1),
    ("hdmistate", "hdmi_enabled", 1), ("osdbrdw", "osd_border_width", 200),
    ("osdbrdh", "osd_border_height", 201), ("osdtof", "osd_top_offset", 202),
    ("osdbof", "osd_bottom_offset", 203), ("osd_en", "osd_enabled", 1),
    ("ic_en", "internal_camera_enabled", 1), ("ic_fs", "internal_camera_fullscreen", 1),
    ("ap_iface", "ap_iface", "wlan0"), ("ap_ssid", "ap_ssid", "the ap"),
    ("ap_psk", "ap_psk", "ap secret"), ("ap_mode", "ap_mode", 5), ("ap_channel", "ap_channel", 36),
    ("ap_country", "ap_country", "CN"), ("lan_iface", "wifi_iface", "wifi0"),
    ("lan_ssid", "wifi_ssid", "the net"), ("lan_psk", "wifi_psk", "net secret"),
    ("cam_iface", "camera_iface", "eth0"), ("cam_ssid", "camera_ssid", "the cam"),
    ("cam_psk", "camera_psk", "cam secret"),
]
CODES = {"wifi0": "1", "wlan0": "2"}


def conf_of(rows):
    return "".join(f"{key}={value}\n" for _, key, value in rows)


def report_of(rows, interfaces=""):
    """The report, byte for byte."""
    items = []
    for name, key, value in rows:
        if key.endswith("iface"):
            value = CODES.get(value, "0")
        items.append(f'"{name}":"{value}",' if isinstance(value, str) else f'"{name}":{value},')
    return ('{"app":"nimbus",' + "".join(items) +
            f'"version":"0.3.7","ifaces":[{interfaces}]}}').encode()


# --- The report ---------------------------------------------------------------------------------


def test_report(boards):
    board = boards(conf_of(REPORT))
    assert board.request({"cmd": "configrequest"}) == report_of(REPORT)


def test_report_of_an_empty_configuration(board):
    zeros = [(name, key, 0 if isinstance(value, int) else
              "," * 31 if key == "rc_input_map" else "") for name, key, value in REPORT]
    assert board.request({"cmd": "configrequest"}) == report_of(zeros)


def test_report_is_announced_and_goes_to_every_viewer(board, viewers):
    other = viewers()
    other.register()
    board.service.err.wait("New client connected", count=2)
    assert board.send({"cmd": "configrequest"})[1].endswith("config request\n")
    other.wait(lambda f: f.payload == board.texts()[0] if board.texts() else False)


def test_report_is_not_escaped(boards):
    board = boards('rc_input_mode=a"b\\\n')
    assert b'"rcin_mode":"a"b\\",' in board.request({"cmd": "configrequest"})


@pytest.fixture
def interfaces():
    """Interfaces with addresses, in the sandbox's own network; removed at the end."""
    made = []

    def make(name, *addresses):
        ip = "/usr/sbin/ip" if pathlib.Path("/usr/sbin/ip").exists() else "/sbin/ip"
        subprocess.run([ip, "link", "add", name, "type", "bridge"], check=True)
        made.append([ip, "link", "del", name])
        for address in addresses:
            subprocess.run([ip, "addr", "add", address, "dev", name], check=True)
        subprocess.run([ip, "link", "set", name, "up"], check=True)

    yield make
    for command in made:
        subprocess.run(command, check=True)


def test_report_lists_the_interfaces(board, interfaces):
    assert board.report()["ifaces"] == []
    interfaces("eth7", "192.168.1.5/24", "fd00::5/64")
    interfaces("wlan0", "10.0.0.1/8", "10.0.0.2/8")
    interfaces("bare")
    assert board.request({"cmd": "configrequest"}).endswith(
        b'"ifaces":[{"name":"eth7","addr":"192.168.1.5"},{"name":"wlan0","addr":"10.0.0.1"},'
        b'{"name":"wlan0","addr":"10.0.0.2"}]}')


def test_many_interfaces_leave_the_report_whole(board, interfaces):
    interfaces("eth7", *(f"10.1.2.{n}/32" for n in range(1, 60)))
    listed = board.report()["ifaces"]
    assert 10 < len(listed) < 59
    assert listed == [{"name": "eth7", "addr": f"10.1.2.{n}"} for n in range(1, len(listed) + 1)]


def test_round_trip(boards, start, viewers, tmp_path):
    """A service that starts from the file that another has saved reports the same."""
    board = boards(conf_of(REPORT))
    board.update("rcin_pan", "44")
    before = board.request({"cmd": "configrequest"})
    board.service.stop()
    viewer = viewers()
    successor = start(WORKING_COPY.read_text())
    viewer.register()
    successor.err.wait("New client")
    viewer.command('{"cmd":"configrequest"}')
    assert viewer.wait(lambda f: f.payload[:1] == b"{").payload == before
    assert b'"rcin_pan":44,' in before


# --- The scan -----------------------------------------------------------------------------------


def scan_reply(code, names):
    return f'{{"cmd":"wlanscan","param":"{code}","value":"{names}"}}'


@pytest.mark.parametrize("code, iface", [("1", "wifi0"), ("2", "wlan0"), ("3", None), ("", None)])
def test_scan(board, standins, code, iface):
    standins.answer("iwlist", r"""printf 'x\n   ESSID:"alpha"\n  Quality=1\nESSID:"beta"\n'""")
    reply = scan_reply(code, "alpha,beta")
    assert board.request({"cmd": "wlan", "param": "scan", "value": code}) == reply.encode()
    assert board.service.err.text().endswith(f"scan Wi-Fi on {iface or ''}\nscan results: {reply}\n")
    assert board.calls() == [["iwlist", *([iface] if iface else []), "scan"]]


def test_scan_of_no_interface(board):
    assert board.send({"cmd": "wlan", "param": "scan", "value": "0"}) == ("", "")
    assert board.send({"cmd": "wlan", "param": "Scan", "value": "1"}) == ("", "")
    assert board.calls() == []
    assert board.texts() == []


@pytest.mark.parametrize("printed, names", [
    (r"", ""),
    (r'ESSID:""\n', ""),
    (r'ESSID:"a"\nESSID:""\nESSID:"a"\n', "a,,a"),
    (r'ESSID:', ""), (r'ESSID:\n', ""), (r'ESSID:"', ""), (r'ESSID:"\n', ""),
    (r'ESSID:"ab"', "a"),                      # no line end: two characters go all the same
    (r'ESSID:"q"uote,"\n', 'q"uote,'),
    (r'essid:"x"\nSSID:"y"\n', ""),
    (r'ESSID:"%%n%%s$(reboot)"\n', "%n%s$(reboot)"),
])
def test_scan_lines(board, standins, printed, names):
    standins.answer("iwlist", f"printf '{printed}'")
    assert board.request({"cmd": "wlan", "param": "scan", "value": "1"}) == \
        scan_reply("1", names).encode()


def test_long_scan_line(board, standins):
    """A line is read in pieces of 1,023 bytes, each a line of its own."""
    standins.answer("iwlist", "printf 'ESSID:\"%s\"\\nESSID:\"b\"\\n' $(head -c 3000 /dev/zero | tr '\\0' a)")
    names = json.loads(board.request({"cmd": "wlan", "param": "scan", "value": "1"}))["value"]
    assert names == "a" * (1023 - len('ESSID:"') - 2) + ",b"


def test_endless_scan_is_bounded(board, standins):
    standins.answer("iwlist", "yes 'ESSID:\"0123456789\"' | head -n 20000")
    reply = board.request({"cmd": "wlan", "param": "scan", "value": "1"})
    whole = scan_reply("1", ",".join(["0123456789"] * 6000)).encode()
    assert len(reply) == 59_999
    assert reply == whole[:59_999]


def test_scan_holds_only_the_commands(stations, standins, viewers):
    """Video, status messages and the gimbal go on."""
    standins.answer("iwlist", "sleep 1.5")
    station = stations()
    witness = viewers()
    witness.register()
    witness.speed(1, 4000, 0, 0)
    station.viewer.command('{"cmd":"wlan","param":"scan","value":"1"}')
    station.camera.wait_text("scan Wi-Fi on wifi0\n")
    start = time.monotonic()
    frames = len(station.camera.frames())
    statuses = len(witness.frames)
    station.camera.wait_text(f"scan results: {scan_reply('1', '')}\n")
    took = time.monotonic() - start
    assert took >= 1.4
    assert len(station.camera.frames()) - frames >= took / 0.03 * 0.8 / limit(1)
    assert len(witness.frames) > statuses


# --- The others ---------------------------------------------------------------------------------


@pytest.mark.parametrize("command", ["reboot", "shutdown"])
def test_end_of_the_board(board, command):
    board.send({"cmd": command})
    assert board.calls() == [[command]]


def test_restart(board):
    board.viewer.command('{"cmd":"restart"}')
    assert board.service.wait_exit() == 3
    assert board.service.out.text().endswith('config_parse_command {"cmd":"restart"}\n')


def test_recalibration(board):
    mark = pathlib.Path("/boot/rcin.cal")
    mark.write_text("")
    board.send({"cmd": "rc", "name": "recalibrate"})
    assert board.calls() == [*SAVE, ["killall", "-q", "rcin"]]
    assert not mark.exists()


def test_show_channels(board, region):
    for value, shown in (("1", 1), ("0", 0), ("true", 1), ("yes", 0)):
        board.send({"cmd": "rc", "name": "showchannels", "value": value})
        assert region.u8(1176) == shown, value
    assert board.calls() == []


def test_member_names_in_any_case(board, region):
    board.send('{"CMD":"rc","Name":"showchannels","VALUE":"1"}')
    assert region.u8(1176) == 1


@pytest.mark.parametrize("text", [
    "{", "{}", "{not json", '{"cmd":7}', '{"cmd":null}', '{"cmd":["reboot"]}', '{"cmd":"Reboot"}',
    '{"cmd":"reboot "}', '{"cmd":"rc"}', '{"cmd":"wlan"}', '{"cmd":"rc","name":1}',
    '{"a":{"cmd":"reboot"}}', '{"cmd":"record","param":"start"}'])
def test_what_is_no_command_does_nothing(board, text):
    assert board.send(text)[0] == ""
    assert board.calls() == []
    assert board.texts() == []


def test_tools_that_fail(board, standins, region):
    for tool in ("mount", "umount", "killall", "tvservice", "iwlist"):
        standins.answer(tool, "echo nonsense; exit 7")
    board.update("rcin_enabled", "1")
    board.update("hdmimode", "default")
    assert board.request({"cmd": "wlan", "param": "scan", "value": "1"}) == \
        scan_reply("1", "").encode()
    wait_until(lambda: region.u8(DisplayRegion.VIEWER_COUNT) == 1, 5)
