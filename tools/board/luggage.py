"""What a board is given to install: a disk with packages, and a moving picture for the bridge."""

import shutil
import subprocess

PICTURE = ["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=5:duration=4",
           "-c:v", "libx264", "-bf", "0", "-f", "h264"]


def newest(packages, architecture):
    """The last made of each package in a folder: its file by its name."""
    files = sorted(packages.glob(f"nimbus*_{architecture}.deb"),
                   key=lambda file: file.stat().st_mtime)
    return {file.name.partition("_")[0]: file for file in files}


def pack(packages, architecture, folder, more=lambda inside: None):
    """Makes the disk in the folder; `more` adds what else shall be in it."""
    inside, disk = folder / "luggage", folder / "luggage.img"
    inside.mkdir()
    for package in newest(packages, architecture).values():
        shutil.copy(package, inside)
    subprocess.run([*PICTURE, inside / "video.h264"], check=True)
    more(inside)
    with disk.open("wb") as file:
        file.truncate(64 << 20)
    subprocess.run(["mke2fs", "-q", "-F", "-t", "ext4", "-d", inside, disk], check=True)
    return disk
