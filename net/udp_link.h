// A UDP port of the service, and the thread that reads it.
//
// Anything may arrive, from anybody: each datagram is handed on alone, whole, with its sender. The
// sender of the last one is the link's peer, and the time of the last one tells whether the link is
// live or silent. What comes faster than it can be handled waits in the socket's queue, but not for
// long: old is worse than lost.
#pragma once

#include <netinet/in.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "base/shared.h"
#include "net/queue_age.h"

namespace nimbus {

/// The dotted-quad text of an IPv4 address (RFC 791), NUL-terminated.
using AddressText = std::array<char, INET_ADDRSTRLEN>;

/// An IPv4 address and a UDP port.
struct Endpoint {
  in_addr_t address = 0;   ///< network byte order; 0: none
  std::uint16_t port = 0;  ///< host byte order; 0: none
};

[[nodiscard]] AddressText address_text(in_addr_t address) noexcept;
[[nodiscard]] sockaddr_in socket_address(Endpoint endpoint) noexcept;

/// The two options that set the size of a socket's buffer. The forced one passes the system's limit
/// but wants CAP_NET_ADMIN; the plain one is cut to the limit.
struct BufferOptions {
  int forced;
  int plain;
};

/// Sets that buffer to twice so many bytes, as the kernel counts, or to as many as it grants.
void set_buffer(int socket, BufferOptions options, int bytes) noexcept;

/// One received datagram. The bytes are the link's buffer: valid until the callback returns.
struct Datagram {
  std::span<const std::uint8_t> bytes;
  Endpoint sender;
};

/// The largest datagram that the bridge sends; longer ones are cut to it.
inline constexpr std::size_t kMaxDatagram = 60'000;

/// A silent link is one without a datagram for longer than this.
inline constexpr std::uint32_t kLinkTimeoutMs = 1000;

/// A datagram that has waited in the queue for longer than this keeps its link live, and is
/// dropped.
inline constexpr std::chrono::seconds kQueuePatience{2};

/// At most once in this time, for all links together, the console says that datagrams are dropped.
inline constexpr std::chrono::seconds kDropReportPeriod{10};

/// Whom a link tells; each may be null. found and packet run on the link's receive thread, lost on
/// the thread that calls notice_silence(); found and lost never run at the same time.
struct LinkCallbacks {
  void (*packet)(const Datagram&) = nullptr;  ///< every datagram that is not too old
  void (*found)() = nullptr;                  ///< the first datagram after silence, before packet
  void (*lost)() = nullptr;                   ///< the link has fallen silent
};

/// A port and how a link takes it.
struct LinkPort {
  std::uint16_t number;
  int queue_bytes;     ///< asked for; the kernel doubles it, and counts its own bookkeeping
  bool joins = false;  ///< it joins the group that has the port, as its last member
};

/// A UDP link. All of them are static objects that live as long as the process; there is no close.
class UdpLink {
 public:
  constexpr UdpLink() noexcept : last_packet_ms_(0), peer_address_(0), peer_port_(0) {}

  /// Binds the port on all interfaces: from then on, what arrives waits in the queue. Returns 0, or
  /// -1 when the port cannot be bound. Main thread, once.
  int open(const LinkPort& port) noexcept;

  /// Starts the receive thread, which tells these. Main thread, once, after open().
  void start(const LinkCallbacks& callbacks) noexcept;

  /// The socket, for sends. Main thread, after open().
  [[nodiscard]] int socket() const noexcept { return socket_; }

  /// Sends one datagram to the sender of the last one received; it is lost when too much waits to
  /// be sent already. Never waits. Returns what sendto(2) returns, or -1 without a system call when
  /// nothing has ever been received. Any thread.
  std::ptrdiff_t send_to_peer(std::span<const std::uint8_t> bytes) const noexcept;

  /// Calls `lost` once when the last datagram is more than kLinkTimeoutMs old. Main thread, once a
  /// second.
  void notice_silence() noexcept;

 private:
  /// What one call has received: how many bytes, from whom, stamped when.
  struct Receipt {
    std::ptrdiff_t length;
    Endpoint sender;
    std::optional<std::int64_t> stamp;  // nanoseconds of the kernel's wall clock
  };

  static void* run(void* link) noexcept;
  [[noreturn]] void receive_loop() noexcept;
  Receipt receive() noexcept;
  void note(Endpoint sender) noexcept;
  bool is_too_old(const Receipt& receipt) noexcept;
  void count_dropped() noexcept;

  int socket_ = -1;
  LinkCallbacks callbacks_;               // set before the receive thread starts
  Shared<std::uint32_t> last_packet_ms_;  // now_ms of the last datagram, 0: silent
  Shared<in_addr_t> peer_address_;        // network byte order
  Shared<std::uint16_t> peer_port_;       // host byte order, 0: no peer yet; set after the address
  // Receive thread only.
  QueueAge queue_age_;
  std::uint32_t dropped_ = 0;  // too old
  std::array<std::uint8_t, kMaxDatagram> buffer_{};
};

}  // namespace nimbus
