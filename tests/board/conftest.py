"""`./dev board` runs these tests shortly, `./dev board --long` all of them and with hundreds of
rounds. They live in the sandbox, whose network has the emulated boards on one interface, alone."""

import collections
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
from held import Held  # noqa: E402
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
    parser.addoption("--times", type=int, help="how often, instead of what each test says")


FIGURES = pytest.StashKey()


def pytest_configure(config):
    config.addinivalue_line("markers", "long: with --long only")
    config.stash[FIGURES] = {}


def pytest_collection_modifyitems(config, items):
    if config.getoption("--long"):
        return
    long = [item for item in items if item.get_closest_marker("long")]
    items[:] = [item for item in items if item not in long]
    config.hook.pytest_deselected(items=long)


def pytest_terminal_summary(terminalreporter, config):
    """What was tried and found, and how long each test took, and the boards that were made for
    it."""
    if config.stash[FIGURES]:
        terminalreporter.write_line(json.dumps(config.stash[FIGURES], indent=1))
    reports = [report for some in terminalreporter.stats.values() for report in some
               if isinstance(report, pytest.TestReport)]
    rows = collections.Counter()
    for report in reports:
        name = report.nodeid.rpartition("::")[2] if report.when == "call" else "boards made before"
        rows[name] += report.duration
    terminalreporter.write_line("")
    for name, seconds in [*rows.items(), ("all", sum(rows.values()))]:
        terminalreporter.write_line(f"{name:60} {seconds // 60:3.0f}:{seconds % 60:02.0f}")


@pytest.fixture(scope="session")
def times(request):
    """times(short, long): how often."""
    option = request.config.getoption
    return lambda short, long: option("--times") or (long if option("--long") else short)


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
    assert packing.newest(packages, kind), f"{packages} has no packages; ./dev package makes them"
    return packing.pack(packages, kind, work,
                        lambda inside: bench.older_packages(inside))


@pytest.fixture(scope="session")
def installed(image, luggage, work):
    """A root disk on which the packages are installed, and the board was switched off."""
    disk = work / "installed.qcow2"
    if disk.exists():
        return disk
    fresh = make_disk(image.root, work / "installing.qcow2")
    card = Card(work / "installing.img").create(files=bench.CARD_FILES)
    machine = Machine(image, fresh, work / "installing", card=card, luggage=luggage)
    with machine.until_a_failure():
        machine.wait_agent()
        bench.install(machine)
        bench.wait_service(machine)
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
    """What was tried and found, for docs/reliability.md: a dictionary, which the run shows at its
    end. The folder of the boards' disks keeps it, with what other tests have found before."""
    found = request.config.stash[FIGURES]
    yield found
    kind = request.config.getoption("--kind")
    file = request.config.getoption("--images") / f"figures-{kind}.json"
    before = json.loads(file.read_text()) if file.exists() else {}
    file.write_text(json.dumps({**before, **found}, indent=1) + "\n")


@pytest.fixture(scope="session")
def running(image, installed, luggage, work):
    return Running(image, installed, luggage, work)


@pytest.fixture(scope="session")
def held(image, installed, luggage, work):
    return Held(image, installed, luggage, work)


@pytest.fixture
def card(work):
    """A card with settings of its own."""
    return Card(work / "own.img").create(files=[*bench.CARD_FILES, (bench.NAME, bench.OLD)])


@pytest.fixture
def disk(installed, work):
    """The root of a board on which the packages are installed."""
    return make_disk(installed, work / "own.qcow2")


@pytest.fixture
def switched_on():
    """Machines that are off at the end of the test; what a failing one has said is shown."""
    made = []
    yield made
    for machine in made:
        print(machine.console()[-3000:])
        machine.kill()


@pytest.fixture
def boards(image, luggage, work, switched_on):
    """boards(disk, ...) switches a board on."""

    def make(disk, **options):
        switched_on.append(Machine(image, disk, work / "own", luggage=luggage, **options))
        return switched_on[-1]

    return make


@pytest.fixture
def boot(held, switched_on):
    """boot(layout, card) boots a board of that layout with that card; with hold=True it stands
    before the card until go()."""

    def make(layout, card, hold=False):
        switched_on.append(held.boot(layout, card))
        if not hold:
            switched_on[-1].go()
        return switched_on[-1]

    return make


# Layouts of `running`, and how `held` has them.
NEXT = {"firmware": "firmware", "boot": "boot-ro"}


@pytest.fixture
def next_boot(boot):
    """next_boot(layout, card) boots a board with a card that was cut off: the bit rate with which
    the service starts. The boot needs nobody, and the card is in order afterwards."""

    def make(layout, card):
        machine = boot(NEXT[layout], card)
        rate = bench.bitrate_after_start(machine)
        assert bench.asked_for_nobody(machine)
        machine.switch_off()
        assert card.check()[0] == 0
        return rate

    return make


@pytest.fixture
def relaying(running, work, switched_on):
    """A board that is relaying, and its card."""
    machine, card = running.go_on("firmware", work / "own.img", work / "own.log")
    switched_on.append(machine)
    return machine, card


@pytest.fixture
def machine(relaying):
    return relaying[0]


@pytest.fixture
def own_card(relaying):
    return relaying[1]
