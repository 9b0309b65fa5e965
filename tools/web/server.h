// The event loop: sockets, timers, and who calls whom. One thread, but for the hash of a password
// and the file for RTP's receivers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "net/messages.h"
#include "tools/web/certificate.h"

namespace nimbus::web {

struct ServerOptions {
  std::string service_host = "127.0.0.1";
  std::uint16_t service_port = kViewerPort;
  std::string listen = "0.0.0.0:8080";  ///< ADDRESS:PORT; not used when a socket was handed over
  std::string passwords = {};           ///< their file; empty: none
  CertificateFiles tls = {};            ///< empty: no TLS
  bool makes_certificate = false;       ///< when it is not there
  std::vector<std::string> names = {};  ///< of this machine, beside addresses and localhost
  std::string rtp_host = {};            ///< where the picture goes as RTP, too; empty: nowhere
  std::uint16_t rtp_port = 0;
  std::string sdp = {};  ///< the file that tells RTP's receivers of it; empty: none
};

/// Serves until SIGTERM or SIGINT. Throws Failure when it cannot begin.
void serve(const ServerOptions& options);

}  // namespace nimbus::web
