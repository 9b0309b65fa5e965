// The settings by the names under which viewers see them.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "config/fields.h"

namespace nimbus {

enum class ReportAs : std::uint8_t {
  value,      ///< as the field's kind has it: a bare number, or a text in quotes
  interface,  ///< the code of an interface name, in quotes
};

/// A setting in the report, and its key in the file.
struct ReportItem {
  std::string_view name;
  ConfigKey key;
  ReportAs as = ReportAs::value;
};

// The order of the report.
inline constexpr auto kReportItems = std::to_array<ReportItem>({
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
});
static_assert(kReportItems.size() == kConfigFieldCount);

}  // namespace nimbus
