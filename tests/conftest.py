"""What all tests share stands in the package harness beside this file, whose folder pytest adds to
the path with it."""

import pytest

pytest.register_assert_rewrite("harness")
