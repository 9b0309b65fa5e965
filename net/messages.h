// What passes between the service and its viewers: the frame, the messages in both directions, and
// their layouts. Offsets count from the payload's first byte, which says what the payload is.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "base/wire.h"

namespace nimbus {

/// The service's UDP port; viewers have any.
inline constexpr std::uint16_t kViewerPort = 4242;

// --- The frame, in both directions -------------------------------------------------------------
//   0  u8   0x42
//   1  u8   to viewers: 1 for relayed video, else 0; from viewers: ignored
//   2  u16  0
//   4  u32  to viewers: the broadcast's number; from viewers: ignored
//   8  u16  reserved, sent as 0, ignored
//  10  u16  0
//  12       payload

inline constexpr std::uint8_t kFrameMagic = 0x42;
inline constexpr std::size_t kFrameKindOffset = 1;
inline constexpr std::size_t kFrameNumberOffset = 4;
inline constexpr std::size_t kFrameHeaderSize = 12;

/// The byte of the frame header that tells relayed video from everything else.
enum class FrameKind : std::uint8_t { data = 0, video = 1 };

/// What a viewer says, by its payload's first byte.
enum class FromViewer : std::uint8_t {
  register_viewer = 0,
  leave = 1,
  speed = 5,
  command = '{',  ///< a JSON text from this byte on, up to a NUL or the datagram's end
};

/// What the viewers are told, by the payload's first byte.
enum class ToViewer : std::uint8_t {
  gimbal_attitude = 0,
  camera_settings = 2,
  connection = 5,
  flags = 6,
  camera_status = 7,
  orientation = 8,
  gimbal_angles = 10,
  version = 11,
  focus_values = 13,
  histogram = 14,
  rc_channels = 15,
  lens_flag = 16,
  recording_timer = 19,
  zoom = 20,
  tracking = 21,
  text = '{',  ///< a JSON text from this byte on, up to the datagram's end
};

/// The first byte of such a message.
[[nodiscard]] constexpr std::uint8_t type_of(ToViewer message) noexcept {
  return static_cast<std::uint8_t>(message);
}

// --- From viewers ------------------------------------------------------------------------------

struct RegisterMessage {
  static constexpr std::uint8_t kDataOnly = 1;
  static constexpr WireField<std::uint8_t> mode{1, "mode"};  // kDataOnly, or anything else
  static constexpr std::array<WireItem, 1> kItems{mode};
};

/// 4000 is 1.0.
struct SpeedMessage {
  static constexpr std::size_t kSize = 8;
  static constexpr std::uint8_t kSets = 1;  // the only mode that sets a speed
  static constexpr WireField<std::uint8_t> mode{1, "mode"};
  static constexpr WireField<std::int16_t> pan{2, "pan"};
  static constexpr WireField<std::int16_t> tilt{4, "tilt"};
  static constexpr WireField<std::int16_t> roll{6, "roll"};
  static constexpr std::array<WireItem, 4> kItems{mode, pan, tilt, roll};
};

// --- To viewers: a type and six bytes, or three signed numbers ---------------------------------

inline constexpr std::size_t kShortMessageSize = 7;

struct ConnectionMessage {
  static constexpr std::uint8_t kCameraData = 0;
  static constexpr std::uint8_t kVideo = 1;
  static constexpr std::uint8_t kConnected = 2;
  static constexpr WireField<std::uint8_t> source{1, "source"};  // kCameraData or kVideo
  static constexpr WireField<std::uint8_t> state{2, "state"};    // kConnected, or 0
  static constexpr std::array<WireItem, 2> kItems{source, state};
};

struct FlagsMessage {
  static constexpr WireBit always{1, 0, "always"};
  static constexpr WireBit access_point{1, 1, "access_point"};
  static constexpr WireBit hdmi{1, 2, "hdmi"};
  static constexpr WireBit camera_data{1, 4, "camera_data"};
  static constexpr WireField<std::uint8_t> viewers{2, "viewers"};
  static constexpr WireField<std::uint8_t> rc_status{5, "rc_status"};
  static constexpr std::array<WireItem, 6> kItems{always,      access_point, hdmi,
                                                  camera_data, viewers,      rc_status};
};

struct VersionMessage {
  static constexpr WireField<std::uint8_t> major{1, "major"};
  static constexpr WireField<std::uint8_t> minor{2, "minor"};
  static constexpr WireField<std::uint8_t> patch{3, "patch"};
  static constexpr WireField<std::uint8_t> variant{4, "variant"};  // of the product
  static constexpr std::array<WireItem, 4> kItems{major, minor, patch, variant};
};

struct LensFlagMessage {
  static constexpr WireField<std::uint8_t> lens_flag{1, "lens_flag"};
  static constexpr std::array<WireItem, 1> kItems{lens_flag};
};

/// Hundredths of a degree (attitude) or whole degrees (angles).
struct GimbalMessage {
  static constexpr WireField<std::int16_t> angle_1{1, "angle_1"};
  static constexpr WireField<std::int16_t> angle_2{3, "angle_2"};
  static constexpr WireField<std::int16_t> angle_3{5, "angle_3"};
  static constexpr std::array<WireItem, 3> kItems{angle_1, angle_2, angle_3};
};

struct OrientationMessage {
  static constexpr WireField<std::int16_t> locked{1, "locked"};
  static constexpr std::array<WireItem, 1> kItems{locked};
};

/// The first two in ten thousandths.
struct FocusValuesMessage {
  static constexpr WireField<std::int16_t> focus_1{1, "focus_1"};
  static constexpr WireField<std::int16_t> focus_2{3, "focus_2"};
  static constexpr WireField<std::int16_t> focus_3{5, "focus_3"};
  static constexpr std::array<WireItem, 3> kItems{focus_1, focus_2, focus_3};
};

struct RecordingTimerMessage {
  static constexpr WireField<std::int16_t> state{1, "state"};
  static constexpr WireField<std::int16_t> reset{3, "reset"};
  static constexpr WireField<std::uint16_t> seconds{5, "seconds"};
  static constexpr std::array<WireItem, 3> kItems{state, reset, seconds};
};

struct ZoomMessage {
  static constexpr WireField<std::int16_t> focus_mode{1, "focus_mode"};
  static constexpr WireField<std::int16_t> ratio{3, "ratio"};  // percent
  static constexpr WireField<std::int16_t> zoom{5, "zoom"};    // hundredths
  static constexpr std::array<WireItem, 3> kItems{focus_mode, ratio, zoom};
};

// --- To viewers: records -----------------------------------------------------------------------

/// Codes are the camera's.
struct CameraSettingsMessage {
  static constexpr std::size_t kSize = 31;
  static constexpr WireField<std::uint8_t> exposure_mode{1, "exposure_mode"};
  static constexpr WireField<std::uint8_t> settings_790{2, "settings_790"};
  static constexpr WireField<std::uint8_t> colour{4, "colour"};
  static constexpr WireField<std::int8_t> ev{5, "ev"};  // tenths of an EV
  static constexpr WireField<std::uint8_t> white_balance{6, "white_balance"};
  static constexpr WireField<std::uint8_t> resolution{7, "resolution"};
  static constexpr WireField<std::uint8_t> frame_rate{8, "frame_rate"};
  static constexpr WireField<std::uint8_t> colour_temperature{9, "colour_temperature"};  // 100 K
  static constexpr WireField<std::uint16_t> settings_728{10, "settings_728"};
  static constexpr WireField<std::uint32_t, 3> settings_736{12, "settings_736"};
  static constexpr WireField<std::uint8_t> settings_789{15, "settings_789"};
  static constexpr WireField<std::uint8_t> iso{16, "iso"};
  static constexpr WireField<std::uint16_t> aperture{17, "aperture"};  // hundredths
  static constexpr WireField<std::uint8_t> settings_791{20, "settings_791"};
  static constexpr WireField<std::uint32_t, 3> shutter{21, "shutter"};
  static constexpr WireField<std::uint8_t> photo_format{24, "photo_format"};
  static constexpr std::array<WireItem, 16> kItems{
      exposure_mode, settings_790,       colour,       ev,           white_balance, resolution,
      frame_rate,    colour_temperature, settings_728, settings_736, settings_789,  iso,
      aperture,      settings_791,       shutter,      photo_format};
};

struct CameraStatusMessage {
  static constexpr std::size_t kSize = 24;
  static constexpr WireField<std::uint8_t> camera_mode{1, "camera_mode"};
  static constexpr WireField<std::uint8_t> status_792{2, "status_792"};
  static constexpr WireField<std::uint32_t> status_796{3, "status_796"};
  static constexpr WireField<std::uint32_t> status_800{7, "status_800"};
  static constexpr WireField<std::uint32_t> status_804{11, "status_804"};
  static constexpr WireField<std::uint16_t> status_808{15, "status_808"};
  static constexpr WireField<std::uint8_t> status_793{21, "status_793"};
  static constexpr WireField<std::uint8_t> status_794{22, "status_794"};
  static constexpr WireField<std::uint8_t> last_byte{23, "last_byte"};
  static constexpr std::array<WireItem, 9> kItems{camera_mode, status_792, status_796,
                                                  status_800,  status_804, status_808,
                                                  status_793,  status_794, last_byte};
};

struct HistogramMessage {
  static constexpr std::size_t kSize = 65;
  static constexpr WireBytes<64> bins{1, "bins"};
  static constexpr std::array<WireItem, 1> kItems{bins};
};

struct RcChannelsMessage {
  static constexpr std::size_t kSize = 67;
  static constexpr WireField<std::uint8_t> rc_status{1, "rc_status"};
  static constexpr WireField<std::uint8_t> count{2, "count"};  // 32
  static constexpr WireWords<32> channels{3, "channels"};
  static constexpr std::array<WireItem, 3> kItems{rc_status, count, channels};
};

/// The rectangle in parts of the picture's width and height: 65535 is 1.0.
struct TrackingMessage {
  static constexpr std::size_t kSize = 10;
  static constexpr WireField<std::uint8_t> on{1, "on"};
  static constexpr WireField<std::uint16_t> x{2, "x"};
  static constexpr WireField<std::uint16_t> y{4, "y"};
  static constexpr WireField<std::uint16_t> width{6, "width"};
  static constexpr WireField<std::uint16_t> height{8, "height"};
  static constexpr std::array<WireItem, 5> kItems{on, x, y, width, height};
};

// --- All of them -------------------------------------------------------------------------------

/// A kind of message to viewers, and the only size that it has.
struct MessageKind {
  ToViewer type;
  std::size_t size;
  std::string_view name;
  std::span<const WireItem> items;
};

/// Every kind but the texts.
inline constexpr std::array<MessageKind, 15> kMessageKinds{{
    // clang-format off
    {ToViewer::gimbal_attitude, kShortMessageSize,            "gimbal_attitude", GimbalMessage::kItems},
    {ToViewer::camera_settings, CameraSettingsMessage::kSize, "camera_settings", CameraSettingsMessage::kItems},
    {ToViewer::connection,      kShortMessageSize,            "connection",      ConnectionMessage::kItems},
    {ToViewer::flags,           kShortMessageSize,            "flags",           FlagsMessage::kItems},
    {ToViewer::camera_status,   CameraStatusMessage::kSize,   "camera_status",   CameraStatusMessage::kItems},
    {ToViewer::orientation,     kShortMessageSize,            "orientation",     OrientationMessage::kItems},
    {ToViewer::gimbal_angles,   kShortMessageSize,            "gimbal_angles",   GimbalMessage::kItems},
    {ToViewer::version,         kShortMessageSize,            "version",         VersionMessage::kItems},
    {ToViewer::focus_values,    kShortMessageSize,            "focus_values",    FocusValuesMessage::kItems},
    {ToViewer::histogram,       HistogramMessage::kSize,      "histogram",       HistogramMessage::kItems},
    {ToViewer::rc_channels,     RcChannelsMessage::kSize,     "rc_channels",     RcChannelsMessage::kItems},
    {ToViewer::lens_flag,       kShortMessageSize,            "lens_flag",       LensFlagMessage::kItems},
    {ToViewer::recording_timer, kShortMessageSize,            "recording_timer", RecordingTimerMessage::kItems},
    {ToViewer::zoom,            kShortMessageSize,            "zoom",            ZoomMessage::kItems},
    {ToViewer::tracking,        TrackingMessage::kSize,       "tracking",        TrackingMessage::kItems},
    // clang-format on
}};

/// Nothing lies outside of its message.
consteval bool messages_fit() {
  return std::all_of(kMessageKinds.begin(), kMessageKinds.end(), [](const MessageKind& kind) {
    return std::all_of(kind.items.begin(), kind.items.end(), [&kind](const WireItem& item) {
      return item.at > 0 && item.end() <= kind.size;
    });
  });
}
static_assert(messages_fit());

}  // namespace nimbus
