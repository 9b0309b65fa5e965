// A browser on a TCP socket.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <memory>

#include "tools/web/connection.h"

namespace nimbus::web {

[[nodiscard]] std::shared_ptr<Connection> connect_tcp(boost::asio::ip::tcp::socket socket,
                                                      ConnectionContext context);

}  // namespace nimbus::web
