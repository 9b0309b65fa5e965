"""Films: what nimbusctl video --mp4 writes, as FFmpeg judges it."""

import json
import os
import pty
import re
import signal
import subprocess
import time

import pytest

from harness.service import EMULATOR
from harness.timing import limit, wait_until


@pytest.fixture(scope="module")
def stream(tmp_path_factory):
    """Six seconds of H.264, 10 pictures a second, a key picture each second."""
    path = tmp_path_factory.mktemp("stream") / "stream.h264"
    subprocess.run(["ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i", "testsrc2=s=320x180:r=10", "-t",
                    "6", "-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-g", "10",
                    "-x264-params", "aud=1", "-f", "h264", path], check=True)
    return path


@pytest.fixture
def camera(build, service, stream, processes):
    processes([*EMULATOR, build / "nimbus-sim", "--video", stream, "--fps", "10"],
              stdout=subprocess.DEVNULL)
    service.err.wait("Video found")


@pytest.fixture
def filming(build, processes):
    """filming(ARGUMENT...) runs nimbusctl video."""
    return lambda *arguments, **streams: processes(
        [*EMULATOR, build / "nimbusctl", "--timeout", f"{limit(3)}s", "video",
         *map(str, arguments)], text=True,
        **(streams or {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE}))


@pytest.fixture
def film(filming):
    """film(ARGUMENT...) does so to its end: status, standard output, standard error."""

    def run(*arguments):
        process = filming(*arguments)
        out, err = process.communicate(timeout=limit(20))
        return process.returncode, out, err

    return run


def probe(path):
    """The stream, and when each picture is shown and how long: seconds. No decoder complains."""
    done = subprocess.run(["ffprobe", "-v", "error", "-show_streams", "-show_packets", "-of", "json",
                           path], capture_output=True, text=True, check=True, timeout=limit(20))
    assert done.stderr == ""
    found = json.loads(done.stdout)
    decoded = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-vsync", "vfr", "-f", "null", "-"],
                             capture_output=True, text=True, check=True, timeout=limit(20))
    assert decoded.stderr == ""
    packets = [(float(p["pts_time"]), float(p["duration_time"]), p["flags"][0] == "K")
               for p in found["packets"]]
    return found["streams"][0], packets


def test_film(film, camera, tmp_path):
    path = tmp_path / "film.mp4"
    status, out, err = film("--mp4", path, "--seconds", 4)
    assert (status, out) == (0, ""), err
    stream, packets = probe(path)
    assert (stream["codec_name"], stream["width"], stream["height"]) == ("h264", 320, 180)
    assert len(packets) >= 15 and packets[0][0] == 0 and packets[0][2]
    assert err.splitlines()[-1] == (
        f"{path}: {len(packets)} pictures, {packets[-1][0] + packets[-1][1]:.1f} s, "
        f"{path.stat().st_size} bytes")


@pytest.mark.timing
def test_times_are_true(filming, service, video, stream, tmp_path):
    """A pause of the camera is one in the film: the picture before it stays."""
    path = tmp_path / "film.mp4"
    start_code = b"\0\0\0\1\x09"  # of the unit that stands before each picture
    pictures = [start_code + part for part in stream.read_bytes().split(start_code)[1:]]
    run = filming("--mp4", path)
    service.err.wait("New client connected")
    moments = []
    for number, picture in enumerate(pictures[:30]):
        time.sleep(1.2 if number == 15 else 0.05)
        moments.append(time.monotonic())
        for at in range(0, len(picture), 1400):
            video.send(picture[at:at + 1400])
    time.sleep(0.3)
    run.send_signal(signal.SIGINT)
    _, err = run.communicate(timeout=limit(10))
    assert run.returncode == 0, err
    _, packets = probe(path)
    assert len(packets) == 29  # what would tell the end of the last one has not come
    for moment, (at, _, _) in zip(moments, packets):
        assert abs(moment - moments[0] - at) < limit(0.05)
    assert 1.15 <= packets[15][0] - packets[14][0] <= 1.2 + limit(0.1)


