"""A console whose reader has stopped reading, but is still there."""

import contextlib
import os
import time

import pytest

from harness.neighbours import CONFIGURATION, MISSED_SHARE, House, periods
from harness.timing import TIME_SCALE, limit


class StuckConsole:
    """A pipe that takes nothing more once it was filled, until it is read again."""

    def __init__(self):
        self._reader, self.writer = os.pipe()
        os.set_blocking(self._reader, False)

    def fill(self):
        """Through an opening of its own: what is set there does not concern the service's."""
        filler = os.open(f"/proc/self/fd/{self.writer}", os.O_WRONLY | os.O_NONBLOCK)
        with contextlib.suppress(BlockingIOError):
            while True:
                os.write(filler, b"#" * 4096)
        os.close(filler)

    def read(self):
        text = b""
        with contextlib.suppress(BlockingIOError):
            while more := os.read(self._reader, 65536):
                text += more
        return text.decode()

    def close(self):
        os.close(self._reader)
        os.close(self.writer)


@pytest.fixture
def console():
    one = StuckConsole()
    yield one
    one.close()


@pytest.mark.parametrize("sticks", ["before the start", "while the house is full"])
def test_console_that_nobody_reads(launch, region, console, times, sticks):
    """Its texts are lost, and nothing else: nobody waits for it, not even for a moment each time.
    Once it is read again, it says what happens from then on."""
    if sticks == "before the start":
        console.fill()
    begin = time.monotonic()
    service = launch(CONFIGURATION, stdout=console.writer, stderr=console.writer)
    started = time.monotonic() - begin
    with House(service, region, 3) as house:
        house.move_in()
        console.fill()
        commands, first, begin = house.operator.sent, len(house.camera.speeds), time.monotonic()
        house.live(times(4, 60))
        rate = (house.operator.sent - commands) / (time.monotonic() - begin)
        passed, missed, gap = periods(house.camera.speeds[first:])
        assert console.read().endswith("#")
        house.live(2)
        said = console.read()
        house.move_out()
    print(f"\nstuck console: started in {started * 1000:.0f} ms; {rate:.1f} commands/s; {missed} of "
          f"{passed} periods missed; longest gap {gap * 1000:.0f} ms")
    assert started < limit(1)
    assert rate > 8 / TIME_SCALE
    assert missed <= 2 + MISSED_SHARE * passed
    assert "Camera set" in said and "config_parse_command" in said
