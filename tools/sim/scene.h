// What the simulated camera looks at: a panorama around it with a ball in it, seen through the
// lens. No clock and no processes: all that moves is told.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "tools/sim/camera_model.h"

namespace nimbus::sim {

/// The whole sphere, equirectangular: longitude from -180 to 180 degrees from left to right,
/// latitude from 90 to -90 from top to bottom. Planes as in yuv420p.
struct Panorama {
  static constexpr std::size_t kWidth = 2048;
  static constexpr std::size_t kHeight = 1024;
  static constexpr std::size_t kBytes = kWidth * kHeight * 3 / 2;
  std::vector<std::uint8_t> planes = std::vector<std::uint8_t>(kBytes);
};

/// Where the lens looks, and how the picture is developed.
struct View {
  Axes angles;        ///< degrees; pan to the right, tilt up
  double stops = 0;   ///< of exposure, from the right one
  double warmth = 0;  ///< kelvin of the white balance above daylight
  Rectangle ball;     ///< parts of the picture; empty: not in it
};

/// What the camera sees so many seconds after it was switched on. A tracked subject is the ball.
[[nodiscard]] View view_of(const CameraModel& camera);

/// Where a point at these angles (degrees) is seen: parts of the picture; nothing behind the lens.
[[nodiscard]] std::optional<Point> seen_at(const Axes& lens, double pan, double tilt);

class Scene {
 public:
  static constexpr std::size_t kWidth = 640;
  static constexpr std::size_t kHeight = 360;
  static constexpr std::size_t kBytes = kWidth * kHeight * 3 / 2;
  static constexpr double kFieldOfView = 80;  ///< degrees, horizontal

  explicit Scene(Panorama panorama) : panorama_(std::move(panorama)) {}

  /// The picture, as yuv420p. Holds until the next one.
  [[nodiscard]] const std::vector<std::uint8_t>& render(const View& view);

 private:
  /// A place in the panorama, in units of 1/65536 of its pixels.
  struct Place {
    std::int32_t across;
    std::int32_t down;
  };
  static constexpr std::size_t kCell = 8;  // pixels; the projection is exact at its corners
  static constexpr std::size_t kColumns = kWidth / kCell + 1;
  static constexpr std::size_t kRows = kHeight / kCell + 1;

  void project(const Axes& angles);
  void develop(const View& view);
  void fill_cell(std::size_t column, std::size_t row);
  void draw_ball(const Rectangle& ball);
  [[nodiscard]] std::uint8_t luma(std::int32_t across, std::int32_t down) const;

  Panorama panorama_;
  std::vector<Place> corners_ = std::vector<Place>(kColumns * kRows);
  std::vector<std::uint8_t> picture_ = std::vector<std::uint8_t>(kBytes);
  std::vector<std::uint8_t> brightness_ = std::vector<std::uint8_t>(256);
  int blue_ = 0;  // added to the planes of colour
  int red_ = 0;
};

}  // namespace nimbus::sim
