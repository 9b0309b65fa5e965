// What the benchmarks share: their command line, their folder, their exit status.
#pragma once

#include <CLI/CLI.hpp>
#include <filesystem>
#include <functional>

#include "bench/table.h"

namespace nimbus::bench {

/// Adds an option that names a binary. It may be relative: it is made absolute.
void add_binary(CLI::App& app, const char* option, std::filesystem::path& binary,
                const char* description);

/// Parses the command line, refuses to run outside the sandbox, enters an empty working folder for
/// the service (all of its settings are zero), and lets `measure` fill the table. Returns the exit
/// status: 0 when all limits hold or --no-limits is given, 1 when one is missed, 2 when something
/// fails.
int run_driver(CLI::App& app, int argc, char** argv, const std::function<void(Table&)>& measure);

}  // namespace nimbus::bench
