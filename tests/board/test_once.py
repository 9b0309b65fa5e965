"""A board of any architecture, from a fresh root to a saved setting, in one boot: what an emulated
ARM processor can do in a few minutes; and an hour of everybody at once."""

import re
import time

import bench
import pytest
from card import Card
from harness.web import BINARY, WebSocket
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
    machine.run("systemctl restart nimbus", 120)
    assert viewer.join().settings()["vbitrate"] == 2222
    assert machine.run("systemctl show -p NRestarts --value nimbus").strip() == "0"
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
PROCESSES = ("nimbus", "nimbus-web")


class BoardWeb:
    """The board's nimbus-web."""

    address, port, secure = BOARD, 8080, False
    host = f"{BOARD}:8080"


class Browser(WebSocket):
    """Watches the board's picture."""

    def __init__(self, source):
        super().__init__(BoardWeb, "/ws/video?form=fmp4", source=source)
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


def live(everybody, browsers, rate):
    """A minute: one steers and saves, and everybody sees the picture and hears the status. How many
    datagrams the viewers had, and the browsers messages."""
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
    for frames in heard:
        assert any(frame.video for frame in frames)
        assert any(frame.payload[:1] == STATUS for frame in frames)
    assert min(seen) > 0
    return sum(map(len, heard)), sum(seen)


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
    browsers = [Browser(host) for host in HOSTS[:BROWSERS]]
    minutes = times(1, 60)
    for minute in range(2):
        live(everybody, browsers, 10 + minute % 2)
    before = [resources(machine, process) for process in PROCESSES]
    counts = [live(everybody, browsers, 10 + minute % 2) for minute in range(minutes)]
    after = [resources(machine, process) for process in PROCESSES]
    figures["everybody at once"] = {
        "minutes": minutes, "viewers": VIEWERS, "browsers": BROWSERS,
        "datagrams, messages": [sum(some) for some in zip(*counts)],
        "KiB, descriptors, threads": dict(zip(PROCESSES, zip(before, after)))}
    for then, now in zip(before, after):
        assert now[0] <= then[0] + GROWTH
        assert now[1:] == then[1:]
    assert machine.run("systemctl show -p NRestarts --value nimbus nimbus-web").split() == ["0", "0"]
