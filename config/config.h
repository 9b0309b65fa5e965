// The configuration record: what the user has set, and what the threads tell each other beside it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "base/shared.h"
#include "base/shared_text.h"

namespace nimbus {

/// The settings, named like their keys in the configuration file. Zero or empty is the default of
/// every field but the map of the receiver's channels (config_load). The layout is shared with the
/// sibling processes (see config/region.h): little-endian, fixed offsets (each remark begins with
/// its field's), flags one byte of 0 or 1, texts NUL-terminated. Fields are read and written in
/// place by any thread, without locks; see Shared.
struct Config {
  Shared<std::uint8_t> hdmi_enabled;             // 0: 1: video out on HDMI, 0: TV-out
  Shared<std::uint8_t> video_transcode_enabled;  // 1: 1: the viewer stream is transcoded
  std::array<std::byte, 2> reserved_2;
  Shared<std::int32_t> video_bitrate;         // 4: bit/s
  Shared<std::int32_t> video_width;           // 8: pixels
  Shared<std::int32_t> video_height;          // 12: pixels
  Shared<std::uint8_t> video_hflip;           // 16: 1: flipped horizontally
  Shared<std::uint8_t> video_vflip;           // 17: 1: flipped vertically
  Shared<std::uint8_t> disable_video_stream;  // 18: 1: no video to viewers
  Shared<std::uint8_t> rc_input_enabled;      // 19: 1: RC receiver control
  SharedText<6> rc_input_mode;                // 20: "pwm" or "ppm"
  SharedText<6> rc2_input_mode;               // 26: "sbus" or "ppm"
  SharedText<512> rc_input_map;              // 32: function words, one per channel, comma-separated
  Shared<std::int32_t> rc_input_speed_pan;   // 544: percent
  Shared<std::int32_t> rc_input_speed_tilt;  // 548: percent
  Shared<std::int32_t> rc_input_speed_dutch;        // 552: percent
  Shared<std::int32_t> rc_input_inverse_pan;        // 556: non-zero: inverted
  Shared<std::int32_t> rc_input_inverse_tilt;       // 560: non-zero: inverted
  Shared<std::int32_t> rc_input_inverse_dutch;      // 564: non-zero: inverted
  Shared<std::uint8_t> rc_input_abs;                // 568: 1: absolute pan and tilt
  Shared<std::uint8_t> rc_input_exp;                // 569: 1: exponential pan and tilt
  Shared<std::uint8_t> osd_enabled;                 // 570: 1: on-screen display
  Shared<std::uint8_t> internal_camera_enabled;     // 571: 1: internal camera picture
  Shared<std::uint8_t> internal_camera_fullscreen;  // 572: 1: full-screen, 0: windowed
  Shared<std::uint8_t> osd_border_height;           // 573: pixels, 0: none
  Shared<std::uint8_t> osd_border_width;            // 574: pixels, 0: none
  Shared<std::uint8_t> osd_top_offset;              // 575: pixels
  Shared<std::uint8_t> osd_bottom_offset;           // 576: pixels
  SharedText<10> ap_iface;                          // 577: access point interface, empty: disabled
  SharedText<256> ap_ssid;                          // 587
  SharedText<256> ap_psk;                           // 843
  std::array<std::byte, 1> reserved_1099;
  Shared<std::int32_t> ap_mode;     // 1100: 2: 2.4 GHz, 5: 5 GHz
  Shared<std::int32_t> ap_channel;  // 1104: 1-13 or 36-42
  SharedText<10> ap_country;        // 1108: "00", "CN", "US"
  SharedText<10> wifi_iface;        // 1118: Wi-Fi client interface, empty: disabled
  SharedText<256> wifi_ssid;        // 1128
  SharedText<256> wifi_psk;         // 1384
  SharedText<10> camera_iface;      // 1640: interface of the camera's Wi-Fi, empty: disabled
  SharedText<256> camera_ssid;      // 1650
  SharedText<256> camera_psk;       // 1906

  // Runtime state, never saved.
  Shared<std::uint8_t> ap_running;      // 2162: 1: the access-point daemon runs
  Shared<std::uint8_t> data_connected;  // 2163: 1: camera data arrives
  std::array<std::byte, 151> reserved_2164;
  SharedText<20> service_version;  // 2315: "0.3.7"
  std::array<std::byte, 1> reserved_2335;
};

static_assert(offsetof(Config, hdmi_enabled) == 0);
static_assert(offsetof(Config, video_transcode_enabled) == 1);
static_assert(offsetof(Config, video_bitrate) == 4);
static_assert(offsetof(Config, video_width) == 8);
static_assert(offsetof(Config, video_height) == 12);
static_assert(offsetof(Config, video_hflip) == 16);
static_assert(offsetof(Config, video_vflip) == 17);
static_assert(offsetof(Config, disable_video_stream) == 18);
static_assert(offsetof(Config, rc_input_enabled) == 19);
static_assert(offsetof(Config, rc_input_mode) == 20);
static_assert(offsetof(Config, rc2_input_mode) == 26);
static_assert(offsetof(Config, rc_input_map) == 32);
static_assert(offsetof(Config, rc_input_speed_pan) == 544);
static_assert(offsetof(Config, rc_input_speed_tilt) == 548);
static_assert(offsetof(Config, rc_input_speed_dutch) == 552);
static_assert(offsetof(Config, rc_input_inverse_pan) == 556);
static_assert(offsetof(Config, rc_input_inverse_tilt) == 560);
static_assert(offsetof(Config, rc_input_inverse_dutch) == 564);
static_assert(offsetof(Config, rc_input_abs) == 568);
static_assert(offsetof(Config, rc_input_exp) == 569);
static_assert(offsetof(Config, osd_enabled) == 570);
static_assert(offsetof(Config, internal_camera_enabled) == 571);
static_assert(offsetof(Config, internal_camera_fullscreen) == 572);
static_assert(offsetof(Config, osd_border_height) == 573);
static_assert(offsetof(Config, osd_border_width) == 574);
static_assert(offsetof(Config, osd_top_offset) == 575);
static_assert(offsetof(Config, osd_bottom_offset) == 576);
static_assert(offsetof(Config, ap_iface) == 577);
static_assert(offsetof(Config, ap_ssid) == 587);
static_assert(offsetof(Config, ap_psk) == 843);
static_assert(offsetof(Config, ap_mode) == 1100);
static_assert(offsetof(Config, ap_channel) == 1104);
static_assert(offsetof(Config, ap_country) == 1108);
static_assert(offsetof(Config, wifi_iface) == 1118);
static_assert(offsetof(Config, wifi_ssid) == 1128);
static_assert(offsetof(Config, wifi_psk) == 1384);
static_assert(offsetof(Config, camera_iface) == 1640);
static_assert(offsetof(Config, camera_ssid) == 1650);
static_assert(offsetof(Config, camera_psk) == 1906);
static_assert(offsetof(Config, ap_running) == 2162);
static_assert(offsetof(Config, data_connected) == 2163);
static_assert(offsetof(Config, service_version) == 2315);
static_assert(sizeof(Config) == 2336);
static_assert(std::is_trivially_default_constructible_v<Config>);

/// The process's one record. Any thread.
[[nodiscard]] Config* config_get() noexcept;

}  // namespace nimbus
