// The file on the card ends its lines with CR LF, so that it can be edited on any desktop; the
// working copy, which the loader reads at the next start, has plain line ends.
#include "config/writer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "base/log.h"
#include "base/unique_fd.h"
#include "config/config.h"
#include "config/fields.h"

namespace nimbus {
namespace {

/// One key of the file with the comment lines above it.
struct Block {
  std::string_view comment;
  std::string_view key;
};

// The order of the file. The blanks at some line ends are part of it.
constexpr std::array<Block, kConfigFieldCount> kBlocks{{
    {"# Video out selection\n"
     "# 1 - use HDMI\n"
     "# 0 - use TV-out\n",
     "hdmi_enabled"},
    {"# Video transcode enabled\n", "video_transcode_enabled"},
    {"# Transcoded video bitrate (bit/s)\n", "video_bitrate"},
    {"# Transcoded video width\n", "video_width"},
    {"# Transcoded video height\n", "video_height"},
    {"# Disable video stream to Kestrava\n"
     "# 1 - video stream disabled\n"
     "# 0 - video stream enabled (default)\n",
     "disable_video_stream"},
    {"# Video horizontal flip\n"
     "# 1 - flipped\n"
     "# 0 - normal\n",
     "video_hflip"},
    {"# Video vertical flip\n"
     "# 1 - flipped\n"
     "# 0 - normal\n",
     "video_vflip"},
    {"# Use RC control\n"
     "# 1 - enabled\n"
     "# 0 - disabled\n",
     "rc_input_enabled"},
    {"# RC1 mode\n"
     "# pwm - PWM mode\n"
     "# ppm - PPM mode\n",
     "rc_input_mode"},
    {"# RC2 mode\n"
     "# sbus - Sbus mode\n"
     "# ppm - PPM mode\n",
     "rc2_input_mode"},
    {"# RC channels mapping\n"
     "# pan,tilt,zoom... etc\n",
     "rc_input_map"},
    {"# RC pan speed (%)\n"
     "# 0 - 100\n",
     "rc_input_speed_pan"},
    {"# RC tilt speed (%)\n"
     "# 0 - 100\n",
     "rc_input_speed_tilt"},
    {"# RC dutch speed (%)\n"
     "# 0 - 100\n",
     "rc_input_speed_dutch"},
    {"# RC pan inverse\n"
     "# 0 - no\n"
     "# 1 - inverse\n",
     "rc_input_inverse_pan"},
    {"# RC tilt inverse\n"
     "# 0 - no\n"
     "# 1 - inverse\n",
     "rc_input_inverse_tilt"},
    {"# RC dutch inverse\n"
     "# 0 - no\n"
     "# 1 - inverse\n",
     "rc_input_inverse_dutch"},
    {"# RC exponential pan/tilt\n", "rc_input_exp"},
    {"# RC pan/tilt absolute\n", "rc_input_abs"},
    {"# Interface for Wi-Fi access point\n"
     "# disabled if empty\n",
     "ap_iface"},
    {"# SSID for Wi-Fi access point\n", "ap_ssid"},
    {"# Password for Wi-Fi access point\n", "ap_psk"},
    {"# Wi-Fi Access Point mode\n"
     "# 2 - 2.4GHz, 5 - 5GHz\n",
     "ap_mode"},
    {"# Wi-Fi Access Point country code\n"
     "# 00, CN, US\n",
     "ap_country"},
    {"# Wi-Fi Access Point channel\n"
     "# 1 - 13 for 2.4Ghz and 36 - 42 for 5Ghz\n",
     "ap_channel"},
    {"# Interface for Wi-Fi network connection\n"
     "# disabled if empty\n",
     "wifi_iface"},
    {"# SSID for network connection \n", "wifi_ssid"},
    {"# Password for network connection \n", "wifi_psk"},
    {"# Interface for DJI Osmo connection\n"
     "# disabled if empty\n",
     "camera_iface"},
    {"# DJI Osmo Wi-Fi SSID \n", "camera_ssid"},
    {"# DJI Osmo Wi-Fi password \n", "camera_psk"},
    {"# OSD enable \n"
     "# 1 - enabled\n"
     "# 0 - disabled\n",
     "osd_enabled"},
    {"# OSD borders width (pixels)\n"
     "# 0 - disabled\n",
     "osd_border_width"},
    {"# OSD borders height (pixels)\n"
     "# 0 - disabled\n",
     "osd_border_height"},
    {"# OSD top text offset (pixels)\n", "osd_top_offset"},
    {"# OSD bottom text offset (pixels)\n", "osd_bottom_offset"},
    {"# Internal camera enable \n"
     "# 1 - enabled\n"
     "# 0 - disabled\n",
     "internal_camera_enabled"},
    {"# Internal camera fullscreen \n"
     "# 1 - fullscreen\n"
     "# 0 - windowed\n",
     "internal_camera_fullscreen"},
}};

#define CARD_FILE "/boot/tervado-nimbus.conf"
#define WORKING_COPY "/run/tervado.conf"

/// The whole file, built in memory and written at once.
class FileText {
 public:
  /// Adds a text as it is.
  void add(std::string_view text) noexcept {
    for (const char c : text) put(c);
  }

