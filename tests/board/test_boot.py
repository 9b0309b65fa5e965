"""From power on to the first picture, and boots of every layout of the card."""

import time

import bench
import pytest

# What has happened by when: a name, the unit, and the property that has the board's time.
STAMPS = (
    ("kernel", "", "UserspaceTimestampMonotonic"),
    ("system and card", "boot-firmware.mount", "ActiveEnterTimestampMonotonic"),
    ("to the start step", "nimbus.service", "InactiveExitTimestampMonotonic"),
    ("start step", "nimbus.service", "ExecMainStartTimestampMonotonic"),
    ("start of the service", "nimbus.service", "ActiveEnterTimestampMonotonic"),
)


def parts_of_a_boot(machine):
    """How long each part of the boot took, in seconds, and the time of its end."""
    parts, before = {}, 0.0
    for name, unit, what in STAMPS:
        now = int(machine.run(f"systemctl show -p {what} --value {unit}")) / 1e6
        parts[name], before = now - before, now
    return parts, before


def test_from_power_on_to_the_first_picture(boards, disk, card, viewer, figures):
    """On a board that has no clock, as none has."""
    machine = boards(disk, card=card, clock="1970-01-01T00:00:10")
    picture = viewer.wait_video() - machine.began
    machine.wait_agent()
    parts, ready = parts_of_a_boot(machine)
    uptime = float(machine.run("cat /proc/uptime").split()[0])
    kernel_began = time.monotonic() - machine.began - uptime
    parts = {"before the kernel": kernel_began, **parts,
             "to the first picture": picture - kernel_began - ready, "all": picture}
    figures["from power on to the first picture, s"] = {name: round(value, 1)
                                                        for name, value in parts.items()}
    assert min(parts.values()) > -1
    assert viewer.join().settings()["vbitrate"] == 1111
    # The board learns the time.
    before = bench.service_pid(machine)
    machine.run("date -s 2026-11-21")
    viewer.keep_alive()
    viewer.wait_video(20)
    assert bench.service_pid(machine) == before


# --- The card ------------------------------------------------------------------------------------


@pytest.mark.long
@pytest.mark.parametrize("layout", ["firmware-uid", "boot"])
def test_layouts(boot, card, viewer, layout):
    """Each starts with the card's settings, and saves there."""
    machine = boot(layout, card)
    assert bench.bitrate_after_start(machine) == 1111
    viewer.join().command(bench.setting("video_bitrate", 2222))
    machine.wait("grep -q video_bitrate=2222 /run/tervado.conf")
    machine.switch_off()
    assert bench.bitrate_on(card) == 2222
    assert card.check()[0] == 0
