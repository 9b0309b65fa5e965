"""The camera and gimbal commands of viewers: what each says on the console and sends to the camera.

A row is a command and its effects, in their order: a text is a line on the console, and camera() or
gimbal() a whole frame.
"""

import struct
import subprocess
import time

import pytest

from harness.duml import camera, command, gimbal, parse, speed
from harness.timing import limit

pytest_plugins = ["harness.commanding"]

NOTHING = []


# --- Tables of words -----------------------------------------------------------------------------

# Payloads of the shutter frame behind its first byte: the whole part, with the highest bit set for
# fractions of a second, and the digits behind the point.
SHUTTER = {
    "30s": "1E 00 00",
    "25s": "19 00 00",
    "20s": "14 00 00",
    "15s": "0F 00 00",
    "10s": "0A 00 00",
    "9s": "09 00 00",
    "8s": "08 00 00",
    "7s": "07 00 00",
    "6s": "06 00 00",
    "5s": "05 00 00",
    "4s": "04 00 00",
    "3.2s": "03 00 02",
    "3s": "03 00 00",
    "2.5s": "02 00 05",
    "2s": "02 00 00",
    "1.6s": "01 00 06",
    "1.3s": "01 00 03",
    "1s": "01 00 00",
    "1.25": "01 80 19",
    "1.67": "01 80 43",
    "2": "02 80 00",
    "2.5": "02 80 05",
    "3": "03 80 00",
    "4": "04 80 00",
    "5": "05 80 00",
    "6.25": "06 80 19",
    "8": "08 80 00",
    "10": "0A 80 00",
    "12.5": "0C 80 05",
    "15": "0F 80 00",
    "20": "14 80 00",
    "25": "19 80 00",
    "30": "1E 80 00",
    "40": "28 80 00",
    "50": "32 80 00",
    "60": "3C 80 00",
    "80": "50 80 00",
    "100": "64 80 00",
    "120": "78 80 00",
    "160": "A0 80 00",
    "200": "C8 80 00",
    "240": "F0 80 00",
    "320": "40 81 00",
    "400": "90 81 00",
    "500": "F4 81 00",
    "640": "80 82 00",
    "800": "20 83 00",
    "1000": "E8 83 00",
    "1250": "E2 84 00",
    "1600": "40 86 00",
    "2000": "D0 87 00",
    "2500": "C4 89 00",
    "3200": "80 8C 00",
    "4000": "A0 8F 00",
    "5000": "88 93 00",
    "6400": "00 99 00",
    "8000": "40 9F 00",
}

ISO = {"auto": 0, "100": 3, "200": 4, "400": 5, "800": 6, "1600": 7, "3200": 8, "6400": 9}

EV = {
    "-3.0": 7, "-2.7": 8, "-2.3": 9, "-2.0": 10, "-1.7": 11, "-1.3": 12, "-1.0": 13, "-0.7": 14,
    "-0.3": 15, "0.0": 16, "0.3": 17, "0.7": 18, "1.0": 19, "1.3": 20, "1.7": 21, "2.0": 22,
    "2.3": 23, "2.7": 24, "3.0": 25,
    # Other texts of the same numbers, and what is not a number is 0.
    "-3": 7, "+0.7": 18, "3": 25, " 1": 19, "1e0": 19, "0.30": 17, ".3": 17,
    "0.30000000000000001": 17, "0.3 EV": 17, "0": 16, "-0.0": 16, "": 16, "abc": 16, "1e-999": 16,
    "0,3": 16,
}
EV_BETWEEN = ("0.33", "2.6667", "-0.33", "0.299999999", "3.3", "-3.3", "5", "1e-300", "1e300",
              "nan", "inf", "-inf", "9" * 400)

COLOURS = {"none": 0, "art": 1, "black white": 4, "vivid": 5, "d-cinelike": 6, "portrait": 7,
           "beach": 14, "dream": 16, "classic": 18, "nostalgia": 19, "d-log": 23, "d-clike": 52}

WHITE_BALANCES = {"auto": "00 44", "sunny": "01 30", "cloudy": "02 40", "incandescent": "04 44",
                  "neon": "05 19"}

# Kelvin; what is below 2000 by a whole hundred is not sent.
TEMPERATURES = {
    "1899": None, "1900": None, "1901": 20, "1950": 20, "1999": 20, "2000": 20, "2099": 20,
    "2100": 21, "5600": 56, "5600K": 56, "10000": 100, "25599": 255, "25600": 0,
    "99999999999": 0x14, "2147483647": 0x14, "0": None, "-1": None, "-2147483648": None,
    "-99999999999": None, "abc": None, "": None,
}

