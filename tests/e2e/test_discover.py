"""Boards that announce themselves, by avahi-daemon and the file of the package: what nimbusctl
finds, and when it takes the only one."""

import json
import os
import pathlib
import pty
import shutil
import subprocess
import textwrap

import pytest

from harness.console import Console
from harness.making import making
from harness.service import EMULATOR, Service
from harness.timing import limit

ANNOUNCEMENT = pathlib.Path(__file__).parents[2] / "install/nimbus.avahi"

# It asks for no D-Bus, and its folders are its own, so that there may be several. By its path,
# mount is the system's and not the stand-in of the sandbox.
CONFIGURATION = """\
[server]
host-name={name}
use-ipv6=no
enable-dbus=no
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
"""
START = """
set -e
mkdir -p /run/avahi-daemon
/usr/bin/mount -t tmpfs none /run/avahi-daemon
/usr/bin/mount --bind "$1" /etc/avahi/services
exec avahi-daemon --no-drop-root --no-chroot --no-rlimits -f "$2"
"""


class FarBoard:
    """A host at the far end of link 1, 2, ... that announces what the package says."""

    def __init__(self, number, link, name, folder):
        configuration = folder / f"{name}.conf"
        configuration.write_text(CONFIGURATION.format(name=name))
        services = folder / "services"
        services.mkdir(exist_ok=True)
        shutil.copy(ANNOUNCEMENT, services / "nimbus.service")
        self.there = ("ip", "netns", "exec", f"far{number}")
        self.daemon = subprocess.Popen(
            [*self.there, "unshare", "--mount", "sh", "-c", START, "sh", services, configuration],
            stderr=subprocess.PIPE)
        self.console = Console(self.daemon.stderr)
        self.line = f"{link.far}:4242  Tervado Nimbus on {name} ({name}.local)"

    def close(self):
        self.daemon.kill()
        self.daemon.wait()


@pytest.fixture
def boards(links, tmp_path):
    """boards(NUMBER, NAME) makes a FarBoard, which is announced."""
    with making(FarBoard) as make:

        def announce(number, name):
            board = make(number, links(number), name, tmp_path)
            board.console.wait("successfully established", 20)
            return board

        yield announce


@pytest.fixture
def ctl(build):
    def run(*arguments):
        return subprocess.run([*EMULATOR, build / "nimbusctl", *arguments],
                              capture_output=True, text=True, timeout=limit(20), check=False)

    return run


def test_lists_boards(ctl, boards):
    lines = [boards(1, "mast").line, boards(2, "tower").line]
    done = ctl("discover", "--seconds", str(limit(1)))
    assert (done.returncode, done.stdout.splitlines(), done.stderr) == (0, lines, "")
    objects = [json.loads(line) for line in
               ctl("discover", "--json", "--seconds", str(limit(1))).stdout.splitlines()]
    assert objects == [
        {"name": f"Tervado Nimbus on {name}", "host": f"{name}.local", "address": address, "port": 4242}
        for name, address in (("mast", "10.7.1.2"), ("tower", "10.7.2.2"))]
    # Without one on this machine nimbusctl asks which.
    done = ctl("--timeout", "0.3s", "iso", "400")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == (
        "nimbusctl: no service on this machine, and several on the network: "
        "10.7.1.2:4242 (Tervado Nimbus on mast), 10.7.2.2:4242 (Tervado Nimbus on tower); "
        "expected --host with one of them\n")


def test_takes_the_only_one(build, ctl, boards, tmp_path):
    board = boards(1, "mast")
    service = Service(build / "nimbus", tmp_path, "", wrapper=board.there)
    try:
        done = ctl("--timeout", f"{limit(2)}s", "config")
        assert done.returncode == 0 and "video_bitrate" in done.stdout
        assert done.stderr == ("nimbusctl: no service on this machine; taking 10.7.1.2:4242 "
                               "(Tervado Nimbus on mast)\n")
        # Who says where does not get another.
        for where in (("--host", "127.0.0.1"), ("--port", "4242")):
            done = ctl(*where, "--timeout", "0.3s", "config")
            assert done.returncode == 1
            assert done.stderr.startswith("nimbusctl: nobody answers at 127.0.0.1:4242 within 0.3 s")
    finally:
        service.stop()


def test_top_names_the_one_that_was_taken(build, boards, tmp_path):
    board = boards(1, "mast")
    service = Service(build / "nimbus", tmp_path, "", wrapper=board.there)
    near, far = pty.openpty()
    try:
        subprocess.run([*EMULATOR, build / "nimbusctl", "--timeout", f"{limit(2)}s", "top",
                        "--seconds", "0.3"], stdin=far, stdout=far, stderr=subprocess.DEVNULL,
                       env={**os.environ, "TERM": "xterm"}, timeout=limit(20), check=True)
        shown = os.read(near, 65536)
        assert b" at 10.7.1.2:4242" in shown and b"127.0.0.1" not in shown
    finally:
        service.stop()
        os.close(near)
        os.close(far)


def test_service_of_this_machine_comes_first(ctl, boards, service):
    boards(1, "mast")
    done = ctl("--timeout", f"{limit(2)}s", "config")
    assert (done.returncode, done.stderr) == (0, "")


def test_nobody_there(ctl, links):
    line = ("nimbusctl: no board answers; expected one on this network whose avahi-daemon announces "
            "it\n")
    done = ctl("discover")
    assert (done.returncode, done.stdout, done.stderr) == (1, "", line)
    links(1)
    done = ctl("discover", "--seconds", "0.3s")
    assert (done.returncode, done.stdout, done.stderr) == (1, "", line)


def test_foreign_answers(ctl, links, processes):
    """Damaged ones, answers to somebody else, from another port: silence. A name cannot steer a
    terminal."""
    script = textwrap.dedent("""
        import socket, struct, sys
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.bind(("", 5353))
        s.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                     socket.inet_aton("224.0.0.251") + socket.inet_aton("10.7.1.2"))
        other = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        print("ready", file=sys.stderr, flush=True)
        while True:
            query, asker = s.recvfrom(9000)
            def answer(number, name):
                pointer = bytes([len(name)]) + name + b"\\xc0\\x0c"
                server = b"\\xc0\\x30" + struct.pack(">HHIH", 33, 1, 9, 11) + bytes(4)
                return (query[:2] + b"\\x84\\0\\0\\1\\0\\1\\0\\0\\0\\1" + query[12:] + b"\\xc0\\x0c"
                        + struct.pack(">HHIH", 12, 1, 9, len(pointer)) + pointer
                        + server + struct.pack(">H", number) + b"\\2pi\\xc0\\x19")
            good = answer(4242, b"\\x1b[2J\\nboard")
            s.sendto(good[:-1], asker)
            s.sendto(bytes([good[0] ^ 1]) + answer(1, b"not asked")[1:], asker)
            other.sendto(answer(2, b"other port"), asker)
            s.sendto(b"", asker)
            s.sendto(good, asker)
        """)
    links(1)
    responder = processes(["ip", "netns", "exec", "far1", "python3", "-c", script],
                          stderr=subprocess.PIPE)
    Console(responder.stderr).wait("ready", 10)
    done = ctl("discover", "--seconds", str(limit(0.5)))
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == "10.7.1.2:4242  ?[2J?board (pi.local)\n"
