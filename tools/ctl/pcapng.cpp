#include "tools/ctl/pcapng.h"

#include <array>
#include <concepts>

namespace nimbus::ctl {
namespace {

using tools::Endpoint;
using Block = std::vector<std::uint8_t>;

constexpr std::uint32_t kSection = 0x0A0D0D0A;
constexpr std::uint32_t kByteOrder = 0x1A2B3C4D;
constexpr std::uint32_t kInterface = 1;
constexpr std::uint32_t kEnhancedPacket = 6;
constexpr std::uint16_t kRawIp = 101;  // LINKTYPE_RAW

// Options, by the block that they stand in.
constexpr std::uint16_t kEnd = 0;
constexpr std::uint16_t kPacketFlags = 2;
constexpr std::uint16_t kUserApplication = 4;
constexpr std::uint16_t kTimeResolution = 9;

constexpr std::size_t kIpHeader = 20;
constexpr std::size_t kUdpHeader = 8;

/// Blocks are in the byte order that their section says: low byte first here.
template <std::unsigned_integral T>
void append(Block& block, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    block.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }
}

/// Networks have the high byte first.
template <std::unsigned_integral T>
void append_be(Block& block, T value) {
  for (std::size_t i = sizeof(T); i-- > 0;) {
    block.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }
}

void pad(Block& block) { block.resize((block.size() + 3) / 4 * 4); }

void append_option(Block& block, std::uint16_t code, std::span<const std::uint8_t> value) {
  append(block, code);
  append(block, static_cast<std::uint16_t>(value.size()));
  block.insert(block.end(), value.begin(), value.end());
  pad(block);
}

/// Its type and, before and behind it, its length.
Block whole(std::uint32_t type, const Block& body) {
  constexpr std::uint32_t kAround = 12;
  const auto length = static_cast<std::uint32_t>(body.size()) + kAround;
  Block block;
  append(block, type);
  append(block, length);
  block.insert(block.end(), body.begin(), body.end());
  append(block, length);
  return block;
}

/// RFC 1071, of a header whose own checksum is 0.
std::uint16_t checksum(std::span<const std::uint8_t> header) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < header.size(); i += 2) sum += header[i] * 256U + header[i + 1];
  while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

Block ip_header(Endpoint from, Endpoint to, std::size_t size) {
  constexpr std::uint16_t kVersionAndLength = 0x4500;
  constexpr std::uint16_t kDoNotFragment = 0x4000;
  constexpr std::uint16_t kTimeToLiveAndUdp = 0x4011;
  Block header;
  append_be(header, kVersionAndLength);
  append_be(header, static_cast<std::uint16_t>(size));
  append_be(header, std::uint16_t{0});
  append_be(header, kDoNotFragment);
  append_be(header, kTimeToLiveAndUdp);
  append_be(header, std::uint16_t{0});
  append_be(header, from.address);
  append_be(header, to.address);
  const std::uint16_t sum = checksum(header);
  header[10] = static_cast<std::uint8_t>(sum >> 8);
  header[11] = static_cast<std::uint8_t>(sum);
  return header;
}

Block udp_packet(Endpoint from, Endpoint to, std::span<const std::uint8_t> datagram) {
  Block packet = ip_header(from, to, kIpHeader + kUdpHeader + datagram.size());
  append_be(packet, from.port);
  append_be(packet, to.port);
  append_be(packet, static_cast<std::uint16_t>(kUdpHeader + datagram.size()));
  append_be(packet, std::uint16_t{0});  // the checksum was not computed
  packet.insert(packet.end(), datagram.begin(), datagram.end());
  return packet;
}

std::span<const std::uint8_t> bytes_of(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

std::vector<std::uint8_t> pcapng_start(const std::string& writer) {
  constexpr std::array<std::uint8_t, 1> kNanoseconds{9};
  Block section;
  append(section, kByteOrder);
  append(section, std::uint16_t{1});  // version 1.0
  append(section, std::uint16_t{0});
  append(section, UINT64_MAX);  // of a length that is not known yet
  append_option(section, kUserApplication, bytes_of(writer));
  append_option(section, kEnd, {});
  Block interface;
  append(interface, kRawIp);
  append(interface, std::uint16_t{0});
  append(interface, std::uint32_t{0});  // packets of any size
  append_option(interface, kTimeResolution, kNanoseconds);
  append_option(interface, kEnd, {});
  Block all = whole(kSection, section);
  const Block second = whole(kInterface, interface);
  all.insert(all.end(), second.begin(), second.end());
  return all;
}

std::vector<std::uint8_t> pcapng_packet(std::chrono::nanoseconds time, Direction direction,
                                        Endpoint from, Endpoint to,
                                        std::span<const std::uint8_t> datagram) {
  const Block packet = udp_packet(from, to, datagram);
  const auto stamp = static_cast<std::uint64_t>(time.count());
  Block body;
  append(body, std::uint32_t{0});  // the first and only interface
  append(body, static_cast<std::uint32_t>(stamp >> 32));
  append(body, static_cast<std::uint32_t>(stamp));
  append(body, static_cast<std::uint32_t>(packet.size()));
  append(body, static_cast<std::uint32_t>(packet.size()));
  body.insert(body.end(), packet.begin(), packet.end());
  pad(body);
  Block flags;
  append(flags, static_cast<std::uint32_t>(direction));
  append_option(body, kPacketFlags, flags);
  append_option(body, kEnd, {});
  return whole(kEnhancedPacket, body);
}

}  // namespace nimbus::ctl
