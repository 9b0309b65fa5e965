"""A board of any architecture, from a fresh root to a saved setting, in one boot: what an emulated
ARM processor can do in a few minutes; and an hour of everybody at once."""

import contextlib
import re
import time

import bench
import pytest
from card import Card
from harness.web import BINARY, Place, WebSocket
from machine import BOARD, HOSTS, make_disk


class Steps:
    """How long each step takes, in seconds; a failing test shows them up to its own."""

    def __init__(self):
        self.took = {}
        self._began = time.monotonic()

    def done(self, what):
        now = time.monotonic()
        self.took[what] = round(now - self._began)
        self._began = now
        print(f"{what}: {self.took[what]} s", flush=True)


def test_installed_relayed_and_saved(image, boards, work, viewer, figures):
    steps = Steps()
    card = Card(work / "once.img").create(files=bench.CARD_FILES)
    machine = boards(make_disk(image.root, work / "once.qcow2"), card=card).wait_agent(600)
    machine.wait("systemctl is-active multi-user.target", 300)
    steps.done("booted")
    assert machine.run("dpkg --print-architecture").strip() == image.architecture
    bench.install(machine)
    bench.wait_service(machine, 300)
    steps.done("installed")
    bench.start_siblings(machine)
    viewer.wait_video(300)
    steps.done("relayed")
    viewer.command(bench.setting("video_bitrate", 2222))
    machine.wait("grep -q video_bitrate=2222 /run/tervado.conf", 120)
    steps.done("saved")
    assert machine.run("systemctl show -p NRestarts --value nimbus").strip() == "0"
    machine.run("systemctl restart nimbus", 120)
    assert viewer.join().settings()["vbitrate"] == 2222
    steps.done("restarted")
    machine.switch_off(300)
    assert bench.bitrate_on(card) == 2222
    assert card.check()[0] == 0
    steps.done("switched off")
    figures["installed, relayed and saved, s"] = steps.took


# --- Everybody at once ---------------------------------------------------------------------------

VIEWERS, BROWSERS = 8, 3  # the ninth place is nimbus-web's
STATUS = b"\x0b"
GROWTH = 128  # kibibytes: a few pages
GAP = 10  # seconds without a picture, at most
PROCESSES = ("nimbus", "nimbus-web")


class Browser(WebSocket):
    """Watches the board's picture."""

    def __init__(self, source):
        super().__init__(Place(8080, BOARD), "/ws/video?form=fmp4", source=source)
        assert self.status == 101

    def read_all(self):
        """How many messages of the picture have come since the last call."""
        count = 0
        while self.waits():
            count += self.read(30)[0] == BINARY
        return count


def resources(machine, unit):
    """What a process may leak: kibibytes of memory, descriptors, threads."""
    process = f"/proc/$(systemctl show -p MainPID --value {unit})"
    said = machine.run(f"grep -hE '^(VmRSS|Threads):' {process}/status; ls {process}/fd | wc -l")
    memory, threads, descriptors = map(int, re.findall(r"\d+", said))
    return memory, descriptors, threads


def longest_gap(frames):
    """The longest time between two pictures, in seconds."""
    times = [frame.time for frame in frames if frame.video]
    return max(after - before for before, after in zip(times, times[1:]))


def live(everybody, browsers, rate):
    """A minute: one steers and saves, and everybody sees the picture and hears the status. How many
    datagrams the viewers had, and the browsers messages; and the longest time without a picture."""
    operator = everybody[0]
    for viewer in everybody:
        del viewer.frames[:]
    operator.command(bench.setting("rcin_pan", rate))
    end, seen = time.monotonic() + 60, [0] * len(browsers)
    while time.monotonic() < end:
        operator.speed(1, 100, -100, 0)
        seen = [count + browser.read_all() for count, browser in zip(seen, browsers)]
        time.sleep(0.1)
    assert operator.settings()["rcin_pan"] == rate
    heard = [list(viewer.frames) for viewer in everybody]
    assert all(any(frame.payload[:1] == STATUS for frame in frames) for frames in heard)
    gap = max(map(longest_gap, heard))
    assert gap < GAP and min(seen) > 0
    return sum(map(len, heard)), sum(seen), gap


@pytest.mark.long
def test_everybody_at_once(boards, disk, card, viewers, times, figures):
    """Memory, descriptors and threads of both processes stay what they were in the first
    minutes."""
    machine = boards(disk, card=card).wait_agent(600)
    bench.wait_service(machine, 600)
    everybody = [viewers(host).join() for host in range(VIEWERS)]
    for viewer in everybody:
        viewer.keep_alive()
    everybody[0].wait_video(300)
    minutes = times(1, 60)
    with contextlib.ExitStack() as ends:
        browsers = [ends.enter_context(Browser(host)) for host in HOSTS[:BROWSERS]]
        for minute in range(2):
            live(everybody, browsers, 10 + minute % 2)
        before = [resources(machine, process) for process in PROCESSES]
        counts = [live(everybody, browsers, 10 + minute % 2) for minute in range(minutes)]
        after = [resources(machine, process) for process in PROCESSES]
    datagrams, messages, gaps = zip(*counts)
    figures["everybody at once"] = {
        "minutes": minutes, "viewers": VIEWERS, "browsers": BROWSERS,
        "datagrams": sum(datagrams), "messages": sum(messages),
        "longest time without a picture, s": round(max(gaps), 1),
        "KiB, descriptors, threads": dict(zip(PROCESSES, zip(before, after)))}
    for then, now in zip(before, after):
        assert now[0] <= then[0] + GROWTH
        assert now[1:] == then[1:]
    restarts = machine.run("systemctl show -p NRestarts --value nimbus nimbus-web").split()
    assert restarts == ["0", "0"]
