// The instantiation for TLS.
#include "tools/web/connection_tls.h"

#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "tools/common/failure.h"
#include "tools/web/connection_on.h"

namespace nimbus::web {
namespace {

using boost::asio::ip::tcp;
namespace ssl = boost::asio::ssl;

using TlsStream = ssl::stream<tcp::socket>;

struct BelowTls {
  static constexpr bool kSecure = true;
  static int fd(TlsStream& stream) { return stream.next_layer().native_handle(); }
  static void close(TlsStream& stream) {
    beast::error_code ignored;
    stream.next_layer().close(ignored);
  }
  static void shut(TlsStream& stream) {
    beast::error_code ignored;
    stream.next_layer().shutdown(tcp::socket::shutdown_send, ignored);
  }
};

}  // namespace

Tls::Tls(const CertificateFiles& files)
    : context_(std::make_unique<ssl::context>(ssl::context::tls_server)) {
  boost::system::error_code error;
  SSL_CTX_set_min_proto_version(context_->native_handle(), TLS1_2_VERSION);
  SSL_CTX_set_mode(context_->native_handle(), SSL_MODE_RELEASE_BUFFERS);
  context_->use_certificate_chain_file(files.certificate, error);
  if (error) {
    throw tools::Failure("no certificate in " + files.certificate + "; expected one in PEM");
  }
  context_->use_private_key_file(files.key, ssl::context::pem, error);
  if (error || SSL_CTX_check_private_key(context_->native_handle()) != 1) {
    throw tools::Failure("no key in " + files.key + " that fits " + files.certificate +
                         "; expected one in PEM");
  }
}

Tls::~Tls() = default;

std::shared_ptr<Connection> connect_tls(tcp::socket socket, Tls& tls, ConnectionContext context) {
  return std::make_shared<ConnectionOn<TlsStream, BelowTls>>(
      TlsStream(std::move(socket), tls.context()), std::move(context));
}

}  // namespace nimbus::web
