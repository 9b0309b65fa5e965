// nimbus-web: the picture and the controls in a browser.
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <optional>

#include "net/messages.h"
#include "tools/common/failure.h"
#include "tools/common/version.h"
#include "tools/web/passwords.h"
#include "tools/web/server.h"

namespace nimbus::web {
namespace {

int fail(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::fprintf(stderr, "nimbus-web: %s\n", text.c_str());
  return 1;
}

/// The port that the whole text is, or nothing.
std::optional<std::uint16_t> port_of(const std::string& text) {
  int port = 0;
  if (!CLI::detail::lexical_cast(text, port) || port < 1 || port > 65'535) return {};
  return static_cast<std::uint16_t>(port);
}

/// HOST, HOST:PORT.
void split_service(const std::string& text, ServerOptions& options) {
  const auto colon = text.find(':');
  options.service_host = text.substr(0, colon);
  if (colon == std::string::npos) return;
  const auto port = port_of(text.substr(colon + 1));
  if (!port) throw tools::Failure("no port in '" + text + "'; expected HOST or HOST:PORT");
  options.service_port = *port;
}

/// HOST:PORT.
void split_receiver(const std::string& text, ServerOptions& options) {
  const auto colon = std::min(text.rfind(':'), text.size());
  const auto port = colon < text.size() ? port_of(text.substr(colon + 1)) : std::nullopt;
  if (colon == 0 || !port) {
    throw tools::Failure("--rtp cannot send to '" + text + "'; expected HOST:PORT");
  }
  options.rtp_host = text.substr(0, colon);
  options.rtp_port = *port;
}

/// A line of standard input, not shown if somebody types it.
std::string typed_password() {
  termios before{};
  const bool terminal = tcgetattr(STDIN_FILENO, &before) == 0;
  if (terminal) {
    termios silent = before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &silent);
    std::fputs("Password: ", stderr);
  }
  std::string line;
  std::getline(std::cin, line);
  if (terminal) {
    tcsetattr(STDIN_FILENO, TCSANOW, &before);
    std::fputs("\n", stderr);
  }
  return line;
}

/// An empty one takes the password away.
void set_password(const std::string& path, const std::string& role_name) {
  const Role role = role_name == name_of(Role::viewer) ? Role::viewer : Role::operates;
  Passwords passwords = Passwords::read(path);
  const std::string password = typed_password();
  passwords.set(role, password.empty() ? "" : hash_of(password));
  passwords.write(path);
}

// Where a board keeps what is its own.
constexpr const char* kFolder = "/var/lib/nimbus-web";

/// What the command line says beside the server's options.
struct Words {
  std::string service = "127.0.0.1:" + std::to_string(kViewerPort);
  std::string state = kFolder;
  std::string role;
  std::string rtp;
  bool tls = false;
};

void add_options(CLI::App& app, ServerOptions& options, Words& words) {
  app.set_version_flag("--version", "nimbus-web " + tools::version_text(),
                       "Print the version and end");
  app.set_help_flag("-h,--help", "Print this help and end");
  app.add_option("--service", words.service, "Where the service runs: HOST or HOST:PORT")
      ->envname("NIMBUS_SERVICE")
      ->capture_default_str();
  app.add_option("--listen", options.listen, "Where browsers come to: ADDRESS:PORT")
      ->capture_default_str();
  app.add_option("--name", options.names, "Another name by which browsers know this machine");
  app.add_option("--passwords", options.passwords, "The file of passwords; none is no password")
      ->capture_default_str();
  app.add_option("--set-password", words.role,
                 "Set the password of this role in that file, and end")
      ->expected(0, 1)
      ->default_str("operator")
      ->check(CLI::IsMember({"operator", "viewer"}));
  app.add_flag("--tls", words.tls, "Speak TLS, with a certificate that is made if there is none");
  app.add_option("--tls-cert", options.tls.certificate, "Speak TLS with this certificate (PEM)");
  app.add_option("--tls-key", options.tls.key, "Its key (PEM)");
  app.add_option("--rtp", words.rtp, "Send the picture (H.264) as RTP, too: to HOST:PORT");
  app.add_option("--sdp", options.sdp, "The file to write that tells RTP's receivers of it");
  app.add_option("--state", words.state, "The folder for a certificate that is made")
      ->envname("STATE_DIRECTORY")
      ->capture_default_str();
}

/// What belongs together is there together.
void check(ServerOptions& options, const Words& words) {
  if (options.tls.certificate.empty() != options.tls.key.empty()) {
    throw tools::Failure("--tls-cert and --tls-key go together; expected both or none");
  }
  if (!options.sdp.empty() && words.rtp.empty()) {
    throw tools::Failure("--sdp tells of what --rtp sends; expected --rtp HOST:PORT, too");
  }
  if (!words.rtp.empty()) split_receiver(words.rtp, options);
  if (!words.tls || !options.tls.certificate.empty()) return;
  options.tls = {words.state + "/certificate.pem", words.state + "/key.pem"};
  options.makes_certificate = true;
}

int run(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  ServerOptions options;
  options.passwords = std::string(kFolder) + "/passwords";
  Words words;
  CLI::App app("The picture and the controls of Tervado Nimbus in a browser.", "nimbus-web");
  add_options(app, options, words);
  try {
    app.parse(argc, argv);
    split_service(words.service, options);
    check(options, words);
    if (app.count("--set-password") == 0) {
      serve(options);
    } else {
      set_password(options.passwords, words.role);
    }
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
