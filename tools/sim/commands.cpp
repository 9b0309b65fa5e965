#include "tools/sim/commands.h"

#include <algorithm>
#include <array>

#include "base/wire.h"
#include "camera/words.h"
#include "tools/common/text.h"
#include "tools/sim/camera_model.h"

namespace nimbus::sim {
namespace {

using tools::format_text;
using tools::hexadecimal;

std::string unknown(unsigned code) { return format_text("unknown code %u", code); }

// --- Codes -------------------------------------------------------------------------------------
// Those that only commands carry; the others stand in camera/codes.h.

/// The words of a command as names of its codes.
template <std::size_t count>
constexpr std::array<Code<std::string_view>, count> by_code(
    const std::array<Word<std::uint8_t>, count>& words) {
  std::array<Code<std::string_view>, count> codes{};
  for (std::size_t i = 0; i < count; ++i) codes[i] = {words[i].word, words[i].value};
  return codes;
}

constexpr std::array<Code<std::string_view>, 2> kGimbalModes{{{"fpv", 1}, {"follow", 2}}};
constexpr std::array<Code<std::string_view>, 2> kGimbalPositions{{
    {"centre", 0x08},
    {"next", 0x09},
}};
constexpr auto kFollowSpeeds = by_code(nimbus::kFollowSpeeds);
constexpr auto kAspectRatios = by_code(nimbus::kAspectRatios);
constexpr auto kFocusTypes = by_code(nimbus::kFocusTypes);
constexpr std::array<Code<std::string_view>, 3> kAntiFlickers{{
    {"off", 0},
    {"50 Hz", 1},
    {"60 Hz", 2},
}};

/// The row of that code, or null. The table is any range of Code.
template <typename Table>
constexpr auto find_code(const Table& table, unsigned code) {
  const auto found = std::find_if(std::begin(table), std::end(table),
                                  [code](const auto& row) { return row.code == code; });
  return found == std::end(table) ? nullptr : &*found;
}

// --- Arguments in words ------------------------------------------------------------------------

template <const auto& table, std::size_t at = 0>
std::string word(Bytes payload) {
  const auto* const row = find_code(table, payload[at]);
  return row == nullptr ? unknown(payload[at]) : std::string(row->value);
}

std::string on_or_off(Bytes payload) { return payload.back() != 0 ? "on" : "off"; }
std::string start_or_stop(Bytes payload) { return payload[0] != 0 ? "start" : "stop"; }
std::string number(Bytes payload) { return std::to_string(payload[0]); }

double real(Bytes payload, std::size_t at) { return double{load_le<float>(payload, at)}; }

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
  return tools::exposure_text(shutter_time(load_le<std::uint32_t, 3>(payload, 1)));
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

// --- What they do ------------------------------------------------------------------------------

constexpr std::string_view kUnknownCode = "no such code";

/// Does one thing that cannot fail.
template <void (*act)(CameraModel&)>
std::string_view done(CameraModel& camera, Bytes /*unused*/) {
  act(camera);
  return {};
}

/// Takes a code that stands in the table.
template <typename Table>
std::string_view take_code(const Table& table, std::uint8_t code, std::uint8_t& setting) {
  if (find_code(table, code) == nullptr) return kUnknownCode;
  setting = code;
  return {};
}

/// Takes the code at a place of the payload.
template <const auto& table, auto setting, std::size_t at = 0>
std::string_view take(CameraModel& camera, Bytes payload) {
  return take_code(table, payload[at], camera.settings().*setting);
}

/// Takes the first byte as it is.
template <auto setting>
std::string_view take_byte(CameraModel& camera, Bytes payload) {
  camera.settings().*setting = payload[0];
  return {};
}

/// Knows the codes of a table, which change nothing here.
template <const auto& table, std::size_t at>
std::string_view know(CameraModel& /*unused*/, Bytes payload) {
  return find_code(table, payload[at]) == nullptr ? kUnknownCode : std::string_view{};
}

std::string_view turn(CameraModel& camera, Bytes payload) {
  if (camera.calibrating()) return {};
  // Roll stands before tilt on the wire.
  camera.gimbal().set_speed({.pan = static_cast<double>(load_le<std::int16_t>(payload, 0)),
                             .tilt = static_cast<double>(load_le<std::int16_t>(payload, 4)),
                             .roll = static_cast<double>(load_le<std::int16_t>(payload, 2))});
  return {};
}

std::string_view turn_to_position(CameraModel& camera, Bytes payload) {
  if (find_code(kGimbalPositions, payload[1]) == nullptr) return kUnknownCode;
  if (payload[1] == kGimbalPositions[0].code) {
    camera.gimbal().centre();
  } else {
    camera.gimbal().next_position();
  }
  return {};
}

std::string_view lock_tilt(CameraModel& camera, Bytes payload) {
  camera.lock_tilt(payload[3] != 0);
  return {};
}

void calibrate(CameraModel& camera) { camera.calibrate(); }
void format_card(CameraModel& camera) { camera.format_card(); }
void reset(CameraModel& camera) { camera.reset(); }
void meter_centre(CameraModel& camera) { camera.settings().exposure_point = 0; }

std::string_view shoot(CameraModel& camera, Bytes /*unused*/) { return camera.shoot(); }

std::string_view record(CameraModel& camera, Bytes payload) {
  return camera.record(payload[0] != 0);
}

std::string_view take_mode(CameraModel& camera, Bytes payload) {
  if (payload[0] != kVideoMode) camera.record(false);
  return take_code(kCameraModeNames, payload[0], camera.settings().mode);
}

/// Both codes or none.
std::string_view take_video_format(CameraModel& camera, Bytes payload) {
  if (find_code(kFrameRates, payload[1]) == nullptr) return kUnknownCode;
  Settings& settings = camera.settings();
  const std::string_view refused = take_code(kResolutions, payload[0], settings.resolution);
  if (refused.empty()) settings.frame_rate = payload[1];
  return refused;
}

/// What it can do with its lens.
std::string_view take_aperture(CameraModel& camera, Bytes payload) {
  constexpr std::int16_t kWidest = 170;
  constexpr std::int16_t kSmallest = 1600;
  const auto hundredths = load_le<std::int16_t>(payload, 0);
  if (hundredths < kWidest || hundredths > kSmallest) return "the lens goes from f/1.7 to f/16";
  camera.settings().aperture = static_cast<std::uint16_t>(hundredths);
  return {};
}

std::string_view take_shutter(CameraModel& camera, Bytes payload) {
  const ShutterCode code{payload[1], payload[2], payload[3]};
  if (!is_shutter_code(code)) return kUnknownCode;
  camera.settings().shutter = code;
  return {};
}

std::string_view take_white_balance(CameraModel& camera, Bytes payload) {
  Settings& settings = camera.settings();
  const std::string_view refused = take_code(kWhiteBalances, payload[0], settings.white_balance);
  if (refused.empty()) settings.temperature = payload[1];
  return refused;
}

std::string_view focus_on(CameraModel& camera, Bytes payload) {
  camera.set_focus_point({load_le<float>(payload, 0), load_le<float>(payload, 4)});
  return {};
}

std::string_view track(CameraModel& camera, Bytes payload) {
  if (payload[0] == 0) {
    camera.stop_tracking();
    return {};
  }
  return camera.track({load_le<float>(payload, 5), load_le<float>(payload, 9),
                       load_le<float>(payload, 13), load_le<float>(payload, 17)});
}

// --- The table ---------------------------------------------------------------------------------

constexpr int any = CameraCommand::any;
constexpr auto no_words = nullptr;
constexpr bool streamed = true;
using S = Settings;

constexpr auto kCommands = std::to_array<CameraCommand>({
    // clang-format off
    // receiver, set, id, size, and the byte to tell it by; its name, arguments in words, what it does
    {4, 4, 0x0C,  7, 0, any,  "gimbal speed", speed, turn, streamed},
    {4, 4, 0x4C,  2, 0, 0xFE, "gimbal position", word<kGimbalPositions, 1>, turn_to_position},
    {4, 4, 0x4C,  2, 0, any,  "gimbal mode", word<kGimbalModes>, know<kGimbalModes, 0>},
    {4, 4, 0x50,  4, 1, 4,    "gimbal tilt lock", on_or_off, lock_tilt},
    {4, 4, 0x50,  4, 1, 5,    "gimbal follow", word<kFollowSpeeds, 3>, know<kFollowSpeeds, 3>},
    {4, 4, 0x07,  1, 0, any,  "gimbal calibration", step_1, done<calibrate>},
    {4, 4, 0x01,  8, 0, any,  "gimbal calibration", step_2, done<calibrate>},
    {4, 4, 0x08,  0, 0, any,  "gimbal calibration", step_3, done<calibrate>},
    {1, 2, 0x01,  1, 0, any,  "shot", no_words, shoot},
    {1, 2, 0x02,  1, 0, any,  "record", start_or_stop, record},
    {1, 2, 0x10,  1, 0, any,  "camera mode", word<kCameraModeNames>, take_mode},
    {1, 2, 0x12,  2, 0, any,  "aspect ratio", word<kAspectRatios, 1>, take<kAspectRatios, &S::aspect_ratio, 1>},
    {1, 2, 0x16,  1, 0, any,  "photo format", word<kPhotoFormatNames>, take<kPhotoFormatNames, &S::photo_format>},
    {1, 2, 0x18,  5, 0, any,  "video format", video_format, take_video_format},
    {1, 2, 0x1E,  2, 0, any,  "exposure mode", word<kExposureModeNames>, take<kExposureModeNames, &S::exposure_mode>},
    {1, 2, 0x22,  1, 0, any,  "exposure at the centre", no_words, done<meter_centre>},
    {1, 2, 0x24,  1, 0, any,  "focus type", word<kFocusTypes>, take<kFocusTypes, &S::focus_type>},
    {1, 2, 0x26,  2, 0, any,  "aperture", f_number, take_aperture},
    {1, 2, 0x28,  4, 0, any,  "shutter", shutter, take_shutter},
    {1, 2, 0x2A,  1, 0, any,  "ISO", iso, take<kIsoValues, &S::iso>},
    {1, 2, 0x2C,  2, 0, any,  "white balance", white_balance, take_white_balance},
    {1, 2, 0x2E,  1, 0, any,  "EV", ev, take<kEvSteps, &S::ev>},
    {1, 2, 0x30,  8, 0, any,  "focus point", point, focus_on},
    {1, 2, 0x32,  1, 0, any,  "exposure point", number, take_byte<&S::exposure_point>},
    {1, 2, 0x42,  1, 0, any,  "colour", word<kColours>, take<kColours, &S::colour>},
    {1, 2, 0x46,  1, 0, any,  "anti-flicker", word<kAntiFlickers>, take<kAntiFlickers, &S::anti_flicker>},
    {1, 2, 0x60,  1, 0, any,  "histogram", on_or_off, take_byte<&S::histogram>},
    {1, 2, 0x68,  1, 0, any,  "exposure lock", on_or_off, take_byte<&S::exposure_lock>},
    {1, 2, 0x72,  0, 0, any,  "format card", no_words, done<format_card>},
    {1, 2, 0x78,  1, 0, any,  "reset", no_words, done<reset>},
    {1, 2, 0xA6, 21, 0, any,  "tracking", tracking, track},
    {1, 2, 0xAF,  2, 0, any,  "video format", video_format, take_video_format},
    // clang-format on
});

bool is(const CameraCommand& command, const Frame& frame) {
  return command.receiver == frame.receiver && command.set == frame.set && command.id == frame.id &&
         command.payload_size == frame.payload.size() &&
         (command.byte == any || command.byte == frame.payload[command.at]);
}

}  // namespace

std::span<const CameraCommand> all_commands() { return kCommands; }

const CameraCommand* find_command(const Frame& frame) {
  const auto* const found =
      std::find_if(kCommands.begin(), kCommands.end(),
                   [&frame](const CameraCommand& command) { return is(command, frame); });
  return found == kCommands.end() ? nullptr : found;
}

std::string describe(const CameraCommand& command, Bytes payload) {
  std::string text(command.name);
  if (command.arguments != nullptr) text += ": " + command.arguments(payload);
  return text;
}

bool is_shutter_code(const ShutterCode& code) {
  return std::any_of(kShutterTexts.begin(), kShutterTexts.end(),
                     [&code](std::string_view text) { return shutter_code(text) == code; });
}

}  // namespace nimbus::sim
