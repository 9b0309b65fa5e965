"""Fixtures of the end-to-end tests. `./dev test` runs them, each worker in a sandbox of its own."""

import os
import pathlib
import shutil

import pytest

import nimbus

ROOT = pathlib.Path(__file__).resolve().parents[2]


def pytest_addoption(parser):
    parser.addoption("--build", default=str(ROOT / "build" / "release"),
                     help="folder of the build to test (default: build/release)")


@pytest.fixture(scope="session", autouse=True)
def sandbox():
    if os.environ.get("NIMBUS_SANDBOX") != "1":
        pytest.exit("the end-to-end tests run in the sandbox only: use ./dev test", returncode=2)


@pytest.fixture(scope="session")
def build(pytestconfig):
    """The folder of the build under test."""
    return pathlib.Path(pytestconfig.getoption("--build")).resolve()


def empty(folder):
    for entry in pathlib.Path(folder).iterdir():
        if entry.is_dir() and not entry.is_symlink():
            shutil.rmtree(entry)
        else:
            entry.unlink()


@pytest.fixture(autouse=True)
def clean_board(sandbox):
    """Each test starts on a fresh board: no shared memory, an empty /boot, idle stand-ins."""
    for folder in ("/dev/shm", "/boot", os.environ["NIMBUS_STANDINS"]):
        empty(folder)


@pytest.fixture
def standins():
    return nimbus.Standins()


@pytest.fixture
def start(build, tmp_path):
    """start(conf, ...) runs the service; at the end of the test it must still be running, unless
    the test has waited for its end."""
    services = []

    def start_service(conf="", **options):
        service = nimbus.Service(build / "nimbus", tmp_path, conf, **options)
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
    """viewers(host) makes a viewer that is closed at the end of the test."""
    made = []

    def make(host="127.0.0.1", port=0):
        viewer = nimbus.Viewer(host, port)
        made.append(viewer)
        return viewer

    yield make
    for viewer in made:
        viewer.close()


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
        bridge = nimbus.Bridge(port)
        yield bridge
        bridge.close()

    return make


data = bridge_fixture(nimbus.DATA_PORT)
video = bridge_fixture(nimbus.VIDEO_PORT)


@pytest.fixture
def region():
    """The display region."""
    shared = nimbus.DisplayRegion()
    yield shared
    shared.close()
