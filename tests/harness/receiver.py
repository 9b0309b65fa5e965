"""The RC reader process: its side of the display region."""

import struct

from harness.timing import wait_until

# The functions of RC channels, in the order of their codes.
FUNCTIONS = ["pan", "tilt", "record", "record-shot", "menu", "ev", "zoom", "focus", "dutch",
             "focus-pan", "focus-tilt", "digital-zoom", "digital-zoom2", "iso", "shutter",
             "aperture", "videomode", "custom-focus-assistant", "center", "intcamera", "osd",
             "orient-lock"]


class RcReader:
    """Says which functions are on live channels, and where their sticks and switches stand."""

    LIVE = 6

    def __init__(self, region, state=LIVE):
        """The receiver is live at once. "osd" serves as the clock of cycle()."""
        self._region = region
        self._hold_clock(region.u8(region.OSD_ENABLED))
        self.assign("osd")
        self.state(state)

    def state(self, state):
        self._region.write(self._region.RC_STATUS, bytes([state]))

    def menu(self, flag):
        self._region.write(self._region.MENU_ACTIVE, bytes([flag]))

    def assign(self, *functions, value=1):
        for function in functions:
            self._region.write(self._region.RC_ASSIGNED[0] + 2 * FUNCTIONS.index(function),
                               struct.pack("<H", value))

    def drop(self, *functions):
        self.assign(*functions, value=0)

    def hold(self, function, value):
        """Moves a stick or switch to that centred value."""
        self._write(self._region.RC_CENTRED, function, value)

    def place(self, function, value):
        """Moves a stick or switch to that position."""
        self._write(self._region.RC_POSITION, function, value)

    def _write(self, block, function, value):
        # Eight aligned bytes are written at once: nobody sees half of a number.
        self._region.write(block[0] + 8 * FUNCTIONS.index(function), struct.pack("<d", value))

    def _hold_clock(self, hidden):
        self.hold("osd", -1.0 if hidden else 1.0)

    def cycle(self, seconds=5):
        """Waits until the RC thread, in charge, has gone through all of its steps with everything
        that was written so far. The first change of the clock may be seen half-way through a cycle;
        the second is seen in a later one."""
        for _ in range(2):
            hidden = 1 - self._region.u8(self._region.OSD_ENABLED)
            self._hold_clock(hidden)
            wait_until(lambda: self._region.u8(self._region.OSD_ENABLED) == hidden, seconds,
                       "a cycle of the RC thread")
