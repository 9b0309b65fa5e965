#include "camera/camera.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "base/log.h"
#include "base/number.h"
#include "base/word_table.h"
#include "camera/codes.h"
#include "camera/duml.h"
#include "camera/words.h"

namespace nimbus {
namespace {

constexpr DumlCommand camera(std::uint8_t id) { return {.set = CommandSet::camera, .id = id}; }

// clang-format off
constexpr DumlTemplate<1>  kShot(camera(0x01), {0x01});
constexpr DumlTemplate<1>  kRecord(camera(0x02));
// The camera takes a change of its mode from another sender only.
constexpr DumlTemplate<1>  kMode({.set = CommandSet::camera, .id = 0x10, .sender = 0x09});
constexpr DumlTemplate<2>  kAspectRatio(camera(0x12));
constexpr DumlTemplate<1>  kShotMode(camera(0x16));
constexpr DumlTemplate<5>  kVideoFormat(camera(0x18));
constexpr DumlTemplate<2>  kExposureMode(camera(0x1E));
constexpr DumlTemplate<1>  kExposureCentre(camera(0x22));
constexpr DumlTemplate<1>  kFocusType(camera(0x24));
constexpr DumlTemplate<2>  kAperture(camera(0x26));
constexpr DumlTemplate<4>  kShutter(camera(0x28));
constexpr DumlTemplate<1>  kIso(camera(0x2A));
constexpr DumlTemplate<2>  kWhiteBalance(camera(0x2C));
constexpr DumlTemplate<1>  kEv(camera(0x2E));
constexpr DumlTemplate<8>  kFocusPoint(camera(0x30));
constexpr DumlTemplate<1>  kExposurePoint(camera(0x32));
constexpr DumlTemplate<1>  kColour(camera(0x42));
constexpr DumlTemplate<1>  kAntiFlicker(camera(0x46));
constexpr DumlTemplate<1>  kHistogram(camera(0x60));
constexpr DumlTemplate<1>  kAeLock(camera(0x68));
constexpr DumlTemplate<0>  kFormatCard(camera(0x72));
constexpr DumlTemplate<1>  kReset(camera(0x78));
constexpr DumlTemplate<2>  kVideoFormatAgain(camera(0xAF));
// clang-format on

/// The camera reports slower ISO values, but takes none below this.
constexpr int kLowestIso = 100;

constexpr useconds_t kFocusTypeSettlesUs = 20'000;

constexpr std::string_view kCustomWhiteBalance = "custom";

std::uint8_t low_byte(std::int32_t value) { return static_cast<std::uint8_t>(value); }

std::int32_t set_custom_white_balance(const char* temperature) {
  if (temperature == nullptr) return -1;
  log_text("Camera set WB temperature %s\n", temperature);
  // In 64 bits: the smallest 32-bit number less 2000 is still a number. The division truncates, so
  // that 1901 to 1999 K count as 2000.
  const std::int64_t hundreds = (std::int64_t{parse_i32(temperature)} - 2000) / 100;
  if (hundreds < 0) return -1;
  return send_frame(kWhiteBalance, {code_of(kWhiteBalances, kCustomWhiteBalance, 0),
                                    static_cast<std::uint8_t>(hundreds + 20)});
}

}  // namespace

std::int32_t camera_record(int start) noexcept {
  log_text(start != 0 ? "Record start\n" : "Record stop\n");
  return send_frame(kRecord, {start != 0 ? std::uint8_t{1} : std::uint8_t{0}});
}

std::int32_t camera_shot() noexcept {
  log_text("Camera shot\n");
  return send_frame(kShot);
}

std::int32_t camera_set_mode(int mode) noexcept {
  if (mode != kPhotoMode && mode != kVideoMode) return -1;
  log_text("Camera set mode %s\n", mode == kPhotoMode ? "photo" : "video");
  return send_frame(kMode, {low_byte(mode)});
}

std::int32_t camera_reset() noexcept { return send_frame(kReset); }

std::int32_t camera_format_card() noexcept {
  log_text("Format microSD card\n");
  return send_frame(kFormatCard);
}

std::int32_t camera_set_ev(double value) noexcept {
  constexpr std::uint8_t kUnknown = 0;
  const std::uint8_t code = code_of(kEvSteps, value, kUnknown);
  if (code == kUnknown) return -1;
  return send_frame(kEv, {code});
}

std::int32_t camera_set_iso(int iso) noexcept {
  log_text("Camera set iso %d\n", iso);
  return send_frame(kIso, {iso < kLowestIso ? std::uint8_t{0} : code_of(kIsoValues, iso, 0)});
}

std::int32_t camera_set_shutter(const char* text) noexcept {
  log_text("Camera set shutter %s\n", text);
  const ShutterCode code = shutter_code(text);
  return send_frame(kShutter, {0x01, code[0], code[1], code[2]});
}

std::int32_t camera_set_aperture(double f_number) noexcept {
  log_text("Camera set aperture %1.2f\n", f_number);
  // f-numbers come in single precision, and the float nearest to a decimal number may lie below it:
  // taken one step further from zero, 2.8 is 280 hundredths and not 279. No f-number is so large
  // that the step reaches the next hundredth.
  const auto single = static_cast<float>(f_number);
  const double hundredths =
      double{std::nextafter(single, std::copysign(HUGE_VALF, single))} * 100.0;
  DumlPayload<2> payload;
  store_le(payload, 0, static_cast<std::int16_t>(to_integer<std::int32_t>(hundredths)));
  return send_frame(kAperture, payload);
}

std::int32_t camera_set_exposure_mode(const char* mode) noexcept {
  // It has always said "video mode", and log readers know it so.
  log_text("Camera set video mode %s\n", mode);
  const auto* const code = find_word(kExposureModes, mode);
  return code == nullptr ? -1 : send_frame(kExposureMode, {*code, 0x00});
}

std::int32_t camera_set_ae_lock(int lock) noexcept {
  log_text("Camera set auto exposure lock to %d\n", lock);
  return send_frame(kAeLock, {low_byte(lock)});
}

std::int32_t camera_set_exposure_centre() noexcept {
  log_text("Camera set exposure to center\n");
  return send_frame(kExposureCentre);
}

std::int32_t camera_set_exposure_point(int point) noexcept {
  log_text("Camera set exposure point %d\n", point);
  return send_frame(kExposurePoint, {low_byte(point)});
}

std::int32_t camera_set_white_balance(const char* name, const char* temperature) noexcept {
  log_text("Camera set WB %s\n", name);
  if (name == kCustomWhiteBalance) return set_custom_white_balance(temperature);
  const auto* const found = find_word(kWhiteBalanceWords, name);
  return found == nullptr ? -1 : send_frame(kWhiteBalance, {found->code, found->tint});
}

std::int32_t camera_set_colour(const char* profile) noexcept {
  log_text("set color %s\n", profile);
  return send_frame(kColour, {code_of(kColours, std::string_view(profile), 0)});
}

std::int32_t camera_set_histogram(int enable) noexcept {
  log_text("Camera histogram %s\n", enable != 0 ? "enable" : "disable");
  return send_frame(kHistogram, {low_byte(enable)});
}

std::int32_t camera_set_video_resolution(int width, int height, int fps) noexcept {
  log_text("Camera set video resolution %dx%d@%d\n", width, height, fps);
  const auto* const found = std::find_if(
      kResolutions.begin(), kResolutions.end(),
      [&](const auto& row) { return row.value.width == width && row.value.height == height; });
  const std::uint8_t resolution = found == kResolutions.end() ? 0 : found->code;
  const std::uint8_t frame_rate = code_of(kFrameRates, fps, 0);
  send_frame(kVideoFormat, {resolution, frame_rate});
  return send_frame(kVideoFormatAgain, {resolution, frame_rate});
}

std::int32_t camera_set_aspect_ratio(const char* ratio) noexcept {
  log_text("Camera set image aspect ratio %s\n", ratio);
  const auto* const code = find_word(kAspectRatios, ratio);
  return code == nullptr ? -1 : send_frame(kAspectRatio, {0x00, *code});
}

std::int32_t camera_set_anti_flicker(const char* text) noexcept {
  log_text("Camera set anti-flicker %s\n", text);
  const auto* const code = find_word(kAntiFlickers, text);
  return send_frame(kAntiFlicker, {code == nullptr ? std::uint8_t{0} : *code});
}

std::int32_t camera_set_shot_mode(const char* mode) noexcept {
  log_text("Camera set shot mode %s\n", mode);
  const auto* const code = find_word(kShotModes, mode);
  return code == nullptr ? -1 : send_frame(kShotMode, {*code});
}

std::int32_t camera_set_focus_type(const char* type) noexcept {
  log_text("Camera set focus type %s\n", type);
  const auto* const code = find_word(kFocusTypes, type);
  return code == nullptr ? -1 : send_frame(kFocusType, {*code});
}

std::int32_t camera_set_focus_point(float x, float y) noexcept {
  camera_set_focus_type("afs");
  usleep(kFocusTypeSettlesUs);
  log_text("Camera set focus point %f,%f\n", double{x}, double{y});
  DumlPayload<8> payload;
  store_le(payload, 0, x);
  store_le(payload, 4, y);
  return send_frame(kFocusPoint, payload);
}

}  // namespace nimbus
