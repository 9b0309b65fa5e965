"""The card of an emulated board: an image with one FAT partition, the log of what a machine has
written to it, and every state in which a cut of the power can leave it.

A card may keep what it was sent since the last flush, or any part of it, in any order: what counts
is what was flushed. The log is that of QEMU's blklogwrites, whose format is that of the kernel's
dm-log-writes (Documentation/admin-guide/device-mapper/log-writes.rst).
"""

import dataclasses
import itertools
import os
import pathlib
import random
import re
import struct
import subprocess

SECTOR = 512
START = 2048  # the partition's first sector
DISK_ID = 0xCA4D0001  # PARTUUID=ca4d0001-01


def tool(*command, **options):
    """What a program of the host says; a failure is an exception that shows it."""
    result = subprocess.run([str(word) for word in command], capture_output=True, **options)
    if result.returncode != 0:
        raise RuntimeError(f"{command}: {result.stdout + result.stderr!r}")
    return result.stdout


class Card:
    """An image file."""

    def __init__(self, file):
        self.file = pathlib.Path(file)

    @property
    def _partition(self):
        return f"{self.file}@@{START * SECTOR}"

    def create(self, megabytes=48, files=()):
        """A new card with those files: (name, bytes). FAT32, as that of a board is."""
        sectors = megabytes * 2048 - START
        self.file.write_bytes(b"")
        os.truncate(self.file, megabytes * 1024 * 1024)
        tool("mkfs.vfat", "-F", "32", "-s", "1", "-n", "CARD", "--offset", START, self.file,
             sectors // 2)
        with self.file.open("r+b") as image:
            image.seek(440)
            image.write(struct.pack("<IH", DISK_ID, 0))
            image.write(struct.pack("<B3sB3sII", 0, b"\0\0\0", 0x0C, b"\0\0\0", START, sectors))
            image.seek(510)
            image.write(b"\x55\xAA")
        for name, data in files:
            self.write(name, data)
        return self

    def copy(self, file):
        tool("cp", "--sparse=always", self.file, file)
        return Card(file)

    def write(self, name, data):
        tool("mcopy", "-o", "-i", self._partition, "-", f"::{name}", input=data)

    def read(self, name):
        """The file's bytes, or None when there is none."""
        try:
            return tool("mtype", "-i", self._partition, f"::{name}")
        except RuntimeError:
            return None

    def names(self):
        listed = tool("mdir", "-b", "-a", "-i", self._partition, "::").decode()
        return sorted(line.removeprefix("::/") for line in listed.splitlines() if line)

    def free(self):
        """How many bytes are free."""
        listed = tool("mdir", "-i", self._partition, "::").decode()
        return int(re.search(r"([\d ]+) bytes free", listed)[1].replace(" ", ""))

    def check(self):
        """What the FAT's checker finds, without a repair: (its exit status, its words)."""
        part = self.file.with_suffix(".part")
        tool("dd", f"if={self.file}", f"of={part}", "bs=1M", "skip=1", "conv=sparse")
        result = subprocess.run(["fsck.vfat", "-n", part], capture_output=True, text=True)
        part.unlink()
        return result.returncode, result.stdout

    def spoil(self, sectors, data=b"\xA5"):
        """Fills sectors of the partition."""
        with self.file.open("r+b") as image:
            for sector in sectors:
                image.seek((START + sector) * SECTOR)
                image.write(data * SECTOR)

    def apply(self, writes):
        with self.file.open("r+b") as image:
            for write in writes:
                image.seek(write.sector * SECTOR)
                image.write(write.data)


# --- What was written ----------------------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Write:
    """Bytes at a sector of the whole card."""

    sector: int
    data: bytes


MAGIC, VERSION = 0x6A736677736872, 1
FLUSH, FUA, DISCARD = 1, 2, 4


def read_log(file):
    """What a machine did to its card, in order: a list of Writes, and None for each flush."""
    data = pathlib.Path(file).read_bytes()
    if not any(data[:SECTOR]):
        return []  # nothing was written, or what was written first has not been counted yet
    magic, version, count, size = struct.unpack_from("<QQQI", data)
    assert (magic, version) == (MAGIC, VERSION), f"{file} is no log of writes"
    place, events = size, []
    for _ in range(count):
        if place + size > len(data):
            break  # what was being logged when the machine was killed
        sector, sectors, flags, length = struct.unpack_from("<4Q", data, place)
        place += size
        if flags & FLUSH:
            events.append(None)
        if sectors and not flags & DISCARD:
            if place + sectors * size > len(data):
                break
            events.append(Write(sector * size // SECTOR, data[place:place + sectors * size]))
            place += sectors * size
        assert not flags & FUA, "a write that is flushed alone, which no virtual disk is asked for"
    return events


def epochs(events):
    """The writes between flushes: lists of Writes, the last one never flushed."""
    groups = [[]]
    for event in events:
        if event is None:
            groups.append([])
        else:
            groups[-1].append(event)
    return groups


def single_sectors(writes):
    """The same, a sector at a time: what a card takes whole or not at all."""
    return [Write(write.sector + place // SECTOR, write.data[place:place + SECTOR])
            for write in writes for place in range(0, len(write.data), SECTOR)]


def cut(events, chance):
    """The writes that a card still has when its power went away behind those events: what was
    flushed, and some of what was not. `chance` is a random.Random."""
    groups = epochs(events)
    lasting = [write for group in groups[:-1] for write in group]
    pending = single_sectors(groups[-1])
    share = chance.choice((0.0, 0.1, 0.5, 0.9, 1.0))
    kept = [write for write in pending if chance.random() < share]
    return lasting + kept


def subsets(writes, limit=9):
    """Every set of the writes that a cut can leave, each in the writes' order. Of more than
    `limit` writes: what came first, what came last, all but one, one alone, and 64 by chance."""
    count = len(writes)
    if count <= limit:
        chosen = {sum(1 << n for n in some) for size in range(count + 1)
                  for some in itertools.combinations(range(count), size)}
    else:
        every = (1 << count) - 1
        chosen = {(1 << n) - 1 for n in range(count + 1)}
        chosen |= {every ^ ((1 << n) - 1) for n in range(count + 1)}
        chosen |= {1 << n for n in range(count)} | {every ^ (1 << n) for n in range(count)}
        by_chance = random.Random(count)
        chosen |= {by_chance.getrandbits(count) for _ in range(64)}
    for bits in sorted(chosen):
        yield [write for n, write in enumerate(writes) if bits >> n & 1]


def crash_states(events):
    """Every state in which a cut during those events can leave the card, each as the writes that
    are to be applied to the card of before: each write is there or not, or each of its sectors is.
    States that come out the same are given once."""
    lasting, seen = [], set()
    for group in epochs(events):
        for some in itertools.chain(subsets(group), subsets(single_sectors(group))):
            state = lasting + some
            content = {write.sector: write.data for write in single_sectors(state)}
            key = hash(tuple(sorted(content.items())))
            if key not in seen:
                seen.add(key)
                yield state
        lasting = lasting + group
