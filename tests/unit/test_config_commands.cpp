#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "config/commands.h"
#include "config/config.h"
#include "display/region.h"
#include "tests/unit/board_tools.h"
#include "tests/unit/config_keys.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

namespace fs = std::filesystem;
using Calls = std::vector<std::string>;

std::vector<std::string> maps;
std::vector<std::string> sent;

/// A text as a JSON text, in quotes.
std::string quoted(const std::string& text) {
  constexpr std::string_view kHex = "0123456789abcdef";
  std::string json = "\"";
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    if (code < 0x20 || c == '"' || c == '\\') {
      json += std::string("\\u00") + kHex[code / 16] + kHex[code % 16];
    } else {
      json += c;
    }
  }
  return json + "\"";
}

std::string member(const std::string& name, const std::string& value) {
  return ",\"" + name + "\":" + quoted(value);
}

/// A record of zeros, a fresh card, and a console that nobody reads.
class ConfigCommands : public testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_NE(map_display_region(), nullptr); }

  void SetUp() override {
    maps.clear();
    sent.clear();
    init_config_commands({
        .publish_channel_map = [](std::string_view map) { maps.emplace_back(map); },
        .send_to_viewers = [](std::string_view text) { sent.emplace_back(text); },
    });
    clear();
    std::fflush(stdout);
    dup2(nowhere_.get(), STDOUT_FILENO);
  }
  void TearDown() override {
    dup2(stdout_.get(), STDOUT_FILENO);
    clear();
    fs::remove("/boot/tervado-nimbus.conf");
    fs::remove("/run/tervado.conf");
    fs::remove("/run/wlan.update");
  }

  void clear() { test::set_bytes(config, std::string(sizeof(Config), '\0')); }

  static void update(const std::string& name, const std::string& members) {
    config_parse_command(
        ("{\"cmd\":\"updateparam\"" + member("name", name) + members + "}").c_str());
  }

  Config& config = *config_get();
  test::BoardTools tools;

 private:
  UniqueFd nowhere_{open("/dev/null", O_WRONLY)};
  UniqueFd stdout_{dup(STDOUT_FILENO)};
  test::StandardError silent_{nowhere_.get()};
};

/// The members of the settings and the keys that they end in.
constexpr struct {
  const char* name;
  const char* member;
  const char* key;
} kTargets[] = {
    // clang-format off
    {"rcin_mode",               "value",   "rc_input_mode"},
    {"rcin_mode",               "value2",  "rc2_input_mode"},
    {"rcin_map",                "value",   "rc_input_map"},
    {"rcin_speed",              "value",   "rc_input_speed_pan"},
    {"rcin_speed",              "value2",  "rc_input_speed_tilt"},
    {"rcin_speed",              "value3",  "rc_input_speed_dutch"},
    {"rcin_pan",                "value",   "rc_input_speed_pan"},
    {"rcin_tilt",               "value",   "rc_input_speed_tilt"},
    {"rcin_dutch",              "value",   "rc_input_speed_dutch"},
    {"rcin_pan_inv",            "value",   "rc_input_inverse_pan"},
    {"rcin_tilt_inv",           "value",   "rc_input_inverse_tilt"},
    {"rcin_dutch_inv",          "value",   "rc_input_inverse_dutch"},
    {"osd_borders",             "value",   "osd_border_width"},
    {"osd_borders",             "value2",  "osd_border_height"},
    {"osd_offset",              "value",   "osd_top_offset"},
    {"osd_offset",              "value2",  "osd_bottom_offset"},
    {"osd_top_offset",          "value",   "osd_top_offset"},
    {"osd_bottom_offset",       "value",   "osd_bottom_offset"},
    {"video_bitrate",           "value",   "video_bitrate"},
    {"video_transcode_enabled", "value",   "video_transcode_enabled"},
    {"disable_video_stream",    "value",   "disable_video_stream"},
    {"video_hflip",             "value",   "video_hflip"},
    {"video_vflip",             "value",   "video_vflip"},
    {"wifi",                    "value2",  "camera_ssid"},
    {"wifi",                    "value3",  "camera_psk"},
    {"wifi",                    "value5",  "wifi_ssid"},
    {"wifi",                    "value6",  "wifi_psk"},
    {"wifi",                    "value8",  "ap_ssid"},
    {"wifi",                    "value9",  "ap_psk"},
    {"wifi",                    "value11", "ap_channel"},
    {"wifi",                    "value12", "ap_country"},
    // clang-format on
};

const test::ConfigKey& key_named(std::string_view name) {
  for (const auto& key : test::kConfigKeys) {
    if (key.key == name) return key;
  }
  ADD_FAILURE() << "no key " << name;
  return test::kConfigKeys.front();
}

/// What a field of that kind holds of 500 nines.
std::string nines_in(const test::ConfigKey& key) {
  switch (key.kind) {
    case FieldKind::flag:
      return "\1";
    case FieldKind::byte:
      return "\xff";
    case FieldKind::number:
      return "\xff\xff\xff\x7f";
    default:
      return std::string(std::min<std::size_t>(key.size - 1, 500), '9');
  }
}

/// Far longer than any mailbox holds, and still nothing but the one field changes.
TEST_F(ConfigCommands, AValueFillsItsFieldAtMost) {
  for (const auto& row : kTargets) {
    SCOPED_TRACE(std::string(row.name) + " " + row.member);
    clear();
    update(row.name, member(row.member, std::string(500, '9')));
    const test::ConfigKey& key = key_named(row.key);
    std::string expected(sizeof(Config), '\0');
    const std::string stored = nines_in(key);
    expected.replace(key.offset, stored.size(), stored);
    EXPECT_EQ(test::bytes_of(config), expected);
  }
  EXPECT_EQ(maps, std::vector<std::string>{std::string(500, '9')});
}

