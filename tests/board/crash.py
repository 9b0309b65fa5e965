"""Every state in which a cut of the power can leave a card: checked and repaired as a boot does,
and gone over by the start step, in the sandbox."""

import collections
import hashlib
import os
import pathlib
import re
import shutil
import subprocess

import bench
from card import SECTOR, START, crash_states, single_sectors, tool

INSTALL = pathlib.Path(__file__).resolve().parents[2] / "install"
START_STEP = INSTALL / "scripts" / "before-start.sh"
WORKING_COPY = pathlib.Path("/run/tervado.conf")
# What the check of a boot makes of clusters that belong to no file.
FOUND_CLUSTERS = re.compile(r"FSCK\d{4}\.REC")
COPIES = bench.BESIDE - {bench.NAME, "config.txt"}
REPAIRS = {0: "need no repair", 1: "are repaired"}


def brief(files):
    """Files as a message shows them."""
    return {name: f"{len(content)} bytes {hashlib.md5(content).hexdigest()[:6]}"
            for name, content in files.items()}


def kind_of(files):
    """What tells cards apart for the start step: it never looks into what was on its way."""
    return tuple(sorted((name, b"" if name.endswith((".new", ".REC")) else content)
                        for name, content in files.items()))


class Partition:
    """A card's FAT file system in a file of its own."""

    def __init__(self, file):
        self.file = file

    @classmethod
    def of(cls, card, file):
        tool("dd", f"if={card.file}", f"of={file}", f"bs={SECTOR}", f"skip={START}", "conv=sparse")
        return cls(file)

    def copy(self, file):
        tool("cp", self.file, file)
        return Partition(file)

    def card(self, like, file):
        """A copy of that card which has this partition."""
        card = like.copy(file)
        tool("dd", f"if={self.file}", f"of={file}", f"bs={SECTOR}", f"seek={START}", "conv=notrunc")
        return card

    def apply(self, writes):
        with self.file.open("r+b") as image:
            for write in writes:
                image.seek((write.sector - START) * SECTOR)
                image.write(write.data)

    def repair(self):
        """What the check of a boot does: its exit status."""
        return subprocess.run(["fsck.vfat", "-a", self.file], capture_output=True).returncode

    def files(self, folder):
        """The content of each file, by its name; None when one of them cannot be read."""
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir()
        result = subprocess.run(["mcopy", "-s", "-n", "-i", self.file, "::", folder],
                                capture_output=True, stdin=subprocess.DEVNULL)
        if result.returncode != 0:
            return None
        return {file.name: file.read_bytes() for file in folder.iterdir()}


class Promise:
    """What may be on the card after a cut: of each file what it was before, or afterwards."""

    def __init__(self, before, after):
        self.files = {name: {before.get(name), after.get(name)} for name in before | after}
        self.settings = {bench.without_cr(content) for content in self.files[bench.NAME]
                         if content is not None}

    def hold(self, what, found):
        """Each file is what it was before or afterwards; but for copies, of which there is another,
        and for files that come or go, which may be empty."""
        for name, contents in self.files.items():
            if name in COPIES or (None in contents and found.get(name) == b""):
                continue
            assert found.get(name) in contents, f"{what}: {name} of {brief(found)}"
        left = {name for name in found.keys() - self.files.keys() - bench.BESIDE
                if not FOUND_CLUSTERS.fullmatch(name)}
        assert not left, f"{what}: there is {left}"


