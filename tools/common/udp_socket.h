#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/unique_fd.h"

namespace nimbus::tools {

/// An IPv4 address and a port, both in host byte order.
struct Endpoint {
  std::uint32_t address = 0;
  std::uint16_t port = 0;
};

/// Room for whatever one receive may bring.
inline constexpr std::size_t kLargestDatagram = 65'536;

/// An IPv4 address in host byte order, as in "192.168.1.5".
[[nodiscard]] std::string dotted(std::uint32_t address);

/// A connected UDP socket of a tool: what it sends goes to its peer, what it receives comes from
/// it. One thread at a time. Members throw Failure where something is said to fail.
class UdpSocket {
 public:
  /// A socket to a host (a name or a numeric IPv4 address) and port (host byte order), on any free
  /// port of its own. Throws Failure when the host is not known.
  UdpSocket(const std::string& host, std::uint16_t port);

  /// Sends one datagram. False when the peer's host refused an earlier one (nobody listens there);
  /// throws Failure when the network cannot take it.
  bool send(std::span<const std::uint8_t> datagram);

  /// Waits for one datagram, at most so long, and gives the part of `buffer` that it fills; longer
  /// ones are cut. Nothing when the time is over or a signal came.
  std::optional<std::span<std::uint8_t>> receive(std::span<std::uint8_t> buffer,
                                                 std::chrono::milliseconds wait);

  /// Makes room for bursts of video before they are received, as far as the system allows.
  void hold_bursts();

  /// Both ends, as the system has them; zeros when it does not tell.
  [[nodiscard]] Endpoint local() const;
  [[nodiscard]] Endpoint peer() const;

  /// For poll(2).
  int fd() const { return socket_.get(); }

 private:
  UniqueFd socket_;
};

}  // namespace nimbus::tools
