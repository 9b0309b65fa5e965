"""Somebody pulls the plug in the middle of a save. What the card was sent and had not flushed by
then is gone, or part of it."""

import collections
import random
import time

import bench
import pytest
from card import Card, cut, read_log
from running import LAYOUTS

DIRTY = "Dirty bit is set"


class Plug:
    """A board in the middle of its work, whose plug is pulled."""

    def __init__(self, boards_running, work, layout, viewer):
        self._boards, self._layout, self._viewer = boards_running, layout, viewer
        self._file, self._before, self._log = (work / f"plug.{end}"
                                               for end in ("img", "old", "log"))
        self.old = None

    def start(self):
        """A board that is about to save another bit rate."""
        self.machine, card = self._boards.go_on(self._layout, self._file, self._log)
        card.copy(self._before)
        self.old = self.old or card.read(bench.NAME)
        self._viewer.join()

    def save(self, rate):
        self._viewer.command(bench.setting("video_bitrate", rate))

    def whole_save(self, rate):
        """Saves, and returns how long that takes."""
        began = time.monotonic()
        self.save(rate)
        self.machine.wait(f"grep -q video_bitrate={rate} /run/tervado.conf")
        return time.monotonic() - began

    def pull(self, chance):
        """What the card has afterwards: what it had flushed, and any of the rest."""
        self.machine.kill()
        card = Card(self._before).copy(self._file)
        card.apply(cut(read_log(self._log), chance))
        return card


@pytest.mark.parametrize("layout", LAYOUTS)
def test_pulled_in_a_save(running, work, viewer, times, figures, layout):
    """The settings on the card are the old or the new ones, whole; its file system is sound but for
    the mark that it was not unmounted, and no other file is lost."""
    rounds = times(20, 250)
    chance = random.Random(f"{layout} {rounds}")
    plug = Plug(running, work, layout, viewer)
    plug.start()
    length = plug.whole_save(2222)
    new = plug.pull(random.Random(1)).read(bench.NAME)
    assert b"video_bitrate=2222" in new and b"video_bitrate=2222" not in plug.old
    found = collections.Counter(cuts=rounds)
    for number in range(rounds):
        plug.start()
        plug.save(2222)
        time.sleep(length * 1.2 * chance.random())
        card = plug.pull(chance)
        settings = card.read(bench.NAME)
        assert settings in (plug.old, new), f"cut {number}: {settings}"
        assert card.read("config.txt") == bench.CARD_FILES[0][1]
        assert not set(card.names()) - bench.BESIDE
        found["new settings" if settings == new else "old settings"] += 1
        found["marked as not unmounted"] += DIRTY in card.check()[1]
    figures[f"plug pulled in a save, {layout}"] = dict(found)
