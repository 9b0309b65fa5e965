"""`./dev test` runs these tests, each worker in a sandbox of its own."""

import pytest

pytest_plugins = ["service_fixtures", "web_fixtures"]

# Tests import from it before they name it as their plugin.
pytest.register_assert_rewrite("board")
