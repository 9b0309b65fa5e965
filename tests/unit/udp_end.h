// The other end of a UDP link of the service.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "net/udp_link.h"

namespace nimbus::test {

/// A socket of this host, on a port that nobody else has.
class UdpEnd {
 public:
  UdpEnd() {
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    EXPECT_EQ(getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    endpoint_ = {address.sin_addr.s_addr, ntohs(address.sin_port)};
  }

  [[nodiscard]] Endpoint endpoint() const { return endpoint_; }

  /// Sends a datagram to a port of this host.
  void send(std::uint16_t port, std::string_view bytes) const {
    const sockaddr_in service = loopback(port);
    EXPECT_EQ(sendto(socket_.get(), bytes.data(), bytes.size(), 0,
                     reinterpret_cast<const sockaddr*>(&service), sizeof(service)),
              static_cast<ssize_t>(bytes.size()));
  }

  /// The next datagram; empty when none comes.
  [[nodiscard]] std::string receive(
      std::chrono::milliseconds patience = std::chrono::seconds(10)) const {
    pollfd readable{socket_.get(), POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(patience.count())) != 1) return {};
    std::string bytes(65536, '\0');
    const ssize_t length = recv(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return bytes;
  }

 private:
  static sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }

  UniqueFd socket_{socket(AF_INET, SOCK_DGRAM, 0)};
  Endpoint endpoint_;
};

}  // namespace nimbus::test
