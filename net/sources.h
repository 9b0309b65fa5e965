// The two sources that the bridge feeds: camera data on UDP port 5000, video on 5001.
#pragma once

#include <cstdint>
#include <span>

#include "net/udp_link.h"

namespace nimbus {

inline constexpr std::uint16_t kDataPort = 5000;
inline constexpr std::uint16_t kVideoPort = 5001;

/// Called with every datagram of camera data that is not too old, never empty. Data link's receive
/// thread.
using CameraDataHandler = void (*)(std::span<const std::uint8_t> bytes);

/// Marks both sources lost, then opens the data and the video link. The handler of camera data may
/// be null. Returns 0, or -1 after "fail" on standard error when a port cannot be bound. Main
/// thread, once, with the display region mapped.
int init_sources(CameraDataHandler on_camera_data);

/// Reports the sources that have fallen silent: camera data first, then video. Main thread, once a
/// second.
void check_sources() noexcept;

/// The link to the camera through the bridge. Any thread.
[[nodiscard]] const UdpLink& camera_link() noexcept;

}  // namespace nimbus
