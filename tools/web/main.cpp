// nimbus-web: the picture and the controls in a browser.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>

#include "tools/common/failure.h"
#include "tools/web/server.h"
#include "tools/web/tables.h"

namespace nimbus::web {
namespace {

int fail(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::fprintf(stderr, "nimbus-web: %s\n", text.c_str());
  return 1;
}

/// HOST, HOST:PORT.
void split_service(const std::string& text, ServerOptions& options) {
  const auto colon = text.find(':');
  options.service_host = text.substr(0, colon);
  if (colon == std::string::npos) return;
  int port = 0;
  if (!CLI::detail::lexical_cast(text.substr(colon + 1), port) || port < 1 || port > 65'535) {
    throw tools::Failure("no port in '" + text + "'; expected HOST or HOST:PORT");
  }
  options.service_port = static_cast<std::uint16_t>(port);
}

int run(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  ServerOptions options;
  std::string service = "127.0.0.1:4242";
  CLI::App app("The picture and the controls of Tervado Nimbus in a browser.", "nimbus-web");
  app.set_version_flag("--version", "nimbus-web " + version_text(), "Print the version and end");
  app.set_help_flag("-h,--help", "Print this help and end");
  app.add_option("--service", service, "Where the service runs: HOST or HOST:PORT")
      ->envname("NIMBUS_SERVICE")
      ->capture_default_str();
  app.add_option("--listen", options.listen, "Where browsers come to: ADDRESS:PORT")
      ->capture_default_str();
  app.add_option("--name", options.names, "Another name by which browsers know this machine");
  try {
    app.parse(argc, argv);
    split_service(service, options);
    serve(options);
    return 0;
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    return fail(std::string(error.what()) + "; nimbus-web --help tells what is expected");
  } catch (const std::exception& error) {
    return fail(error.what());
  }
}

}  // namespace
}  // namespace nimbus::web

int main(int argc, char** argv) {
  try {
    return nimbus::web::run(argc, argv);
  } catch (...) {
    std::fputs("nimbus-web: out of memory\n", stderr);
    return 1;
  }
}
