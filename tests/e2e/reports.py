"""The camera's reports: frames made of named values, and the fields of the display region that they
fill."""

import dataclasses
import struct
import time

import nimbus
from duml import crc8, crc16

# --- Values in bytes -----------------------------------------------------------------------------

U24 = "24"  # beside the letters of struct


def size_of(kind):
    return 3 if kind == U24 else struct.calcsize("<" + kind)


def encode(kind, value):
    """The bytes of one little-endian value: the kind is a letter of struct or U24. Bytes go for any
    kind as they are."""
    if isinstance(value, bytes):
        assert len(value) == size_of(kind)
        return value
    return value.to_bytes(3, "little") if kind == U24 else struct.pack("<" + kind, value)


def decode(kind, data):
    return int.from_bytes(data, "little") if kind == U24 else struct.unpack("<" + kind, data)[0]


def low16(value):
    """What 16 bits keep of an integer, as a triple message carries it."""
    return (value + 0x8000) % 0x10000 - 0x8000


def triple(kind, *values):
    """A triple message."""
    return struct.pack("<B3h", kind, *map(low16, values))


def status(kind, *values):
    """A status message."""
    return bytes([kind, *values]).ljust(7, b"\0")


def assert_messages(actual, expected, where=""):
    """Holds the messages to the expected ones, and shows them in hexadecimal."""
    actual, expected = ([message.hex(" ") for message in messages]
                        for messages in (actual, expected))
    assert actual == expected, where


def now_ms():
    """The service's clock."""
    return time.time_ns() // 1_000_000 % 2**32


# --- Frames --------------------------------------------------------------------------------------

START = 0x55
VERSION = 1
HEADER_SIZE = 11
OVERHEAD = HEADER_SIZE + 2

# A frame is taken only with something behind it.
TAIL = b"\0"


def sealed(frame):
    """The frame with a right check in place of its last two bytes."""
    return bytes(frame[:-2]) + struct.pack("<H", crc16(frame[:-2]))


def frame_of(payload, command_set=0, command_id=0, sender=0x01, receiver=0x02, sequence=0,
             command_type=0):
    """A whole frame around that payload."""
    length = len(payload) + OVERHEAD
    start = struct.pack("<BH", START, length | VERSION << 10)
    return sealed(start + bytes([crc8(start)]) +
                  struct.pack("<BBHBBB", sender, receiver, sequence, command_type, command_set,
                              command_id) + payload + bytes(2))


@dataclasses.dataclass(frozen=True)
class Report:
    """A kind of report: its length, its command set, and the places and kinds of its values."""

    length: int
    fields: dict  # by name: offset from the frame's first byte, kind
    command_set: int = 0

    @property
    def payload_size(self):
        return self.length - OVERHEAD

    def frame(self, filler=b"", command_set=None, **values):
        """A frame with those values. What has no value is taken from the filler, a payload, and
        from zeros behind it."""
        payload = bytearray(filler[:self.payload_size].ljust(self.payload_size, b"\0"))
        for name, value in values.items():
            offset, kind = self.fields[name]
            data = encode(kind, value)
            payload[offset - HEADER_SIZE:offset - HEADER_SIZE + len(data)] = data
        return frame_of(bytes(payload), self.command_set if command_set is None else command_set)

    def with_length(self, length):
        """The same kind in frames of another length."""
        return dataclasses.replace(self, length=length)


FLAG_17 = Report(17, {"flags": (11, "B")}, 4)
FLAGS_30 = Report(30, {"busy": (24, "B"), "state": (27, "B")})
TRACKING = Report(36, {
    "on_1": (16, "B"), "on_2": (17, "B"),
    "x": (18, "f"), "y": (22, "f"), "width": (26, "f"), "height": (30, "f"),
})
GIMBAL = Report(53, {"a1": (11, "h"), "a2": (13, "h"), "a3": (19, "h"), "flag": (34, "B")}, 4)
RECORDING = Report(53, {"state": (11, "B"), "reset": (50, "B")}, 5)
LENS = Report(58, {
    "state": (11, "B"), "base": (12, "H"), "value": (14, "H"), "zoom": (16, "f"),
    "focus_1": (24, "f"), "focus_2": (28, "f"), "flag": (32, "B"), "byte_42": (42, "B"),
})
STATUS = Report(62, {
    "byte_11": (11, "B"), "byte_13": (13, "B"), "mode": (15, "B"),
    "word_20": (20, "I"), "word_24": (24, "I"), "word_28": (28, "I"), "word_40": (40, "H"),
    "byte_42": (42, "B"), "byte_44": (44, "B"),
})
HISTOGRAM = Report(77, {"bins": (11, "64s")})
SETTINGS = Report(107, {
    "word_13": (13, U24), "iso": (16, "B"), "ev": (17, "B"), "byte_21": (21, "B"),
    "photo_format": (23, "B"), "resolution": (24, "B"), "frame_rate": (25, "B"),
    "exposure_mode": (31, "B"), "white_balance": (34, "B"), "temperature": (35, "B"),
    "colour": (42, "B"), "byte_43": (43, "B"), "aperture": (49, "H"), "shutter": (51, "3s"),
    "word_54": (54, "H"), "byte_67": (67, "B"),
})

