"""Somebody pulls the plug in the middle of a save. What the card was sent and had not flushed by
then is gone, or part of it."""

import collections
import contextlib
import random
import time

import bench
import pytest
from card import Card, cut, read_log
from crash import Partition
from running import LAYOUTS

DIRTY = "Dirty bit is set"


class Plug:
    """A board in the middle of its work, whose plug is pulled."""

    def __init__(self, boards_running, work, layout, viewer):
        self._boards, self._layout, self._viewer = boards_running, layout, viewer
        self._file, self._before, self._log = (work / f"plug.{end}"
                                               for end in ("img", "old", "log"))
        self._machine = None
        self.old = None

    def close(self):
        if self._machine:
            self._machine.kill()

    def start(self):
        """A board that is about to save another bit rate."""
        self._machine, card = self._boards.go_on(self._layout, self._file, self._log)
        card.copy(self._before)
        self.old = self.old or card.read(bench.NAME)
        self._viewer.join()

    def _save(self, rate):
        self._viewer.command(bench.setting("video_bitrate", rate))

    def whole_save(self, rate):
        """Saves: how much that sends to the card, in writes and flushes."""
        self._save(rate)
        self._machine.wait(f"grep -q video_bitrate={rate} /run/tervado.conf && sleep 1")
        return self._sent()

    def _sent(self):
        return len(read_log(self._log))

    def save(self, rate, sent):
        """Saves, until the card has been sent so much of it."""
        self._save(rate)
        end = time.monotonic() + 10  # a save may have less to write than another
        while self._sent() < sent and time.monotonic() < end:
            time.sleep(0.001)
        assert sent == 0 or self._sent() > 0, "no save has begun"

    def pull(self, chance):
        """What the card has afterwards: what it had flushed, and any of the rest."""
        self._machine.kill()
        card = Card(self._before).copy(self._file)
        card.apply(cut(read_log(self._log), chance))
        return card


def repaired(card, work):
    """The card's files as they are behind the check of a boot."""
    partition = Partition.of(card, work / "plug.part")
    assert partition.repair() in (0, 1)
    files = partition.files(work / "plug.files")
    assert files is not None
    return files


@pytest.mark.parametrize("layout", LAYOUTS)
def test_pulled_in_a_save(running, next_boot, work, viewer, times, figures, layout):
    """The settings on the card are the old or the new ones, whole, before its file system has been
    repaired and afterwards, and no other file is lost. Some of the cards are then booted."""
    rounds = times(20, 500)
    chance = random.Random(f"{layout} {rounds}")
    with contextlib.closing(Plug(running, work, layout, viewer)) as plug:
        plug.start()
        whole = plug.whole_save(2222)
        new = plug.pull(random.Random(1)).read(bench.NAME)
        assert bench.bitrate_in(new) == 2222 and bench.bitrate_in(plug.old) == 1111
        found = collections.Counter(cuts=rounds)
        for number in range(rounds):
            plug.start()
            plug.save(2222, chance.randrange(whole + 1))
            time.sleep(0.01 * chance.random())
            card = plug.pull(chance)
            settings = card.read(bench.NAME)
            for files in ({**dict.fromkeys(card.names()), bench.NAME: settings,
                           "config.txt": card.read("config.txt")}, repaired(card, work)):
                assert files[bench.NAME] in (plug.old, new), f"cut {number}: {files}"
                assert files["config.txt"] == bench.CARD_FILES[0][1]
                assert all(name in bench.BESIDE or name.endswith(".REC") for name in files)
            found["new settings" if settings == new else "old settings"] += 1
            found["marked as not unmounted"] += DIRTY in card.check()[1]
            if number % max(10, rounds // 25) == 0:
                assert next_boot(layout, card) == bench.bitrate_in(settings)
                found["booted"] += 1
    figures[f"plug pulled in a save, {layout}"] = dict(found)
