"""The units of install/examples on a machine that has been switched on, with Debian's engines: this
machine's own programs and libraries, in a root that is gone with the test."""

import json
import pathlib
import shutil
import sysconfig
import time

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


def bring_examples(root):
    """To where the units want them."""
    shutil.copytree(EXAMPLES / "janus", root.path / "etc/nimbus/janus", dirs_exist_ok=True)
    engine = root.path / "etc/nimbus/janus/janus.jcfg"
    engine.write_text(engine.read_text().replace("@TRIPLET@", sysconfig.get_config_var("MULTIARCH")))
    shutil.copy(EXAMPLES / "nginx-hls.conf", root.path / "etc/nimbus")
    for unit in UNITS:
        shutil.copy(EXAMPLES / unit, root.path / "etc/systemd/system")


@pytest.fixture
def machine(packages_of, tmp_path):
    """It starts nothing by itself."""
    root = roots.Root("/", tmp_path / "machine")
    root.dpkg("-i", *root.bring(*packages_of(roots.HOST).all()))
    bring_examples(root)
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
    assert machine.active("janus") == "inactive" and machine.active("nimbus-janus") == "active"
    info = json.loads(machine.succeed("python3", "-c", FETCH, "http://127.0.0.1:8188/janus/info"))
    assert list(info["plugins"]) == ["janus.plugin.streaming"]
    assert "5004" in machine.succeed("ss", "-lun")