# The size, the frames a second, and both codes.
RESOLUTIONS = {
    "4096x2160@25": (4096, 2160, 25, "16 02"),
    "4096x2160@24": (4096, 2160, 24, "16 01"),
    "3840x2160@60": (3840, 2160, 60, "10 06"),
    "3840x2160@30": (3840, 2160, 30, "10 03"),
    "3840x2160@25": (3840, 2160, 25, "10 02"),
    "3840x2160@24": (3840, 2160, 24, "10 01"),
    "2704x1520@30": (2704, 1520, 30, "18 03"),
    "2704x1520@25": (2704, 1520, 25, "18 02"),
    "2704x1520@24": (2704, 1520, 24, "18 01"),
    "1920x1080@60": (1920, 1080, 60, "0A 06"),
    "1920x1080@50": (1920, 1080, 50, "0A 05"),
    "1920x1080@48": (1920, 1080, 48, "0A 04"),
    "1920x1080@30": (1920, 1080, 30, "0A 03"),
    "1920x1080@25": (1920, 1080, 25, "0A 02"),
    "1920x1080@24": (1920, 1080, 24, "0A 01"),
    "1280x720@60": (1280, 720, 60, "04 06"),
    "1280x720@50": (1280, 720, 50, "04 05"),
    "1280x720@48": (1280, 720, 48, "04 04"),
    "1280x720@30": (1280, 720, 30, "04 03"),
    "1280x720@25": (1280, 720, 25, "04 02"),
    "1280x720@24": (1280, 720, 24, "04 01"),
    "1920x1080@120": (1920, 1080, 120, "0A 07"),
}
NO_RESOLUTIONS = ("640x480@30", "2704x1520@60", "4096x2160@30", "1280x720@120", "1920x1080",
                  "1920X1080@30", " 1920x1080@30", "1920x1080@30 ", "1920x1080@30.0", "0x0@0", "")

# Aperture texts that are not plain decimals: the number on the console, the payload.
ODD_APERTURES = {
    "": ("0.00", "00 00"),
    "0": ("0.00", "00 00"),
    "abc": ("0.00", "00 00"),
    "f/2.8": ("0.00", "00 00"),
    "2.8 ": ("2.80", "18 01"),
    "2,8": ("2.00", "C8 00"),
    "0.01": ("0.01", "01 00"),
    "1.125": ("1.12", "70 00"),
    "1.999": ("2.00", "C7 00"),
    "-1": ("-1.00", "9C FF"),
    "-2.8": ("-2.80", "E8 FE"),
    "327.67": ("327.67", "FF 7F"),
    "327.68": ("327.68", "00 80"),
    "655.36": ("655.36", "00 00"),
    "1e8": ("100000000.00", "FF FF"),
    "-1e8": ("-100000000.00", "00 00"),
    "1e300": ("inf", "FF FF"),
    "-1e300": ("-inf", "00 00"),
    "9" * 400: ("inf", "FF FF"),
    "inf": ("inf", "FF FF"),
    "-inf": ("-inf", "00 00"),
    "nan": ("nan", "00 00"),
}

F_NUMBERS = ("1.7", "1.8", "2", "2.0", "2.2", "2.4", "2.5", "2.8", "2.80", "3.2", "3.5", "4", "4.0",
             "4.5", "4.8", "5", "5.6", "6.3", "6.7", "7.1", "8", "9", "9.5", "10", "11", "13", "14",
             "16", "18", "19", "20", "22")

# Words that look like those of a table, but are not.
FORMATS = "%n%s%x%1000000d"


def shutter(text, payload):
    return command("shutter", text), [f"Camera set shutter {text}\n",
                                      camera(0x28, "01" + payload)]


def ev(text, code):
    return command("ev", text), [camera(0x2E, f"{code:02X}")]


def colour(text, code):
    return command("color", text), [f"set color {text}\n", camera(0x42, f"{code:02X}")] * 2


def white_balance(text, *frames, value=None):
    return command("wb", text, value), [f"Camera set WB {text}\n", *frames]


def temperature(text, code):
    frames = [] if code is None else [camera(0x2C, f"06 {code:02X}")]
    return command("wb", "custom", text), ["Camera set WB custom\n",
                                           f"Camera set WB temperature {text}\n", *frames]


def resolution(text, width, height, fps, codes):
    return command("video_resolution", text), [
        f"Camera set video resolution {width}x{height}@{fps}\n",
        camera(0x18, codes + "00 00 00"), camera(0xAF, codes)]


def aperture(text, shown, payload):
    return command("aperture", text), [f"Camera set aperture {shown}\n", camera(0x26, payload)]


def f_number(text):
    """A decimal with at most two digits behind the point reaches the camera to the hundredth."""
    whole, _, digits = text.partition(".")
    hundredths = int(whole) * 100 + int(digits.ljust(2, "0"))
    shown = f"{hundredths // 100}.{hundredths % 100:02}"
    return aperture(text, shown, hundredths.to_bytes(2, "little").hex())


