"""The regions of shared memory as sibling processes see them. Every offset of the display region
stands here, and nowhere else in the tests; none is taken from the service's own code.
"""

import mmap
import pathlib
import struct

from harness.values import encode, size_of

# The display region, by the names of its fields: offset, kind. Texts and blocks are of the kind
# "Ns" with the size of their field.
FIELDS = {
    # The network side
    "product_name": (0, "128s"), "version_text": (286, "76s"),
    "viewer_count": (362, "B"), "data_connected": (363, "B"), "video_connected": (364, "B"),
    "telemetry_status_text": (365, "128s"), "video_status_text": (493, "128s"),
    # The camera's reports
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
    # Switches
    "orientation_lock": (1016, "B"), "osd_enabled": (1017, "B"),
    "internal_camera_enabled": (1018, "B"), "internal_camera_fullscreen": (1019, "B"),
    "focus_point_x": (1032, "d"), "focus_point_y": (1040, "d"),
    # The receiver: 32 numbers of 16 bits by channel or by the code of a function, 32 doubles by
    # that.
    "rc_status": (1175, "B"), "show_channels": (1176, "B"),
    "rc_channel_values": (1178, "64s"), "rc_channel_map": (1242, "32s"),
    "rc_assigned": (1274, "64s"), "rc_centred": (1344, "256s"), "rc_position": (1600, "256s"),
    "menu_active": (1856, "B"),
    # From viewers
    "command_mailbox": (1858, "512s"),
}
REGION_SIZE = 2672
TELEMETRY = range(622, 1016)  # what reports fill
TEXTS = {name for name in FIELDS if name.endswith("_text") and FIELDS[name][0] in TELEMETRY}

NOW = object()  # the time stamp of this moment, in place of a field's value


def place(name):
    """The bytes of a field, as a slice."""
    offset, kind = FIELDS[name]
    return slice(offset, offset + size_of(kind))


# What changes in the region apart from the reports: the status loop counts the viewers.
VOLATILE = [place("viewer_count")]


class SharedMemory:
    """A shared-memory object as a sibling process sees it."""

    def __init__(self, name, size):
        self.path = pathlib.Path("/dev/shm") / name
        self.size = size
        self._map = None

    def create(self, content=None):
        """Creates the object before the service does."""
        self.path.write_bytes(content if content is not None else bytes(self.size))
        self.path.chmod(0o600)

    @property
    def memory(self):
        if self._map is None:
            with self.path.open("r+b") as file:
                self._map = mmap.mmap(file.fileno(), self.size)
        return self._map

    def bytes(self, offset=0, length=None):
        return self.memory[offset:self.size if length is None else offset + length]

    def write(self, offset, data):
        self.memory[offset:offset + len(data)] = data

    def u8(self, offset):
        return self.memory[offset]

    def value(self, kind, offset):
        """One little-endian value, by its struct letter."""
        return struct.unpack_from("<" + kind, self.memory, offset)[0]

    def text(self, offset, size):
        return bytes(self.bytes(offset, size)).split(b"\0")[0].decode()

    def close(self):
        if self._map is not None:
            self._map.close()
            self._map = None


class DisplayRegion(SharedMemory):
    """The display region. Its fields are constants in capitals: the offset of a number, the offset
    and the size of a text or a block."""

    SIZE = REGION_SIZE

    def __init__(self):
        super().__init__("hud_mem", self.SIZE)


for _name, (_offset, _kind) in FIELDS.items():
    setattr(DisplayRegion, _name.upper(),
            (_offset, size_of(_kind)) if _kind.endswith("s") else _offset)


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
