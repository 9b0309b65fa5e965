"""A run of the tests from outside: its options and marks, which tests there are in an emulator, and
which have failed."""

import os
import pathlib
import signal

from harness.service import EMULATOR

ROOT = pathlib.Path(__file__).resolve().parents[2]


def pytest_addoption(parser):
    parser.addoption("--build", default=str(ROOT / "build" / "release"),
                     help="folder of the build to test (default: build/release)")
    parser.addoption("--long", action="store_true",
                     help="faults and floods last for minutes instead of seconds")
    parser.addoption("--soak-seconds", type=float, default=15,
                     help="how long a soak lasts (default: 15)")
    parser.addoption("--failures", help="file for the names of the tests that fail, each behind the"
                                        " word timing, if it is marked so, or firm")


def pytest_configure(config):
    config.addinivalue_line("markers", "timing: measures how long something takes; it may fail beside"
                                       " other work, and is then tried once more, alone")
    # A job in the background ignores Ctrl-C, one of nohup(1) the end of the terminal, and would
    # pass that on to all that it starts.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGHUP, signal.SIG_DFL)
    # Workers live in worlds of their own, with the same process numbers: each writes what a build
    # for coverage counts under a name of its own.
    if profile := os.environ.get("LLVM_PROFILE_FILE"):
        worker = os.environ.get("PYTEST_XDIST_WORKER", "alone")
        os.environ["LLVM_PROFILE_FILE"] = profile.replace("%w", worker)


# Files whose tests hold periods, rates and time-outs of the service against the clock.
MEASURING = ("test_control", "test_floods", "test_overload", "test_rc_", "test_relay", "test_sim",
             "test_slow_viewers", "test_sources", "test_speed", "test_startup", "test_status",
             "test_console", "test_guests", "test_wall_clock", "test_soak")


# Files of what a processor could change: bytes on the wire and in the regions, numbers, the
# settings' text. In an emulator the others see nothing more of it, and tools for people, films and
# floods take their time there; all of them run in the emulator with --long.
OF_PROCESSORS = ("test_board_commands", "test_commands", "test_configuration", "test_control",
                 "test_frames", "test_hostile_commands", "test_links", "test_oddities",
                 "test_rc_charge", "test_rc_cycle", "test_rc_ev", "test_rc_focus_point",
                 "test_rc_record", "test_rc_steering", "test_rc_steps", "test_rc_switches",
                 "test_recorded_session", "test_regions", "test_relay", "test_report_scan",
                 "test_reports", "test_save", "test_settings", "test_sources", "test_speed",
                 "test_startup", "test_status", "test_supervisor", "test_viewers", "test_bridge",
                 "test_restarts", "test_scribbled_region", "test_wall_clock")


def pytest_collection_modifyitems(config, items):
    for item in items:
        if item.path.stem.startswith(MEASURING):
            item.add_marker("timing")
    if EMULATOR and not config.getoption("--long"):
        elsewhere = [item for item in items if item.path.stem not in OF_PROCESSORS]
        items[:] = [item for item in items if item.path.stem in OF_PROCESSORS]
        config.hook.pytest_deselected(items=elsewhere)


def pytest_terminal_summary(terminalreporter):
    """Where the reports of all workers are."""
    file = terminalreporter.config.getoption("--failures")
    reports = [report for kind in ("failed", "error") for report in terminalreporter.getreports(kind)]
    if file and reports:
        pathlib.Path(file).write_text("".join(
            f"{'timing' if 'timing' in report.keywords else 'firm'} {report.nodeid}\n"
            for report in reports))
