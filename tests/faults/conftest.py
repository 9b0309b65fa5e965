"""`./dev test` runs these tests shortly, `./dev test --long` for minutes each (`-k faults` leaves
out the others). They live on what the end-to-end tests know of the service's neighbours."""

import mmap
import time

import pytest

pytest_plugins = ["harness.fixtures", "harness.configuring", "harness.commanding"]


def pytest_addoption(parser):
    parser.addoption("--soak-viewers", type=int, default=10,
                     help="how many viewers the soak has (default: 10)")


class SteppedClock:
    """The wall clock of a service that runs with the library stepped_clock. It runs, until it is
    stopped: nothing is late then, whatever the machine has to do, but by the test."""

    NS = 1_000_000_000

    def __init__(self, file, environment):
        file.write_bytes(bytes(24))
        self.env = {**environment, "STEPPED_CLOCK": str(file)}
        with file.open("r+b") as opened:
            self._settings = memoryview(mmap.mmap(opened.fileno(), 24)).cast("q")

    def stop(self, at=None):
        """Stops at that time, in seconds, or at the system's."""
        self._settings[0] = time.time_ns() if at is None else round(at * self.NS)
        self._settings[1] = 1

    def step(self, seconds):
        """Forward, or back."""
        self._settings[0] += round(seconds * self.NS)

    def hurry(self, seconds=0.02):
        """The status loop pauses for that long instead of a second."""
        self._settings[2] = round(seconds * 1_000_000)


@pytest.fixture
def clock(preload, tmp_path):
    """A SteppedClock, for a service that gets its environment."""
    return SteppedClock(tmp_path / "clock", preload("stepped_clock"))
