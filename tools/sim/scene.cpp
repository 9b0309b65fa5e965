#include "tools/sim/scene.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "base/wire.h"
#include "camera/words.h"

namespace nimbus::sim {
namespace {

constexpr double kRadian = std::numbers::pi / 180;
constexpr std::int32_t kOne = 65536;  // a pixel

struct Vector {
  double right = 0;
  double up = 0;
  double ahead = 0;
};

/// Turns a direction within the camera into one of the world around it.
class Rotation {
 public:
  explicit Rotation(const Axes& angles)
      : pan_{std::sin(angles.pan * kRadian), std::cos(angles.pan * kRadian)},
        tilt_{std::sin(angles.tilt * kRadian), std::cos(angles.tilt * kRadian)},
        roll_{std::sin(angles.roll * kRadian), std::cos(angles.roll * kRadian)} {}

  [[nodiscard]] Vector to_world(Vector v) const {
    v = {v.right * roll_.cos + v.up * roll_.sin, v.up * roll_.cos - v.right * roll_.sin, v.ahead};
    v = {v.right, v.up * tilt_.cos + v.ahead * tilt_.sin, v.ahead * tilt_.cos - v.up * tilt_.sin};
    return {v.right * pan_.cos + v.ahead * pan_.sin, v.up, v.ahead * pan_.cos - v.right * pan_.sin};
  }

  [[nodiscard]] Vector to_camera(Vector v) const {
    v = {v.right * pan_.cos - v.ahead * pan_.sin, v.up, v.ahead * pan_.cos + v.right * pan_.sin};
    v = {v.right, v.up * tilt_.cos - v.ahead * tilt_.sin, v.ahead * tilt_.cos + v.up * tilt_.sin};
    return {v.right * roll_.cos - v.up * roll_.sin, v.up * roll_.cos + v.right * roll_.sin,
            v.ahead};
  }

