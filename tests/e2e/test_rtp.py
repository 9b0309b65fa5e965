"""The picture as RTP: what FFmpeg and GStreamer decode of it is, picture by picture, what the
camera coded."""

import base64
import hashlib
import json
import pathlib
import re
import shutil
import socket
import subprocess
import time
import urllib.request

import pytest

from harness.far_network import run
from harness.service import EMULATOR
from harness.timing import limit, wait_until
from harness.udp import bound_ports

ROOT = pathlib.Path(__file__).resolve().parents[2]
PICTURES = 30  # of the stream: 10 a second, a key picture each second
GROUP = 10
WIDTH, HEIGHT = 320, 180
RTP_PORT = 5004
WEB_PORT = 8080
START_CODE = b"\0\0\0\1"


@pytest.fixture(scope="module")
def stream(tmp_path_factory):
    """Key pictures of more than one packet, several slices in each picture."""
    path = tmp_path_factory.mktemp("stream") / "stream.h264"
    subprocess.run(["ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i",
                    f"testsrc2=s={WIDTH}x{HEIGHT}:r=10", "-frames:v", str(PICTURES), "-c:v", "libx264",
                    "-preset", "ultrafast", "-tune", "zerolatency", "-g", str(GROUP), "-x264-params",
                    "aud=1:slices=2", "-f", "h264", path], check=True)
    return path


@pytest.fixture(scope="module")
def source(stream):
    """The checksums of its pictures."""
    return checksums(subprocess.run(["ffmpeg", "-loglevel", "error", "-i", stream, "-f", "framemd5",
                                     "-"], check=True, capture_output=True, text=True).stdout)


def checksums(framemd5):
    return [line.split(",")[-1].strip() for line in framemd5.splitlines() if not line.startswith("#")]


class Camera:
    """Begins once a receiver is there, and goes on beside the test."""

    def __init__(self, build, stream):
        self.command = [*EMULATOR, build / "nimbus-sim", "--video", stream, "--fps", "10"]
        self.run = None

    def start(self):
        self.run = subprocess.Popen(self.command, stdout=subprocess.DEVNULL)

    def close(self):
        if self.run:
            self.run.kill()
            self.run.wait()


@pytest.fixture
def camera(build, service, stream):
    one = Camera(build, stream)
    yield one
    one.close()


class Console:
    """nimbus-web with more options."""

    def __init__(self, run):
        self.run = run
        wait_until(self.answers, 10, "the web console")

    @staticmethod
    def answers():
        with socket.socket() as one:
            return one.connect_ex(("127.0.0.1", WEB_PORT)) == 0

    @staticmethod
    def state():
        with urllib.request.urlopen(f"http://127.0.0.1:{WEB_PORT}/api/state", timeout=limit(5)) as one:
            return json.load(one)

    @staticmethod
    def metric(name):
        with urllib.request.urlopen(f"http://127.0.0.1:{WEB_PORT}/metrics", timeout=limit(5)) as one:
            return float(re.search(rf"^{name} (\S+)$", one.read().decode(), re.MULTILINE)[1])


@pytest.fixture
def console(build, processes):
    """console(OPTION...) is a Console until the end of the test."""
    return lambda *options: Console(processes(
        [*EMULATOR, build / "nimbus-web", "--listen", f"127.0.0.1:{WEB_PORT}", *options],
        stderr=subprocess.PIPE))


def listening(port):
    return port in bound_ports()


def assert_from_a_key_picture(pictures, source):
    """Each is the next one of the source, over and over again, from a key picture on."""
    first = source.index(pictures[0])
    assert first % GROUP == 0
    assert pictures == [source[(first + i) % len(source)] for i in range(len(pictures))]


