"""What the supervisor is told: a test stands in for it at the other end of the socket."""

import os
import pathlib
import signal
import socket
import time

import pytest

from harness.console import READY
from harness.service import SOCKETS
from harness.timing import limit, wait_until
from harness.udp import VIDEO_PORT, udp_socket


class Supervisor:
    """Receives the messages of services, with the time of their arrival."""

    def __init__(self, name):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(f"\0{name[1:]}" if name.startswith("@") else name)
        self.environment = {"NOTIFY_SOCKET": name}

    def next(self, seconds=5):
        """The next message and the time of its arrival."""
        self._socket.settimeout(limit(seconds))
        return self._socket.recv(4096), time.monotonic()

    def silent(self, seconds):
        """Whether nothing arrives for that long."""
        self._socket.settimeout(seconds)
        try:
            self._socket.recv(4096)
        except TimeoutError:
            return True
        return False

    def drain(self):
        """Forgets what has arrived."""
        while not self.silent(0.001):
            pass

    def close(self):
        self._socket.close()


@pytest.fixture(params=["/run/notify", "@nimbus/notify"])
def supervisor(request):
    one = Supervisor(request.param)
    yield one
    one.close()
    pathlib.Path("/run/notify").unlink(missing_ok=True)


@pytest.fixture
def supervised(start, supervisor, tmp_path):
    """supervised(interval) starts a service whose watchdog bites after that many seconds."""

    def make(interval=None):
        environment = dict(supervisor.environment)
        if interval:
            environment["WATCHDOG_USEC"] = str(int(interval * 1e6))
        return start(env=environment, wait_ready=False)

    return make


def number_of_threads(service):
    return len(os.listdir(f"/proc/{service.pid}/task"))


def test_ready_once_the_control_threads_run(supervised, supervisor):
    service = supervised()
    message, _ = supervisor.next()
    assert message == b"READY=1"
    # One for each link, three for the control; a sanitizer may have one of its own.
    assert number_of_threads(service) >= 1 + 3 + 3
    service.err.wait(READY)


def test_nothing_is_said_of_a_start_that_failed(launch, supervisor):
    with udp_socket("0.0.0.0", VIDEO_PORT):
        assert launch(env=supervisor.environment, wait_ready=False).wait_exit() == 1
    assert supervisor.silent(0.05)


def test_watchdog_is_fed_in_time(supervised, supervisor):
    """Twice in the interval, to the second of the status loop; not on every pass."""
    interval = 6.0
    supervised(interval)
    assert supervisor.next()[0] == b"READY=1"
    fed = [supervisor.next(2 + interval) for _ in range(3)]
    assert {message for message, _ in fed} == {b"WATCHDOG=1"}
    times = [when for _, when in fed]
    for earlier, later in zip(times, times[1:]):
        assert interval / 2 - 0.1 < later - earlier < limit(interval)


def test_hung_service_does_not_feed(supervised, supervisor):
    service = supervised(1.0)
    for _ in range(3):
        supervisor.next()
    service.process.send_signal(signal.SIGSTOP)
    supervisor.drain()
    assert supervisor.silent(2.5)
    service.process.send_signal(signal.SIGCONT)
    assert supervisor.next()[0] == b"WATCHDOG=1"


def test_status_loop_that_hangs_does_not_feed(supervised, supervisor, access_point):
    """The other threads work on, and that is not enough."""
    service = supervised(1.0)
    assert supervisor.next()[0] == b"READY=1"
    access_point.wait_probe()
    assert supervisor.silent(2.5)
    assert service.running()
    access_point.answer(1)
    assert supervisor.next()[0] == b"WATCHDOG=1"


@pytest.mark.parametrize("watchdog", [
    {}, {"WATCHDOG_USEC": "0"}, {"WATCHDOG_USEC": "never"}, {"WATCHDOG_USEC": "-5"},
    {"WATCHDOG_USEC": "1000000", "WATCHDOG_PID": "1"},
])
def test_watchdog_that_nobody_keeps(start, supervisor, watchdog):
    """No interval, or one that is another process's affair."""
    start(env={**supervisor.environment, **watchdog}, wait_ready=False)
    assert supervisor.next()[0] == b"READY=1"
    assert supervisor.silent(2.5)


def test_watchdog_of_this_process(launch, supervisor):
    service = launch(env={**supervisor.environment, "WATCHDOG_USEC": "1000000"},
                     wrapper=["sh", "-c", 'export WATCHDOG_PID=$$; exec "$0" "$@"'])
    assert supervisor.next()[0] == b"READY=1"
    assert supervisor.next()[0] == b"WATCHDOG=1"
    assert service.running()


def test_commands_take_themselves_for_unsupervised(supervised, supervisor, standins):
    said = standins.folder / "environment"
    standins.answer("pidof", f"env >{said}.new; mv {said}.new {said}; exit 1")
    supervised(1.0)
    wait_until(said.exists, 5, "a command")
    names = {line.split("=")[0] for line in said.read_text().splitlines()}
    assert names.isdisjoint({"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})


@pytest.mark.parametrize("name", ["", "relative", "/nobody/listens", "@nobody", "/" + "x" * 200,
                                  "vsock:2:1234"])
def test_supervisor_that_cannot_be_told(start, passes, name):
    service = start(env={"NOTIFY_SOCKET": name, "WATCHDOG_USEC": "1000000"})
    passes(2)
    assert service.running()


def test_supervisor_that_does_not_read(supervised, supervisor, passes):
    """The status loop goes on though the socket's queue is full."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other:
        other.setblocking(False)
        name = supervisor.environment["NOTIFY_SOCKET"]
        address = f"\0{name[1:]}" if name.startswith("@") else name
        service = supervised(1.0)
        passes(1)
        with pytest.raises(BlockingIOError):
            while True:
                other.sendto(b"x", address)
    passes(4)
    assert service.running()


def test_without_a_supervisor_there_is_no_socket(launch, passes):
    service = launch()
    passes(1)
    targets = [target for target in service.descriptors().values() if "socket" in target]
    assert len(targets) == SOCKETS
