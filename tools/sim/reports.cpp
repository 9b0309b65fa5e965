#include "tools/sim/reports.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "base/wire.h"
#include "camera/duml.h"

namespace nimbus::sim {
namespace {

using FrameBytes = std::span<std::uint8_t>;

void put_real(FrameBytes frame, std::size_t at, float value) {
  store_le(frame, at, std::bit_cast<std::uint32_t>(value));
}

std::uint8_t bit(bool value, unsigned number) {
  return static_cast<std::uint8_t>((value ? 1U : 0U) << number);
}

// Some values have no name in the service: it hands them on, and what they mean is between the
// camera, the display and the viewers. The choice for these is this camera's own.

void fill_tilt_lock(CameraModel& camera, FrameBytes frame) {
  frame[11] = bit(camera.tilt_locked(), 1);
}

void fill_board(CameraModel& camera, FrameBytes frame) {
  constexpr double kMinutesOfBattery = 100;
  constexpr double kLowest = 5;
  frame[24] = bit(camera.formatting(), 0);
  frame[27] = static_cast<std::uint8_t>(
      std::max(kLowest, 100 - camera.uptime() / 60 * 100 / kMinutesOfBattery));
}

void fill_tracking(CameraModel& camera, FrameBytes frame) {
  const Rectangle subject = camera.subject();
  frame[16] = frame[17] = bit(camera.sees_subject(), 0);
  put_real(frame, 18, subject.x);
  put_real(frame, 22, subject.y);
  put_real(frame, 26, subject.width);
  put_real(frame, 30, subject.height);
}

void fill_gimbal(CameraModel& camera, FrameBytes frame) {
  const auto tenths = [](double degrees) {
    return static_cast<std::int16_t>(std::lround(degrees * 10));
  };
  const Axes& angles = camera.gimbal().angles();
  store_le(frame, 11, tenths(angles.tilt));
  store_le(frame, 13, tenths(angles.roll));
  store_le(frame, 19, tenths(angles.pan));
  frame[34] = bit(camera.calibrating(), 0);
}

void fill_recording_timer(CameraModel& camera, FrameBytes frame) {
  const RecordingTimer timer = camera.next_timer_report();
  frame[11] = timer.state;
  frame[50] = bit(timer.reset, 0);
}

void fill_lens(CameraModel& camera, FrameBytes frame) {
  constexpr std::uint8_t kModeByType = 0x84;  // 0x85: once, 0x86: continuously
  constexpr std::uint16_t kZoomBase = 100;
  frame[11] = static_cast<std::uint8_t>(kModeByType + camera.settings().focus_type);
  store_le(frame, 12, kZoomBase);
  store_le(frame, 14, kZoomBase);
  put_real(frame, 16, 1.0F);
  put_real(frame, 24, camera.focus_point().x);
  put_real(frame, 28, camera.focus_point().y);
  frame[32] = bit(camera.focusing(), 0);
  frame[42] = camera.settings().exposure_point;
}

void fill_status(CameraModel& camera, FrameBytes frame) {
  constexpr std::uint8_t kCardInside = 1;
  frame[11] = static_cast<std::uint8_t>(bit(camera.shooting(), 0) | bit(camera.recording(), 1));
  frame[13] = kCardInside;
  frame[15] = camera.settings().mode;
  store_le(frame, 20, CameraModel::kCardPhotos);
  store_le(frame, 24, camera.photos_left());
  store_le(frame, 28, camera.seconds_left());
  store_le(frame, 40, static_cast<std::uint16_t>(camera.recorded_seconds()));
  frame[42] = bit(camera.formatting(), 0);
  frame[44] = camera.settings().histogram;
}

bool histogram_due(const CameraModel& camera) { return camera.settings().histogram != 0; }

/// A hump that sways, further right the longer the camera exposes.
void fill_histogram(CameraModel& camera, FrameBytes frame) {
  constexpr int kBins = 64;
  constexpr double kWidth = 8;
  const double centre = kBins / 2.0 + 2.0 * (camera.settings().ev - 16) + std::sin(camera.uptime());
  for (int bin = 0; bin < kBins; ++bin) {
    const double distance = (bin - centre) / kWidth;
    frame[kDumlHeaderSize + static_cast<std::size_t>(bin)] =
        static_cast<std::uint8_t>(255 * std::exp(-distance * distance));
  }
}

void fill_settings(CameraModel& camera, FrameBytes frame) {
  const Settings& settings = camera.settings();
  frame[16] = settings.iso;
  frame[17] = settings.ev;
  frame[21] = settings.exposure_lock;
  frame[23] = settings.photo_format;
  frame[24] = settings.resolution;
  frame[25] = settings.frame_rate;
  frame[31] = settings.exposure_mode;
  frame[34] = settings.white_balance;
  frame[35] = settings.temperature;
  frame[42] = settings.colour;
  frame[43] = settings.anti_flicker;
  store_le(frame, 49, settings.aperture);
  std::copy(settings.shutter.begin(), settings.shutter.end(), &frame[51]);
  frame[67] = settings.aspect_ratio;
}

bool tracking_due(const CameraModel& camera) { return camera.tracking(); }

constexpr std::uint8_t kCamera = 0x01;
constexpr std::uint8_t kGimbal = 0x04;
constexpr std::uint8_t kService = 0x02;

// At these rates, ten viewers can be sent all of them: every message takes the service 1 ms a
// viewer. Cameras send the gimbal and the timer in one of two lengths, by their make; this one
// sends both, in turns.
constexpr std::array<Report, 11> kReports{{
    // clang-format off
    // name                length, sender,  set, id,   every ms, from ms
    {"gimbal",                 53, kGimbal, 4, 0x05, 200,   0, nullptr,       fill_gimbal},
    {"gimbal, long",           57, kGimbal, 4, 0x05, 200, 100, nullptr,       fill_gimbal},
    {"settings",              107, kCamera, 2, 0x81, 100,  10, nullptr,       fill_settings},
    {"status",                 62, kCamera, 2, 0x80, 200,  20, nullptr,       fill_status},
    {"recording timer",        53, kCamera, 5, 0x06, 200,  30, nullptr,       fill_recording_timer},
    {"recording timer, long",  57, kCamera, 5, 0x06, 200, 130, nullptr,       fill_recording_timer},
    {"lens",                   58, kCamera, 2, 0x87, 200,  40, nullptr,       fill_lens},
    {"tracking",               36, kCamera, 2, 0xA6, 100,  50, tracking_due,  fill_tracking},
    {"histogram",              77, kCamera, 2, 0x61, 200,  60, histogram_due, fill_histogram},
    {"tilt lock",              17, kGimbal, 4, 0x27, 500,  70, nullptr,       fill_tilt_lock},
    {"board",                  30, kCamera, 2, 0x07, 500,  80, nullptr,       fill_board},
    // clang-format on
}};

}  // namespace

std::span<const Report> reports() { return kReports; }

std::vector<std::uint8_t> ReportEncoder::encode(const Report& report, CameraModel& camera) {
  constexpr unsigned kVersion = 1;
  std::vector<std::uint8_t> frame(report.length);
  frame[0] = kDumlStart;
  store_le(FrameBytes(frame), 1, static_cast<std::uint16_t>(report.length | kVersion << 10));
  frame[3] = duml_crc8(std::span(frame).first(3));
  frame[4] = report.sender;
  frame[5] = kService;
  store_le(FrameBytes(frame), kDumlSequenceOffset, sequence_++);
  frame[9] = report.set;
  frame[10] = report.id;
  report.fill(camera, frame);
  const std::size_t checked = frame.size() - 2;
  store_le(FrameBytes(frame), checked, duml_crc16(std::span(frame).first(checked)));
  return frame;
}

}  // namespace nimbus::sim
