"""Time limits, which slow builds stretch, and the service's clock."""

import os
import time

# Sanitized and emulated runs stretch every time limit (never a lower bound).
TIME_SCALE = float(os.environ.get("NIMBUS_TIME_SCALE", "1"))


def limit(seconds):
    """A time limit, stretched for slow builds."""
    return seconds * TIME_SCALE


def patience(seconds):
    """How long to wait before each next look, until the limit is over, with a last look then. A
    machine that halts everybody does not use it up: of a longer wait than was asked for, a quarter
    of a second counts."""
    left = limit(seconds)
    while left > 0:
        begin = time.monotonic()
        yield min(left, 0.1)
        left -= min(time.monotonic() - begin, 0.25)
    yield 0


def wait_until(condition, seconds, what="the condition"):
    """Waits until condition() is true and returns its value; fails after the limit."""
    for _ in patience(seconds):
        value = condition()
        if value:
            return value
        time.sleep(0.002)
    raise AssertionError(f"{what} did not come true within {limit(seconds)} s")


def now_ms():
    """The service's clock."""
    return time.time_ns() // 1_000_000 % 2**32
