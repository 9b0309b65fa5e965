// Everything that the service can tell the gimbal. Each operation writes its line on standard
// error, sends its frames at once and returns what the last send returned, which callers ignore:
// the number of bytes, or -1. Words match exactly. Any thread.
#pragma once

#include <cstdint>

namespace nimbus {

/// A rectangle in the camera's normalised picture coordinates, passed to the camera unchanged.
struct TrackingRectangle {
  float x;
  float y;
  float width;
  float height;
};

/// Turns the gimbal at these speeds; 1.0 is 1000 on the wire, saturating at 32 bits and then cut to
/// 16. Writes no line.
std::int32_t gimbal_speed(double pan, double tilt, double roll) noexcept;

/// The same in wire units, cut to 16 bits. Writes no line.
std::int32_t gimbal_speed_raw(std::int32_t pan, std::int32_t tilt, std::int32_t roll) noexcept;

std::int32_t gimbal_set_centre_position() noexcept;
std::int32_t gimbal_set_next_position() noexcept;

/// "tiltlocked", "fpv" or "follow", two frames; any other mode sends nothing and returns -1.
std::int32_t gimbal_set_mode(const char* mode) noexcept;

/// "slow"; every other speed is the fast one.
std::int32_t gimbal_set_follow_mode(const char* speed) noexcept;

std::int32_t gimbal_calibrate() noexcept;

/// Only writes its line: the locked orientation is held by the speed stream.
void gimbal_set_orientation(int lock) noexcept;

/// Stops what is being tracked and tracks this instead.
std::int32_t tracking_start(const TrackingRectangle& rectangle) noexcept;
std::int32_t tracking_stop() noexcept;

}  // namespace nimbus
