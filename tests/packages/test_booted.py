"""A board that has been switched on: systemd with the real units and the kernel's filter, in a root of
the machine's architecture with processes and a network of its own. Nothing of it is emulated but the
hardware."""

import os
import pathlib
import subprocess
import time

import pytest

import roots

TABLE = "table ip nimbus {"


class Board:
    """A root with systemd as its first process."""

    def __init__(self, root):
        self.root = root
        for folder in ("sys/fs/cgroup", "sys"):
            (root.path / folder).mkdir(parents=True, exist_ok=True)
        roots.mount("-t", "sysfs", "sys", root.path / "sys")
        roots.mount("-t", "tmpfs", "-o", "mode=755", "cgroup", root.path / "sys/fs/cgroup")
        group = root.path / "sys/fs/cgroup/systemd"
        group.mkdir()
        roots.mount("-t", "cgroup", "-o", "none,name=systemd", "systemd", group)
        self.console = root.path.parent / "console"
        self.console.touch()
        (root.path / "dev/console").touch()
        roots.mount("--bind", self.console, root.path / "dev/console")
        roots.mount("-t", "tmpfs", "tmp", root.path / "tmp")
        self._process = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--ipc", "--uts", "--net", "--cgroup", "--fork",
             "--kill-child", "--", "sh", "-c",
             'mount -t proc proc "$1/proc" && ip link set lo up && exec env -i container=board '
             'PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$1" /lib/systemd/systemd '
             "--unit=multi-user.target --log-target=console", "sh", str(root.path)],
            stdin=subprocess.DEVNULL)
        self._first = None
        self.wait(lambda: self.run("systemctl", "is-system-running").stdout.strip() in (
            "running", "degraded"), "the start of the board")

    def first_process(self):
        """Of the root, as this side numbers it."""
        if self._first is None:
            children = pathlib.Path(f"/proc/{self._process.pid}/task/{self._process.pid}/children")
            numbers = children.read_text().split()
            self._first = numbers[0] if numbers else None
        return self._first

    def run(self, *command):
        return subprocess.run(
            ["nsenter", f"--target={self.first_process() or self._process.pid}", "--all", "--root",
             "--wd", "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", *map(str, command)],
            text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            timeout=120)

    def succeed(self, *command):
        result = self.run(*command)
        assert result.returncode == 0, (command, result.stdout)
        return result.stdout

    def active(self, unit):
        return self.run("systemctl", "is-active", unit).stdout.strip()

    def filtering(self):
        return TABLE in self.run("nft", "list", "ruleset").stdout

    def wait(self, condition, what, seconds=60):
        deadline = time.monotonic() + seconds
        while not condition():
            assert time.monotonic() < deadline, f"no {what}; the console: {self.console.read_text()}"
            assert self._process.poll() is None, "the board has ended"
            time.sleep(0.1)

    def running(self):
        self.wait(lambda: self.active("nimbus") == "active", "running service")

    def close(self):
        self._process.kill()
        self._process.wait()


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


def test_filter_goes_with_the_service(board):
    board.running()
    board.succeed("systemctl", "stop", "nimbus")
    assert not board.filtering()
    board.succeed("systemctl", "restart", "nftables")
    assert not board.filtering()
    board.succeed("systemctl", "start", "nimbus")
    assert board.filtering()


def test_filter_that_its_owner_has_switched_off_stays_off(board):
    board.running()
    board.succeed("systemctl", "disable", "--now", "nimbus-filter")
    for unit in ("nftables", "nimbus"):
        board.succeed("systemctl", "restart", unit)
        assert not board.filtering()


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
