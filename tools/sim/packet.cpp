#include "tools/sim/packet.h"

#include <algorithm>

#include "base/wire.h"

namespace nimbus::sim {
namespace {

// Protocol numbers: IEEE 802.3 and 802.1Q, RFC 791, RFC 768; LINKTYPE_LINUX_SLL and _SLL2 as
// tcpdump.org describes them.
constexpr std::uint16_t kIpv4 = 0x0800;
constexpr std::uint16_t kVlan = 0x8100;
constexpr std::uint16_t kServiceVlan = 0x88A8;
constexpr std::uint8_t kUdp = 17;
constexpr std::size_t kUdpHeader = 8;
constexpr std::size_t kLargestPayload = 65'515;  // of an IP packet

std::uint16_t u16(Bytes bytes, std::size_t at) {
  return static_cast<std::uint16_t>(unsigned{bytes[at]} << 8 | bytes[at + 1]);
}

std::uint32_t u32(Bytes bytes, std::size_t at) {
  return static_cast<std::uint32_t>(u16(bytes, at)) << 16 | u16(bytes, at + 2);
}

/// Where a link layer says what it carries, and where that starts.
struct Layout {
  std::size_t protocol;
  std::size_t size;
};

constexpr Layout layout_of(LinkLayer layer) {
  switch (layer) {
    case LinkLayer::ethernet:
      return {12, 14};
    case LinkLayer::cooked_1:
      return {14, 16};
    case LinkLayer::cooked_2:
      return {0, 20};
    case LinkLayer::raw_ip:
      break;
  }
  return {0, 0};
}

/// What stands behind the tags of virtual networks, if it is IPv4.
std::optional<Bytes> behind_tags(std::uint16_t protocol, Bytes rest) {
  constexpr std::size_t kTag = 4;
  while ((protocol == kVlan || protocol == kServiceVlan) && rest.size() >= kTag) {
    protocol = u16(rest, 2);
    rest = rest.subspan(kTag);
  }
  if (protocol != kIpv4) return {};
  return rest;
}

std::optional<UdpDatagram> parse_udp(std::uint32_t source, std::uint32_t destination, Bytes bytes) {
  if (bytes.size() < kUdpHeader) return {};
  const std::size_t size = u16(bytes, 4);
  if (size < kUdpHeader || size > bytes.size()) return {};
  const Bytes payload = bytes.subspan(kUdpHeader, size - kUdpHeader);
  return UdpDatagram{
      source, destination, u16(bytes, 0), u16(bytes, 2), {payload.begin(), payload.end()}};
}

}  // namespace

std::optional<Bytes> ip_packet(LinkLayer layer, Bytes captured) {
  if (layer == LinkLayer::raw_ip) return captured;
  const Layout layout = layout_of(layer);
  if (captured.size() < layout.size) return {};
  return behind_tags(u16(captured, layout.protocol), captured.subspan(layout.size));
}

std::optional<UdpDatagram> UdpReader::take(Bytes packet) {
  constexpr std::size_t kShortestHeader = 20;
  constexpr unsigned kMoreFragments = 0x2000;
  constexpr unsigned kOffset = 0x1FFF;  // in units of 8 bytes
  if (packet.size() < kShortestHeader || packet[0] >> 4 != 4 || packet[9] != kUdp) return {};
  const std::size_t header = (packet[0] & 0x0FU) * std::size_t{4};
  const std::size_t size = u16(packet, 2);
  if (header < kShortestHeader || size < header || size > packet.size()) return {};
  const Bytes payload = packet.subspan(header, size - header);
  const unsigned fragment = u16(packet, 6);
  const Name name{u32(packet, 12), u32(packet, 16), u16(packet, 4)};
  if ((fragment & (kMoreFragments | kOffset)) == 0) {
    return parse_udp(name.source, name.destination, payload);
  }
  return take_piece(name, (fragment & kOffset) * std::size_t{8}, (fragment & kMoreFragments) == 0,
                    payload);
}

std::optional<UdpDatagram> UdpReader::take_piece(const Name& name, std::size_t at, bool last,
                                                 Bytes bytes) {
  Pending& datagram = pending(name);
  if (!add(datagram, at, last, bytes)) {
    give_up(name);
    return {};
  }
  const auto bytes_of_all = whole(datagram);
  if (!bytes_of_all) return {};
  std::erase_if(pending_, [&name](const Pending& one) { return one.name == name; });
  return parse_udp(name.source, name.destination, *bytes_of_all);
}

UdpReader::Pending& UdpReader::pending(const Name& name) {
  // A bridge sends one datagram after the other: that many are never under way.
  constexpr std::size_t kMost = 32;
  const auto found = std::find_if(pending_.begin(), pending_.end(),
                                  [&name](const Pending& one) { return one.name == name; });
  if (found != pending_.end()) return *found;
  // By a name of its own: the row's goes with the row.
  if (pending_.size() == kMost) give_up(Name(pending_.front().name));
  pending_.push_back({name, {}, 0, {}});
  return pending_.back();
}

void UdpReader::give_up(const Name& name) {
  given_up_ += std::erase_if(pending_, [&name](const Pending& one) { return one.name == name; });
}

/// False when the piece does not go with the others.
bool UdpReader::add(Pending& datagram, std::size_t at, bool last, Bytes bytes) {
  const std::size_t end = at + bytes.size();
  if (end > kLargestPayload || bytes.empty()) return false;
  if (last && datagram.size && *datagram.size != end) return false;
  if (last) datagram.size = end;
  const auto next = std::find_if(datagram.pieces.begin(), datagram.pieces.end(),
                                 [at](const Piece& piece) { return piece.at >= at; });
  if (next != datagram.pieces.end()) {
    const bool again = next->at == at && std::equal(next->bytes.begin(), next->bytes.end(),
                                                    bytes.begin(), bytes.end());
    if (again) return true;
    if (next->at < end) return false;
  }
  if (next != datagram.pieces.begin()) {
    const Piece& before = *std::prev(next);
    if (before.at + before.bytes.size() > at) return false;
  }
  datagram.received += bytes.size();
  datagram.pieces.insert(next, {at, {bytes.begin(), bytes.end()}});
  return true;
}

std::optional<std::vector<std::uint8_t>> UdpReader::whole(const Pending& datagram) {
  if (datagram.size != datagram.received) return {};
  std::vector<std::uint8_t> bytes;
  for (const Piece& piece : datagram.pieces) {
    if (piece.at != bytes.size()) return {};
    bytes.insert(bytes.end(), piece.bytes.begin(), piece.bytes.end());
  }
  return bytes;
}

}  // namespace nimbus::sim
