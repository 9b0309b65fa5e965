"""The report, the Wi-Fi scan, and the commands that end, restart and recalibrate."""

import json
import pathlib
import subprocess

import pytest

from harness.config_file import WORKING_COPY
from harness.configuring import SAVE
from harness.console import BANNER
from harness.duml import command, parse, speed
from harness.region import DisplayRegion
from harness.timing import limit, wait_until

pytest_plugins = ["harness.configuring", "harness.commanding"]

MAP = "pan,tilt,record"

# What the stream says of a viewer's full speed to the right.
MOVING = speed(1000, 0, 0)

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


# --- The report ----------------------------------------------------------------------------------


def test_report(boards):
    board = boards(conf_of(REPORT))
    assert board.request({"cmd": "configrequest"}) == report_of(REPORT)


def test_report_of_an_empty_configuration(board):
    zeros = [(name, key, 0 if isinstance(value, int) else
              "," * 31 if key == "rc_input_map" else "") for name, key, value in REPORT]
    assert board.request({"cmd": "configrequest"}) == report_of(zeros)


@pytest.mark.parametrize("mode", [0, 1], ids=["picture and data", "only data"])
def test_report_is_announced_and_goes_to_every_viewer(board, viewers, mode):
    other = viewers()
    other.register(mode)
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
    for removal in made:
        subprocess.run(removal, check=True)


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


# Commands that change every setting there is, and the report's items that are then not as before.
EVERYTHING = [
    ("rcin_enabled", ["1"]), ("rcin_mode", ["ppm", "sbus"]), ("rcin_map", [MAP]),
    ("rcin_speed", ["41", "-42", "150"]), ("rcin_pan_inv", ["2"]), ("rcin_tilt_inv", ["-1"]),
    ("rcin_dutch_inv", ["2147483648"]), ("rcin_exp", ["true"]), ("rcin_abs", ["1"]),
    ("internal_camera_enabled", ["1"]), ("internal_camera_fullscreen", ["1"]),
    ("osd_enabled", ["1"]), ("hdmi_enabled", ["1"]), ("osd_borders", ["200", "201"]),
    ("osd_offset", ["202", "203"]), ("video_bitrate", ["1500000"]),
    ("video_transcode_enabled", ["1"]), ("disable_video_stream", ["1"]), ("video_hflip", ["1"]),
    ("video_vflip", ["1"]), ("video_resolution", ["640x480"]),
    ("wifi", ["1", "the cam", "cam secret", "2", "the net", "net %s", "1", "the ap", "ap$(x)",
              "5", "36", "US"]),
]


@pytest.fixture
def restart(start, viewers, tmp_path):
    """restart(board) is the report of a service that starts from the file that the board's has
    saved."""

    def next_report(board):
        board.service.stop()
        (tmp_path / "tervado.conf").unlink()
        (tmp_path / "tervado.conf").symlink_to(WORKING_COPY)
        viewer, successor = viewers(), start(conf=None)
        viewer.register()
        successor.err.wait("New client")
        viewer.command('{"cmd":"configrequest"}')
        return viewer.wait(lambda f: f.payload[:1] == b"{").payload

    return next_report


def test_round_trip(board, restart):
    """A service that starts from the file that another has saved reports the same."""
    zeros = board.report()
    for name, values in EVERYTHING:
        board.update(name, *values)
    before = board.request({"cmd": "configrequest"})
    changed = json.loads(before)
    assert [key for key in zeros if zeros[key] == changed[key]] == ["app", "version", "ifaces"]
    assert (changed["rcin_dutchinv"], changed["lan_psk"]) == (2147483647, "net %s")
    assert restart(board) == before


def test_what_a_line_cannot_carry_is_lost_at_the_next_start(board, restart):
    """A line is read up to 199 bytes, and a quote in a text is dropped."""
    channels = "tilt," * 80
    board.update("rcin_map", channels)
    board.update("wifi", "1", 'a"b', "x" * 255)
    before = board.request({"cmd": "configrequest"}).decode()
    assert f'"rcin_map":"{channels}",' in before
    assert f'"cam_ssid":"a"b","cam_psk":"{"x" * 255}",' in before
    after = json.loads(restart(board))
    assert after["rcin_map"] == channels[:199 - len("rc_input_map=")]
    assert (after["cam_ssid"], after["cam_psk"]) == ("ab", "x" * (199 - len('camera_psk="')))


# --- The scan ------------------------------------------------------------------------------------


def scan_reply(code, names):
    return f'{{"cmd":"wlanscan","param":"{code}","value":"{names}"}}'


@pytest.mark.parametrize("code, iface", [("1", "wifi0"), ("2", "wlan0"), ("3", None), ("", None)])
def test_scan(board, standins, code, iface):
    standins.answer("iwlist", r"""printf 'x\n   ESSID:"alpha"\n  Quality=1\nESSID:"beta"\n'""")
    reply = scan_reply(code, "alpha,beta")
    assert board.request({"cmd": "wlan", "param": "scan", "value": code}) == reply.encode()
    said = f"scan Wi-Fi on {iface or ''}\nscan results: {reply}\n"
    assert board.service.err.text().endswith(said)
    assert board.calls() == [["iwlist", *([iface] if iface else []), "scan"]]


