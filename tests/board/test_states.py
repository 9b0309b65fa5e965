"""Every state in which a cut of the power can leave the card, made from the log of what a board has
written to it, and gone over by the start step. test_plug.py pulls the plug in earnest."""

import functools

import bench
import crash
import pytest
from card import read_log
from running import LAYOUTS


class Logged:
    """A board that goes on, and the log of its card."""

    def __init__(self, running, work, layout):
        self._work, self._log = work, work / "logged.log"
        self.machine, self._card = running.go_on(layout, work / "logged.img", self._log)

    def settle(self):
        """Waits until nothing more is written by itself."""
        self.machine.run("sync; sleep 1; sync")

    def begin(self):
        """What comes now is looked at."""
        self.settle()
        self._count = len(read_log(self._log))
        self._before = self._card.copy(self._work / "logged.before")

    def states(self):
        """The states since then; the board has ended."""
        self.settle()
        self.machine.kill()
        return crash.States(self._before, self._card, read_log(self._log)[self._count:])


@pytest.fixture
def logged(running, work):
    made = []

    def make(layout):
        made.append(Logged(running, work, layout))
        made[-1].begin()
        return made[-1]

    yield make
    for one in made:
        one.machine.kill()


def by_hand(board, script):
    """Somebody changes what is on the card, which may be mounted read-only."""
    board.machine.run(f"cd $(dirname $(readlink -f /boot/{bench.NAME})); mount -o remount,rw $PWD;"
                      f" {script}; status=$?; mount -o remount $PWD; exit $status")


def change_bitrate(board, viewer, rate):
    viewer.command(bench.setting("video_bitrate", rate))
    board.machine.wait(f"grep -q video_bitrate={rate} /run/tervado.conf")


def save(board, viewer):
    """The good copy is older than the settings."""
    viewer.join()
    change_bitrate(board, viewer, 1112)
    board.begin()
    change_bitrate(board, viewer, 2222)


def recalibrate(board, viewer):
    by_hand(board, "echo calibration >rcin.cal")
    board.begin()
    viewer.join().command('{"cmd":"rc","name":"recalibrate"}')
    board.machine.wait("! [ -e /boot/rcin.cal ] && mountpoint -q /boot")


def change_hdmi(board, viewer):
    viewer.join().command(bench.setting("hdmi_enabled", 1))
    board.machine.wait("grep -q hdmi_force_hotplug=1 /boot/config.txt /boot/firmware/config.txt"
                       " && grep -q hdmi_enabled=1 /run/tervado.conf")


def first_start(board, viewer):
    """In which the start step itself writes the defaults, and keeps a copy of them."""
    by_hand(board, f"systemctl stop nimbus; rm -f {bench.NAME}* /run/tervado.*")
    board.begin()
    board.machine.run("systemctl start nimbus")


def next_start(board, viewer):
    """In which it keeps a copy of what somebody has written on the card."""
    by_hand(board, "systemctl stop nimbus; rm -f /run/tervado.*;"
            f" sed -i 's/^video_bitrate=.*/video_bitrate=3333\\r/' {bench.NAME}")
    board.begin()
    board.machine.run("systemctl start nimbus")


ACTS = {"save": save, "HDMI change": change_hdmi, "first start": first_start,
        "next start": next_start}
CASES = [pytest.param(what, layout, marks=[pytest.mark.long] * (what != "save"))
         for layout in LAYOUTS for what in ACTS]


@pytest.fixture
def hold(next_boot, times, figures):
    """hold(what, layout, states) holds the states to what was promised, and notes what was found
    and what they cost the card. With --long it boots one of each kind, too."""

    def make(what, layout, states):
        wear = states.wear()
        # What is only taken away, may come back: nobody waits for the card then.
        assert wear["bytes written"] and (wear["flushes"] or what == "recalibration")
        boot = functools.partial(next_boot, layout) if times(0, 1) else None
        figures[f"every state of a cut, {what}, {layout}"] = {
            **states.check(LAYOUTS[layout][0], boot), **wear}

    return make


@pytest.mark.parametrize("what, layout", CASES)
def test_every_state_of_a_cut(logged, viewer, hold, layout, what):
    """The settings are the old or the new ones, whole, and so is the firmware's file; the FAT needs
    no repair that loses a file."""
    board = logged(layout)
    ACTS[what](board, viewer)
    hold(what, layout, board.states())


@pytest.mark.long
def test_every_state_of_a_cut_in_a_recalibration(logged, viewer, hold):
    """It takes a file off the card where that is mounted at /boot; in the other layout the file is
    on the root."""
    board = logged("boot")
    recalibrate(board, viewer)
    hold("recalibration", "boot", board.states())
