#include "config/fields.h"

#include <algorithm>

#include "base/number.h"

namespace nimbus {
namespace {

// Longest quoted text that a field takes, its NUL included.
constexpr std::size_t kQuotedTextSize = 256;

/// Stores `value` less its double quotes. The value is cut to the field before they are dropped.
void assign_unquoted(SharedTextRef field, std::string_view value) {
  std::array<char, kQuotedTextSize> text;
  std::size_t length = 0;
  for (const char c : value.substr(0, kQuotedTextSize - 1)) {
    if (c != '"') text[length++] = c;
  }
  field.assign({text.data(), length});
}

template <auto Member>
SharedTextRef text_of(Config& config) {
  return (config.*Member).ref();
}

}  // namespace

// A key is spelt like its field.
#define FLAG(name) \
  { .key = #name, .kind = FieldKind::flag, .byte = &Config::name }
#define BYTE(name) \
  { .key = #name, .kind = FieldKind::byte, .byte = &Config::name }
#define NUMBER(name) \
  { .key = #name, .kind = FieldKind::number, .number = &Config::name }
#define TEXT(name) \
  { .key = #name, .kind = FieldKind::text, .text = text_of<&Config::name> }
#define CHANNEL_MAP(name) \
  { .key = #name, .kind = FieldKind::channel_map, .text = text_of<&Config::name> }
#define QUOTED_TEXT(name) \
  { .key = #name, .kind = FieldKind::quoted_text, .text = text_of<&Config::name> }

constexpr std::array<ConfigField, kConfigFieldCount> kConfigFields{{
    FLAG(hdmi_enabled),
    FLAG(video_transcode_enabled),
    NUMBER(video_bitrate),
    NUMBER(video_width),
    NUMBER(video_height),
    FLAG(disable_video_stream),
    FLAG(video_hflip),
    FLAG(video_vflip),
    FLAG(rc_input_enabled),
    TEXT(rc_input_mode),
    TEXT(rc2_input_mode),
    CHANNEL_MAP(rc_input_map),
    NUMBER(rc_input_speed_pan),
    NUMBER(rc_input_speed_tilt),
    NUMBER(rc_input_speed_dutch),
    NUMBER(rc_input_inverse_pan),
    NUMBER(rc_input_inverse_tilt),
    NUMBER(rc_input_inverse_dutch),
    FLAG(rc_input_exp),
    FLAG(rc_input_abs),
    FLAG(osd_enabled),
    BYTE(osd_border_width),
    BYTE(osd_border_height),
    BYTE(osd_top_offset),
    BYTE(osd_bottom_offset),
    FLAG(internal_camera_enabled),
    FLAG(internal_camera_fullscreen),
    TEXT(ap_iface),
    QUOTED_TEXT(ap_ssid),
    QUOTED_TEXT(ap_psk),
    TEXT(ap_country),
    NUMBER(ap_mode),
    NUMBER(ap_channel),
    TEXT(wifi_iface),
    QUOTED_TEXT(wifi_ssid),
    QUOTED_TEXT(wifi_psk),
    TEXT(camera_iface),
    QUOTED_TEXT(camera_ssid),
    QUOTED_TEXT(camera_psk),
}};

#undef FLAG
#undef BYTE
#undef NUMBER
#undef TEXT
#undef CHANNEL_MAP
#undef QUOTED_TEXT

const ConfigField* find_config_field(std::string_view key) noexcept {
  const auto* const found = std::find_if(kConfigFields.begin(), kConfigFields.end(),
                                         [key](const auto& field) { return field.key == key; });
  return found == kConfigFields.end() ? nullptr : found;
}

void store_config_field(const ConfigField& field, const char* value,
                        PublishChannelMap publish_channel_map) noexcept {
  Config& config = *config_get();
  switch (field.kind) {
    case FieldKind::flag:
      config.*field.byte = parse_i32(value) != 0 ? 1 : 0;
      break;
    case FieldKind::byte:
      config.*field.byte = static_cast<std::uint8_t>(parse_i32(value));
      break;
    case FieldKind::number:
      config.*field.number = parse_i32(value);
      break;
    case FieldKind::text:
      field.text(config).assign(value);
      break;
    case FieldKind::channel_map:
      field.text(config).assign(value);
      if (publish_channel_map != nullptr) publish_channel_map(config.rc_input_map.copy().view());
      break;
    case FieldKind::quoted_text:
      assign_unquoted(field.text(config), value);
      break;
  }
}

}  // namespace nimbus
