// A connection of nimbus-web on a stream in memory: bytes in, bytes out, no socket, no clock.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/beast/_experimental/test/stream.hpp>
#include <memory>
#include <string>

#include "tools/web/connection_on.h"

namespace nimbus::web {

using MemoryStream = beast::test::stream;

struct BelowMemory {
  static constexpr bool kSecure = false;
  static int fd(MemoryStream& /*stream*/) { return -1; }
  static void shut(MemoryStream& stream) { stream.close(); }
  static void close(MemoryStream& stream) { stream.close_remote(); }
};

/// The other side of a connection.
class Wire {
 public:
  explicit Wire(Site& site) {
    MemoryStream stream(loop_);
    far_.connect(stream);
    connection_ = std::make_shared<ConnectionOn<MemoryStream, BelowMemory>>(
        std::move(stream),
        ConnectionContext{site, std::make_shared<const std::string>("10.0.0.9")});
    connection_->start();
    run();
  }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;
  ~Wire() {
    connection_->close();
    far_.close();
    run();
  }

  void send(std::string_view bytes) {
    beast::error_code ignored;
    far_.write_some(boost::asio::buffer(bytes), ignored);
    run();
  }

  /// Does no more than is needed until `enough`: the rest waits for the next call.
  template <typename Enough>
  void send_until(std::string_view bytes, Enough enough) {
    beast::error_code ignored;
    far_.write_some(boost::asio::buffer(bytes), ignored);
    loop_.restart();
    while (!enough() && loop_.poll_one() > 0) {
    }
  }

  /// Does all there is to do.
  void run() {
    loop_.restart();
    loop_.poll();
  }

  /// Everything that has come since the last call.
  std::string take() {
    std::string text(far_.str());
    far_.clear();
    return text;
  }

  void check(Time now) {
    connection_->check(now);
    run();
  }

 private:
  boost::asio::io_context loop_;
  MemoryStream far_{loop_};
  std::shared_ptr<Connection> connection_;
};

}  // namespace nimbus::web
