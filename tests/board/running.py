"""Boards that have booted and relay, kept in files: a test goes on from there within seconds, and
as often as it likes, with a copy of the card as it was then."""

import bench
from card import Card
from machine import Machine, make_disk

LAYOUTS = {
    "firmware": ("/boot/firmware", "defaults"),
    "boot": ("/boot", "defaults,ro"),
}


class Running:
    """The boards of one test run, by layout."""

    def __init__(self, image, installed, luggage, folder):
        self._image, self._installed, self._luggage = image, installed, luggage
        self._folder = folder

    def _machine(self, layout, folder, disk, card, **options):
        mount, card_options = LAYOUTS[layout]
        return Machine(self._image, disk, folder, card=card, luggage=self._luggage, mount=mount,
                       options=card_options, **options)

    def _keep(self, layout):
        """The folder of a board of that layout, which is booted once."""
        folder = self._folder / f"running-{layout}"
        if (folder / "memory").exists():
            return folder
        folder.mkdir(exist_ok=True)
        disk = make_disk(self._installed, folder / "disk.qcow2")
        card = Card(folder / "card.img").create(
            files=[*bench.CARD_FILES, (bench.NAME, bench.OLD)])
        machine = self._machine(layout, folder, disk, card, log=folder / "log")
        with machine.until_a_failure():
            machine.wait_agent()
            bench.wait_service(machine, 300)
            machine.run("sync; sleep 1; sync")
            machine.save_state(folder / "saving")
        (folder / "saving").rename(folder / "memory")
        return folder

    def go_on(self, layout, card_file, log):
        """A board that goes on from there: (the machine, its card of its own)."""
        kept = self._keep(layout)
        folder = self._folder / "going-on"
        folder.mkdir(exist_ok=True)
        disk = make_disk(kept / "disk.qcow2", folder / "disk.qcow2")
        card = Card(kept / "card.img").copy(card_file)
        return self._machine(layout, folder, disk, card, log=log, state=kept / "memory"), card
