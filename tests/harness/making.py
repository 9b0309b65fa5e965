"""For fixtures that give a function which makes things, as many as a test wants."""

import contextlib


@contextlib.contextmanager
def making(make, end=lambda one: one.close()):
    """Gives make() as a function that remembers what it has made: all of that ends with the test,
    the last first."""
    with contextlib.ExitStack() as ends:

        def remembered(*arguments, **options):
            one = make(*arguments, **options)
            ends.callback(end, one)
            return one

        yield remembered
