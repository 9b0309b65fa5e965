#!/usr/bin/python3
"""Runs the service on live input and shows what a viewer receives. `./dev run` calls it.

Everything happens in the sandbox: the service with a small configuration, a bridge that sends a
moving H.264 test pattern and a sign of life from the camera, and one viewer.
"""

import argparse
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))
import nimbus  # noqa: E402

CONFIGURATION = "hdmi_enabled=1\nosd_enabled=1\nrc_input_map=pan,tilt,record,,ev\n"

# 25 frames a second at a bitrate that datagrams of this size carry to ten viewers as well.
DATAGRAM_SIZE = 1400
ENCODER = ["ffmpeg", "-hide_banner", "-loglevel", "error", "-re", "-f", "lavfi",
           "-i", "testsrc2=size=640x360:rate=25", "-c:v", "libx264", "-preset", "veryfast",
           "-tune", "zerolatency", "-b:v", "600k", "-maxrate", "600k", "-bufsize", "300k", "-g", "25",
           "-f", "h264", f"udp://127.0.0.1:{nimbus.VIDEO_PORT}?pkt_size={DATAGRAM_SIZE}"]

SOURCES = ("camera data", "video")


def show(who, text):
    print(f"{who:>8} | {text}", flush=True)


def echo(console):
    """Shows the service's console, line by line, as it is written."""
    shown = 0
    while True:
        lines = console.text().split("\n")[:-1]
        for line in lines[shown:]:
            show("service", line)
        shown = len(lines)
        time.sleep(0.05)


def describe(payload):
    """One line for a status message, or nothing for the other payloads."""
    if payload[0] == 5:
        return f"message 5: {SOURCES[payload[1]]} {'connected' if payload[2] == 2 else 'not connected'}"
    if payload[0] == 6:
        return f"message 6: flags {payload[1]:#04x}, {payload[2]} viewer(s), RC state {payload[5]}"
    if payload[0] == 11:
        return "message 11: version {}.{}.{}, variant {}".format(*payload[1:5])
    return None


def watch(viewer, seconds):
    """Shows what the viewer receives, and once a second how much video came."""
    seen = 0
    end = time.monotonic() + seconds if seconds else None
    while end is None or time.monotonic() < end:
        time.sleep(1)
        frames = viewer.frames[seen:]
        seen += len(frames)
        for frame in frames:
            if not frame.video and (line := describe(frame.payload)):
                show("viewer", line)
        video = [frame.payload for frame in frames if frame.video]
        show("viewer", f"video: {len(video)} datagrams, {sum(map(len, video))} bytes")


def report(viewer, folder):
    """Decodes what the viewer collected."""
    stream = folder / "collected.h264"
    stream.write_bytes(b"".join(frame.payload for frame in viewer.frames if frame.video))
    probe = subprocess.run(
        ["ffprobe", "-v", "error", "-count_frames", "-select_streams", "v", "-show_entries",
         "stream=codec_name,width,height,nb_read_frames", "-of", "default=noprint_wrappers=1",
         str(stream)], capture_output=True, text=True, check=False)
    show("viewer", f"collected {stream.stat().st_size} bytes of video; ffprobe reads them as:")
    for line in (probe.stdout or probe.stderr).splitlines():
        show("ffprobe", line)


def main():
    parser = argparse.ArgumentParser(prog="./dev run", description=__doc__.splitlines()[0])
    parser.add_argument("--service", required=True, type=pathlib.Path, help=argparse.SUPPRESS)
    parser.add_argument("--seconds", type=float, default=0, metavar="N",
                        help="end after N seconds (default: when you press Ctrl-C)")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        service = nimbus.Service(options.service.resolve(), folder, CONFIGURATION)
        for console in (service.out, service.err):
            threading.Thread(target=echo, args=(console,), daemon=True).start()
        viewer = nimbus.Viewer()
        viewer.keep_alive()
        camera = nimbus.Bridge(nimbus.DATA_PORT)
        camera.keep_sending(b"\x00", period=0.5)
        encoder = subprocess.Popen(ENCODER)
        try:
            watch(viewer, options.seconds)
        except KeyboardInterrupt:
            show("demo", "stopping")
        finally:
            encoder.kill()
            encoder.wait()
            service.kill()
        report(viewer, folder)


if __name__ == "__main__":
    main()
