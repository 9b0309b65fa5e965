// A datagram from the bridge is a piece of the camera's byte stream: frames, with anything between
// them. Every datagram is scanned alone, to its end. A frame's kind is told by its length and, for
// some, its command set. Nothing in it is trusted but the checksum: codes may be outside every
// table, numbers may be NaN.
#include "control/telemetry.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "base/clock.h"
#include "base/log.h"
#include "base/number.h"
#include "base/text_builder.h"
#include "base/wire.h"
#include "camera/codes.h"
#include "camera/duml.h"
#include "camera/gimbal.h"
#include "camera/reports.h"
#include "display/region.h"
#include "net/viewers.h"

namespace nimbus {
namespace {

/// The values are cut to their low 16 bits.
void send_triple(ToViewer message, std::int32_t a, std::int32_t b, std::int32_t c) {
  nimbus::send_triple(message, {static_cast<std::int16_t>(a), static_cast<std::int16_t>(b),
                                static_cast<std::int16_t>(c)});
}

// --- Small reports -----------------------------------------------------------------------------

void decode_flag(ByteView frame, DisplayRegion& display) {
  display.status_631 = frame[FlagReport::status_631];
}

void decode_state(ByteView frame, DisplayRegion& display) {
  display.status_629 = frame[StateReport::status_629] == 0 ? 1 : 0;
  display.status_630 = frame[StateReport::status_630];
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

/// What lies outside of the picture is at its edge.
std::uint16_t part_of_picture(float part) {
  return to_integer<std::uint16_t>(double{part} * 65535.0);
}

void decode_tracking(ByteView frame, DisplayRegion& display) {
  using Report = TrackingReport;
  const bool on = frame[Report::on_1] != 0 && frame[Report::on_2] != 0;
  const float x = frame[Report::x];
  const float y = frame[Report::y];
  const float width = frame[Report::width];
  const float height = frame[Report::height];
  const std::uint32_t now = now_ms();
  display.tracking_on = on ? 1 : 0;
  display.tracking_ms.store_release(now);
  display.tracking_x = x;
  display.tracking_y = y;
  display.tracking_width = width;
  display.tracking_height = height;
  if (on) {
    tracking_restore.seen(now, x, y);
  } else {
    tracking_restore.lost(now);
  }
  using Message = TrackingMessage;
  std::array<std::uint8_t, Message::kSize> message{type_of(ToViewer::tracking)};
  put(message, Message::on, on ? 1 : 0);
  put(message, Message::x, part_of_picture(x));
  put(message, Message::y, part_of_picture(y));
  put(message, Message::width, part_of_picture(width));
  put(message, Message::height, part_of_picture(height));
  broadcast(message, FrameKind::data);
}

// --- Gimbal ------------------------------------------------------------------------------------

void decode_gimbal(ByteView frame, DisplayRegion& display) {
  using Report = GimbalReport;
  const auto degrees = [](std::int16_t tenths) { return static_cast<std::int16_t>(tenths / 10); };
  const std::int16_t angle_1 = degrees(frame[Report::angle_1]);
  const std::int16_t angle_2 = degrees(frame[Report::angle_2]);
  const std::int16_t angle_3 = degrees(frame[Report::angle_3]);
  display.gimbal_angle_1 = angle_1;
  display.gimbal_angle_2 = angle_2;
  display.gimbal_angle_3 = angle_3;
  display.gimbal_flag = frame[Report::flag] == 0 ? 1 : 0;
  send_triple(ToViewer::gimbal_attitude, angle_1 * 100, angle_2 * 100, angle_3 * 100);
  send_triple(ToViewer::gimbal_angles, angle_1, angle_2, angle_3);
  send_triple(ToViewer::orientation, display.orientation_lock, 0, 0);
}

// --- Recording timer ---------------------------------------------------------------------------

void decode_recording_timer(ByteView frame, DisplayRegion& display) {
  const std::uint8_t state = frame[RecordingReport::state];
  const bool reset = frame[RecordingReport::reset] != 0;
  display.recording_state = state;
  display.recording_reset = reset ? 1 : 0;
  if (reset) {
    display.reset_timer();
    send_triple(ToViewer::recording_timer, state, 1, 0);
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
  send_triple(ToViewer::recording_timer, state, 0,
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

void decode_lens(ByteView frame, DisplayRegion& display) {
  using Report = LensReport;
  const std::uint8_t mode = focus_mode_of(frame[Report::state]);
  const std::int32_t ratio = zoom_ratio(frame[Report::zoom_now], frame[Report::zoom_base]);
  const auto zoom = to_integer<std::int32_t>(std::round(double{frame[Report::zoom_value]} * 100.0));
  const double focus_1 = frame[Report::focus_1];
  const double focus_2 = frame[Report::focus_2];
  const std::uint8_t flag = frame[Report::flag];
  display.lens_bit_2 = frame[Report::bit_2];
  display.zoom_ratio = static_cast<std::uint8_t>(ratio);
  display.lens_bit_0 = frame[Report::bit_0];
  display.focus_mode = mode;
  display.zoom_value = zoom * 0.01;
  display.focus_value_1 = focus_1;
  display.focus_value_2 = focus_2;
  display.lens_flag = flag;
  display.lens_known = 1;
  send_status(ToViewer::lens_flag, {flag});
  send_triple(ToViewer::zoom, mode, ratio, zoom);
  send_triple(ToViewer::focus_values, to_integer<std::int32_t>(focus_1 * 10000.0),
              to_integer<std::int32_t>(focus_2 * 10000.0), frame[Report::focus_3]);
}

// --- Camera status -----------------------------------------------------------------------------

void show_camera_status(ByteView frame, DisplayRegion& display) {
  using Report = StatusReport;
  const std::uint8_t mode = frame[Report::camera_mode];
  display.status_792 = frame[Report::status_792];
  display.status_793 = frame[Report::status_793];
  display.status_794 = frame[Report::status_794];
  display.camera_mode = mode;
  display.camera_mode_text.assign(value_of(kCameraModeNames, mode));
  display.status_796 = frame[Report::status_796];
  display.status_800 = frame[Report::status_800];
  display.status_804 = frame[Report::status_804];
  display.status_808 = frame[Report::status_808];
}

void send_camera_status(ByteView frame) {
  using Report = StatusReport;
  using Message = CameraStatusMessage;
  std::array<std::uint8_t, Message::kSize> message{type_of(ToViewer::camera_status)};
  put(message, Message::camera_mode, frame[Report::camera_mode]);
  put(message, Message::status_792, frame[Report::status_792]);
  put(message, Message::status_796, frame[Report::status_796]);
  put(message, Message::status_800, frame[Report::status_800]);
  put(message, Message::status_804, frame[Report::status_804]);
  put(message, Message::status_808, frame[Report::status_808]);
  put(message, Message::status_793, frame[Report::status_793]);
  put(message, Message::status_794, frame[Report::status_794]);
  put(message, Message::last_byte, frame[Report::last_byte]);
  broadcast(message, FrameKind::data);
}

void decode_camera_status(ByteView frame, DisplayRegion& display) {
  show_camera_status(frame, display);
  send_camera_status(frame);
}

// --- Histogram ---------------------------------------------------------------------------------

void decode_histogram(ByteView frame, DisplayRegion& display) {
  using Message = HistogramMessage;
  const auto bins = frame[HistogramReport::bins];
  std::copy(bins.begin(), bins.end(), display.histogram.begin());
  display.histogram_ms.store_release(now_ms());
  std::array<std::uint8_t, Message::kSize> message{type_of(ToViewer::histogram)};
  std::copy(bins.begin(), bins.end(), bytes_of(message, Message::bins).begin());
  broadcast(message, FrameKind::data);
}

// --- Camera settings ---------------------------------------------------------------------------

/// The exposure time as the display shows it: seconds (8", 1.3") or a fraction of one (1/500 ).
/// A code that is neither keeps the text as it is.
void show_shutter(ShutterTime time, DisplayRegion& display) {
  if (!time.known()) return;
  std::array<char, 24> buffer;
  TextBuilder text(buffer);
  if (time.fraction) text.add("1/");
  text.add(time.whole);
  if (time.decimals != 0) text.add(".").add(time.decimals);
  text.add(time.fraction ? " " : "\"");
  display.shutter_text.assign(text.view());
}

void show_camera_settings(ByteView frame, DisplayRegion& display) {
  using Report = SettingsReport;
  const Resolution resolution = value_of(kResolutions, frame[Report::resolution]);
  display.resolution = frame[Report::resolution];
  display.resolution_text.assign(resolution.label);
  display.resolution_width = resolution.width;
  display.resolution_height = resolution.height;
  display.frame_rate_code = frame[Report::frame_rate];
  display.frame_rate = value_of(kFrameRates, frame[Report::frame_rate]);
  display.white_balance = frame[Report::white_balance];
  display.white_balance_text.assign(value_of(kWhiteBalances, frame[Report::white_balance]));
  display.colour_temperature = static_cast<std::uint16_t>(frame[Report::colour_temperature] * 100);
  display.photo_format = frame[Report::photo_format];
  display.photo_format_text.assign(value_of(kPhotoFormatNames, frame[Report::photo_format]));
  display.aperture = frame[Report::aperture] * 0.01;
  display.settings_728 = frame[Report::settings_728];
  display.iso_code = frame[Report::iso];
  display.iso = value_of(kIsoValues, frame[Report::iso]);
  display.settings_789 = frame[Report::settings_789];
  display.ev_code = frame[Report::ev];
  display.ev = value_of(kEvSteps, frame[Report::ev]);
  display.colour = frame[Report::colour];
  display.colour_text.assign(value_of(kColours, frame[Report::colour]));
  display.exposure_mode = frame[Report::exposure_mode];
  display.exposure_mode_text.assign(value_of(kExposureModeNames, frame[Report::exposure_mode]));
  display.settings_736 = frame[Report::settings_736];
  display.shutter_code = frame[Report::shutter];
  show_shutter(shutter_time(frame[Report::shutter]), display);
  display.settings_790 = frame[Report::settings_790];
  display.settings_791 = frame[Report::settings_791];
}

void send_camera_settings(ByteView frame) {
  using Report = SettingsReport;
  using Message = CameraSettingsMessage;
  const double ev = value_of(kEvSteps, frame[Report::ev]);
  std::array<std::uint8_t, Message::kSize> message{type_of(ToViewer::camera_settings)};
  put(message, Message::exposure_mode, frame[Report::exposure_mode]);
  put(message, Message::settings_790, frame[Report::settings_790]);
  put(message, Message::colour, frame[Report::colour]);
  put(message, Message::ev, to_integer<std::int8_t>(ev * 10.0));
  put(message, Message::white_balance, frame[Report::white_balance]);
  put(message, Message::resolution, frame[Report::resolution]);
  put(message, Message::frame_rate, frame[Report::frame_rate]);
  put(message, Message::colour_temperature, frame[Report::colour_temperature]);
  put(message, Message::settings_728, frame[Report::settings_728]);
  put(message, Message::settings_736, frame[Report::settings_736]);
  put(message, Message::settings_789, frame[Report::settings_789]);
  put(message, Message::iso, frame[Report::iso]);
  put(message, Message::aperture, frame[Report::aperture]);
  put(message, Message::settings_791, frame[Report::settings_791]);
  put(message, Message::shutter, frame[Report::shutter]);
  put(message, Message::photo_format, frame[Report::photo_format]);
  broadcast(message, FrameKind::data);
}

void decode_camera_settings(ByteView frame, DisplayRegion& display) {
  show_camera_settings(frame, display);
  send_camera_settings(frame);
}

// --- The kinds ---------------------------------------------------------------------------------

struct Decoder {
  std::uint8_t length;
  std::uint8_t command_set;
  void (*decode)(ByteView, DisplayRegion&);
};

template <typename Report>
constexpr Decoder decoder(void (*decode)(ByteView, DisplayRegion&),
                          std::uint8_t length = Report::kLength) {
  return {length, Report::kSet, decode};
}

constexpr std::array<Decoder, kReportKinds.size()> kDecoders{{
    decoder<FlagReport>(decode_flag),
    decoder<StateReport>(decode_state),
    decoder<TrackingReport>(decode_tracking),
    decoder<GimbalReport>(decode_gimbal),
    decoder<RecordingReport>(decode_recording_timer),
    decoder<GimbalReport>(decode_gimbal, GimbalReport::kLongLength),
    decoder<RecordingReport>(decode_recording_timer, RecordingReport::kLongLength),
    decoder<LensReport>(decode_lens),
    decoder<StatusReport>(decode_camera_status),
    decoder<HistogramReport>(decode_histogram),
    decoder<SettingsReport>(decode_camera_settings),
}};

bool is_intact(std::span<const std::uint8_t> frame) {
  const std::size_t checked = frame.size() - 2;
  return duml_crc16(frame.first(checked)) == load_le<std::uint16_t>(frame, checked);
}

}  // namespace

void decode_camera_frame(std::span<const std::uint8_t> frame) noexcept {
  DisplayRegion* const display = display_region();
  if (display == nullptr) return;
  const ByteView view(frame);
  for (const Decoder& kind : kDecoders) {
    if (kind.length != frame.size()) continue;
    if (kind.command_set != kAnySet && kind.command_set != view[DumlHeader::set]) continue;
    kind.decode(view, *display);
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
