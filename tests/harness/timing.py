"""Time limits, which slow builds stretch, and the service's clock."""

import os
import time

# Sanitized and emulated runs stretch every time limit (never a lower bound).
TIME_SCALE = float(os.environ.get("NIMBUS_TIME_SCALE", "1"))


def limit(seconds):
    """A time limit, stretched for slow builds."""
    return seconds * TIME_SCALE


def wait_until(condition, seconds, what="the condition"):
    """Waits until condition() is true and returns its value; fails after the limit."""
    deadline = time.monotonic() + limit(seconds)
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < deadline, f"{what} did not come true within {limit(seconds)} s"
        time.sleep(0.002)


def now_ms():
    """The service's clock."""
    return time.time_ns() // 1_000_000 % 2**32
