"""The units of install/examples on a machine that has been switched on, with Debian's engines: this
machine's own programs and libraries, in a root that is gone with the test. And on 64-bit ARM,
where they are emulated and systemd is not: each is started as its unit says."""

import json
import os
import pathlib
import shlex
import shutil
import signal
import subprocess
import sysconfig
import time
import urllib.request

import pytest

import roots
from booted import Board

EXAMPLES = pathlib.Path(__file__).parents[2] / "install/examples"
UNITS = sorted(path.name for path in EXAMPLES.glob("*.service"))
RTP = "127.0.0.1:5004"
PLAYLIST = "http://127.0.0.1:8088/camera.m3u8"

FETCH = """
import sys, urllib.request
try:
    with urllib.request.urlopen(sys.argv[1], timeout=5) as answer:
        sys.stdout.write(answer.read().decode())
except OSError as error:
    sys.exit(str(error))
"""


def bring_examples(root, triplet):
    """To where the units want them; Janus' plug-ins lie in the folder of the architecture."""
    shutil.copytree(EXAMPLES / "janus", root.path / "etc/nimbus/janus", dirs_exist_ok=True)
    engine = root.path / "etc/nimbus/janus/janus.jcfg"
    engine.write_text(engine.read_text().replace("@TRIPLET@", triplet))
    shutil.copy(EXAMPLES / "nginx-hls.conf", root.path / "etc/nimbus")
    for unit in UNITS:
        shutil.copy(EXAMPLES / unit, root.path / "etc/systemd/system")


@pytest.fixture
def machine(packages_of, tmp_path):
    """It starts nothing by itself."""
    root = roots.Root("/", tmp_path / "machine")
    root.dpkg("-i", *root.bring(*packages_of(roots.HOST).all()))
    bring_examples(root, sysconfig.get_config_var("MULTIARCH"))
    one = Board(root, "basic.target")
    yield one
    one.close()
    root.close()


@pytest.fixture
def camera(machine):
    """A film of a key picture a second, over and over again, which goes out as RTP. nimbus-web has
    no unit of its own here: the kernel denies what that takes from it to a machine in a machine."""
    machine.succeed("ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=s=320x180:r=25", "-t", "4",
                    "-c:v", "libx264", "-tune", "zerolatency", "-g", "25", "-f", "h264", "/run/film")
    machine.succeed("systemctl", "start", "nimbus")
    machine.succeed("systemd-run", "--unit=console", "nimbus-web", "--listen", "127.0.0.1:8099",
                    "--rtp", RTP, "--sdp", "/etc/nimbus/camera.sdp")
    machine.succeed("systemd-run", "--unit=camera", "nimbus-sim", "--video", "/run/film")
    machine.wait(lambda: machine.root.exists("etc/nimbus/camera.sdp"), "description")


def test_verified(machine):
    assert machine.succeed("systemd-analyze", "verify", "--man=no", *UNITS) == ""


def test_hls(machine, camera):
    """The picture comes to whoever starts first: what brings it waits for nginx, too."""
    machine.succeed("systemctl", "start", "nimbus-hls")
    machine.succeed("systemctl", "start", "nginx-hls")
    machine.wait(lambda: machine.run("python3", "-c", FETCH, PLAYLIST).stdout.count(".ts") >= 3,
                 "playlist")
    segment = machine.succeed("python3", "-c", FETCH, PLAYLIST).split()[-1]
    shown = machine.succeed("ffprobe", "-v", "quiet", "-show_entries", "stream=codec_name,width",
                            "-of", "csv=p=0", PLAYLIST.replace("camera.m3u8", segment))
    assert "h264,320" in shown
    machine.succeed("systemctl", "restart", "nginx-hls")
    machine.wait(lambda: machine.run("python3", "-c", FETCH, PLAYLIST).stdout.count(".ts") >= 3,
                 "playlist after a restart")
    machine.succeed("systemctl", "stop", "camera")
    begun = time.monotonic()
    machine.succeed("systemctl", "stop", "nimbus-hls")
    assert time.monotonic() - begun < 15


def test_janus(machine, camera):
    """It takes the ports from the service of Debian's package."""
    machine.run("systemctl", "start", "janus")
    machine.succeed("systemctl", "start", "nimbus-janus")
    machine.wait(lambda: "Janus" in machine.run("python3", "-c", FETCH,
                                                "http://127.0.0.1:8188/janus/info").stdout, "Janus")
    # Debian's own may not take it well that it is stopped while it starts.
    assert machine.active("janus") in ("inactive", "failed")
    assert machine.active("nimbus-janus") == "active"
    info = json.loads(machine.succeed("python3", "-c", FETCH, "http://127.0.0.1:8188/janus/info"))
    assert list(info["plugins"]) == ["janus.plugin.streaming"]
    assert "5004" in machine.succeed("ss", "-lun")


