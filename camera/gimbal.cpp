#include "camera/gimbal.h"

#include <array>

#include "base/log.h"
#include "base/number.h"
#include "base/word_table.h"
#include "camera/duml.h"
#include "camera/words.h"

namespace nimbus {
namespace {

constexpr DumlCommand gimbal(std::uint8_t id) { return {.set = CommandSet::gimbal, .id = id}; }

// clang-format off
constexpr DumlTemplate<7>  kSpeed(gimbal(0x0C), {0, 0, 0, 0, 0, 0, 0x90});
constexpr DumlTemplate<2>  kCentrePosition(gimbal(0x4C), {0xFE, 0x08});
constexpr DumlTemplate<2>  kNextPosition(gimbal(0x4C), {0xFE, 0x09});
constexpr DumlTemplate<2>  kMode(gimbal(0x4C));
constexpr DumlTemplate<4>  kTiltLock(gimbal(0x50), {0x00, 0x04, 0x01});
constexpr DumlTemplate<4>  kFollowSpeed(gimbal(0x50), {0x00, 0x05, 0x01});
constexpr DumlTemplate<1>  kCalibrate1(gimbal(0x07));
// The gimbal takes this one step from another sender and as another type only.
constexpr DumlTemplate<8>  kCalibrate2(
    {.set = CommandSet::gimbal, .id = 0x01, .sender = 0x09, .type = 0x20},
    {0x00, 0x04, 0x00, 0x04, 0x00, 0x04, 0x80, 0x00});
constexpr DumlTemplate<0>  kCalibrate3(gimbal(0x08));
// Tracking is the camera's work, but it steers the gimbal.
constexpr DumlTemplate<21> kTrackingStop({CommandSet::camera, 0xA6});
constexpr DumlTemplate<21> kTrackingStart({CommandSet::camera, 0xA6}, {0x01, 0x00, 0x00, 0x0E});
// clang-format on

constexpr std::size_t kTrackingRectangleOffset = 5;

}  // namespace

std::int32_t gimbal_speed(double pan, double tilt, double roll) noexcept {
  constexpr double kWireUnits = 1000.0;
  return gimbal_speed_raw(to_integer<std::int32_t>(pan * kWireUnits),
                          to_integer<std::int32_t>(tilt * kWireUnits),
                          to_integer<std::int32_t>(roll * kWireUnits));
}

std::int32_t gimbal_speed_raw(std::int32_t pan, std::int32_t tilt, std::int32_t roll) noexcept {
  auto payload = kSpeed.payload();
  // Roll stands before tilt on the wire.
  store_le(payload, 0, static_cast<std::int16_t>(pan));
  store_le(payload, 2, static_cast<std::int16_t>(roll));
  store_le(payload, 4, static_cast<std::int16_t>(tilt));
  return send_frame(kSpeed, payload);
}

std::int32_t gimbal_set_centre_position() noexcept {
  log_text("Gimbal set center position\n");
  return send_frame(kCentrePosition);
}

std::int32_t gimbal_set_next_position() noexcept {
  log_text("Gimbal set next position\n");
  return send_frame(kNextPosition);
}

std::int32_t gimbal_set_mode(const char* mode) noexcept {
  log_text("Gimbal set mode %s\n", mode);
  const GimbalMode* const found = find_word(kGimbalModes, mode);
  if (found == nullptr) return -1;
  send_frame(kMode, {found->mode, 0x00});
  auto tilt_lock = kTiltLock.payload();
  tilt_lock.back() = found->tilt_locked;
  return send_frame(kTiltLock, tilt_lock);
}

std::int32_t gimbal_set_follow_mode(const char* speed) noexcept {
  log_text("Gimbal set follow mode %s\n", speed);
  auto payload = kFollowSpeed.payload();
  const std::uint8_t* const found = find_word(kFollowSpeeds, speed);
  payload.back() = found == nullptr ? kFollowSpeeds[0].value : *found;
  return send_frame(kFollowSpeed, payload);
}

std::int32_t gimbal_calibrate() noexcept {
  log_text("Gimbal calibrate\n");
  send_frame(kCalibrate1);
  send_frame(kCalibrate2);
  return send_frame(kCalibrate3);
}

void gimbal_set_orientation(int lock) noexcept {
  log_text("Set orientation %s\n", lock != 0 ? "lock" : "unlock");
}

std::int32_t tracking_start(const TrackingRectangle& rectangle) noexcept {
  tracking_stop();
  const std::array values{rectangle.x, rectangle.y, rectangle.width, rectangle.height};
  log_text("Start tracking %1.1f %1.1f %1.1f %1.1f\n", double{values[0]}, double{values[1]},
           double{values[2]}, double{values[3]});
  auto payload = kTrackingStart.payload();
  for (std::size_t i = 0; i < values.size(); ++i) {
    store_le(payload, kTrackingRectangleOffset + 4 * i, values[i]);
  }
  return send_frame(kTrackingStart, payload);
}

std::int32_t tracking_stop() noexcept {
  log_text("Stop tracking\n");
  return send_frame(kTrackingStop);
}

}  // namespace nimbus