 private:
  struct Turn {
    double sin;
    double cos;
  };
  Turn pan_;
  Turn tilt_;
  Turn roll_;
};

/// Pixels from the lens to the picture.
double focal_length() {
  return static_cast<double>(Scene::kWidth) / 2 / std::tan(Scene::kFieldOfView / 2 * kRadian);
}

// --- Exposure and colour -----------------------------------------------------------------------

constexpr std::uint8_t kManual = *find_word(kExposureModes, "manual");

double shutter_seconds(const ShutterCode& code) {
  const ShutterTime time = shutter_time(load_le<std::uint32_t, 3>(code, 0));
  const double parts = time.decimals < 10 ? 10 : 100;  // one digit behind the point, or two
  const double number = time.whole + time.decimals / parts;
  return time.fraction ? 1 / std::max(number, 1.0) : number;
}

/// By hand, the light on the sensor counts; otherwise the camera sees to it, but for what it is
/// told to add.
double stops_of(const Settings& settings) {
  if (settings.exposure_mode != kManual) return value_of(kEvSteps, settings.ev);
  constexpr double kRight = 1.0 / 50 * 100 / (2.8 * 2.8);  // 1/50 s, ISO 100, f/2.8
  const double f = settings.aperture / 100.0;
  const double sensitivity = std::max<double>(value_of(kIsoValues, settings.iso), 100);
  const double light = shutter_seconds(settings.shutter) * sensitivity / (f * f);
  return std::log2(std::max(light, 1e-9) / kRight);
}

double warmth_of(const Settings& settings) {
  constexpr double kDaylight = 6800;
  constexpr std::uint8_t kAutomaticBalance = 0;
  if (settings.white_balance == kAutomaticBalance) return 0;
  return settings.temperature * 100.0 - kDaylight;
}

std::uint8_t clamped(double value) {
  return static_cast<std::uint8_t>(std::clamp(value, 0.0, 255.0));
}

std::uint8_t clamped(int value) { return static_cast<std::uint8_t>(std::clamp(value, 0, 255)); }

// --- The ball ----------------------------------------------------------------------------------

constexpr float kBallWidth = 0.08F;
constexpr float kBallHeight = kBallWidth * 16 / 9;

Rectangle around(const Point& point) {
  return {point.x - kBallWidth / 2, point.y - kBallHeight / 2, kBallWidth, kBallHeight};
}

/// It swings to and fro in front of the camera.
Rectangle free_ball(const CameraModel& camera) {
  constexpr double kReach = 22;   // degrees
  constexpr double kPeriod = 8;   // seconds
  constexpr double kHeight = -6;  // degrees
  const double phase = camera.uptime() * 2 * std::numbers::pi / kPeriod;
  const auto point = seen_at(camera.gimbal().angles(), kReach * std::sin(phase),
                             kHeight + 4 * std::sin(2 * phase));
  return point ? around(*point) : Rectangle{};
}

}  // namespace

std::optional<Point> seen_at(const Axes& lens, double pan, double tilt) {
  constexpr double kNearest = 0.05;
  const Vector world{std::sin(pan * kRadian) * std::cos(tilt * kRadian), std::sin(tilt * kRadian),
                     std::cos(pan * kRadian) * std::cos(tilt * kRadian)};
  const Vector seen = Rotation(lens).to_camera(world);
  if (seen.ahead < kNearest) return {};
  const double scale = focal_length() / seen.ahead;
  return Point{static_cast<float>(0.5 + seen.right * scale / Scene::kWidth),
               static_cast<float>(0.5 - seen.up * scale / Scene::kHeight)};
}

View view_of(const CameraModel& camera) {
  View view{
      camera.gimbal().angles(), stops_of(camera.settings()), warmth_of(camera.settings()), {}};
  if (!camera.tracking()) {
    view.ball = free_ball(camera);
  } else if (camera.sees_subject()) {
    const Rectangle subject = camera.subject();
    view.ball = around({subject.x + subject.width / 2, subject.y + subject.height / 2});
  }
  return view;
}

const std::vector<std::uint8_t>& Scene::render(const View& view) {
  develop(view);
  project(view.angles);
  for (std::size_t row = 0; row + 1 < kRows; ++row) {
    for (std::size_t column = 0; column + 1 < kColumns; ++column) fill_cell(column, row);
  }
  if (view.ball.width > 0) draw_ball(view.ball);
  return picture_;
}

void Scene::develop(const View& view) {
  constexpr double kBlack = 16;
  constexpr double kGamma = 0.45;
  constexpr double kMostStops = 8;
  constexpr double kKelvinPerStep = 100;
  constexpr double kMostColour = 30;
  const double gain = std::exp2(std::clamp(view.stops, -kMostStops, kMostStops) * kGamma);
  for (std::size_t level = 0; level < brightness_.size(); ++level) {
    brightness_[level] = clamped(kBlack + (static_cast<double>(level) - kBlack) * gain);
  }
  red_ = static_cast<int>(std::clamp(view.warmth / kKelvinPerStep, -kMostColour, kMostColour));
  blue_ = -red_;
}

void Scene::project(const Axes& angles) {
  const Rotation rotation(angles);
  const double length = focal_length();
  for (std::size_t n = 0; n < corners_.size(); ++n) {
    const std::size_t column = n % kColumns;
    const std::size_t row = n / kColumns;
    const auto x = static_cast<double>(column * kCell);
    const auto y = static_cast<double>(row * kCell);
    const Vector ray = rotation.to_world({x - double{kWidth} / 2, double{kHeight} / 2 - y, length});
    const double level = std::hypot(ray.right, ray.ahead);
    const double across = std::atan2(ray.right, ray.ahead) / (2 * std::numbers::pi) + 0.5;
    const double down = 0.5 - std::atan2(ray.up, level) / std::numbers::pi;
    corners_[n] = {static_cast<std::int32_t>(across * Panorama::kWidth * kOne),
                   static_cast<std::int32_t>(down * Panorama::kHeight * kOne)};
  }
}

/// The luma between four pixels.
std::uint8_t Scene::luma(std::int32_t across, std::int32_t down) const {
  constexpr std::size_t kMask = Panorama::kWidth - 1;
  const std::size_t x = static_cast<std::size_t>(across >> 16) & kMask;
  const std::size_t next = (x + 1) & kMask;
  const auto y =
      static_cast<std::size_t>(std::clamp<std::int32_t>(down >> 16, 0, Panorama::kHeight - 2));
  const int right = across >> 8 & 0xFF;
  const int below = down >> 8 & 0xFF;
  const std::uint8_t* const line = panorama_.planes.data() + y * Panorama::kWidth;
  const std::uint8_t* const second = line + Panorama::kWidth;
  const int upper = line[x] * (256 - right) + line[next] * right;
  const int lower = second[x] * (256 - right) + second[next] * right;
  return static_cast<std::uint8_t>((upper * (256 - below) + lower * below) >> 16);
}

/// Within a cell, places lie evenly between its corners.
void Scene::fill_cell(std::size_t column, std::size_t row) {
  constexpr std::int32_t kAround = static_cast<std::int32_t>(Panorama::kWidth) * (kOne / 2);
  constexpr auto kSteps = static_cast<std::int32_t>(kCell);
  std::array<Place, 4> at{corners_[row * kColumns + column], corners_[row * kColumns + column + 1],
                          corners_[(row + 1) * kColumns + column],
                          corners_[(row + 1) * kColumns + column + 1]};
  // The panorama's seam: its left side goes on where its right one ends. Sums stay within 32 bits.
  for (Place& place : at) {
    if (at[0].across - place.across > kAround) place.across += 2 * (kAround - 1);
    if (place.across - at[0].across > kAround) place.across -= 2 * (kAround - 1);
  }
  constexpr std::size_t kQuarter = Panorama::kWidth * Panorama::kHeight / 4;
  const std::uint8_t* const blue = panorama_.planes.data() + 4 * kQuarter;
  std::uint8_t* const picture_blue = picture_.data() + kWidth * kHeight;
  for (std::int32_t j = 0; j < kSteps; ++j) {
    const std::int32_t left = at[0].across + (at[2].across - at[0].across) / kSteps * j;
    const std::int32_t right = at[1].across + (at[3].across - at[1].across) / kSteps * j;
    const std::int32_t top = at[0].down + (at[2].down - at[0].down) / kSteps * j;
    const std::int32_t bottom = at[1].down + (at[3].down - at[1].down) / kSteps * j;
    const std::size_t y = row * kCell + static_cast<std::size_t>(j);
    for (std::int32_t i = 0; i < kSteps; ++i) {
      const std::int32_t across = left + (right - left) / kSteps * i;
      const std::int32_t down = top + (bottom - top) / kSteps * i;
      const std::size_t x = column * kCell + static_cast<std::size_t>(i);
      picture_[y * kWidth + x] = brightness_[luma(across, down)];
      if (x % 2 != 0 || y % 2 != 0) continue;
      const std::size_t from =
          static_cast<std::size_t>(
              std::clamp<std::int32_t>(down >> 17, 0, Panorama::kHeight / 2 - 1)) *
              (Panorama::kWidth / 2) +
          (static_cast<std::size_t>(across >> 17) & (Panorama::kWidth / 2 - 1));
      const std::size_t to = y / 2 * (kWidth / 2) + x / 2;
      picture_blue[to] = clamped(blue[from] + blue_);
      picture_blue[to + kWidth * kHeight / 4] = clamped(blue[from + kQuarter] + red_);
    }
  }
}

void Scene::draw_ball(const Rectangle& ball) {
  constexpr int kLuma = 145;
  constexpr int kBlue = 54;
  constexpr int kRed = 200;  // orange
  const double middle_x = (double{ball.x} + double{ball.width} / 2) * kWidth;
  const double middle_y = (double{ball.y} + double{ball.height} / 2) * kHeight;
  const double radius = double{ball.width} / 2 * kWidth;
  for (std::size_t y = 0; y < kHeight; ++y) {
    const double dy = static_cast<double>(y) - middle_y;
    if (std::abs(dy) > radius) continue;
    const double half = std::sqrt(radius * radius - dy * dy);
    const auto left = static_cast<std::size_t>(std::clamp(middle_x - half, 0.0, double{kWidth}));
    const auto right = static_cast<std::size_t>(std::clamp(middle_x + half, 0.0, double{kWidth}));
    for (std::size_t x = left; x < right; ++x) {
      picture_[y * kWidth + x] = brightness_[kLuma];
      const std::size_t colour = kWidth * kHeight + y / 2 * (kWidth / 2) + x / 2;
      picture_[colour] = clamped(kBlue + blue_);
      picture_[colour + kWidth * kHeight / 4] = clamped(kRed + red_);
    }
  }
}

}  // namespace nimbus::sim
