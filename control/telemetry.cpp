// A datagram from the bridge is a piece of the camera's byte stream: frames, with anything between
// them. Every datagram is scanned alone, to its end. A frame's kind is told by its length and, for
// some, its command set. Nothing in it is trusted but the checksum: codes may be outside every
// table, numbers may be no numbers.
#include "control/telemetry.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>

#include "base/clock.h"
#include "base/log.h"
#include "base/number.h"
#include "base/text_builder.h"
#include "base/wire.h"
#include "camera/codes.h"
#include "camera/duml.h"
#include "camera/gimbal.h"
#include "display/region.h"
#include "net/viewers.h"

namespace nimbus {
namespace {

/// A whole frame. Decoders read at fixed offsets, all within the length that chose the decoder.
class FrameView {
 public:
  explicit FrameView(std::span<const std::uint8_t> bytes) noexcept : bytes_(bytes) {}

  [[nodiscard]] std::uint8_t u8(std::size_t at) const noexcept { return bytes_[at]; }
  [[nodiscard]] std::uint8_t bit(std::size_t at, unsigned number) const noexcept {
    return static_cast<std::uint8_t>(bytes_[at] >> number & 1U);
  }
  [[nodiscard]] std::uint16_t u16(std::size_t at) const noexcept {
    return load_le<std::uint16_t>(bytes_, at);
  }
  [[nodiscard]] std::int16_t s16(std::size_t at) const noexcept {
    return load_le<std::int16_t>(bytes_, at);
  }
  [[nodiscard]] std::uint32_t u24(std::size_t at) const noexcept {
    return u16(at) | static_cast<std::uint32_t>(u8(at + 2)) << 16;
  }
  [[nodiscard]] std::uint32_t u32(std::size_t at) const noexcept {
    return load_le<std::uint32_t>(bytes_, at);
  }
  [[nodiscard]] float f32(std::size_t at) const noexcept { return std::bit_cast<float>(u32(at)); }
  [[nodiscard]] std::span<const std::uint8_t> bytes(std::size_t at, std::size_t count) const {
    return bytes_.subspan(at, count);
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

// What the viewers are sent, by its first byte.
enum class Message : std::uint8_t {
  gimbal_attitude = 0,
  camera_settings = 2,
  camera_status = 7,
  orientation_lock = 8,
  gimbal_angles = 10,
  focus_values = 13,
  histogram = 14,
  lens_flag = 16,
  recording_timer = 19,
  zoom = 20,
  tracking = 21,
};

constexpr std::uint8_t type_of(Message message) { return static_cast<std::uint8_t>(message); }

/// The values are cut to their low 16 bits.
void send_triple(Message message, std::int32_t a, std::int32_t b, std::int32_t c) {
  nimbus::send_triple(type_of(message), {static_cast<std::int16_t>(a), static_cast<std::int16_t>(b),
                                         static_cast<std::int16_t>(c)});
}

// --- Small reports -----------------------------------------------------------------------------

void decode_report_17(const FrameView& frame, DisplayRegion& display) {
  display.status_631 = frame.bit(11, 1);
}

void decode_report_30(const FrameView& frame, DisplayRegion& display) {
  display.status_629 = frame.u8(24) == 0 ? 1 : 0;
  display.status_630 = frame.u8(27);
}

// --- Tracking ----------------------------------------------------------------------------------

/// Brings back a subject that the camera has lost. Armed by the first report of a tracked subject,
/// never disarmed: while the camera reports it lost, tracking is started again and again. Data
/// link's receive thread only.
struct TrackingRestore {
  static constexpr std::uint32_t kPatienceMs = 2000;
  static constexpr float kWidth = 0.1F;
  static constexpr float kHeight = 0.2F;

  bool armed;
  std::uint32_t seen_ms;
  float x;
  float y;

  void seen(std::uint32_t now, float at_x, float at_y) { *this = {true, now, at_x, at_y}; }

  void lost(std::uint32_t now) const {
    if (!armed) return;
    const std::uint32_t waited = now - seen_ms;
    log_text("Waiting restore tracking %d...\n", static_cast<int>(waited));
    if (waited <= kPatienceMs) return;
    log_text("Restore tracking...\n");
    tracking_start({x, y, kWidth, kHeight});
  }
};

TrackingRestore tracking_restore;

void decode_tracking(const FrameView& frame, DisplayRegion& display) {
  const bool on = frame.u8(16) != 0 && frame.u8(17) != 0;
  const std::array rectangle{frame.f32(18), frame.f32(22), frame.f32(26), frame.f32(30)};
  const std::uint32_t now = now_ms();
  display.tracking_on = on ? 1 : 0;
  display.tracking_ms.store_release(now);
  display.tracking_x = rectangle[0];
  display.tracking_y = rectangle[1];
  display.tracking_width = rectangle[2];
  display.tracking_height = rectangle[3];
  if (on) {
    tracking_restore.seen(now, rectangle[0], rectangle[1]);
  } else {
    tracking_restore.lost(now);
  }
  std::array<std::uint8_t, 10> message{type_of(Message::tracking),
                                       on ? std::uint8_t{1} : std::uint8_t{0}};
  for (std::size_t i = 0; i < rectangle.size(); ++i) {
    store_le(message, 2 + 2 * i, to_integer<std::uint16_t>(double{rectangle[i]} * 65535.0));
  }
  broadcast(message, FrameKind::data);
}

// --- Gimbal ------------------------------------------------------------------------------------

void decode_gimbal(const FrameView& frame, DisplayRegion& display) {
  // Tenths of a degree on the wire; the display's first angle is the report's third.
  const auto a1 = static_cast<std::int16_t>(frame.s16(11) / 10);
  const auto a2 = static_cast<std::int16_t>(frame.s16(13) / 10);
  const auto a3 = static_cast<std::int16_t>(frame.s16(19) / 10);
  display.gimbal_angle_1 = a3;
  display.gimbal_angle_2 = a1;
  display.gimbal_angle_3 = a2;
  display.gimbal_flag = frame.u8(34) == 0 ? 1 : 0;
  send_triple(Message::gimbal_attitude, a3 * 100, a1 * 100, a2 * 100);
  send_triple(Message::gimbal_angles, a3, a1, a2);
  send_triple(Message::orientation_lock, display.orientation_lock, 0, 0);
}

// --- Recording timer ---------------------------------------------------------------------------

void decode_recording_timer(const FrameView& frame, DisplayRegion& display) {
  const std::uint8_t state = frame.u8(11);
  const bool reset = frame.u8(50) != 0;
  display.recording_state = state;
  display.recording_reset = reset ? 1 : 0;
  if (reset) {
    display.timer_state = 0;
    display.timer_start_ms = 0;
    display.timer_elapsed_ms = 0;
    send_triple(Message::recording_timer, state, 1, 0);
    return;
  }
  if (display.timer_state == 0) {
    display.timer_state = state;
    return;
  }
  if (display.timer_state != state) {
    display.timer_state = state;
    const std::uint32_t now = now_ms();
    const std::uint32_t start = display.timer_start_ms;
    if (start != 0) display.timer_elapsed_ms = state * (now - start);
    display.timer_start_ms = now;
  }
  send_triple(Message::recording_timer, state, 0,
              static_cast<std::int32_t>(display.timer_elapsed_ms / 1000));
}

// --- Lens --------------------------------------------------------------------------------------

std::uint8_t focus_mode_of(std::uint8_t state) {
  constexpr std::uint8_t kMode1 = 0x85;
  constexpr std::uint8_t kMode2 = 0x86;
  return state == kMode1 ? 1 : state == kMode2 ? 2 : 0;
}

/// Percent, truncated; 0 when there is nothing to compare with.
std::int32_t zoom_ratio(std::uint16_t value, std::uint16_t base) {
  return base == 0 ? 0 : to_integer<std::int32_t>(static_cast<double>(value) / base * 100.0);
}

void decode_lens(const FrameView& frame, DisplayRegion& display) {
  const std::uint8_t state = frame.u8(11);
  const std::uint8_t mode = focus_mode_of(state);
  const std::int32_t ratio = zoom_ratio(frame.u16(14), frame.u16(12));
  const auto zoom = to_integer<std::int32_t>(std::round(double{frame.f32(16)} * 100.0));
  const double focus_1 = frame.f32(24);
  const double focus_2 = frame.f32(28);
  const std::uint8_t flag = frame.bit(32, 0);
  display.lens_bit_2 = frame.bit(11, 2);
  display.zoom_ratio = static_cast<std::uint8_t>(ratio);
  display.lens_bit_0 = frame.bit(11, 0);
  display.focus_mode = mode;
  display.zoom_value = zoom * 0.01;
  display.focus_value_1 = focus_1;
  display.focus_value_2 = focus_2;
  display.lens_flag = flag;
  display.lens_known = 1;
  send_status(type_of(Message::lens_flag), {flag});
  send_triple(Message::zoom, mode, ratio, zoom);
  send_triple(Message::focus_values, to_integer<std::int32_t>(focus_1 * 10000.0),
              to_integer<std::int32_t>(focus_2 * 10000.0), frame.u8(42));
}

// --- Camera status -----------------------------------------------------------------------------

void decode_camera_status(const FrameView& frame, DisplayRegion& display) {
  const std::uint8_t mode = frame.u8(15);
  display.status_792 = frame.u8(11);
  display.status_793 = frame.u8(42);
  display.status_794 = frame.u8(13);
  display.camera_mode = mode;
  display.camera_mode_text.assign(value_of(kCameraModeNames, mode));
  display.status_796 = frame.u32(20);
  display.status_800 = frame.u32(24);
  display.status_804 = frame.u32(28);
  display.status_808 = frame.u16(40);

  std::array<std::uint8_t, 24> message{type_of(Message::camera_status), mode, frame.u8(11)};
  store_le(message, 3, frame.u32(20));
  store_le(message, 7, frame.u32(24));
  store_le(message, 11, frame.u32(28));
  store_le(message, 15, frame.u16(40));
  message[21] = frame.u8(42);
  message[22] = frame.u8(13);
  message[23] = frame.u8(44);
  broadcast(message, FrameKind::data);
}

// --- Histogram ---------------------------------------------------------------------------------

void decode_histogram(const FrameView& frame, DisplayRegion& display) {
  constexpr std::size_t kBins = 64;
  const auto bins = frame.bytes(kDumlHeaderSize, kBins);
  std::copy(bins.begin(), bins.end(), display.histogram.begin());
  display.histogram_ms.store_release(now_ms());
  std::array<std::uint8_t, 1 + kBins> message{type_of(Message::histogram)};
  std::copy(bins.begin(), bins.end(), message.begin() + 1);
  broadcast(message, FrameKind::data);
}

// --- Camera settings ---------------------------------------------------------------------------

/// The exposure time as the display shows it: seconds (8", 1.3") or a fraction of one (1/500 ).
/// A code that is neither keeps the text as it is.
void show_shutter(const FrameView& frame, DisplayRegion& display) {
  const bool fraction = frame.bit(52, 7) != 0;
  if (!fraction && frame.u8(52) != 0) return;
  const std::int32_t tenths = frame.u8(53);
  std::array<char, 24> buffer;
  TextBuilder text(buffer);
  if (fraction) text.add("1/");
  text.add(frame.u16(51) & 0x7FFF);
  if (tenths != 0) text.add(".").add(tenths);
  text.add(fraction ? " " : "\"");
  display.shutter_text.assign(text.view());
}

void store_camera_settings(const FrameView& frame, DisplayRegion& display) {
  const Resolution resolution = value_of(kResolutions, frame.u8(24));
  display.resolution = frame.u8(24);
  display.resolution_text.assign(resolution.label);
  display.resolution_width = resolution.width;
  display.resolution_height = resolution.height;
  display.frame_rate_code = frame.u8(25);
  display.frame_rate = value_of(kFrameRates, frame.u8(25));
  display.white_balance = frame.u8(34);
  display.white_balance_text.assign(value_of(kWhiteBalances, frame.u8(34)));
  display.colour_temperature = static_cast<std::uint16_t>(frame.u8(35) * 100);
  display.photo_format = frame.u8(23);
  display.photo_format_text.assign(value_of(kPhotoFormatNames, frame.u8(23)));
  display.aperture = frame.u16(49) * 0.01;
  display.settings_728 = frame.u16(54);
  display.iso_code = frame.u8(16);
  display.iso = value_of(kIsoValues, frame.u8(16));
  display.settings_789 = frame.u8(67);
  display.ev_code = frame.u8(17);
  display.ev = value_of(kEvSteps, frame.u8(17));
  display.colour = frame.u8(42);
  display.colour_text.assign(value_of(kColours, frame.u8(42)));
  display.exposure_mode = frame.u8(31);
  display.exposure_mode_text.assign(value_of(kExposureModeNames, frame.u8(31)));
  display.settings_736 = frame.u24(13);
  display.shutter_code = frame.u24(51);
  show_shutter(frame, display);
  display.settings_790 = frame.u8(21);
  display.settings_791 = frame.u8(43);
}

void send_camera_settings(const FrameView& frame) {
  const double ev = value_of(kEvSteps, frame.u8(17));
  const std::array<std::uint8_t, 31> message{
      type_of(Message::camera_settings),
      frame.u8(31),  // exposure mode
      frame.u8(21),
      0,
      frame.u8(42),  // colour
      static_cast<std::uint8_t>(to_integer<std::int32_t>(ev * 10.0)),
      frame.u8(34),  // white balance
      frame.u8(24),  // resolution
      frame.u8(25),  // frame rate
      frame.u8(35),  // colour temperature, hundreds of kelvin
      frame.u8(54),
      frame.u8(55),
      frame.u8(13),
      frame.u8(14),
      frame.u8(15),
      frame.u8(67),
      frame.u8(16),  // ISO
      frame.u8(49),  // aperture, hundredths
      frame.u8(50),
      0,
      frame.u8(43),
      frame.u8(51),  // shutter
      frame.u8(52),
      frame.u8(53),
      frame.u8(23),  // photo format
  };
  broadcast(message, FrameKind::data);
}

void decode_camera_settings(const FrameView& frame, DisplayRegion& display) {
  store_camera_settings(frame, display);
  send_camera_settings(frame);
}

// --- The kinds ---------------------------------------------------------------------------------

struct Kind {
  std::uint8_t length;
  std::uint8_t command_set;  ///< kAnySet: not looked at
  void (*decode)(const FrameView&, DisplayRegion&);
};

constexpr std::uint8_t kAnySet = 0xFF;

constexpr std::array<Kind, 11> kKinds{{
    // clang-format off
    { 17, 4,       decode_report_17},
    { 30, kAnySet, decode_report_30},
    { 36, kAnySet, decode_tracking},
    { 53, 4,       decode_gimbal},
    { 53, 5,       decode_recording_timer},
    { 57, 4,       decode_gimbal},
    { 57, 5,       decode_recording_timer},
    { 58, kAnySet, decode_lens},
    { 62, kAnySet, decode_camera_status},
    { 77, kAnySet, decode_histogram},
    {107, kAnySet, decode_camera_settings},
    // clang-format on
}};

constexpr std::size_t kCommandSetOffset = 9;

bool is_intact(std::span<const std::uint8_t> frame) {
  const std::size_t checked = frame.size() - 2;
  return duml_crc16(frame.first(checked)) == load_le<std::uint16_t>(frame, checked);
}

}  // namespace

void decode_camera_frame(std::span<const std::uint8_t> frame) noexcept {
  DisplayRegion* const display = display_region();
  if (display == nullptr) return;
  for (const Kind& kind : kKinds) {
    if (kind.length != frame.size()) continue;
    if (kind.command_set != kAnySet && kind.command_set != frame[kCommandSetOffset]) continue;
    kind.decode(FrameView(frame), *display);
  }
}

void scan_camera_datagram(std::span<const std::uint8_t> bytes) noexcept {
  constexpr std::size_t kShortestFrame = 10;
  std::size_t at = 0;
  while (at < bytes.size()) {
    if (bytes[at] != kDumlStart) {
      ++at;
      continue;
    }
    // A frame is taken only if at least one byte follows it, and its length byte likewise.
    if (at + 2 >= bytes.size()) return;
    const std::size_t length = bytes[at + 1];
    if (at + length >= bytes.size()) return;
    if (length >= kShortestFrame) {
      const auto frame = bytes.subspan(at, length);
      if (is_intact(frame)) decode_camera_frame(frame);
    }
    // Also over a damaged frame. A length of 0 says nothing; the next byte may be a frame's start.
    at += std::max<std::size_t>(length, 1);
  }
}

}  // namespace nimbus
