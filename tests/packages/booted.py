"""A machine that has been switched on: systemd with real units and the kernel's filter, in a root
of the machine's architecture with processes and a network of its own."""

import pathlib
import subprocess
import time

import roots

TABLE = "table ip nimbus {"


class Board:
    """A root with systemd as its first process."""

    def __init__(self, root, target="multi-user.target"):
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
             f"--unit={target} --log-target=console", "sh", str(root.path)],
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
