// The layouts of the camera's reports. A report is known by its length and, for some, by its
// command set. Offsets count from the frame's first byte. What the service only hands on is named
// after the field of the display region that it fills.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "base/wire.h"

namespace nimbus {

/// For a kind of report whose command set is not looked at.
inline constexpr std::uint8_t kAnySet = 0xFF;

struct FlagReport {
  static constexpr std::uint8_t kLength = 17;
  static constexpr std::uint8_t kSet = 4;
  static constexpr WireBit status_631{11, 1, "status_631"};
  static constexpr std::array<WireItem, 1> kItems{status_631};
};

struct StateReport {
  static constexpr std::uint8_t kLength = 30;
  static constexpr std::uint8_t kSet = kAnySet;
  static constexpr WireField<std::uint8_t> status_629{24, "status_629"};  // 0 becomes 1, others 0
  static constexpr WireField<std::uint8_t> status_630{27, "status_630"};
  static constexpr std::array<WireItem, 2> kItems{status_629, status_630};
};

/// A subject is tracked when neither byte is 0. The rectangle is in parts of the picture's width
/// and height.
struct TrackingReport {
  static constexpr std::uint8_t kLength = 36;
  static constexpr std::uint8_t kSet = kAnySet;
  static constexpr WireField<std::uint8_t> on_1{16, "on_1"};
  static constexpr WireField<std::uint8_t> on_2{17, "on_2"};
  static constexpr WireField<float> x{18, "x"};
  static constexpr WireField<float> y{22, "y"};
  static constexpr WireField<float> width{26, "width"};
  static constexpr WireField<float> height{30, "height"};
  static constexpr std::array<WireItem, 6> kItems{on_1, on_2, x, y, width, height};
};

/// Angles in tenths of a degree, in another order than the display's.
struct GimbalReport {
  static constexpr std::uint8_t kLength = 53;
  static constexpr std::uint8_t kLongLength = 57;
  static constexpr std::uint8_t kSet = 4;
  static constexpr WireField<std::int16_t> angle_2{11, "angle_2"};
  static constexpr WireField<std::int16_t> angle_3{13, "angle_3"};
  static constexpr WireField<std::int16_t> angle_1{19, "angle_1"};
  static constexpr WireField<std::uint8_t> flag{34, "flag"};  // 0 becomes 1, others 0
  static constexpr std::array<WireItem, 4> kItems{angle_2, angle_3, angle_1, flag};
};

struct RecordingReport {
  static constexpr std::uint8_t kLength = 53;
  static constexpr std::uint8_t kLongLength = 57;
  static constexpr std::uint8_t kSet = 5;
  static constexpr WireField<std::uint8_t> state{11, "state"};
  static constexpr WireField<std::uint8_t> reset{50, "reset"};  // 0: no reset
  static constexpr std::array<WireItem, 2> kItems{state, reset};
};

struct LensReport {
  static constexpr std::uint8_t kLength = 58;
  static constexpr std::uint8_t kSet = kAnySet;
  static constexpr WireField<std::uint8_t> state{11, "state"};
  static constexpr WireBit bit_0{11, 0, "lens_bit_0"};
  static constexpr WireBit bit_2{11, 2, "lens_bit_2"};
  static constexpr WireField<std::uint16_t> zoom_base{12, "zoom_base"};
  static constexpr WireField<std::uint16_t> zoom_now{14, "zoom_now"};  // of the base
  static constexpr WireField<float> zoom_value{16, "zoom_value"};
  static constexpr WireField<float> focus_1{24, "focus_1"};
  static constexpr WireField<float> focus_2{28, "focus_2"};
  static constexpr WireBit flag{32, 0, "lens_flag"};
  static constexpr WireField<std::uint8_t> focus_3{42, "focus_3"};
  static constexpr std::array<WireItem, 10> kItems{
      state, bit_0, bit_2, zoom_base, zoom_now, zoom_value, focus_1, focus_2, flag, focus_3};
};

struct StatusReport {
  static constexpr std::uint8_t kLength = 62;
  static constexpr std::uint8_t kSet = kAnySet;
  static constexpr WireField<std::uint8_t> status_792{11, "status_792"};
  static constexpr WireField<std::uint8_t> status_794{13, "status_794"};
  static constexpr WireField<std::uint8_t> camera_mode{15, "camera_mode"};
  static constexpr WireField<std::uint32_t> status_796{20, "status_796"};
  static constexpr WireField<std::uint32_t> status_800{24, "status_800"};
  static constexpr WireField<std::uint32_t> status_804{28, "status_804"};
  static constexpr WireField<std::uint16_t> status_808{40, "status_808"};
  static constexpr WireField<std::uint8_t> status_793{42, "status_793"};
  static constexpr WireField<std::uint8_t> last_byte{44, "last_byte"};  // of the message
  static constexpr std::array<WireItem, 9> kItems{status_792, status_794, camera_mode,
                                                  status_796, status_800, status_804,
                                                  status_808, status_793, last_byte};
};

struct HistogramReport {
  static constexpr std::uint8_t kLength = 77;
  static constexpr std::uint8_t kSet = kAnySet;
  static constexpr WireBytes<64> bins{11, "bins"};
  static constexpr std::array<WireItem, 1> kItems{bins};
};

/// Codes are those of camera/codes.h.
struct SettingsReport {
  static constexpr std::uint8_t kLength = 107;
  static constexpr std::uint8_t kSet = kAnySet;
  static constexpr WireField<std::uint32_t, 3> settings_736{13, "settings_736"};
  static constexpr WireField<std::uint8_t> iso{16, "iso"};
  static constexpr WireField<std::uint8_t> ev{17, "ev_code"};
  static constexpr WireField<std::uint8_t> settings_790{21, "settings_790"};
  static constexpr WireField<std::uint8_t> photo_format{23, "photo_format"};
  static constexpr WireField<std::uint8_t> resolution{24, "resolution"};
  static constexpr WireField<std::uint8_t> frame_rate{25, "frame_rate"};
  static constexpr WireField<std::uint8_t> exposure_mode{31, "exposure_mode"};
  static constexpr WireField<std::uint8_t> white_balance{34, "white_balance"};
  static constexpr WireField<std::uint8_t> colour_temperature{35, "colour_temperature"};  // 100 K
  static constexpr WireField<std::uint8_t> colour{42, "colour"};
  static constexpr WireField<std::uint8_t> settings_791{43, "settings_791"};
  static constexpr WireField<std::uint16_t> aperture{49, "aperture"};  // hundredths
  static constexpr WireField<std::uint32_t, 3> shutter{51, "shutter"};
  static constexpr WireField<std::uint16_t> settings_728{54, "settings_728"};
  static constexpr WireField<std::uint8_t> settings_789{67, "settings_789"};
  static constexpr std::array<WireItem, 16> kItems{settings_736,       iso,           ev,
                                                   settings_790,       photo_format,  resolution,
                                                   frame_rate,         exposure_mode, white_balance,
                                                   colour_temperature, colour,        settings_791,
                                                   aperture,           shutter,       settings_728,
                                                   settings_789};
};

/// A kind of report.
struct ReportKind {
  std::string_view name;
  std::uint8_t length;       ///< of the whole frame
  std::uint8_t command_set;  ///< or kAnySet
  std::span<const WireItem> items;
};

/// Every kind. Some come in frames of two lengths.
inline constexpr std::array<ReportKind, 11> kReportKinds{{
    // clang-format off
    {"flag",      FlagReport::kLength,          FlagReport::kSet,      FlagReport::kItems},
    {"state",     StateReport::kLength,         StateReport::kSet,     StateReport::kItems},
    {"tracking",  TrackingReport::kLength,      TrackingReport::kSet,  TrackingReport::kItems},
    {"gimbal",    GimbalReport::kLength,        GimbalReport::kSet,    GimbalReport::kItems},
    {"recording", RecordingReport::kLength,     RecordingReport::kSet, RecordingReport::kItems},
    {"gimbal",    GimbalReport::kLongLength,    GimbalReport::kSet,    GimbalReport::kItems},
    {"recording", RecordingReport::kLongLength, RecordingReport::kSet, RecordingReport::kItems},
    {"lens",      LensReport::kLength,          LensReport::kSet,      LensReport::kItems},
    {"status",    StatusReport::kLength,        StatusReport::kSet,    StatusReport::kItems},
    {"histogram", HistogramReport::kLength,     HistogramReport::kSet, HistogramReport::kItems},
    {"settings",  SettingsReport::kLength,      SettingsReport::kSet,  SettingsReport::kItems},
    // clang-format on
}};

/// Every item lies before its frame's check: a whole frame is read without a look at its length.
consteval bool reports_fit() {
  for (const ReportKind& kind : kReportKinds) {
    for (const WireItem& item : kind.items) {
      if (item.end() + 2 > kind.length) return false;
    }
  }
  return true;
}
static_assert(reports_fit());

}  // namespace nimbus