def histogram(text, state, code):
    return command("hystogram", text), [f"Camera histogram {state}\n", camera(0x60, code)]


def said(line, *frames):
    """A line that ends in a word, the frames behind it."""
    return [line + "\n", *frames]


TABLES = {
    "camera mode": [
        (command("camera", "mode", "photo"), ["Camera set mode photo\n",
                                              camera(0x10, "00", sender=0x09)]),
        (command("camera", "mode", "video"), ["Camera set mode video\n",
                                              camera(0x10, "01", sender=0x09)]),
        (command("camera", "mode", "Photo"), NOTHING),
        (command("camera", "mode", "play"), NOTHING),
        (command("camera", "mode", "1"), NOTHING),
        (command("camera", "mode", ""), NOTHING),
        (command("camera", "mode"), NOTHING),
        (command("camera", "video"), NOTHING),
        (command("camera"), NOTHING),
    ],
    "calibration": [
        (command("horizont", "calibrate"), [
            "Gimbal calibrate\n",
            gimbal(0x07, "00"),
            gimbal(0x01, "00 04 00 04 00 04 80 00", sender=0x09, type=0x20),
            gimbal(0x08)]),
        (command("horizont"), NOTHING),
        (command("horizont", "calibrated"), NOTHING),
        (command("calibrate"), NOTHING),
    ],
    "exposure point": [
        (command("exposure", "point", text), [
            "Camera set auto exposure lock to 0\n", camera(0x68, "00"),
            f"Camera set exposure point {point}\n", camera(0x32, f"{point:02X}"),
            "Camera set auto exposure lock to 1\n", camera(0x68, "01")])
        for text, point in {"0": 0, "1": 1, "44": 44, "255": 255, "256": 0, "300": 44, "-1": 255,
                            "-256": 0, "abc": 0, "": 0, "7.9": 7, "99999999999": 255}.items()
    ] + [
        (command("exposure", "point"), NOTHING),
        (command("exposure", "points", "1"), NOTHING),
    ],
    "exposure center": [
        (command("exposure", "center"), [
            "Camera set auto exposure lock to 0\n", camera(0x68, "00"),
            "Camera set exposure to center\n", camera(0x22, "00")]),
        (command("exposure", "centre"), NOTHING),
    ],
    "exposure lock": [
        (command("exposure", "auto", "lock"), ["Camera set auto exposure lock to 1\n",
                                               camera(0x68, "01")]),
        (command("exposure", "auto", "unlock"), ["Camera set auto exposure lock to 0\n",
                                                 camera(0x68, "00")]),
        (command("exposure", "auto", "Lock"), NOTHING),
        (command("exposure", "auto", "1"), NOTHING),
        (command("exposure", "auto", ""), NOTHING),
        (command("exposure", "auto"), NOTHING),
        (command("exposure", "lock"), NOTHING),
    ],
    "focus type": [
        (command("focus", "type", "afc"), said("Camera set focus type afc", camera(0x24, "02"))),
        (command("focus", "type", "afs"), said("Camera set focus type afs", camera(0x24, "01"))),
        (command("focus", "type", "AFS"), said("Camera set focus type AFS")),
        (command("focus", "type", "mf"), said("Camera set focus type mf")),
        (command("focus", "type", FORMATS), said("Camera set focus type " + FORMATS)),
        (command("focus", "type", ""), said("Camera set focus type ")),
        (command("focus", "type"), NOTHING),
    ],
    "focus point": [
        (command("focus", "point", x, y), [
            "Camera set focus type afs\n", camera(0x24, "01"),
            f"Camera set focus point {shown}\n", camera(0x30, payload)])
        for x, y, shown, payload in [
            ("0.5", "0.25", "0.500000,0.250000", "00 00 00 3F 00 00 80 3E"),
            ("0", "1", "0.000000,1.000000", "00 00 00 00 00 00 80 3F"),
            ("1", "0", "1.000000,0.000000", "00 00 80 3F 00 00 00 00"),
            ("0.1", "0.9", "0.100000,0.900000", "CD CC CC 3D 66 66 66 3F"),
            ("-0.0", "-2", "-0.000000,-2.000000", "00 00 00 80 00 00 00 C0"),
            ("16777217", "0.3333333", "16777216.000000,0.333333", "00 00 80 4B AA AA AA 3E"),
            ("abc", "", "0.000000,0.000000", "00 00 00 00 00 00 00 00"),
            ("1e300", "-1e300", "inf,-inf", "00 00 80 7F 00 00 80 FF"),
            ("inf", "nan", "inf,nan", "00 00 80 7F 00 00 C0 7F"),
            ("1e-60", "9" * 300, "0.000000,inf", "00 00 00 00 00 00 80 7F"),
        ]
    ] + [
        (command("focus", "point", "0.5"), NOTHING),
        (command("focus", "point", None, "0.5"), NOTHING),
        (command("focus", "point"), NOTHING),
        (command("focus"), NOTHING),
        (command("focus", "0.5", "0.5"), NOTHING),
    ],
    "position move": [
        (command("position", "move"), NOTHING),
        (command("position", "move", "4000", "4000", "4000"), NOTHING),
        (command("position"), NOTHING),
        (command("position", "4000", "4000"), NOTHING),
    ],
    "gimbal mode": [
        (command("gimbal", "mode", "tiltlocked"), [
            "Gimbal set mode tiltlocked\n", gimbal(0x4C, "02 00"), gimbal(0x50, "00 04 01 01")]),
        (command("gimbal", "mode", "fpv"), [
            "Gimbal set mode fpv\n", gimbal(0x4C, "01 00"), gimbal(0x50, "00 04 01 00")]),
        (command("gimbal", "mode", "follow"), [
            "Gimbal set mode follow\n", gimbal(0x4C, "02 00"), gimbal(0x50, "00 04 01 00")]),
        (command("gimbal", "mode", "FPV"), said("Gimbal set mode FPV")),
        (command("gimbal", "mode", "followed"), said("Gimbal set mode followed")),
        (command("gimbal", "mode", FORMATS), said("Gimbal set mode " + FORMATS)),
        (command("gimbal", "mode", ""), said("Gimbal set mode ")),
        (command("gimbal", "mode"), NOTHING),
    ],
    "gimbal follow": [
        (command("gimbal", "follow", "slow"), said("Gimbal set follow mode slow",
                                                   gimbal(0x50, "00 05 01 02"))),
    ] + [
        (command("gimbal", "follow", word), said("Gimbal set follow mode " + word,
                                                 gimbal(0x50, "00 05 01 00")))
        for word in ("fast", "medium", "Slow", "slower", "", FORMATS)
    ] + [
        (command("gimbal", "follow"), NOTHING),
        (command("gimbal", "slow"), NOTHING),
        (command("gimbal"), NOTHING),
    ],
    "tracking": [
        (command("tracking", "start", *values), [
            "Stop tracking\n", camera(0xA6, "00" * 21),
            f"Start tracking {shown}\n", camera(0xA6, "01 00 00 0E 00" + payload)])
        for values, shown, payload in [
            (("0.5", "0.5", "0.25", "0.25"), "0.5 0.5 0.2 0.2",
             "00 00 00 3F 00 00 00 3F 00 00 80 3E 00 00 80 3E"),
            (("0.68", "0.4583", "0.1823", "0.2796"), "0.7 0.5 0.2 0.3",
             "7B 14 2E 3F 4C A6 EA 3E DA AC 3A 3E BB 27 8F 3E"),
            (("1", "2", "3", "-4"), "1.0 2.0 3.0 -4.0",
             "00 00 80 3F 00 00 00 40 00 00 40 40 00 00 80 C0"),
            (("", "abc", "1e300", "-0.0"), "0.0 0.0 inf -0.0",
             "00 00 00 00 00 00 00 00 00 00 80 7F 00 00 00 80"),
        ]
    ] + [
        (command("tracking", "stop"), ["Stop tracking\n", camera(0xA6, "00" * 21)]),
        (command("tracking", "start", "1", "2", "3"), NOTHING),
        (command("tracking", "start", "1", "2", None, "4"), NOTHING),
        (command("tracking", "start", "1", None, "3", "4"), NOTHING),
        (command("tracking", "start", None, "2", "3", "4"), NOTHING),
        (command("tracking", "start"), NOTHING),
        (command("tracking"), NOTHING),
        (command("tracking", "stopped"), NOTHING),
    ],
    "color": [
        *(colour(text, code) for text, code in COLOURS.items()),
        *(colour(text, 0) for text in ("sepia", "Vivid", "black  white", "art ", "", FORMATS)),
        (command("color"), colour("", 0)[1]),
        (command("colour", "art"), NOTHING),
    ],
    "white balance": [
        *(white_balance(text, camera(0x2C, payload)) for text, payload in WHITE_BALANCES.items()),
        white_balance("sunny", camera(0x2C, "01 30"), value="5600"),
        *(white_balance(text) for text in ("Auto", "Custom", "unknown", "shade", "",
                                               FORMATS)),
        white_balance("custom"),
        white_balance("", value="5600"),
        (command("wb"), ["Camera set WB \n"]),
        *(temperature(text, code) for text, code in TEMPERATURES.items()),
        temperature(FORMATS, None),
    ],
    "shot": [
        (command("shot"), said("Camera shot", camera(0x01, "01"))),
        (command("shot", "anything", "at", "all"), said("Camera shot", camera(0x01, "01"))),
    ],
    "shot mode": [
        (command("shotmode", "raw"), said("Camera set shot mode raw", camera(0x16, "00"))),
        (command("shotmode", "jpg"), said("Camera set shot mode jpg", camera(0x16, "01"))),
        (command("shotmode", "jpg+raw"), said("Camera set shot mode jpg+raw", camera(0x16, "02"))),
        *((command("shotmode", word), said("Camera set shot mode " + word))
          for word in ("raw+jpg", "JPG", "jpeg", "", FORMATS)),
        (command("shotmode"), said("Camera set shot mode ")),
    ],
    "record": [
        (command("record", "start"), said("Record start", camera(0x02, "01"))),
        (command("record", "stop"), said("Record stop", camera(0x02, "00"))),
        *((command("record", word), NOTHING) for word in ("Start", "started", "1", "")),
        (command("record"), NOTHING),
    ],
    "histogram": [
        histogram("0", "disable", "00"),
        histogram("1", "enable", "01"),
        histogram("2", "enable", "02"),
        histogram("255", "enable", "FF"),
        histogram("256", "enable", "00"),
        histogram("257", "enable", "01"),
        histogram("-1", "enable", "FF"),
        histogram("99999999999", "enable", "FF"),
        histogram("1.9", "enable", "01"),
        histogram("", "disable", "00"),
        histogram("on", "disable", "00"),
        (command("hystogram"), histogram("", "disable", "00")[1]),
        (command("histogram", "1"), NOTHING),
    ],
    "exposure mode": [
        *((command("video_mode", word), said("Camera set video mode " + word,
                                             camera(0x1E, f"0{code} 00")))
          for word, code in {"auto": 1, "shutter": 2, "aperture": 3, "manual": 4}.items()),
        *((command("video_mode", word), said("Camera set video mode " + word))
          for word in ("Auto", "program", "1", "", FORMATS)),
        (command("video_mode"), said("Camera set video mode ")),
    ],
    "shutter": [
        *(shutter(text, payload) for text, payload in SHUTTER.items()),
        *(shutter(text, "00 00 00") for text in (
            "1/100", "100s", "30S", "30 s", " 100", "100 ", "0", "1", "1.6", "3.2", "1.3", "35s",
            "9", "99999999999", "-100", "auto", "s", "", FORMATS)),
        (command("shutter"), shutter("", "00 00 00")[1]),
    ],
    "f-numbers": [f_number(text) for text in F_NUMBERS],
    "odd apertures": [
        *(aperture(text, *effect) for text, effect in ODD_APERTURES.items()),
        (command("aperture"), aperture("", "0.00", "00 00")[1]),
    ],
    "iso": [
        *((command("iso", text), said(f"Camera set iso {0 if text == 'auto' else text}",
                                      camera(0x2A, f"{code:02X}")))
          for text, code in ISO.items()),
        *((command("iso", text), NOTHING)
          for text in ("25", "50", "125", "150", "0", "12800", "Auto", "AUTO", "100 ", " 100", "1e2", "0100",
                       "")),
        (command("iso"), NOTHING),
    ],
    "ev": [
        *(ev(text, code) for text, code in EV.items()),
        *((command("ev", text), NOTHING) for text in EV_BETWEEN),
        (command("ev"), ev("", 16)[1]),
    ],
    "video resolution": [
        *(resolution(text, *effect) for text, effect in RESOLUTIONS.items()),
        *((command("video_resolution", text), NOTHING) for text in NO_RESOLUTIONS),
        (command("video_resolution"), NOTHING),
    ],
    "aspect ratio": [
        (command("video_aspect", "4:3"), said("Camera set image aspect ratio 4:3",
                                              camera(0x12, "00 00"))),
        (command("video_aspect", "16:9"), said("Camera set image aspect ratio 16:9",
                                               camera(0x12, "00 01"))),
        *((command("video_aspect", word), said("Camera set image aspect ratio " + word))
          for word in ("21:9", "4/3", "16:9 ", "", FORMATS)),
        (command("video_aspect"), said("Camera set image aspect ratio ")),
    ],
    "anti-flicker": [
        (command("antiflicker", word), said("Camera set anti-flicker " + word,
                                            camera(0x46, f"0{code}")))
        for word, code in {"50": 1, "60": 2, "off": 0, "auto": 0, "50Hz": 0, "050": 0, "": 0,
                           FORMATS: 0}.items()
    ] + [
        (command("antiflicker"), said("Camera set anti-flicker ", camera(0x46, "00"))),
    ],
    "format": [
        (command("formatmicrosd"), said("Format microSD card", camera(0x72))),
        (command("formatmicrosd", "no"), said("Format microSD card", camera(0x72))),
        (command("formatmicroSD"), NOTHING),
    ],
    "reset": [
        (command("resetcamera"), [camera(0x78, "00")]),
        (command("resetcamera", "no"), [camera(0x78, "00")]),
        (command("reset", "camera"), NOTHING),
    ],
}


