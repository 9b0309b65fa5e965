"""Fixtures of the tests of nimbus-web."""

import pytest

from harness.making import making
from harness.timing import wait_until
from harness.web import Film, Web


@pytest.fixture
def serve(build, service):
    """serve(OPTION...) starts nimbus-web beside a running service."""
    with making(lambda *options, **more: Web(build, *options, **more), Web.stop) as make:
        yield make


@pytest.fixture
def web(serve, service):
    """A nimbus-web that the service knows."""
    one = serve()
    service.err.wait("New client connected")
    wait_until(lambda: one.state()["service"]["linked"], 5, "the service's voice")
    return one


@pytest.fixture
def film(video):
    one = Film(video)
    yield one
    one.close()
