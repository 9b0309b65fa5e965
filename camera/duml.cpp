#include "camera/duml.h"

#include "net/sources.h"

namespace nimbus {
namespace {

// Known check values.
constexpr std::array<std::uint8_t, 12> kExample{0x55, 0x0E, 0x04, 0x66, 0x02, 0x01,
                                                0x19, 0x28, 0x40, 0x02, 0x01, 0x01};
static_assert(duml_crc16(kExample) == 0x3312);

consteval std::uint8_t header_check(std::uint8_t length) {
  const std::array<std::uint8_t, 3> header{kDumlStart, length, 0x04};
  return duml_crc8(header);
}
static_assert(header_check(13) == 0x33);
static_assert(header_check(14) == 0x66);
static_assert(header_check(15) == 0xA2);
static_assert(header_check(17) == 0x92);
static_assert(header_check(18) == 0xC7);
static_assert(header_check(20) == 0x6D);
static_assert(header_check(21) == 0xA9);
static_assert(header_check(34) == 0xEA);

constexpr DumlTemplate<1> kShotExample({.set = CommandSet::camera, .id = 0x01}, {0x01});
static_assert(kShotExample.bytes()[2] == 0x04 && kShotExample.bytes()[3] == 0x66);

}  // namespace

Shared<std::uint16_t> duml_sequence;

std::int32_t send_to_camera(std::span<const std::uint8_t> frame) noexcept {
  const auto length = static_cast<std::uint16_t>(frame.size());
  return static_cast<std::int32_t>(camera_link().send_to_peer(frame.first(length)));
}

}  // namespace nimbus
