#include "tools/sim/camera_model.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>

#include "base/wire.h"

namespace nimbus::sim {
namespace {

constexpr std::string_view kUnknownCode = "no such code";

float real(Bytes payload, std::size_t at) {
  return std::bit_cast<float>(load_le<std::uint32_t>(payload, at));
}

/// Takes a code that stands in the table.
template <typename Table>
std::string_view take(const Table& table, std::uint8_t code, std::uint8_t& setting) {
  if (find_code(table, code) == nullptr) return kUnknownCode;
  setting = code;
  return {};
}

Axes speed_of(Bytes payload) {
  // Roll stands before tilt on the wire.
  return {.pan = static_cast<double>(load_le<std::int16_t>(payload, 0)),
          .tilt = static_cast<double>(load_le<std::int16_t>(payload, 4)),
          .roll = static_cast<double>(load_le<std::int16_t>(payload, 2))};
}

/// What it can do with its lens.
std::string_view take_aperture(Bytes payload, std::uint16_t& aperture) {
  constexpr std::int16_t kWidest = 170;
  constexpr std::int16_t kSmallest = 1600;
  const auto hundredths = load_le<std::int16_t>(payload, 0);
  if (hundredths < kWidest || hundredths > kSmallest) return "the lens goes from f/1.7 to f/16";
  aperture = static_cast<std::uint16_t>(hundredths);
  return {};
}

std::string_view take_shutter(Bytes payload, ShutterCode& shutter) {
  const ShutterCode code{payload[1], payload[2], payload[3]};
  if (!is_shutter_code(code)) return kUnknownCode;
  shutter = code;
  return {};
}

/// Both codes or none.
std::string_view take_video_format(Bytes payload, Settings& settings) {
  if (find_code(kFrameRates, payload[1]) == nullptr) return kUnknownCode;
  const std::string_view refused = take(kResolutions, payload[0], settings.resolution);
  if (refused.empty()) settings.frame_rate = payload[1];
  return refused;
}

std::string_view take_white_balance(Bytes payload, Settings& settings) {
  const std::string_view refused = take(kWhiteBalances, payload[0], settings.white_balance);
  if (refused.empty()) settings.temperature = payload[1];
  return refused;
}

/// True when nothing is left of it from now on.
bool count_down(double& left, double seconds) {
  if (left <= 0) return false;
  left = std::max(0.0, left - seconds);
  return left == 0;
}

}  // namespace

std::string_view CameraModel::apply(const CommandName& command, Bytes payload) {
  using Kind = CommandKind;
  // clang-format off
  switch (command.kind) {
    case Kind::gimbal_speed:
      if (!calibrating()) gimbal_.set_speed(speed_of(payload));
      return {};
    case Kind::gimbal_position:
      if (find_code(kGimbalPositions, payload[1]) == nullptr) return kUnknownCode;
      if (payload[1] == kGimbalPositions[0].code) gimbal_.centre(); else gimbal_.next_position();
      return {};
    case Kind::gimbal_mode:
      return find_code(kGimbalModes, payload[0]) == nullptr ? kUnknownCode : std::string_view{};
    case Kind::gimbal_tilt_lock:
      tilt_locked_ = payload[3] != 0;
      return {};
    case Kind::gimbal_follow:
      return find_code(kFollowSpeeds, payload[3]) == nullptr ? kUnknownCode : std::string_view{};
    case Kind::gimbal_calibrate:
      gimbal_.centre();
      calibrates_ = kCalibrates;
      return {};
    case Kind::shot:            return shoot();
    case Kind::record:          return record(payload[0] != 0);
    case Kind::camera_mode:
      if (payload[0] != kVideoMode) record(false);
      return take(kCameraModeNames, payload[0], settings_.mode);
    case Kind::aspect_ratio:    return take(kAspectRatios, payload[1], settings_.aspect_ratio);
    case Kind::photo_format:    return take(kPhotoFormatNames, payload[0], settings_.photo_format);
    case Kind::video_format:    return take_video_format(payload, settings_);
    case Kind::exposure_mode:
      return take(kExposureModeNames, payload[0], settings_.exposure_mode);
    case Kind::exposure_centre: settings_.exposure_point = 0; return {};
    case Kind::focus_type:      return take(kFocusTypes, payload[0], settings_.focus_type);
    case Kind::aperture:        return take_aperture(payload, settings_.aperture);
    case Kind::shutter:         return take_shutter(payload, settings_.shutter);
    case Kind::iso:             return take(kIsoValues, payload[0], settings_.iso);
    case Kind::white_balance:   return take_white_balance(payload, settings_);
    case Kind::ev:              return take(kEvSteps, payload[0], settings_.ev);
    case Kind::focus_point:     set_focus_point(payload); return {};
    case Kind::exposure_point:  settings_.exposure_point = payload[0]; return {};
    case Kind::colour:          return take(kColours, payload[0], settings_.colour);
    case Kind::anti_flicker:    return take(kAntiFlickers, payload[0], settings_.anti_flicker);
    case Kind::histogram:       settings_.histogram = payload[0]; return {};
    case Kind::ae_lock:         settings_.exposure_lock = payload[0]; return {};
    case Kind::format_card:     format_card(); return {};
    case Kind::reset:
      record(false);
      settings_ = Settings{};
      return {};
    case Kind::tracking:        return track(payload);
  }
  // clang-format on
  return {};
}

std::string_view CameraModel::record(bool start) {
  if (!start) {
    recording_ = false;
    return {};
  }
  if (settings_.mode != kVideoMode) return "the camera is not in video mode";
  if (formatting()) return "the card is being formatted";
  if (recording_) return "it records already";
  recording_ = true;
  recorded_ = 0;
  timer_lead_in_ = 2;
  return {};
}

std::string_view CameraModel::shoot() {
  if (settings_.mode != kPhotoMode) return "the camera is not in photo mode";
  if (formatting()) return "the card is being formatted";
  if (photos_ == kCardPhotos) return "the card is full";
  ++photos_;
  shoots_ = kShotShows;
  return {};
}

std::string_view CameraModel::track(Bytes payload) {
  tracked_.reset();
  tracked_for_ = 0;
  if (payload[0] == 0) return {};
  const Rectangle wanted{real(payload, 5), real(payload, 9), real(payload, 13), real(payload, 17)};
  for (const float value : {wanted.x, wanted.y, wanted.width, wanted.height}) {
    // Written so that what is no number is none.
    if (!(value >= 0 && value <= 1)) return "the rectangle is not within the picture";
  }
  tracked_ = wanted;
  return {};
}

void CameraModel::set_focus_point(Bytes payload) {
  focus_point_ = {real(payload, 0), real(payload, 4)};
  focuses_ = kFocuses;
}

void CameraModel::format_card() {
  record(false);
  formats_ = kFormats;
}

void CameraModel::tick(double seconds) {
  uptime_ += seconds;
  gimbal_.tick(seconds);
  count_down(shoots_, seconds);
  count_down(focuses_, seconds);
  count_down(calibrates_, seconds);
  if (count_down(formats_, seconds)) {
    photos_ = 0;
    card_seconds_ = 0;
  }
  if (tracked_) tracked_for_ += seconds;
  if (recording_) {
    recorded_ += seconds;
    card_seconds_ += seconds;
    if (seconds_left() == 0) recording_ = false;
  }
}

std::uint32_t CameraModel::seconds_left() const {
  return static_cast<std::uint32_t>(std::max(0.0, kCardSeconds - card_seconds_));
}

bool CameraModel::sees_subject() const {
  return tracking() && (loses_subject_after_ == 0 || tracked_for_ < loses_subject_after_);
}

Rectangle CameraModel::subject() const {
  if (!tracked_) return {};
  constexpr double kReach = 0.05;
  Rectangle now = *tracked_;
  const auto around = [this](float centre, double phase) {
    const double moved = double{centre} + kReach * std::sin(tracked_for_ + phase);
    return static_cast<float>(std::clamp(moved, 0.0, 1.0));
  };
  now.x = around(now.x, 0.0);
  now.y = around(now.y, 1.0);
  return now;
}

RecordingTimer CameraModel::next_timer_report() {
  if (timer_lead_in_ > 0) return {.state = RecordingTimer::kRest, .reset = timer_lead_in_-- == 2};
  return {.state = recording_ ? RecordingTimer::kRuns : RecordingTimer::kRest};
}

}  // namespace nimbus::sim
