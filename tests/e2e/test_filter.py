"""The packet filter, between the board and another host: a second network namespace behind a pair
of virtual interfaces."""

import ctypes
import os
import pathlib
import re
import shlex
import shutil
import socket
import subprocess
import threading

import pytest

from harness.console import events
from harness.timing import limit, wait_until
from harness.udp import DATA_PORT, PORTS, VIDEO_PORT, VIEWER_PORT, udp_socket

INSTALL = pathlib.Path(__file__).resolve().parents[2] / "install"
BOARD, HOSTS = "10.77.0.1", ("10.77.0.2", "10.77.0.3")
# Of the networks for private use and for links, the first and the last but one address; and
# addresses that are next to them.
PRIVATE = ("10.0.0.1", "10.255.255.254", "172.16.0.1", "172.31.255.254", "192.168.0.1",
           "192.168.255.254", "169.254.0.1", "169.254.255.254")
STRANGERS = ("9.255.255.254", "11.0.0.1", "172.15.255.254", "172.32.0.1", "192.167.255.254",
             "192.169.0.1", "169.253.255.254", "169.255.0.1", "203.0.113.7")
SET_SIZE = 4096
WEB_PORT = 8080
CONNECT = """
import socket, sys
own, address, port, seconds = sys.argv[1:]
try:
    socket.create_connection((address, int(port)), float(seconds), (own, 0)).close()
    print("connected", end="")
except TimeoutError:
    pass
"""

REGISTER = b"\x42" + bytes(11) + bytes([0, 0])

pytestmark = pytest.mark.skipif(not shutil.which("nft"), reason="nft is missing")


def run(command):
    return subprocess.run(shlex.split(command), check=True, capture_output=True, text=True).stdout


class Neighbour:
    """Another host, with two addresses."""

    def __init__(self):
        self._process = subprocess.Popen(["unshare", "--net", "cat"], stdin=subprocess.PIPE)
        own = os.readlink("/proc/self/ns/net")
        self.namespace = f"/proc/{self._process.pid}/ns/net"
        wait_until(lambda: os.readlink(self.namespace) != own, 5, "the other host")
        run(f"ip link add board type veth peer name host netns {self._process.pid}")
        run(f"ip addr add {BOARD}/24 dev board")
        run("ip link set board up")
        for address in HOSTS:
            self.run(f"ip addr add {address}/24 dev host")
        self.run("ip link set host up")
        wait_until(lambda: "state UP" in run("ip link show board"), 5, "the link")

    def move(self, address):
        """The other host has that address, too, and the board finds it there."""
        self.run(f"ip addr add {address}/32 dev host")
        run(f"ip route add {address}/32 dev board")
        return self.socket(address)

    def run(self, command):
        return run(f"nsenter --net={self.namespace} {command}")

    def socket(self, host):
        """A socket of the other host: it belongs to where the thread is that makes it."""
        made = []

        def make():
            with open(self.namespace) as namespace:
                assert ctypes.CDLL(None).setns(namespace.fileno(), 0) == 0
            made.append(udp_socket(host))

        thread = threading.Thread(target=make)
        thread.start()
        thread.join()
        made[0].settimeout(limit(5))
        return made[0]

    def close(self):
        run("ip link del board")
        self._process.kill()
        self._process.wait()


@pytest.fixture
def neighbour():
    one = Neighbour()
    yield one
    one.close()


@pytest.fixture
def hosts(neighbour):
    """A socket on each address of the other host."""
    sockets = [neighbour.socket(host) for host in HOSTS]
    yield sockets
    for sock in sockets:
        sock.close()


def command_of_unit(key):
    """What the filter's unit runs, with the file of these sources."""
    unit = (INSTALL / "nimbus-filter.service").read_text().replace("\\\n", " ")
    for line in unit.splitlines():
        if line.startswith(f"{key}="):
            command = line.partition("=")[2].lstrip("-")
            return command.replace("/etc/nimbus/filter.nft", str(INSTALL / "filter.nft"))
    raise AssertionError(f"no {key} in the unit")


@pytest.fixture
def filtering():
    run("nft add table ip another")
    run(command_of_unit("ExecStart"))
    yield
    run("nft flush ruleset")


def found(service, text):
    return text in events(service)


def connected(sock):
    host, port = sock.getsockname()
    return f"New client connected from {host}:{port} "


def test_a_viewer_is_heard(filtering, service, hosts):
    for host in hosts:
        host.sendto(REGISTER, (BOARD, VIEWER_PORT))
        service.err.wait(connected(host))
    assert service.running()


@pytest.mark.parametrize("port", PORTS)
def test_empty_datagram_of_another_host(filtering, service, hosts, port):
    hosts[0].sendto(b"", (BOARD, port))
    hosts[0].sendto(REGISTER, (BOARD, VIEWER_PORT))
    service.err.wait(connected(hosts[0]))
    assert service.running()


