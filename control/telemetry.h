// The camera's reports: what arrives from the bridge on the data link.
#pragma once

#include <cstdint>
#include <span>

namespace nimbus {

/// Decodes every camera frame in a datagram into the display region and relays most of them to the
/// viewers. Anything else in the datagram is skipped. Does nothing before the display region is
/// mapped. Data link's receive thread.
void scan_camera_datagram(std::span<const std::uint8_t> bytes) noexcept;

/// Decodes one whole frame whose checksum is right; kinds that are not known are ignored. Data
/// link's receive thread.
void decode_camera_frame(std::span<const std::uint8_t> frame) noexcept;

}  // namespace nimbus
