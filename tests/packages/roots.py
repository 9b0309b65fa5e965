"""Roots of the boards' systems: folders with a small Debian of their architecture, made by
mmdebstrap and kept for the next time. What a test does to one is gone with the test."""

import concurrent.futures
import hashlib
import os
import pathlib
import shutil
import subprocess
import sys

SUITE = "bookworm"
MIRROR = "http://deb.debian.org/debian"
HOST = subprocess.run(["dpkg", "--print-architecture"], check=True, capture_output=True,
                      text=True).stdout.strip()

# What the packages depend on, and what tells whether they fit: installed with the root, as the
# tests have no network.
INSTALLED = ("init-system-helpers systemd nftables mount psmisc libcjson1 libinih1 libstdc++6 libssl3"
             " libcrypt1 libpcap0.8 libncursesw6").split()
ESSENTIAL = ("base-files base-passwd bash coreutils dash debianutils diffutils dpkg findutils grep gzip"
             " hostname libc-bin mawk perl-base sed tar util-linux usr-is-merged").split()
# The machine's own is set up as a board's is, and can be booted.
VARIANTS = {architecture: ("extract", [*ESSENTIAL, *INSTALLED]) for architecture in ("arm64", "armhf")}
VARIANTS[HOST] = ("apt", INSTALLED)
# With what install/examples wants beside the packages.
ENGINES = "ffmpeg janus nginx libnginx-mod-rtmp".split()
VARIANTS["arm64+engines"] = ("extract", [*ESSENTIAL, *INSTALLED, *ENGINES])
# For a processor that Debian's port with a floating-point unit does not run on: the oldest port.
VARIANTS["armel"] = ("extract", ESSENTIAL)

HERE = pathlib.Path(__file__).resolve().parent
HOOKS = {
    "apt": [],
    "extract": ["--hook-directory=/usr/share/mmdebstrap/hooks/merged-usr",
                f"--extract-hook={HERE}/as-installed"],
}


def base(folder, name):
    """The folder of the root as it was made. `name` is an architecture, or one "+engines"."""
    variant, include = VARIANTS[name]
    key = hashlib.sha256(" ".join([SUITE, variant, *include, *HOOKS[variant]]).encode()).hexdigest()[:8]
    return pathlib.Path(folder) / f"{name}-{key}"


def make(folder, name):
    """Makes the root, unless it is there."""
    root = base(folder, name)
    if root.exists():
        return
    variant, include = VARIANTS[name]
    archive, partial = (root.with_suffix(end) for end in (".tar", ".part"))
    subprocess.run(["mmdebstrap", "--quiet", "--mode=root", f"--variant={variant}", *HOOKS[variant],
                    f"--architectures={name.partition('+')[0]}", f"--include={','.join(include)}", SUITE,
                    archive, f"deb {MIRROR} {SUITE} main"], check=True, stdout=subprocess.DEVNULL)
    shutil.rmtree(partial, ignore_errors=True)
    partial.mkdir()
    subprocess.run(["tar", "-C", partial, "-xf", archive, "--exclude=./dev/*"], check=True)
    archive.unlink()
    partial.rename(root)
    print(f"test-packages: made a root for {name}", flush=True)


def mount(*arguments):
    subprocess.run(["mount", *map(str, arguments)], check=True)


class Root:
    """A root that can be written into, with devices and processes as a program expects them."""

    def __init__(self, lower, folder):
        self.path = folder / "root"
        self._folder = folder
        folder.mkdir()
        mount("-t", "tmpfs", "root", folder)
        for name in ("upper", "work", "root"):
            (folder / name).mkdir()
        mount("-t", "overlay", "-o",
              f"lowerdir={lower},upperdir={folder}/upper,workdir={folder}/work", "root", self.path)
        mount("-t", "proc", "proc", self.path / "proc")
        mount("-t", "tmpfs", "-o", "mode=755", "dev", self.path / "dev")
        mount("-t", "tmpfs", "-o", "mode=755", "run", self.path / "run")
        (self.path / "dev/shm").mkdir()
        (self.path / "dev/shm").chmod(0o1777)
        for name in ("null", "zero", "full", "random", "urandom", "tty"):
            (self.path / "dev" / name).touch()
            mount("--bind", f"/dev/{name}", self.path / "dev" / name)

    def run(self, *command, environment=None):
        """Its output with its errors."""
        path = "/usr/sbin:/usr/bin:/sbin:/bin"
        return subprocess.run(
            ["chroot", self.path, *map(str, command)], text=True, stdout=subprocess.PIPE,
            stdin=subprocess.DEVNULL, stderr=subprocess.STDOUT, timeout=300,
            env={"PATH": path, "HOME": "/root", "LC_ALL": "C", "DEBIAN_FRONTEND": "noninteractive",
                 **(environment or {})})

    def succeed(self, *command):
        result = self.run(*command)
        assert result.returncode == 0, result.stdout
        return result.stdout

    def bring(self, *files):
        """Copies files into the root; returns their names there."""
        for file in files:
            shutil.copy(file, self.path / "tmp")
        return [f"/tmp/{pathlib.Path(file).name}" for file in files]

    def dpkg(self, *arguments):
        return self.succeed("dpkg", *arguments)

    def state(self, name):
        """What dpkg knows of a package, and its version."""
        result = self.run("dpkg-query", "-W", "-f", "${db:Status-Status} ${Version}", name)
        return result.stdout if result.returncode == 0 else "unknown"

    def exists(self, name):
        return os.path.lexists(self.path / name)

    def close(self):
        subprocess.run(["umount", "--recursive", "--lazy", self._folder], check=True)


if __name__ == "__main__":
    target = pathlib.Path(sys.argv[1]).resolve()
    target.mkdir(parents=True, exist_ok=True)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        list(pool.map(lambda name: make(target, name), VARIANTS))