# Where a camera that is held up in the middle of a picture has it torn, those marked are no fair
# judges.
@pytest.mark.timing
def test_ffmpeg(camera, console, source, tmp_path):
    sdp = tmp_path / "camera.sdp"
    console("--rtp", f"127.0.0.1:{RTP_PORT}", "--sdp", sdp)
    receiver = subprocess.Popen(
        ["ffmpeg", "-loglevel", "error", "-protocol_whitelist", "file,udp,rtp", "-i", sdp,
         "-frames:v", "25", "-vsync", "passthrough", "-f", "framemd5", "-"],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        wait_until(lambda: listening(RTP_PORT), 10, "FFmpeg")
        camera.start()
        out, err = receiver.communicate(timeout=limit(20))
    finally:
        receiver.kill()
    pictures = checksums(out)
    assert (len(pictures), err) == (25, "")
    assert_from_a_key_picture(pictures, source)


def described(sdp):
    """The parameter sets that the file tells, with start codes; none as long as it has none."""
    told = re.search(r"sprop-parameter-sets=(\S+)", sdp.read_text())
    if told is None:
        return b""
    return b"".join(START_CODE + base64.b64decode(one) for one in told[1].split(","))


def without_sets(stream):
    units = [unit for unit in re.split(rb"\x00\x00\x00?\x01", stream.read_bytes()) if unit]
    return b"".join(START_CODE + unit for unit in units if unit[0] & 0x1F not in (7, 8))


def test_description_has_the_streams_parameter_sets(camera, console, stream, source, tmp_path):
    """They are not known at the start. What a decoder needs beside the pictures is there then."""
    sdp = tmp_path / "camera.sdp"
    console("--rtp", f"127.0.0.1:{RTP_PORT}", "--sdp", sdp)
    assert described(sdp) == b""
    camera.start()
    wait_until(lambda: described(sdp), 10, "parameter sets")
    assert re.search(r";profile-level-id=42C0[0-9A-F]{2};", sdp.read_text())
    decoded = subprocess.run(["ffmpeg", "-loglevel", "error", "-f", "h264", "-i", "-", "-f",
                              "framemd5", "-"], input=described(sdp) + without_sets(stream),
                             check=True, capture_output=True)
    assert checksums(decoded.stdout.decode()) == source


def test_description_that_cannot_be_written_any_more(camera, console, tmp_path):
    """It is said, and the pictures go on."""
    folder = tmp_path / "folder"
    folder.mkdir()
    web = console("--rtp", f"127.0.0.1:{RTP_PORT}", "--sdp", folder / "camera.sdp")
    shutil.rmtree(folder)
    camera.start()
    wait_until(lambda: web.metric("nimbus_web_rtp_pictures_total") > GROUP, 10, "pictures")
    web.run.terminate()
    _, said = web.run.communicate(timeout=limit(10))
    assert said.decode() == (f"nimbus-web: cannot write '{folder}/camera.sdp'; expected a file to "
                             "write for --sdp\n")


@pytest.mark.timing
def test_gstreamer(camera, console, source, tmp_path):
    """It comes when the stream is under way, and begins at the next key picture."""
    raw = tmp_path / "pictures.yuv"
    console("--rtp", f"127.0.0.1:{RTP_PORT}")
    camera.start()
    receiver = subprocess.Popen(
        ["gst-launch-1.0", "-q", "udpsrc", f"port={RTP_PORT}", "num-buffers=150",
         "caps=application/x-rtp,media=video,clock-rate=90000,encoding-name=H264,payload=96", "!",
         "rtph264depay", "!", "h264parse", "!", "avdec_h264", "max-threads=1", "!",
         "video/x-raw,format=I420", "!", "filesink", f"location={raw}"],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        _, err = receiver.communicate(timeout=limit(40))
    finally:
        receiver.kill()
    assert receiver.returncode == 0, err
    size = WIDTH * HEIGHT * 3 // 2
    data = raw.read_bytes()
    pictures = [hashlib.md5(data[at:at + size]).hexdigest() for at in range(0, len(data), size)]
    # What the receiver cut off in the middle of a picture may be torn, and the first may be, too.
    start = next(i for i, one in enumerate(pictures) if one in source)
    whole = pictures[start:-1]
    assert start <= GROUP and len(whole) >= GROUP
    assert_from_a_key_picture(whole, source)


def test_nobody_receives(camera, console):
    """The picture goes on for everybody else."""
    web = console("--rtp", f"127.0.0.1:{RTP_PORT}")
    camera.start()
    wait_until(lambda: web.state()["video"]["kind"] == "h264", 10, "a stream")
    assert web.run.poll() is None


@pytest.mark.timing
def test_a_way_that_takes_nothing(camera, console, links):
    """Each picture is counted as dropped then, and whoever looks at the page misses none. When the
    way is there again, so are the pictures."""
    link = links(1)
    web = console("--rtp", f"{link.far}:{RTP_PORT}")
    camera.start()
    wait_until(lambda: web.metric("nimbus_web_rtp_pictures_total") > GROUP, 10, "pictures")
    run("ip", "link", "set", link.here, "down")
    wait_until(lambda: web.metric("nimbus_web_rtp_pictures_dropped_total") > GROUP, 10, "drops")
    sent = web.metric("nimbus_web_rtp_pictures_total")
    assert web.metric("nimbus_pictures_total") > sent + GROUP
    assert web.metric("nimbus_pictures_discarded_total") == 0
    run("ip", "link", "set", link.here, "up")
    wait_until(lambda: web.metric("nimbus_web_rtp_pictures_total") > sent + GROUP, 10, "more")


def test_h265_is_refused(service, video, console):
    """Once, on the console; it says of which video."""
    web = console("--rtp", f"127.0.0.1:{RTP_PORT}")
    data = (ROOT / "tests/unit/streams/hevc.h265").read_bytes()
    for _ in range(3):
        for at in range(0, len(data), 1000):
            video.send(data[at:at + 1000])
            time.sleep(0.01)
    wait_until(lambda: web.state()["video"]["kind"] == "h265", 10, "a stream")
    assert web.metric("nimbus_web_rtp_pictures_total") == 0
    web.run.terminate()
    _, said = web.run.communicate(timeout=limit(10))
    assert said == b"nimbus-web: the video is h265, which is not sent as RTP; expected h264\n"


@pytest.mark.parametrize("arguments, line", [
    (["--rtp", "127.0.0.1"], "--rtp cannot send to '127.0.0.1'; expected HOST:PORT"),
    (["--rtp", ":5004"], "--rtp cannot send to ':5004'; expected HOST:PORT"),
    (["--rtp", "127.0.0.1:0"], "--rtp cannot send to '127.0.0.1:0'; expected HOST:PORT"),
    (["--rtp", "127.0.0.1:65536"], "--rtp cannot send to '127.0.0.1:65536'; expected HOST:PORT"),
    (["--sdp", "/tmp/a.sdp"], "--sdp tells of what --rtp sends; expected --rtp HOST:PORT, too"),
    (["--rtp", "127.0.0.1:5004", "--sdp", "/nowhere/a.sdp"],
     "cannot write '/nowhere/a.sdp'; expected a file to write for --sdp"),
])
def test_refused(build, arguments, line):
    done = subprocess.run([*EMULATOR, build / "nimbus-web", *arguments], capture_output=True,
                          text=True, timeout=limit(10), check=False)
    assert (done.returncode, done.stdout, done.stderr) == (1, "", f"nimbus-web: {line}\n")
