"""A session with a camera: what its bridge sends, and what a service must make of it.

    PYTHONPATH=tests python3 -m harness.recorded_session [SEED]

prints the datagrams of a session in hexadecimal.

The model knows the reports by the offsets in their frames, apart from the builder that the session
is made with.
"""

import dataclasses
import decimal
import math
import random
import struct
import sys

from harness.duml import START, crc16, frame_of
from harness.messages import status, triple
from harness.region import TEXTS, DisplayRegion, place, stored
from harness.reports import (
    FLAGS_30, FLAG_17, GIMBAL, HISTOGRAM, LENS, RECORDING, SETTINGS, STATUS, TAIL, TRACKING)

# --- The session ---------------------------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Datagram:
    data: bytes
    pause: float = 0.0  # seconds before it is sent


COORDINATES = [0.0, 1.0, 0.5, 0.25, 0.75, 0.1, 0.68, 0.4583, -0.5, 1.5, math.nan, math.inf,
               -math.inf, 3e38]
FOCUSES = [0.0, 0.5, -0.5, 0.25, 1.0, 3.125, 7.5, -7.5, 1e6, -1e6, math.nan, math.inf, -math.inf]


class Camera:
    """Makes the pieces of a session. At most one tracking report and one of the recording timer
    stand in a datagram, since only the last one's time can be seen in the region."""

    def __init__(self, rng):
        self._rng = rng

    def noise(self, size):
        return self._rng.randbytes(size)

    def flag_17(self):
        return FLAG_17.frame(self.noise(4))

    def flags_30(self):
        return FLAGS_30.frame(self.noise(17), busy=self._rng.choice((0, 0, 1, 128)))

    def tracking(self, on):
        values = [self._rng.choice(COORDINATES) for _ in range(4)]
        first, second = (1, 1) if on else self._rng.choice(((0, 0), (0, 1), (1, 0)))
        return TRACKING.frame(self.noise(23), on_1=first, on_2=second, x=values[0], y=values[1],
                              width=values[2], height=values[3])

    def gimbal(self):
        report = GIMBAL.with_length(self._rng.choice((53, 57)))
        return report.frame(self.noise(44), flag=self._rng.choice((0, 1, 64)))

    def recording(self):
        report = RECORDING.with_length(self._rng.choice((53, 57)))
        return report.frame(self.noise(44), state=self._rng.choice((0, 1, 1, 2, 2, 3, 200)),
                            reset=self._rng.choice((0, 0, 0, 0, 0, 0, 0, 1, 80)))

    def lens(self):
        rng = self._rng
        zoom = rng.choice((rng.randrange(-3000, 300_000) / 64, math.nan, math.inf, -math.inf, 1e30))
        return LENS.frame(self.noise(45), state=rng.choice((0, 1, 4, 0x85, 0x86, 0xFF)),
                          base=rng.choice((0, 1, 100, 300, 65535)), zoom=zoom,
                          focus_1=rng.choice(FOCUSES), focus_2=rng.choice(FOCUSES))

    def status(self):
        return STATUS.frame(self.noise(49), mode=self._rng.choice((0, 1, 7, 2, 6, 8, 255)))

    def histogram(self):
        return HISTOGRAM.frame(self.noise(64))

    def settings(self):
        rng = self._rng
        names = rng.sample(("iso", "ev", "photo_format", "resolution", "frame_rate",
                            "exposure_mode", "white_balance", "colour"), 6)
        # The others are noise, often beyond their tables.
        return SETTINGS.frame(self.noise(94), **{name: rng.randrange(26) for name in names},
                              shutter=bytes((rng.randrange(256),
                                             rng.choice((0, 0x80, 0x83, 0x9F, 0xFF, 1, 0x7F)),
                                             rng.choice((0, 0, 5, 25, 255)))))

    def stranger(self):
        """A sound frame that is no report."""
        length = self._rng.choice((13, 20, 40, 52, 54, 61, 63, 106, 108, 255))
        return frame_of(self.noise(length - 13), self._rng.randrange(256))

    def rubbish(self):
        rng = self._rng
        return rng.choice((b"\0", self.noise(rng.randrange(1, 40)),
                           bytes([START]) * rng.randrange(1, 5),
                           bytes([START, rng.randrange(10)])))

    def report(self):
        return self._rng.choice((self.flag_17, self.flags_30, self.gimbal, self.lens, self.status,
                                 self.histogram, self.settings))()

    def damaged(self):
        frame = bytearray(self.report())
        frame[self._rng.randrange(2, len(frame))] ^= 1 << self._rng.randrange(8)
        return bytes(frame)

    def cut(self):
        frame = self.report()
        return frame[:self._rng.randrange(1, len(frame))]

    def pieces(self, once):
        """Some pieces in any order; `once` are among them."""
        kinds = (self.report, self.report, self.report, self.report, self.stranger, self.rubbish,
                 self.damaged)
        pieces = [self._rng.choice(kinds)() for _ in range(self._rng.randrange(1, 6))] + once
        self._rng.shuffle(pieces)
        return pieces

    def datagram(self, *once):
        end = self._rng.choice((TAIL, TAIL, TAIL, TAIL, self.rubbish(), self.cut(), b""))
        return b"".join(self.pieces(list(once))) + end