def test_a_killed_writer_leaves_a_film(filming, camera, tmp_path):
    path = tmp_path / "film.mp4"
    run = filming("--mp4", path)
    wait_until(lambda: path.exists() and path.stat().st_size > 50_000, 10, "the film")
    run.kill()
    run.wait()
    _, packets = probe(path)
    assert len(packets) >= 3


def test_split(filming, camera, tmp_path):
    names = ["film.mp4", "film-2.mp4", "film-3.mp4"]
    run = filming("--mp4", tmp_path / "film.mp4", "--split", 1)
    last = tmp_path / names[-1]
    wait_until(lambda: last.exists() and last.stat().st_size > 3000, 15, "the third film")
    run.send_signal(signal.SIGINT)
    _, err = run.communicate(timeout=limit(10))
    assert run.returncode == 0, err
    for name in names:
        _, packets = probe(tmp_path / name)
        assert packets[0][2] and packets[0][0] == 0
    lengths = [float(one) for one in re.findall(r" pictures, ([\d.]+) s, ", err)]
    assert len(lengths) >= 3 and all(1 <= one <= limit(4) for one in lengths[:2])


def test_nothing_is_written_over(film, camera, tmp_path):
    path = tmp_path / "film.mp4"
    path.write_text("mine")
    status, _, err = film("--mp4", path, "--seconds", 5)
    assert status == 1 and path.read_text() == "mine"
    assert err == (f"nimbusctl: cannot make {path}: File exists; expected a new file in a folder that "
                   "can be written\n")


def test_a_full_disk(film, camera, tmp_path):
    folder = tmp_path / "disk"
    folder.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=12m", "disk", folder], check=True,
                   env={**os.environ, "PATH": "/usr/bin:/bin"})
    try:
        status, _, err = film("--mp4", folder / "film.mp4", "--seconds", 5)
    finally:
        subprocess.run(["umount", "--lazy", folder], check=True,
                       env={**os.environ, "PATH": "/usr/bin:/bin"})
    assert status == 1 and err.count("\n") == 1
    assert err.startswith("nimbusctl: no space is left for more; expected at least 16 MiB; ")


def test_a_disk_that_fills(filming, camera, tmp_path):
    """Others fill it meanwhile: the film ends before it is full, and plays."""
    folder = tmp_path / "disk"
    folder.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=24m", "disk", folder], check=True,
                   env={**os.environ, "PATH": "/usr/bin:/bin"})
    path = folder / "film.mp4"
    try:
        run = filming("--mp4", path)
        wait_until(lambda: path.exists() and path.stat().st_size > 50_000, 10, "the film")
        (folder / "other").write_bytes(bytes(10 * 1024 * 1024))
        _, err = run.communicate(timeout=limit(10))
        _, packets = probe(path)
    finally:
        subprocess.run(["umount", "--lazy", folder], check=True,
                       env={**os.environ, "PATH": "/usr/bin:/bin"})
    assert run.returncode == 1 and len(packets) >= 3
    assert re.fullmatch(r"nimbusctl: no space is left for more; expected at least 16 MiB; "
                        rf"{path}: \d+ pictures, [\d.]+ s, \d+ bytes\n", err)


def test_progress_on_a_terminal(filming, camera, tmp_path):
    """One line, written over and over again, with what has been written."""
    ours, theirs = pty.openpty()
    run = filming("--mp4", tmp_path / "film.mp4", "--seconds", 3, stderr=theirs)
    assert run.wait(limit(20)) == 0
    said = os.read(ours, 65536).decode()
    os.close(ours)
    os.close(theirs)
    shown = [int(count) for count in re.findall(r"\r\x1b\[K\S+: (\d+) pictures", said)]
    assert said.count("\n") == 1 and len(shown) >= 5, said
    assert shown == sorted(shown) and shown[-1] > shown[0]


def test_no_video(film, service, tmp_path):
    path = tmp_path / "film.mp4"
    status, _, err = film("--mp4", path, "--seconds", 0.5)
    assert status == 1 and not path.exists()
    assert err == ("nimbusctl: no picture came to begin with; expected a camera that sends video\n")


def test_split_needs_a_film(film):
    status, _, err = film("--split", "10m")
    assert status == 1
    assert err == "nimbusctl: --split requires --mp4; nimbusctl --help tells what is expected\n"
