// The gimbal: three axes that turn by speeds and to positions.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace nimbus::sim {

/// Values of the three axes.
struct Axes {
  double pan = 0;
  double tilt = 0;
  double roll = 0;
  bool operator==(const Axes&) const = default;
};

class Gimbal {
 public:
  /// Degrees. No axis turns further.
  static constexpr Axes kLowest{-320, -120, -45};
  static constexpr Axes kHighest{320, 60, 45};
  /// A speed of 1000 units on the wire is so many degrees a second.
  static constexpr double kDegreesPerUnit = 0.1;
  /// Seconds for which a speed holds. It is sent again and again; when that stops, so does the
  /// gimbal.
  static constexpr double kSpeedHolds = 0.25;
  /// Degrees a second on the way to a position.
  static constexpr double kPositionSpeed = 120;
  /// Degrees of pan at which the camera looks back at who holds it.
  static constexpr double kBack = -180;

  /// Units as on the wire. Single units are what keeps a locked gimbal in its place: they turn
  /// nothing. A speed ends the way to a position.
  void set_speed(const Axes& units);
  /// Turns to the front, all axes level.
  void centre() { target_ = Axes{}; }
  /// Turns to the back, or to the front if it looks back now.
  void next_position();

  void tick(double seconds);

  /// Degrees.
  [[nodiscard]] const Axes& angles() const { return angles_; }

 private:
  void turn(double seconds);
  void approach(double degrees);

  Axes angles_;
  Axes speed_;
  double speed_left_ = 0;  // seconds for which it still holds
  std::optional<Axes> target_;
};

}  // namespace nimbus::sim
