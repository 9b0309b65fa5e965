// The camera: what it is set to, what it does, and how commands change that. No clock and no
// sockets: time is what tick() is told.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "camera/codes.h"
#include "tools/sim/commands.h"
#include "tools/sim/frame.h"
#include "tools/sim/gimbal_model.h"

namespace nimbus::sim {

/// What a reset sets back. Codes as on the wire.
struct Settings {
  std::uint8_t mode = kVideoMode;
  std::uint8_t exposure_mode = 1;  // auto
  std::uint8_t iso = 0;            // auto
  std::uint8_t ev = 16;            // 0.0
  ShutterCode shutter{50, 0x80, 0};
  std::uint16_t aperture = 280;  // hundredths
  std::uint8_t white_balance = 0;
  std::uint8_t temperature = 68;  // hundreds of kelvin
  std::uint8_t colour = 0;
  std::uint8_t resolution = 10;  // 1920x1080
  std::uint8_t frame_rate = 3;   // 30 a second
  std::uint8_t photo_format = 1;
  std::uint8_t aspect_ratio = 1;
  std::uint8_t anti_flicker = 0;
  std::uint8_t focus_type = 2;  // afc
  std::uint8_t exposure_lock = 0;
  std::uint8_t exposure_point = 0;  // 0: the centre
  std::uint8_t histogram = 1;
};

/// Parts of the picture's width and height.
struct Rectangle {
  float x = 0;
  float y = 0;
  float width = 0;
  float height = 0;
};

struct Point {
  float x = 0.5F;
  float y = 0.5F;
};

/// What the camera says of its recording timer. The service measures the time between two states
/// and multiplies it with the new one: with 1 for rest it comes to know a recording's length.
struct RecordingTimer {
  static constexpr std::uint8_t kRest = 1;
  static constexpr std::uint8_t kRuns = 2;
  std::uint8_t state = kRest;
  bool reset = false;
};

class CameraModel {
 public:
  static constexpr double kShotShows = 1.0;   ///< seconds for which a photo is being taken
  static constexpr double kFocuses = 0.5;     ///< seconds for which it focuses
  static constexpr double kFormats = 2.0;     ///< seconds for which the card is being formatted
  static constexpr double kCalibrates = 3.0;  ///< seconds for which the gimbal is being calibrated
  static constexpr std::uint32_t kCardPhotos = 2000;   ///< photos that fit on an empty card
  static constexpr std::uint32_t kCardSeconds = 7200;  ///< seconds of video that fit on it

  /// The camera loses a tracked subject after so many seconds; 0: never.
  explicit CameraModel(double loses_subject_after = 0)
      : loses_subject_after_(loses_subject_after) {}

  /// Does what the command says. Returns nothing, or why the camera ignores it.
  std::string_view apply(const CameraCommand& command, Bytes payload) {
    return command.act(*this, payload);
  }
  void tick(double seconds);

  // What commands do. Some return nothing, or why the camera does not do it.
  Settings& settings() { return settings_; }
  Gimbal& gimbal() { return gimbal_; }
  void lock_tilt(bool lock) { tilt_locked_ = lock; }
  void calibrate();
  std::string_view shoot();
  std::string_view record(bool start);
  void set_focus_point(const Point& point);
  void format_card();
  void reset();
  std::string_view track(const Rectangle& subject);
  void stop_tracking() { tracked_.reset(); }

  [[nodiscard]] const Settings& settings() const { return settings_; }
  [[nodiscard]] const Gimbal& gimbal() const { return gimbal_; }
  [[nodiscard]] bool tilt_locked() const { return tilt_locked_; }
  [[nodiscard]] bool calibrating() const { return calibrates_ > 0; }
  [[nodiscard]] bool recording() const { return recording_; }
  [[nodiscard]] double recorded_seconds() const { return recorded_; }
  [[nodiscard]] bool shooting() const { return shoots_ > 0; }
  [[nodiscard]] bool focusing() const { return focuses_ > 0; }
  [[nodiscard]] bool formatting() const { return formats_ > 0; }
  [[nodiscard]] const Point& focus_point() const { return focus_point_; }
  [[nodiscard]] std::uint32_t photos_left() const { return kCardPhotos - photos_; }
  [[nodiscard]] std::uint32_t seconds_left() const;
  /// Seconds since it was switched on.
  [[nodiscard]] double uptime() const { return uptime_; }

  /// Whether it tracks, or has lost what it tracked.
  [[nodiscard]] bool tracking() const { return tracked_.has_value(); }
  [[nodiscard]] bool sees_subject() const;
  /// Where the subject is now: it wanders around where tracking was started.
  [[nodiscard]] Rectangle subject() const;

  /// What the next report of the recording timer says. A recording starts with a reset and a rest.
  RecordingTimer next_timer_report();

 private:
  Settings settings_;
  Gimbal gimbal_;
  bool tilt_locked_ = false;
  Point focus_point_;

  bool recording_ = false;
  int timer_lead_in_ = 0;  // timer reports until it runs
  double recorded_ = 0;    // seconds of this recording, or of the last one
  double card_seconds_ = 0;
  std::uint32_t photos_ = 0;

  // Seconds that are left of what takes its time.
  double shoots_ = 0;
  double focuses_ = 0;
  double formats_ = 0;
  double calibrates_ = 0;

  double loses_subject_after_;
  std::optional<Rectangle> tracked_;
  double tracked_for_ = 0;

  double uptime_ = 0;
};

}  // namespace nimbus::sim