# --- ARM -----------------------------------------------------------------------------------------

TRIPLETS = {"arm64": "aarch64-linux-gnu"}
FILM = ["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=s=320x180:r=25", "-t", "4", "-c:v",
        "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-g", "25", "-f", "h264"]


class Emulated:
    """An ARM board's system with the packages and the engines."""

    def __init__(self, root, triplet):
        self.root = root
        self._running = {}
        # What the packages' own scripts would have made of libraries that have alternatives.
        folders = "".join(f"/usr/lib/{triplet}/{name}\n" for name in ("blas", "lapack"))
        (root.path / "etc/ld.so.conf.d/alternatives.conf").write_text(folders)
        root.succeed("ldconfig")
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)

    def start(self, *command):
        """From the service's folder, under the program's name."""
        self._running[command[0]] = subprocess.Popen(
            ["chroot", self.root.path, "sh", "-c", 'cd /usr/lib/nimbus && exec "$@"', "sh",
             *map(str, command)], stdin=subprocess.DEVNULL, start_new_session=True,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C"})

    def start_unit(self, name, *more):
        lines = (EXAMPLES / name).read_text().splitlines()
        line = next(line for line in lines if line.startswith("ExecStart="))
        self.start(*shlex.split(line.removeprefix("ExecStart=")), *more)

    def stop(self, program):
        """With the processes that it has made."""
        run = self._running.pop(program)
        os.killpg(run.pid, signal.SIGKILL)
        run.wait()

    def close(self):
        for program in list(self._running):
            self.stop(program)

    def wait(self, condition, what, seconds=120):
        deadline = time.monotonic() + seconds
        while not condition():
            assert time.monotonic() < deadline, f"no {what}"
            ended = [name for name, run in self._running.items() if run.poll() is not None]
            assert not ended, f"{ended} ended before there was a {what}"
            time.sleep(0.2)


@pytest.fixture(params=TRIPLETS)
def arm(request, fresh_root, packages_of):
    root = fresh_root(f"{request.param}+engines")
    root.dpkg("-i", *root.bring(*packages_of(request.param).all()))
    bring_examples(root, TRIPLETS[request.param])
    one = Emulated(root, TRIPLETS[request.param])
    yield one
    one.close()


def fetched(address):
    try:
        with urllib.request.urlopen(address, timeout=20) as answer:
            return answer.read().decode()
    except OSError:
        return ""


def test_on_arm(arm):
    """The picture of the board's own programs comes out of its own engines."""
    assert arm.root.succeed("systemd-analyze", "verify", "--man=no",
                            *(f"/etc/systemd/system/{unit}" for unit in UNITS)) == ""
    subprocess.run([*FILM, arm.root.path / "run/film"], check=True)
    arm.root.succeed("/usr/lib/nimbus/scripts/before-start.sh")
    arm.start("./nimbus")
    arm.start("nimbus-web", "--listen", "127.0.0.1:8099", "--rtp", RTP, "--sdp",
              "/etc/nimbus/camera.sdp")
    arm.start("nimbus-sim", "--video", "/run/film")
    description = arm.root.path / "etc/nimbus/camera.sdp"
    arm.wait(description.exists, "description")

    (arm.root.path / "run/nginx-hls").mkdir()
    arm.start_unit("nginx-hls.service")
    arm.start_unit("nimbus-hls.service")
    arm.wait(lambda: fetched(PLAYLIST).count(".ts") >= 3, "playlist")
    segment = PLAYLIST.replace("camera.m3u8", fetched(PLAYLIST).split()[-1])
    shown = subprocess.run(["ffprobe", "-v", "quiet", "-show_entries", "stream=codec_name,width",
                            "-of", "csv=p=0", segment], check=True, capture_output=True, text=True)
    assert "h264,320" in shown.stdout

    arm.stop("/usr/bin/ffmpeg")
    arm.start_unit("nimbus-janus.service")
    arm.wait(lambda: "Janus" in fetched("http://127.0.0.1:8188/janus/info"), "Janus")
    info = json.loads(fetched("http://127.0.0.1:8188/janus/info"))
    assert list(info["plugins"]) == ["janus.plugin.streaming"]