@pytest.mark.parametrize("rows", TABLES.values(), ids=TABLES)
def test_effects(station, rows):
    """Exactly these texts and frames, the text always before its frame, and nothing else."""
    station.check(rows)


@pytest.fixture
def german(tmp_path):
    """The environment of a board whose locale writes numbers with commas."""
    try:
        subprocess.run(["localedef", "-i", "de_DE", "-f", "UTF-8", tmp_path / "de_DE.UTF-8"],
                       check=True, capture_output=True)
    except (OSError, subprocess.CalledProcessError):
        pytest.skip("this machine cannot make a locale")
    return {"LOCPATH": str(tmp_path), "LC_ALL": "de_DE.UTF-8", "LANG": "de_DE.UTF-8"}


def test_numbers_have_points_in_every_locale(stations, german):
    stations(env=german).check([
        f_number("2.8"), ev("0.3", 17), *TABLES["focus point"][:1], *TABLES["tracking"][:1],
        ('{"x":1.5,"cmd":"shot"}', SHOT)])


def test_the_tables_are_whole():
    """So many words there are of each kind."""
    assert len(SHUTTER) == 57
    assert len(RESOLUTIONS) == 22
    assert len(COLOURS) == 12
    assert len(ISO) == 8
    assert len(set(EV.values())) == 19


