#!/usr/bin/python3
"""Runs a command so that programs of another architecture run, too: emulated, by an entry of
binfmt_misc that is this command's own, in a user namespace, and gone with it. Where the system has
such an entry already, nothing is added.

usage: tools/board/emulated.py ARCHITECTURE COMMAND [ARGUMENT...]
"""

import contextlib
import ctypes
import os
import pathlib
import sys

PROCESSORS = {"armhf": "arm", "arm64": "aarch64", "amd64": "x86_64"}
ENTRIES = pathlib.Path("/proc/sys/fs/binfmt_misc")
NEW_USER, NEW_MOUNTS, NEW_PROCESSES = 0x10000000, 0x00020000, 0x20000000


def fail(text):
    sys.exit(f"emulated: {text}")


def register(name):
    """An entry for programs of that processor, in the namespaces of the caller."""
    file = pathlib.Path(f"/usr/lib/binfmt.d/qemu-{name}.conf")
    if not file.exists():
        fail(f"there is no {file}; install the package qemu-user-static")
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(b"none", bytes(ENTRIES), b"binfmt_misc", 0, None) != 0:
        fail(f"cannot mount {ENTRIES}: {os.strerror(ctypes.get_errno())}; expected Linux 6.7, or a"
             " system that runs such programs (package binfmt-support)")
    (ENTRIES / "register").write_text(file.read_text())


def in_namespace_of_its_own():
    """Enters a user namespace in which every user is who he was."""
    outside, inside = os.pipe(), os.pipe()
    child = os.fork()
    if child == 0:
        if ctypes.CDLL(None, use_errno=True).unshare(NEW_USER | NEW_MOUNTS) != 0:
            fail(f"cannot make a namespace: {os.strerror(ctypes.get_errno())}")
        os.write(outside[1], b"x")
        os.close(inside[1])
        if not os.read(inside[0], 1):
            fail("the namespace has no users: run as root")
        return
    os.close(outside[1])
    if os.read(outside[0], 1):
        with contextlib.suppress(PermissionError):
            for users in ("uid_map", "gid_map"):
                pathlib.Path(f"/proc/{child}/{users}").write_text("0 0 65536\n")
            os.write(inside[1], b"x")
    os.close(inside[1])
    sys.exit(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))


def main(architecture, *command):
    name = PROCESSORS.get(architecture) or fail(f"no architecture '{architecture}'")
    if not (ENTRIES / f"qemu-{name}").exists():
        in_namespace_of_its_own()
        register(name)
    os.execvp(command[0], command)


if __name__ == "__main__":
    if len(sys.argv) < 3:
        fail("too few arguments; expected ARCHITECTURE and COMMAND")
    main(*sys.argv[1:])