def generate(seed, count=120):
    """The datagrams of a session: before, while and after a subject is tracked, and once more."""
    rng = random.Random(seed)
    camera = Camera(rng)

    def sometimes(make, *arguments):
        return [make(*arguments)] if rng.randrange(3) == 0 else []

    def stretch(*tracked):
        return [Datagram(camera.datagram(*sometimes(camera.recording),
                                         *sometimes(camera.tracking, rng.choice(tracked))))
                for _ in range(count)]

    lost = camera.tracking(False) + TAIL
    return [
        *stretch(False),
        *stretch(True, True, False),
        Datagram(camera.tracking(True) + TAIL),
        Datagram(lost, 0.5),
        Datagram(lost, 1.6),  # more than two seconds after it was seen
        *stretch(False),
        *stretch(True, True, False),
    ]


# --- The model -----------------------------------------------------------------------------------

EVS = [-3.0, -2.7, -2.3, -2.0, -1.7, -1.3, -1.0, -0.7, -0.3, 0.0,
       0.3, 0.7, 1.0, 1.3, 1.7, 2.0, 2.3, 2.7, 3.0]
COLOURS = {0: "none", 1: "art", 4: "black white", 5: "vivid", 6: "d-cinelike", 7: "portrait",
           14: "beach", 16: "dream", 18: "classic", 19: "nostalgia", 23: "d-log", 52: "d-clike"}
RESOLUTIONS = {4: ("720p", 1280, 720), 10: ("1080p", 1920, 1080), 16: ("3.8K", 3840, 2160),
               22: ("4K", 4096, 2160), 24: ("2.7K", 2704, 1520)}
WHITE_BALANCES = ["auto", "sunny", "cloudy", "unknown", "incandescent", "neon", "custom"]
FRAME_RATES = [0, 24, 25, 30, 48, 50, 60, 120]
ISOS = [0, 25, 50, 100, 200, 400, 800, 1600, 3200, 6400]
MODES = {0: "photo", 1: "video", 7: "play"}


def entry(table, code, other):
    """What stands in a list at the code, or `other` beyond its end."""
    return table[code] if code < len(table) else other


def saturated(number, lowest, highest):
    """A number without its decimals, within the limits; NaN is 0."""
    if math.isnan(number):
        return 0
    return int(min(max(number, lowest), highest))


def to_i32(number):
    return saturated(number, -2**31, 2**31 - 1)


def to_u16(number):
    return saturated(number, 0, 65535)


def rounded(number):
    """A number without its decimals, halves away from zero."""
    if not math.isfinite(number):
        return number
    return int(decimal.Decimal(number).to_integral_value(decimal.ROUND_HALF_UP))


def tenth(number):
    """A tenth, cut toward zero."""
    return int(number / 10)


class Frame:
    """A frame, by offsets."""

    def __init__(self, data):
        self.data = data

    def __getitem__(self, at):
        return self.data[at]

    def value(self, kind, at):
        return struct.unpack_from("<" + kind, self.data, at)[0]


@dataclasses.dataclass
class Effects:
    """What comes of a datagram."""

    messages: list = dataclasses.field(default_factory=list)
    texts: list = dataclasses.field(default_factory=list)  # on the console
    frames: list = dataclasses.field(default_factory=list)  # to the camera
    stamps: set = dataclasses.field(default_factory=set)  # the fields that take the time
    kinds: list = dataclasses.field(default_factory=list)  # the lengths of the frames that it held


@dataclasses.dataclass(frozen=True)
class Seen:
    """What only the service knows: the region after a datagram, of which its times are taken, and
    the milliseconds that it says it has waited for a lost subject."""

    memory: bytes
    waited: int | None = None


