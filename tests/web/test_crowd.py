"""Many browsers at once, each with a script: takes control, steers, commands, lets go, comes again.
`--long` has twenty of them for ten minutes: once as the server sees them, which costs little, and
once as pages of a real browser."""

import asyncio
import contextlib
import statistics
import threading
import time

from harness.timing import limit, wait_until
from chromium import SHOWN
from crowd import Pages, Scripted, memory, run_all

MOST_MEMORY = 40 * 1024  # KiB
RATE = 5  # pictures a second: all the browsers are one machine's


def test_crowd(browser, web, data, film, times):
    seconds = times(6, 600)
    data.keep_sending(b"\0", 0.2)
    browser.open(web.address())
    selector = browser.picture()
    until = time.monotonic() + seconds
    scripted = [Scripted(seed, until) for seed in range(times(6, 20))]
    thread = threading.Thread(target=lambda: asyncio.run(run_all(scripted, scripted)))
    thread.start()
    ages = browser.ages(selector, 60)
    time.sleep(max(0, until - time.monotonic() - 30))
    ages += browser.ages(selector, times(1, 600))
    thread.join(seconds + limit(30))
    assert not thread.is_alive(), "a scripted browser hangs"
    assert -1 not in ages and statistics.median(ages) < limit(1000), ages
    assert all(one.pictures > 20 * seconds for one in scripted), [one.pictures for one in scripted]
    assert all(one.results > 0 for one in scripted), "commands without an answer"
    assert memory(web.process.pid) < MOST_MEMORY
    # Whoever was the last to steer is gone: nothing moves.
    wait_until(lambda: rests(data), 5, "the rest of the gimbal")
    assert browser.errors() == []


def test_crowd_of_pages(chromiums, web, data, films, times):
    """All see the picture to the end, whoever waits gets to drive, nothing goes wrong."""
    count, seconds = times((3, 10), (20, 600))
    data.keep_sending(b"\0", 0.2)
    films(rate=RATE, keys=RATE)
    pages = Pages(chromiums, web.port, count)
    first, begun = pages.each(SHOWN), time.monotonic()
    time.sleep(seconds)
    last, watched = pages.each(SHOWN), time.monotonic() - begun
    did = pages.each("window.ended = true; return window.did")
    seen = [(b - a) / (RATE * watched) for a, b in zip(first, last)]
    print(f"parts of the pictures' numbers that passed by: {min(seen):.2f} to {max(seen):.2f};"
          f" drove {[one['drove'] for one in did]}, memory {memory(web.process.pid)} KiB")
    assert min(seen) > 0.9, seen
    assert pages.each("return document.querySelector('#stale').textContent") == [""] * count
    assert [one["wrong"] for one in did] == [[]] * count
    assert any(one["told"] for one in did), "no command was answered"
    assert sum(one["moved"] > 0 for one in did) >= min(count, seconds // 10), did
    assert memory(web.process.pid) < MOST_MEMORY
    time.sleep(2)  # whoever had begun lets go
    wait_until(lambda: rests(data), 5, "the rest of the gimbal")
    assert pages.browser.errors() == []


def rests(data):
    """Whether no speed comes for a moment, whatever has waited since the crowd was there."""
    data.socket.setblocking(False)
    with contextlib.suppress(BlockingIOError):
        while True:
            data.socket.recv(2048)
    data.socket.settimeout(0.3)
    try:
        while data.socket.recv(2048)[9:11] != b"\x04\x0c":
            pass
        return False
    except TimeoutError:
        return True
