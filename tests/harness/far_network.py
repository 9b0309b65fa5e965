"""Networks beside the sandbox's own: hosts at the far end of a link that can be made bad."""

import contextlib
import ctypes
import os
import subprocess

from harness.udp import VIEWER_PORT, forge
from harness.viewer import StampedViewer

_CLONE_NEWNET = 0x40000000
_setns = ctypes.CDLL(None, use_errno=True).setns


def run(*command):
    subprocess.run(command, check=True, capture_output=True)


@contextlib.contextmanager
def _inside(path):
    """The calling thread lives in that network: its new sockets belong there for good."""
    own, other = (os.open(place, os.O_RDONLY) for place in ("/proc/thread-self/ns/net", path))
    try:
        assert _setns(other, _CLONE_NEWNET) == 0, os.strerror(ctypes.get_errno())
        try:
            yield
        finally:
            assert _setns(own, _CLONE_NEWNET) == 0
    finally:
        os.close(own)
        os.close(other)


class FarViewer(StampedViewer):
    """A viewer at the far end of a link."""

    def __init__(self, link, host):
        self._service = link.near
        with link.inside():
            super().__init__(host)

    def send_raw(self, data, port=VIEWER_PORT):
        self.socket.sendto(data, (self._service, port))


class Link:
    """Two interfaces that are joined: one here, at 10.7.N.1, the other in a network of its own, at
    10.7.N.2."""

    def __init__(self, number):
        self._name = f"far{number}"
        self.here, self._there = f"here{number}", f"there{number}"
        self.near, self.far = f"10.7.{number}.1", f"10.7.{number}.2"
        run("ip", "netns", "add", self._name)
        run("ip", "link", "add", self.here, "type", "veth", "peer", "name", self._there, "netns",
            self._name)
        run("ip", "address", "add", f"{self.near}/24", "dev", self.here)
        run("ip", "link", "set", self.here, "up")
        self._there_do("ip", "address", "add", f"{self.far}/24", "dev", self._there)
        self._there_do("ip", "link", "set", self._there, "up")

    def _there_do(self, *command):
        run("ip", "netns", "exec", self._name, *command)

    def inside(self):
        return _inside(f"/run/netns/{self._name}")

    def narrow(self, rate, queue):
        """From here on so many bits a second leave here, and so many bytes wait for it."""
        run("tc", "qdisc", "replace", "dev", self.here, "root", "tbf", "rate", rate,
            "burst", "5000", "limit", queue)

    def break_off(self):
        """The far end goes down, and the carrier here with it."""
        self._there_do("ip", "link", "set", self._there, "down")

    def mend(self):
        self._there_do("ip", "link", "set", self._there, "up")

    def register_ghost(self, host, port):
        """Registers a viewer at an address of this network that nobody has: nobody answers there
        when the service asks for it."""
        with self.inside():
            forge((host, port), b"\x42" + bytes(13), host=self.near)

    def close(self):
        run("ip", "link", "delete", self.here)
        run("ip", "netns", "delete", self._name)
