#include "tools/ctl/settings.h"

#include <algorithm>
#include <vector>

#include "config/fields.h"
#include "config/hdmi_modes.h"
#include "config/interface_codes.h"
#include "config/stream_sizes.h"
#include "tools/common/failure.h"
#include "tools/ctl/json.h"

namespace nimbus::ctl {
namespace {

/// What fits the field of a key.
constexpr const Accepts* fitting(ConfigKey key) {
  switch ((*key).kind) {
    case FieldKind::flag:
      return &kOnOff;
    case FieldKind::byte:
      return &kInteger<0, UINT8_MAX>;
    case FieldKind::number:
      return &kNumber;
    case FieldKind::channel_map:
      return &kRcMap;
    case FieldKind::text:
    case FieldKind::quoted_text:
      break;
  }
  return (*key).most == 5 ? &kText<5> : (*key).most == 9 ? &kText<9> : &kText<255>;
}

// Bands by the words of the command; the report has 2 and 5.
constexpr std::array<Word<std::string_view>, 3> kBands{{{"2.4", "2.4"}, {"2", "2.4"}, {"5", "5"}}};
constexpr Accepts kBand{kTranslated<kBands>.convert, [] { return std::string("2.4, 5"); },
                        [] {
                          return Shape{.kind = "choice", .choices = {"2.4", "5"}};
                        }};

// What the report cannot show.
constexpr bool kNotStored = false;

constexpr auto kSettings = std::to_array<Setting>({
    // clang-format off
    {"rcin_enabled", "RC input on or off", {{{"ON", "value", fitting("rc_input_enabled")}}}},
    {"rcin_mode", "modes of the two RC receivers",
     {{{"MODE", "value", fitting("rc_input_mode")},
       {"MODE2", "value2", fitting("rc2_input_mode")}}}},
    {"rcin_map", "functions of the RC channels", {{{"MAP", "value", fitting("rc_input_map")}}}},
    {"rcin_speed", "speeds of the RC input",
     {{{"PAN", "value", fitting("rc_input_speed_pan")},
       {"TILT", "value2", fitting("rc_input_speed_tilt")},
       {"DUTCH", "value3", fitting("rc_input_speed_dutch")}}}},
    {"rcin_pan", "pan speed of the RC input",
     {{{"SPEED", "value", fitting("rc_input_speed_pan")}}}},
    {"rcin_tilt", "tilt speed of the RC input",
     {{{"SPEED", "value", fitting("rc_input_speed_tilt")}}}},
    {"rcin_dutch", "roll speed of the RC input",
     {{{"SPEED", "value", fitting("rc_input_speed_dutch")}}}},
    {"rcin_pan_inv", "pan the other way (not 0)",
     {{{"NUMBER", "value", fitting("rc_input_inverse_pan")}}}},
    {"rcin_tilt_inv", "tilt the other way (not 0)",
     {{{"NUMBER", "value", fitting("rc_input_inverse_tilt")}}}},
    {"rcin_dutch_inv", "roll the other way (not 0)",
     {{{"NUMBER", "value", fitting("rc_input_inverse_dutch")}}}},
    {"rcin_exp", "exponential sticks", {{{"ON", "value", fitting("rc_input_exp")}}}},
    {"rcin_abs", "absolute sticks", {{{"ON", "value", fitting("rc_input_abs")}}}},
    {"internal_camera_enabled", "the board's own camera",
     {{{"ON", "value", fitting("internal_camera_enabled")}}}},
    {"internal_camera_fullscreen", "the board's own camera, full size",
     {{{"ON", "value", fitting("internal_camera_fullscreen")}}}},
    {"osd_enabled", "on-screen display", {{{"ON", "value", fitting("osd_enabled")}}}},
    {"hdmi_enabled", "HDMI output", {{{"ON", "value", fitting("hdmi_enabled")}}}},
    {"hdmimode", "HDMI mode, and at the next boots too",
     {{{"MODE", "value", &kWordsOf<kHdmiModes>}, {"BOOT", "value2", &kOnOff, kOptional}}}, kNotStored},
    {"osd_borders", "borders of the on-screen display",
     {{{"WIDTH", "value", fitting("osd_border_width")},
       {"HEIGHT", "value2", fitting("osd_border_height")}}}},
    {"osd_offset", "offsets of the on-screen display",
     {{{"TOP", "value", fitting("osd_top_offset")},
       {"BOTTOM", "value2", fitting("osd_bottom_offset")}}}},
    {"osd_top_offset", "upper offset of the on-screen display",
     {{{"TOP", "value", fitting("osd_top_offset")}}}},
    {"osd_bottom_offset", "lower offset of the on-screen display",
     {{{"BOTTOM", "value", fitting("osd_bottom_offset")}}}},
    {"video_bitrate", "bits a second of the stream",
     {{{"BITRATE", "value", fitting("video_bitrate")}}}},
    {"video_transcode_enabled", "transcode the stream",
     {{{"ON", "value", fitting("video_transcode_enabled")}}}},
    {"disable_video_stream", "relay no video to viewers",
     {{{"ON", "value", fitting("disable_video_stream")}}}},
    {"video_hflip", "mirror the picture", {{{"ON", "value", fitting("video_hflip")}}}},
    {"video_vflip", "turn the picture upside down", {{{"ON", "value", fitting("video_vflip")}}}},
    {"video_resolution", "size of the stream", {{{"SIZE", "value", &kWordsOf<kStreamSizes>}}}},
    // clang-format on
});

constexpr auto kWifiValues = std::to_array<WifiValue>({
    {"cam_iface", &kInterfaceName},
    {"cam_ssid", fitting("camera_ssid")},
    {"cam_psk", fitting("camera_psk")},
    {"lan_iface", &kInterfaceName},
    {"lan_ssid", fitting("wifi_ssid")},
    {"lan_psk", fitting("wifi_psk")},
    {"ap_iface", &kInterfaceName},
    {"ap_ssid", fitting("ap_ssid")},
    {"ap_psk", fitting("ap_psk")},
    {"ap_mode", &kBand},
    {"ap_channel", fitting("ap_channel")},
    {"ap_country", fitting("ap_country")},
});

constexpr std::string_view kWifi = "wifi";

const Setting* find_setting(std::string_view name) {
  const auto* const found = std::find_if(kSettings.begin(), kSettings.end(),
                                         [name](const auto& row) { return row.name == name; });
  return found == kSettings.end() ? nullptr : found;
}

/// Throws Failure that lists the names of settings when it is none.
void expect_setting(std::string_view name) {
  if (name == kWifi || find_setting(name) != nullptr) return;
  std::string list;
  for (const Setting& setting : kSettings) append_word(list, setting.name);
  append_word(list, kWifi);
  throw tools::Failure("no setting '" + std::string(name) + "'; expected " + list);
}

std::string value_member(std::size_t index) {
  return index == 0 ? "value" : "value" + std::to_string(index + 1);
}

std::string wifi_names() {
  std::string list;
  for (const WifiValue& value : kWifiValues) append_word(list, value.name);
  return list;
}

/// What leaves every network as it is: an empty word where the command has words of its own, else
/// the value that stands now.
std::vector<std::string> unchanged_wifi(const cJSON* report) {
  std::vector<std::string> values;
  for (const WifiValue& value : kWifiValues) {
    const bool has_words = value.accepts == &kBand || value.accepts == &kInterfaceName;
    values.push_back(has_words ? "" : member_text(report, value.name));
  }
  return values;
}

std::string json_for_wifi(std::span<const std::string> assignments, bool force,
                          const cJSON* report) {
  if (assignments.empty()) {
    throw tools::Failure("wifi has no value; expected NAME=VALUE with one of " + wifi_names());
  }
  auto values = unchanged_wifi(report);
  for (const std::string& assignment : assignments) {
    const auto equals = assignment.find('=');
    const std::string name = assignment.substr(0, equals);
    const auto* const found = std::find_if(kWifiValues.begin(), kWifiValues.end(),
                                           [&name](const auto& row) { return row.name == name; });
    if (equals == std::string::npos || found == kWifiValues.end()) {
      throw tools::Failure("wifi takes no '" + assignment + "'; expected NAME=VALUE with one of " +
                           wifi_names());
    }
    values[static_cast<std::size_t>(found - kWifiValues.begin())] =
        converted(kWifi, {.name = found->name, .member = {}, .accepts = found->accepts},
                  assignment.substr(equals + 1), force);
  }
  const Json json = empty_object();
  add_text(json.get(), "cmd", "updateparam");
  add_text(json.get(), "name", kWifi);
  for (std::size_t i = 0; i < values.size(); ++i) add_text(json.get(), value_member(i), values[i]);
  return line_of(json.get());
}

}  // namespace

std::span<const Setting> all_settings() { return kSettings; }

std::span<const WifiValue> wifi_values() { return kWifiValues; }

bool is_stored(std::string_view name) {
  const Setting* const setting = find_setting(name);
  return setting == nullptr || setting->stored;
}

std::string json_for_scan(std::string_view interface) {
  const auto code = kInterfaceName.convert(interface);
  if (!code || *code == kNoInterfaceCode) {
    throw tools::Failure("no interface '" + std::string(interface) + "'; expected " +
                         interface_names(" or "));
  }
  const Json json = empty_object();
  add_text(json.get(), "cmd", "wlan");
  add_text(json.get(), "param", "scan");
  add_text(json.get(), "value", *code);
  return line_of(json.get());
}

std::string json_for_setting(std::string_view name, std::span<const std::string> values, bool force,
                             const cJSON* report) {
  expect_setting(name);
  if (name == kWifi) return json_for_wifi(values, force, report);
  const Setting& setting = *find_setting(name);
  const Json json = empty_object();
  add_text(json.get(), "cmd", "updateparam");
  add_text(json.get(), "name", name);
  std::size_t used = 0;
  for (const Argument& value : setting.values) {
    if (value.name.empty() || (used == values.size() && value.optional)) break;
    if (used == values.size()) used = values.size() + 1;  // too few
    if (used > values.size()) break;
    add_text(json.get(), value.member, converted(name, value, values[used], force));
    ++used;
  }
  if (used != values.size()) {
    throw tools::Failure(std::string(name) + " has " + std::to_string(values.size()) +
                         " value(s); expected" + names_of(setting.values));
  }
  return line_of(json.get());
}

}  // namespace nimbus::ctl
