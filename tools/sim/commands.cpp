#include "tools/sim/commands.h"

#include <algorithm>
#include <bit>

#include "base/wire.h"
#include "tools/sim/text.h"

namespace nimbus::sim {
namespace {

std::string unknown(unsigned code) { return format_text("unknown code %u", code); }

// --- Arguments in words --------------------------------------------------------------------------

template <const auto& table, std::size_t at = 0>
std::string word(Bytes payload) {
  const auto* const row = find_code(table, payload[at]);
  return row == nullptr ? unknown(payload[at]) : std::string(row->value);
}

std::string on_or_off(Bytes payload) { return payload.back() != 0 ? "on" : "off"; }
std::string start_or_stop(Bytes payload) { return payload[0] != 0 ? "start" : "stop"; }
std::string number(Bytes payload) { return std::to_string(payload[0]); }

double real(Bytes payload, std::size_t at) {
  return double{std::bit_cast<float>(load_le<std::uint32_t>(payload, at))};
}

double thousandths(Bytes payload, std::size_t at) {
  return load_le<std::int16_t>(payload, at) / 1000.0;
}

std::string speed(Bytes payload) {
  // Roll stands before tilt on the wire.
  return format_text("pan %.3f, tilt %.3f, roll %.3f", thousandths(payload, 0),
                     thousandths(payload, 4), thousandths(payload, 2));
}

std::string step_1(Bytes /*unused*/) { return "step 1"; }
std::string step_2(Bytes /*unused*/) { return "step 2"; }
std::string step_3(Bytes /*unused*/) { return "step 3"; }

std::string video_format(Bytes payload) {
  const auto* const size = find_code(kResolutions, payload[0]);
  const auto* const rate = find_code(kFrameRates, payload[1]);
  const std::string picture =
      size == nullptr ? unknown(payload[0])
                      : format_text("%ux%u", unsigned{size->value.width}, size->value.height);
  return picture + ", " +
         (rate == nullptr ? unknown(payload[1])
                          : format_text("%u frames/s", unsigned{rate->value}));
}

std::string f_number(Bytes payload) {
  return format_text("f/%.2f", load_le<std::int16_t>(payload, 0) / 100.0);
}

std::string shutter(Bytes payload) {
  const ShutterCode code{payload[1], payload[2], payload[3]};
  if (!is_shutter_code(code)) return "unknown code " + hexadecimal(payload.subspan(1));
  constexpr unsigned kFractionOfASecond = 0x8000;
  const unsigned whole = load_le<std::uint16_t>(payload, 1);
  std::string text = (whole & kFractionOfASecond) != 0 ? "1/" : "";
  text += std::to_string(whole & ~kFractionOfASecond);
  if (code[2] != 0) text += "." + std::to_string(code[2]);
  return text + " s";
}

std::string iso(Bytes payload) {
  const auto* const row = find_code(kIsoValues, payload[0]);
  if (row == nullptr) return unknown(payload[0]);
  return row->value == 0 ? "auto" : std::to_string(row->value);
}

std::string ev(Bytes payload) {
  const auto* const row = find_code(kEvSteps, payload[0]);
  return row == nullptr ? unknown(payload[0]) : format_text("%+.1f", row->value);
}

std::string white_balance(Bytes payload) {
  return word<kWhiteBalances>(payload) + format_text(", %u K", payload[1] * 100U);
}

std::string point(Bytes payload) {
  return format_text("x %.4f, y %.4f", real(payload, 0), real(payload, 4));
}

std::string tracking(Bytes payload) {
  if (payload[0] == 0) return "stop";
  return format_text("start at x %.4f, y %.4f, width %.4f, height %.4f", real(payload, 5),
                     real(payload, 9), real(payload, 13), real(payload, 17));
}

// --- The table -----------------------------------------------------------------------------------

constexpr int any = CommandName::any;
using Kind = CommandKind;

constexpr std::array<CommandName, 32> kCommands{{
    // clang-format off
    //                   receiver, set, id, size, and the byte to tell it by
    {Kind::gimbal_speed,     4, 4, 0x0C,  7, 0, any,  "gimbal speed", speed},
    {Kind::gimbal_position,  4, 4, 0x4C,  2, 0, 0xFE, "gimbal position", word<kGimbalPositions, 1>},
    {Kind::gimbal_mode,      4, 4, 0x4C,  2, 0, any,  "gimbal mode", word<kGimbalModes>},
    {Kind::gimbal_tilt_lock, 4, 4, 0x50,  4, 1, 4,    "gimbal tilt lock", on_or_off},
    {Kind::gimbal_follow,    4, 4, 0x50,  4, 1, 5,    "gimbal follow", word<kFollowSpeeds, 3>},
    {Kind::gimbal_calibrate, 4, 4, 0x07,  1, 0, any,  "gimbal calibration", step_1},
    {Kind::gimbal_calibrate, 4, 4, 0x01,  8, 0, any,  "gimbal calibration", step_2},
    {Kind::gimbal_calibrate, 4, 4, 0x08,  0, 0, any,  "gimbal calibration", step_3},
    {Kind::shot,             1, 2, 0x01,  1, 0, any,  "shot", nullptr},
    {Kind::record,           1, 2, 0x02,  1, 0, any,  "record", start_or_stop},
    {Kind::camera_mode,      1, 2, 0x10,  1, 0, any,  "camera mode", word<kCameraModeNames>},
    {Kind::aspect_ratio,     1, 2, 0x12,  2, 0, any,  "aspect ratio", word<kAspectRatios, 1>},
    {Kind::photo_format,     1, 2, 0x16,  1, 0, any,  "photo format", word<kPhotoFormatNames>},
    {Kind::video_format,     1, 2, 0x18,  5, 0, any,  "video format", video_format},
    {Kind::exposure_mode,    1, 2, 0x1E,  2, 0, any,  "exposure mode", word<kExposureModeNames>},
    {Kind::exposure_centre,  1, 2, 0x22,  1, 0, any,  "exposure at the centre", nullptr},
    {Kind::focus_type,       1, 2, 0x24,  1, 0, any,  "focus type", word<kFocusTypes>},
    {Kind::aperture,         1, 2, 0x26,  2, 0, any,  "aperture", f_number},
    {Kind::shutter,          1, 2, 0x28,  4, 0, any,  "shutter", shutter},
    {Kind::iso,              1, 2, 0x2A,  1, 0, any,  "ISO", iso},
    {Kind::white_balance,    1, 2, 0x2C,  2, 0, any,  "white balance", white_balance},
    {Kind::ev,               1, 2, 0x2E,  1, 0, any,  "EV", ev},
    {Kind::focus_point,      1, 2, 0x30,  8, 0, any,  "focus point", point},
    {Kind::exposure_point,   1, 2, 0x32,  1, 0, any,  "exposure point", number},
    {Kind::colour,           1, 2, 0x42,  1, 0, any,  "colour", word<kColours>},
    {Kind::anti_flicker,     1, 2, 0x46,  1, 0, any,  "anti-flicker", word<kAntiFlickers>},
    {Kind::histogram,        1, 2, 0x60,  1, 0, any,  "histogram", on_or_off},
    {Kind::ae_lock,          1, 2, 0x68,  1, 0, any,  "exposure lock", on_or_off},
    {Kind::format_card,      1, 2, 0x72,  0, 0, any,  "format card", nullptr},
    {Kind::reset,            1, 2, 0x78,  1, 0, any,  "reset", nullptr},
    {Kind::tracking,         1, 2, 0xA6, 21, 0, any,  "tracking", tracking},
    {Kind::video_format,     1, 2, 0xAF,  2, 0, any,  "video format", video_format},
    // clang-format on
}};

bool is(const CommandName& command, const Frame& frame) {
  return command.receiver == frame.receiver && command.set == frame.set && command.id == frame.id &&
         command.payload_size == frame.payload.size() &&
         (command.byte == any || command.byte == frame.payload[command.at]);
}

}  // namespace

const CommandName* find_command(const Frame& frame) {
  const auto* const found =
      std::find_if(kCommands.begin(), kCommands.end(),
                   [&frame](const CommandName& command) { return is(command, frame); });
  return found == kCommands.end() ? nullptr : found;
}

std::string describe(const CommandName& command, Bytes payload) {
  std::string text(command.name);
  if (command.arguments != nullptr) text += ": " + command.arguments(payload);
  return text;
}

bool is_shutter_code(const ShutterCode& code) {
  return std::any_of(kShutterTexts.begin(), kShutterTexts.end(),
                     [&code](std::string_view text) { return shutter_code(text) == code; });
}

}  // namespace nimbus::sim
