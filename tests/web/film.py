"""A test film with its time in the picture: what a page shows at any moment tells when it was made.

Across the top of each picture stand 32 cells, black or white: a white one, a black one, and 30 bits
of the wall clock's milliseconds, the highest first. Below them, at the left, is a lamp."""

import contextlib
import functools
import socket
import subprocess
import threading
import time

WIDTH, HEIGHT = 640, 360
CELLS = 32
ROWS = 32  # of the picture that the code covers
LAMP = 64  # its width, and as many rows as the code's
BITS = 30
LUMA = WIDTH * HEIGHT
CHROMA = LUMA // 4
WHITE, BLACK = bytes([235]), bytes([16])
DATAGRAM = 1400
ENCODERS = {"h264": ["-c:v", "libx264", "-preset", "veryfast"],
            "hevc": ["-c:v", "libx265", "-preset", "ultrafast", "-x265-params", "log-level=none"]}

# Reads the code from what an element shows, as often as wanted, at moments of no rhythm. Answers
# with the ages of what was seen, in ms; -1 for what cannot be read.
READER = """
const [selector, times, done] = [arguments[0], arguments[1], arguments[arguments.length - 1]];
const source = document.querySelector(selector);
const canvas = document.createElement("canvas");
[canvas.width, canvas.height] = [640, 32];
const context = canvas.getContext("2d", { willReadFrequently: true });
function age() {
  const width = source.videoWidth ?? source.width;
  const height = source.videoHeight ?? source.height;
  if (!width) return -1;
  context.drawImage(source, 0, 0, width, height * 32 / 360, 0, 0, 640, 32);
  const row = context.getImageData(0, 16, 640, 1).data;
  const bits = Array.from({ length: 32 }, (_, cell) => row[4 * (cell * 20 + 10)] > 128);
  if (!bits[0] || bits[1]) return -1;
  const code = bits.slice(2).reduce((sum, bit) => sum * 2 + (bit ? 1 : 0), 0);
  return (Date.now() % 2 ** 30) - code;
}
const ages = [];
(function next() {
  if (ages.length >= times) return done(ages);
  setTimeout(() => { ages.push(age()); next(); }, 5 + Math.random() * 60);
})();
"""


def code_row(milliseconds, width=WIDTH):
    """One row of luma with the code."""
    number = milliseconds % 2**BITS
    bits = "10" + format(number, f"0{BITS}b")
    return b"".join((WHITE if bit == "1" else BLACK) * (width // CELLS) for bit in bits)


@functools.cache
def background(seconds=4, rate=25):
    """Pictures without the code, raw: something that moves and costs bits."""
    raw = subprocess.run(
        ["ffmpeg", "-v", "error", "-f", "lavfi", "-i",
         f"testsrc2=size={WIDTH}x{HEIGHT}:rate={rate}", "-t", str(seconds),
         "-pix_fmt", "yuv420p", "-f", "rawvideo", "-"], check=True, stdout=subprocess.PIPE).stdout
    size = LUMA + 2 * CHROMA
    return [raw[at:at + size] for at in range(0, len(raw), size)]


def picture(base, milliseconds, lamp=False):
    """A picture with the code of that time, and the lamp on or off."""
    made = bytearray(base)
    made[:WIDTH * ROWS] = code_row(milliseconds) * ROWS
    for row in range(ROWS, 2 * ROWS):
        made[row * WIDTH:row * WIDTH + LAMP] = (WHITE if lamp else BLACK) * LAMP
    grey = bytes([128]) * (WIDTH // 2 * ROWS)
    for plane in (LUMA, LUMA + CHROMA):
        made[plane:plane + len(grey)] = grey
    return bytes(made)


class Film:
    """Makes the film live, encodes it with x264 or x265 and hands each piece of the stream to
    `take`. The next picture shows whether `lamp` is on."""

    def __init__(self, take, rate=25, keys=25, scale=None, codec="h264",
                 bits="600k"):
        self.rate = rate
        self.lamp = False
        self._stop = threading.Event()
        resize = ["-vf", f"scale={scale}:flags=neighbor"] if scale else []
        self._encoder = subprocess.Popen(
            ["ffmpeg", "-v", "error", "-fflags", "nobuffer", "-probesize", "32", "-f", "rawvideo",
             "-pix_fmt", "yuv420p", "-s", f"{WIDTH}x{HEIGHT}", "-framerate", str(rate), "-i", "-",
             *resize, *ENCODERS[codec], "-tune", "zerolatency",
             "-b:v", bits, "-maxrate", bits, "-bufsize", "300k", "-g", str(keys),
             "-flush_packets", "1", "-f", codec, "-"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self._threads = [threading.Thread(target=self._make, daemon=True),
                         threading.Thread(target=self._pass_on, args=(take,), daemon=True)]
        for thread in self._threads:
            thread.start()

    def _make(self):
        bases = background(rate=self.rate)
        start = time.monotonic()
        number = 0
        with contextlib.suppress(OSError):
            while not self._stop.is_set():
                made = picture(bases[number % len(bases)], int(time.time() * 1000), self.lamp)
                self._encoder.stdin.write(made)
                self._encoder.stdin.flush()
                number += 1
                self._stop.wait(max(0, start + number / self.rate - time.monotonic()))
        with contextlib.suppress(OSError):
            self._encoder.stdin.close()

    def _pass_on(self, take):
        while data := self._encoder.stdout.read1(65536):
            take(data)

    def close(self):
        self._stop.set()
        self._encoder.kill()
        self._encoder.wait()
        for thread in self._threads:
            thread.join(5)


class VideoBridge:
    """Sends a stream to the service's video port, as the bridge does. `lose(n)` says of the n-th
    datagram whether the way loses it."""

    def __init__(self, port=5001):
        self.address = ("127.0.0.1", port)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.lose = lambda number: False
        self.silent = False
        self._count = 0

    def take(self, data):
        for at in range(0, len(data), DATAGRAM):
            self._count += 1
            if not self.silent and not self.lose(self._count):
                self.socket.sendto(data[at:at + DATAGRAM], self.address)

    def close(self):
        self.socket.close()
