"""Viewers that vanish without leaving, and more of them than there are slots."""

import struct
import time

import pytest

from harness.console import connected, lost
from harness.timing import wait_until
from harness.viewer import Viewer

SLOTS = 10
TIMEOUT = 5.0  # a viewer that is silent for longer is lost


@pytest.fixture
def party(start, clock, video):
    """A service on a stopped clock whose bridge sends video."""
    clock.stop()
    service = start(env=clock.env)
    clock.hurry()
    return Party(service, clock, video)


class Party:
    """Everybody at the service's door, and what is said there."""

    def __init__(self, service, clock, bridge):
        self.service = service
        self._clock = clock
        self._bridge = bridge
        self._shown = 0
        self._fences = 0
        self._said = len(service.err.text())

    def show(self):
        """Sends the next video datagram and returns it."""
        self._shown += 1
        picture = struct.pack("<I", self._shown) * 300
        self._bridge.send(picture)
        return picture

    def silence(self, of_others):
        """Lets so much time pass that everybody is lost, but those who are `of_others`."""
        self._clock.step(1)
        for viewer in of_others:
            viewer.register()
        self._fences += 1
        text = f'{{"fence":{self._fences}}}'
        of_others[-1].command(text)  # handled behind the registrations
        self.service.out.wait(text)
        self._clock.step(TIMEOUT - 1 + 0.001)

    def said(self):
        """What was said of viewers since the last call."""
        text = self.service.err.text()
        news, self._said = text[self._said:], len(text)
        return [line for line in news.splitlines(keepends=True) if not line.startswith("Video")]

    def wait(self, line, viewer):
        """Waits until that is said of a viewer once more than before said() was called."""
        self.service.err.wait(line(viewer), count=1 + self.service.err.text()[:self._said].count(
            line(viewer)))


def wait_picture(viewer, picture):
    viewer.wait(lambda frame: frame.video and frame.payload == picture)


def test_viewers_that_vanish_and_return(party, viewers, region, times):
    """Their sockets are closed, so that every send to them is refused; nobody else notices. They
    are lost after five seconds, and served again when they return, on the same ports."""
    rounds = times(20, 300)
    steady = viewers("127.9.9.9")
    steady.register()
    addresses = [("127.0.0.1", 7000 + n) for n in range(SLOTS - 1)]
    pictures = []
    begin = time.monotonic()
    for number in range(rounds):
        guests = [Viewer(*address) for address in addresses]
        for guest in guests:
            guest.register()
            party.service.err.wait(connected(guest), count=number + 1)
        pictures.append(party.show())
        for viewer in (steady, *guests):
            wait_picture(viewer, pictures[-1])
        for guest in guests:
            guest.close()
        pictures.append(party.show())
        wait_picture(steady, pictures[-1])
        party.silence(of_others=[steady])
        for guest in guests:
            party.service.err.wait(lost(guest), count=number + 1)
        wait_until(lambda: region.u8(region.VIEWER_COUNT) == 1, 5, "the count of viewers")
        steady.register()
    passed = time.monotonic() - begin
    print(f"\nguests: {len(addresses)} vanished and returned {rounds} times, "
          f"{1000 * passed / rounds:.0f} ms each; the tenth saw {len(pictures)} pictures")
    assert [frame.payload for frame in steady.frames if frame.video] == pictures
    said = party.said()
    assert said[0] == connected(steady)
    expected = [connected(guest) for guest in guests] + [lost(guest) for guest in guests]
    assert said[1:] == expected * rounds


def assert_shown_to(party, crowd, inside):
    """Three pictures reach all who are inside, and nobody else."""
    seen = [len([f for f in viewer.frames if f.video]) for viewer in crowd]
    pictures = [party.show() for _ in range(3)]
    for viewer in inside:
        wait_picture(viewer, pictures[-1])
    for viewer, before in zip(crowd, seen):
        shown = [f.payload for f in list(viewer.frames) if f.video][before:]
        assert shown == (pictures if viewer in inside else [])


def test_ten_that_are_joined_by_fifty(party, viewers, region, times):
    """Who is in stays and misses nothing, however many knock. As many get in as places become free,
    and at no time are there more than ten."""
    rounds = times(5, 100)
    crowd = [viewers(f"127.0.{n}.1") for n in range(SLOTS + 50)]
    inside = crowd[:SLOTS]
    for viewer in inside:
        viewer.register()
        party.service.err.wait(connected(viewer))
    party.said()
    let_in = 0
    for number in range(rounds):
        outside = [viewer for viewer in crowd if viewer not in inside]
        for viewer in outside:
            viewer.register()
        assert_shown_to(party, crowd, inside)
        assert region.u8(region.VIEWER_COUNT) <= SLOTS
        assert party.said() == []

        gone, stay = inside[number % 2::2], inside[1 - number % 2::2]
        party.silence(of_others=stay)
        for viewer in gone:
            party.wait(lost, viewer)
        for viewer in outside:
            viewer.register()
        party.wait(connected, outside[len(gone) - 1])
        said = party.said()
        assert set(said[:len(gone)]) == {lost(viewer) for viewer in gone}
        assert said[len(gone):] == [connected(viewer) for viewer in outside[:len(gone)]]
        inside = stay + outside[:len(gone)]
        for viewer in inside:
            viewer.register()
        let_in += len(gone)
    print(f"\nfifty at the door: {let_in} let in over {rounds} rounds, never more than {SLOTS} "
          "inside")