# --- Positions -----------------------------------------------------------------------------------

CENTER = ["Gimbal set center position\n", gimbal(0x4C, "FE 08")]
NEXT = ["Gimbal set next position\n", gimbal(0x4C, "FE 09")]


@pytest.mark.parametrize("word, ahead, back", [("normal", CENTER, NEXT), ("selfie", NEXT, CENTER)])
def test_position(station, word, ahead, back):
    """What brings the gimbal there depends on where it looks: back at its operator or not."""
    angles = {-32768: ahead, -230: ahead, -229: back, -228: back, -180: back, -132: back,
              -131: back, -130: ahead, -1: ahead, 0: ahead, 131: ahead, 229: ahead, 32767: ahead}
    for angle, effects in angles.items():
        station.region.write(station.region.GIMBAL_ANGLE_1, struct.pack("<h", angle))
        station.check([(command("position", word), [f"Set position {word}\n", *effects])])


# --- Speeds --------------------------------------------------------------------------------------


def collapsed(frames):
    """What the frames say, one of each run of equals."""
    said_so = [parse(event.data)[0] for event in frames]
    return [one for one, before in zip(said_so, [None, *said_so]) if one != before]


def assert_silence(station):
    """Once the stream has ended its cycle, nothing more is said or sent for five of its periods."""
    time.sleep(limit(0.05))
    station.effects()
    time.sleep(0.15)
    assert station.effects() == []


