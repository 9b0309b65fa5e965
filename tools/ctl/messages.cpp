#include "tools/ctl/messages.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "base/wire.h"
#include "camera/codes.h"
#include "tools/ctl/json.h"

namespace nimbus::ctl {
namespace {

/// A payload of the right size for the decoder that reads it.
class Payload {
 public:
  explicit Payload(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
  [[nodiscard]] std::uint8_t u8(std::size_t at) const { return bytes_[at]; }
  [[nodiscard]] std::uint16_t u16(std::size_t at) const {
    return load_le<std::uint16_t>(bytes_, at);
  }
  [[nodiscard]] std::int16_t s16(std::size_t at) const { return load_le<std::int16_t>(bytes_, at); }
  [[nodiscard]] std::uint32_t u24(std::size_t at) const {
    return u16(at) | static_cast<std::uint32_t>(u8(at + 2)) << 16;
  }
  [[nodiscard]] std::uint32_t u32(std::size_t at) const {
    return load_le<std::uint32_t>(bytes_, at);
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

Value integer(std::int64_t number) { return number; }

// The status and triple messages have six bytes, or three words, behind their type.
constexpr std::size_t kFirst = 1;
constexpr std::size_t kSecond = 3;
constexpr std::size_t kThird = 5;

/// The name of a code, or "code N" for a code that has none.
template <typename Table>
std::string name_of(const Table& table, std::uint8_t code) {
  const std::string_view name = value_of(table, code);
  return name.empty() ? "code " + std::to_string(code) : std::string(name);
}

std::string iso_text(std::uint8_t code) {
  if (code == 0) return "auto";
  const std::uint16_t iso = value_of(kIsoValues, code);
  return iso == 0 ? "code " + std::to_string(code) : std::to_string(iso);
}

// --- Once a second -----------------------------------------------------------------------------

Fields connection(const Payload& payload) {
  constexpr std::uint8_t kConnected = 2;
  const std::uint8_t source = payload.u8(1);
  return {{"source", source == 0   ? std::string("camera data")
                     : source == 1 ? std::string("video")
                                   : "source " + std::to_string(source)},
          {"connected", payload.u8(2) == kConnected}};
}

Fields flags(const Payload& payload) {
  const auto flag = [bits = payload.u8(1)](unsigned bit) { return (bits >> bit & 1U) != 0; };
  return {{"access_point", flag(1)},
          {"hdmi", flag(2)},
          {"camera_data", flag(4)},
          {"viewers", integer(payload.u8(2))},
          {"rc_status", integer(payload.u8(5))}};
}

Fields version(const Payload& payload) {
  std::array<char, 12> text;
  std::snprintf(text.data(), text.size(), "%u.%u.%u", payload.u8(1), payload.u8(2), payload.u8(3));
  return {{"version", std::string(text.data())}, {"variant", integer(payload.u8(4))}};
}

// --- Gimbal ------------------------------------------------------------------------------------

Fields angles(const Payload& payload, double unit) {
  constexpr std::string_view kDegrees = "\u00B0";
  return {{"angle_1", payload.s16(kFirst) * unit, kDegrees},
          {"angle_2", payload.s16(kSecond) * unit, kDegrees},
          {"angle_3", payload.s16(kThird) * unit, kDegrees}};
}

Fields gimbal_attitude(const Payload& payload) {
  constexpr double kHundredth = 0.01;
  Fields fields = angles(payload, kHundredth);
  for (Field& field : fields) field.value = rounded(std::get<double>(field.value));
  return fields;
}

Fields gimbal_angles(const Payload& payload) { return angles(payload, 1.0); }

Fields orientation(const Payload& payload) { return {{"locked", payload.s16(kFirst) != 0}}; }

// --- Lens --------------------------------------------------------------------------------------

Fields focus_values(const Payload& payload) {
  constexpr double kParts = 10'000.0;
  return {{"focus_1", payload.s16(kFirst) / kParts},
          {"focus_2", payload.s16(kSecond) / kParts},
          {"focus_3", integer(payload.s16(kThird))}};
}

Fields lens_flag(const Payload& payload) { return {{"lens_flag", payload.u8(1) != 0}}; }

Fields zoom(const Payload& payload) {
  return {{"focus_mode", integer(payload.s16(kFirst))},
          {"ratio", integer(payload.s16(kSecond)), " %"},
          {"zoom", payload.s16(kThird) / 100.0}};
}

// --- Camera ------------------------------------------------------------------------------------

Fields camera_settings(const Payload& payload) {
  const Resolution resolution = value_of(kResolutions, payload.u8(7));
  const std::uint16_t rate = value_of(kFrameRates, payload.u8(8));
  return {
      {"exposure_mode", name_of(kExposureModeNames, payload.u8(1))},
      {"iso", iso_text(payload.u8(16))},
      {"shutter", shutter_text(payload.u24(21))},
      {"aperture", payload.u16(17) / 100.0},
      {"ev", static_cast<std::int8_t>(payload.u8(5)) / 10.0},
      {"white_balance", name_of(kWhiteBalances, payload.u8(6))},
      {"colour_temperature", integer(std::int64_t{payload.u8(9)} * 100), " K"},
      {"colour", name_of(kColours, payload.u8(4))},
      {"resolution", resolution.label.empty() ? "code " + std::to_string(payload.u8(7))
                                              : std::to_string(resolution.width) + "x" +
                                                    std::to_string(resolution.height)},
      {"frame_rate", integer(rate), " fps"},
      {"photo_format", name_of(kPhotoFormatNames, payload.u8(24))},
      {"settings_728", integer(payload.u16(10))},
      {"settings_736", integer(payload.u24(12))},
      {"settings_789", integer(payload.u8(15))},
      {"settings_790", integer(payload.u8(2))},
      {"settings_791", integer(payload.u8(20))},
  };
}

Fields camera_status(const Payload& payload) {
  return {
      {"camera_mode", name_of(kCameraModeNames, payload.u8(1))},
      {"status_792", integer(payload.u8(2))},
      {"status_793", integer(payload.u8(21))},
      {"status_794", integer(payload.u8(22))},
      {"status_796", integer(payload.u32(3))},
      {"status_800", integer(payload.u32(7))},
      {"status_804", integer(payload.u32(11))},
      {"status_808", integer(payload.u16(15))},
      {"last_byte", integer(payload.u8(23))},
  };
}

Fields recording_timer(const Payload& payload) {
  return {{"state", integer(payload.s16(kFirst))},
          {"reset", payload.s16(kSecond) != 0},
          {"seconds", integer(payload.u16(kThird)), " s"}};
}

Fields tracking(const Payload& payload) {
  const auto fraction = [&payload](std::size_t at) {
    constexpr double kDecimals = 1e4;
    return std::round(payload.u16(at) / 65535.0 * kDecimals) / kDecimals;
  };
  return {{"on", payload.u8(1) != 0},
          {"x", fraction(2)},
          {"y", fraction(4)},
          {"width", fraction(6)},
          {"height", fraction(8)}};
}

Fields histogram(const Payload& payload) {
  std::vector<int> bins(64);
  for (std::size_t i = 0; i < bins.size(); ++i) bins[i] = payload.u8(1 + i);
  return {{"bins", std::move(bins)}};
}

// --- RC receiver -------------------------------------------------------------------------------

Fields rc_channels(const Payload& payload) {
  constexpr std::size_t kMost = 32;
  std::vector<int> channels(std::min<std::size_t>(payload.u8(2), kMost));
  for (std::size_t i = 0; i < channels.size(); ++i) channels[i] = payload.u16(3 + 2 * i);
  return {{"rc_status", integer(payload.u8(1))}, {"channels", std::move(channels)}};
}

// --- The kinds ---------------------------------------------------------------------------------

struct Kind {
  std::uint8_t type;
  std::size_t size;
  std::string_view name;
  Fields (*decode)(const Payload&);
};

constexpr auto kKinds = std::to_array<Kind>({
    // clang-format off
    { 0,  7, "gimbal_attitude", gimbal_attitude},
    { 2, 31, "camera_settings", camera_settings},
    { 5,  7, "connection",      connection},
    { 6,  7, "flags",           flags},
    { 7, 24, "camera_status",   camera_status},
    { 8,  7, "orientation",     orientation},
    {10,  7, "gimbal_angles",   gimbal_angles},
    {11,  7, "version",         version},
    {13,  7, "focus_values",    focus_values},
    {14, 65, "histogram",       histogram},
    {15, 67, "rc_channels",     rc_channels},
    {16,  7, "lens_flag",       lens_flag},
    {19,  7, "recording_timer", recording_timer},
    {20,  7, "zoom",            zoom},
    {21, 10, "tracking",        tracking},
    // clang-format on
});

Message unknown(std::span<const std::uint8_t> payload) {
  std::string hex;
  for (const std::uint8_t byte : payload) {
    std::array<char, 4> text;
    std::snprintf(text.data(), text.size(), hex.empty() ? "%02x" : " %02x", byte);
    hex += text.data();
  }
  return {
      "unknown", {{"size", integer(static_cast<std::int64_t>(payload.size()))}, {"hex", hex}}, {}};
}

// --- JSON texts --------------------------------------------------------------------------------

Message json_text(std::string text) {
  const Json json = parse_object(text);
  if (json == nullptr) return {"json", {}, std::move(text)};
  if (member_text(json.get(), "app") == "nimbus") return {"report", {}, std::move(text)};
  if (member_text(json.get(), "cmd") == "wlanscan") return {"wifi_scan", {}, std::move(text)};
  return {"json", {}, std::move(text)};
}

}  // namespace

std::string shutter_text(std::uint32_t code) {
  const unsigned whole = code & 0x7FFFU;
  const unsigned decimals = code >> 16;
  const bool fraction = (code & 0x8000U) != 0;
  if (!fraction && whole > 0xFF) return "code " + std::to_string(code);
  std::string text = fraction ? "1/" : "";
  text += std::to_string(whole);
  if (decimals != 0) text.append(".").append(std::to_string(decimals));
  return text + " s";
}

Message decode_message(std::span<const std::uint8_t> payload) {
  if (payload.empty()) return unknown(payload);
  if (payload[0] == '{') {
    return json_text({reinterpret_cast<const char*>(payload.data()), payload.size()});
  }
  const auto* const kind = std::find_if(kKinds.begin(), kKinds.end(), [&payload](const Kind& row) {
    return row.type == payload[0] && row.size == payload.size();
  });
  if (kind == kKinds.end()) return unknown(payload);
  return {kind->name, kind->decode(Payload(payload)), {}};
}

std::string text_of(const Message& message) {
  std::string name(message.name);
  std::replace(name.begin(), name.end(), '_', ' ');
  return name + ": " + (message.json.empty() ? text_of(message.fields) : message.json);
}

std::string json_of(const Message& message, double time, std::uint32_t number) {
  const Json object = empty_object();
  cJSON_AddNumberToObject(object.get(), "time", time);
  cJSON_AddNumberToObject(object.get(), "number", number);
  add_text(object.get(), "message", message.name);
  for (const Field& field : message.fields) add_value(object.get(), field.name, field.value);
  if (!message.json.empty()) {
    if (Json content = parse_object(message.json)) {
      cJSON_AddItemToObject(object.get(), "content", content.release());
    } else {
      add_text(object.get(), "text", message.json);
    }
  }
  return line_of(object.get());
}

}  // namespace nimbus::ctl
