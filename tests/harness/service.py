"""One run of the service: its process and its console. It lives in the sandbox
(tools/sandbox/enter), one at a time."""

import contextlib
import ctypes
import os
import pathlib
import signal
import subprocess
import time

from harness.console import READY, Console
from harness.timing import limit, patience, wait_until
from harness.udp import PORTS, VIDEO_PORT, bound_ports

# What runs a binary of another processor.
EMULATOR = os.environ.get("NIMBUS_EMULATOR", "").split()

# The service's sockets: one for each port, and one to send to each viewer (an emulator cannot).
SOCKETS = len(PORTS) + (0 if EMULATOR else 10)


def write_settings(folder, conf):
    """The configuration file of a service in that folder; None leaves what is there."""
    if conf is not None:
        (folder / "tervado.conf").write_bytes(conf if isinstance(conf, bytes) else conf.encode())


def wait_for_ports():
    """What a service before was about to run when it was killed has its ports until it runs."""
    for _ in patience(5):
        if not bound_ports() & set(PORTS):
            return
        time.sleep(0.002)


class Service:
    """One run of the service. `folder` is its working directory, `wrapper` a command that runs the
    command behind it."""

    def __init__(self, binary, folder, conf=None, env=None, wrapper=(), wait_ready=True, **popen):
        write_settings(folder, conf)
        if wait_ready:
            wait_for_ports()
        self.started = time.monotonic()
        self.process = subprocess.Popen(
            [*wrapper, *EMULATOR, str(binary)], cwd=folder, env={**os.environ, **(env or {})},
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **popen)
        self.out = Console(self.process.stdout)
        self.err = Console(self.process.stderr)
        if wait_ready:
            self._wait_ready()

    def _wait_ready(self):
        try:
            self.err.wait(READY, 10)
        except AssertionError:
            self.kill()
            raise

    @property
    def pid(self):
        return self.process.pid

    def running(self):
        return self.process.poll() is None

    def wait_exit(self, seconds=5):
        """The exit status, once the process has ended by itself and its console is complete."""
        status = self.process.wait(limit(seconds))
        self.out.wait_closed()
        self.err.wait_closed()
        return status

    def stop(self):
        """Ends the service, which must still be running."""
        assert self.running(), f"the service ended: {self.process.returncode} {self.err.text()}"
        self.kill()

    def kill(self, signum=signal.SIGKILL):
        if self.running():
            self.process.send_signal(signum)
        self.process.wait()


class BareService(Service):
    """A run of the service whose standard streams are the test's own; /dev/null, if it names none.
    `conf` must be None where `folder` cannot be written."""

    def __init__(self, binary, folder, conf="", env=None, wrapper=(), wait_ready=True, **popen):
        write_settings(folder, conf)
        if wait_ready:
            wait_for_ports()
        streams = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.DEVNULL)
        self.process = subprocess.Popen([*wrapper, *EMULATOR, str(binary)], cwd=folder,
                                        env={**os.environ, **(env or {})}, **{**streams, **popen})
        if self.process.stderr:
            self.err = Console(self.process.stderr)
        if wait_ready:
            self._wait_ready()

    def _wait_ready(self):
        try:
            wait_until(lambda: VIDEO_PORT in bound_ports() or not self.running(), 10, "the start")
            assert self.running(), f"the service ended: {self.process.returncode}"
        except AssertionError:
            self.kill()
            raise

    def wait_exit(self, seconds=5):
        return self.process.wait(limit(seconds))

    def stop(self):
        assert self.running(), f"the service ended: {self.process.returncode}"
        self.kill()

    def descriptors(self):
        """What its descriptors stand for, by their numbers."""
        folder = pathlib.Path(f"/proc/{self.pid}/fd")
        return {int(fd.name): os.readlink(fd) for fd in folder.iterdir()}

    def threads(self):
        return len(list(pathlib.Path(f"/proc/{self.pid}/task").iterdir()))


@contextlib.contextmanager
def frozen(service):
    """Holds all threads of the service where they are, but for its main thread."""
    ptrace = ctypes.CDLL(None, use_errno=True).ptrace
    ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
    seize, interrupt, detach, wait_all = 0x4206, 0x4207, 17, 0x40000000
    threads = [int(entry) for entry in os.listdir(f"/proc/{service.pid}/task")]
    threads.remove(service.pid)
    for thread in threads:
        assert ptrace(seize, thread, None, None) == 0, os.strerror(ctypes.get_errno())
        assert ptrace(interrupt, thread, None, None) == 0, os.strerror(ctypes.get_errno())
        os.waitpid(thread, wait_all)
    try:
        yield
    finally:
        for thread in threads:
            ptrace(detach, thread, None, None)