STOP = command("position", "speed", "0", "0", "0")


@pytest.mark.parametrize("what, expected", [
    (command("position", "moverel", "4000", "4000"), speed(pan=1000, roll=0, tilt=-1000)),
    (command("position", "moverel", "4000", "2000", "-4000"), speed(1000, -1000, -500)),
    (command("position", "moverel", "-4", "8", "12"), speed(-1, 3, -2)),
    (command("position", "moverel", "", "abc", "5x"), speed(0, 1, 0)),
    (command("position", "moverel", "1e3", "-4.9", "abc"), speed(0, 0, 1)),
    (command("position", "moverel", "99999999999", "99999999999", "-99999999999"),
     speed(-1, 0, 1)),
    (command("position", "speed", "1", "-2", "3"), speed(pan=1000, roll=3000, tilt=-2000)),
    (command("position", "speed", "32", "33", "-33"), speed(32000, 32536, -32536)),
    (command("position", "speed", "1.9", "2x", ""), speed(1000, 0, 2000)),
    (command("position", "speed", "99999999999", "-99999999999", "1"), speed(-1, 1000, 0)),
], ids=lambda value: " ".join(list(value.values())[1:]) if isinstance(value, dict) else "")
def test_speed(station, what, expected):
    """A relative move is scaled and its tilt turned, a speed is neither; a command that lacks a
    value changes nothing, and so does the absolute move."""
    station.send(what)
    station.camera.wait_frames(3)
    for ignored in (command("position", "moverel", "100"), command("position", "moverel"),
                    command("position", "moverel", None, "100", "100"),
                    command("position", "speed", "7", "7"), command("position", "speed"),
                    command("position", "speed", None, "7", "7"),
                    command("position", "speed", "7", None, "7"), command("position", "move"),
                    command("position", "move", "7", "7", "7")):
        station.send(ignored)
    station.send(STOP)
    station.fence()
    moves = collapsed(station.camera.frames())
    assert moves[0] == expected and moves[-1] == speed(0, 0, 0)
    # The stream may have had the old speed in hand; then it has sent a zero behind it.
    assert moves in ([expected, speed(0, 0, 0)], [expected, speed(0, 0, 0)] * 2)
    assert_silence(station)


