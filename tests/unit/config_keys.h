// The configuration keys as the file and the record's format have them: written down a second time,
// for the tests of everything that walks the service's own table.
#pragma once

#include <array>
#include <cstddef>

#include "config/fields.h"

namespace nimbus::test {

struct ConfigKey {
  const char* key;
  FieldKind kind;
  std::size_t offset;  ///< in the record
  std::size_t size;    ///< of the field, bytes
};

inline constexpr std::array<ConfigKey, 39> kConfigKeys{{
    {"hdmi_enabled", FieldKind::flag, 0, 1},
    {"video_transcode_enabled", FieldKind::flag, 1, 1},
    {"video_bitrate", FieldKind::number, 4, 4},
    {"video_width", FieldKind::number, 8, 4},
    {"video_height", FieldKind::number, 12, 4},
    {"disable_video_stream", FieldKind::flag, 18, 1},
    {"video_hflip", FieldKind::flag, 16, 1},
    {"video_vflip", FieldKind::flag, 17, 1},
    {"rc_input_enabled", FieldKind::flag, 19, 1},
    {"rc_input_mode", FieldKind::text, 20, 6},
    {"rc2_input_mode", FieldKind::text, 26, 6},
    {"rc_input_map", FieldKind::channel_map, 32, 512},
    {"rc_input_speed_pan", FieldKind::number, 544, 4},
    {"rc_input_speed_tilt", FieldKind::number, 548, 4},
    {"rc_input_speed_dutch", FieldKind::number, 552, 4},
    {"rc_input_inverse_pan", FieldKind::number, 556, 4},
    {"rc_input_inverse_tilt", FieldKind::number, 560, 4},
    {"rc_input_inverse_dutch", FieldKind::number, 564, 4},
    {"rc_input_exp", FieldKind::flag, 569, 1},
    {"rc_input_abs", FieldKind::flag, 568, 1},
    {"ap_iface", FieldKind::text, 577, 10},
    {"ap_ssid", FieldKind::quoted_text, 587, 256},
    {"ap_psk", FieldKind::quoted_text, 843, 256},
    {"ap_mode", FieldKind::number, 1100, 4},
    {"ap_country", FieldKind::text, 1108, 10},
    {"ap_channel", FieldKind::number, 1104, 4},
    {"wifi_iface", FieldKind::text, 1118, 10},
    {"wifi_ssid", FieldKind::quoted_text, 1128, 256},
    {"wifi_psk", FieldKind::quoted_text, 1384, 256},
    {"camera_iface", FieldKind::text, 1640, 10},
    {"camera_ssid", FieldKind::quoted_text, 1650, 256},
    {"camera_psk", FieldKind::quoted_text, 1906, 256},
    {"osd_enabled", FieldKind::flag, 570, 1},
    {"osd_border_width", FieldKind::byte, 574, 1},
    {"osd_border_height", FieldKind::byte, 573, 1},
    {"osd_top_offset", FieldKind::byte, 575, 1},
    {"osd_bottom_offset", FieldKind::byte, 576, 1},
    {"internal_camera_enabled", FieldKind::flag, 571, 1},
    {"internal_camera_fullscreen", FieldKind::flag, 572, 1},
}};

}  // namespace nimbus::test
