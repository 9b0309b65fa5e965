// The camera's protocol: frames, their two checksums, the sequence counter and the sender.
//
//   0  u8   0x55
//   1  u16  bits 0-9: length of the whole frame; bits 10-15: protocol version, 1
//   3  u8   CRC-8 of bytes 0 to 2
//   4  u8   sender
//   5  u8   receiver
//   6  u16  sequence number
//   8  u8   command type: a request, with its acknowledgement mode
//   9  u8   command set
//  10  u8   command id
//  11       payload
//   n  u16  CRC-16 of everything before it
//
// Integers are little-endian. Every command has frames of a fixed length, so each frame is a
// constant template with all but the sequence number, the payload and the CRC-16 in place. Sending
// is fire-and-forget: no answer is awaited, nothing is queued or repeated.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "base/shared.h"
#include "base/wire.h"

namespace nimbus {

inline constexpr std::uint8_t kDumlStart = 0x55;
inline constexpr std::size_t kDumlHeaderSize = 11;
inline constexpr std::size_t kDumlOverhead = kDumlHeaderSize + 2;

/// Where a frame's header has what; the remarks stand above.
struct DumlHeader {
  static constexpr WireField<std::uint8_t> start{0, "start"};
  static constexpr WireField<std::uint16_t> length{1, "length"};
  static constexpr WireField<std::uint8_t> check{3, "check"};
  static constexpr WireField<std::uint8_t> sender{4, "sender"};
  static constexpr WireField<std::uint8_t> receiver{5, "receiver"};
  static constexpr WireField<std::uint16_t> sequence{6, "sequence"};
  static constexpr WireField<std::uint8_t> type{8, "type"};
  static constexpr WireField<std::uint8_t> set{9, "set"};
  static constexpr WireField<std::uint8_t> id{10, "id"};
};

/// The header's length of a frame of so many bytes: with the protocol's version, 1.
[[nodiscard]] constexpr std::uint16_t duml_length(std::size_t size) noexcept {
  return static_cast<std::uint16_t>(size | 1U << 10);
}

/// CRC-8 of a frame's first three bytes: reflected polynomial 0x8C (Dallas/Maxim), seed 0x77.
[[nodiscard]] constexpr std::uint8_t duml_crc8(std::span<const std::uint8_t> bytes) noexcept {
  unsigned crc = 0x77;
  for (const std::uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1U) != 0 ? crc >> 1 ^ 0x8CU : crc >> 1;
  }
  return static_cast<std::uint8_t>(crc);
}

namespace duml_detail {

consteval std::array<std::uint16_t, 256> crc16_table() {
  std::array<std::uint16_t, 256> table{};
  for (unsigned byte = 0; byte < table.size(); ++byte) {
    unsigned crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1U) != 0 ? crc >> 1 ^ 0x8408U : crc >> 1;
    table[byte] = static_cast<std::uint16_t>(crc);
  }
  return table;
}

inline constexpr auto kCrc16Table = crc16_table();
static_assert(kCrc16Table[1] == 0x1189 && kCrc16Table[2] == 0x2312 && kCrc16Table[3] == 0x329B);

}  // namespace duml_detail

/// CRC-16 over a frame less its last two bytes: reflected polynomial 0x8408 (CCITT), seed 0x3692.
[[nodiscard]] constexpr std::uint16_t duml_crc16(std::span<const std::uint8_t> bytes) noexcept {
  std::uint16_t crc = 0x3692;
  for (const std::uint8_t byte : bytes) {
    crc = static_cast<std::uint16_t>(duml_detail::kCrc16Table[(crc ^ byte) & 0xFFU] ^ crc >> 8);
  }
  return crc;
}

/// Whom a frame is for. The command set has the same meaning and decides the receiver.
enum class CommandSet : std::uint8_t { camera = 0x02, gimbal = 0x04 };

/// What a frame is. Sender and type are the usual ones but for two frames, which say why.
struct DumlCommand {
  CommandSet set;
  std::uint8_t id;
  std::uint8_t sender = 0x02;
  std::uint8_t type = 0x40;
};

template <std::size_t payload_size>
using DumlPayload = std::array<std::uint8_t, payload_size>;

/// A frame with a payload of a fixed size: header in place, sequence number and CRC-16 still zero.
template <std::size_t payload_size>
class DumlTemplate {
 public:
  static constexpr std::size_t kSize = payload_size + kDumlOverhead;
  static_assert(kSize < 256);

  consteval explicit DumlTemplate(DumlCommand command,
                                  const DumlPayload<payload_size>& payload = {}) {
    put(bytes_, DumlHeader::start, kDumlStart);
    put(bytes_, DumlHeader::length, duml_length(kSize));
    put(bytes_, DumlHeader::check, duml_crc8(std::span(bytes_).template first<3>()));
    put(bytes_, DumlHeader::sender, command.sender);
    put(bytes_, DumlHeader::receiver, command.set == CommandSet::camera ? 0x01 : 0x04);
    put(bytes_, DumlHeader::type, command.type);
    put(bytes_, DumlHeader::set, static_cast<std::uint8_t>(command.set));
    put(bytes_, DumlHeader::id, command.id);
    std::copy(payload.begin(), payload.end(), bytes_.begin() + kDumlHeaderSize);
  }

  [[nodiscard]] constexpr const std::array<std::uint8_t, kSize>& bytes() const noexcept {
    return bytes_;
  }
  [[nodiscard]] constexpr DumlPayload<payload_size> payload() const noexcept {
    DumlPayload<payload_size> payload{};
    std::copy_n(bytes_.begin() + kDumlHeaderSize, payload_size, payload.begin());
    return payload;
  }

 private:
  std::array<std::uint8_t, kSize> bytes_{};
};

/// The number that the next frame will carry, one for all threads. Loaded and stored without a
/// lock: two threads that build frames at the same moment may give both the same number.
extern Shared<std::uint16_t> duml_sequence;

/// Sends a finished frame to the camera through the bridge; its length is cut to 16 bits. Returns
/// the number of bytes sent, or -1 when the bridge has not been heard from or the system call
/// fails. Any thread.
std::int32_t send_to_camera(std::span<const std::uint8_t> frame) noexcept;

/// Copies the template, takes the next sequence number, and fills in the payload and the CRC-16.
template <std::size_t payload_size>
[[nodiscard]] inline std::array<std::uint8_t, payload_size + kDumlOverhead> seal_frame(
    const DumlTemplate<payload_size>& frame, const DumlPayload<payload_size>& payload) noexcept {
  auto bytes = frame.bytes();
  const std::uint16_t sequence = duml_sequence;
  duml_sequence = static_cast<std::uint16_t>(sequence + 1);
  put(bytes, DumlHeader::sequence, sequence);
  std::copy(payload.begin(), payload.end(), bytes.begin() + kDumlHeaderSize);
  constexpr std::size_t kChecked = payload_size + kDumlHeaderSize;
  store_le(bytes, kChecked, duml_crc16(std::span(bytes).template first<kChecked>()));
  return bytes;
}

/// Seals a frame and sends it, with its template's payload or with another. Any thread.
template <std::size_t payload_size>
std::int32_t send_frame(const DumlTemplate<payload_size>& frame,
                        const DumlPayload<payload_size>& payload) noexcept {
  return send_to_camera(seal_frame(frame, payload));
}
template <std::size_t payload_size>
std::int32_t send_frame(const DumlTemplate<payload_size>& frame) noexcept {
  return send_frame(frame, frame.payload());
}

}  // namespace nimbus