class StartStep:
    """The start step of a board that has just been switched on, on a card in `mount`."""

    def __init__(self, mount, folder):
        self._mount = pathlib.Path(mount)
        # What this machine itself mounts is no board's.
        self._environment = {**os.environ, "PATH": f"{folder}:{os.environ['PATH']}",
                             "LIBMOUNT_FSTAB": "/dev/null"}
        if mount != "/boot":
            self._let_boot_be_a_folder(folder)
            self._mount.mkdir(exist_ok=True)
            tool("/usr/bin/mount", "-t", "tmpfs", "card", mount)

    @staticmethod
    def _let_boot_be_a_folder(folder):
        """The sandbox has something mounted there."""
        folder.mkdir(exist_ok=True)
        program = folder / "mountpoint"
        program.write_text('#!/bin/sh\nfor last; do :; done\n'
                           '[ "$last" != /boot ] && exec /usr/bin/mountpoint "$@"\n')
        program.chmod(0o755)

    def close(self):
        self._clear()
        if str(self._mount) != "/boot":
            tool("/usr/bin/umount", self._mount)
            pathlib.Path("/boot", bench.NAME).unlink(missing_ok=True)
            self._mount.rmdir()

    def _clear(self):
        for file in [*self._mount.iterdir(), *pathlib.Path("/run").glob("tervado.*")]:
            file.unlink()

    def run(self, files):
        """Runs it on a card with those files: (the settings for the service, the card's files)."""
        self._clear()
        for name, content in files.items():
            (self._mount / name).write_bytes(content)
        subprocess.run([START_STEP], env=self._environment, check=True, capture_output=True)
        left = {file.name: file.read_bytes() for file in self._mount.iterdir()}
        return WORKING_COPY.read_bytes(), left


class States:
    """All states between a card before and the same card afterwards."""

    def __init__(self, before, after, events):
        self._work = pathlib.Path("/run/states")
        shutil.rmtree(self._work, ignore_errors=True)
        self._work.mkdir()
        self._events, self._card = events, before
        self._before = Partition.of(before, self._work / "before")
        after = Partition.of(after, self._work / "after")
        self._promise = Promise(*(one.files(self._work / "files")
                                  for one in (self._before, after)))

    def wear(self):
        """What the change costs the card."""
        writes = [event for event in self._events if event]
        return {"bytes written": sum(len(write.data) for write in writes),
                "sectors written": len({write.sector for write in single_sectors(writes)}),
                "flushes": sum(event is None for event in self._events)}

    def _state(self, writes):
        state = self._before.copy(self._work / "state")
        state.apply(writes)
        return state

    def _boot(self, writes, boot):
        """Boots a card in that state: it starts with settings that were promised."""
        rate = boot(self._state(writes).card(self._card, self._work / "card"))
        assert rate in map(bench.bitrate_in, self._promise.settings), rate

    def check(self, mount, boot=None):
        """Holds every state to what was promised: the counts of them. Of each kind of cards one is
        booted, too, by boot(card), which returns the bit rate of the service then."""
        step = StartStep(mount, self._work / "bin")
        found, gone_over = collections.Counter(), set()
        try:
            for number, writes in enumerate(crash_states(self._events)):
                what, state, kinds = f"state {number}", self._state(writes), len(gone_over)
                found["states"] += 1
                # A board may be without the check, too, which sees to what cannot be read.
                unrepaired = state.files(self._work / "files")
                found["cannot be read whole without repair"] += unrepaired is None
                repair = state.repair()
                assert repair in REPAIRS, f"{what}: fsck.vfat ended with {repair}"
                found[REPAIRS[repair]] += 1
                repaired = state.files(self._work / "files")
                found["leave clusters of no file"] += any(map(FOUND_CLUSTERS.fullmatch, repaired))
                for files in [unrepaired or repaired, repaired]:
                    kind = kind_of(files)
                    if kind not in gone_over:
                        gone_over.add(kind)
                        self._start(what, step, files)
                if boot and len(gone_over) > kinds:
                    self._boot(writes, boot)
                    found["booted"] += 1
        finally:
            step.close()
        return {**found, "gone over by the start step": len(gone_over)}

    def _start(self, what, step, files):
        """Files of a card go through the start step."""
        self._promise.hold(what, files)
        settings, left = step.run(files)
        assert settings in self._promise.settings, f"{what}: {settings[:200]} of {brief(files)}"
        self._promise.hold(f"{what}, started", left)
