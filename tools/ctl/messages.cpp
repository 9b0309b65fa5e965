#include "tools/ctl/messages.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "base/wire.h"
#include "camera/codes.h"
#include "net/messages.h"
#include "tools/common/text.h"
#include "tools/ctl/json.h"

namespace nimbus::ctl {
namespace {

Value integer(std::int64_t number) { return number; }

/// A whole number under the name that the layout gives it.
template <typename T, std::size_t size>
Field whole(ByteView payload, const WireField<T, size>& field, std::string_view unit = {}) {
  return {field.name, integer(payload[field]), unit};
}

/// A number of so many parts of one.
template <typename T>
Field parts(ByteView payload, const WireField<T>& field, double of_one) {
  return {field.name, payload[field] / of_one};
}

/// A flag, as a bit or as a number that is not 0.
template <typename Place>
Field flag(ByteView payload, const Place& field) {
  return {field.name, payload[field] != 0};
}

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

/// The name of a field's code.
template <typename Table>
Field named(ByteView payload, const WireField<std::uint8_t>& field, const Table& table) {
  return {field.name, name_of(table, payload[field])};
}

// --- Once a second -----------------------------------------------------------------------------

Fields connection(ByteView payload) {
  using M = ConnectionMessage;
  const std::uint8_t source = payload[M::source];
  return {{"source", source == M::kCameraData ? std::string("camera data")
                     : source == M::kVideo    ? std::string("video")
                                              : "source " + std::to_string(source)},
          {"connected", payload[M::state] == M::kConnected}};
}

Fields flags(ByteView payload) {
  using M = FlagsMessage;
  return {flag(payload, M::access_point), flag(payload, M::hdmi), flag(payload, M::camera_data),
          whole(payload, M::viewers), whole(payload, M::rc_status)};
}

Fields version(ByteView payload) {
  using M = VersionMessage;
  return {{"version", tools::format_text("%u.%u.%u", unsigned{payload[M::major]},
                                         unsigned{payload[M::minor]}, unsigned{payload[M::patch]})},
          whole(payload, M::variant)};
}

// --- Gimbal ------------------------------------------------------------------------------------

Fields angles(ByteView payload, double unit) {
  using M = GimbalMessage;
  const auto angle = [&](const WireField<std::int16_t>& field) {
    return Field{field.name, rounded(payload[field] * unit), "\u00B0"};
  };
  return {angle(M::angle_1), angle(M::angle_2), angle(M::angle_3)};
}

Fields gimbal_attitude(ByteView payload) {
  constexpr double kHundredth = 0.01;
  return angles(payload, kHundredth);
}

Fields gimbal_angles(ByteView payload) { return angles(payload, 1.0); }

Fields orientation(ByteView payload) { return {flag(payload, OrientationMessage::locked)}; }

// --- Lens --------------------------------------------------------------------------------------

Fields focus_values(ByteView payload) {
  using M = FocusValuesMessage;
  constexpr double kParts = 10'000.0;
  return {parts(payload, M::focus_1, kParts), parts(payload, M::focus_2, kParts),
          whole(payload, M::focus_3)};
}

Fields lens_flag(ByteView payload) { return {flag(payload, LensFlagMessage::lens_flag)}; }

Fields zoom(ByteView payload) {
  using M = ZoomMessage;
  return {whole(payload, M::focus_mode), whole(payload, M::ratio, " %"),
          parts(payload, M::zoom, 100.0)};
}

// --- Camera ------------------------------------------------------------------------------------

Fields camera_settings(ByteView payload) {
  using M = CameraSettingsMessage;
  const Resolution resolution = value_of(kResolutions, payload[M::resolution]);
  const std::uint16_t rate = value_of(kFrameRates, payload[M::frame_rate]);
  return {
      named(payload, M::exposure_mode, kExposureModeNames),
      {M::iso.name, iso_text(payload[M::iso])},
      {M::shutter.name, shutter_text(payload[M::shutter])},
      parts(payload, M::aperture, 100.0),
      parts(payload, M::ev, 10.0),
      named(payload, M::white_balance, kWhiteBalances),
      {M::colour_temperature.name, integer(std::int64_t{payload[M::colour_temperature]} * 100),
       " K"},
      named(payload, M::colour, kColours),
      {M::resolution.name,
       resolution.label.empty()
           ? "code " + std::to_string(payload[M::resolution])
           : std::to_string(resolution.width) + "x" + std::to_string(resolution.height)},
      {M::frame_rate.name, integer(rate), " fps"},
      named(payload, M::photo_format, kPhotoFormatNames),
      whole(payload, M::settings_728),
      whole(payload, M::settings_736),
      whole(payload, M::settings_789),
      whole(payload, M::settings_790),
      whole(payload, M::settings_791),
  };
}

Fields camera_status(ByteView payload) {
  using M = CameraStatusMessage;
  return {
      named(payload, M::camera_mode, kCameraModeNames),
      whole(payload, M::status_792),
      whole(payload, M::status_793),
      whole(payload, M::status_794),
      whole(payload, M::status_796),
      whole(payload, M::status_800),
      whole(payload, M::status_804),
      whole(payload, M::status_808),
      whole(payload, M::last_byte),
  };
}

Fields recording_timer(ByteView payload) {
  using M = RecordingTimerMessage;
  return {whole(payload, M::state), flag(payload, M::reset), whole(payload, M::seconds, " s")};
}

Fields tracking(ByteView payload) {
  using M = TrackingMessage;
  const auto fraction = [&payload](const WireField<std::uint16_t>& field) {
    constexpr double kDecimals = 1e4;
    return Field{field.name, std::round(payload[field] / 65535.0 * kDecimals) / kDecimals};
  };
  return {flag(payload, M::on), fraction(M::x), fraction(M::y), fraction(M::width),
          fraction(M::height)};
}

Fields histogram(ByteView payload) {
  const auto bins = payload[HistogramMessage::bins];
  return {{HistogramMessage::bins.name, std::vector<int>(bins.begin(), bins.end())}};
}

// --- RC receiver -------------------------------------------------------------------------------

Fields rc_channels(ByteView payload) {
  using M = RcChannelsMessage;
  constexpr std::size_t kMost = WireItem(M::channels).count;
  std::vector<int> channels(std::min<std::size_t>(payload[M::count], kMost));
  for (std::size_t i = 0; i < channels.size(); ++i) channels[i] = payload[M::channels.word(i)];
  return {whole(payload, M::rc_status), {M::channels.name, std::move(channels)}};
}

// --- The kinds ---------------------------------------------------------------------------------

struct Decoder {
  ToViewer type;
  Fields (*decode)(ByteView payload);
};

constexpr std::array<Decoder, kMessageKinds.size()> kDecoders{{
    {ToViewer::gimbal_attitude, gimbal_attitude},
    {ToViewer::camera_settings, camera_settings},
    {ToViewer::connection, connection},
    {ToViewer::flags, flags},
    {ToViewer::camera_status, camera_status},
    {ToViewer::orientation, orientation},
    {ToViewer::gimbal_angles, gimbal_angles},
    {ToViewer::version, version},
    {ToViewer::focus_values, focus_values},
    {ToViewer::histogram, histogram},
    {ToViewer::rc_channels, rc_channels},
    {ToViewer::lens_flag, lens_flag},
    {ToViewer::recording_timer, recording_timer},
    {ToViewer::zoom, zoom},
    {ToViewer::tracking, tracking},
}};

Message unknown(std::span<const std::uint8_t> payload) {
  return {"unknown",
          {{"size", integer(static_cast<std::int64_t>(payload.size()))},
           {"hex", tools::hexadecimal(payload)}},
          {}};
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
  const ShutterTime time = shutter_time(code);
  return time.known() ? tools::exposure_text(time) : "code " + std::to_string(code);
}

Message decode_message(std::span<const std::uint8_t> payload) {
  if (payload.empty()) return unknown(payload);
  if (payload[0] == type_of(ToViewer::text)) {
    return json_text({reinterpret_cast<const char*>(payload.data()), payload.size()});
  }
  const auto* const kind =
      std::find_if(kMessageKinds.begin(), kMessageKinds.end(), [&payload](const auto& row) {
        return type_of(row.type) == payload[0] && row.size == payload.size();
      });
  if (kind == kMessageKinds.end()) return unknown(payload);
  const auto* const decoder =
      std::find_if(kDecoders.begin(), kDecoders.end(),
                   [kind](const Decoder& row) { return row.type == kind->type; });
  return {kind->name, decoder->decode(ByteView(payload)), {}};
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
