// The configuration keys as data: the one table of the settings, in the order of the file. The
// loader looks up in it, the writer walks it; the report, the commands and nimbusctl name its rows.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/shared.h"
#include "base/shared_text.h"
#include "config/config.h"

namespace nimbus {

/// How the text of a key becomes the value of its field.
enum class FieldKind : std::uint8_t {
  flag,         ///< a number; the byte becomes 1 when it is not 0
  byte,         ///< a number, cut to 8 bits
  number,       ///< a signed 32-bit number
  text,         ///< a text, cut to the field
  channel_map,  ///< a text, cut to the field and then published as the RC channel map
  quoted_text,  ///< a text whose double quotes are all dropped: the file puts it between quotes
};

/// One key of the file and the field of the record that it names. Exactly one of the three members
/// is set.
struct ConfigField {
  std::string_view key;
  FieldKind kind;
  std::int64_t least;        ///< of a number: the smallest that the field holds; of a text 0
  std::int64_t most;         ///< of a number: the largest; of a text its longest, in bytes
  std::string_view fresh;    ///< the value on a card that had no file, as a text without quotes
  std::string_view comment;  ///< the lines above it in the file, each with its LF
  Shared<std::uint8_t> Config::*byte = nullptr;
  Shared<std::int32_t> Config::*number = nullptr;
  SharedTextRef (*text)(Config&) = nullptr;
};

/// No text of the record is longer, its NUL included.
inline constexpr std::size_t kLongestConfigText = decltype(Config::rc_input_map)::kCapacity;

namespace detail {

template <std::size_t size>
constexpr std::size_t capacity_of(SharedText<size> Config::* /*member*/) {
  return size;
}

template <auto Member>
SharedTextRef text_of(Config& config) {
  return (config.*Member).ref();
}

constexpr ConfigField flag(std::string_view key, Shared<std::uint8_t> Config::*member,
                           std::string_view fresh, std::string_view comment) {
  return {.key = key,
          .kind = FieldKind::flag,
          .least = 0,
          .most = 1,
          .fresh = fresh,
          .comment = comment,
          .byte = member};
}

constexpr ConfigField byte(std::string_view key, Shared<std::uint8_t> Config::*member,
                           std::string_view fresh, std::string_view comment) {
  return {.key = key,
          .kind = FieldKind::byte,
          .least = 0,
          .most = UINT8_MAX,
          .fresh = fresh,
          .comment = comment,
          .byte = member};
}

constexpr ConfigField number(std::string_view key, Shared<std::int32_t> Config::*member,
                             std::string_view fresh, std::string_view comment) {
  return {.key = key,
          .kind = FieldKind::number,
          .least = INT32_MIN,
          .most = INT32_MAX,
          .fresh = fresh,
          .comment = comment,
          .number = member};
}

template <auto Member>
constexpr ConfigField text(std::string_view key, FieldKind kind, std::string_view fresh,
                           std::string_view comment) {
  return {.key = key,
          .kind = kind,
          .least = 0,
          .most = capacity_of(Member) - 1,
          .fresh = fresh,
          .comment = comment,
          .text = text_of<Member>};
}

}  // namespace detail

// A key is spelt like its field.
#define FLAG(name, fresh, comment) detail::flag(#name, &Config::name, fresh, comment)
#define BYTE(name, fresh, comment) detail::byte(#name, &Config::name, fresh, comment)
#define NUMBER(name, fresh, comment) detail::number(#name, &Config::name, fresh, comment)
#define TEXT(name, fresh, comment) \
  detail::text<&Config::name>(#name, FieldKind::text, fresh, comment)
#define CHANNEL_MAP(name, fresh, comment) \
  detail::text<&Config::name>(#name, FieldKind::channel_map, fresh, comment)
#define QUOTED_TEXT(name, fresh, comment) \
  detail::text<&Config::name>(#name, FieldKind::quoted_text, fresh, comment)

/// All keys: kind, field, value on a fresh card, comment. The blanks at some line ends are part of
/// the file.
inline constexpr auto kConfigFields = std::to_array<ConfigField>({
    // clang-format off
    FLAG(hdmi_enabled, "1",
      "# Video out selection\n"
      "# 1 - use HDMI\n"
      "# 0 - use TV-out\n"),
    FLAG(video_transcode_enabled, "0",
      "# Video transcode enabled\n"),
    NUMBER(video_bitrate, "2000000",
      "# Transcoded video bitrate (bit/s)\n"),
    NUMBER(video_width, "1280",
      "# Transcoded video width\n"),
    NUMBER(video_height, "720",
      "# Transcoded video height\n"),
    FLAG(disable_video_stream, "0",
      "# Disable video stream to Kestrava\n"
      "# 1 - video stream disabled\n"
      "# 0 - video stream enabled (default)\n"),
    FLAG(video_hflip, "0",
      "# Video horizontal flip\n"
      "# 1 - flipped\n"
      "# 0 - normal\n"),
    FLAG(video_vflip, "0",
      "# Video vertical flip\n"
      "# 1 - flipped\n"
      "# 0 - normal\n"),
    FLAG(rc_input_enabled, "0",
      "# Use RC control\n"
      "# 1 - enabled\n"
      "# 0 - disabled\n"),
    TEXT(rc_input_mode, "pwm",
      "# RC1 mode\n"
      "# pwm - PWM mode\n"
      "# ppm - PPM mode\n"),
    TEXT(rc2_input_mode, "sbus",
      "# RC2 mode\n"
      "# sbus - Sbus mode\n"
      "# ppm - PPM mode\n"),
    CHANNEL_MAP(rc_input_map, ",,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,",
      "# RC channels mapping\n"
      "# pan,tilt,zoom... etc\n"),
    NUMBER(rc_input_speed_pan, "100",
      "# RC pan speed (%)\n"
      "# 0 - 100\n"),
    NUMBER(rc_input_speed_tilt, "100",
      "# RC tilt speed (%)\n"
      "# 0 - 100\n"),
    NUMBER(rc_input_speed_dutch, "100",
      "# RC dutch speed (%)\n"
      "# 0 - 100\n"),
    NUMBER(rc_input_inverse_pan, "0",
      "# RC pan inverse\n"
      "# 0 - no\n"
      "# 1 - inverse\n"),
    NUMBER(rc_input_inverse_tilt, "0",
      "# RC tilt inverse\n"
      "# 0 - no\n"
      "# 1 - inverse\n"),
    NUMBER(rc_input_inverse_dutch, "0",
      "# RC dutch inverse\n"
      "# 0 - no\n"
      "# 1 - inverse\n"),
    FLAG(rc_input_exp, "0",
      "# RC exponential pan/tilt\n"),
    FLAG(rc_input_abs, "0",
      "# RC pan/tilt absolute\n"),
    TEXT(ap_iface, "",
      "# Interface for Wi-Fi access point\n"
      "# disabled if empty\n"),
    QUOTED_TEXT(ap_ssid, "",
      "# SSID for Wi-Fi access point\n"),
    QUOTED_TEXT(ap_psk, "",
      "# Password for Wi-Fi access point\n"),
    NUMBER(ap_mode, "2",
      "# Wi-Fi Access Point mode\n"
      "# 2 - 2.4GHz, 5 - 5GHz\n"),
    TEXT(ap_country, "00",
      "# Wi-Fi Access Point country code\n"
      "# 00, CN, US\n"),
    NUMBER(ap_channel, "6",
      "# Wi-Fi Access Point channel\n"
      "# 1 - 13 for 2.4Ghz and 36 - 42 for 5Ghz\n"),
    TEXT(wifi_iface, "",
      "# Interface for Wi-Fi network connection\n"
      "# disabled if empty\n"),
    QUOTED_TEXT(wifi_ssid, "",
      "# SSID for network connection \n"),
    QUOTED_TEXT(wifi_psk, "",
      "# Password for network connection \n"),
    TEXT(camera_iface, "",
      "# Interface for DJI Osmo connection\n"
      "# disabled if empty\n"),
    QUOTED_TEXT(camera_ssid, "",
      "# DJI Osmo Wi-Fi SSID \n"),
    QUOTED_TEXT(camera_psk, "",
      "# DJI Osmo Wi-Fi password \n"),
    FLAG(osd_enabled, "1",
      "# OSD enable \n"
      "# 1 - enabled\n"
      "# 0 - disabled\n"),
    BYTE(osd_border_width, "0",
      "# OSD borders width (pixels)\n"
      "# 0 - disabled\n"),
    BYTE(osd_border_height, "0",
      "# OSD borders height (pixels)\n"
      "# 0 - disabled\n"),
    BYTE(osd_top_offset, "0",
      "# OSD top text offset (pixels)\n"),
    BYTE(osd_bottom_offset, "0",
      "# OSD bottom text offset (pixels)\n"),
    FLAG(internal_camera_enabled, "0",
      "# Internal camera enable \n"
      "# 1 - enabled\n"
      "# 0 - disabled\n"),
    FLAG(internal_camera_fullscreen, "0",
      "# Internal camera fullscreen \n"
      "# 1 - fullscreen\n"
      "# 0 - windowed\n"),
    // clang-format on
});

#undef FLAG
#undef BYTE
#undef NUMBER
#undef TEXT
#undef CHANNEL_MAP
#undef QUOTED_TEXT

inline constexpr std::size_t kConfigFieldCount = kConfigFields.size();

/// The row of exactly that key; behind the last row when there is none.
[[nodiscard]] constexpr std::size_t config_row(std::string_view key) noexcept {
  std::size_t row = 0;
  while (row < kConfigFieldCount && kConfigFields[row].key != key) ++row;
  return row;
}

/// The field of exactly that key, or null. Any thread.
[[nodiscard]] inline const ConfigField* find_config_field(std::string_view key) noexcept {
  const std::size_t row = config_row(key);
  return row == kConfigFieldCount ? nullptr : &kConfigFields[row];
}

/// The field of a key that stands in the code. One that is misspelt does not compile.
class ConfigKey {
 public:
  constexpr ConfigKey() = default;  ///< none
  consteval ConfigKey(const char* key) : row_(config_row(key)) {
    if (row_ == kConfigFieldCount) there_is_no_such_key();
  }

  constexpr explicit operator bool() const noexcept { return row_ != kConfigFieldCount; }
  constexpr const ConfigField& operator*() const noexcept { return kConfigFields[row_]; }

 private:
  static void there_is_no_such_key();  // never defined: calling it is what does not compile

  std::size_t row_ = kConfigFieldCount;
};

/// Called with the stored map text whenever an "rc_input_map" has been stored.
using PublishChannelMap = void (*)(std::string_view map);

/// Stores a value, given as text, in a field of the record, as its kind has it. A new channel map
/// is published if the function is not null. Main thread at start, control thread afterwards.
void store_config_field(const ConfigField& field, const char* value,
                        PublishChannelMap publish_channel_map) noexcept;

}  // namespace nimbus