def test_zero_speed_of_a_command_is_one_frame(station):
    station.check([(STOP, [speed(0, 0, 0)]),
                   (command("position", "moverel", "0", "0"), [speed(0, 0, 0)]),
                   (command("position", "moverel", "x", ""), [speed(0, 0, 0)]),
                   # A roll that is no text is none.
                   ({**command("position", "moverel", "0", "0"), "value3": 4000},
                    [speed(0, 0, 0)])])


# --- Orientation ---------------------------------------------------------------------------------


def test_orientation(station):
    """While the orientation is locked, the stream holds it, also against a second lock."""
    def is_locked():
        return station.region.u8(station.region.ORIENTATION_LOCK)

    assert is_locked() == 0
    for _ in range(2):
        station.send(command("orientation", "lock"))
        station.camera.wait_frames(3, start=station.camera.count())
        assert is_locked() == 1
    station.send(command("orientation", "unlock"))
    station.fence()
    assert is_locked() == 0
    assert [event.text for event in station.camera.events()
            if event.text.startswith("Set orientation")] == [
        "Set orientation lock\n", "Set orientation lock\n", "Set orientation unlock\n"]
    assert collapsed(station.camera.frames()) == [speed(1, 0, 0)]
    assert_silence(station)


def test_orientation_frames(station):
    """The operation itself sends nothing, and only its two words do anything."""
    station.check([
        (command("orientation", "unlock"), ["Set orientation unlock\n"]),
        (command("orientation", "Lock"), NOTHING),
        (command("orientation", "1"), NOTHING),
        (command("orientation", ""), NOTHING),
        (command("orientation"), NOTHING),
    ])
    assert station.region.u8(station.region.ORIENTATION_LOCK) == 0


# --- Pauses --------------------------------------------------------------------------------------


PAUSES = {
    "exposure point": (command("exposure", "point", "7"), [0.1, 0.1]),
    "exposure center": (command("exposure", "center"), [0.1]),
    "focus point": (command("focus", "point", "0.5", "0.5"), [0.02]),
    # Nothing else holds the mailbox.
    "calibration": (command("horizont", "calibrate"), [0, 0]),
    "gimbal mode": (command("gimbal", "mode", "fpv"), [0]),
    "tracking": (command("tracking", "start", "0", "0", "1", "1"), [0]),
    "color": (command("color", "art"), [0]),
    "video resolution": (command("video_resolution", "1280x720@24"), [0]),
}


@pytest.mark.parametrize("what, pauses", PAUSES.values(), ids=PAUSES)
def test_pauses(station, what, pauses):
    """The camera is given time between the frames of one command, and no more than that, as far as
    the machine allows."""
    waits = []
    for _ in range(5):
        start = station.camera.count()
        station.send(what)
        times = [event.time for event in station.camera.wait_frames(len(pauses) + 1, start=start)]
        waits.append([after - before for before, after in zip(times, times[1:])])
    for pause, *lasted in zip(pauses, *waits):
        assert pause <= min(lasted) < pause + limit(0.02)


@pytest.mark.parametrize("what", [command("exposure", "point", "7"), command("exposure", "center")],
                         ids=["point", "center"])
def test_mailbox_is_empty_before_the_command_is_done(station, what):
    """A command that comes while another pauses is kept and carried out after it."""
    station.post(what)
    station.camera.wait_frames(1)
    assert not any(station.region.bytes(*station.region.COMMAND_MAILBOX))
    station.post(command("shot"))
    station.camera.wait_text("Camera shot\n")
    lines = [effect for effect in station.effects() if isinstance(effect, str)]
    assert lines[0] == "Camera set auto exposure lock to 0\n"
    assert lines.index("Camera shot\n") == len(lines) - 1 and len(lines) > 2


# --- The text ------------------------------------------------------------------------------------

SHOT = ["Camera shot\n", camera(0x01, "01")]
START = ["Record start\n", camera(0x02, "01")]

