"""A board that has been switched on: systemd with the real units and the kernel's filter, in a root
of the machine's architecture with processes and a network of its own. Nothing of it is emulated but
the hardware."""

import os
import pathlib
import re
import time

import pytest

import roots
from booted import Board

MANUAL = pathlib.Path(__file__).parents[2] / "docs/operations.md"


@pytest.fixture
def board(fresh_root, packages_of):
    """A board on whose card the packages were installed before its first start."""
    root = fresh_root(roots.HOST)
    root.dpkg("-i", *root.bring(*packages_of(roots.HOST).all()))
    one = Board(root)
    yield one
    one.close()


REGIONS = ("/dev/shm/hud_mem 2672 600 root\n"
           "/dev/shm/config_mem 2336 600 root\n")


def regions(board):
    return board.succeed("stat", "-c", "%n %s %a %U", "/dev/shm/hud_mem", "/dev/shm/config_mem")


def test_first_start(board):
    board.running()
    assert board.active("nimbus-filter") == "active" and board.filtering()
    assert regions(board) == REGIONS
    assert "hdmi_enabled" in board.succeed("nimbusctl", "config")


def test_regions_are_made_by_the_start_of_the_board(board):
    """Before anybody else could make them."""
    board.succeed("systemctl", "stop", "nimbus")
    board.succeed("rm", "/dev/shm/hud_mem", "/dev/shm/config_mem")
    board.succeed("systemd-tmpfiles", "--create", "--remove", "--boot", "--prefix=/dev/shm")
    assert regions(board) == REGIONS
    board.succeed("systemctl", "start", "nimbus")
    board.running()
    assert regions(board) == REGIONS


SOON = 5  # seconds


def shown(board, what):
    return int(board.succeed("systemctl", "show", "-p", what, "--value", "nimbus"))


def time_back(board, end):
    """How long it takes from the moment that end(process) tells until systemd has heard of the next
    service that it is ready, in seconds: its pause, the filter and the start step are parts."""
    before = shown(board, "MainPID")
    began = end(before)
    board.wait(lambda: shown(board, "MainPID") not in (0, before), "other service")
    board.running()
    return shown(board, "ActiveEnterTimestampMonotonic") / 1e6 - began


def test_back_soon_after_each_kill(board, times):
    def kill(process):
        began = time.monotonic()
        board.succeed("sh", "-c", f"kill -9 {process}")
        return began

    board.running()
    back = sorted(time_back(board, kill) for _ in range(times(10, 300)))
    print(f"killed {len(back)} times, back within {back[0]:.2f} to {back[-1]:.2f} s, in the middle"
          f" {back[len(back) // 2]:.2f} s")
    assert back[-1] < SOON, back
    assert board.filtering()


def test_back_soon_after_the_watchdogs_bite(board):
    """How long a service may stand still until systemd ends it is not counted."""
    board.running()
    folder = board.root.path / "run/systemd/system/nimbus.service.d"
    folder.mkdir(parents=True)
    (folder / "watchdog.conf").write_text("[Service]\nWatchdogSec=3\n")
    board.succeed("systemctl", "daemon-reload")
    board.succeed("systemctl", "restart", "nimbus")
    board.running()

    def stop(process):
        board.succeed("sh", "-c", f"kill -STOP {process}")
        board.wait(lambda: shown(board, "ExecMainExitTimestampMonotonic"), "end by the watchdog")
        result = board.succeed("systemctl", "show", "-p", "Result", "--value", "nimbus")
        assert result == "watchdog\n"
        return shown(board, "ExecMainExitTimestampMonotonic") / 1e6

    assert 0 < time_back(board, stop) < SOON


def test_filter_stays_through_restarts(board):
    """Six quick ones of the service are more than systemd usually bears."""
    board.running()
    for _ in range(7):
        board.succeed("systemctl", "restart", "nimbus")
    assert board.active("nimbus-filter") == "active" and board.filtering()
    board.running()


def test_filter_stays_through_what_the_systems_own_does(board):
    board.running()
    for action in ("start", "restart", "reload", "stop", "start", "restart", "reload"):
        board.succeed("systemctl", action, "nftables")
        assert board.filtering(), action
        assert board.active("nimbus-filter") == "active"
    # And its rules are there as well.
    assert "table inet filter" in board.succeed("nft", "list", "ruleset")
    board.succeed("nft", "flush", "ruleset")
    board.succeed("systemctl", "restart", "nftables")
    assert board.filtering()


