"""Saves on a board whose boot partition or whose /run is full, read-only or gone."""

import contextlib
import os
import pathlib
import subprocess

import pytest

from harness.config_file import CARD_FILE, QUOTED, WORKING_COPY, default_file, without_cr
from harness.configuring import SAVE, Board

FORMER = b"former copy"
STANDINS = os.environ.get("NIMBUS_STANDINS", "")
PAGE = 4096  # what a small file system is full by

# Texts as long as they get; the file fills a page all the same.
TEXTS = {key: f'"{key:_>180}"' for key in QUOTED}


def saved(rate):
    """The file with that bit rate."""
    return default_file(rc_input_enabled=0, video_bitrate=rate, **TEXTS)


OLD = saved(1234)


@contextlib.contextmanager
def mounted(where, *options):
    """Mounts something there, by the system's own tools: the names are those of the stand-ins."""
    subprocess.run(["/bin/mount", *options, where], check=True)
    try:
        yield
    finally:
        # A command of the service may have a stand-in's file open at this moment.
        subprocess.run(["/bin/umount", "--lazy", where], check=True)


@contextlib.contextmanager
def small(where):
    """A small file system there. What the stand-ins need in /run is taken along."""
    with contextlib.ExitStack() as mounts:
        aside = pathlib.Path("/dev/shm/standins")
        if where == "/run":
            aside.mkdir()
            mounts.callback(aside.rmdir)
            mounts.enter_context(mounted(str(aside), "--bind", STANDINS))
        mounts.enter_context(mounted(where, "-t", "tmpfs", "-o", "size=16k", "test"))
        if where == "/run":
            pathlib.Path(STANDINS).mkdir()
            mounts.enter_context(mounted(STANDINS, "--bind", str(aside)))
        yield


def fill(folder, spare=0):
    """Leaves so many pages free."""
    file = pathlib.Path(folder, "filler")
    with file.open("wb", buffering=0) as filler, contextlib.suppress(OSError):
        while True:
            filler.write(bytes(PAGE))
    os.truncate(file, file.stat().st_size - PAGE * spare)


def fill_beside_settings(spare):
    CARD_FILE.write_bytes(OLD)
    fill("/boot", spare)


def fill_beside_an_empty_copy():
    """A copy that is rewritten has the room of the former one at least."""
    WORKING_COPY.write_bytes(b"")
    fill("/run")


def remount(where, options):
    subprocess.run(["/bin/mount", "-o", f"remount,{options}", where], check=True)


def take_away(standins):
    """The partition is not there again after it was unmounted."""
    standins.answer("umount", f"rm -f {CARD_FILE}")


# What is done to the board, and what is then in the card's file and in the working copy after a
# save of `file`. None: no file.
FAULTS = {
    "boot is read-only": (
        "/boot", lambda _: remount("/boot", "ro"), lambda file: (None, FORMER)),
    "boot is full": (
        "/boot", lambda _: fill("/boot"), lambda file: (None, FORMER)),
    "boot is full, with settings on it": (
        "/boot", lambda _: fill_beside_settings(0), lambda file: (OLD, without_cr(OLD))),
    "boot has just the room for a new file": (
        "/boot", lambda _: fill_beside_settings(1), lambda file: (file, without_cr(file))),
    "boot does not come back": (
        "/boot", take_away, lambda file: (None, b"")),
    "run is read-only": (
        "/run", lambda _: remount("/run", "ro"), lambda file: (file, FORMER)),
    "run is full": (
        "/run", lambda _: fill_beside_an_empty_copy(), lambda file: (file, b"")),
    "run is nearly full": (
        "/run", lambda _: fill("/run"), lambda file: (file, without_cr(file)[:PAGE])),
}


def content(file):
    return file.read_bytes() if file.exists() else None


@pytest.mark.parametrize("where, spoil, files", FAULTS.values(), ids=[name.replace(" ", "-") for name in FAULTS])
def test_save_does_what_it_can(boards, standins, times, where, spoil, files):
    """And no more: the record has the new values, the service goes on, and the first save on a
    board in order is whole."""
    rounds = times(5, 100)
    board = boards("".join(f"{key}={text}\n" for key, text in TEXTS.items()))
    board.viewer.keep_alive()
    before = board.report()
    with small(where):
        WORKING_COPY.write_bytes(FORMER)
        spoil(standins)
        for rate in range(1, rounds + 1):
            _, said = board.update("video_bitrate", str(rate))
            assert said.count("Save config\n") == 1
            assert (content(CARD_FILE), content(WORKING_COPY)) == files(saved(rate))
            assert board.report() == {**before, "vbitrate": rate}
    standins.reset("umount")
    board.update("video_bitrate", "4000")
    assert (content(CARD_FILE), content(WORKING_COPY)) == (saved(4000), without_cr(saved(4000)))
    assert board.report() == {**before, "vbitrate": 4000}
    print(f"\nspoilt board: {rounds} saves, the record as it should be after each")


def test_full_card_without_settings_is_mounted_again(boards):
    """Whatever came of the save, the card does not stay writable."""
    board = boards()
    board.calls()
    with small("/boot"):
        fill("/boot")
        board.update("video_bitrate", "1")
    assert board.calls()[:len(SAVE)] == SAVE


# The system without that one folder.
NO_BOOT = """
set -e
world=$1 folder=$PWD
shift
for entry in /*; do
  if [ -L "$entry" ]; then cp -P "$entry" "$world"; continue; fi
  if [ "$entry" = /boot ] || [ ! -d "$entry" ]; then continue; fi
  mkdir "$world$entry"
  /bin/mount --rbind "$entry" "$world$entry"
done
exec /usr/sbin/chroot "$world" /bin/sh -c 'cd "$1" && shift && exec "$@"' sh "$folder" "$@"
"""


def test_no_boot_partition(start, viewers, standins, tmp_path, times):
    """Not even its folder: as on a board whose card is read-only, and no folder is made."""
    rounds = times(5, 100)
    world = tmp_path / "world"
    world.mkdir()
    board = Board(lambda conf: start(conf, wrapper=[
        "unshare", "--mount", "sh", "-c", NO_BOOT, "sh", str(world)]), viewers(), standins, tmp_path, "")
    before = board.report()
    WORKING_COPY.write_bytes(FORMER)
    for rate in range(1, rounds + 1):
        _, said = board.update("video_bitrate", str(rate))
        assert said.count("Save config\n") == 1
        assert board.report() == {**before, "vbitrate": rate}
    assert WORKING_COPY.read_bytes() == FORMER
    assert not pathlib.Path(f"/proc/{board.service.pid}/root/boot").exists()
    assert not CARD_FILE.exists()
    print(f"\nno boot partition: {rounds} saves, the record as it should be after each")
