#include "config/report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "config/config.h"
#include "config/fields.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

constexpr std::size_t kBufferSize = 65'000;

/// The names of the report in its order, the keys that they stand for, and how the value 0 or the
/// empty text shows.
constexpr struct {
  const char* name;
  const char* key;
  const char* empty;
} kItems[] = {
    // clang-format off
    {"vbitrate",      "video_bitrate",              "0"},
    {"vw",            "video_width",                "0"},
    {"vh",            "video_height",               "0"},
    {"vte",           "video_transcode_enabled",    "0"},
    {"v_dis",         "disable_video_stream",       "0"},
    {"v_hf",          "video_hflip",                "0"},
    {"v_vf",          "video_vflip",                "0"},
    {"rcin_en",       "rc_input_enabled",           "0"},
    {"rcin_mode",     "rc_input_mode",              "\"\""},
    {"rcin2_mode",    "rc2_input_mode",             "\"\""},
    {"rcin_map",      "rc_input_map",               "\"\""},
    {"rcin_pan",      "rc_input_speed_pan",         "0"},
    {"rcin_tilt",     "rc_input_speed_tilt",        "0"},
    {"rcin_dutch",    "rc_input_speed_dutch",       "0"},
    {"rcin_paninv",   "rc_input_inverse_pan",       "0"},
    {"rcin_tiltinv",  "rc_input_inverse_tilt",      "0"},
    {"rcin_dutchinv", "rc_input_inverse_dutch",     "0"},
    {"rcin_exp",      "rc_input_exp",               "0"},
    {"rcin_abs",      "rc_input_abs",               "0"},
    {"hdmistate",     "hdmi_enabled",               "0"},
    {"osdbrdw",       "osd_border_width",           "0"},
    {"osdbrdh",       "osd_border_height",          "0"},
    {"osdtof",        "osd_top_offset",             "0"},
    {"osdbof",        "osd_bottom_offset",          "0"},
    {"osd_en",        "osd_enabled",                "0"},
    {"ic_en",         "internal_camera_enabled",    "0"},
    {"ic_fs",         "internal_camera_fullscreen", "0"},
    {"ap_iface",      "ap_iface",                   "\"0\""},
    {"ap_ssid",       "ap_ssid",                    "\"\""},
    {"ap_psk",        "ap_psk",                     "\"\""},
    {"ap_mode",       "ap_mode",                    "0"},
    {"ap_channel",    "ap_channel",                 "0"},
    {"ap_country",    "ap_country",                 "\"\""},
    {"lan_iface",     "wifi_iface",                 "\"0\""},
    {"lan_ssid",      "wifi_ssid",                  "\"\""},
    {"lan_psk",       "wifi_psk",                   "\"\""},
    {"cam_iface",     "camera_iface",               "\"0\""},
    {"cam_ssid",      "camera_ssid",                "\"\""},
    {"cam_psk",       "camera_psk",                 "\"\""},
    // clang-format on
};

/// The report of a record that is empty but for those items.
std::string report_with(const std::map<std::string, std::string>& values,
                        const std::string& version = "") {
  std::string text = "{\"app\":\"nimbus\",";
  for (const auto& item : kItems) {
    const auto value = values.find(item.name);
    text += std::string("\"") + item.name +
            "\":" + (value == values.end() ? item.empty : value->second) + ",";
  }
  return text + "\"version\":\"" + version + "\",\"ifaces\":[]}";
}

/// A record of zeros. The sandbox has no interface but loopback.
class Report : public testing::Test {
 protected:
  void SetUp() override { test::set_bytes(config, std::string(sizeof(Config), '\0')); }
  void TearDown() override { SetUp(); }

  void store(const char* key, const std::string& value) {
    const ConfigField* const field = find_config_field(key);
    ASSERT_NE(field, nullptr) << key;
    store_config_field(*field, value.c_str(), nullptr);
  }

