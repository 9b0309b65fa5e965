"""What a service may use, and how much more after a while."""

import os
import pathlib

from harness.timing import TIME_SCALE

# A second flood may cost a few pages. What a sanitizer keeps for itself grows for a while.
GROWTH_BYTES = 128 * 1024 if TIME_SCALE == 1 else 8 * 1024 * 1024


def resources(service):
    """What a process may leak: bytes of resident memory, descriptors, threads."""
    status = pathlib.Path(f"/proc/{service.pid}/status").read_text()
    fields = dict(line.split(":", 1) for line in status.splitlines())
    return (int(fields["VmRSS"].split()[0]) * 1024, len(os.listdir(f"/proc/{service.pid}/fd")),
            int(fields["Threads"]))
