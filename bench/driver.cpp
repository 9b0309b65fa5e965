#include "bench/driver.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <stdexcept>

namespace nimbus::bench {
namespace {

constexpr int kExitLimitMissed = 1;
constexpr int kExitFailed = 2;

void enter_working_folder(const std::string& name) {
  // It goes with the sandbox.
  const std::filesystem::path folder = "/run/" + name;
  std::filesystem::create_directory(folder);
  std::filesystem::current_path(folder);
  std::ofstream("tervado.conf") << "";
}

}  // namespace

void add_binary(CLI::App& app, const char* option, std::filesystem::path& binary,
                const char* description) {
  app.add_option_function<std::string>(
         option, [&binary](const std::string& path) { binary = std::filesystem::absolute(path); },
         description)
      ->required()
      ->check(CLI::ExistingFile);
}

int run_driver(CLI::App& app, int argc, char** argv,
               const std::function<void(Table&)>& measure) try {
  bool no_header = false;
  bool no_limits = false;
  app.footer("Exit status: 0 when all limits hold, 1 when one is missed, 2 when something fails.");
  app.add_flag("--no-header", no_header, "go on with a table that another benchmark has begun");
  app.add_flag("--no-limits", no_limits, "exit with 0 also when a limit is missed");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  }
  if (std::getenv("NIMBUS_SANDBOX") == nullptr) {
    throw std::runtime_error("runs in the sandbox only: tools/sandbox/enter " + app.get_name() +
                             " ...");
  }
  enter_working_folder(app.get_name());
  Table table(!no_header);
  measure(table);
  return table.all_hold() || no_limits ? EXIT_SUCCESS : kExitLimitMissed;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s: %s\n", app.get_name().c_str(), error.what());
  return kExitFailed;
}

}  // namespace nimbus::bench
