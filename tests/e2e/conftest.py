"""`./dev test` runs these tests, each worker in a sandbox of its own."""

pytest_plugins = ["service_fixtures"]
