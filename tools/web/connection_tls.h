// A browser on a TCP socket with TLS.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <memory>

#include "tools/web/certificate.h"
#include "tools/web/connection.h"

namespace boost::asio::ssl {
class context;
}

namespace nimbus::web {

/// A certificate, for connections from now on. Those that there are keep theirs.
class Tls {
 public:
  /// Throws Failure when the files are no certificate and its key.
  explicit Tls(const CertificateFiles& files);
  ~Tls();
  Tls(const Tls&) = delete;
  Tls& operator=(const Tls&) = delete;

  [[nodiscard]] boost::asio::ssl::context& context() { return *context_; }

 private:
  std::unique_ptr<boost::asio::ssl::context> context_;
};

/// The connection needs the certificate now only.
[[nodiscard]] std::shared_ptr<Connection> connect_tls(boost::asio::ip::tcp::socket socket, Tls& tls,
                                                      ConnectionContext context);

}  // namespace nimbus::web