@pytest.mark.parametrize("target", ["127.0.0.1", BOARD])
@pytest.mark.parametrize("port", PORTS)
def test_empty_datagram_of_the_board(filtering, neighbour, service, port, target):
    with udp_socket("0.0.0.0") as sender:
        sender.sendto(b"", (target, port))
        sender.sendto(REGISTER, (target, VIEWER_PORT))
        service.err.wait("New client connected")
    assert service.running()


@pytest.mark.parametrize("port", [DATA_PORT, VIDEO_PORT])
def test_forged_source(filtering, service, hosts, port):
    """Only the board's own bridge speaks for the camera."""
    said = {DATA_PORT: "Data found\n", VIDEO_PORT: "Video found\n"}[port]
    hosts[0].sendto(b"\x55" * 100, (BOARD, port))
    hosts[0].sendto(REGISTER, (BOARD, VIEWER_PORT))
    service.err.wait(connected(hosts[0]))
    assert not found(service, said)
    with udp_socket("127.0.0.1") as bridge:
        bridge.sendto(b"\x55" * 100, ("127.0.0.1", port))
        service.err.wait(said)


@pytest.mark.parametrize("target", ["127.0.0.1", BOARD])
def test_bridge_of_the_board(filtering, neighbour, service, target):
    """Under any of the board's addresses."""
    with udp_socket("0.0.0.0") as bridge:
        bridge.sendto(b"\x55" * 100, (target, DATA_PORT))
        bridge.sendto(b"\x55" * 100, (target, VIDEO_PORT))
        service.err.wait("Data found\n")
        service.err.wait("Video found\n")


@pytest.mark.parametrize("address", PRIVATE)
def test_a_viewer_of_a_private_network(filtering, service, neighbour, address):
    with neighbour.move(address) as host:
        host.sendto(REGISTER, (BOARD, VIEWER_PORT))
        service.err.wait(connected(host))


@pytest.mark.parametrize("address", STRANGERS)
def test_a_stranger_is_not_served(filtering, service, neighbour, hosts, address):
    """Whoever forged that address would have the stream sent to it."""
    with neighbour.move(address) as stranger:
        stranger.sendto(REGISTER, (BOARD, VIEWER_PORT))
        hosts[0].sendto(REGISTER, (BOARD, VIEWER_PORT))
        service.err.wait(connected(hosts[0]))
        assert not found(service, connected(stranger))


@pytest.fixture
def console():
    """Stands in for nimbus-web."""
    with socket.create_server(("0.0.0.0", WEB_PORT)) as listening:
        yield listening


def open_console(neighbour, address):
    """Connects from there; says whether the board answered."""
    command = shlex.split(f"nsenter --net={neighbour.namespace} python3 -c")
    result = subprocess.run([*command, CONNECT, address, BOARD, str(WEB_PORT), str(limit(0.5))],
                            check=True, capture_output=True, text=True)
    return result.stdout == "connected"


@pytest.mark.parametrize("address", PRIVATE)
def test_a_browser_of_a_private_network(filtering, console, neighbour, address):
    neighbour.move(address).close()
    assert open_console(neighbour, address)


@pytest.mark.parametrize("address", STRANGERS)
def test_a_strangers_browser_gets_no_answer(filtering, console, neighbour, address):
    neighbour.move(address).close()
    assert not open_console(neighbour, address)
    assert open_console(neighbour, HOSTS[0])


def test_viewers_on_one_interface(service, hosts, tmp_path):
    """The example of the file, once it is no comment any more."""
    example = '# udp dport 4242 iifname != "wlan0" counter drop'
    rules = (INSTALL / "filter.nft").read_text()
    assert rules.count(example) == 1
    file = tmp_path / "filter.nft"
    file.write_text(rules.replace(example, example[2:]))
    try:
        run(f"nft -f {file}")
        hosts[0].sendto(REGISTER, (BOARD, VIEWER_PORT))
        file.write_text(rules.replace(example, example[2:].replace("wlan0", "board")))
        run(f"nft -f {file}")
        hosts[1].sendto(REGISTER, (BOARD, VIEWER_PORT))
        service.err.wait(connected(hosts[1]))
        assert not found(service, connected(hosts[0]))
    finally:
        run("nft flush ruleset")


def dropped_by_limit():
    """How many datagrams the last rule has dropped."""
    words = run("nft list table ip nimbus").split()
    return int(words[len(words) - 1 - words[::-1].index("packets") + 1])


def test_limit_of_a_source(filtering, service, hosts):
    """One that floods the port is cut; another is heard at once, and the first again later."""
    loud, quiet = hosts
    for _ in range(3000):
        loud.sendto(b"\x42", (BOARD, VIEWER_PORT))
    dropped = dropped_by_limit()
    assert dropped > 0
    quiet.sendto(REGISTER, (BOARD, VIEWER_PORT))
    service.err.wait(connected(quiet))
    assert dropped_by_limit() == dropped

    def heard():
        before = dropped_by_limit()
        loud.sendto(REGISTER, (BOARD, VIEWER_PORT))
        return dropped_by_limit() == before

    wait_until(heard, 5, "the end of the limit")
    assert service.running()


