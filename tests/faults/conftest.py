"""`./dev test` runs these tests shortly, `./dev soak` the long one for as long as it is told. They live
on what the end-to-end tests know of the service's neighbours."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

pytest_plugins = ["service_fixtures"]


def pytest_addoption(parser):
    parser.addoption("--soak-seconds", type=float, default=15,
                     help="how long the soak lasts (default: 15)")
    parser.addoption("--soak-viewers", type=int, default=10,
                     help="how many viewers the soak has (default: 10)")