# Every kind, by its name. Some come in frames of two lengths.
REPORTS = {
    "flag 17": FLAG_17,
    "flags 30": FLAGS_30,
    "tracking": TRACKING,
    "gimbal 53": GIMBAL,
    "gimbal 57": GIMBAL.with_length(57),
    "recording 53": RECORDING,
    "recording 57": RECORDING.with_length(57),
    "lens": LENS,
    "status": STATUS,
    "histogram": HISTOGRAM,
    "settings": SETTINGS,
}

# --- The display region --------------------------------------------------------------------------

# By name: offset, kind. Texts are of the kind "Ns" with the size of their field.
FIELDS = {
    "gimbal_angle_1": (622, "h"), "gimbal_angle_2": (624, "h"), "gimbal_angle_3": (626, "h"),
    "byte_628": (628, "B"), "byte_629": (629, "B"), "byte_630": (630, "B"), "byte_631": (631, "B"),
    "recording_state": (632, "B"), "recording_reset": (633, "B"),
    "timer_state": (634, "B"), "timer_start_ms": (636, "I"), "timer_elapsed_ms": (640, "I"),
    "camera_mode": (644, "B"), "camera_mode_text": (645, "10s"),
    "exposure_mode": (655, "B"), "exposure_mode_text": (656, "20s"),
    "resolution": (676, "B"), "resolution_text": (677, "11s"),
    "resolution_width": (688, "H"), "resolution_height": (690, "H"),
    "frame_rate_code": (692, "B"), "frame_rate": (694, "H"),
    "white_balance": (696, "B"), "white_balance_text": (697, "21s"),
    "temperature": (718, "H"), "aperture": (720, "d"), "word_728": (728, "H"),
    "iso": (730, "H"), "iso_code": (732, "H"), "word_736": (736, "I"),
    "shutter": (740, "I"), "shutter_text": (744, "10s"),
    "ev_code": (754, "B"), "ev": (760, "d"),
    "colour": (768, "B"), "colour_text": (769, "20s"),
    "byte_789": (789, "B"), "byte_790": (790, "B"), "byte_791": (791, "B"),
    "byte_792": (792, "B"), "byte_793": (793, "B"), "byte_794": (794, "B"),
    "word_796": (796, "I"), "word_800": (800, "I"), "word_804": (804, "I"), "word_808": (808, "H"),
    "photo_format": (810, "B"), "photo_format_text": (811, "10s"),
    "lens_known": (821, "B"), "lens_bit_0": (822, "B"), "focus_mode": (823, "B"),
    "lens_bit_2": (824, "B"), "zoom_ratio": (825, "B"),
    "zoom": (832, "d"), "focus_1": (840, "d"), "focus_2": (848, "d"), "lens_flag": (856, "B"),
    "tracking_x": (860, "f"), "tracking_y": (864, "f"),
    "tracking_width": (868, "f"), "tracking_height": (872, "f"),
    "tracking_ms": (876, "I"), "tracking_on": (880, "B"),
    "histogram": (881, "64s"), "histogram_ms": (1012, "I"),
    "orientation_lock": (1016, "B"), "focus_point_x": (1032, "d"), "focus_point_y": (1040, "d"),
}
TEXTS = {name for name in FIELDS if name.endswith("_text")}

NOW = object()  # the time stamp of this moment, in place of a field's value

REGION_SIZE = nimbus.DisplayRegion.SIZE
TELEMETRY = range(622, 1016)

# What changes in the region apart from the reports: the status loop counts the viewers.
VOLATILE = [slice(nimbus.DisplayRegion.VIEWER_COUNT, nimbus.DisplayRegion.VIEWER_COUNT + 1)]


def place(name):
    """The bytes of a field, as a slice."""
    offset, kind = FIELDS[name]
    return slice(offset, offset + size_of(kind))


def text_field(name, text):
    """A text as it lies at the start of its field, with its NUL, which must fit."""
    data = text.encode() + b"\0"
    assert len(data) <= size_of(FIELDS[name][1])
    return data


def stored(memory, stores):
    """The memory with those values in those fields, and what to leave out of a comparison with it:
    what lies behind the NULs of the texts is nobody's business."""
    result, left_out = bytearray(memory), []
    for name, value in stores.items():
        where = place(name)
        if name in TEXTS:
            data = text_field(name, value)
            left_out.append(slice(where.start + len(data), where.stop))
            where = slice(where.start, where.start + len(data))
        else:
            data = encode(FIELDS[name][1], value)
        result[where] = data
    return result, left_out


def differences(expected, actual, left_out=()):
    """The fields and the unnamed bytes in which two regions differ, for a person to read."""
    expected, actual = bytearray(expected), bytearray(actual)
    for where in left_out:
        expected[where] = actual[where]
    if expected == actual:
        return []
    names = {offset: name for name in FIELDS for offset in range(REGION_SIZE)[place(name)]}
    found = {names.get(offset, offset) for offset in range(REGION_SIZE)
             if expected[offset] != actual[offset]}
    return [f"{name}: {bytes(actual[place(name)]).hex(' ')}, expected "
            f"{bytes(expected[place(name)]).hex(' ')}" if name in FIELDS else
            f"byte {name}: {actual[name]:02x}, expected {expected[name]:02x}"
            for name in sorted(found, key=str)]
