"""The packages on a fresh root: installed, upgraded, removed and purged, while strangers try."""

import bench
import pytest
from card import Card
from machine import make_disk, wait_until
from strangers import let_through, strangers

UNITS = "nimbus.service nimbus-filter.service nimbus-web.service nimbus-web.socket".split()
# What a system writes by itself.
NOT_OURS = tuple("/var/log /var/lib/dpkg /var/lib/apt /var/cache /var/lib/systemd/ /var/tmp /tmp "
                 "/run /mnt /boot /var/lib/board /etc/machine-id /root".split())


def files(machine):
    """Everything on the root disk, but for what a system writes by itself."""
    found = machine.run("find / -xdev").splitlines()
    return {name for name in found
            if not name.startswith(NOT_OURS) or "deb-systemd-helper-" in name}


def bitrate_on_card(machine):
    return machine.run(f"sed -n 's/^video_bitrate=//p' /boot/firmware/{bench.NAME}").strip()


def units(machine):
    """What the units are: active, inactive, failed."""
    return machine.ask(f"systemctl is-active {' '.join(UNITS)}")[1].split()


# The folder of all whose users systemd makes.
SYSTEMDS = {"/var/lib/private"}
ALL_ACTIVE, NONE_ACTIVE = (["active"] * len(UNITS), ["inactive"] * len(UNITS))


class Life:
    """A board whose packages come and go."""

    def __init__(self, machine, viewer):
        self.machine, self.viewer = machine, viewer

    def apt(self, what):
        """Does something with them: (its exit status, what it said)."""
        return self.machine.ask(f"{bench.APT} {what}", 300)

    def installed(self, what, rate):
        """After that the service runs, with that bit rate."""
        status, said = self.apt(what)
        assert status == 0, said
        bench.wait_service(self.machine)
        self.machine.wait("systemctl is-active nimbus-web")
        assert units(self.machine) == ALL_ACTIVE
        assert bitrate_on_card(self.machine) == str(rate)
        assert self.viewer.join().settings()["vbitrate"] == rate

    def gone(self, what, rate):
        """After that nothing of it runs or listens; the settings are on the card."""
        status, said = self.apt(what)
        assert status == 0, said
        assert units(self.machine) == NONE_ACTIVE
        assert self.machine.run("nft list tables") == ""
        ports = "sport = :4242 or sport = :5000 or sport = :5001 or sport = :8080"
        assert self.machine.run(f"ss -Hlntu '{ports}'") == ""
        assert bitrate_on_card(self.machine) == str(rate)


NEW = "install /mnt/luggage/nimbus_*.deb /mnt/luggage/nimbus-web_*.deb"
OLDER = "install --allow-downgrades /mnt/luggage/older/nimbus_*.deb " \
    "/mnt/luggage/older/nimbus-web_*.deb"


@pytest.fixture
def life(image, boards, work, viewer):
    """A fresh root, and strangers who try its ports all the time."""
    card = Card(work / "life.img").create(files=bench.CARD_FILES)
    machine = boards(make_disk(image.root, work / "life.qcow2"), card=card).wait_agent()
    machine.wait("systemctl is-active multi-user.target", 200)
    machine.run(bench.LUGGAGE)
    with strangers() as some:
        yield Life(machine, viewer)
        assert some.sent > 1000
    said = bench.journal(machine)
    assert not let_through(said)


@pytest.mark.long
def test_upgraded_and_downgraded(life):
    life.installed(OLDER, 2000000)
    life.viewer.command(bench.setting("video_bitrate", 1234))
    life.machine.wait("grep -q video_bitrate=1234 /run/tervado.conf")
    life.installed(NEW, 1234)
    check_units(life.machine)
    status, said = life.apt(OLDER.replace("--allow-downgrades ", ""))
    assert status != 0 and "downgrade" in said
    assert units(life.machine) == ALL_ACTIVE
    life.installed(OLDER, 1234)


@pytest.mark.long
def test_removed_purged_and_installed_again(life):
    """What a purge leaves are the settings, and those are there for the next time."""
    before = files(life.machine)
    life.installed(NEW, 2000000)
    life.viewer.command(bench.setting("video_bitrate", 1234))
    life.machine.wait("grep -q video_bitrate=1234 /run/tervado.conf")
    life.gone("remove '^nimbus.*'", 1234)
    life.gone("purge '^nimbus.*'", 1234)
    assert files(life.machine) - before <= SYSTEMDS
    assert life.machine.run("ls /run/tervado.conf 2>/dev/null || true") == ""
    life.installed(NEW, 1234)


def check_units(machine):
    """systemd has nothing to say of them, and the watchdog hears from the service."""
    assert machine.run(f"systemd-analyze verify --man=no {' '.join(UNITS)}", 120) == ""
    for unit, threshold in (("nimbus.service", 50), ("nimbus-filter.service", 25),
                            ("nimbus-web.service", 25)):
        machine.run(f"systemd-analyze security --threshold={threshold} {unit}", 120)
    fed = "systemctl show -p WatchdogTimestampMonotonic --value nimbus.service"
    first = int(machine.run(fed))
    wait_until(lambda: int(machine.run(fed)) > first, 60, "the watchdog's food")
    assert machine.run("systemctl show -p NRestarts --value nimbus.service").strip() == "0"
