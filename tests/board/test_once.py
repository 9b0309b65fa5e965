"""A board of any architecture, from a fresh root to a saved setting, in one boot: what an emulated
ARM processor can do in a few minutes."""

import time

import bench
from card import Card
from machine import make_disk


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
