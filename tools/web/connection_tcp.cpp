// The instantiation for plain TCP.
#include "tools/web/connection_tcp.h"

#include "tools/web/connection_on.h"

namespace nimbus::web {
namespace {

using boost::asio::ip::tcp;

struct BelowTcp {
  static constexpr bool kSecure = false;
  static int fd(tcp::socket& socket) { return socket.native_handle(); }
  static void close(tcp::socket& socket) {
    beast::error_code ignored;
    socket.close(ignored);
  }
  static void shut(tcp::socket& socket) {
    beast::error_code ignored;
    socket.shutdown(tcp::socket::shutdown_send, ignored);
  }
};

}  // namespace

std::shared_ptr<Connection> connect_tcp(tcp::socket socket, ConnectionContext context) {
  return std::make_shared<ConnectionOn<tcp::socket, BelowTcp>>(std::move(socket),
                                                               std::move(context));
}

}  // namespace nimbus::web
