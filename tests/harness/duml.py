"""The camera's protocol and the viewers' commands, as the tests know them.

The checksums are worked out bit by bit here, apart from the service's own code.
"""

import dataclasses
import struct

START = 0x55
VERSION = 1
HEADER_SIZE = 11
OVERHEAD = HEADER_SIZE + 2
RECEIVERS = {0x02: 0x01, 0x04: 0x04}  # by the command set
CAMERA, GIMBAL = RECEIVERS


def reflected_crc(data, polynomial, crc):
    """A reflected CRC with the reflected polynomial, from the seed `crc`, one bit at a time."""
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = (crc >> 1) ^ (polynomial if crc & 1 else 0)
    return crc


def crc8(data):
    """The check of a frame's first three bytes."""
    return reflected_crc(data, 0x8C, 0x77)


def crc16(data):
    """The check of a whole frame less its last two bytes."""
    return reflected_crc(data, 0x8408, 0x3692)


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
class Command:
    """What a frame says: everything in it but its number and its checks."""

    set: int
    id: int
    payload: bytes = b""
    sender: int = 0x02
    type: int = 0x40

    def frame(self, sequence):
        """The whole frame with that number."""
        return frame_of(self.payload, self.set, self.id, self.sender, RECEIVERS[self.set], sequence,
                        self.type)


def camera(number, payload="", sender=0x02):
    """A command to the camera, its payload in hexadecimal."""
    return Command(CAMERA, number, bytes.fromhex(payload), sender)


def gimbal(number, payload="", **others):
    """A command to the gimbal, its payload in hexadecimal."""
    return Command(GIMBAL, number, bytes.fromhex(payload), **others)


def speed(pan, roll, tilt):
    """The gimbal's speed frame, in the order of the wire."""
    return Command(GIMBAL, 0x0C, struct.pack("<3h", pan, roll, tilt) + b"\x90")


def parse(data):
    """The command and the number of a frame, which must be sound in every byte."""
    assert len(data) >= OVERHEAD, f"a frame of {len(data)} bytes"
    sender, _, sequence, kind, command_set, number = struct.unpack_from("<BBHBBB", data, 4)
    assert command_set in RECEIVERS, f"an unknown command set in {data.hex(' ')}"
    command = Command(command_set, number, data[HEADER_SIZE:-2], sender, kind)
    assert data == command.frame(sequence), f"an unsound frame: {data.hex(' ')}"
    return command, sequence


def command(cmd, param=None, *values):
    """The members of a command, less those that are None."""
    members = {"cmd": cmd, "param": param}
    members.update({f"value{n}": value for n, value in enumerate(values, 1)})
    return {name: value for name, value in members.items() if value is not None}
