"""Fixtures of the tests that see the service from outside. They run in the sandbox."""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess

import pytest

from harness.board_tools import AccessPoint, Standins
from harness.bridge import Bridge
from harness.console import connected, events, removed
from harness.far_network import Link
from harness.making import making
from harness.region import DisplayRegion
from harness.service import EMULATOR, BareService, Service
from harness.timing import wait_until
from harness.udp import DATA_PORT, VIDEO_PORT
from harness.viewer import Viewer

pytest_plugins = ["harness.run"]


@pytest.fixture(scope="session", autouse=True)
def sandbox():
    if os.environ.get("NIMBUS_SANDBOX") != "1":
        pytest.exit("the end-to-end tests run in the sandbox only: use ./dev test", returncode=2)
    # A bare system has no names of hosts, not even its own: nothing leans on them.
    hosts = pathlib.Path("/etc/hosts")
    if hosts.exists():
        subprocess.run(["/bin/mount", "--bind", "/dev/null", hosts], check=True)  # the system's own
        assert hosts.read_bytes() == b""


@pytest.fixture(scope="session")
def build(pytestconfig):
    """The folder of the build under test."""
    return pathlib.Path(pytestconfig.getoption("--build")).resolve()


@pytest.fixture
def times(pytestconfig):
    """times(short, long) is how often a test does what it does again and again."""
    return lambda short, long: long if pytestconfig.getoption("--long") else short


def remove(entry):
    if entry.is_dir() and not entry.is_symlink():
        shutil.rmtree(entry)
    else:
        entry.unlink()


def empty(folder):
    for entry in pathlib.Path(folder).iterdir():
        remove(entry)


@pytest.fixture(autouse=True)
def clean_board(sandbox):
    """Each test starts on a fresh board: no shared memory, an empty /boot, idle stand-ins, no
    working copy of the settings, whatever the test before has made in its place, and no word that
    the card's were not read."""
    for folder in ("/dev/shm", "/boot", os.environ["NIMBUS_STANDINS"]):
        empty(folder)
    for entry in pathlib.Path("/run").glob("tervado.*"):
        remove(entry)


@pytest.fixture
def standins():
    return Standins()


@pytest.fixture
def start(build, tmp_path):
    """start(conf, ...) runs the service; at the end of the test it must still be running, unless
    the test has waited for its end."""
    services = []

    def start_service(conf="", **options):
        service = Service(build / "nimbus", tmp_path, conf, **options)
        services.append(service)
        return service

    yield start_service
    ended = [s for s in services if s.process.returncode is None and not s.running()]
    for service in services:
        service.kill()
    for service in ended:
        pytest.fail(f"the service ended with {service.process.returncode}: {service.err.text()}")


@pytest.fixture
def service(start):
    """A running service with an empty configuration file."""
    return start()


@pytest.fixture
def viewers():
    """viewers(host="127.0.0.1", port=0) makes a viewer that is closed at the end of the test."""
    with making(Viewer) as make:
        yield make


@pytest.fixture
def processes():
    """processes(COMMAND, ...), as Popen, runs one that is killed at the end of the test, if it has
    not ended."""

    def end(process):
        process.kill()
        process.wait()

    with making(subprocess.Popen, end) as make:
        yield make


@pytest.fixture
def links():
    """links(n) makes the n-th network beside this one."""
    with making(Link) as make:
        yield make


@pytest.fixture
def viewer(service, viewers):
    """A viewer registered with a running service."""
    one = viewers()
    one.register()
    service.err.wait("New client connected")
    return one


def bridge_fixture(port):
    @pytest.fixture
    def make():
        bridge = Bridge(port)
        yield bridge
        bridge.close()

    return make


data = bridge_fixture(DATA_PORT)
video = bridge_fixture(VIDEO_PORT)


@pytest.fixture
def region():
    """The display region."""
    shared = DisplayRegion()
    yield shared
    shared.close()


@pytest.fixture
def launch(build, tmp_path):
    """launch(conf, ...) runs the service like start(), on standard streams of the test's own."""
    with contextlib.ExitStack() as ends:

        def launch_service(conf="", folder=tmp_path, **options):
            service = BareService(build / "nimbus", folder, conf, **options)
            ends.callback(lambda: service.process.returncode is None and service.stop())
            return service

        yield launch_service


@pytest.fixture
def access_point(standins):
    one = AccessPoint(standins)
    yield one
    one.close()


@pytest.fixture
def unsanitized(build):
    """For tests of the plain build only: a sanitizer, or an emulator, brings its own allocator,
    threads and time."""
    cache = build / "CMakeCache.txt"
    if cache.exists() and re.search(r"^NIMBUS_SANITIZE:\w+=.", cache.read_text(), re.MULTILINE):
        pytest.skip("the build is sanitized")
    if EMULATOR:
        pytest.skip("the build is emulated")


@pytest.fixture
def preload(build, unsanitized):
    """preload(name) is the environment in which the service runs with that library."""

    def environment(name):
        library = build / "tests" / "preload" / f"{name}.so"
        assert library.exists(), f"{library} is not built"
        return {"LD_PRELOAD": str(library)}

    return environment


@pytest.fixture
def steady(service, passes):
    """A running service that has come to its status loop: every link has its callbacks."""
    passes(1)
    return service


@pytest.fixture
def held(access_point, service):
    """A running service whose status loop stands still, until access_point.answer() lets it go on
    to the next probe: nothing is broadcast and nothing expires but by the test."""
    access_point.wait_probe(10)
    return service


@pytest.fixture
def settled(viewers):
    """settled(service) is what the console has said since the start, once everything that was sent
    to the viewer port has been handled. Needs a free slot for a moment."""

    def wait(service):
        last = viewers("127.255.255.254")
        last.register()
        last.leave()
        service.err.wait(removed(last))
        said = events(service)
        return said.replace(connected(last), "").replace(removed(last), "")

    return wait


@pytest.fixture
def join(viewers):
    """join(service) makes a viewer that is registered with that service."""

    def make(service):
        viewer = viewers()
        viewer.register()
        service.err.wait(connected(viewer))
        return viewer

    return make


def orphans():
    """The processes whose parents have ended, by what they are."""
    found = {}
    for process in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):  # it has ended meanwhile
            status = pathlib.Path("/proc", process, "stat").read_text()
            name, rest = status.split("(", 1)[1].rsplit(")", 1)
            if rest.split()[1] == "1":
                found[int(process)] = name
    return found


@pytest.fixture(autouse=True)
def no_orphans(clean_board):
    """A command that outlived its service must not meddle with the next test: a probe for hostapd,
    for one, would be counted there."""
    before = orphans().keys()

    def left():
        return {pid: name for pid, name in orphans().items() if pid not in before}

    yield
    try:
        wait_until(lambda: not left(), 5, "the end of the service's commands")
    except AssertionError:
        for pid in left():
            os.kill(pid, signal.SIGKILL)
        raise


@pytest.fixture
def passes(standins):
    """passes(n) waits until the status loop has come to its probe for hostapd n times."""

    def wait(count):
        wait_until(lambda: len(standins.calls("pidof")) >= count, count + 5,
                   f"{count} passes of the status loop")

    return wait


@pytest.fixture
def crowd(viewers):
    """crowd(service, count) registers that many viewers on as many hosts, in the order of their
    slots."""

    def make(service, count):
        made = [viewers(f"127.0.{n}.{n + 1}") for n in range(count)]
        for viewer in made:
            viewer.register()
            service.err.wait(connected(viewer))
        return made

    return make
