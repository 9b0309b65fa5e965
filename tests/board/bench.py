"""What the tests of whole boards do again and again: install, wait, look, save."""

import contextlib
import json
import pathlib
import re
import shutil
import subprocess

from harness.udp import VIEWER_PORT
from harness.viewer import Viewer
from machine import BOARD, HOSTS, make_tap, wait_until

NAME = "tervado-nimbus.conf"
# What the installation may leave beside it: a new content on its way, and the last good copy.
BESIDE = {f"{name}{end}" for name in (NAME, NAME + ".good", "config.txt") for end in ("", ".new")}
CARD_FILES = [("config.txt", b"# firmware\r\n[all]\r\ngpu_mem=128\r\n")]
DEFAULTS = (pathlib.Path(__file__).resolve().parents[2] / "install" / NAME).read_bytes()


def with_bitrate(rate):
    """The file of defaults with another bit rate."""
    return DEFAULTS.replace(b"video_bitrate=2000000", f"video_bitrate={rate}".encode())


OLD = with_bitrate(1111)


def without_cr(data):
    return data.replace(b"\r\n", b"\n")


def bitrate_in(settings):
    """The bit rate in a file of settings, which is whole."""
    settings = without_cr(settings)
    assert settings.rstrip().endswith(b"internal_camera_fullscreen=0"), settings
    return int(re.search(rb"^video_bitrate=(\d+)$", settings, re.MULTILINE)[1])


def bitrate_on(card):
    return bitrate_in(card.read(NAME))


def bitrate_after_start(machine, seconds=200):
    """The bit rate that the service has been started with."""
    wait_service(machine, seconds)
    return int(machine.run("sed -n 's/^video_bitrate=//p' /run/tervado.conf"))


def asked_for_nobody(machine):
    """Whether the boot needs nobody who types something."""
    return machine.ask("systemctl is-active emergency.service rescue.service")[1].split() == \
        ["inactive", "inactive"]


def setting(name, value):
    return json.dumps({"cmd": "updateparam", "name": name, "value": str(value)})


class BoardViewer(Viewer):
    """A viewer in the sandbox, of a service on the board."""

    def __init__(self, host=0, port=0):
        make_tap()
        super().__init__(HOSTS[host], port)

    def send_raw(self, data, port=VIEWER_PORT):
        with contextlib.suppress(OSError):  # the board is off at the moment
            self.socket.sendto(data, (BOARD, port))

    def settings(self):
        """The configuration report."""
        start = len(self.frames)
        self.command('{"cmd":"configrequest"}')
        return json.loads(self.wait(lambda frame: frame.payload[:1] == b"{", 60, "a report",
                                    start).payload)

    def wait_video(self, seconds=200):
        """Registers until a picture has come: the moment of its first datagram."""
        began = len(self.frames)

        def seen():
            self.register()
            return next((frame for frame in self.frames[began:] if frame.video), None)

        return wait_until(seen, seconds, "a picture").time

    def join(self):
        """Registers until the service answers."""
        start = len(self.frames)

        def heard():
            self.register()
            return any(frame.payload[:1] == b"\x0b" for frame in self.frames[start:])

        wait_until(heard, 60, "the service's status")
        return self


def older_packages(luggage):
    """Puts the same packages beside them, as a former build: the revision is lower."""
    older = luggage / "older"
    older.mkdir()
    for package in luggage.glob("nimbus*.deb"):
        root = luggage / "root"
        subprocess.run(["dpkg-deb", "-R", package, root], check=True)
        control = root / "DEBIAN" / "control"
        control.write_text(re.sub(r"(?m)^(Version: [^-]*)-.*", r"\1-2020", control.read_text()))
        subprocess.run(["dpkg-deb", "-b", "--root-owner-group", root, older], check=True,
                       capture_output=True)
        shutil.rmtree(root)


LUGGAGE = "mkdir -p /mnt/luggage; mountpoint -q /mnt/luggage || " \
          "mount -o ro /dev/disk/by-id/virtio-luggage /mnt/luggage"
APT = "DEBIAN_FRONTEND=noninteractive apt-get -qq -y"


def install(machine, what="/mnt/luggage/nimbus*.deb"):
    machine.wait("systemctl is-active multi-user.target", 200)
    machine.run(f"{LUGGAGE}; mkdir -p /var/lib/board; cp /mnt/luggage/video.h264 /var/lib/board/")
    return machine.run(f"{APT} install {what}", 300)


def start_siblings(machine):
    """They are there from the boot on, but for one in which the service was not installed yet."""
    machine.run("systemctl start multi-user.target", 120)
    machine.run("systemctl is-active board-sibling@usb-receiver")


def wait_service(machine, seconds=120):
    """Waits until systemd has heard from the service that it is ready."""
    machine.wait("systemctl is-active nimbus.service", seconds, "the service's READY")


def wait_restarted(machine, before, seconds=60):
    """Waits for another process of the service than that, which is ready."""
    machine.wait(f"p=$(systemctl show -p MainPID --value nimbus); test $p != {before} -a $p != 0"
                 " && systemctl is-active nimbus", seconds, "another service")


def service_pid(machine):
    return int(machine.run("systemctl show -p MainPID --value nimbus.service"))


def journal(machine, since="", unit="nimbus"):
    return machine.run(f"journalctl -o cat -b -u {unit} {since}")


def file_on_card(machine):
    """What the settings' file holds, by whatever way the service sees it."""
    return machine.run(f"cat /boot/{NAME}").encode()
