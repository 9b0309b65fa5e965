"""From power on to the first picture, and boots whose card is late, absent, full or broken."""

import time

import bench
import pytest
from card import Card
from held import LAYOUTS

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
    asked = time.monotonic()
    uptime = float(machine.run("cat /proc/uptime").split()[0])
    kernel_began = (asked + time.monotonic()) / 2 - machine.began - uptime
    parts = {"before the kernel": kernel_began, **parts,
             "to the first picture": picture - kernel_began - ready, "all": picture}
    figures["from power on to the first picture, s"] = {name: round(value, 1)
                                                        for name, value in parts.items()}
    assert min(parts.values()) > -1
    assert viewer.join().settings()["vbitrate"] == 1111
    # The board, whose systemd began with the day of its own making, learns the time.
    assert int(machine.run("date +%s")) < time.time() - 3600
    before = bench.service_pid(machine)
    machine.run(f"date -s @{time.time():.0f}")
    viewer.keep_alive()
    viewer.wait_video(20)
    assert bench.service_pid(machine) == before


# --- The card ------------------------------------------------------------------------------------


@pytest.mark.long
@pytest.mark.parametrize("layout", ["firmware-uid", "boot", "boot-ro", "boot-uid"])
def test_layouts(boot, card, viewer, layout):
    """Each starts with the card's settings, saves there, and has the card mounted as before."""
    machine = boot(layout, card)
    assert bench.bitrate_after_start(machine) == 1111
    mounted = f"findmnt -no OPTIONS {LAYOUTS[layout][0]}"
    before = machine.run(mounted).strip()
    viewer.join().command(bench.setting("video_bitrate", 2222))
    machine.wait("grep -q video_bitrate=2222 /run/tervado.conf")
    machine.wait(f"[ $({mounted}) = {before} ]")
    machine.switch_off()
    assert bench.bitrate_on(card) == 2222
    assert card.check()[0] == 0


def save_in_vain(machine, viewer, card):
    """A save that the card does not take: the change holds until the next start."""
    assert bench.bitrate_after_start(machine) == 1111
    viewer.join().command(bench.setting("video_bitrate", 2222))
    machine.wait("journalctl -o cat -b -u nimbus | grep 'Save config' && sleep 1")
    assert viewer.settings()["vbitrate"] == 2222
    machine.switch_off()
    assert bench.bitrate_on(card) == 1111


@pytest.mark.long
def test_card_that_cannot_be_written(boot, card, viewer):
    """At /boot/firmware nobody makes it writable."""
    save_in_vain(boot("firmware-ro", card), viewer, card)


CARD_DRIVER = """card=$(basename $(readlink -f /sys/block/vdb/device))
[ $(cat /sys/block/vdb/serial) = card ] && echo $card >/run/card-was
echo $(cat /run/card-was) >/sys/bus/virtio/drivers/virtio_blk/"""


def pull_out(machine):
    """The card is gone from its slot."""
    machine.run(f"{CARD_DRIVER}unbind")
    machine.wait("! [ -e /dev/vdb ]")


def put_in(machine):
    machine.run("cat /run/card-was >/sys/bus/virtio/drivers/virtio_blk/bind")
    machine.wait("[ -e /dev/disk/by-partuuid/ca4d0001-01 ]")


def test_card_absent_and_late(boot, card):
    """It is in fstab with nofail, as is right for a board that shall start without it. It is there
    a while after the board looked for it: the next start has its settings."""
    machine = boot("firmware", card, hold=True)
    pull_out(machine)
    machine.go()
    assert bench.bitrate_after_start(machine) == 2000000
    assert "the card cannot be mounted" in bench.journal(machine)
    assert bench.asked_for_nobody(machine)
    put_in(machine)
    machine.run("systemctl restart nimbus.service", 120)
    assert bench.bitrate_after_start(machine) == 1111


def fill(card):
    """Leaves no cluster free."""
    card.write("filler", bytes(card.free()))
    assert card.free() == 0 and card.check()[0] == 0


@pytest.mark.long
def test_card_full_and_without_settings(boot, work):
    card = Card(work / "full.img").create(files=bench.CARD_FILES)
    fill(card)
    machine = boot("firmware", card)
    assert bench.bitrate_after_start(machine) == 2000000
    assert "cannot be written" in bench.journal(machine)


@pytest.mark.long
def test_card_full_and_a_save(boot, card, viewer):
    """The old settings stay whole on the card."""
    fill(card)
    save_in_vain(boot("firmware", card), viewer, card)
    assert card.read("config.txt") == bench.CARD_FILES[0][1]
    assert set(card.names()) <= bench.BESIDE | {"filler"}
    assert card.check()[0] == 0


def test_card_broken(boot, card):
    """A file system that is none any more, in the boot's own check: the defaults."""
    card.spoil(range(2000))
    machine = boot("firmware", card)
    assert bench.bitrate_after_start(machine) == 2000000
    assert bench.asked_for_nobody(machine)


@pytest.mark.long
def test_card_repaired_in_the_boot(boot, card):
    """One copy of the FAT is spoilt: the check of the boot repairs it, the settings are there."""
    reserved = 32
    card.spoil(range(reserved + 1, reserved + 4), b"\xff")
    assert card.check()[0] != 0
    machine = boot("firmware", card)
    assert bench.bitrate_after_start(machine) == 1111
    assert bench.asked_for_nobody(machine)
    machine.switch_off()
    assert card.check()[0] == 0


@pytest.mark.long
def test_card_that_the_boot_does_not_wait_for(boot, card):
    """With nofail, local-fs.target is reached without the card; the service waits for it all the
    same, so that nobody mounts it while it is being checked."""
    machine = boot("firmware", card)
    assert bench.bitrate_after_start(machine) == 1111
    mounted, starting = (
        int(machine.run(f"systemctl show -p {what} --value {unit}"))
        for what, unit in (("ActiveEnterTimestampMonotonic", "boot-firmware.mount"),
                           ("InactiveExitTimestampMonotonic", "nimbus.service")))
    assert 0 < mounted <= starting
