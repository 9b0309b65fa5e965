// In place of TLS where it is left out: see NIMBUS_TLS.
#include "tools/common/failure.h"
#include "tools/web/connection_tls.h"

namespace boost::asio::ssl {
class context {};
}  // namespace boost::asio::ssl

namespace nimbus::web {
namespace {

[[noreturn]] void refuse() {
  throw tools::Failure("built without TLS; expected neither --tls nor --tls-cert");
}

}  // namespace

void make_certificate(const CertificateFiles& /*files*/,
                      const std::vector<std::string>& /*names*/) {
  refuse();
}

Tls::Tls(const CertificateFiles& /*files*/) { refuse(); }

Tls::~Tls() = default;

// As it is declared for who takes the context over.
// NOLINTBEGIN(performance-unnecessary-value-param)
std::shared_ptr<Connection> connect_tls(boost::asio::ip::tcp::socket /*socket*/, Tls& /*tls*/,
                                        ConnectionContext /*context*/) {
  return nullptr;
}
// NOLINTEND(performance-unnecessary-value-param)

}  // namespace nimbus::web
