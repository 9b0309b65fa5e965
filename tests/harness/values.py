"""Little-endian values in bytes."""

import struct

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