def test_scan_is_said_before_it_runs(board, standins):
    """It takes seconds, and somebody looks at the console meanwhile."""
    go = standins.folder / "go"
    standins.answer("iwlist", f"until [ -e {go} ]; do sleep 0.01; done")
    board.post({"cmd": "wlan", "param": "scan", "value": "1"})
    board.service.err.wait("scan Wi-Fi on wifi0\n")
    go.touch()
    board.service.err.wait(f"scan results: {scan_reply('1', '')}\n")


def test_scan_code_is_not_escaped(board):
    code = 'a"b\\%n'
    assert board.request({"cmd": "wlan", "param": "scan", "value": code}) == \
        scan_reply(code, "").encode()


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
    standins.answer("iwlist", "printf 'ESSID:\"%s\"\\nESSID:\"b\"\\n' "
                              "$(head -c 3000 /dev/zero | tr '\\0' a)")
    names = json.loads(board.request({"cmd": "wlan", "param": "scan", "value": "1"}))["value"]
    assert names == "a" * (1023 - len('ESSID:"') - 2) + ",b"


def test_endless_scan_is_bounded(board, standins):
    standins.answer("iwlist", "yes 'ESSID:\"0123456789\"' | head -n 20000")
    reply = board.request({"cmd": "wlan", "param": "scan", "value": "1"})
    whole = scan_reply("1", ",".join(["0123456789"] * 6000)).encode()
    assert len(reply) == 59_999
    assert reply == whole[:59_999]


@pytest.mark.timing
@pytest.mark.parametrize("tool, what", [
    ("iwlist", {"cmd": "wlan", "param": "scan", "value": "1"}),
    ("killall", {"cmd": "updateparam", "name": "hdmimode", "value": "default"})])
def test_slow_command_holds_only_the_commands(stations, standins, viewers, video, tool, what):
    """Video, status messages and the gimbal's stream go on while a scan lasts, and while a new HDMI
    mode settles and the pictures end; the next command waits."""
    standins.answer(tool, 'while [ ! -e "$NIMBUS_STANDINS/go" ]; do sleep 0.01; done')
    station, witness = stations(), viewers()
    camera = station.camera
    witness.keep_alive()
    witness.speed(1, 4000, 0, 0)
    camera.wait_frames(3)
    station.send(what)
    start, seen = camera.count(), len(witness.frames)
    station.post(command("gimbal", "mode", "fence"))
    for picture in (b"first", b"second"):
        video.send(picture)
        witness.wait(lambda f: f.payload == picture, start=seen)
    for kind in (5, 6, 11):
        witness.message(kind, start=seen)
    frames = camera.wait_frames(50, start=start)
    assert "Gimbal set mode fence\n" not in camera.console()
    (standins.folder / "go").touch()
    camera.wait_text("Gimbal set mode fence\n", 10, start=start)
    assert all(parse(frame.data)[0] == MOVING for frame in frames)
    gaps = sorted(later.time - earlier.time for earlier, later in zip(frames, frames[1:]))
    assert gaps[len(gaps) // 2] == pytest.approx(0.03, abs=limit(0.005))


# --- The others ----------------------------------------------------------------------------------


@pytest.mark.parametrize("tool", ["reboot", "shutdown"])
def test_end_of_the_board(board, tool):
    board.send({"cmd": tool})
    assert board.calls() == [[tool]]


def test_restart(board):
    """Nothing that was said before is lost, and no tool is called."""
    board.update("rcin_pan", "1")
    board.calls()
    said = board.service.out.text()
    board.viewer.command('{"cmd":"restart"}')
    assert board.service.wait_exit() == 3
    assert board.service.out.text() == said + 'config_parse_command {"cmd":"restart"}\n'
    assert board.service.err.text().endswith("Save config\n")
    assert board.calls() == []


def test_restart_leaves_a_whole_output_file(launch, viewers, tmp_path):
    with (tmp_path / "output").open("wb") as output:
        service = launch(stdout=output)
    viewers().command('{"cmd":"restart"}')
    assert service.wait_exit() == 3
    assert (tmp_path / "output").read_bytes() == \
        BANNER + b'config_parse_command {"cmd":"restart"}\n'


def test_recalibration(board, standins):
    """The file goes while the card is writable: behind the first mount and before umount."""
    mark = pathlib.Path("/boot/rcin.cal")
    mark.write_text("")
    standins.answer("mount", f"""case $* in
      *remount*) [ -e {mark} ] || echo too early >&2 ;;
    esac""")
    standins.answer("umount", f"[ ! -e {mark} ] || echo too late >&2")
    said = board.send({"cmd": "rc", "name": "recalibrate"})
    assert "too" not in "".join(said)
    assert board.calls() == [*SAVE, ["killall", "-q", "rcin"]]
    assert not mark.exists()


def test_show_channels(board, region):
    for value, shown in (("1", 1), ("0", 0), ("true", 1), ("yes", 0)):
        board.send({"cmd": "rc", "name": "showchannels", "value": value})
        assert region.u8(region.SHOW_CHANNELS) == shown, value
    assert board.calls() == []


def test_member_names_in_any_case(board, region):
    board.send('{"CMD":"rc","Name":"showchannels","VALUE":"1"}')
    assert region.u8(region.SHOW_CHANNELS) == 1


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
