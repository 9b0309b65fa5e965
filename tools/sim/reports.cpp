#include "tools/sim/reports.h"

#include <algorithm>
#include <cmath>

#include "base/wire.h"
#include "camera/duml.h"
#include "camera/reports.h"

namespace nimbus::sim {
namespace {

using FrameBytes = std::span<std::uint8_t>;

std::uint8_t bit(bool value, unsigned number) {
  return static_cast<std::uint8_t>((value ? 1U : 0U) << number);
}

// Some values have no name in the service: it hands them on, and what they mean is between the
// camera, the display and the viewers. The choice for these is this camera's own.

void fill_flag(CameraModel& camera, FrameBytes frame) {
  put(frame, FlagReport::status_631, camera.tilt_locked());
}

void fill_state(CameraModel& camera, FrameBytes frame) {
  constexpr double kMinutesOfBattery = 100;
  constexpr double kLowest = 5;
  put(frame, StateReport::status_629, bit(camera.formatting(), 0));
  put(frame, StateReport::status_630,
      static_cast<std::uint8_t>(
          std::max(kLowest, 100 - camera.uptime() / 60 * 100 / kMinutesOfBattery)));
}

void fill_tracking(CameraModel& camera, FrameBytes frame) {
  using Report = TrackingReport;
  const Rectangle subject = camera.subject();
  put(frame, Report::on_1, bit(camera.sees_subject(), 0));
  put(frame, Report::on_2, bit(camera.sees_subject(), 0));
  put(frame, Report::x, subject.x);
  put(frame, Report::y, subject.y);
  put(frame, Report::width, subject.width);
  put(frame, Report::height, subject.height);
}

void fill_gimbal(CameraModel& camera, FrameBytes frame) {
  using Report = GimbalReport;
  const auto tenths = [](double degrees) {
    return static_cast<std::int16_t>(std::lround(degrees * 10));
  };
  const Axes& angles = camera.gimbal().angles();
  put(frame, Report::angle_2, tenths(angles.tilt));
  put(frame, Report::angle_3, tenths(angles.roll));
  put(frame, Report::angle_1, tenths(angles.pan));
  put(frame, Report::flag, bit(camera.calibrating(), 0));
}

void fill_recording(CameraModel& camera, FrameBytes frame) {
  const RecordingTimer timer = camera.next_timer_report();
  put(frame, RecordingReport::state, timer.state);
  put(frame, RecordingReport::reset, bit(timer.reset, 0));
}

void fill_lens(CameraModel& camera, FrameBytes frame) {
  using Report = LensReport;
  constexpr std::uint8_t kModeByType = 0x84;  // 0x85: once, 0x86: continuously
  constexpr std::uint16_t kZoomBase = 100;
  put(frame, Report::state, static_cast<std::uint8_t>(kModeByType + camera.settings().focus_type));
  put(frame, Report::zoom_base, kZoomBase);
  put(frame, Report::zoom_now, kZoomBase);
  put(frame, Report::zoom_value, 1.0F);
  put(frame, Report::focus_1, camera.focus_point().x);
  put(frame, Report::focus_2, camera.focus_point().y);
  put(frame, Report::flag, camera.focusing());
  put(frame, Report::focus_3, camera.settings().exposure_point);
}

void fill_status(CameraModel& camera, FrameBytes frame) {
  using Report = StatusReport;
  constexpr std::uint8_t kCardInside = 1;
  put(frame, Report::status_792,
      static_cast<std::uint8_t>(bit(camera.shooting(), 0) | bit(camera.recording(), 1)));
  put(frame, Report::status_794, kCardInside);
  put(frame, Report::camera_mode, camera.settings().mode);
  put(frame, Report::status_796, CameraModel::kCardPhotos);
  put(frame, Report::status_800, camera.photos_left());
  put(frame, Report::status_804, camera.seconds_left());
  put(frame, Report::status_808, static_cast<std::uint16_t>(camera.recorded_seconds()));
  put(frame, Report::status_793, bit(camera.formatting(), 0));
  put(frame, Report::last_byte, camera.settings().histogram);
}

bool histogram_due(const CameraModel& camera) { return camera.settings().histogram != 0; }

/// A hump that sways, further right the longer the camera exposes.
void fill_histogram(CameraModel& camera, FrameBytes frame) {
  constexpr double kWidth = 8;
  const auto bins = bytes_of(frame, HistogramReport::bins);
  const double centre = static_cast<double>(bins.size()) / 2.0 + 2.0 * (camera.settings().ev - 16) +
                        std::sin(camera.uptime());
  for (std::size_t bin = 0; bin < bins.size(); ++bin) {
    const double distance = (static_cast<double>(bin) - centre) / kWidth;
    bins[bin] = static_cast<std::uint8_t>(255 * std::exp(-distance * distance));
  }
}

void fill_settings(CameraModel& camera, FrameBytes frame) {
  using Report = SettingsReport;
  const Settings& settings = camera.settings();
  put(frame, Report::iso, settings.iso);
  put(frame, Report::ev, settings.ev);
  put(frame, Report::settings_790, settings.exposure_lock);
  put(frame, Report::photo_format, settings.photo_format);
  put(frame, Report::resolution, settings.resolution);
  put(frame, Report::frame_rate, settings.frame_rate);
  put(frame, Report::exposure_mode, settings.exposure_mode);
  put(frame, Report::white_balance, settings.white_balance);
  put(frame, Report::colour_temperature, settings.temperature);
  put(frame, Report::colour, settings.colour);
  put(frame, Report::settings_791, settings.anti_flicker);
  put(frame, Report::aperture, settings.aperture);
  put(frame, Report::shutter, load_le<std::uint32_t, 3>(settings.shutter, 0));
  put(frame, Report::settings_789, settings.aspect_ratio);
}

bool tracking_due(const CameraModel& camera) { return camera.tracking(); }

constexpr auto always = nullptr;
constexpr std::uint8_t kCamera = 0x01;
constexpr std::uint8_t kGimbal = 0x04;
constexpr std::uint8_t kService = 0x02;

// At these rates, ten viewers can be sent all of them: every message takes the service 1 ms a
// viewer. Cameras send the gimbal and the timer in one of two lengths, by their make; this one
// sends both, in turns.
constexpr std::array<Report, kReportKinds.size()> kReports{{
    // clang-format off
    // name, length, sender, set, id, every ms, from ms, when it is due, what fills it
    {"gimbal",                GimbalReport::kLength,        kGimbal, 4, 0x05, 200,   0, always,        fill_gimbal},
    {"gimbal, long",          GimbalReport::kLongLength,    kGimbal, 4, 0x05, 200, 100, always,        fill_gimbal},
    {"settings",              SettingsReport::kLength,      kCamera, 2, 0x81, 100,  10, always,        fill_settings},
    {"status",                StatusReport::kLength,        kCamera, 2, 0x80, 200,  20, always,        fill_status},
    {"recording timer",       RecordingReport::kLength,     kCamera, 5, 0x06, 200,  30, always,        fill_recording},
    {"recording timer, long", RecordingReport::kLongLength, kCamera, 5, 0x06, 200, 130, always,        fill_recording},
    {"lens",                  LensReport::kLength,          kCamera, 2, 0x87, 200,  40, always,        fill_lens},
    {"tracking",              TrackingReport::kLength,      kCamera, 2, 0xA6, 100,  50, tracking_due,  fill_tracking},
    {"histogram",             HistogramReport::kLength,     kCamera, 2, 0x61, 200,  60, histogram_due, fill_histogram},
    {"tilt lock",             FlagReport::kLength,          kGimbal, 4, 0x27, 500,  70, always,        fill_flag},
    {"board",                 StateReport::kLength,         kCamera, 2, 0x07, 500,  80, always,        fill_state},
    // clang-format on
}};

}  // namespace

std::span<const Report> reports() { return kReports; }

std::vector<std::uint8_t> ReportEncoder::encode(const Report& report, CameraModel& camera) {
  std::vector<std::uint8_t> frame(report.length);
  put(frame, DumlHeader::start, kDumlStart);
  put(frame, DumlHeader::length, duml_length(report.length));
  put(frame, DumlHeader::check, duml_crc8(std::span(frame).first(DumlHeader::check.at)));
  put(frame, DumlHeader::sender, report.sender);
  put(frame, DumlHeader::receiver, kService);
  put(frame, DumlHeader::sequence, sequence_++);
  put(frame, DumlHeader::set, report.set);
  put(frame, DumlHeader::id, report.id);
  report.fill(camera, frame);
  const std::size_t checked = frame.size() - 2;
  store_le(FrameBytes(frame), checked, duml_crc16(std::span(frame).first(checked)));
  return frame;
}

}  // namespace nimbus::sim