def test_too_many_senders(filtering, service, hosts, tmp_path):
    """When nobody else fits into the set, who is in it is heard, and no newcomer."""
    known, newcomer = hosts
    known.sendto(b"\x42", (BOARD, VIEWER_PORT))
    wait_until(lambda: known.getsockname()[0] in run("nft list set ip nimbus viewers"), 2,
               "the known one in the set")
    others = ", ".join(f"10.99.{n // 256}.{n % 256} limit rate 200/second burst 200 packets"
                       for n in range(SET_SIZE - 1))
    file = tmp_path / "full.nft"
    file.write_text(f"add element ip nimbus viewers {{ {others} }}\n")
    run(f"nft -f {file}")
    dropped = dropped_by_limit()
    newcomer.sendto(REGISTER, (BOARD, VIEWER_PORT))
    wait_until(lambda: dropped_by_limit() == dropped + 1, 2, "the newcomer's drop")
    known.sendto(REGISTER, (BOARD, VIEWER_PORT))
    service.err.wait(connected(known))
    assert not found(service, connected(newcomer))


def test_the_board_is_not_limited(filtering, service):
    with udp_socket("127.0.0.1") as sender:
        for _ in range(1000):
            sender.sendto(b"\x42", ("127.0.0.1", VIEWER_PORT))
    assert set(re.findall(r"packets \d+ bytes", run("nft list table ip nimbus"))) == {
        "packets 0 bytes"}


def test_loading_again_and_unloading(filtering):
    """Each load replaces the last, and what others have set up stays."""
    once = run("nft -s list table ip nimbus")
    run(command_of_unit("ExecReload"))
    assert run("nft -s list table ip nimbus") == once
    run(command_of_unit("ExecStop"))
    assert run("nft list tables").split("\n") == ["table ip another", ""]


@pytest.fixture
def system_rules(tmp_path):
    """system_rules(RULES, FILE...) runs the script of nftables.service where /etc/nimbus/filter.nft
    has those rules, and the filter's unit does not run."""
    script, rules, own = tmp_path / "system-rules", tmp_path / "filter.nft", tmp_path / "bin"
    text = (INSTALL / "scripts/system-rules.sh").read_text()
    assert "/etc/nimbus/filter.nft" in text
    script.write_text(text.replace("/etc/nimbus/filter.nft", str(rules)))
    own.mkdir()
    (own / "systemctl").write_text("#!/bin/sh\nexit 3\n")
    (own / "systemctl").chmod(0o755)

    def start(text, *files):
        rules.write_text(text)
        subprocess.run(["sh", script, *files], check=True, capture_output=True,
                       env={**os.environ, "PATH": f"{own}:{os.environ['PATH']}"})

    return start


@pytest.mark.parametrize("rules", [(INSTALL / "filter.nft").read_text(), "table ip nimbus {\n"],
                         ids=["mended", "spoilt"])
def test_rules_whose_unit_has_failed(filtering, system_rules, tmp_path, rules):
    """They come back with the system's own, and without them."""
    system = tmp_path / "nftables.conf"
    system.write_text("flush ruleset\ntable inet system\n")
    once = run("nft -s list table ip nimbus")
    for files, others in (([system], {"table inet system"}), ([], set())):
        system_rules(rules, *files)
        assert run("nft -s list table ip nimbus") == once
        assert set(run("nft list tables").splitlines()) == {"table ip nimbus"} | others


@pytest.mark.parametrize("units, stays", [
    ("nimbus.service nimbus-filter.service", False), ("nimbus-web.service", True)])
def test_removal_takes_rules_whose_unit_has_failed(filtering, tmp_path, units, stays):
    """With their package, and no other."""
    script, stop = tmp_path / "prerm", tmp_path / "deb-systemd-invoke"
    script.write_text((INSTALL / "debian/prerm").read_text().replace("@UNITS@", units))
    stop.write_text("#!/bin/sh\n")
    stop.chmod(0o755)
    systemd = pathlib.Path("/run/systemd/system")
    systemd.mkdir(parents=True)
    try:
        subprocess.run(["sh", script, "remove"], check=True,
                       env={**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"})
    finally:
        systemd.rmdir()
        systemd.parent.rmdir()
    assert ("table ip nimbus" in run("nft list tables")) == stays


def test_rules_that_were_taken_away_on_purpose(filtering, system_rules):
    run(command_of_unit("ExecStop"))
    system_rules((INSTALL / "filter.nft").read_text())
    assert run("nft list tables") == ""
