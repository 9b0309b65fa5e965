// One bound UDP socket with its receive thread.
//
// Anything may arrive, from anybody: each datagram is handed on alone, whole, with its sender. The
// sender of the last one is the link's peer, and the time of the last one tells whether the link is
// live or silent.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "base/shared.h"

namespace nimbus {

/// The dotted-quad text of an IPv4 address (RFC 791), NUL-terminated.
using AddressText = std::array<char, INET_ADDRSTRLEN>;

/// An IPv4 address and a UDP port.
struct Endpoint {
  in_addr_t address = 0;   ///< network byte order; 0: none
  std::uint16_t port = 0;  ///< host byte order; 0: none
};

[[nodiscard]] AddressText address_text(in_addr_t address) noexcept;

/// One received datagram. The bytes are the link's buffer: valid until the callback returns.
struct Datagram {
  std::span<const std::uint8_t> bytes;
  Endpoint sender;
};

/// The largest datagram that the bridge sends; longer ones are cut to it.
inline constexpr std::size_t kMaxDatagram = 60'000;

/// A silent link is one without a datagram for longer than this.
inline constexpr std::uint32_t kLinkTimeoutMs = 1000;

/// A UDP link. All of them are static objects that live as long as the process; there is no close.
///
/// The callbacks may be empty and may be set at any moment, also after open(). on_found and
/// on_packet run on the link's receive thread, on_lost on the thread that calls notice_silence();
/// found and lost never run at the same time.
class UdpLink {
 public:
  Shared<void (*)(const Datagram&)> on_packet;  ///< every datagram
  Shared<void (*)()> on_found;  ///< the first datagram after silence, before on_packet
  Shared<void (*)()> on_lost;   ///< the link has fallen silent

  constexpr UdpLink() noexcept
      : on_packet(nullptr),
        on_found(nullptr),
        on_lost(nullptr),
        last_packet_ms_(0),
        peer_address_(0),
        peer_port_(0) {}

  /// Binds `port` on all interfaces and starts the receive thread. Returns 0, or -1 when the port
  /// cannot be bound. Main thread, once.
  int open(std::uint16_t port) noexcept;

  /// Sends one datagram made of `parts` to `destination`. Returns what sendmsg(2) returns. Any
  /// thread.
  std::ptrdiff_t send_to(std::span<const iovec> parts, Endpoint destination) const noexcept;

  /// Sends one datagram to the sender of the last one received. Returns what sendto(2) returns, or
  /// -1 without a system call when nothing has ever been received. Any thread.
  std::ptrdiff_t send_to_peer(std::span<const std::uint8_t> bytes) const noexcept;

  /// Calls on_lost once when the last datagram is more than kLinkTimeoutMs old. Main thread, once a
  /// second.
  void notice_silence() noexcept;

 private:
  static void* run(void* link) noexcept;
  [[noreturn]] void receive_loop() noexcept;
  void handle(const Datagram& datagram) noexcept;

  int socket_ = -1;
  Shared<std::uint32_t> last_packet_ms_;  // now_ms of the last datagram, 0: silent
  Shared<in_addr_t> peer_address_;        // network byte order
  Shared<std::uint16_t> peer_port_;       // host byte order, 0: no peer yet; set after the address
  std::array<std::uint8_t, kMaxDatagram> buffer_{};  // receive thread only
};

}  // namespace nimbus
