"""`./dev test` runs these tests, each worker in a sandbox of its own."""

pytest_plugins = ["harness.fixtures", "harness.web_fixtures"]
