"""The messages to viewers."""

import struct


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
