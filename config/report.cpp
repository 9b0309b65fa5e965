#include "config/report.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "base/text_builder.h"
#include "config/config.h"
#include "config/fields.h"
#include "config/interfaces.h"
#include "config/wireless.h"

namespace nimbus {
namespace {

enum class ReportAs : std::uint8_t {
  value,      ///< as the field's kind has it: a bare number, or a text in quotes
  interface,  ///< the code of an interface name, in quotes
};

struct Item {
  std::string_view name;
  std::string_view key;
  ReportAs as = ReportAs::value;
};

// The order of the report.
constexpr std::array<Item, kConfigFieldCount> kItems{{
    // clang-format off
    {"vbitrate",      "video_bitrate"},
    {"vw",            "video_width"},
    {"vh",            "video_height"},
    {"vte",           "video_transcode_enabled"},
    {"v_dis",         "disable_video_stream"},
    {"v_hf",          "video_hflip"},
    {"v_vf",          "video_vflip"},
    {"rcin_en",       "rc_input_enabled"},
    {"rcin_mode",     "rc_input_mode"},
    {"rcin2_mode",    "rc2_input_mode"},
    {"rcin_map",      "rc_input_map"},
    {"rcin_pan",      "rc_input_speed_pan"},
    {"rcin_tilt",     "rc_input_speed_tilt"},
    {"rcin_dutch",    "rc_input_speed_dutch"},
    {"rcin_paninv",   "rc_input_inverse_pan"},
    {"rcin_tiltinv",  "rc_input_inverse_tilt"},
    {"rcin_dutchinv", "rc_input_inverse_dutch"},
    {"rcin_exp",      "rc_input_exp"},
    {"rcin_abs",      "rc_input_abs"},
    {"hdmistate",     "hdmi_enabled"},
    {"osdbrdw",       "osd_border_width"},
    {"osdbrdh",       "osd_border_height"},
    {"osdtof",        "osd_top_offset"},
    {"osdbof",        "osd_bottom_offset"},
    {"osd_en",        "osd_enabled"},
    {"ic_en",         "internal_camera_enabled"},
    {"ic_fs",         "internal_camera_fullscreen"},
    {"ap_iface",      "ap_iface",     ReportAs::interface},
    {"ap_ssid",       "ap_ssid"},
    {"ap_psk",        "ap_psk"},
    {"ap_mode",       "ap_mode"},
    {"ap_channel",    "ap_channel"},
    {"ap_country",    "ap_country"},
    {"lan_iface",     "wifi_iface",   ReportAs::interface},
    {"lan_ssid",      "wifi_ssid"},
    {"lan_psk",       "wifi_psk"},
    {"cam_iface",     "camera_iface", ReportAs::interface},
    {"cam_ssid",      "camera_ssid"},
    {"cam_psk",       "camera_psk"},
    // clang-format on
}};

constexpr std::size_t kInterfaceListSize = 1024;

void add_name(TextBuilder& report, std::string_view name) { report.add("\"").add(name).add("\":"); }

void add_quoted(TextBuilder& report, std::string_view text) {
  report.add("\"").add(text).add("\"");
}

void add_item(TextBuilder& report, const Item& item, Config& config) {
  const ConfigField& field = *find_config_field(item.key);
  add_name(report, item.name);
  if (field.byte != nullptr) {
    report.add(std::int32_t{config.*field.byte});
  } else if (field.number != nullptr) {
    report.add(config.*field.number);
  } else {
    std::array<char, kLongestConfigText> buffer;
    const std::string_view text = field.text(config).copy_to(buffer);
    add_quoted(report, item.as == ReportAs::interface ? interface_code(text) : text);
  }
  report.add(",");
}

}  // namespace

std::int32_t config_report(std::span<char> buffer) noexcept {
  std::fill(buffer.begin(), buffer.end(), '\0');
  Config& config = *config_get();
  TextBuilder report(buffer);
  report.add("{\"app\":\"nimbus\",");
  for (const Item& item : kItems) add_item(report, item, config);
  add_name(report, "version");
  add_quoted(report, config.service_version.copy().view());
  report.add(",");
  add_name(report, "ifaces");
  std::array<char, kInterfaceListSize> list;
  TextBuilder interfaces(list);
  iface_list_json(interfaces);
  report.add("[").add(interfaces.view()).add("]");
  const auto length = static_cast<std::int32_t>(report.view().size());
  report.add("}");
  return length;
}

}  // namespace nimbus
