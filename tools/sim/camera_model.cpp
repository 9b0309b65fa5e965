#include "tools/sim/camera_model.h"

#include <algorithm>
#include <cmath>

namespace nimbus::sim {
namespace {

/// True when nothing is left of it from now on.
bool count_down(double& left, double seconds) {
  if (left <= 0) return false;
  left = std::max(0.0, left - seconds);
  return left == 0;
}

}  // namespace

void CameraModel::calibrate() {
  gimbal_.centre();
  calibrates_ = kCalibrates;
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

std::string_view CameraModel::track(const Rectangle& subject) {
  stop_tracking();
  for (const float value : {subject.x, subject.y, subject.width, subject.height}) {
    // Written so that NaN is outside, too.
    if (!(value >= 0 && value <= 1)) return "the rectangle is not within the picture";
  }
  tracked_ = subject;
  tracked_for_ = 0;
  return {};
}

void CameraModel::set_focus_point(const Point& point) {
  focus_point_ = point;
  focuses_ = kFocuses;
}

void CameraModel::format_card() {
  record(false);
  formats_ = kFormats;
}

void CameraModel::reset() {
  record(false);
  settings_ = Settings{};
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
