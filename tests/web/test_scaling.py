"""Engines that serve more viewers than the web console, with the files of install/examples: what
comes out of each, and how old it is. The film says when its pictures were made."""

import concurrent.futures
import pathlib
import re
import shlex
import shutil
import statistics
import subprocess
import sysconfig
import threading
import time
import urllib.request

import pytest

from harness.timing import limit, wait_until
from chromium import Chromium
from conftest import SECURE_HOST
from film import BITS, CELLS, HEIGHT, ROWS, WIDTH

ROOT = pathlib.Path(__file__).parents[2]
EXAMPLES = ROOT / "install/examples"
DOC = (ROOT / "docs/scaling.md").read_text()
SDP = "/run/nimbus-web/camera.sdp"
PLAYLIST = "http://127.0.0.1:8088/camera.m3u8"
READERS = 200
TOP = ["-vf", f"crop={WIDTH}:{ROWS}:0:0", "-pix_fmt", "gray", "-vsync", "passthrough", "-f",
       "rawvideo", "-"]  # the code's rows of each picture


def made_at(rows):
    """The code of a picture; nothing when it cannot be read."""
    row = rows[WIDTH * ROWS // 2:]
    cell = WIDTH // CELLS
    bits = "".join("1" if row[i * cell + cell // 2] > 128 else "0" for i in range(CELLS))
    return int(bits[2:], 2) if bits.startswith("10") else None


def age_of(rows):
    assert len(rows) == WIDTH * ROWS, "the pictures have ended"
    made = made_at(rows)
    assert made is not None
    return (int(time.time() * 1000) - made) % 2**BITS


@pytest.fixture
def programs():
    """programs(COMMAND...) runs one until the end of the test."""
    running = []

    def run(*command, **options):
        running.append(subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL,
                                        **options))
        return running[-1]

    yield run
    for one in reversed(running):
        if one.stdout:
            one.stdout.close()  # or it may wait for its reader
        one.terminate()
        try:
            one.wait(1)
        except subprocess.TimeoutExpired:
            one.terminate()  # while nothing comes, FFmpeg heeds the second only
            one.wait(limit(10))


@pytest.fixture
def rtp(service, webs):
    pathlib.Path(SDP).parent.mkdir(exist_ok=True)
    return webs("--rtp", "127.0.0.1:5004", "--sdp", SDP)


def ages_of(receiver, size):
    """How old a hundred pictures are, each as soon as a receiver has written it in so many
    bytes."""
    watchdog = threading.Timer(limit(60), receiver.kill)
    watchdog.start()
    try:
        pictures = (receiver.stdout.read(size) for _ in range(100))
        return [age_of(picture[:WIDTH * ROWS]) for picture in pictures]
    finally:
        watchdog.cancel()


def report(record_property, engine, ages):
    """The median goes into the run's report, and is returned."""
    median = statistics.median(ages)
    record_property(f"age_ms_{engine}", median)
    print(f"{engine}: {median:.0f} ms, {min(ages):.0f} to {max(ages):.0f}")
    return median


def command_of(unit):
    """What a unit starts."""
    lines = (EXAMPLES / unit).read_text().splitlines()
    return shlex.split(next(line for line in lines if line.startswith("ExecStart="))[10:])


def documented(start):
    """The words of a command in docs/scaling.md that begins so."""
    return shlex.split(re.search(rf"`({start}[^`]*)`", DOC)[1])


def test_ffmpeg(rtp, programs, film, record_property):
    receiver = programs("ffmpeg", "-nostdin", "-v", "error", "-fflags", "nobuffer", "-flags",
                        "low_delay", "-analyzeduration", "0", "-protocol_whitelist",
                        "file,udp,rtp", "-i", SDP, *TOP, stdout=subprocess.PIPE)
    ages = ages_of(receiver, WIDTH * ROWS)
    # What came while it began is old.
    assert report(record_property, "ffmpeg", ages[50:]) < limit(500)


def test_gstreamer(rtp, programs, film, record_property):
    """The documented line, with a pipe in place of the screen."""
    command = documented("gst-launch-1.0")
    assert command[-1] == "autovideosink"
    receiver = programs(*command[:1], "-q", *command[1:-1], "video/x-raw,format=I420", "!", "fdsink",
                        "fd=1", stdout=subprocess.PIPE)
    ages = ages_of(receiver, WIDTH * HEIGHT * 3 // 2)
    assert report(record_property, "gstreamer", ages[50:]) < limit(500)


def fetch(address):
    with urllib.request.urlopen(address, timeout=limit(10)) as answer:
        return answer.read()


def segments():
    """The names of the playlist's segments; none as long as there is no playlist."""
    try:
        lines = fetch(PLAYLIST).decode().splitlines()
    except OSError:
        return []
    return [line for line in lines if line and not line.startswith("#")]


def first_rows(segment):
    """The code's rows of its first picture."""
    return subprocess.run(["ffmpeg", "-v", "error", "-i", "-", *TOP], input=segment,
                          stdout=subprocess.PIPE, check=True).stdout[:WIDTH * ROWS]


def read_as_a_player():
    """The playlist, and the segment at which a player begins: the third from the end."""
    name = segments()[-3]
    return name, fetch(PLAYLIST.replace("camera.m3u8", name)), time.time()


@pytest.fixture
def hls_folder():
    """What nginx's unit makes."""
    folder = pathlib.Path("/run/nginx-hls")
    folder.mkdir()
    yield folder
    shutil.rmtree(folder)


def test_hls(hls_folder, rtp, programs, film, record_property):
    # Of the namespace's users there may be root alone.
    command = [word.replace("/etc/nimbus", str(EXAMPLES)) for word in command_of("nginx-hls.service")]
    programs(*command[:-1], f"{command[-1]} user root;", stderr=subprocess.DEVNULL)
    wait_until(lambda: 1935 in tcp_ports(), 10, "nginx")
    command = [SDP if word == "/etc/nimbus/camera.sdp" else word
               for word in command_of("nimbus-hls.service")]
    assert SDP in command
    programs(*command, stderr=subprocess.DEVNULL)
    wait_until(lambda: len(segments()) >= 4, 30, "segments")
    with concurrent.futures.ThreadPoolExecutor(READERS) as readers:
        begun = time.monotonic()
        read = list(readers.map(lambda _: read_as_a_player(), range(READERS)))
        took = time.monotonic() - begun
    # Two hundred at once get whole segments.
    by_name = {}
    for name, data, moment in read:
        assert by_name.setdefault(name, (data, moment))[0] == data and len(data) % 188 == 0
    assert len(read) == READERS
    assert_each_picture_was_sent_once(rtp)
    ages = [(int(moment * 1000) - made_at(first_rows(data))) % 2**BITS
            for data, moment in by_name.values()]
    print(f"{READERS} readers in {took:.1f} s")
    assert report(record_property, "hls", ages) < limit(6000)


def assert_each_picture_was_sent_once(web):
    """However many look at it."""
    figures = fetch(web.address(SECURE_HOST) + "metrics").decode()
    number = {name: int(value) for name, value in
              re.findall(r"^(nimbus_(?:web_rtp_)?pictures(?:_dropped)?_total) (\d+)$", figures, re.M)}
    assert number["nimbus_web_rtp_pictures_total"] > 0
    assert number["nimbus_web_rtp_pictures_total"] + \
        number["nimbus_web_rtp_pictures_dropped_total"] == number["nimbus_pictures_total"]


def tcp_ports():
    rows = [row for table in ("tcp", "tcp6")
            for row in pathlib.Path(f"/proc/net/{table}").read_text().splitlines()[1:]]
    return {int(row.split()[1].rpartition(":")[2], 16) for row in rows if row.split()[3] == "0A"}


@pytest.fixture
def janus(links, programs, tmp_path):
    """It wants an interface that is no loopback."""
    link = links(1)
    triplet = sysconfig.get_config_var("MULTIARCH")
    for file in (EXAMPLES / "janus").glob("*.jcfg"):
        text = file.read_text().replace("@TRIPLET@", triplet)
        (tmp_path / file.name).write_text(text.replace("/etc/nimbus/janus", str(tmp_path)))
    command = [word.replace("/etc/nimbus/janus", str(tmp_path))
               for word in command_of("nimbus-janus.service")]
    programs(*command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_until(lambda: 8188 in tcp_ports(), 10, "Janus")
    return f"http://{link.near}:8188/janus"


def test_janus(rtp, janus, film, record_property):
    browser = Chromium()
    try:
        browser.open(f"{(EXAMPLES / 'janus/player.html').as_uri()}?janus={janus}")
        browser.wait("return document.querySelector('#video').videoWidth > 0", seconds=20)
        time.sleep(limit(1))
        ages = browser.ages("#video", 60)
    finally:
        browser.close()
    assert -1 not in ages
    assert report(record_property, "janus", ages) < limit(1000)
