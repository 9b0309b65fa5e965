"""The stand-ins for the tools of the board that the service runs."""

import contextlib
import os
import pathlib
import signal

from harness.timing import wait_until

# What stands in for every tool.
BOARD_TOOL = pathlib.Path(__file__).parents[2] / "tools" / "sandbox" / "bin" / "board-tool"


class Standins:
    """The stand-ins for the board's tools."""

    def __init__(self):
        self.folder = pathlib.Path(os.environ["NIMBUS_STANDINS"])

    def clear(self):
        for file in self.folder.iterdir():
            file.unlink()

    def calls(self, name=None):
        """The calls so far as [name, argument...], of all tools or of one."""
        file = self.folder / "calls"
        lines = file.read_text().splitlines() if file.exists() else []
        calls = [line.split("\t") for line in lines]
        return calls if name is None else [call for call in calls if call[0] == name]

    def answer(self, name, script):
        """Makes a tool run that shell script from now on."""
        fresh = self.folder / f".{name}"
        fresh.write_text("#!/bin/sh\n" + script + "\n")
        fresh.chmod(0o755)
        fresh.rename(self.folder / name)

    def reset(self, name):
        (self.folder / name).unlink(missing_ok=True)


class AccessPoint:
    """The access-point daemon, as the service's probe for it finds it. Every probe waits for the
    test's answer, and with it the status loop, between its second and its third message."""

    def __init__(self, standins):
        self._standins = standins
        standins.answer("pidof", 'probe="$NIMBUS_STANDINS/probe.$$"\n'
                                 'mkfifo "$probe"\n'
                                 '[ -e "$0" ] || exit 1\n'  # close() has been here before
                                 'read -r answer <"$probe"\n'
                                 'eval "$answer"')

    def _probes(self):
        return list(self._standins.folder.glob("probe.*"))

    def wait_probe(self, seconds=5):
        """Waits until the status loop stands at a probe."""
        return wait_until(self._probes, seconds, "a probe for hostapd")[0]

    def answer(self, status, seconds=5):
        """Ends the probe with that status, or by that shell command."""
        probe = self.wait_probe(seconds)
        with open(wait_until(lambda: self._open(probe), seconds, "the probe's wait"), "w") as pipe:
            probe.unlink()
            pipe.write(f"exit {status}\n" if isinstance(status, int) else f"{status}\n")

    @staticmethod
    def _open(probe):
        try:
            return os.open(probe, os.O_WRONLY | os.O_NONBLOCK)
        except OSError:  # nobody reads it yet
            return None

    def close(self):
        """Ends what still waits."""
        self._standins.reset("pidof")
        for probe in self._probes():
            with contextlib.suppress(ProcessLookupError):
                os.kill(int(probe.suffix[1:]), signal.SIGKILL)


def wait_round(standins):
    """Waits until the status loop has looked at viewers and sources once more, a second before it
    does so again."""
    rounds = len(standins.calls("pidof"))
    wait_until(lambda: len(standins.calls("pidof")) > rounds, 5, "another round")
