"""Boards that stop in their boot before they look at the card, kept in files: the next boot from
there begins in a second, with any card."""

import bench
from card import Card
from machine import Machine, make_disk

# The boot goes on without the card, up to the service, which waits for it; what is left then is the
# card's own.
NOFAIL = ",nofail,x-systemd.device-timeout=600s"
LAYOUTS = {
    "firmware": ("/boot/firmware", "defaults"),
    "firmware-ro": ("/boot/firmware", "defaults,ro"),
    "firmware-uid": ("/boot/firmware", "defaults,uid=1000"),
    "boot-ro": ("/boot", "defaults,ro"),
    "boot": ("/boot", "defaults"),
    "boot-uid": ("/boot", "defaults,uid=1000"),
}


class Held:
    """The boards of one test run, by layout."""

    def __init__(self, image, installed, luggage, folder):
        self._image, self._installed, self._luggage = image, installed, luggage
        self._folder = folder
        self._kept = {}

    def _keep(self, layout):
        """Boots a board of that layout, and keeps it: (the file of its memory, its disk)."""
        folder = self._folder / f"held-{layout}"
        if (folder / "memory").exists():
            return folder / "memory", folder / "disk.qcow2"
        folder.mkdir(exist_ok=True)
        disk = make_disk(self._installed, folder / "disk.qcow2")
        card = Card(folder / "card.img").create(files=bench.CARD_FILES)
        mount, options = LAYOUTS[layout]
        machine = Machine(self._image, disk, folder, card=card, luggage=self._luggage, hold=True,
                          mount=mount, options=options + NOFAIL, log=folder / "log")
        with machine.until_a_failure():
            machine.wait_agent()
            # Nothing else is on its way any more.
            machine.wait("systemctl list-jobs --no-legend | grep -v waiting >/run/jobs;"
                         " grep -q board-hold /run/jobs && ! grep -vq board-hold /run/jobs", 300)
            machine.save_state(folder / "saving")
        (folder / "saving").rename(folder / "memory")
        return folder / "memory", disk

    def boot(self, layout, card):
        """A board of that layout that stands before its card; go() lets it go on."""
        if layout not in self._kept:
            self._kept[layout] = self._keep(layout)
        memory, disk = self._kept[layout]
        folder = self._folder / "restored"
        folder.mkdir(exist_ok=True)
        own = make_disk(disk, folder / "disk.qcow2")
        mount, options = LAYOUTS[layout]
        return Machine(self._image, own, folder, card=card, hold=True, luggage=self._luggage,
                       mount=mount, options=options + NOFAIL, state=memory, log=folder / "log")
