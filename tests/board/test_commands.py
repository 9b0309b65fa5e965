"""What the service asks of the board, where the board does it."""

import bench
import pytest
from machine import wait_until

SIBLINGS = ("rcin hud display usb-receiver wireless-receiver rtsp-server gst-launch-1.0 "
            "raspivid").split()
BOARD_STATE, ACCESS_POINT = 0x06, 0x02  # a message, and a flag in it


def siblings(machine):
    """The process of each."""
    units = " ".join(f"board-sibling@{name}" for name in SIBLINGS)
    said = machine.run(f"systemctl show -p MainPID --value {units}")
    return dict(zip(SIBLINGS, map(int, said.split())))


@pytest.fixture
def board(machine):
    """A board whose siblings run, too."""
    machine.wait(" && ".join(f"pidof {name}" for name in [*SIBLINGS, "hostapd"]), 120)
    return machine


ENDED = {
    "rcin_enabled": ("1", ["rcin"]),
    "video_bitrate": ("3333", ["rtsp-server", "gst-launch-1.0"]),
    "osd_borders": ("1", ["hud", "usb-receiver", "wireless-receiver", "display"]),
    "internal_camera_enabled": ("1", ["raspivid"]),
    "video_transcode_enabled": ("1", ["rtsp-server", "gst-launch-1.0", "usb-receiver",
                                      "wireless-receiver"]),
}


def test_settings_end_their_siblings(board, viewer):
    """Under their own units, which start them again; and nobody else. killall knows those, too,
    whose names are longer than the kernel keeps. The picture comes back with the bridge."""
    viewer.join()
    for name, (value, ended) in ENDED.items():
        before = siblings(board)
        viewer.command(bench.setting(name, value))

        def changed():
            now = siblings(board)
            new = [one for one in SIBLINGS if now[one] != before[one]]
            return sorted(new) == sorted(ended) and 0 not in now.values()

        wait_until(changed, 60, f"the end of {ended}")
    viewer.wait_video()


def test_access_point_and_display_modes(board, viewer):
    """pidof finds the access point's daemon, under a unit of its own; tvservice is asked."""
    viewer.join()

    def seen(flag):
        viewer.register()
        states = [frame.payload for frame in list(viewer.frames)
                  if frame.payload[:1] == bytes([BOARD_STATE])]
        return states and states[-1][1] & ACCESS_POINT == flag

    wait_until(lambda: seen(ACCESS_POINT), 60, "the access point")
    board.run("systemctl stop board-sibling@hostapd")
    wait_until(lambda: seen(0), 60, "its end")
    viewer.command('{"cmd":"updateparam","name":"hdmimode","value":"1280x720@60p CEA",'
                   '"value2":"1"}')
    board.wait("grep -q 'CEA 4' /run/tvservice")
    board.wait("grep -q hdmi_mode=4 /boot/firmware/config.txt")


def test_restart_command(machine, viewer):
    viewer.join()
    before = bench.service_pid(machine)
    viewer.command('{"cmd":"restart"}')
    bench.wait_restarted(machine, before)
    assert viewer.join().settings()["vbitrate"] == 1111


def test_reboot_and_shutdown_commands(machine, own_card, viewer):
    """The board comes back with the settings that were made just before; then it goes off."""
    viewer.join().command(bench.setting("video_bitrate", 2222))
    machine.wait("grep -q video_bitrate=2222 /run/tervado.conf")
    first = machine.run("cat /proc/sys/kernel/random/boot_id")
    viewer.command('{"cmd":"reboot"}')
    machine.wait_agent()
    assert machine.run("cat /proc/sys/kernel/random/boot_id") != first
    assert bench.bitrate_after_start(machine) == 2222
    viewer.join().command('{"cmd":"shutdown"}')
    # By itself, in a minute, as shutdown says.
    machine.wait("test -e /run/systemd/shutdown/scheduled")
    machine.wait_off(200)
    assert bench.bitrate_on(own_card) == 2222
    assert own_card.check()[0] == 0
