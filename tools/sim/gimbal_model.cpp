#include "tools/sim/gimbal_model.h"

#include <algorithm>
#include <cmath>

namespace nimbus::sim {
namespace {

constexpr std::array<double Axes::*, 3> kAxes{&Axes::pan, &Axes::tilt, &Axes::roll};

/// Below this, in units of the wire, the motors stand still.
constexpr double kDeadBand = 1;

}  // namespace

void Gimbal::set_speed(const Axes& units) {
  speed_ = units;
  speed_left_ = kSpeedHolds;
  bool turns = false;
  for (const auto axis : kAxes) {
    if (std::abs(speed_.*axis) <= kDeadBand) speed_.*axis = 0;
    turns = turns || speed_.*axis != 0;
  }
  if (turns) target_.reset();
}

void Gimbal::next_position() {
  const bool looks_back = std::abs(angles_.pan - kBack) < 90;
  target_ = Axes{.pan = looks_back ? 0 : kBack};
}

void Gimbal::tick(double seconds) {
  if (target_) {
    approach(kPositionSpeed * seconds);
  } else {
    turn(std::min(seconds, speed_left_));
  }
  speed_left_ = std::max(0.0, speed_left_ - seconds);
}

void Gimbal::turn(double seconds) {
  for (const auto axis : kAxes) {
    angles_.*axis = std::clamp(angles_.*axis + speed_.*axis * kDegreesPerUnit * seconds,
                               kLowest.*axis, kHighest.*axis);
  }
}

void Gimbal::approach(double degrees) {
  for (const auto axis : kAxes) {
    angles_.*axis += std::clamp(*target_.*axis - angles_.*axis, -degrees, degrees);
  }
  if (angles_ == *target_) target_.reset();
}

}  // namespace nimbus::sim
