"""The camera's reports: frames made of named values."""

import dataclasses

from harness.duml import HEADER_SIZE, OVERHEAD, frame_of
from harness.values import U24, encode

# A frame is taken only with something behind it.
TAIL = b"\0"


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