def test_filter_stays_with_a_mistake_in_its_file(board):
    """Its rules are those of before, and nobody is kept from the system's own; also when its unit has
    failed."""
    board.running()
    file = board.root.path / "etc/nimbus/filter.nft"
    whole = file.read_text()
    file.write_text("table ip nimbus {\n")
    board.succeed("nft", "add", "element", "ip", "nimbus", "viewers",
                  "{ 10.99.1.2 limit rate 200/second burst 200 packets }")
    before = rules(board)

    def stay():
        for action in ("restart", "reload", "stop", "start"):
            board.succeed("systemctl", action, "nftables")
            assert rules(board) == before, action
            assert ("table inet filter" in board.succeed("nft", "list", "ruleset")) == (
                action != "stop")

    stay()
    board.succeed("systemctl", "restart", "nimbus")
    board.running()
    assert board.active("nimbus-filter") == "failed"
    assert rules(board) == before
    stay()
    # As the manual says.
    file.write_text(whole)
    board.succeed("systemctl", "restart", "nimbus-filter")
    assert board.active("nimbus-filter") == "active" and rules(board) == before


def rules(board):
    """But for counters, and for who has sent."""
    return [board.succeed("nft", "-s", "list", kind, "ip", "nimbus", name)
            for kind, name in (("chain", "input"), ("set", "networks"))]


def test_filter_goes_with_the_service(board):
    board.running()
    board.succeed("systemctl", "stop", "nimbus")
    board.wait(lambda: not board.filtering(), "end of the filter", 10)
    board.succeed("systemctl", "restart", "nftables")
    assert not board.filtering()
    board.succeed("systemctl", "start", "nimbus")
    assert board.filtering()


def test_noise_of_a_save(board):
    """Where the card is not at /boot: the manual names every line of it."""
    board.running()
    board.succeed("nimbusctl", "config", "set", "video_bitrate", "1234")
    noise = []

    def complete():
        said = board.succeed("journalctl", "-q", "-o", "cat", "-u", "nimbus").splitlines()
        noise[:] = [line.strip() for line in said if "mount" in line]
        return noise and "fstab" in noise[-1]

    board.wait(complete, "save", 120)
    manual = MANUAL.read_text()
    assert [line for line in noise if f"`{line}`" not in manual] == []


def test_journal_on_the_card(board):
    """As the manual says, on an image that would have it in memory even so."""
    path = board.root.path
    vendors = path / "usr/lib/systemd/journald.conf.d/40-volatile.conf"
    vendors.parent.mkdir(exist_ok=True)
    vendors.write_text("[Journal]\nStorage=volatile\n")
    (path / "var/log/journal").mkdir(exist_ok=True)
    text, name = re.search(r"```\n(\[Journal\]\n.*?)```\n\nto `/([^`]+)`, and `systemctl restart "
                           r"systemd-journald`", MANUAL.read_text(), re.DOTALL).groups()

    def starts():
        said = board.run("journalctl", "--directory=/var/log/journal", "--unit=nimbus").stdout
        return said.count("Init control")

    def is_kept():
        board.succeed("systemctl", "restart", "systemd-journald")
        before = starts()
        board.succeed("systemctl", "restart", "nimbus")
        board.running()
        board.succeed("journalctl", "--sync")
        return starts() > before

    assert not is_kept()
    (path / name).parent.mkdir(exist_ok=True)
    (path / name).write_text(text)
    assert is_kept()


def test_filter_that_its_owner_has_switched_off_stays_off(board):
    board.running()
    board.succeed("systemctl", "disable", "--now", "nimbus-filter")
    for unit in ("nftables", "nimbus"):
        board.succeed("systemctl", "restart", unit)
        assert not board.filtering()


def test_removed_console_listens_no_more(board):
    """systemd holds its port."""
    def listens():
        return f":{8080:04X} " in board.succeed("sh", "-c", "cat /proc/net/tcp*")

    board.wait(listens, "open port")
    board.succeed("dpkg", "-r", "nimbus-web")
    assert not listens() and board.active("nimbus-web.socket") == "inactive"


def test_upgrade_removal_and_purge_while_it_runs(board, packages_of, tmp_path):
    board.running()
    packages = packages_of(roots.HOST)
    before = board.succeed("systemctl", "show", "-p", "MainPID", "nimbus")
    later = packages.altered("nimbus", tmp_path, packages.field("nimbus", "Version") + "+1")
    (file,) = board.root.bring(later)
    board.succeed("dpkg", "-i", file)
    board.running()
    assert board.succeed("systemctl", "show", "-p", "MainPID", "nimbus") != before
    assert board.filtering()
    board.succeed("dpkg", "-r", "nimbus")
    assert board.active("nimbus") != "active" and not board.filtering()
    board.succeed("dpkg", "-P", "nimbus")
    assert not os.path.lexists(board.root.path / "run/tervado.conf")
    board.succeed("dpkg", "-i", file)
    board.running()
    assert board.filtering()