class Model:
    """The region, the messages, the console and the frames to the camera."""

    def __init__(self, memory):
        self.memory = bytearray(memory)
        self._point = None  # where a subject was seen last
        self._sequence = 0
        self._seen = None
        self._effects = None

    def take(self, datagram, seen):
        """Takes a datagram and returns its effects. `seen` is what the service has to say about
        it."""
        self._effects = Effects()
        self._seen = seen
        for frame in self.frames(datagram):
            self._effects.kinds.append(len(frame))
            decoder = self._decoder(len(frame), frame[9])
            if decoder:
                decoder(Frame(frame))
        return self._effects

    def _decoder(self, length, command_set):
        if length in (53, 57):
            return {4: self._gimbal, 5: self._recording}.get(command_set)
        if length == 17:
            return self._flag_17 if command_set == 4 else None
        return {30: self._flags_30, 36: self._tracking, 58: self._lens, 62: self._status,
                77: self._histogram, 107: self._settings}.get(length)

    @staticmethod
    def frames(datagram):
        """The sound frames of a datagram."""
        at = 0
        while at < len(datagram):
            if datagram[at] != START:
                at += 1
                continue
            if at + 1 >= len(datagram) - 1:
                return
            length = datagram[at + 1]
            if at + length >= len(datagram):
                return
            frame = datagram[at:at + length]
            if length > 9 and struct.pack("<H", crc16(frame[:-2])) == frame[-2:]:
                yield frame
            at += max(1, length)

    def _store(self, **stores):
        self.memory, _ = stored(self.memory, stores)

    def _value(self, kind, name):
        return struct.unpack_from("<" + kind, self.memory, place(name).start)[0]

    def _stamp(self, name):
        """Takes the time into a field; returns it."""
        self._effects.stamps.add(name)
        self.memory[place(name)] = self._seen.memory[place(name)]
        return self._value("I", name)

    def _relay(self, *messages):
        self._effects.messages += messages

    def _flag_17(self, frame):
        self._store(byte_631=frame[11] >> 1 & 1)

    def _flags_30(self, frame):
        self._store(byte_629=int(frame[24] == 0), byte_630=frame[27])

    def _tracking(self, frame):
        on = int(frame[16] != 0 and frame[17] != 0)
        self._store(tracking_on=on, tracking_x=frame[18:22], tracking_y=frame[22:26],
                    tracking_width=frame[26:30], tracking_height=frame[30:34])
        self._stamp("tracking_ms")
        if on:
            self._point = frame[18:26]
        elif self._point:
            self._lost()
        rectangle = [to_u16(frame.value("f", at) * 65535.0) for at in (18, 22, 26, 30)]
        self._relay(struct.pack("<BB4H", 21, on, *rectangle))

    def _lost(self):
        self._effects.texts.append(f"Waiting restore tracking {self._seen.waited}...\n")
        if self._seen.waited is None or self._seen.waited <= 2000:
            return
        x, y = struct.unpack("<2f", self._point)
        self._effects.texts += ["Restore tracking...\n", "Stop tracking\n",
                                f"Start tracking {x:1.1f} {y:1.1f} 0.1 0.2\n"]
        start = bytes.fromhex("0100000E00") + self._point + struct.pack("<2f", 0.1, 0.2)
        for payload in (bytes(21), start):
            self._effects.frames.append(frame_of(payload, 2, 0xA6, 2, 1, self._sequence, 0x40))
            self._sequence += 1

    def _gimbal(self, frame):
        a1, a2, a3 = (tenth(frame.value("h", at)) for at in (11, 13, 19))
        self._store(gimbal_angle_1=a3, gimbal_angle_2=a1, gimbal_angle_3=a2,
                    byte_628=int(frame[34] == 0))
        self._relay(triple(0, a3 * 100, a1 * 100, a2 * 100), triple(10, a3, a1, a2),
                    triple(8, self.memory[DisplayRegion.ORIENTATION_LOCK], 0, 0))

    def _recording(self, frame):
        state, reset = frame[11], int(frame[50] != 0)
        self._store(recording_state=state, recording_reset=reset)
        if reset:
            self._store(timer_state=0, timer_start_ms=0, timer_elapsed_ms=0)
            self._relay(triple(19, state, 1, 0))
            return
        remembered = self.memory[DisplayRegion.TIMER_STATE]
        self._store(timer_state=state)
        if remembered == 0:
            return
        if remembered != state:
            start = self._value("I", "timer_start_ms")
            now = self._stamp("timer_start_ms")
            if start:
                self._store(timer_elapsed_ms=state * ((now - start) % 2**32) % 2**32)
        self._relay(triple(19, state, 0, self._value("I", "timer_elapsed_ms") // 1000))

    def _lens(self, frame):
        state, flag = frame[11], frame[32] & 1
        mode = [0x85, 0x86].index(state) + 1 if state in (0x85, 0x86) else 0
        value, base = frame.value("H", 14), frame.value("H", 12)
        ratio = int(value / base * 100.0) if base else 0
        zoom = to_i32(rounded(frame.value("f", 16) * 100.0))
        focus = frame.value("f", 24), frame.value("f", 28)
        self._store(lens_known=1, lens_bit_0=state & 1, lens_bit_2=state >> 2 & 1, focus_mode=mode,
                    zoom_ratio=ratio & 0xFF, zoom=zoom * 0.01, focus_1=focus[0], focus_2=focus[1],
                    lens_flag=flag)
        self._relay(status(16, flag), triple(20, mode, ratio, zoom),
                    triple(13, *(to_i32(number * 10000.0) for number in focus), frame[42]))

    def _status(self, frame):
        self._store(byte_792=frame[11], byte_793=frame[42], byte_794=frame[13],
                    camera_mode=frame[15], camera_mode_text=MODES.get(frame[15], ""),
                    word_796=frame[20:24], word_800=frame[24:28], word_804=frame[28:32],
                    word_808=frame[40:42])
        self._relay(bytes([7, frame[15], frame[11]]) + frame[20:32] + frame[40:42] + bytes(4) +
                    bytes([frame[42], frame[13], frame[44]]))

    def _histogram(self, frame):
        self._store(histogram=frame[11:75])
        self._stamp("histogram_ms")
        self._relay(b"\x0e" + frame[11:75])

    def _settings(self, frame):
        ev = EVS[frame[17] - 7] if 7 <= frame[17] <= 25 else 0.0
        label, width, height = RESOLUTIONS.get(frame[24], ("", 0, 0))
        self._store(
            resolution=frame[24], resolution_text=label, resolution_width=width,
            resolution_height=height, frame_rate_code=frame[25],
            frame_rate=entry(FRAME_RATES, frame[25], 0), white_balance=frame[34],
            white_balance_text=entry(WHITE_BALANCES, frame[34], ""), temperature=frame[35] * 100,
            photo_format=frame[23],
            photo_format_text=entry(["RAW", "JPG", "JPG+RAW"], frame[23], ""),
            aperture=frame.value("H", 49) * 0.01, word_728=frame[54:56], iso_code=frame[16],
            iso=entry(ISOS, frame[16], 0), byte_789=frame[67], ev_code=frame[17], ev=ev,
            colour=frame[42], colour_text=COLOURS.get(frame[42], ""), exposure_mode=frame[31],
            exposure_mode_text=entry(["", "auto", "S", "A", "M"], frame[31], ""),
            word_736=frame[13:16] + b"\0", shutter=frame[51:54] + b"\0", byte_790=frame[21],
            byte_791=frame[43])
        self._shutter(*frame[51:54])
        message = bytearray(31)
        message[0:3] = bytes([2, frame[31], frame[21]])
        message[4] = frame[42]
        message[5] = int(ev * 10) & 0xFF
        message[6:9] = bytes([frame[34], frame[24], frame[25]])
        message[9] = frame[35]
        message[10:12] = frame[54:56]
        message[12:15] = frame[13:16]
        message[15:17] = bytes([frame[67], frame[16]])
        message[17:19] = frame[49:51]
        message[20] = frame[43]
        message[21:24] = frame[51:54]
        message[24] = frame[23]
        self._relay(bytes(message))

    def _shutter(self, low, mid, high):
        if mid == 0:
            text = f'{low}.{high}"' if high else f'{low}"'
        elif mid & 0x80:
            number = low + (mid - 128) * 256
            text = f"1/{number}.{high} " if high else f"1/{number} "
        else:
            return
        self._store(shutter_text=text[:9])


def without_text_tails(memory):
    """The region with zeros behind the NULs of the texts, where anything may stand."""
    memory = bytearray(memory)
    for name in TEXTS:
        where = place(name)
        memory[where] = bytes(memory[where]).split(b"\0")[0].ljust(where.stop - where.start, b"\0")
    return memory


if __name__ == "__main__":
    for one in generate(int(sys.argv[1]) if len(sys.argv) > 1 else 1):
        if one.pause:
            print(f"# {one.pause} seconds later")
        print(one.data.hex())