/// Values that a shell, a format or a file could take for its own.
const std::string kHostile =
    "$(touch /run/owned)`touch /run/owned`'; touch /run/owned; '\"; touch /run/owned; \"\n"
    "touch /run/owned\n| touch /run/owned & %n%s%1000000d\\\r\t\x01\x7f\xff=;#[x]";

constexpr const char* kNames[] = {
    "rcin_enabled",
    "rcin_mode",
    "rcin_map",
    "rcin_speed",
    "rcin_pan",
    "rcin_tilt",
    "rcin_dutch",
    "rcin_pan_inv",
    "rcin_tilt_inv",
    "rcin_dutch_inv",
    "rcin_exp",
    "rcin_abs",
    "internal_camera_enabled",
    "internal_camera_fullscreen",
    "osd_enabled",
    "hdmi_enabled",
    "hdmimode",
    "osd_borders",
    "osd_offset",
    "osd_top_offset",
    "osd_bottom_offset",
    "video_bitrate",
    "video_transcode_enabled",
    "disable_video_stream",
    "video_hflip",
    "video_vflip",
    "video_resolution",
    "wifi",
    "no such",
};

std::string all_values(const std::string& value) {
  std::string members = member("value", value);
  for (int n = 2; n <= 12; ++n) members += member("value" + std::to_string(n), value);
  return members;
}

/// Whatever the values are, the same tools are called as for the value 0.
TEST_F(ConfigCommands, NoValueReachesTheShell) {
  for (const char* const name : kNames) {
    SCOPED_TRACE(name);
    update(name, all_values("0"));
    const Calls calls = tools.calls();
    update(name, all_values(kHostile));
    EXPECT_EQ(tools.calls(), calls);
  }
  EXPECT_FALSE(fs::exists("/run/owned"));
}

TEST_F(ConfigCommands, NoOtherMemberReachesTheShell) {
  for (const char* const name : {"cmd", "name", "param"}) {
    for (const char* const command : {"updateparam", "rc", "wlan", "x"}) {
      config_parse_command(("{" + member(name, kHostile).substr(1) + member("cmd", command) +
                            all_values(kHostile) + "}")
                               .c_str());
    }
  }
  EXPECT_EQ(tools.calls(), Calls{});
  EXPECT_FALSE(fs::exists("/run/owned"));
  EXPECT_EQ(test::bytes_of(config), std::string(sizeof(Config), '\0'));
  EXPECT_EQ(sent, std::vector<std::string>{});
}

/// Texts are stored as they come, their double quotes too.
TEST_F(ConfigCommands, HostileTextsAreStored) {
  update("wifi", all_values(kHostile));
  for (const auto* const text : {&config.camera_ssid, &config.camera_psk, &config.wifi_ssid,
                                 &config.wifi_psk, &config.ap_ssid, &config.ap_psk}) {
    EXPECT_EQ(text->copy().view(), kHostile.substr(0, 255));
  }
  EXPECT_EQ(config.ap_country.copy().view(), kHostile.substr(0, 9));
  EXPECT_EQ(config.ap_mode, 0);
  EXPECT_TRUE(config.ap_iface.empty() && config.wifi_iface.empty() && config.camera_iface.empty());
}

TEST_F(ConfigCommands, MissingValuesAreEmpty) {
  test::set_bytes(config, std::string(sizeof(Config), '\1'));
  for (const char* const name : {"rcin_mode", "rcin_map", "rcin_speed", "osd_borders", "wifi"}) {
    update(name, "");
  }
  for (const char* const key :
       {"rc_input_mode", "rc2_input_mode", "rc_input_map", "rc_input_speed_pan",
        "rc_input_speed_tilt", "rc_input_speed_dutch", "osd_border_width", "osd_border_height",
        "camera_ssid", "camera_psk", "wifi_ssid", "wifi_psk", "ap_ssid", "ap_psk", "ap_channel",
        "ap_country"}) {
    EXPECT_EQ(test::bytes_of(config)[key_named(key).offset], '\0') << key;
  }
  EXPECT_EQ(maps, std::vector<std::string>{""});
}

/// The code of a scan stands in the reply as it came; the reply stays within its bounds.
TEST_F(ConfigCommands, TheReplyToAScanIsBounded) {
  const auto scan = [](const std::string& code) {
    config_parse_command((R"({"cmd":"wlan","param":"scan")" + member("value", code) + "}").c_str());
    return sent.back();
  };
  EXPECT_EQ(scan(kHostile), R"({"cmd":"wlanscan","param":")" + kHostile + R"(","value":""})");
  EXPECT_EQ(scan(std::string(100'000, 'x')).size(), 59'999U);
  EXPECT_EQ(tools.calls(), (Calls{"iwlist scan", "iwlist scan"}));
}

TEST_F(ConfigCommands, TheReportIsSentWhole) {
  config.wifi_ssid.assign(kHostile);
  config_parse_command(R"({"cmd":"configrequest"})");
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].substr(0, 16), R"({"app":"nimbus",)");
  EXPECT_EQ(sent[0].substr(sent[0].size() - 13), R"(,"ifaces":[]})");
  EXPECT_NE(sent[0].find("\"lan_ssid\":\"" + kHostile.substr(0, 255) + "\","), std::string::npos);
}

}  // namespace
}  // namespace nimbus