  /// Adds lines that end with LF here; in the file they end with CR LF.
  void add_lines(std::string_view lines) noexcept {
    for (const char c : lines) {
      if (c == '\n') put('\r');
      put(c);
    }
  }

  [[nodiscard]] std::string_view view() const noexcept { return {chars_.data(), length_}; }

 private:
  // Comments, keys and the longest value of every field together are half of this.
  static constexpr std::size_t kCapacity = 16 * 1024;

  void put(char c) noexcept {
    if (length_ < chars_.size()) chars_[length_++] = c;
  }

  std::array<char, kCapacity> chars_;
  std::size_t length_ = 0;
};

void add_number(FileText& file, std::int32_t number) {
  std::array<char, 12> text;
  std::snprintf(text.data(), text.size(), "%d", number);
  file.add(text.data());
}

void add_text(FileText& file, SharedTextRef field) {
  std::array<char, kLongestConfigText> text;
  file.add(field.copy_to(text));
}

void add_value(FileText& file, const ConfigField& field, Config& config) {
  switch (field.kind) {
    case FieldKind::flag:
    case FieldKind::byte:
      add_number(file, config.*field.byte);
      break;
    case FieldKind::number:
      add_number(file, config.*field.number);
      break;
    case FieldKind::text:
    case FieldKind::channel_map:
      add_text(file, field.text(config));
      break;
    case FieldKind::quoted_text:
      file.add("\"");
      add_text(file, field.text(config));
      file.add("\"");
      break;
  }
}

FileText build_file(Config& config) {
  FileText file;
  file.add_lines("# Tervado config file\n\n");
  for (const Block& block : kBlocks) {
    file.add_lines(block.comment);
    file.add(block.key);
    file.add("=");
    add_value(file, *find_config_field(block.key), config);
    file.add_lines("\n\n");
  }
  return file;
}

/// Two threads may save at a time. Each writes the whole file while it holds it, so that the file
/// is never a mix of both.
bool write_file(std::string_view text) {
  const UniqueFd fd(open(CARD_FILE, O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
  if (!fd) return false;
  flock(fd.get(), LOCK_EX);
  // A write that fails is not noticed: there is nobody to tell, and the next save tries again.
  [[maybe_unused]] const int truncated = ftruncate(fd.get(), 0);
  [[maybe_unused]] const auto written = write(fd.get(), text.data(), text.size());
  return true;
}

}  // namespace

int config_save() noexcept {
  log_text("Save config\n");
  [[maybe_unused]] int status = std::system("mount -o rw,remount /boot");
  if (!write_file(build_file(*config_get()).view())) return -1;
  status = std::system("umount /boot");
  status = std::system("mount /boot");
  return std::system("cat " CARD_FILE " | sed 's/\\r$//' > " WORKING_COPY);
}

}  // namespace nimbus