  /// The report, once everything around it is checked.
  std::string report() {
    std::fill(buffer.begin(), buffer.end(), '#');
    const std::int32_t result = config_report(buffer);
    std::string text = buffer.data();
    EXPECT_EQ(static_cast<std::size_t>(result) + 1, text.size());
    EXPECT_TRUE(std::all_of(buffer.begin() + static_cast<std::ptrdiff_t>(text.size()), buffer.end(),
                            [](char c) { return c == '\0'; }));
    return text;
  }

  Config& config = *config_get();
  std::vector<char> buffer = std::vector<char>(kBufferSize);
};

TEST_F(Report, OfNothing) { EXPECT_EQ(report(), report_with({})); }

TEST_F(Report, NamesEachFieldAlone) {
  for (const auto& item : kItems) {
    SCOPED_TRACE(item.key);
    SetUp();
    const bool number = item.empty[0] == '0';
    const bool interface = std::string(item.empty) == "\"0\"";
    store(item.key, interface ? "wlan0" : "1");
    EXPECT_EQ(report(), report_with({{item.name, number ? "1" : interface ? "\"2\"" : "\"1\""}}));
  }
}

TEST_F(Report, Values) {
  const struct {
    const char* name;
    const char* key;
    const char* value;
    const char* shown;
  } kRows[] = {
      {"osdbrdw", "osd_border_width", "255", "255"},
      {"rcin_tiltinv", "rc_input_inverse_tilt", "2", "2"},
      {"vw", "video_width", "-2147483648", "-2147483648"},
      {"vh", "video_height", "2147483647", "2147483647"},
      {"ap_iface", "ap_iface", "wifi0", "\"1\""},
      {"ap_iface", "ap_iface", "eth0", "\"0\""},
      {"cam_iface", "camera_iface", "Wlan0", "\"0\""},
      {"lan_iface", "wifi_iface", "wlan0 ", "\"0\""},
      {"lan_iface", "wifi_iface", "wlan00", "\"0\""},
      // As they are stored: nothing is escaped.
      {"rcin_mode", "rc_input_mode", "a\"\\\n\t", "\"a\"\\\n\t\""},
      {"rcin_map", "rc_input_map", "%n%s%1$s", "\"%n%s%1$s\""},
      {"cam_psk", "camera_psk", "\xc3\xa9\xff", "\"\xc3\xa9\xff\""},
  };
  for (const auto& row : kRows) {
    SetUp();
    store(row.key, row.value);
    EXPECT_EQ(report(), report_with({{row.name, row.shown}}));
  }
}

TEST_F(Report, QuotesInAnSsid) {
  config.ap_ssid.assign("a\"b");
  EXPECT_EQ(report(), report_with({{"ap_ssid", "\"a\"b\""}}));
}

TEST_F(Report, TellsTheVersion) {
  config.service_version.assign("10.20.30");
  EXPECT_EQ(report(), report_with({}, "10.20.30"));
}

/// Also with a text that somebody left without an end.
TEST_F(Report, TheLargestFits) {
  test::set_bytes(config, std::string(sizeof(Config), '\xff'));
  const std::string text = report();
  EXPECT_LT(text.size(), 5000U);
  EXPECT_EQ(text.substr(text.size() - 13), ",\"ifaces\":[]}");
  EXPECT_NE(text.find("\"rcin_map\":\"" + std::string(511, '\xff') + "\","), std::string::npos);
  EXPECT_NE(text.find("\"version\":\"" + std::string(19, '\xff') + "\","), std::string::npos);
}

TEST_F(Report, IsCutToTheBuffer) {
  const std::string whole = report_with({});
  for (const std::size_t size :
       {std::size_t{1}, std::size_t{2}, std::size_t{17}, whole.size() - 1, whole.size()}) {
    SCOPED_TRACE(size);
    std::fill(buffer.begin(), buffer.end(), '#');
    EXPECT_EQ(config_report(std::span(buffer).first(size)), static_cast<std::int32_t>(size - 1));
    EXPECT_EQ(std::string(buffer.data()), whole.substr(0, size - 1));
    EXPECT_EQ(buffer[size], '#');
  }
}

}  // namespace
}  // namespace nimbus
