"""The configuration file: where it lies on a board, and what a save writes."""

import pathlib
import re

CARD_FILE = pathlib.Path("/boot/tervado-nimbus.conf")
WORKING_COPY = pathlib.Path("/run/tervado.conf")
GOLDEN = pathlib.Path(__file__).parents[1] / "e2e" / "golden" / "tervado-nimbus.conf"


def values_of(file):
    """The values by their keys, as they stand in a file with CR LF."""
    return dict(re.findall(r"^(\w+)=(.*)\r$", file.decode(), re.MULTILINE))


def with_settings(**values):
    """The golden file with other values."""
    text = GOLDEN.read_bytes().decode()
    for key, value in values.items():
        text, count = re.subn(rf"^{key}=.*\r$", lambda _: f"{key}={value}\r", text,
                              flags=re.MULTILINE)
        assert count == 1, key
    return text.encode()


def without_cr(file):
    return file.replace(b"\r\n", b"\n")


KEYS = list(values_of(GOLDEN.read_bytes()))
QUOTED = [key for key in KEYS if key.endswith(("_ssid", "_psk"))]
TEXTS = [key for key in KEYS if key.endswith(("_mode", "_map", "_iface", "_country"))
         and key != "ap_mode"]
FLAGS = """hdmi_enabled video_transcode_enabled disable_video_stream video_hflip video_vflip
    rc_input_enabled rc_input_exp rc_input_abs osd_enabled internal_camera_enabled
    internal_camera_fullscreen""".split()
EMPTY_MAP = "," * 31


def default_file(**values):
    """The file of a record in which only these settings are not zero and empty."""
    plain = {key: '""' if key in QUOTED else "" if key in TEXTS else "0" for key in KEYS}
    return with_settings(**plain | {"rc_input_map": EMPTY_MAP, "rc_input_enabled": 1} | values)
