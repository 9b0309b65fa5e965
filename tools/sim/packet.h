// From a captured packet to the UDP datagram in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "tools/sim/frame.h"

namespace nimbus::sim {

/// How a recording wraps its packets.
enum class LinkLayer : std::uint8_t { ethernet, cooked_1, cooked_2, raw_ip };

/// The IPv4 packet in a captured one, VLAN tags taken off; nothing when it holds another protocol
/// or is too short.
[[nodiscard]] std::optional<Bytes> ip_packet(LinkLayer layer, Bytes captured);

/// A UDP datagram. Addresses and ports in host byte order.
struct UdpDatagram {
  std::uint32_t source = 0;
  std::uint32_t destination = 0;
  std::uint16_t source_port = 0;
  std::uint16_t destination_port = 0;
  std::vector<std::uint8_t> payload;
};

/// Takes IPv4 packets, gives UDP datagrams, and puts fragments together: in any order, some
/// repeated. What overlaps otherwise is dropped as a whole, and so is what stays in pieces while
/// many others come.
class UdpReader {
 public:
  /// The datagram that the packet is, or that it is the last piece of. Nothing for everything else,
  /// and for what the capture has cut short.
  [[nodiscard]] std::optional<UdpDatagram> take(Bytes packet);

  /// Datagrams in pieces that never became whole, so far.
  [[nodiscard]] std::uint64_t given_up() const { return given_up_ + pending_.size(); }

 private:
  /// What all pieces of a datagram share.
  struct Name {
    std::uint32_t source;
    std::uint32_t destination;
    std::uint16_t id;
    bool operator==(const Name&) const = default;
  };
  struct Piece {
    std::size_t at;
    std::vector<std::uint8_t> bytes;
  };
  struct Pending {
    Name name;
    std::vector<Piece> pieces;  // by their place
    std::size_t received = 0;   // bytes
    std::optional<std::size_t> size;
  };

  std::optional<UdpDatagram> take_piece(const Name& name, std::size_t at, bool last, Bytes bytes);
  Pending& pending(const Name& name);
  void give_up(const Name& name);
  static bool add(Pending& datagram, std::size_t at, bool last, Bytes bytes);
  static std::optional<std::vector<std::uint8_t>> whole(const Pending& datagram);

  std::deque<Pending> pending_;
  std::uint64_t given_up_ = 0;
};

}  // namespace nimbus::sim