MEMBERS = {
    # Names in any case; words exactly.
    '{"CMD":"shot"}': SHOT,
    '{"Cmd":"record","PARAM":"start"}': START,
    '{"cMd":"gimbal","pArAm":"mode","VaLuE1":"x"}': ["Gimbal set mode x\n"],
    '{"cmd":"SHOT"}': NOTHING,
    '{"cmd":"Shot"}': NOTHING,
    '{"cmd":" shot"}': NOTHING,
    '{"cmd":"shot "}': NOTHING,
    '{"cmd":"shots"}': NOTHING,
    '{"cmd":"sho"}': NOTHING,
    '{"cmd":""}': NOTHING,
    '{"cmd":"record","param":"START"}': NOTHING,
    # In any order, among others, with blanks.
    '{"param":"start","cmd":"record"}': START,
    '{"id":7,"cmd":"shot","to":{"cmd":"x"},"tags":["a",null]}': SHOT,
    '{ \t"cmd"\r\n : "shot" } ': SHOT,
    # Nothing to go by.
    "{}": NOTHING,
    '{"param":"start"}': NOTHING,
    '{"command":"shot"}': NOTHING,
    '{"":"shot"}': NOTHING,
    # Only a member that is a text counts.
    '{"cmd":1}': NOTHING,
    '{"cmd":null}': NOTHING,
    '{"cmd":true}': NOTHING,
    '{"cmd":["shot"]}': NOTHING,
    '{"cmd":{"cmd":"shot"}}': NOTHING,
    '{"cmd":"record","param":["start"]}': NOTHING,
    '{"cmd":"iso","param":100}': NOTHING,
    '{"cmd":"video_resolution","param":1920}': NOTHING,
    '{"cmd":"ev","param":0.3}': ev("", 16)[1],
    '{"cmd":"ev","param":null}': ev("", 16)[1],
    '{"cmd":"aperture","param":2.8}': aperture("", "0.00", "00 00")[1],
    '{"cmd":"hystogram","param":1}': histogram("", "disable", "00")[1],
    '{"cmd":"shutter","param":{}}': shutter("", "00 00 00")[1],
    '{"cmd":"color","param":5}': colour("", 0)[1],
    '{"cmd":"camera","param":"mode","value1":1}': NOTHING,
    '{"cmd":"exposure","param":"point","value1":7}': NOTHING,
    '{"cmd":"exposure","param":"auto","value1":true}': NOTHING,
    '{"cmd":"focus","param":"type","value1":null}': NOTHING,
    '{"cmd":"focus","param":"point","value1":"0.5","value2":0.5}': NOTHING,
    '{"cmd":"gimbal","param":"mode","value1":["fpv"]}': NOTHING,
    '{"cmd":"gimbal","param":"follow","value1":2}': NOTHING,
    '{"cmd":"wb","param":"custom","value1":5600}': ["Camera set WB custom\n"],
    '{"cmd":"tracking","param":"start","value1":"1","value2":"1","value3":"1","value4":1}': NOTHING,
    '{"cmd":"position","param":"speed","value1":"1","value2":"1","value3":1}': NOTHING,
    '{"cmd":"position","param":"moverel","value1":"1","value2":1}': NOTHING,
    # Of several members of one name, the first counts.
    '{"cmd":"shot","cmd":"resetcamera"}': SHOT,
    '{"CMD":"shot","cmd":"resetcamera"}': SHOT,
    '{"cmd":1,"cmd":"shot"}': NOTHING,
    '{"cmd":"record","param":"start","Param":"stop"}': START,
    # Escapes stand for their characters.
    '{"cmd":"sh\\u006ft"}': SHOT,
    '{"\\u0063md":"shot"}': SHOT,
    r'{"cmd":"video_aspect","param":"\/\b\f\n\r\t\"\\"}': [
        'Camera set image aspect ratio /\b\f\n\r\t"\\\n'],
    # Commands for the settings.
    '{"cmd":"rc","name":"showchannels","value":"0"}': NOTHING,
    '{"cmd":"wlan","param":"scan","value":"0"}': NOTHING,
    '{"cmd":"updateparam","name":"no such","value":"1"}': NOTHING,
}


def test_members(station):
    station.check(MEMBERS.items())


def padded(length, before='{"cmd":"shot","pad":"', after='"}'):
    return before + "x" * (length - len(before) - len(after)) + after


LONGEST = 511
LENGTHS = [
    (padded(510), SHOT),
    (padded(511), SHOT),
    (padded(511, '{"pad":"', '","cmd":"shot"}'), SHOT),
    # Longer ones are cut, and what is left is no object.
    (padded(512), NOTHING),
    (padded(513), NOTHING),
    (padded(60_000), NOTHING),
    # What is cut off was not needed.
    (padded(511) + "x", SHOT),
    (padded(511) + " " * 59_000, SHOT),
    # The longest word.
    (padded(511, '{"cmd":"video_aspect","param":"'),
     ["Camera set image aspect ratio " + "x" * (511 - len('{"cmd":"video_aspect","param":""}'))
      + "\n"]),
]


def test_lengths(station):
    """511 characters of a text count."""
    station.check(LENGTHS)


def test_mailbox_without_an_end(station):
    """Whoever fills the mailbox to its last byte: 511 characters are taken, and all is cleared."""
    offset, size = station.region.COMMAND_MAILBOX
    text = padded(LONGEST).encode() + b"x"
    assert len(text) == size
    station.region.write(offset + 1, text[1:])
    station.region.write(offset, text[:1])
    station.camera.wait_frames(1)
    assert not any(station.region.bytes(offset, size))
    station.fence()
    assert station.effects()[:-1] == station.numbered(SHOT)
