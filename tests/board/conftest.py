"""`./dev board --ci` runs these tests shortly, `./dev board --long` with hundreds of rounds each.
They live in the sandbox, whose network has the emulated boards on one interface, alone."""

import json
import pathlib
import shutil
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "tools" / "board"))

import bench  # noqa: E402
import luggage as packing  # noqa: E402
from card import Card  # noqa: E402
from machine import Image, Machine, make_disk  # noqa: E402
from running import Running  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--packages", type=pathlib.Path, default=ROOT / "build" / "package",
                     help="the folder of the packages")
    parser.addoption("--images", type=pathlib.Path, default=ROOT / "build" / "board",
                     help="the folder of the boards' disks")
    parser.addoption("--kind", default="amd64", help="the board's architecture")
    parser.addoption("--long", action="store_true", help="hundreds of rounds instead of a few")
    parser.addoption("--keep", type=pathlib.Path,
                     help="a folder where the installed boards stay, for the next run as well")
    parser.addoption("--cuts", type=int, help="how often the plug is pulled")


@pytest.fixture(scope="session")
def times(request):
    """times(short, long): how often."""
    return lambda short, long: long if request.config.getoption("--long") else short


@pytest.fixture(scope="session")
def image(request):
    kind = request.config.getoption("--kind")
    folder = request.config.getoption("--images") / kind
    if not (folder / "root.img").exists():
        pytest.fail(f"there is no {folder}/root.img; ./dev board makes it")
    return Image(folder)


@pytest.fixture(scope="session")
def work(request, tmp_path_factory):
    """A folder for disks; it goes with the session, as they are large."""
    kept = request.config.getoption("--keep")
    if kept:
        kept.mkdir(exist_ok=True)
        yield kept
        return
    folder = tmp_path_factory.mktemp("board")
    yield folder
    shutil.rmtree(folder, ignore_errors=True)


@pytest.fixture(scope="session")
def luggage(request, image, work):
    """A disk with the packages, and a moving picture for the bridge."""
    kind = request.config.getoption("--kind")
    if (work / "luggage.img").exists():
        return work / "luggage.img"
    packages = request.config.getoption("--packages")
    service = packing.newest(packages, kind).get("nimbus")
    assert service, f"there is no package in {packages}; ./dev package makes it"
    return packing.pack(packages, kind, work,
                        lambda inside: bench.older_package(service, inside / "older", work))


@pytest.fixture(scope="session")
def installed(image, luggage, work):
    """A root disk on which the packages are installed, and the board was switched off."""
    disk = work / "installed.qcow2"
    if disk.exists():
        return disk
    fresh = make_disk(image.root, work / "installing.qcow2")
    card = Card(work / "installing.img").create(files=bench.CARD_FILES)
    machine = Machine(image, fresh, work / "installing", card=card, luggage=luggage)
    try:
        machine.wait_agent()
        bench.install(machine)
        bench.wait_service(machine)
    except BaseException:
        print(machine.console()[-3000:])
        machine.kill()
        raise
    machine.switch_off()
    return fresh.rename(disk)


@pytest.fixture
def viewers():
    """viewers(host) joins from an address of the sandbox."""
    made = []

    def make(host=0):
        made.append(bench.BoardViewer(host))
        return made[-1]

    yield make
    for viewer in made:
        viewer.close()


@pytest.fixture
def viewer(viewers):
    return viewers()


@pytest.fixture(scope="session")
def figures(request):
    """What was tried and found, for docs/reliability.md: a dictionary, printed at the end."""
    found = {}
    yield found
    if found:
        text = json.dumps(found, indent=1)
        kind = request.config.getoption("--kind")
        (request.config.getoption("--images") / f"figures-{kind}.json").write_text(text + "\n")
        print(f"\n{text}")


@pytest.fixture(scope="session")
def running(image, installed, luggage, work):
    return Running(image, installed, luggage, work)
